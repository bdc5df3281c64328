// SPDX-License-Identifier: GPL-2.0-only
// RESUME_SNAP: a stopped snap started again on the COW files it has.
#include "driver/block/block.h"
#include "driver/core/log.h"
#include "driver/snap/cowfiles.h"
#include "driver/snap/snap.h"

namespace zorv {

namespace {

constexpr const char* op = "zorv_ioctl_resume_snap";

//   why      set when the files cannot be believed: the snap comes up invalid
//   returns  0 | -EIO | -ENOMEM | -EINVAL | -EBUSY; what was set up stays for zorv_snap_close_files
int reopen_files(zorv_blkdev* snap, const char** why) {
  zorv_snap& s = snap->s;
  zorv_snap_close_files(snap);  // left open by a stop for a copy that hung
  int rc = zorv_cowfiles_open_old(snap);
  if (rc == 0) rc = zorv_cowbmp_init(&s.cowbmp, s.chunk_cnt);
  if (rc != 0) return rc;
  *why = zorv_cowfiles_check(snap);
  if (*why == nullptr) rc = zorv_cowbmp_load(&s.cowbmp, s.cow_bmp_file, s.cow_bmp_size);
  return rc != 0 ? rc : zorv_blkbmp_init(&s.datablock_bmp);
}

// Puts a stopped snap where its instant belongs, unless it stands right: before the first whose
// instant came later. One of which no instant is known (0) shows nothing; it stands before all.
void put_in_order(zorv_filter* f, zorv_blkdev* snap) {
  rzwrite_guard order(&f->snaps_lock);
  zorv_blkdev* later = nullptr;  // the first
  bool right = true;
  bool passed = false;
  for (zorv_blkdev* o = f->snaps.front(); o != nullptr; o = f->snaps.next_of(o->s.snap_link)) {
    if (o == snap) passed = true;
    if (o == snap || o->s.has_instant.load() == 0) continue;
    const bool is_later = o->s.instant > snap->s.instant;
    right = right && is_later == passed;
    if (is_later && later == nullptr) later = o;
  }
  if (right) return;
  snap->s.snap_link.unlink();
  if (later != nullptr) {
    snap->s.snap_link.insert_after(later->s.snap_link.prev);
  } else {
    f->snaps.push_back(&snap->s.snap_link);
  }
}

int bring_back(zorv_blkdev* snap, const zorv_resume_snap_req* req) {
  zorv_snap& s = snap->s;
  const char* why = nullptr;
  {
    rzwrite_guard files(&s.file_lock);
    const int rc = reopen_files(snap, &why);
    if (rc != 0) {
      zorv_snap_close_files(snap);
      zorv_cowfiles_undo(snap);
      return rc;
    }
  }
  const bool served = s.filter->f.cowthread.pid.load() != 0;
  if (why != nullptr) {
    zorv_log(LOG_ERROR, "%s(): The COW files of zorv(%d, %d) %s", op, zorv_blk_major, snap->minor,
             why);
  } else if (!served) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) has no COW thread", op, zorv_blk_major, snap->minor);
  }
  const char* missed = nullptr;
  bool good = why == nullptr && served && req->snap_valid != 0;
  {
    // Every request meets the snap wholly stopped or wholly started.
    rzwrite_guard routing(&s.filter->f.snap_rwlock);
    if (good) missed = zorv_record_resumed(&s.filter->f, s.life_id, &s.instant);
    good = good && missed == nullptr;
    if (good) {
      zorv_log(2, "%s(): zorv(%d, %d) has missed nothing", op, zorv_blk_major, snap->minor);
    }
    put_in_order(&s.filter->f, snap);
    s.snap_valid.store(good ? req->snap_valid : 0);
    s.stop_pending.store(req->stop_pending);
    s.del_pending.store(req->del_pending);
    s.stop_due.store(0);
    s.has_instant.store(1);
    snap->started.store(1);
    // An invalidation strikes out first and then takes the started ones: if it has not seen this
    // one started, it is seen here to have struck it out.
    if (good && !zorv_record_lists(&s.filter->f, s.life_id)) {
      missed = "has lost a newer snap";
      good = false;
      s.snap_valid.store(0);
    }
  }
  if (missed != nullptr) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) %s", op, zorv_blk_major, snap->minor, missed);
  }
  if (!good) {
    zorv_log(1, "%s(): Invalidating snap device zorv(%d, %d)", op, zorv_blk_major, snap->minor);
  }
  return 0;
}

int resume(const zorv_resume_snap_req* req) {
  const node_ref snap = zorv_node_get(req->snap_minor);
  if (!snap) return zorv_block_unknown_node(op, req->snap_minor);
  if (snap->dev_type != ZORV_DEV_SNAP) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) is not a snap device", op, zorv_blk_major,
             req->snap_minor);
    return -EINVAL;
  }
  snap_start st(snap.get());
  zorv_snap_start_lock(&st);
  int rc;
  if (snap->started.load() != 0) {
    zorv_log(LOG_ERROR, "%s(): Can't resume snap zorv(%d, %d): it's been started already.", op,
             zorv_blk_major, req->snap_minor);
    rc = -EALREADY;
  } else {
    rc = zorv_snap_start_pin(&st);
    if (rc == 0) rc = bring_back(snap.get(), req);
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
