// SPDX-License-Identifier: GPL-2.0-only
// Serves the bios of a disk from one file of the host: an image or a block device.
//
// Bios are plugged when they are sent and served by the queue's unplug function in the thread that
// calls it, neighbours merged into one vectored call. What the page cache can answer at once is
// answered there; a read that would have to wait for the medium goes to the disk's own few threads,
// and so does everything that has to reach stable storage. A FUA write is a write like any other
// and then waits for a sync, which it shares with all that wait by then.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "kernel/bio.h"
#include "kernel/blkdev.h"

namespace zorv {

class io_pool;

// What stands behind the descriptor. A regular file has an end that others may move and a write
// must not; a write to a block device may have to read first, so it goes to the pool.
enum class engine_backing { regular_file, block_device };

class file_engine {
 public:
  // Null when memory or threads cannot be had.
  //   fd     stays the caller's and stays open for the engine's life
  //   label  what to call the disk in the log
  [[nodiscard]] static std::unique_ptr<file_engine> create(int fd, engine_backing backing,
                                                           const char* label);
  // Waits for the bios that its threads still hold.
  ~file_engine();
  file_engine(const file_engine&) = delete;
  file_engine& operator=(const file_engine&) = delete;

  // Makes the engine the queue's: its make-request and unplug functions and its queuedata.
  void attach(kernel::request_queue* q);

  // Everything completed so far is on stable storage. A failure sticks, whatever its number: what
  // the host could not write back it has also forgotten, so no later sync of this disk can be
  // trusted to cover it.
  //   returns  0 | the host's error | -EIO (an earlier sync failed)
  [[nodiscard]] int sync();

 private:
  friend class io_pool;
  struct run;
  struct moved;
  enum class lane { data, stable };

  file_engine(int fd, engine_backing backing, const char* label);
  static int make_request(kernel::request_queue* q, kernel::bio* b);
  static void unplug(kernel::request_queue* q);
  static void hand_over(kernel::request_queue* q);

  void serve(kernel::bio* list);
  void read_cached(run* r);
  void write_run(run* r);
  [[nodiscard]] moved transfer(run* r, int flags) const;
  [[nodiscard]] int check_end(kernel::u64 end_bytes) const;
  void done(kernel::bio* b, int error);
  // The pool's threads: moves the bio's data; syncs for all bios of the list.
  void serve_data(kernel::bio* b);
  void serve_stable(kernel::bio* list);

  const int fd_;
  const engine_backing backing_;
  const bool in_memory_;  // the file system has no medium: a plain read never waits
  char label_[128];
  std::unique_ptr<io_pool> pool_;
  std::atomic<bool> nowait_works_{true};
  // The host reports a failed write-back once per descriptor, to whoever syncs first. One at a time
  // here, so that everyone who syncs later learns of it.
  std::mutex sync_lock_;
  bool sync_failed_ = false;
};

}  // namespace zorv
