// SPDX-License-Identifier: GPL-2.0-only
// A disk in memory, for tests: it serves bios at once, or when a test lets it, from a test's
// thread or a thread of its own; it fails what it is told to and forgets what was not synced.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/disk/disk.h"
#include "kernel/blkdev.h"

namespace zorv {

class memory_disk {
 public:
  using bytes = std::vector<kernel::u8>;

  // at_once    the bio has ended when the submission returns
  // held       it waits for release()
  // by_worker  a thread of the disk ends the bios that have come, in an order of its own
  enum class serving { at_once, held, by_worker };
  enum class direction { read, write, both };

  struct request {
    kernel::u32 rw;
    kernel::u64 offset_bytes;
    kernel::u32 length_bytes;
    std::string task;  // who sent it
  };

  // Sparse: memory is taken for what is written. Added under a device number of its own and as
  // "/dev/image/NAME". block_bytes 0: the soft block size that follows from the size.
  memory_disk(const std::string& name, kernel::u64 size_bytes, kernel::u32 block_bytes = 0);
  // No bio may be in flight; held ones end with -EIO.
  ~memory_disk();
  memory_disk(const memory_disk&) = delete;
  memory_disk& operator=(const memory_disk&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] kernel::gendisk* disk() { return disk_; }
  [[nodiscard]] kernel::block_device* bdev() { return disk_->bdev; }
  [[nodiscard]] kernel::devt dev() { return bdev()->bd_dev; }

  // The medium, behind everybody's back. What is written here survives a power cut.
  [[nodiscard]] bytes peek(kernel::u64 offset_bytes, kernel::u64 length_bytes);
  void poke(kernel::u64 offset_bytes, const bytes& data);

  // ---- when bios are served ----
  void serve(serving how);  // from now on; what is held stays held
  void plug(bool on);       // from now on bios wait for an unplug before they are served (or held)
  [[nodiscard]] std::vector<request> held();  // in order of arrival
  [[nodiscard]] std::size_t held_count();
  // Serves one held bio, by its place in held(); error: ends it with that instead.
  void release(std::size_t index = 0, int error = 0);
  void release_all();

  // ---- what was sent ----
  [[nodiscard]] kernel::u64 reads() const { return reads_.load(); }
  [[nodiscard]] kernel::u64 writes() const { return writes_.load(); }
  [[nodiscard]] kernel::u64 flushes() const { return flushes_.load(); }
  void record(bool on);  // from now on every bio is remembered; starts with none
  [[nodiscard]] std::vector<request> recorded();

  // ---- failing ----
  // The switches bio_read, bio_write and bio_flush are honoured as well.
  //   error  a negative errno
  //   times  bios to fail, -1: until heal()
  void fail(kernel::u64 offset_bytes, kernel::u64 length_bytes, direction which, int error,
            int times = -1);
  void heal();

  // Remembers from now on what every write replaces until a flush makes it stable.
  void remember_unsynced();
  // Writes since the last flush are lost, except the sectors that the host picks; every bio fails
  // with -EIO until power_on(). Held bios have not reached the medium.
  void power_cut(const std::function<bool(kernel::u64 sector)>& survives = {});
  void power_on();

  // ---- as a block device ----
  // What bdev_identity says from now on; empty: nothing. "memory:NAME" to begin with, so two disks
  // made under one name, one after the other, pass for the same.
  void set_identity(const std::string& text);
  void set_mounted(bool on) { mounted_.store(on); }
  void set_ioctl_result(int result) { ioctl_result_.store(result); }
  [[nodiscard]] std::vector<std::pair<kernel::u32, kernel::u64>> ioctls();  // command, argument

 private:
  struct bad_range {
    kernel::u64 begin, end;
    direction which;
    int error;
    int times;
  };
  struct entry_points;
  using sector_bytes = std::vector<kernel::u8>;

  int take(kernel::bio* b);
  void dispatch(kernel::bio* b);
  void finish(kernel::bio* b, int error);
  int move_data_locked(kernel::bio* b);
  int check_locked(const kernel::bio* b);
  int flush();
  void copy_locked(kernel::u64 offset, kernel::u8* memory, kernel::u64 length, bool to_medium);
  void forget_locked(kernel::u64 offset, kernel::u64 length, bool stable);
  void work();
  static request describe(const kernel::bio* b, std::string task);

  std::string name_;
  std::string path_;
  kernel::gendisk* disk_ = nullptr;
  std::atomic<serving> serving_{serving::at_once};
  std::atomic<bool> plugging_{false};
  std::atomic<bool> recording_{false};
  std::atomic<bool> mounted_{false};
  std::atomic<int> ioctl_result_{0};
  std::atomic<kernel::u64> reads_{0}, writes_{0}, flushes_{0};

  std::mutex lock_;  // everything below; never held across bio_endio
  std::string identity_;
  std::unordered_map<kernel::u64, std::unique_ptr<kernel::u8[]>> chunks_;
  std::unordered_map<kernel::u64, sector_bytes> stable_;  // sectors not synced: what is stable
  bool remembering_ = false;
  bool powered_ = true;
  std::vector<bad_range> bad_;
  std::vector<kernel::bio*> held_;
  std::vector<request> recorded_;
  std::vector<std::pair<kernel::u32, kernel::u64>> ioctls_;

  std::thread worker_;
  std::condition_variable work_;
  std::vector<kernel::bio*> to_do_;
  std::minstd_rand order_;
  bool stopping_ = false;
};

}  // namespace zorv
