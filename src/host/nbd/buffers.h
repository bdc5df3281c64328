// SPDX-License-Identifier: GPL-2.0-only
// A connection's memory: fixed buffers, taken from one mapping that is made once.
//
// The buffer that was given back last is taken first, so a connection that is served from the page
// cache keeps using the same few warm ones, and one that waits for disks spreads over as many as
// its limit lets it. All of it belongs to the connection's thread; nothing is locked.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <memory>

#include "kernel/types.h"

namespace zorv::nbd {

using kernel::u16;
using kernel::u32;
using kernel::u64;

// The largest piece of a request that is in memory at once, so that it is still in the processor's
// cache when it is copied the second time.
constexpr std::size_t max_piece_bytes = 256U << 10;

struct buffer {
  // A piece and, in front of or behind it, what came in the same go.
  static constexpr std::size_t bytes = max_piece_bytes + kernel::page_size;

  std::byte* memory = nullptr;
  std::size_t used = 0;  // from the front
  u32 refs = 0;          // pieces in it, and one of whoever is filling it
  buffer* next = nullptr;

  [[nodiscard]] std::size_t room() const { return bytes - used; }
};

class buffer_pool {
 public:
  buffer_pool() = default;
  ~buffer_pool();
  buffer_pool(const buffer_pool&) = delete;
  buffer_pool& operator=(const buffer_pool&) = delete;

  [[nodiscard]] bool init(std::size_t buffers);
  // An empty buffer with one reference, or null when all are in use.
  [[nodiscard]] buffer* take();
  static void hold(buffer* b) { ++b->refs; }
  void drop(buffer* b);
  // Whether more than a few of the free buffers hold memory, and a way to give that back.
  [[nodiscard]] bool wants_trim() const { return touched_ > kept_buffers; }
  void trim();

 private:
  static constexpr std::size_t kept_buffers = 4;

  std::byte* memory_ = nullptr;
  std::size_t buffers_ = 0;
  std::size_t touched_ = 0;  // buffers [0, touched_) have been used since the last trim
  std::unique_ptr<buffer[]> all_;
  buffer* free_ = nullptr;
};

// Gathers the replies that are ready and sends them with as few calls as possible.
class reply_writer {
 public:
  reply_writer(int fd, buffer_pool* pool) : fd_(fd), pool_(pool) {}

  // Room for a header of that many bytes (at most 256), to be filled before the next call.
  std::byte* head(std::size_t bytes);
  // Payload; the writer takes over the caller's reference of the buffer.
  void data(const std::byte* at, std::size_t bytes, buffer* owner);
  // Sends everything. Blocks while the client does not read. After a failure everything is dropped.
  void flush();
  [[nodiscard]] bool broken() const { return broken_; }
  [[nodiscard]] bool empty() const { return count_ == 0; }

 private:
  static constexpr int max_iovecs = 512;
  static constexpr std::size_t heads_bytes = 16U << 10;

  void add(void* at, std::size_t bytes);

  const int fd_;
  buffer_pool* const pool_;
  bool broken_ = false;
  int count_ = 0;
  std::size_t heads_used_ = 0;
  std::size_t owners_ = 0;
  iovec iov_[max_iovecs];
  buffer* owner_[max_iovecs];
  std::byte heads_[heads_bytes];
};

}  // namespace zorv::nbd
