// SPDX-License-Identifier: GPL-2.0-only
// Arrays of bits: bit b is bit b mod 8, least significant first, of byte b / 8.
#pragma once

#include <bit>

#include "driver/core/types.h"

namespace zorv {

inline bool bit_at(const u8* bits, u64 b) { return ((bits[b >> 3] >> (b & 7)) & 1) != 0; }
inline void set_bit_at(u8* bits, u64 b) { bits[b >> 3] |= static_cast<u8>(1U << (b & 7)); }
constexpr u64 bytes_of_bits(u64 count) { return (count + 7) >> 3; }

// The first bit of [from, end) that differs from `skipped` (0 or 0xff: all bits of a kind); end
// when there is none. Reads no byte past the one that holds end - 1.
inline u64 find_bit_unlike(const u8* bits, u64 from, u64 end, u8 skipped) {
  while (from < end) {
    if ((from & 7) == 0 && end - from >= 64) {
      u64 word = 0;
      std::memcpy(&word, bits + (from >> 3), sizeof word);
      word ^= skipped == 0 ? 0 : ~u64{0};
      if (word != 0) return from + static_cast<u64>(std::countr_zero(word));
      from += 64;
      continue;
    }
    const u32 rest = static_cast<u32>(static_cast<u8>(bits[from >> 3] ^ skipped)) >> (from & 7);
    if (rest != 0) {
      const u64 found = from + static_cast<u64>(std::countr_zero(rest));
      return found < end ? found : end;
    }
    from = (from | 7) + 1;
  }
  return end;
}
inline u64 find_set_bit(const u8* bits, u64 from, u64 end) {
  return find_bit_unlike(bits, from, end, 0);
}
inline u64 find_clear_bit(const u8* bits, u64 from, u64 end) {
  return find_bit_unlike(bits, from, end, 0xff);
}

inline void set_bits(u8* bits, u64 from, u64 end) {
  while (from < end && (from & 7) != 0) set_bit_at(bits, from++);
  if (from >= end) return;
  const u64 whole = (end - from) >> 3;
  std::memset(bits + (from >> 3), 0xff, whole);
  for (from += whole << 3; from < end; ++from) set_bit_at(bits, from);
}

inline void clear_bits(u8* bits, u64 from, u64 end) {
  const auto clear = [bits](u64 b) { bits[b >> 3] &= static_cast<u8>(~(1U << (b & 7))); };
  while (from < end && (from & 7) != 0) clear(from++);
  if (from >= end) return;
  const u64 whole = (end - from) >> 3;
  std::memset(bits + (from >> 3), 0, whole);
  for (from += whole << 3; from < end; ++from) clear(from);
}

// Fields of on-disk structures.
inline u16 get_le16(const u8* p) { return static_cast<u16>(p[0] | p[1] << 8); }
inline u32 get_le32(const u8* p) { return get_le16(p) | static_cast<u32>(get_le16(p + 2)) << 16; }
inline u16 get_be16(const u8* p) { return static_cast<u16>(p[0] << 8 | p[1]); }
inline u32 get_be32(const u8* p) { return static_cast<u32>(get_be16(p)) << 16 | get_be16(p + 2); }
inline u64 get_be64(const u8* p) { return static_cast<u64>(get_be32(p)) << 32 | get_be32(p + 4); }

}  // namespace zorv
