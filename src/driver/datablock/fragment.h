// SPDX-License-Identifier: GPL-2.0-only
// One fragment of a datablock bitmap, and the search for its smallest form.
#pragma once

#include "driver/datablock/blkbmp.h"

namespace zorv {

constexpr u32 fragment_shift = 20;
constexpr u32 fragment_chunks = 1U << fragment_shift;
constexpr s32 fragment_bytes = fragment_chunks / 8;

// Builds the fragment in its smallest form.
//   staging  fragment_bytes; the first `bytes` are the fragment's bits, the rest is overwritten
//   returns  the fragment's size in bytes | -ENOMEM
[[nodiscard]] int fragment_build(sa* fragment, u8* staging, s32 bytes);
void fragment_free(sa* fragment);

inline int fragment_test(const sa* f, u32 bit) {
  const u32 in_piece = bit & f->bit_mask;
  const u8* piece = f->pool + (static_cast<u64>(f->index[bit >> f->index_shift]) << f->piece_shift);
  return piece[in_piece >> 3] >> (in_piece & 7) & 1;
}
// The first set bit of [from, end); end when there is none.
u32 fragment_find_set(const sa* f, u32 from, u32 end);

}  // namespace zorv
