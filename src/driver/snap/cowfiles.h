// SPDX-License-Identifier: GPL-2.0-only
// The two COW files of a snap as files of the host: whose they are, and what they are about.
//
// A start makes both void, durably, before it changes anything else, and its last step is to put a
// seal behind the contents of each. A seal names the disk, the sizes and the id of the snap's life;
// files whose seals are not there, or do not fit together, hold nothing that may be shown.
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

// Opens both files for a start, without changing them.
//   locks    the snap's dev_mutex and file_lock (write)
//   returns  0 | -EINVAL (a link, no regular file, both are the same) | -EBUSY (somebody's) | -EIO;
//            logged. What was opened stays for zorv_snap_close_files
[[nodiscard]] int zorv_cowfiles_open_new(zorv_blkdev* snap);
// Makes them void and then empty at their full length, and gives them the seals of a new life.
//   order    void on disk before anything of the new life
//   returns  0 | -EIO; logged; the files are void or of the new life
[[nodiscard]] int zorv_cowfiles_make(zorv_blkdev* snap);

// After a start or resume that has failed, once the files are closed: files that it has made go,
// and claims that it has taken.
void zorv_cowfiles_undo(zorv_blkdev* snap);

// Opens both files for a resume, as they are.
//   returns  0 | -EINVAL, -EBUSY, -EIO as above
[[nodiscard]] int zorv_cowfiles_open_old(zorv_blkdev* snap);
// Why the open files cannot be believed, or null: they are of one life of this snap, on this disk.
// The snap's life_id becomes theirs; their contents and names are on stable storage.
[[nodiscard]] const char* zorv_cowfiles_check(zorv_blkdev* snap);

// Whether both open files still have the length that they were made with. One that somebody has cut
// reads as zero where it grows again.
[[nodiscard]] bool zorv_cowfiles_whole(const zorv_snap& s);

// Removes both names as far as they lead to the snap's files still: those of its last life, or, of
// a snap that had none, what a start would take if it is empty or sealed. Anything else is left
// alone (logged).
//   locks    the snap is stopped and nobody else uses its record
void zorv_cowfiles_unlink(zorv_blkdev* snap);

}  // namespace zorv
