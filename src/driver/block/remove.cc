// SPDX-License-Identifier: GPL-2.0-only
// The end of a node: DEL, and unload.
//
// A node that is to go is first taken out of everybody's sight. Then nobody new comes, and with no
// lock held the removal waits for those who still have it.
#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/block/block.h"
#include "driver/core/log.h"
#include "driver/proc/proc.h"
#include "driver/snap/cowfiles.h"
#include "driver/snap/snap.h"
#include "kernel/mem.h"

namespace zorv {

namespace {

constexpr const char* op = "zorv_block_destroy_device";

enum class removal { begun, postponed, refused };

//   rc  of a refusal
removal begin_removal(zorv_blkdev* dev, int* rc) {
  *rc = -EBUSY;
  rzmutex_guard guard(&dev->dev_mutex);
  if (dev->use_cnt.load() != 0 || dev->s.left.load() != 0) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d)is still being used.", op, zorv_blk_major, dev->minor);
    return removal::refused;
  }
  if (dev->started.load() != 0) {
    if (dev->dev_type == ZORV_DEV_SNAP && dev->s.stop_pending.load() != 0) {
      dev->s.del_pending.store(1);
      zorv_log(1, "%s(): STOP is pending for zorv(%d, %d). Postponing delete as well.", op,
               zorv_blk_major, dev->minor);
      return removal::postponed;
    }
    zorv_log(LOG_ERROR, "%s(): Can't destroy started zorv(%d, %d). Stop it first!", op,
             zorv_blk_major, dev->minor);
    return removal::refused;
  }
  if (zorv_blkdev_begin_removal(dev)) return removal::begun;
  *rc = zorv_block_unknown_node(op, dev->minor);
  return removal::refused;
}

// Nobody adds a snap any more: that takes a pin on the filter.
int destroy_snaps(zorv_filter* f, int remove_files) {
  while (const u32 left = f->nr_snaps.load()) {
    node_ref snap = zorv_snap_oldest(*f);
    if (!snap) {  // the others are being removed by other tasks
      zorv_blkdev_wait([f, left] { return f->nr_snaps.load() != left; });
      continue;
    }
    zorv_log(3, "%s(): Deleting associated snap zorv(%d, %d)", op, zorv_blk_major, snap->minor);
    const int rc = zorv_block_destroy_device(std::move(snap), remove_files);
    if (rc != 0) return rc;
  }
  return 0;
}

void destroy_filter_part(zorv_blkdev* dev) {
  zorv_filter& f = dev->f;
  (void)zorv_cowqueue_destroy(&f.cowqueue);
  (void)zorv_aio_destroy(&f.aio, 0);
  (void)zorv_yield_to_dirty_requests(&f, 10);
  zorv_drop_dirty_requests(&f);
}

void destroy_snap_part(zorv_blkdev* dev, int remove_files) {
  zorv_filter& f = dev->s.filter->f;
  zorv_snap_close_files(dev);
  if (remove_files == 1) {
    if (zorv_record_lost(&f, dev->s.life_id)) (void)zorv_record_save(&f);
    zorv_cowfiles_unlink(dev);
  }
  zorv_snap_unlink(&f, dev);
}

// No request is being submitted to the node afterwards, and none will be.
void close_disk(zorv_blkdev* dev) {
  if (dev->disk == nullptr) return;
  kernel::del_gendisk(dev->disk);
  kernel::blk_wait_submitted(dev->disk);
}

void release_disk(zorv_blkdev* dev) {
  kernel::gendisk* disk = dev->disk;
  if (disk == nullptr) return;
  if (disk->queue != nullptr) kernel::blk_cleanup_queue(disk->queue);
  kernel::put_disk(disk);
  dev->disk = nullptr;
}

// What everybody has let go of.
void tear_down(zorv_blkdev* dev, int remove_files) {
  const bool is_snap = dev->dev_type == ZORV_DEV_SNAP;
  close_disk(dev);
  if (is_snap) {
    destroy_snap_part(dev, remove_files);
  } else {
    destroy_filter_part(dev);
  }
  if (dev->dev_name[0] != '\0') (void)zorv_unlink(dev->dev_name);
  (void)zorv_proc_del_device(dev);
  if (!is_snap) {
    zorv_handout_drop_all(&dev->f);
    zorv_block_close_bmps(&dev->f);
    zorv_record_detach(&dev->f);
    kernel::vfree(dev->f.incr_bmp);
    kernel::vfree(dev->f.diff_bmp);
    dev->f.incr_bmp = dev->f.diff_bmp = nullptr;
  }
  // The queue leads to the HDD until it is gone.
  release_disk(dev);
  if (!is_snap && dev->f.hdd_bdev != nullptr) zorv_close_bdev(dev->f.hdd_bdev);
}

}  // namespace

int zorv_block_destroy_device(node_ref ref, int remove_files) {
  zorv_blkdev* dev = ref.get();
  if (dev == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Internal error: dev==NULL", __func__);
    return -EINVAL;
  }
  const u32 minor = dev->minor;
  zorv_log(1, "%s(): Destroying zorv(%d, %d)", __func__, zorv_blk_major, minor);
  int rc = dev->dev_type == ZORV_DEV_FILTER ? zorv_marks_await_rest(&dev->f) : 0;
  if (rc != 0) return rc;
  const removal begun = begin_removal(dev, &rc);
  if (begun != removal::begun) return begun == removal::postponed ? 0 : rc;
  if (!zorv_blkdev_wait_unpinned(ref)) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) is still being used.", op, zorv_blk_major, minor);
    zorv_blkdev_undo_removal(dev);
    return -EBUSY;
  }
  // Keeps the filter until the pending delete below has been seen to.
  node_ref filter;
  if (dev->dev_type == ZORV_DEV_SNAP) {
    filter = zorv_node_pin(dev->s.filter);
  } else {
    rc = destroy_snaps(&dev->f, remove_files);
    if (rc != 0) {
      zorv_blkdev_undo_removal(dev);
      return rc;
    }
  }
  tear_down(dev, remove_files);
  zorv_blkdev_release(dev);
  ref.forget();
  kernel::kdelete(dev);
  zorv_log(3, "%s(): zorv(%d, %d) has been destroyed successfully", __func__, zorv_blk_major,
           minor);
  if (filter) {
    node_ref head = zorv_snap_oldest(filter->f);
    if (head && head->s.del_pending.load() != 0) {
      (void)zorv_block_destroy_device(std::move(head), remove_files);
    }
  }
  return 0;
}

namespace {

// Whether the upper filter's HDD is one of the lower one's nodes, or stands on one in turn.
bool stands_on(const zorv_blkdev* upper, const zorv_blkdev* lower)
    REQUIRES_SHARED(zorv_blkdev_rwlock) {
  while (zorv_is_own_dev(upper->f.hdd_dev)) {
    const zorv_blkdev* node = zorv_blkdev_find(kernel::minor_of(upper->f.hdd_dev));
    if (node == nullptr) return false;
    upper = node->dev_type == ZORV_DEV_SNAP ? node->s.filter : node;
    if (upper == lower) return true;
  }
  return false;
}

// The filter of that minor, if it is still to go.
zorv_blkdev* left_filter(u32 minor) REQUIRES_SHARED(zorv_blkdev_rwlock) {
  zorv_blkdev* dev = zorv_blkdev_find(minor);
  return dev != nullptr && dev->dev_type == ZORV_DEV_FILTER && !dev->left_behind ? dev : nullptr;
}

// The first filter that is still to go and on which no such filter stands; or empty.
node_ref topmost_filter() {
  const auto minors = static_cast<u32>(zorv_max_blk_minor) + 1;
  table_read_guard table;
  for (u32 m = 0; m < minors; ++m) {
    zorv_blkdev* dev = left_filter(m);
    if (dev == nullptr) continue;
    bool covered = false;
    for (u32 n = 0; n < minors && !covered; ++n) {
      const zorv_blkdev* other = left_filter(n);
      covered = other != nullptr && stands_on(other, dev);
    }
    if (!covered) return zorv_node_pin(dev);
  }
  return {};
}

//   unsaved  the first failure of a stop that stopped the node all the same
//   returns  0 | the first failure that left a node behind
int take_down_nodes(int* unsaved) {
  int first = 0;
  {
    table_read_guard table;
    for (u32 m = 0; m <= static_cast<u32>(zorv_max_blk_minor); ++m) {
      if (zorv_blkdev* dev = zorv_blkdev_find(m)) dev->left_behind = false;
    }
  }
  while (node_ref filter = topmost_filter()) {
    filter->left_behind = true;
    int rc = zorv_block_stop_device(filter.get());
    if (filter->started.load() == 0) {
      if (*unsaved == 0) *unsaved = rc;
      rc = 0;
    }
    if (rc == 0) rc = zorv_block_destroy_device(std::move(filter), 0);
    if (first == 0) first = rc;
  }
  return first;
}

}  // namespace

int zorv_block_destroy() {
  int unsaved = 0;
  if (zorv_blkdev_arr != nullptr) {
    zorv_log(2, "%s(): Stopping all minor nodes", __func__);
    zorv_log(2, "%s(): Destroying all minor nodes", __func__);
    const int rc = take_down_nodes(&unsaved);
    if (rc != 0) return rc;
    table_write_guard table;
    kernel::kfree(zorv_blkdev_arr);
    zorv_blkdev_arr = nullptr;
  }
  if (zorv_blk_registered != 0) {
    zorv_log(2, "%s(): Unregistering block device driver", __func__);
    kernel::unregister_blkdev(static_cast<u32>(zorv_blk_major), "zorv");
    zorv_blk_registered = 0;
  }
  (void)zorv_stop_kdirtyd();
  return unsaved;
}

int zorv_block_unknown_node(const char* caller, u32 minor) {
  zorv_log(LOG_ERROR, "%s(): Nothing is known about zorv(%d, %d)", caller, zorv_blk_major, minor);
  return -EINVAL;
}

namespace {

bool misses_bits(zorv_blkdev* dev) {
  if (dev->dev_type != ZORV_DEV_FILTER) return false;
  kernel::spin_guard guard(&dev->f.bmp_lock);
  return zorv_marks_due(&dev->f, ZORV_BMP_INCREMENTAL, excused::no) ||
         zorv_marks_due(&dev->f, ZORV_BMP_DIFFERENTIAL, excused::no);
}

}  // namespace

int zorv_ioctl_del_node(const zorv_node_req* req) {
  zorv_log(1, "%s(): Removing zorv(%d, %d)", __func__, zorv_blk_major, req->minor);
  node_ref dev = zorv_node_get(req->minor);
  if (!dev) return zorv_block_unknown_node(__func__, req->minor);
  const int rc = zorv_block_stop_device(dev.get());
  // One that has stopped, but without its bitmaps saved, goes all the same, unless a file would be
  // believed without them.
  if (rc != 0 && (dev->started.load() != 0 || misses_bits(dev.get()))) return rc;
  return zorv_block_destroy_device(std::move(dev), 1);
}

}  // namespace zorv
