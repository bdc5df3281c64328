// SPDX-License-Identifier: GPL-2.0-only
#include "host/nbd/transmission.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "kernel/task.h"

namespace zorv::nbd {

namespace {

constexpr int idle_before_trim_ms = 1000;

}  // namespace

transmission::transmission(int fd, const session& s, std::size_t max_inflight_bytes,
                           const std::atomic<bool>* stopping)
    : fd_(fd),
      s_(s),
      queue_(kernel::bdev_get_queue(s.bdev)),
      max_inflight_bytes_(max_inflight_bytes),
      stopping_(stopping),
      out_(fd, &pool_) {}

transmission::~transmission() {
  if (wake_fd_ >= 0) ::close(wake_fd_);
}

bool transmission::init() {
  wake_fd_ = ::eventfd(0, EFD_CLOEXEC);
  requests_.reset(new (std::nothrow) request[max_requests]);
  pieces_.reset(new (std::nothrow) piece[max_pieces]);
  if (wake_fd_ < 0 || requests_ == nullptr || pieces_ == nullptr) return false;
  for (u32 i = 0; i < max_requests; ++i) {
    requests_[i].next = free_requests_;
    free_requests_ = &requests_[i];
  }
  for (u32 i = 0; i < max_pieces; ++i) {
    pieces_[i].owner = this;
    pieces_[i].next = free_pieces_;
    free_pieces_ = &pieces_[i];
  }
  // Up to the limit for what is in flight, and those that are being filled.
  return pool_.init(max_inflight_bytes_ / max_piece_bytes + 4);
}

void transmission::run() {
  for (;;) {
    const stall why = advance();
    unplug();
    const bool some = reap();
    out_.flush();
    if (out_.broken() || lost_ || why == stall::closed) break;
    if (why == stall::input) {
      if (eof_) break;
      wait_for_input();
    } else if (some || why == stall::batch) {
      continue;
    } else if (outstanding_ != 0) {
      wait_for_end();
    } else if (why == stall::room && current_ != nullptr && is_large(*current_)) {
      reply_gathered(current_);
      out_.flush();
    } else if (why == stall::frozen) {
      // What had been admitted has ended and is answered: nothing is left to do but wait.
      kernel::blkdev_enter(s_.bdev);
      admitted_ = true;
    } else {
      break;
    }
  }
  while (outstanding_ != 0) {
    if (!reap()) wait_for_end();
    out_.flush();
  }
  if (admitted_) kernel::blkdev_exit(s_.bdev);
  while (completing_.load(std::memory_order_acquire) != 0) kernel::yield();
}

void transmission::unplug() {
  batch_ = 0;
  if (!submitted_) return;
  submitted_ = false;
  kernel::blk_unplug(queue_);
}

// Makes sure that a useful number of bytes can be received; false when there is no buffer for it.
bool transmission::make_room() {
  const std::size_t bytes = pending();
  if (in_ != nullptr && bytes == 0 && in_->refs == 1) in_->used = in_at_ = 0;
  if (in_ != nullptr && in_->room() >= min_receive_bytes) return true;
  buffer* to = in_;
  if (in_ == nullptr || in_->refs != 1) {
    to = pool_.take();
    if (to == nullptr) return false;
  }
  if (bytes != 0) std::memmove(to->memory, in_->memory + in_at_, bytes);
  if (in_ != nullptr && to != in_) pool_.drop(in_);
  in_ = to;
  in_->used = bytes;
  in_at_ = 0;
  return true;
}

// Returns false when there was nothing to receive yet.
bool transmission::receive(int flags) {
  const ssize_t n = ::recv(fd_, in_->memory + in_->used, in_->room(), flags);
  if (n > 0) {
    in_->used += static_cast<std::size_t>(n);
  } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
    return false;
  } else {
    eof_ = true;
  }
  return true;
}

void transmission::wait_for_input() {
  if (!make_room()) {
    wait_for_end();
    return;
  }
  if (outstanding_ == 0) {
    if (pool_.wants_trim()) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, idle_before_trim_ms) == 0) pool_.trim();
    }
    receive(0);
    return;
  }
  if (receive(MSG_DONTWAIT) || !arm_wake()) return;
  pollfd p[2] = {{fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
  ::poll(p, 2, -1);
  sleeping_.store(false);
  u64 count;
  if ((p[1].revents & POLLIN) != 0) (void)!::read(wake_fd_, &count, sizeof count);
}

void transmission::wait_for_end() {
  if (!arm_wake()) return;
  u64 count;
  (void)!::read(wake_fd_, &count, sizeof count);
  sleeping_.store(false);
}

// Asks completions to wake this thread; false when there is something to reap already. A completion
// first puts its piece on the list and then looks whether anyone sleeps, this thread does the two
// the other way round: one of them sees the other.
bool transmission::arm_wake() {
  sleeping_.store(true);
  if (done_.load() == nullptr) return true;
  sleeping_.store(false);
  return false;
}

}  // namespace zorv::nbd
