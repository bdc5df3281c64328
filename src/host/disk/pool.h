// SPDX-License-Identifier: GPL-2.0-only
// The threads that wait for media on behalf of all file engines. There while there is an engine.
//
// Two lanes, so that syncs, which take long, never hold up reads: one for data, one for what must
// reach stable storage. Jobs are the bios themselves; nothing is allocated to hand one over.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host/disk/engine.h"

namespace zorv {

class io_pool {
 public:
  // The one pool, started if need be; null when its threads cannot be started.
  [[nodiscard]] static std::shared_ptr<io_pool> get();
  ~io_pool();
  io_pool(const io_pool&) = delete;
  io_pool& operator=(const io_pool&) = delete;

  void push(file_engine* e, kernel::bio* b, file_engine::lane where);
  // Waits until the pool holds no bio of the engine.
  void drain(file_engine* e);

 private:
  // Cold random reads ran alike with 4, 8 and 16 threads on a disk that answers in 100 us; eight
  // leaves a slower one something to reorder. Two on syncs let one disk's sync pass another's.
  static constexpr unsigned data_threads = 8;
  static constexpr unsigned stable_threads = 2;

  struct queue {
    kernel::bio* head = nullptr;
    kernel::bio* tail = nullptr;
    std::condition_variable work;
  };

  io_pool() = default;
  bool start();
  void serve(queue* q) noexcept;
  kernel::bio* pop_locked(queue* q, kernel::u32* count);

  std::mutex lock_;
  bool stopping_ = false;
  queue data_;
  queue stable_;
  std::condition_variable idle_;
  std::vector<std::thread> threads_;
};

}  // namespace zorv
