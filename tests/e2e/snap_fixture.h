// SPDX-License-Identifier: GPL-2.0-only
// Snapshots as their users meet them: a filter over an image, clients on its exports, zorvctl.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/daemon.h"

struct nbd_handle;

namespace zorv_test {

constexpr u64 KiB = 1024, MiB = 1024 * KiB;

// A client's connection to an export.
class nbd_connection {
 public:
  explicit nbd_connection(const std::string& uri);
  ~nbd_connection();
  nbd_connection(const nbd_connection&) = delete;
  nbd_connection& operator=(const nbd_connection&) = delete;

  [[nodiscard]] bool connected() const { return connected_; }
  // 0 or an errno.
  [[nodiscard]] int write(u64 offset, const bytes& data);
  [[nodiscard]] int read(u64 offset, bytes* data);
  // The whole export; empty (and the test fails) when it cannot be read.
  [[nodiscard]] bytes read_all();

 private:
  nbd_handle* handle_;
  bool connected_;
};

// What a client wrote, in its own order, each write with a larger number than the one before:
// what a disk holds at an instant is all of a client's writes up to some number, and none after.
//
// The blocks of the clients alternate on the disk, some lie across a border of chunks, and gaps
// that nobody writes are between them.
class numbered_writer {
 public:
  static constexpr u32 writers = 4;
  static constexpr u32 blocks = 64;  // of each
  static constexpr u64 block_bytes = 8 * KiB, stride = 12 * KiB;
  static constexpr u64 disk_bytes = writers * blocks * stride;

  numbered_writer(const std::string& uri, u32 id);
  ~numbered_writer() { stop(); }
  numbered_writer(const numbered_writer&) = delete;
  numbered_writer& operator=(const numbered_writer&) = delete;

  void stop();
  // The errno that ended it, 0 while none has.
  [[nodiscard]] int error() const { return error_.load(); }
  [[nodiscard]] u64 written() const { return written_.load(); }
  // A moment in the order of everything that the writers do.
  static u64 now() { return clock_.fetch_add(1); }

  struct span {
    u64 from, to;  // exclusive
  };
  // The moments at which the disk can have been as in `disk`; none when it never was.
  //   between  moments that are known to lie around it
  [[nodiscard]] static std::optional<span> instant_of(
      const std::vector<std::unique_ptr<numbered_writer>>& all, const bytes& disk, span between);

 private:
  static constexpr u64 not_yet = ~u64{0};
  struct step {
    u64 issued, ended;
  };
  static u32 block_of(u64 number) { return static_cast<u32>(number * 2654435761U >> 7) % blocks; }
  [[nodiscard]] u64 offset_of(u32 block) const { return (u64{block} * writers + id_) * stride; }
  void run();
  bool narrow(const bytes& disk, span* at);

  const u32 id_;
  nbd_connection connection_;
  std::mutex lock_;
  std::vector<step> steps_{{0, 0}};  // by number; 0 is the empty disk
  std::atomic<u64> written_{0};
  std::atomic<int> error_{0};
  std::atomic<bool> stop_{false};
  static inline std::atomic<u64> clock_{1};
  std::thread thread_;
};
using writer_set = std::vector<std::unique_ptr<numbered_writer>>;

class snap_e2e : public ::testing::Test {
 protected:
  static constexpr u64 chunk = 16 * KiB;

  // A daemon with the image and a started filter "disk" over it; again after a restart.
  void serve(const std::string& image);
  void TearDown() override;

  // zorvctl add-snap with COW files in the directory (default: the test's own), and start.
  void add_snap(const std::string& name, const std::string& cow_dir = "");
  void take_snap(const std::string& name, const std::string& cow_dir = "");
  nlohmann::json info(const std::string& node) { return d->ctl_json({"info", node}); }
  u64 copied(const std::string& snap) { return info(snap).at("copied_bytes"); }
  bool valid(const std::string& snap) { return info(snap).at("snap_valid") == 1; }
  bytes show(const std::string& node) { return nbd_connection(d->uri(node)).read_all(); }

  writer_set start_writers();
  // Waits until each of them has done n more writes.
  static void let_write(const writer_set& all, u64 n);

  temp_dir dir;
  std::unique_ptr<daemon_process> d;
};

// A file of random content; no two blocks alike.
bytes make_random_file(const std::string& path, u64 size, u32 seed);
// Runs a shell command; what it prints. Fails the test unless it succeeds.
std::string shell(const std::string& command);

}  // namespace zorv_test
