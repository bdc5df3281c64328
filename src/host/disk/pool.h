// SPDX-License-Identifier: GPL-2.0-only
// The threads that wait for one disk's medium. Each disk has its own, so that one that answers
// slowly or not at all takes nothing from the others.
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
  // Null when memory or the first thread of a lane cannot be had.
  [[nodiscard]] static std::unique_ptr<io_pool> create(file_engine* engine);
  // Waits until it holds no bio any more. Nobody else pushes by then.
  ~io_pool();
  io_pool(const io_pool&) = delete;
  io_pool& operator=(const io_pool&) = delete;

  void push(kernel::bio* b, file_engine::lane where);

 private:
  // Cold random reads ran alike with 4, 8 and 16 threads on a disk that answers in 100 us; eight
  // leaves a slower one something to reorder. Syncs of one disk go one after the other anyway.
  static constexpr unsigned data_threads = 8;
  static constexpr unsigned stable_threads = 1;

  struct queue {
    const file_engine::lane lane;
    const unsigned max_threads;
    kernel::bio* head = nullptr;
    kernel::bio* tail = nullptr;
    unsigned threads = 0;
    unsigned idle = 0;
    std::condition_variable work;
  };

  explicit io_pool(file_engine* engine) : engine_(engine) {}
  bool start_locked(queue* q);
  void serve(queue* q) noexcept;
  static kernel::bio* take_locked(queue* q, kernel::u32* count);

  file_engine* const engine_;
  std::mutex lock_;  // everything below
  bool stopping_ = false;
  kernel::u32 held_ = 0;  // bios in a queue or in a thread's hands
  queue data_{file_engine::lane::data, data_threads};
  queue stable_{file_engine::lane::stable, stable_threads};
  std::vector<std::thread> threads_;
};

}  // namespace zorv
