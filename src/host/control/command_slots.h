// SPDX-License-Identifier: GPL-2.0-only
// How many commands may be at one node at a time, so that one whose folder or disk hangs does not
// take every connection with it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "zorv/abi.h"

namespace zorv {

class command_slots {
 public:
  explicit command_slots(unsigned per_node) : per_node_(per_node) {}

  // One command's place; given back at its end.
  class [[nodiscard]] slot {
   public:
    slot(command_slots* slots, std::uint32_t command, const std::string& record)
        : slots_(waits(command) ? slots : nullptr), node_(node_of(command, record)) {
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

    // Records begin with a node's minor, or with the name of a disk.
    static std::uint64_t node_of(std::uint32_t command, const std::string& record) {
      if (command == ZORV_ADD_FILTER_NODE || command == ZORV_TEST_DATABLOCK) {
        return std::hash<std::string_view>()(record.c_str()) | 1ULL << 63;
      }
      std::uint32_t minor = 0;
      std::memcpy(&minor, record.data(), std::min(record.size(), sizeof minor));
      return minor;
    }

    command_slots* slots_;
    std::uint64_t node_;
    bool taken_;
  };

 private:
  bool take(std::uint64_t node) {
    const std::lock_guard guard(lock_);
    unsigned& running = running_[node];
    if (running == per_node_) return false;
    ++running;
    return true;
  }
  void give_back(std::uint64_t node) {
    const std::lock_guard guard(lock_);
    const auto at = running_.find(node);
    if (--at->second == 0) running_.erase(at);
  }

  const unsigned per_node_;
  std::mutex lock_;
  std::map<std::uint64_t, unsigned> running_;  // by node
};

}  // namespace zorv
