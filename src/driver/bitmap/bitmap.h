// SPDX-License-Identifier: GPL-2.0-only
// The change bitmaps: marking, their commands, their files.
#pragma once

#include "driver/core/blkdev.h"

namespace kernel {
struct bio;
}

namespace zorv {

// One of a filter's two bitmaps; its bits are asked for under bmp_lock, since a command may put
// others in their place.
struct zorv_bmp_view {
  u32 size;  // bytes
  std::atomic<u32>* dirty;
  const char* fname;
};
inline zorv_bmp_view zorv_bmp_of(zorv_filter* f, u32 type) {
  return type == ZORV_BMP_INCREMENTAL ? zorv_bmp_view{static_cast<u32>(f->incr_bmp_size),
                                                      &f->incr_bmp_dirty, f->incr_bmp_fname}
                                      : zorv_bmp_view{static_cast<u32>(f->diff_bmp_size),
                                                      &f->diff_bmp_dirty, f->diff_bmp_fname};
}
// Null while the node is being created.
inline u8*& zorv_bmp_bits(zorv_filter* f, u32 type) REQUIRES(f->bmp_lock) {
  return type == ZORV_BMP_INCREMENTAL ? f->incr_bmp : f->diff_bmp;
}
inline const u8* zorv_bmp_bits(const zorv_filter* f, u32 type) REQUIRES(f->bmp_lock) {
  return type == ZORV_BMP_INCREMENTAL ? f->incr_bmp : f->diff_bmp;
}

// "Incremental" (1), "Differential" (0), "Unknown".
const char* zorv_bmp_type_name(u32 type);

// Both bitmaps get the extents of the sectors; the first new bit since a save queues a stale mark.
//   bio      counted among the filter's writes under way until it ends, from before the first bit;
//            null: nothing is written
//   context  may sleep (it allocates with GFP_NOIO); takes bmp_lock once per extent
//   after    zorv_marks_pending says whether the write may go to the HDD
void zorv_block_mark_extents(zorv_filter* f, sector_t sector, u32 sectors,
                             kernel::bio* bio = nullptr);

// Work on a whole bitmap goes piece by piece, with bmp_lock held for a piece at a time; between two
// of them whoever waits for the lock gets it.
constexpr u32 zorv_bmp_piece_bytes = 256 * 1024;
void zorv_bmp_give_way(const zorv_filter* f) EXCLUDES(f->bmp_lock);

// A whole bitmap at once; writes go on being marked.
//   locks    takes bmp_lock
// Every bit that was set when the call began is in the copy, unless a command took it away; those
// that a load is going to put back are in it, too.
void zorv_bmp_copy(zorv_filter* f, u32 type, u8* to);
// The same with the bits that have been handed out and not confirmed.
void zorv_bmp_copy_to_save(zorv_filter* f, u32 type, u8* to);
// Adds bits; the dirty flag is 1 before the first of them.
void zorv_bmp_merge(zorv_filter* f, u32 type, const u8* added);

// Whether none, or all, of the bits are set.
struct zorv_bmp_extremes {
  bool all_clear, all_set;
};
zorv_bmp_extremes zorv_bmp_look(zorv_filter* f, u32 type);
// How many of the extents have their bit set, at about this moment: writes go on being marked.
//   locks    takes bmp_lock, each time for some microseconds
//   cost     reads the whole bitmap
u32 zorv_bmp_count(const zorv_filter* f, u32 type);

// Command handlers; the node is pinned by the caller.
int zorv_ioctl_get_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req);
int zorv_ioctl_set_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req);
int zorv_ioctl_merge_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req);
int zorv_ioctl_get_and_clr_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req);
int zorv_ioctl_clr_bmp(zorv_blkdev* dev, zorv_bmp_req* req);
int zorv_ioctl_save_bmp(zorv_blkdev* dev, zorv_bmp_req* req);
int zorv_ioctl_load_bmp(zorv_blkdev* dev, zorv_bmp_req* req);

// Standard table, no inversion at either end: the caller seeds with 0xFFFFFFFF and stores as is.
void zorv_crc32(const void* buffer, s32 length, u32* value);

// File work; each sleeps and logs its own failure. Format, states and what a crash leaves:
// docs/bitmap-file.md.
//   locks   save_mutex, file_mutex, bmp_mutex, in this order; a save has only file_mutex while it
//           writes the contents, and neither while it waits for writes under way and syncs the HDD
//   save    0 (also when the bitmap changed meanwhile, which leaves the file stale) | -ENOMEM |
//           -EINVAL (the file lives on the node itself) | -EIO, -EBUSY, an error of a write or
//           sync; after a failure past -ENOMEM the dirty flag is 1 and the file is stale, or is
//           going to be
//   load    0 (also when the file is ignored) | -ENOMEM (bitmap untouched) | -EIO (no file, no
//          bitmap file) | a read's error; whenever the file is not taken every extent counts as
//          changed
int zorv_block_save_bmp(zorv_filter* f, u32 type);
int zorv_block_save_dirty_bmps(zorv_filter* f);
// Waits until the writes have ended that are marked by now, whatever becomes of the files.
//   returns  0 | -EIO (some do not end; logged)
int zorv_block_await_writes(zorv_filter* f);
int zorv_block_load_bmp(zorv_filter* f, u32 type);
int zorv_block_write_dirty_flag(zorv_filter* f, u32 type, int flag);

// Makes sure that no load takes the file for current: marks it; removes it; has it noted that it is
// not to be believed. What is needless by now is not done.
//   returns  0 | negative errno (none of the three could be done; logged)
int zorv_block_void_bmp(zorv_filter* f, u32 type);
// Marks the file if it looks current, before the bitmap is changed: writes that come then do not
// wait for the save behind. A failure is the save's to report.
void zorv_block_stale_bmp(zorv_filter* f, u32 type);
// The last of the three alone.
int zorv_block_excuse_bmp(zorv_filter* f, u32 type);

// Names the files and says which disk their contents may be about (companion.h).
//   returns  0 | -ENAMETOOLONG | -EBUSY (another node's, or another daemon's); logged
[[nodiscard]] int zorv_block_open_bmps(zorv_filter* f);
void zorv_block_close_bmps(zorv_filter* f);

}  // namespace zorv
