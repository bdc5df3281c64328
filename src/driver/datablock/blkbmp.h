// SPDX-License-Identifier: GPL-2.0-only
// The datablock bitmap of a snap: one bit per chunk, set when the chunk holds at least one block
// that the file system has allocated. Compressed, built once, looked up in constant time.
//
// The one fault that may never happen is a clear bit for a chunk that holds allocated data: such a
// chunk is neither copied aside nor backed up. Whatever is missing or in doubt therefore reads 1.
//
// A map is empty, or valid and unchanging until it is destroyed. Look-ups and exports may run
// while another thread builds or destroys it: they see the finished map or all ones. For that a
// user counts itself in `users` before it looks at `valid`, and whoever destroys the map first
// clears `valid` and then waits until the users of the old contents have gone.
#pragma once

#include <atomic>

#include "driver/core/lock_order.h"
#include "driver/core/types.h"
#include "kernel/blkdev.h"

namespace zorv {

// One fragment: 2^20 chunks cut into pieces, all-zero and all-one pieces stored once. Bit j of the
// fragment is bit (j & bit_mask) of the piece at pool + (index[j >> index_shift] << piece_shift).
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
  std::atomic<u32> valid{0};  // 1 once every fragment is complete
  u32 chunk_cnt = 0;
  s32 frag_cnt = 0;
  sa* frags = nullptr;

  kernel::spinlock_t lock{order::map};  // publishing and taking away
  u32 generation GUARDED_BY(lock) = 0;  // a build publishes only into the one it began in
  mutable std::atomic<u32> users{0};    // look-ups and exports under way
};

// Makes the map empty; returns 0.
int zorv_blkbmp_init(zorv_blkbmp* b);
// Builds the map from the file system on the device, through buffers of its own, and publishes it
// at the end. A map that was destroyed or initialised meanwhile stays as it is.
//   hdd         open for reading
//   chunk_size  bytes
//   context     may sleep; one build per map at a time
//   build       a snap's map is built to its end, whoever asked for it: it is used long after
//   returns     >= 0 (bytes of the last fragment) | -EINVAL (no file system known, bad chunk size,
//               too many chunks) | -ENOMEM | -EAGAIN (destroyed meanwhile) | -EINTR (interruptible,
//               and kernel::signal_pending) | the reader's error; after a failure the map is
//               invalid
enum class map_build { whole, interruptible };
int zorv_blkbmp_read(zorv_blkbmp* b, kernel::block_device* hdd, s32 chunk_size,
                     map_build build = map_build::whole);
// 1 when the chunk may hold data: also for an invalid map and for a chunk beyond its end.
[[nodiscard]] int zorv_blkbmp_test_bit(const zorv_blkbmp* b, u64 chunk);
// One bit per extent: set when any of its chunks reads 1. An invalid map gives size_bytes of 0xFF.
//   out      bytes past the last extent's stay as they are
//   returns  0 | -EINVAL (no buffer, buffer too small, chunks_per_extent below 1)
[[nodiscard]] int zorv_blkbmp_export(const zorv_blkbmp* b, s32 chunks_per_extent, u8* out,
                                     s32 size_bytes);
// Makes the map empty and frees what it had, when the last user has gone; returns 0.
//   context  may sleep
int zorv_blkbmp_destroy(zorv_blkbmp* b);
// Bytes of memory that the map holds.
[[nodiscard]] u64 zorv_blkbmp_memory(const zorv_blkbmp* b);

enum class sa_run { measure, build };
// Measures or builds a fragment of piece_cnt pieces of piece_size bytes cut from data.
//   owner    index and pool belong to the fragment, also after a failure
//   returns  the fragment's size in bytes | -ENOMEM
[[nodiscard]] int create_sa(sa* fragment, s32 piece_cnt, s32 piece_size, const u8* data,
                            sa_run run);

// The self-test: 0 when readers, map and export agree with one another on this device; -EINTR when
// nobody wants to know any more (kernel::signal_pending).
[[nodiscard]] int zorv_blkbmp_test(kernel::block_device* hdd);

}  // namespace zorv
