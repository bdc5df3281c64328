// SPDX-License-Identifier: GPL-2.0-only
// What saves, loads and marks of a bitmap's file share. All under the filter's bmp_mutex.
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

namespace bmpfile {

constexpr char prefix[] = {'Z', 'O', 'R', 'V', 'B', 'M', 'P'};
constexpr int prefix_bytes = sizeof prefix;
constexpr u64 dirty_offset = 7, size_offset = 8, crc_offset = 12, bits_offset = 16;

// Whether the file is on a file system that sits on a node of ours, and would be written through
// that node.
bool lives_on_node(const char* fname);

// Sees to it that marks[type].file is the file that the name leads to now; one that it led to
// before is marked stale and closed. Whatever waits for a mark goes on waiting for the new one's.
//   returns  0 | -ENOENT (no file there) | negative errno (logged)
enum class missing { fail, create };
[[nodiscard]] int follow_name(zorv_filter* f, u32 type, missing what);

// The open file becomes eight stale bytes, unless it is somebody else's (-EEXIST). From a return
// with 0 on no load takes it for current.
[[nodiscard]] int write_stale(zorv_filter* f, u32 type);
// A sync that notes what its failure means.
[[nodiscard]] int sync(zorv_filter* f, u32 type);
// The key of a note about the bitmap's file.
[[nodiscard]] bool note_key(const zorv_filter* f, u32 type, zorv_state_key* key);

u32 crc_of(const u8* bits, u32 size);

}  // namespace bmpfile

}  // namespace zorv
