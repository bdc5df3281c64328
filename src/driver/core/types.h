// SPDX-License-Identifier: GPL-2.0-only
// The kernel's basic names as the driver uses them, and small helpers of its own.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "kernel/types.h"

namespace zorv {

using kernel::devt;
using kernel::gfp_t;
using kernel::s32;
using kernel::s64;
using kernel::sector_t;
using kernel::u16;
using kernel::u32;
using kernel::u64;
using kernel::u8;

// How long anybody waits for file I/O of another task that makes no progress.
constexpr u64 file_limit_jiffies = 30000;

// Copies a NUL-terminated text (or what of `from` lies before its end) into a fixed field, cut to
// what fits; the field always ends with NUL and is zero-filled behind it.
template <std::size_t N, std::size_t M>
void copy_text(char (&to)[N], const char (&from)[M]) {
  const std::size_t len = ::strnlen(from, M < N - 1 ? M : N - 1);
  std::memcpy(to, from, len);
  std::memset(to + len, 0, N - len);
}
inline void copy_text_n(char* to, std::size_t to_bytes, const char* from) {
  const std::size_t len = ::strnlen(from, to_bytes - 1);
  std::memcpy(to, from, len);
  std::memset(to + len, 0, to_bytes - len);
}

constexpr bool is_power_of_2(u64 v) { return v != 0 && (v & (v - 1)) == 0; }
constexpr u32 log2_u32(u32 v) { return 31U - static_cast<u32>(__builtin_clz(v)); }

// Undoes a step at the end of the scope unless cancelled.
template <class F>
class [[nodiscard]] scope_exit {
 public:
  explicit scope_exit(F f) : f_(f) {}
  ~scope_exit() {
    if (armed_) f_();
  }
  scope_exit(const scope_exit&) = delete;
  scope_exit& operator=(const scope_exit&) = delete;
  void cancel() { armed_ = false; }

 private:
  F f_;
  bool armed_ = true;
};

}  // namespace zorv
