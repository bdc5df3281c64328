// SPDX-License-Identifier: GPL-2.0-only
// The datablock bitmap of a snap: one bit per chunk, set when the chunk holds at least one block
// that the file system has allocated. Compressed, built once, looked up in constant time.
#pragma once

#include <atomic>

#include "driver/core/types.h"
#include "kernel/blkdev.h"

namespace zorv {

// One fragment: 2^20 chunks cut into pieces, all-zero and all-one pieces stored once.
struct sa {
  u32 piece_cnt = 0;
  u32 index_shift = 0;
  u32 piece_size = 0;  // bytes, a power of two
  u32 bit_mask = 0;
  u32 piece_shift = 0;
  u16* index = nullptr;
  u8* pool = nullptr;
};

struct zorv_blkbmp {
  std::atomic<u32> valid{0};  // 1 once every fragment is complete (release; readers acquire)
  u32 chunk_cnt = 0;
  s32 frag_cnt = 0;
  sa* frags = nullptr;
};

int zorv_blkbmp_init(zorv_blkbmp* b);
// Builds the map from the file system on the device; on failure it stays invalid.
int zorv_blkbmp_read(zorv_blkbmp* b, kernel::block_device* hdd, s32 chunk_size);
// 1 when the chunk may hold data: also for an invalid map and for a chunk beyond its end.
[[nodiscard]] int zorv_blkbmp_test_bit(const zorv_blkbmp* b, u64 chunk);
[[nodiscard]] int zorv_blkbmp_export(const zorv_blkbmp* b, s32 chunks_per_extent, u8* out,
                                     s32 size_bytes);
int zorv_blkbmp_destroy(zorv_blkbmp* b);

}  // namespace zorv
