// SPDX-License-Identifier: GPL-2.0-only
// The COW bitmap of a snap: one bit per chunk, set once the chunk's content as of the snap's start
// is in the COW data file. Sparse in memory; every new bit is written through to the file, which is
// the same bit array without any header.
//
// Bits are tested beside starts, stops and resumes, so the lock lives as long as the snap's record:
// destroy takes the pages away and leaves the lock.
#pragma once

#include "driver/core/lock.h"
#include "driver/core/types.h"
#include "driver/util/file.h"

namespace zorv {

struct zorv_cowbmp {
  rzrwlock lock;  // write: install a page, load, destroy
  u64 nbits GUARDED_BY(lock) = 0;
  s32 npages GUARDED_BY(lock) = 0;
  u8** pages GUARDED_BY(lock) = nullptr;  // a slot is null (32768 clear bits) or 4096 bytes
};

[[nodiscard]] int zorv_cowbmp_init(zorv_cowbmp* b, u64 nbits);  // 0 | -ENOMEM
// Replaces the contents by the file's, whose length then decides the number of bits.
//   returns  0 | -EINVAL | -EIO | -ENOMEM; the bitmap is not initialised after a failure
[[nodiscard]] int zorv_cowbmp_load(zorv_cowbmp* b, const char* path);
// 1 | 0 | -EINVAL when the bitmap is not initialised or ends before the bit (callers read that as
// set)
[[nodiscard]] int zorv_cowbmp_test_bit(zorv_cowbmp* b, s32 bit);
// Sets the bit and, when it was clear, writes its byte to the file.
//   returns  0 | -EINVAL | -ENOMEM | -EIO (set in memory, not in the file)
[[nodiscard]] int zorv_cowbmp_set_bit(zorv_cowbmp* b, s32 bit, gfp_t flags, zorv_file* file);
int zorv_cowbmp_destroy(zorv_cowbmp* b);

}  // namespace zorv
