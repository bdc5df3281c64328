// SPDX-License-Identifier: GPL-2.0-only
// The change bitmaps: marking, their commands, their files.
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

// "Incremental" (1), "Differential" (0), "Unknown".
const char* zorv_bmp_type_name(u32 type);

// Both bitmaps get the extents of the sectors; the first new bit since a save queues a stale mark.
//   context  may sleep (it allocates with GFP_NOIO); takes bmp_lock once per extent
void zorv_block_mark_extents(zorv_filter* f, sector_t sector, u32 sectors);

int zorv_ioctl_get_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req);
int zorv_ioctl_set_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req);
int zorv_ioctl_merge_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req);
int zorv_ioctl_get_and_clr_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req);
int zorv_ioctl_clr_bmp(zorv_blkdev* dev, zorv_bmp_req* req);
int zorv_ioctl_save_bmp(zorv_blkdev* dev, zorv_bmp_req* req);
int zorv_ioctl_load_bmp(zorv_blkdev* dev, zorv_bmp_req* req);

// Standard table, no inversion at either end: the caller seeds with 0xFFFFFFFF and stores as is.
void zorv_crc32(const void* buffer, s32 length, u32* value);

// File work; each takes bmp_mutex. Format and failures: docs/bitmap-file.md.
int zorv_block_save_bmp(zorv_filter* f, u32 type);
int zorv_block_save_dirty_bmps(zorv_filter* f);
int zorv_block_load_bmp(zorv_filter* f, u32 type);
int zorv_block_write_dirty_flag(zorv_filter* f, u32 type, int flag);

}  // namespace zorv
