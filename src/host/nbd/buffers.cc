// SPDX-License-Identifier: GPL-2.0-only
#include "host/nbd/buffers.h"

#include <sys/mman.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>

namespace zorv::nbd {

buffer_pool::~buffer_pool() {
  if (memory_ != nullptr) ::munmap(memory_, buffers_ * buffer::bytes);
}

bool buffer_pool::init(std::size_t buffers) {
  all_.reset(new (std::nothrow) buffer[buffers]);
  if (all_ == nullptr) return false;
  void* p = ::mmap(nullptr, buffers * buffer::bytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (p == MAP_FAILED) return false;
  memory_ = static_cast<std::byte*>(p);
  buffers_ = buffers;
  for (std::size_t i = buffers; i-- > 0;) {
    all_[i].memory = memory_ + i * buffer::bytes;
    all_[i].next = free_;
    free_ = &all_[i];
  }
  return true;
}

buffer* buffer_pool::take() {
  buffer* b = free_;
  if (b == nullptr) return nullptr;
  free_ = b->next;
  b->refs = 1;
  b->used = 0;
  const auto index = static_cast<std::size_t>(b - all_.get());
  if (index >= touched_) touched_ = index + 1;
  return b;
}

void buffer_pool::drop(buffer* b) {
  if (--b->refs != 0) return;
  b->next = free_;
  free_ = b;
}

void buffer_pool::trim() {
  free_ = nullptr;
  // Relinked in order, so that the lowest are used first again.
  for (std::size_t i = buffers_; i-- > 0;) {
    buffer* b = &all_[i];
    if (b->refs != 0) continue;
    if (i >= kept_buffers && i < touched_) ::madvise(b->memory, buffer::bytes, MADV_DONTNEED);
    b->next = free_;
    free_ = b;
  }
  touched_ = 0;
}

void reply_writer::add(void* at, std::size_t bytes) {
  if (count_ != 0) {
    iovec& last = iov_[count_ - 1];
    if (static_cast<std::byte*>(last.iov_base) + last.iov_len == at) {
      last.iov_len += bytes;
      return;
    }
  }
  iov_[count_++] = {at, bytes};
}

std::byte* reply_writer::head(std::size_t bytes) {
  // One entry is left for the data that may follow, so that a header is never sent alone for
  // want of room.
  if (heads_used_ + bytes > heads_bytes || count_ + 2 > max_iovecs) flush();
  std::byte* at = heads_ + heads_used_;
  heads_used_ += bytes;
  add(at, bytes);
  return at;
}

void reply_writer::data(const std::byte* at, std::size_t bytes, buffer* owner) {
  if (count_ == max_iovecs || owners_ == max_iovecs) flush();
  add(const_cast<std::byte*>(at), bytes);
  owner_[owners_++] = owner;
}

void reply_writer::flush() {
  msghdr m = {};
  m.msg_iov = iov_;
  m.msg_iovlen = static_cast<std::size_t>(count_);
  while (m.msg_iovlen != 0 && !broken_) {
    const ssize_t n = ::sendmsg(fd_, &m, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno != EINTR) broken_ = true;
      continue;
    }
    for (auto left = static_cast<std::size_t>(n); left != 0;) {
      const std::size_t step = left < m.msg_iov->iov_len ? left : m.msg_iov->iov_len;
      m.msg_iov->iov_base = static_cast<std::byte*>(m.msg_iov->iov_base) + step;
      m.msg_iov->iov_len -= step;
      left -= step;
      if (m.msg_iov->iov_len == 0) ++m.msg_iov, --m.msg_iovlen;
    }
  }
  for (std::size_t i = 0; i < owners_; ++i) pool_->drop(owner_[i]);
  count_ = 0;
  heads_used_ = 0;
  owners_ = 0;
}

}  // namespace zorv::nbd
