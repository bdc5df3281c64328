// SPDX-License-Identifier: GPL-2.0-only
// How much the messages of all clients may hold. Each client has a share of its own, which nobody
// else can use up; what it holds beyond that comes from what all have in common.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace zorv {

// What all have in common.
struct memory_budget {
  std::uint64_t limit_bytes = 0;
  std::atomic<std::uint64_t> used_bytes{0};
};

// One client's; used by one thread. Everything goes back at the end.
class memory_share {
 public:
  memory_share(memory_budget* common, std::uint64_t own_bytes)
      : common_(common), own_bytes_(own_bytes) {}
  ~memory_share() { give_back(held_bytes_); }
  memory_share(const memory_share&) = delete;
  memory_share& operator=(const memory_share&) = delete;

  // false: not to be had, nothing is taken.
  [[nodiscard]] bool take(std::uint64_t bytes) {
    const std::uint64_t more = beyond(held_bytes_ + bytes) - beyond(held_bytes_);
    if (common_->used_bytes.fetch_add(more) + more > common_->limit_bytes && more > 0) {
      common_->used_bytes -= more;
      return false;
    }
    held_bytes_ += bytes;
    return true;
  }
  void give_back(std::uint64_t bytes) {
    common_->used_bytes -= beyond(held_bytes_) - beyond(held_bytes_ - bytes);
    held_bytes_ -= bytes;
  }

 private:
  [[nodiscard]] std::uint64_t beyond(std::uint64_t bytes) const {
    return bytes - std::min(bytes, own_bytes_);
  }

  memory_budget* common_;
  std::uint64_t own_bytes_;
  std::uint64_t held_bytes_ = 0;
};

}  // namespace zorv
