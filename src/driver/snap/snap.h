// SPDX-License-Identifier: GPL-2.0-only
// The COW files of a snap, as its start and its resume set them up.
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

// Both files anew at their full length, sparse, of a new life, and an empty COW bitmap. On failure
// what was opened stays for zorv_snap_close_files.
//   locks    the snap's dev_mutex and file_lock (write)
//   returns  0 | -EIO | -ENOMEM | -EINVAL (a link, both files are the same) | -EBUSY (somebody's)
[[nodiscard]] int zorv_snap_open_files(zorv_blkdev* snap);
// Destroys the COW bitmap and the datablock bitmap and closes the files; accepts any half of it.
//   locks    the snap's dev_mutex and file_lock (write)
void zorv_snap_close_files(zorv_blkdev* snap);

// Empties the open data file and syncs that: what tells a resume after a power cut that nothing in
// the snap can be trusted.
//   locks    the snap's file_lock (read)
void zorv_snap_disown_files(zorv_blkdev* snap);

// What snap_valid is at the instant of a start: 1, or 0 (logged) without a COW thread, which would
// leave every write that needs a copy waiting.
[[nodiscard]] u32 zorv_snap_valid_at_start(const zorv_blkdev* snap, const char* op);
// Builds the datablock map of a started snap, read through its own block device, unless maps are
// turned off (zorv_datablock_maps).
//   locks    none of the filter's or the snap's
void zorv_snap_build_datablock_map(u32 snap_minor);

// The frame of a start and of a resume, in this order: take the mutexes, look at the snap's state,
// pin the filter, do the work, release. While pinned the filter stays started; its dev_mutex is
// free, so that what hangs in a snap's file keeps nobody from opening or closing the filter.
struct snap_start {
  explicit snap_start(zorv_blkdev* s) : snap(s) {}
  zorv_blkdev* snap;
  bool filter_locked = false;
  bool pinned = false;
};
// Takes the snap's start_mutex, its filter's dev_mutex, its own. The snap is pinned by the caller.
void zorv_snap_start_lock(snap_start* st);
// Starts the filter and its COW thread where they are not running (the thread's result is ignored),
// and lets go of the filter's dev_mutex.
//   returns  0 | -EINVAL (one of the two is being removed) | the filter start's failure
[[nodiscard]] int zorv_snap_start_pin(snap_start* st);
void zorv_snap_start_unlock(snap_start* st);

}  // namespace zorv
