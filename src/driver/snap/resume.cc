// SPDX-License-Identifier: GPL-2.0-only
// RESUME_SNAP: a stopped snap started again on the COW files it has.
#include <optional>

#include "driver/block/block.h"
#include "driver/core/log.h"
#include "driver/snap/cowwork.h"
#include "driver/snap/snap.h"

namespace zorv {

namespace {

constexpr const char* op = "zorv_ioctl_resume_snap";

// The thread syncs every group of copies as a whole; a sync for every bit would hold up the writes
// that wait for it.
zorv_file* reopen(const char* path) {
  zorv_file* file =
      zorv_fopen(path, kernel::FO_RDWR | kernel::FO_SYNC | kernel::FO_LARGEFILE, 0600);
  if (file != nullptr) zorv_fdefer_sync(file);
  return file;
}

//   returns  0 | -EIO | -ENOMEM | -EINVAL; what was set up stays for zorv_snap_close_files
int reopen_files(zorv_blkdev* snap) {
  zorv_snap& s = snap->s;
  s.life.fetch_add(1);
  s.cow_data_file = reopen(s.cow_data_fname);
  if (s.cow_data_file == nullptr) return -EIO;
  int rc = zorv_cowbmp_init(&s.cowbmp, s.chunk_cnt);
  if (rc == 0) rc = zorv_cowbmp_load(&s.cowbmp, s.cow_bmp_fname);
  if (rc != 0) return rc;
  s.cow_bmp_file = reopen(s.cow_bmp_fname);
  return s.cow_bmp_file != nullptr ? 0 : -EIO;
}

// Whether the files can hold what the snap shows. A data file shorter than it was made has lost
// chunks - an invalid snap's is emptied - and would read as zero where it grows again.
bool files_complete(const zorv_snap& s) {
  return kernel::file_size(s.cow_data_file->filp) >= s.cow_data_size &&
         kernel::file_size(s.cow_bmp_file->filp) >= s.cow_bmp_size;
}

int bring_back(zorv_blkdev* snap, const zorv_resume_snap_req* req)
    REQUIRES_SHARED(zorv_blkdev_rwlock) {
  zorv_snap& s = snap->s;
  {
    rzwrite_guard files(&s.file_lock);
    int rc = reopen_files(snap);
    if (rc == 0) rc = zorv_blkbmp_init(&s.datablock_bmp);
    if (rc != 0) {
      zorv_snap_close_files(snap);
      return rc;
    }
  }
  const bool complete = files_complete(s);
  const bool served = s.filter->f.cowthread.pid.load() != 0;
  if (!served) {
    rzread_guard files(&s.file_lock);
    zorv_snap_disown_files(snap);
  }
  std::optional<snap_invalidation> invalidation;  // of the older ones too, with the thread's help
  if (!complete && served) invalidation.emplace(&s.filter->f);
  {
    // Every request meets the snap wholly stopped or wholly started.
    rzwrite_guard routing(&s.filter->f.snap_rwlock);
    s.snap_valid.store(complete && served ? req->snap_valid : 0);
    s.stop_pending.store(req->stop_pending);
    s.del_pending.store(req->del_pending);
    s.has_instant.store(1);
    snap->started.store(1);
  }
  if (complete && served) return 0;
  if (!complete) {
    zorv_log(LOG_ERROR, "%s(): The COW files of zorv(%d, %d) are shorter than they were made", op,
             zorv_blk_major, snap->minor);
  } else {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) has no COW thread", op, zorv_blk_major, snap->minor);
  }
  zorv_snap_invalidate(snap, op);
  return 0;
}

int resume(const zorv_resume_snap_req* req) {
  table_read_guard table;
  zorv_blkdev* snap = zorv_blkdev_find(req->snap_minor);
  if (snap == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Nothing is known about zorv(%d, %d)", op, zorv_blk_major,
             req->snap_minor);
    return -EINVAL;
  }
  if (snap->dev_type != ZORV_DEV_SNAP) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) is not a snap device", op, zorv_blk_major,
             req->snap_minor);
    return -EINVAL;
  }
  snap_start st(snap);
  zorv_snap_start_lock(&st);
  int rc;
  if (snap->started.load() != 0) {
    zorv_log(LOG_ERROR, "%s(): Can't resume snap zorv(%d, %d): it's been started already.", op,
             zorv_blk_major, req->snap_minor);
    rc = -EALREADY;
  } else {
    rc = zorv_snap_start_pin(&st);
    if (rc == 0) rc = bring_back(snap, req);
  }
  zorv_snap_start_unlock(&st);
  return rc;
}

}  // namespace

int zorv_ioctl_resume_snap(const zorv_resume_snap_req* req) {
  zorv_log(1, "%s(): Resuming snap zorv(%d, %d)", op, zorv_blk_major, req->snap_minor);
  const int rc = resume(req);
  if (rc != 0) return rc;
  zorv_snap_build_datablock_map(req->snap_minor);
  zorv_log(2, "%s(): zorv(%d, %d) has been resumed successfully", op, zorv_blk_major,
           req->snap_minor);
  return 0;
}

}  // namespace zorv
