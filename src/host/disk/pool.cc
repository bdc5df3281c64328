// SPDX-License-Identifier: GPL-2.0-only
#include "host/disk/pool.h"

#include <new>
#include <system_error>

#include "kernel/task.h"

namespace zorv {

using kernel::bio;
using kernel::u32;

std::unique_ptr<io_pool> io_pool::create(file_engine* engine) {
  std::unique_ptr<io_pool> pool(new (std::nothrow) io_pool(engine));
  if (pool == nullptr) return nullptr;
  const std::lock_guard guard(pool->lock_);
  try {
    pool->threads_.reserve(data_threads + stable_threads);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  if (pool->start_locked(&pool->data_) && pool->start_locked(&pool->stable_)) return pool;
  return nullptr;
}

bool io_pool::start_locked(queue* q) {
  try {
    threads_.emplace_back([this, q] { serve(q); });
  } catch (const std::exception&) {
    return false;
  }
  ++q->threads;
  return true;
}

io_pool::~io_pool() {
  {
    const std::lock_guard guard(lock_);
    stopping_ = true;
  }
  data_.work.notify_all();
  stable_.work.notify_all();
  for (std::thread& t : threads_) t.join();
}

void io_pool::push(bio* b, file_engine::lane where) {
  queue* q = where == file_engine::lane::data ? &data_ : &stable_;
  b->bi_next = nullptr;
  {
    const std::lock_guard guard(lock_);
    ++held_;
    (q->head == nullptr ? q->head : q->tail->bi_next) = b;
    q->tail = b;
  }
  q->work.notify_one();
}

// The first job; of those that wait for a sync all, because one covers them.
bio* io_pool::take_locked(queue* q, u32* count) {
  bio* list = q->head;
  *count = 1;
  if (q->lane == file_engine::lane::data) {
    q->head = list->bi_next;
    list->bi_next = nullptr;
    return list;
  }
  for (const bio* b = list; b->bi_next != nullptr; b = b->bi_next) ++*count;
  q->head = nullptr;
  return list;
}

void io_pool::serve(queue* q) noexcept {
  kernel::daemonize(q == &data_ ? "zorv-io" : "zorv-sync");
  std::unique_lock guard(lock_);
  for (;;) {
    ++q->idle;
    q->work.wait(guard, [&] { return q->head != nullptr || (stopping_ && held_ == 0); });
    --q->idle;
    if (q->head == nullptr) return;
    u32 count = 0;
    bio* list = take_locked(q, &count);
    // Whoever takes the last idle thread's place starts the next one: threads come as the disk
    // turns out to need them, and from threads of the disk, whose priority they inherit.
    if (q->idle == 0 && q->threads < q->max_threads && !stopping_) (void)start_locked(q);
    guard.unlock();
    if (q == &data_) {
      engine_->serve_data(list);
    } else {
      engine_->serve_stable(list);
    }
    guard.lock();
    held_ -= count;
    if (stopping_ && held_ == 0) {
      data_.work.notify_all();
      stable_.work.notify_all();
    }
  }
}

}  // namespace zorv
