// SPDX-License-Identifier: GPL-2.0-only
// Small texts of bytes.
#pragma once

#include "kernel/types.h"

namespace kernel {

// The bytes as lower-case digits.
template <std::size_t N>
struct hex_text {
  explicit constexpr hex_text(const u8 (&bytes)[N]) {
    constexpr const char* digits = "0123456789abcdef";
    for (std::size_t i = 0; i < N; ++i) {
      text[2 * i] = digits[bytes[i] >> 4];
      text[2 * i + 1] = digits[bytes[i] & 15];
    }
  }
  char text[2 * N + 1] = {};
};

// FNV-1a, one byte after the other.
constexpr u64 fnv1a_seed = 0xcbf29ce484222325U;
constexpr u64 fnv1a(u64 hash, char byte) { return (hash ^ static_cast<u8>(byte)) * 0x100000001b3U; }

}  // namespace kernel
