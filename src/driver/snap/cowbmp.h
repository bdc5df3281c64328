// SPDX-License-Identifier: GPL-2.0-only
// The COW bitmap of a snap: one bit per chunk, set once the chunk's content as of the snap's start
// is in the COW data file. Sparse in memory; every new bit is written through to the file, which is
// the same bit array without any header.
//
// Bits are tested beside starts, stops and resumes, so the lock lives as long as the snap's record:
// destroy takes the pages away and leaves the lock.
//
// Beside its bit every chunk has a mark that it is on its way: set when its copy is decided, taken
// away when its bit is on stable storage. A set bit says where the old contents are; a set bit
// without that mark says that the disk may be overwritten.
#pragma once

#include <atomic>

#include "driver/core/lock.h"
#include "driver/core/types.h"
#include "driver/util/file.h"

namespace zorv {

struct zorv_cowbmp {
  rzrwlock lock{order::cowbmp};  // write: install a page, load, destroy
  u64 nbits GUARDED_BY(lock) = 0;
  s32 npages GUARDED_BY(lock) = 0;
  // A slot is null (32768 clear bits) or 4096 bytes of bits and 4096 bytes of marks.
  u8** pages GUARDED_BY(lock) = nullptr;
  // Set bits; read without the lock. What it was stays when the bitmap is destroyed; -1 before the
  // first bitmap.
  std::atomic<s64> copied{-1};
};

[[nodiscard]] int zorv_cowbmp_init(zorv_cowbmp* b, u64 nbits);  // 0 | -ENOMEM
// Replaces the contents by the first bytes of the open file, which are all of its bits.
//   returns  0 | -EINVAL | -EIO | -ENOMEM; the bitmap is not initialised after a failure
[[nodiscard]] int zorv_cowbmp_load(zorv_cowbmp* b, zorv_file* file, u64 size_bytes);
// 1 | 0 | -EINVAL when the bitmap is not initialised or ends before the bit (callers read that as
// set)
[[nodiscard]] int zorv_cowbmp_test_bit(zorv_cowbmp* b, s32 bit);
// The same, and 0 as long as the chunk is on its way: whether it may be overwritten.
[[nodiscard]] int zorv_cowbmp_test_stable(zorv_cowbmp* b, s32 bit);
// Sets the bit and, when it was clear, writes its byte to the file.
//   returns  0 | -EINVAL | -ENOMEM | -EIO (set in memory, not in the file)
[[nodiscard]] int zorv_cowbmp_set_bit(zorv_cowbmp* b, s32 bit, gfp_t flags, zorv_file* file);

enum class chunk_state { missing, on_its_way, copied };
[[nodiscard]] chunk_state zorv_cowbmp_state(zorv_cowbmp* b, s32 bit);
[[nodiscard]] int zorv_cowbmp_begin_copy(zorv_cowbmp* b, s32 bit, gfp_t flags);  // as set_bit
void zorv_cowbmp_end_copy(zorv_cowbmp* b, s32 bit);

int zorv_cowbmp_destroy(zorv_cowbmp* b);

}  // namespace zorv
