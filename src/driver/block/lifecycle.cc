// SPDX-License-Identifier: GPL-2.0-only
// Start, stop and removal of nodes of both kinds.
//
// A filter's dev_mutex comes before its snaps', an older snap's before a newer one's. A snap start
// cannot keep its filter's mutex while it freezes the filter's device: a front end that closes the
// node needs it, and may have to get past that before it serves the requests the freeze waits for.
// `snaps_starting` keeps the filter from being stopped in the meantime.
#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/block/block.h"
#include "driver/core/log.h"
#include "driver/proc/proc.h"
#include "driver/snap/cowfiles.h"
#include "driver/snap/snap.h"

namespace zorv {

namespace {

constexpr u64 quiesce_limit_jiffies = 60000;

zorv_blkdev* filter_of(const zorv_blkdev* snap) {
  zorv_blkdev* f = snap->s.filter;
  return f != nullptr && f->dev_type == ZORV_DEV_FILTER ? f : nullptr;
}

zorv_blkdev* older(const zorv_filter& f, const zorv_blkdev* s) {
  return f.snaps.prev_of(s->s.snap_link);
}
zorv_blkdev* newer(const zorv_filter& f, const zorv_blkdev* s) {
  return f.snaps.next_of(s->s.snap_link);
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
    if (kernel::time_after_eq(kernel::jiffies(), deadline)) {
      zorv_log(LOG_ERROR, "%s(): Timed out waiting for FS on zorv(%d, %d) (%s) to stabilize.",
               "zorv_block_start_device", zorv_blk_major, filter->minor, f.hdd_name);
      return -EAGAIN;
    }
    zorv_log(4, "%s(): Waiting for FS on zorv(%d, %d) (%s) to stabilize...",
             "zorv_block_start_device", zorv_blk_major, filter->minor, f.hdd_name);
    kernel::yield();
  }
}

// Whether every snap behind it is still without an instant. What stands behind a snap in the list
// counts as newer: its copies are taken for what the snap shows.
bool is_newest(const zorv_filter& f, const zorv_blkdev* snap) {
  for (const zorv_blkdev* n = newer(f, snap); n != nullptr; n = newer(f, n)) {
    if (n->s.has_instant.load() != 0) return false;
  }
  return true;
}

// Puts a stopped snap behind everything that has had its instant.
void make_newest(zorv_filter* f, zorv_blkdev* snap) REQUIRES(zorv_blkdev_rwlock) {
  snap->s.snap_link.unlink();
  f->snaps.push_back(&snap->s.snap_link);
}

// The instant of the snapshot: under the write side of the filter's snap_rwlock, so that every
// request is routed either wholly before it or wholly after.
//   returns  0 | -EAGAIN (another snap behind it has had its instant meanwhile)
int take_snapshot(zorv_blkdev* filter, zorv_blkdev* snap) {
  if (!is_newest(filter->f, snap)) return -EAGAIN;
  {
    zorv_cowqueue& q = filter->f.cowqueue;
    kernel::spin_guard guard(&q.lock);
    // Left over from an earlier life of the minor.
    for (cow_request& r : q.reqs) {
      if (r.snap_minor == static_cast<s32>(snap->s.snap_minor)) r.snap_minor = -1;
    }
  }
  snap->s.snap_valid.store(zorv_snap_valid_at_start(snap, "zorv_block_start_device"));
  snap->s.has_instant.store(1);
  snap->started.store(1);
  return 0;
}

// From the files to the instant; the caller holds the snap's dev_mutex and both pins.
//   filter_bdev  the filter's device while a front end has it open, else null
int bring_up_snap(zorv_blkdev* filter, zorv_blkdev* snap, kernel::block_device* filter_bdev,
                  u64 deadline) NO_THREAD_SAFETY_ANALYSIS {
  {
    rzwrite_guard files(&snap->s.file_lock);
    int rc = zorv_snap_open_files(snap);
    if (rc == 0) rc = zorv_blkbmp_init(&snap->s.datablock_bmp);
    if (rc != 0) return rc;
  }
  if (filter_bdev == nullptr) {
    // Nobody can open the filter now, so nothing but a request being routed has to be waited for.
    rzwrite_lock(&filter->f.snap_rwlock);
    const int rc = take_snapshot(filter, snap);
    rzwrite_unlock(&filter->f.snap_rwlock);
    return rc;
  }
  kernel::super_block* frozen = kernel::freeze_bdev(filter_bdev);
  if (kernel::is_err(frozen)) return kernel::ptr_err(frozen);
  int rc = quiesce(filter, deadline);
  if (rc == 0) {
    rc = take_snapshot(filter, snap);
    rzwrite_unlock(&filter->f.snap_rwlock);
  }
  kernel::thaw_bdev(filter_bdev, frozen);
  return rc;
}

int start_snap(zorv_blkdev* snap) REQUIRES_SHARED(zorv_blkdev_rwlock) {
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
      rc = bring_up_snap(filter_of(snap), snap, st.filter_bdev, deadline);
      if (rc == 0) {
        zorv_log(3, "%s(): zorv(%d, %d) has been started successfully", op, zorv_blk_major,
                 snap->minor);
      } else {
        snap->started.store(0);
        snap->s.snap_valid.store(0);
        rzwrite_guard files(&snap->s.file_lock);
        zorv_snap_close_files(snap);
      }
    }
  }
  zorv_snap_start_unlock(&st);
  if (rc == 0) zorv_snap_build_datablock_map(snap->minor);
  return rc;
}

}  // namespace

void zorv_snap_start_lock(snap_start* st) NO_THREAD_SAFETY_ANALYSIS {
  rzmutex_lock(&st->snap->s.filter->dev_mutex);
  st->filter_locked = true;
  rzmutex_lock(&st->snap->dev_mutex);
}

int zorv_snap_start_pin(snap_start* st) NO_THREAD_SAFETY_ANALYSIS {
  zorv_blkdev* filter = st->snap->s.filter;
  if (filter->started.load() == 0) {
    const int rc = zorv_block_start_device(filter);
    if (rc != 0) return rc;
  }
  if (filter->f.cowthread.pid.load() == 0) {
    (void)zorv_cowthread_start(&filter->f.cowthread, "kcowd", &filter->f);
  }
  filter->f.snaps_starting.fetch_add(1);
  st->pinned = true;
  st->filter_bdev = filter->bdev;
  if (st->filter_bdev != nullptr) {
    rzmutex_unlock(&filter->dev_mutex);
    st->filter_locked = false;
  }
  return 0;
}

void zorv_snap_start_unlock(snap_start* st) NO_THREAD_SAFETY_ANALYSIS {
  zorv_blkdev* filter = st->snap->s.filter;
  if (st->pinned) filter->f.snaps_starting.fetch_sub(1);
  rzmutex_unlock(&st->snap->dev_mutex);
  if (st->filter_locked) rzmutex_unlock(&filter->dev_mutex);
}

int zorv_block_start_device(zorv_blkdev* dev) {
  zorv_log(2, "%s(): Starting zorv(%d, %d)", __func__, zorv_blk_major, dev->minor);
  if (dev->dev_type == ZORV_DEV_SNAP) return start_snap(dev);
  {
    rzmutex_guard guard(&dev->dev_mutex);
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

int stop_filter(zorv_blkdev* dev) REQUIRES_SHARED(zorv_blkdev_rwlock) {
  for (zorv_blkdev& snap : dev->f.snaps) {
    if (snap.started.load() == 0) continue;
    const int rc = zorv_block_stop_device(&snap);
    if (rc != 0) return rc;
  }
  (void)zorv_cowthread_shutdown(&dev->f.cowthread);
  (void)zorv_block_save_dirty_bmps(&dev->f);
  dev->started.store(0);
  return 0;
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

//   returns  true when the snap is stopped, false when its stop is postponed
bool stop_snap(zorv_blkdev* snap, zorv_blkdev* filter) REQUIRES_SHARED(zorv_blkdev_rwlock) {
  zorv_filter& f = filter->f;
  bool postponed = false;
  for (zorv_blkdev* o = older(f, snap); o != nullptr; o = older(f, o)) {
    if (o->started.load() != 0) postponed = true;
  }
  if (postponed) {
    snap->s.stop_pending.store(1);
  } else {
    {
      // No request is being routed now, and none will find the snap started.
      rzwrite_guard routing(&f.snap_rwlock);
      snap->s.stop_pending.store(0);
      snap->started.store(0);
    }
    wait_for_queue_head(f.cowqueue);
    rzwrite_guard files(&snap->s.file_lock);
    zorv_snap_close_files(snap);
  }
  for (zorv_blkdev* n = newer(f, snap); n != nullptr; n = newer(f, n)) {
    if (n->started.load() == 0) continue;
    if (n->s.stop_pending.load() != 0) (void)zorv_block_stop_device(n);
    break;
  }
  return !postponed;
}

}  // namespace

int zorv_block_stop_device(zorv_blkdev* dev) {
  zorv_log(2, "%s(): Stopping zorv(%d, %d)", __func__, zorv_blk_major, dev->minor);
  rzmutex_guard guard(&dev->dev_mutex);
  if (dev->started.load() == 0) return 0;
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

namespace {

// Removes the device node, unless a later node of the same name has taken the path over.
void remove_node(const zorv_blkdev* dev) {
  if (dev->dev_name[0] == '\0') return;
  kernel::dentry* entry = zorv_get_file_dentry(dev->dev_name, 0);
  const bool ours =
      entry != nullptr && !kernel::is_err(entry) && entry->d_inode() != nullptr &&
      entry->d_inode()->i_rdev == kernel::mkdev(static_cast<u32>(zorv_blk_major), dev->minor);
  if (entry != nullptr && !kernel::is_err(entry)) kernel::dput(entry);
  if (ours) (void)zorv_unlink(dev->dev_name);
}

int destroy_filter_part(zorv_blkdev* dev, int remove_files) REQUIRES(zorv_blkdev_rwlock) {
  zorv_filter& f = dev->f;
  while (zorv_blkdev* snap = f.snaps.front()) {
    zorv_log(3, "%s(): Deleting associated snap zorv(%d, %d)", "zorv_block_destroy_device",
             zorv_blk_major, snap->minor);
    const int rc = zorv_block_destroy_device(snap, remove_files);
    if (rc != 0) return rc;
  }
  (void)zorv_cowqueue_destroy(&f.cowqueue);
  (void)zorv_aio_destroy(&f.aio, 0);
  (void)zorv_yield_to_dirty_requests(&f, 10);
  zorv_drop_dirty_requests(&f);
  return 0;
}

void release_disk(zorv_blkdev* dev) {
  kernel::gendisk* disk = dev->disk;
  if (disk == nullptr) return;
  kernel::del_gendisk(disk);
  if (disk->queue != nullptr) kernel::blk_cleanup_queue(disk->queue);
  kernel::put_disk(disk);
  dev->disk = nullptr;
}

}  // namespace

int zorv_block_destroy_device(zorv_blkdev* dev, int remove_files) {
  if (dev == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Internal error: dev==NULL", __func__);
    return -EINVAL;
  }
  const u32 minor = dev->minor;
  zorv_log(1, "%s(): Destroying zorv(%d, %d)", __func__, zorv_blk_major, minor);
  if (dev->use_cnt.load() != 0) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d)is still being used.", __func__, zorv_blk_major, minor);
    return -EBUSY;
  }
  const bool is_snap = dev->dev_type == ZORV_DEV_SNAP;
  if (dev->started.load() != 0) {
    if (is_snap && dev->s.stop_pending.load() != 0) {
      dev->s.del_pending.store(1);
      zorv_log(1, "%s(): STOP is pending for zorv(%d, %d). Postponing delete as well.", __func__,
               zorv_blk_major, minor);
      return 0;
    }
    zorv_log(LOG_ERROR, "%s(): Can't destroy started zorv(%d, %d). Stop it first!", __func__,
             zorv_blk_major, minor);
    return -EBUSY;
  }

  zorv_blkdev* filter = is_snap ? filter_of(dev) : nullptr;
  if (is_snap) {
    if (remove_files == 1) zorv_cowfiles_unlink(dev);
    dev->s.snap_link.unlink();
  } else {
    const int rc = destroy_filter_part(dev, remove_files);
    if (rc != 0) return rc;
  }
  remove_node(dev);
  (void)zorv_proc_del_device(dev);
  if (!is_snap) {
    zorv_handout_drop_all(&dev->f);
    kernel::vfree(dev->f.incr_bmp);
    kernel::vfree(dev->f.diff_bmp);
    dev->f.incr_bmp = dev->f.diff_bmp = nullptr;
  }
  // The node's disk goes first: its queue leads to the HDD until it is gone.
  release_disk(dev);
  if (!is_snap && dev->f.hdd_bdev != nullptr) zorv_close_bdev(dev->f.hdd_bdev);
  if (filter != nullptr) {
    zorv_blkdev* head = filter->f.snaps.front();
    if (head != nullptr && head->s.del_pending.load() != 0) {
      (void)zorv_block_destroy_device(head, remove_files);
    }
  }
  zorv_blkdev_arr[minor] = nullptr;
  kernel::kdelete(dev);
  zorv_log(3, "%s(): zorv(%d, %d) has been destroyed successfully", __func__, zorv_blk_major,
           minor);
  return 0;
}

int zorv_block_destroy() {
  int rc = 0;
  if (zorv_blkdev_arr != nullptr) {
    zorv_log(2, "%s(): Stopping all minor nodes", __func__);
    {
      table_read_guard table;
      for (u32 m = 0; rc == 0 && m <= static_cast<u32>(zorv_max_blk_minor); ++m) {
        zorv_blkdev* dev = zorv_blkdev_find(m);
        if (dev != nullptr && dev->started.load() != 0) rc = zorv_block_stop_device(dev);
      }
    }
    if (rc != 0) return rc;
    zorv_log(2, "%s(): Destroying all minor nodes", __func__);
    table_write_guard table;
    for (u32 m = 0; rc == 0 && m <= static_cast<u32>(zorv_max_blk_minor); ++m) {
      zorv_blkdev* dev = zorv_blkdev_arr[m];
      if (dev != nullptr) rc = zorv_block_destroy_device(dev, 0);
    }
    if (rc != 0) return rc;
    kernel::kfree(zorv_blkdev_arr);
    zorv_blkdev_arr = nullptr;
  }
  if (zorv_blk_registered != 0) {
    zorv_log(2, "%s(): Unregistering block device driver", __func__);
    kernel::unregister_blkdev(static_cast<u32>(zorv_blk_major), "zorv");
    zorv_blk_registered = 0;
  }
  (void)zorv_stop_kdirtyd();
  return 0;
}

namespace {

int unknown_node(const char* op, u32 minor) {
  zorv_log(LOG_ERROR, "%s(): Nothing is known about zorv(%d, %d)", op, zorv_blk_major, minor);
  return -EINVAL;
}

bool starts_out_of_order(const zorv_blkdev* dev) {
  return dev->dev_type == ZORV_DEV_SNAP && dev->started.load() == 0 && filter_of(dev) != nullptr &&
         !is_newest(dev->s.filter->f, dev);
}

}  // namespace

int zorv_ioctl_start_node(const zorv_node_req* req) {
  zorv_log(1, "%s(): Starting zorv(%d, %d)", __func__, zorv_blk_major, req->minor);
  for (;;) {
    {
      table_read_guard table;
      zorv_blkdev* dev = zorv_blkdev_find(req->minor);
      if (dev == nullptr) return unknown_node(__func__, req->minor);
      if (!starts_out_of_order(dev)) {
        const int rc = zorv_block_start_device(dev);
        if (rc != -EAGAIN || !starts_out_of_order(dev)) return rc;
      }
    }
    table_write_guard table;
    zorv_blkdev* dev = zorv_blkdev_find(req->minor);
    if (dev != nullptr && starts_out_of_order(dev)) make_newest(&dev->s.filter->f, dev);
  }
}

int zorv_ioctl_stop_node(const zorv_node_req* req) {
  zorv_log(1, "%s(): Stopping zorv(%d, %d)", __func__, zorv_blk_major, req->minor);
  table_read_guard table;
  zorv_blkdev* dev = zorv_blkdev_find(req->minor);
  return dev == nullptr ? unknown_node(__func__, req->minor) : zorv_block_stop_device(dev);
}

int zorv_ioctl_del_node(const zorv_node_req* req) {
  zorv_log(1, "%s(): Removing zorv(%d, %d)", __func__, zorv_blk_major, req->minor);
  {
    table_read_guard table;
    zorv_blkdev* dev = zorv_blkdev_find(req->minor);
    if (dev == nullptr) return unknown_node(__func__, req->minor);
    const int rc = zorv_block_stop_device(dev);
    if (rc != 0) return rc;
  }
  table_write_guard table;
  zorv_blkdev* dev = zorv_blkdev_find(req->minor);
  return dev == nullptr ? unknown_node(__func__, req->minor) : zorv_block_destroy_device(dev, 1);
}

}  // namespace zorv
