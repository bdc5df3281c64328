// SPDX-License-Identifier: GPL-2.0-only
// The vocabulary of the tests at the seam: a loaded driver, memory disks, commands as an agent
// sends them, bios as a front end sends them, and what the driver said.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "doubles/fault.h"
#include "doubles/memory_disk.h"
#include "driver/core/blkdev.h"
#include "kernel/blkdev.h"
#include "zorv/abi.h"

namespace zorv_test {

using kernel::s32;
using kernel::u32;
using kernel::u64;
using kernel::u8;
using bytes = std::vector<u8>;

// Keeps what is printed while it lives; lines without their newline, markers included.
class log_capture {
 public:
  log_capture();
  ~log_capture();
  [[nodiscard]] std::vector<std::string> lines() const;
  [[nodiscard]] bool has(const std::string& part) const { return count(part) > 0; }
  [[nodiscard]] int count(const std::string& part) const;
  void clear();
  // The lines that hold an error.
  [[nodiscard]] std::string errors() const;
};

// A folder of its own, removed with what is in it.
class temp_dir {
 public:
  temp_dir();
  ~temp_dir();
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};
bytes read_file(const std::string& path);
void write_file(const std::string& path, const bytes& content);

// Runs until done() is true; fails the test after the limit.
[[nodiscard]] bool eventually(const std::function<bool()>& done, int limit_ms = 10000);

void reset_parameters();                                        // of the module, to their defaults
[[nodiscard]] kernel::devt device_of(const std::string& path);  // of a node; 0 if there is none

// One request in flight; wait() gives its result. The buffer lives here.
class pending_io {
 public:
  // rw: kernel::READ, kernel::WRITE, with REQ_FLUSH or REQ_FUA.
  pending_io(kernel::block_device* bdev, u32 rw, u64 sector, bytes data);
  ~pending_io();
  pending_io(const pending_io&) = delete;
  pending_io& operator=(const pending_io&) = delete;
  [[nodiscard]] bool done() const { return left_.load() == 0; }
  int wait();  // 0 or a negative errno; fails the test after 20 s
  [[nodiscard]] const bytes& data() const { return data_; }
  [[nodiscard]] const std::string& ended_by() const { return ended_by_; }  // a task, once done
  static void end_io(kernel::bio* b, int error);

 private:
  kernel::block_device* bdev_;
  bytes data_;
  std::string ended_by_;
  std::atomic<int> left_{0};
  std::atomic<int> error_{0};
};

// A node (or any block device) opened as a front end opens it.
class client {
 public:
  client() = default;
  explicit client(u32 minor);  // a node of the driver; fails the test when it cannot be opened
  explicit client(kernel::block_device* bdev) : bdev_(bdev) {}
  ~client() { close(); }
  client(client&& o) noexcept : bdev_(std::exchange(o.bdev_, nullptr)) {}
  client& operator=(client&& o) noexcept {
    close();
    bdev_ = std::exchange(o.bdev_, nullptr);
    return *this;
  }
  void close();
  [[nodiscard]] kernel::block_device* bdev() const { return bdev_; }
  [[nodiscard]] int write(u64 offset, const bytes& data, u32 flags = 0);
  [[nodiscard]] int fill(u64 offset, u64 len, u8 value) { return write(offset, bytes(len, value)); }
  [[nodiscard]] int read(u64 offset, u64 len, bytes* out);
  [[nodiscard]] bytes get(u64 offset, u64 len);  // fails the test on an error
  [[nodiscard]] int flush();
  [[nodiscard]] std::unique_ptr<pending_io> start_write(u64 offset, bytes data, u32 flags = 0);
  [[nodiscard]] std::unique_ptr<pending_io> start_read(u64 offset, u64 len);

 private:
  kernel::block_device* bdev_ = nullptr;
};

struct filter_options {
  u32 extent_size = 65536;
  s32 minor = -1;
  std::string name, uuid, bmp_dir;
};

// A loaded driver; unloaded at the end, which must succeed. Faults are off before and after.
class driver_test : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // One command as an agent sends it: 0 or a negative errno.
  template <class Record>
  int command(u32 number, Record* record) {
    return raw_command(number, record);
  }
  int raw_command(u32 number, void* record);

  [[nodiscard]] static zorv_add_filter_req filter_request(const std::string& hdd,
                                                          const filter_options& o);
  // Fail the test unless they succeed.
  u32 add_filter(const std::string& hdd, filter_options o = {});
  u32 add_started_filter(const std::string& hdd, filter_options o = {});
  int start(u32 minor) { return node(ZORV_START_NODE, minor); }
  int stop(u32 minor) { return node(ZORV_STOP_NODE, minor); }
  int del(u32 minor) { return node(ZORV_DEL_NODE, minor); }
  int node(u32 number, u32 minor);
  zorv_info_req info(u32 minor);

  int bmp(u32 number, u32 minor, u32 type);  // LOAD, SAVE, CLR
  bytes get_bmp(u32 minor, u32 type, u32 number = ZORV_GET_BMP);
  // The set bits among the first extent_cnt of GET_BMP.
  std::vector<u32> changed(u32 minor, u32 type);

  // A text below /proc, "zorv/zorv0/started".
  static std::string proc(const std::string& path);
  // Name and text of every entry of a directory, in its order; all of them must be 0444.
  using text_list = std::vector<std::pair<std::string, std::string>>;
  static text_list proc_texts(const std::string& directory);

  // Loads a driver again after unload() with the same disks and files.
  void unload();
  void load();

  temp_dir dir, state;
  log_capture log;
  bool loaded = false;
  bool confirms = true;  // whoever takes a bitmap has it when its command ends
};

}  // namespace zorv_test
