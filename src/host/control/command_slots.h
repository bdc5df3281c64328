// SPDX-License-Identifier: GPL-2.0-only
// How many commands may be at one node at a time, so that one whose folder or disk hangs does not
// take every connection with it.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "zorv/abi.h"

namespace zorv {

class command_slots {
 public:
  explicit command_slots(unsigned per_node) : per_node_(per_node) {}

  // One command's place; given back at its end.
  class [[nodiscard]] slot {
   public:
    slot(command_slots* slots, std::uint32_t command, const std::string& record)
        : slots_(waits(command) ? slots : nullptr) {
      // Records begin with the node that they are about, or with the name of a disk.
      std::memcpy(&node_, record.data(),
                  record.size() < sizeof node_ ? record.size() : sizeof node_);
      taken_ = slots_ == nullptr || slots_->take(node_);
    }
    ~slot() {
      if (slots_ != nullptr && taken_) slots_->give_back(node_);
    }
    slot(const slot&) = delete;
    slot& operator=(const slot&) = delete;
    explicit operator bool() const { return taken_; }

   private:
    // Of the others none ever waits for a disk or a folder.
    static bool waits(std::uint32_t command) {
      return command != ZORV_GET_INFO && command != ZORV_GET_DEVICE_LIST;
    }

    command_slots* slots_;
    std::uint32_t node_ = 0;
    bool taken_;
  };

 private:
  bool take(std::uint32_t node) {
    const std::lock_guard guard(lock_);
    unsigned& running = running_[node];
    if (running == per_node_) return false;
    ++running;
    return true;
  }
  void give_back(std::uint32_t node) {
    const std::lock_guard guard(lock_);
    const auto at = running_.find(node);
    if (--at->second == 0) running_.erase(at);
  }

  const unsigned per_node_;
  std::mutex lock_;
  std::map<std::uint32_t, unsigned> running_;  // by node
};

}  // namespace zorv
