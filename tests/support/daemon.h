// SPDX-License-Identifier: GPL-2.0-only
// The programs as their users run them: a zorvd in a folder of its own, and commands.
#pragma once

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/nbd_client.h"

namespace zorv_test {

struct program_result {
  int status;  // exit status, or 128 + the signal
  std::string out;
  std::string err;
};
// Runs a program to its end (20 s at most); input goes to its standard input.
program_result run_program(const std::vector<std::string>& argv, const std::string& input = "");

class daemon_process {
 public:
  // Starts `zorvd --run-dir DIR ARGS` and waits until it serves or has ended.
  explicit daemon_process(std::vector<std::string> args = {}, std::string run_dir = "");
  ~daemon_process();
  daemon_process(const daemon_process&) = delete;
  daemon_process& operator=(const daemon_process&) = delete;

  [[nodiscard]] bool serving() const { return serving_; }
  void signal(int number) const;
  int wait();  // until it ends; its status as in program_result
  int end(int number) {
    signal(number);
    return wait();
  }
  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] const std::string& run_dir() const { return run_dir_; }
  [[nodiscard]] std::string control() const { return run_dir_ + "/control.sock"; }
  [[nodiscard]] std::string uri(const std::string& node) const {
    return "nbd+unix:///" + node + "?socket=" + run_dir_ + "/nbd.sock";
  }
  [[nodiscard]] std::string log() const;  // what it has written to standard error

  // zorvctl against this daemon.
  [[nodiscard]] program_result ctl(std::vector<std::string> args, const std::string& input = "");
  // The same with --json: the document. Fails the test unless the status is the expected one.
  nlohmann::json ctl_json(std::vector<std::string> args, int status = 0);
  // Fails the test unless it succeeds; returns what it printed.
  std::string must(std::vector<std::string> args);

 private:
  temp_dir dir_;
  std::string run_dir_;
  pid_t pid_ = -1;
  bool serving_ = false;
};

// A client on a node's export.
struct node_client : raw_client {
  node_client(const daemon_process& d, const std::string& node)
      : raw_client(d.run_dir() + "/nbd.sock") {
    EXPECT_TRUE(enter(node)) << node;
  }
  answer read(u64 offset, u64 length) {
    return call(wire::cmd_read, offset, static_cast<u32>(length));
  }
  // 0 or an errno.
  u32 write(u64 offset, const bytes& data) {
    return call(wire::cmd_write, offset, static_cast<u32>(data.size()), 0, data).error;
  }
};

// A test with a daemon in `dir`/run, which ends well.
struct with_daemon : ::testing::Test {
  // With the image as the disk "disk"; none without a path.
  void serve(const std::string& image);
  // `zorvctl add-filter` with its bitmap files in `dir`, and more arguments.
  nlohmann::json add_filter(const std::string& disk, std::vector<std::string> more = {});
  // The same under that name, and started.
  void add_started(const std::string& disk, const std::string& name);
  void TearDown() override;

  temp_dir dir;
  std::unique_ptr<daemon_process> d;
};

// A sparse file.
void make_image(const std::string& path, u64 size_bytes);

}  // namespace zorv_test
