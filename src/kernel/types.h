// SPDX-License-Identifier: GPL-2.0-only
// Fixed-width integers, device numbers and error pointers.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace kernel {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using s32 = std::int32_t;
using s64 = std::int64_t;

using sector_t = u64;  // 512-byte units
using devt = u32;      // major << 20 | minor
using gfp_t = u32;

constexpr u32 minor_bits = 20;
constexpr u32 minor_mask = (1U << minor_bits) - 1;
constexpr u32 page_size = 4096;
constexpr u32 sector_size = 512;
constexpr u32 sector_shift = 9;

constexpr devt mkdev(u32 major, u32 minor) { return major << minor_bits | (minor & minor_mask); }
constexpr u32 major_of(devt dev) { return dev >> minor_bits; }
constexpr u32 minor_of(devt dev) { return dev & minor_mask; }

// A pointer that may carry a negative errno instead of an address.
constexpr int max_errno = 4095;

template <class T>
T* err_ptr(int error) {
  return reinterpret_cast<T*>(static_cast<std::intptr_t>(error));
}
inline bool is_err(const void* p) {
  return reinterpret_cast<std::uintptr_t>(p) >= static_cast<std::uintptr_t>(-max_errno);
}
inline int ptr_err(const void* p) { return static_cast<int>(reinterpret_cast<std::intptr_t>(p)); }

}  // namespace kernel
