// SPDX-License-Identifier: GPL-2.0-only
// The parts of the datablock self-test (zorv_blkbmp_test, blkbmp.h).
#pragma once

#include "driver/datablock/blkbmp.h"
#include "driver/datablock/reader.h"

namespace zorv {

using fs_read_fn = int (*)(void* context, s64 start_chunk, u32 chunk_size, u8* bits, s32 count);

// Reads the volume in chunks of every size up to 64 KiB and in portions of several lengths and
// compares each result with the bits of the single blocks. Dumps each to "/tmp/bmp.%d.%d" (chunk
// size, portion size), replacing older dumps and nothing else. Volumes of fewer than 1016 blocks
// are not compared.
//   returns  0 | -EINVAL (device size) | -EIO (block size; a disagreement) | -ENOMEM |
//            -EINTR (kernel::signal_pending) | the reader's
[[nodiscard]] int zorv_blkbmp_test_reader(kernel::block_device* hdd, void* context, u32 block_size,
                                          fs_read_fn read);

// Compares the packed map with the bits of the single blocks.
//   blocks   block_cnt bits
//   returns  0 | -EIO (a bit differs, logged) | -EINTR
[[nodiscard]] int zorv_blkbmp_test_compressed(const zorv_blkbmp* map, const u8* blocks,
                                              u64 block_cnt);

}  // namespace zorv
