// SPDX-License-Identifier: GPL-2.0-only
// Copies between the driver and the caller of a command.
//
// A handler sees an address and a length; what stands behind it is the transport's: the caller's
// pages, or segments that came with a message. A bad address fails the copy and nothing else.
#pragma once

#include "kernel/task.h"
#include "kernel/types.h"

namespace kernel {

using user_addr = u64;

// The caller's address space as a transport provides it.
struct user_space {
  virtual ~user_space() = default;
  // Copies n bytes; returns false when any of them cannot be reached (a short copy is a failure).
  virtual bool read(void* to, user_addr from, std::size_t n) = 0;
  virtual bool write(user_addr to, const void* from, std::size_t n) = 0;
};

// Makes mm the current task's for a scope.
class [[nodiscard]] user_space_scope {
 public:
  explicit user_space_scope(user_space* mm) : old_(current()->mm) { current()->mm = mm; }
  ~user_space_scope() { current()->mm = old_; }
  user_space_scope(const user_space_scope&) = delete;
  user_space_scope& operator=(const user_space_scope&) = delete;

 private:
  user_space* old_;
};

// Whether [addr, addr + n) can be a caller's range at all (below 2^47, no wrap).
[[nodiscard]] bool access_ok(user_addr addr, std::size_t n);

// 0, or the number of bytes not copied (all n of them). May sleep. Without an address space in
// the current task every copy fails.
[[nodiscard]] std::size_t copy_from_user(void* to, user_addr from, std::size_t n);
[[nodiscard]] std::size_t copy_to_user(user_addr to, const void* from, std::size_t n);

}  // namespace kernel
