// SPDX-License-Identifier: GPL-2.0-only
#include "host/disk/pool.h"

#include <new>
#include <system_error>

#include "kernel/task.h"

namespace zorv {

using kernel::bio;
using kernel::u32;

namespace {

file_engine* engine_of(const bio* b) {
  return static_cast<file_engine*>(kernel::bdev_get_queue(b->bi_bdev)->queuedata);
}

}  // namespace

std::shared_ptr<io_pool> io_pool::get() {
  static std::mutex lock;
  static std::weak_ptr<io_pool> current;
  const std::lock_guard guard(lock);
  std::shared_ptr<io_pool> pool = current.lock();
  if (pool != nullptr) return pool;
  pool.reset(new (std::nothrow) io_pool);
  if (pool == nullptr || !pool->start()) return nullptr;
  current = pool;
  return pool;
}

bool io_pool::start() {
  try {
    for (unsigned i = 0; i < data_threads + stable_threads; ++i) {
      queue* q = i < data_threads ? &data_ : &stable_;
      threads_.emplace_back([this, q] { serve(q); });
    }
  } catch (const std::exception&) {
    return false;  // the destructor joins those that run
  }
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

void io_pool::push(file_engine* e, bio* b, file_engine::lane where) {
  queue* q = where == file_engine::lane::data ? &data_ : &stable_;
  b->bi_next = nullptr;
  {
    const std::lock_guard guard(lock_);
    ++e->deferred_;
    if (q->head == nullptr) {
      q->head = b;
    } else {
      q->tail->bi_next = b;
    }
    q->tail = b;
  }
  q->work.notify_one();
}

void io_pool::drain(file_engine* e) {
  std::unique_lock guard(lock_);
  idle_.wait(guard, [e] { return e->deferred_ == 0; });
}

// Takes the first job. With a flush go all the flushes of that disk that wait already: one sync
// covers them.
bio* io_pool::pop_locked(queue* q, u32* count) {
  bio* first = q->head;
  q->head = first->bi_next;
  first->bi_next = nullptr;
  *count = 1;
  if (!file_engine::is_pure_flush(first)) return first;
  bio* taken = first;
  bio* before = nullptr;
  for (bio* b = q->head; b != nullptr;) {
    bio* next = b->bi_next;
    if (file_engine::is_pure_flush(b) && engine_of(b) == engine_of(first)) {
      (before == nullptr ? q->head : before->bi_next) = next;
      b->bi_next = nullptr;
      taken->bi_next = b;
      taken = b;
      ++*count;
    } else {
      before = b;
    }
    b = next;
  }
  q->tail = before;
  return first;
}

void io_pool::serve(queue* q) noexcept {
  kernel::daemonize(q == &data_ ? "zorv-io" : "zorv-sync");
  std::unique_lock guard(lock_);
  for (;;) {
    q->work.wait(guard, [&] { return q->head != nullptr || stopping_; });
    if (q->head == nullptr) return;
    u32 count = 0;
    bio* list = pop_locked(q, &count);
    file_engine* e = engine_of(list);
    guard.unlock();
    e->serve_deferred(list);
    guard.lock();
    e->deferred_ -= count;
    if (e->deferred_ == 0) idle_.notify_all();
  }
}

}  // namespace zorv
