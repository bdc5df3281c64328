// SPDX-License-Identifier: GPL-2.0-only
// Start and stop of nodes of both kinds.
//
// A filter's dev_mutex comes before its snaps', an older snap's before a newer one's. A snap start
// cannot keep its filter's mutex while it freezes the filter's device: a front end that closes the
// node needs it, and may have to get past that before it serves the requests the freeze waits for.
// Nor while it is at the snap's files, which may hang. `snaps_starting` keeps the filter from being
// stopped in the meantime.
//
// For the instant the start takes the filter's mutex again, with the snap's held. Nobody who has it
// waits for the snap's then: other starts of the snap wait for its start_mutex first, and a stop of
// the filter is refused.
#include "driver/bitmap/bitmap.h"
#include "driver/block/block.h"
#include "driver/core/log.h"
#include "driver/snap/cowfiles.h"
#include "driver/snap/snap.h"

namespace zorv {

namespace {

constexpr u64 quiesce_limit_jiffies = 60000;
constexpr u64 no_limit_jiffies = u64{1} << 40;

zorv_blkdev* filter_of(const zorv_blkdev* snap) {
  zorv_blkdev* f = snap->s.filter;
  return f != nullptr && f->dev_type == ZORV_DEV_FILTER ? f : nullptr;
}

int not_stable(const zorv_blkdev* filter) {
  zorv_log(LOG_ERROR, "%s(): Timed out waiting for FS on zorv(%d, %d) (%s) to stabilize.",
           "zorv_block_start_device", zorv_blk_major, filter->minor, filter->f.hdd_name);
  return -EAGAIN;
}

// Waits for a moment in which no request has entered the filter since `inflight` was cleared and
// none is being routed; returns holding the write side of snap_rwlock then.
//   returns  0 | -EAGAIN (the deadline passed; the lock is not held)
int quiesce(zorv_blkdev* filter, u64 deadline) NO_THREAD_SAFETY_ANALYSIS {
  zorv_filter& f = filter->f;
  for (;;) {
    f.inflight.store(0);
    rzwrite_lock(&f.snap_rwlock);
    if (f.inflight.load() == 0) return 0;
    rzwrite_unlock(&f.snap_rwlock);
    if (kernel::time_after_eq(kernel::jiffies(), deadline)) return not_stable(filter);
    zorv_log(4, "%s(): Waiting for FS on zorv(%d, %d) (%s) to stabilize...",
             "zorv_block_start_device", zorv_blk_major, filter->minor, f.hdd_name);
    kernel::yield();
  }
}

// Puts a stopped snap behind everything that has had its instant. What stands behind a snap in the
// list counts as newer: its copies are taken for what the snap shows.
void make_newest(zorv_filter* f, zorv_blkdev* snap) {
  rzwrite_guard order(&f->snaps_lock);
  for (zorv_blkdev* n = f->snaps.next_of(snap->s.snap_link); n != nullptr;
       n = f->snaps.next_of(n->s.snap_link)) {
    if (n->s.has_instant.load() == 0) continue;
    snap->s.snap_link.unlink();
    f->snaps.push_back(&snap->s.snap_link);
    return;
  }
}

// The instant of the snapshot: under the write side of the filter's snap_rwlock, so that every
// request is routed either wholly before it or wholly after.
void take_snapshot(zorv_blkdev* filter, zorv_blkdev* snap) REQUIRES(filter->f.snap_rwlock) {
  make_newest(&filter->f, snap);
  {
    zorv_cowqueue& q = filter->f.cowqueue;
    kernel::spin_guard guard(&q.lock);
    // Left over from an earlier life of the minor.
    for (cow_request& r : q.reqs) {
      if (r.snap_minor == static_cast<s32>(snap->s.snap_minor)) r.snap_minor = -1;
    }
  }
  snap->s.snap_valid.store(zorv_snap_valid_at_start(snap, "zorv_block_start_device"));
  snap->s.instant = zorv_record_started(&filter->f, snap->s.life_id);
  if (snap->s.snap_valid.load() == 0) (void)zorv_record_lost(&filter->f, snap->s.life_id);
  snap->s.has_instant.store(1);
  snap->s.del_pending.store(0);  // asked for in an earlier life
  snap->s.stop_due.store(0);
  snap->started.store(1);
}

// From the files to the instant; the caller holds the snap's dev_mutex and both pins.
int bring_up_snap(zorv_blkdev* filter, zorv_blkdev* snap, u64 deadline) NO_THREAD_SAFETY_ANALYSIS {
  {
    rzwrite_guard files(&snap->s.file_lock);
    int rc = zorv_snap_open_files(snap);
    if (rc == 0) rc = zorv_blkbmp_init(&snap->s.datablock_bmp);
    if (rc != 0) return rc;
  }
  // Most of what has to be on disk before the snap is listed, while nobody waits for it.
  (void)kernel::fsync_bdev(filter->f.hdd_bdev);
  kernel::block_device* open = nullptr;
  {
    const kernel::lock_order_exception start_mutex_held;  // see the top
    rzmutex_guard opening(&filter->dev_mutex);
    open = filter->bdev;
    if (open == nullptr) {
      // Nobody can open the filter now, so nothing but a request being routed has to be waited for.
      rzwrite_guard routing(&filter->f.snap_rwlock);
      take_snapshot(filter, snap);
      return 0;
    }
  }
  kernel::super_block* frozen = kernel::freeze_bdev(open, deadline);
  if (kernel::is_err(frozen)) return not_stable(filter);
  const int rc = quiesce(filter, deadline);
  if (rc == 0) {
    take_snapshot(filter, snap);
    rzwrite_unlock(&filter->f.snap_rwlock);
  }
  kernel::thaw_bdev(open, frozen);
  return rc;
}

// Lists the snap for a resume after a restart. What it shows of the disk must survive a power cut
// as its files do, or the resumed snap would show something older.
//   returns  0 | negative errno
int list_snap(zorv_filter* f, const zorv_blkdev* snap) {
  const int synced = kernel::fsync_bdev(f->hdd_bdev);
  if (synced != 0) (void)zorv_record_lost(f, snap->s.life_id);
  const int rc = zorv_record_save(f);
  return synced != 0 ? synced : rc;
}

int start_snap(zorv_blkdev* snap) {
  constexpr const char* op = "zorv_block_start_device";
  const u64 deadline = kernel::jiffies() + quiesce_limit_jiffies;
  if (filter_of(snap) == nullptr) return -EINVAL;

  snap_start st(snap);
  zorv_snap_start_lock(&st);
  int rc = 0;
  if (snap->started.load() != 0) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) has already been started", op, zorv_blk_major,
             snap->minor);
    rc = -EALREADY;
  } else if (snap->s.stop_pending.load() != 0) {
    zorv_log(LOG_ERROR, "%s(): Cannot restart a DEFUNCT snap device.", op);
    rc = -EINVAL;
  } else {
    rc = zorv_snap_start_pin(&st);
    if (rc == 0) {
      rc = bring_up_snap(filter_of(snap), snap, deadline);
      if (rc == 0) {
        if (list_snap(&filter_of(snap)->f, snap) != 0) {
          zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) can't be resumed after a restart", op,
                   zorv_blk_major, snap->minor);
        }
        zorv_log(3, "%s(): zorv(%d, %d) has been started successfully", op, zorv_blk_major,
                 snap->minor);
      } else {
        snap->started.store(0);
        snap->s.snap_valid.store(0);
        rzwrite_guard files(&snap->s.file_lock);
        zorv_snap_close_files(snap);
        zorv_cowfiles_undo(snap);
      }
    }
  }
  zorv_snap_start_unlock(&st);
  if (rc == 0) zorv_snap_build_datablock_map(snap->minor);
  return rc;
}

}  // namespace

namespace {

// Writes would wait for copies that nobody makes, or reads for nobody.
int nobody_serves(const zorv_blkdev* filter) {
  rzread_guard walk(&filter->f.snaps_lock);
  const auto& snaps = filter->f.snaps;
  for (const zorv_blkdev* s = snaps.front(); s != nullptr; s = snaps.next_of(s->s.snap_link)) {
    if (s->s.left.load() == 0) continue;
    zorv_log(LOG_ERROR,
             "%s(): All that could copy or read for snaps of zorv(%d, %d) hangs, some of it in %s",
             "zorv_block_start_device", zorv_blk_major, filter->minor, s->s.cow_data_fname);
  }
  return -EBUSY;
}

}  // namespace

void zorv_snap_start_lock(snap_start* st) NO_THREAD_SAFETY_ANALYSIS {
  rzmutex_lock(&st->snap->s.start_mutex);
  rzmutex* filter = &st->snap->s.filter->dev_mutex;
  rzmutex* own = &st->snap->dev_mutex;
  rzmutex_lock(filter);
  // Who has the snap may be stopping it, at files that hang: that is waited for with the filter's
  // let go.
  while (!rzmutex_trylock(own)) {
    rzmutex_unlock(filter);
    rzmutex_lock(own);
    rzmutex_unlock(own);
    rzmutex_lock(filter);
  }
  st->filter_locked = true;
}

int zorv_snap_start_pin(snap_start* st) NO_THREAD_SAFETY_ANALYSIS {
  zorv_blkdev* filter = st->snap->s.filter;
  // Looked at under both mutexes, under which a removal begins.
  for (const zorv_blkdev* dev : {st->snap, filter}) {
    if (dev->state.load() != node_state::live) {
      return zorv_block_unknown_node("zorv_block_start_device", dev->minor);
    }
  }
  if (st->snap->s.left.load() != 0) {
    zorv_log(LOG_ERROR, "%s(): A copy still hangs in the files of zorv(%d, %d)",
             "zorv_block_start_device", zorv_blk_major, st->snap->minor);
    return -EBUSY;
  }
  if (filter->started.load() == 0) {
    const int rc = zorv_block_start_device(filter);
    if (rc != 0) return rc;
  }
  if (filter->f.cowthread.pid.load() == 0) {
    (void)zorv_cowthread_start(&filter->f.cowthread, "kcowd", &filter->f);
  }
  if (filter->f.cowthread.unable.load()) return nobody_serves(filter);
  filter->f.snaps_starting.fetch_add(1);
  st->pinned = true;
  rzmutex_unlock(&filter->dev_mutex);
  st->filter_locked = false;
  return 0;
}

void zorv_snap_start_unlock(snap_start* st) NO_THREAD_SAFETY_ANALYSIS {
  zorv_blkdev* filter = st->snap->s.filter;
  if (st->pinned) filter->f.snaps_starting.fetch_sub(1);
  rzmutex_unlock(&st->snap->dev_mutex);
  if (st->filter_locked) rzmutex_unlock(&filter->dev_mutex);
  rzmutex_unlock(&st->snap->s.start_mutex);
}

int zorv_block_start_device(zorv_blkdev* dev) {
  zorv_log(2, "%s(): Starting zorv(%d, %d)", __func__, zorv_blk_major, dev->minor);
  if (dev->dev_type == ZORV_DEV_SNAP) return start_snap(dev);
  {
    const rzmutex_hold guard(&dev->dev_mutex, file_limit_jiffies, __func__);
    if (!guard) return -EBUSY;
    if (dev->state.load() != node_state::live) return zorv_block_unknown_node(__func__, dev->minor);
    if (dev->started.load() == 0) {
      dev->started.store(1);
      zorv_log(3, "%s(): zorv(%d, %d) has been started successfully", __func__, zorv_blk_major,
               dev->minor);
      return 0;
    }
  }
  zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) has already been started", __func__, zorv_blk_major,
           dev->minor);
  return -EALREADY;
}

namespace {

int stop_filter(zorv_blkdev* dev) {
  const zorv_filter& f = dev->f;
  for (node_ref snap = zorv_snap_oldest(f); snap; snap = zorv_snap_newer(f, snap.get())) {
    if (snap->started.load() == 0) continue;
    const int rc = zorv_block_stop_device(snap.get());
    if (rc != 0) return rc;
  }
  (void)zorv_cowthread_shutdown(&dev->f.cowthread);
  zorv_record_restore(&dev->f);
  // It stops all the same: what its bitmap files look like is safe, and the caller hears of it.
  const int rc = zorv_block_save_dirty_bmps(&dev->f);
  dev->started.store(0);
  return rc;
}

// Waits until the COW thread has got past the request that was its next when the snap stopped.
void wait_for_queue_head(zorv_cowqueue& q) {
  const cow_request* head = nullptr;
  {
    kernel::spin_guard guard(&q.lock);
    head = q.reqs.front();
  }
  if (head == nullptr) return;
  for (;;) {
    {
      kernel::spin_guard guard(&q.lock);
      if (q.reqs.front() != head) return;
    }
    kernel::yield();
  }
}

bool has_older_started(const zorv_filter& f, const zorv_blkdev* snap) {
  rzread_guard walk(&f.snaps_lock);
  const auto& snaps = f.snaps;
  for (const zorv_blkdev* o = snaps.prev_of(snap->s.snap_link); o != nullptr;
       o = snaps.prev_of(o->s.snap_link)) {
    if (o->started.load() != 0) return true;
  }
  return false;
}

//   returns  true when the snap is stopped, false when its stop is postponed
bool stop_snap(zorv_blkdev* snap, zorv_blkdev* filter) {
  zorv_filter& f = filter->f;
  // First said, then looked: an older one that stops at this moment sees that it is waited for, or
  // is seen to be stopped.
  snap->s.stop_pending.store(1);
  snap->s.stop_due.store(0);
  const bool postponed = has_older_started(f, snap);
  if (!postponed) {
    {
      // No request is being routed now, and none will find the snap started.
      rzwrite_guard routing(&f.snap_rwlock);
      // First: a held write that finds the snap stopped sees that it would be missed.
      zorv_record_stopped(&f, snap->s.life_id);
      snap->s.stop_pending.store(0);
      snap->started.store(0);
    }
    wait_for_queue_head(f.cowqueue);
    while (snap->s.in_copy.load() != snap->s.left.load()) kernel::yield();
    if (snap->s.left.load() == 0) {
      rzwrite_guard files(&snap->s.file_lock);
      zorv_snap_close_files(snap);
    }
  }
  for (node_ref n = zorv_snap_newer(f, snap); n; n = zorv_snap_newer(f, n.get())) {
    if (n->started.load() == 0) continue;
    if (n->s.stop_pending.load() != 0) {
      rzmutex_guard guard(&n->dev_mutex);
      if (n->started.load() == 0 || n->s.stop_pending.load() == 0) continue;  // another life of it
      n->s.stop_due.store(1);  // whoever has it open stops it when he closes it
      (void)zorv_block_stop_device(n.get());
    }
    break;
  }
  return !postponed;
}

}  // namespace

int zorv_block_stop_device(zorv_blkdev* dev) {
  zorv_log(2, "%s(): Stopping zorv(%d, %d)", __func__, zorv_blk_major, dev->minor);
  // A filter's is held by a stop while it saves; what holds a snap's has limits of its own.
  const u64 limit = dev->dev_type == ZORV_DEV_FILTER ? file_limit_jiffies : no_limit_jiffies;
  const rzmutex_hold guard(&dev->dev_mutex, limit, __func__);
  if (!guard) return -EBUSY;
  if (dev->started.load() == 0) {
    dev->s.stop_due.store(0);
    const bool unsaved = dev->dev_type == ZORV_DEV_FILTER && dev->f.unsaved.load();
    return unsaved ? zorv_block_save_dirty_bmps(&dev->f) : 0;
  }
  const bool in_use = dev->use_cnt.load() != 0 ||
                      (dev->dev_type == ZORV_DEV_FILTER && dev->f.snaps_starting.load() != 0);
  if (in_use) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) is still being used.", __func__, zorv_blk_major,
             dev->minor);
    return -EBUSY;
  }
  if (dev->dev_type == ZORV_DEV_FILTER) {
    const int rc = stop_filter(dev);
    if (rc != 0) return rc;
  } else if (dev->dev_type == ZORV_DEV_SNAP && filter_of(dev) != nullptr) {
    if (!stop_snap(dev, filter_of(dev))) {
      zorv_log(1,
               "%s(): Postponing stop of zorv(%d, %d), since there are other snaps depending on "
               "this one.",
               __func__, zorv_blk_major, dev->minor);
      return 0;
    }
  }
  zorv_log(3, "%s(): zorv(%d, %d) has been stopped successfully", __func__, zorv_blk_major,
           dev->minor);
  return 0;
}

int zorv_ioctl_start_node(const zorv_node_req* req) {
  zorv_log(1, "%s(): Starting zorv(%d, %d)", __func__, zorv_blk_major, req->minor);
  const node_ref dev = zorv_node_get(req->minor);
  return dev ? zorv_block_start_device(dev.get()) : zorv_block_unknown_node(__func__, req->minor);
}

int zorv_ioctl_stop_node(const zorv_node_req* req) {
  zorv_log(1, "%s(): Stopping zorv(%d, %d)", __func__, zorv_blk_major, req->minor);
  const node_ref dev = zorv_node_get(req->minor);
  return dev ? zorv_block_stop_device(dev.get()) : zorv_block_unknown_node(__func__, req->minor);
}

}  // namespace zorv
