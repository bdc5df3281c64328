// SPDX-License-Identifier: GPL-2.0-only
// The road of a request through a node.
//
// Every bio leaves here passed on to the HDD (itself or as a tracked clone), held in the filter's
// COW queue, or ended with an error. While it is routed on a filter the read side of snap_rwlock is
// held, so that it meets one state of the snaps from its first look to its hand-off.
//
// The queue leads to the record, which is not destroyed before every request that is being
// submitted to its disk is through: no look-up, no pin.
#include "driver/io/request.h"

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "driver/io/aio.h"

namespace zorv {

namespace {

struct chunk_range {
  u64 first, last;
};
chunk_range chunks_of(const kernel::bio* b, u32 chunk_shift) {
  const u32 shift = chunk_shift - kernel::sector_shift;
  return {b->bi_sector >> shift, (b->bi_sector + kernel::bio_sectors(b) - 1) >> shift};
}

void pass_on(kernel::bio* b, kernel::block_device* hdd) {
  b->bi_bdev = hdd;
  kernel::generic_make_request(b);
}

gfp_t request_flags() {
  // A COW thread may not wait for a reserve that only it can refill.
  return std::strstr(kernel::current()->comm, "kcowd") != nullptr ? kernel::GFP_ATOMIC
                                                                  : kernel::GFP_NOIO;
}

// Whether the snap or a newer one holds the old contents of a chunk of the range: the HDD then no
// longer has what the snap shows.
bool copied_in_or_after(const zorv_filter& f, zorv_blkdev* snap, chunk_range r) {
  rzread_guard walk(&f.snaps_lock);
  for (u64 c = r.first; c <= r.last; ++c) {
    for (zorv_blkdev* t = snap; t != nullptr; t = f.snaps.next_of(t->s.snap_link)) {
      if (t->started.load() != 0 && t->s.snap_valid.load() != 0 &&
          zorv_cowbmp_test_bit(&t->s.cowbmp, static_cast<s32>(c)) != 0) {
        return true;
      }
    }
  }
  return false;
}

bool readable(const zorv_blkdev* snap) {
  return snap->s.snap_valid.load() == 1 && snap->s.stop_pending.load() == 0;
}

int unreadable(const zorv_blkdev* snap) {
  zorv_log(LOG_ERROR,
           "%s(): I/O request for zorv(%d, %d), which is in STOP_PENDING state or INVALID.",
           "zorv_make_request", zorv_blk_major, snap->minor);
  return -EIO;
}

int route_snap(zorv_blkdev* dev, kernel::bio* bio, gfp_t flags) {
  zorv_blkdev* filter = dev->s.filter;
  if (filter == nullptr || filter->dev_type != ZORV_DEV_FILTER) {
    zorv_log(LOG_ERROR, "%s(): Request for unattached snap device zorv(%d, %d)",
             "zorv_make_request", zorv_blk_major, dev->minor);
    return -EINVAL;
  }
  if (!readable(dev)) return unreadable(dev);
  if (kernel::bio_is_write(bio)) {
    zorv_log(LOG_ERROR, "%s(): Write request to snap zorv(%d, %d)", "zorv_make_request",
             zorv_blk_major, dev->minor);
    return -EROFS;
  }
  zorv_filter& f = filter->f;
  if (kernel::bio_sectors(bio) == 0) {
    pass_on(bio, f.hdd_bdev);
    return 0;
  }
  // The clone comes first: from here on no write that overlaps the range can reach the HDD
  // without waiting for it, so what the look-ups below say stays true until the read is done.
  kernel::bio* clone = zorv_aio_clone(&f.aio, bio, 0, flags);
  if (clone == nullptr) return queue_req(&f, bio, flags);
  if (zorv_cowqueue_find_overlap_req(&f.cowqueue, 0, 1, bio) != 0 ||
      copied_in_or_after(f, dev, chunks_of(bio, dev->s.chunk_shift))) {
    kernel::bio_put(clone);  // first: once queued, the bio may end at any time
    return queue_req(&f, bio, flags);
  }
  // Invalid since: a snap whose copies it needs may have been passed over. Writes that go without
  // a copy wait for this clone as any other, so what it reads stays right from here on.
  if (!readable(dev)) {
    kernel::bio_put(clone);
    return unreadable(dev);
  }
  pass_on(clone, f.hdd_bdev);
  return 0;
}

// Whether the write has to wait for the COW thread: the started snaps are asked from the newest
// to the oldest until one decides.
bool must_hold(const zorv_filter& f, const kernel::bio* bio) {
  const bool served = f.cowthread.pid.load() != 0;  // without a thread no snap is valid
  rzread_guard walk(&f.snaps_lock);
  for (zorv_blkdev* t = f.snaps.back(); t != nullptr; t = f.snaps.prev_of(t->s.snap_link)) {
    if (t->started.load() == 0) continue;
    if (t->s.snap_valid.load() == 0) return f.record.stale.load() && served;
    const chunk_range r = chunks_of(bio, t->s.chunk_shift);
    u64 copied = 0;
    bool allocated = false;
    for (u64 c = r.first; c <= r.last; ++c) {
      if (zorv_blkbmp_test_bit(&t->s.datablock_bmp, c) != 0) allocated = true;
      if (zorv_cowbmp_test_stable(&t->s.cowbmp, static_cast<s32>(c)) != 0) ++copied;
    }
    if (copied == r.last - r.first + 1) return false;
    if (allocated) return true;
  }
  return false;
}

int route_filter(zorv_blkdev* dev, kernel::bio* bio, gfp_t flags) {
  zorv_filter& f = dev->f;
  // A bio is counted in one tally only, so what goes to another node goes as a clone.
  if ((f.nr_snaps.load(std::memory_order_relaxed) == 0 && !f.hdd_is_node) ||
      kernel::bio_sectors(bio) == 0) {
    pass_on(bio, f.hdd_bdev);
    return 0;
  }
  const int wait = f.cowthread.pid.load() == 0 ? 1 : 0;
  kernel::bio* clone = zorv_aio_clone(&f.aio, bio, wait, flags);
  if (clone == nullptr) return queue_req(&f, bio, flags);
  const bool hold =
      kernel::bio_is_write(bio) &&
      (zorv_cowqueue_find_overlap_req(&f.cowqueue, 1, 1, bio) != 0 || must_hold(f, bio));
  if (hold) {
    kernel::bio_put(clone);  // first: once queued, the bio may end at any time
    return queue_req(&f, bio, flags);
  }
  pass_on(clone, f.hdd_bdev);
  return 0;
}

// What a try to route a request came to.
struct outcome {
  bool marks_pending;  // not routed: something has to be on disk first
  u64 event;           // the state of the marks before that was seen
  int rc;              // routed: 0, or the negative errno to end the bio with
};

outcome route(zorv_blkdev* dev, kernel::bio* bio, gfp_t flags) {
  const u32 minor = kernel::minor_of(bio->bi_bdev->bd_dev);
  if (dev->state.load(std::memory_order_relaxed) != node_state::live) {
    zorv_log(LOG_ERROR, "%s(): Nothing is known about ZORV device with minor=%d",
             "zorv_make_request", minor);
    return {false, 0, -EINVAL};
  }
  if (dev->started.load() == 0) {
    zorv_log(LOG_ERROR, "%s(): I/O request for zorv(%d, %d), which is in STOPPED state.",
             "zorv_make_request", zorv_blk_major, minor);
    return {false, 0, -EIO};
  }
  if (dev->dev_type == ZORV_DEV_SNAP) return {false, 0, route_snap(dev, bio, flags)};

  zorv_filter& f = dev->f;
  rzread_guard routing(&f.snap_rwlock);
  f.inflight.fetch_add(1, std::memory_order_relaxed);
  if (kernel::bio_is_write(bio) && kernel::bio_sectors(bio) > 0) {
    zorv_block_mark_extents(&f, bio->bi_sector, kernel::bio_sectors(bio), bio);
    const u64 event = zorv_marks_event();
    if (f.record.stale.load()) zorv_record_wanted(&f);  // a snap would miss the write
    if (zorv_marks_refused(&f)) return {false, 0, -EIO};
    if (zorv_marks_pending(&f)) return {true, event, 0};
  }
  return {false, 0, route_filter(dev, bio, flags)};
}

}  // namespace

int queue_req(zorv_filter* f, kernel::bio* bio, gfp_t flags) {
  if (f->cowthread.pid.load() == 0) return -ENOMEM;  // no clone, and nobody who would make one
  s32 snap_minor = -1;
  {
    rzread_guard walk(&f->snaps_lock);
    for (zorv_blkdev* t = f->snaps.back(); t != nullptr; t = f->snaps.prev_of(t->s.snap_link)) {
      if (t->started.load() != 0) {
        snap_minor = static_cast<s32>(t->s.snap_minor);
        break;
      }
    }
  }
  return zorv_cowqueue_append(&f->cowqueue, snap_minor, bio, flags);
}

int zorv_make_request(kernel::request_queue* q, kernel::bio* bio) {
  auto* dev = static_cast<zorv_blkdev*>(q->queuedata);
  const gfp_t flags = request_flags();
  if (zorv_log_enabled(4)) {
    zorv_log(4, "%s(): minor=%d, sector=%lld, sectors=%d, rw=%d", __func__,
             kernel::minor_of(bio->bi_bdev->bd_dev), static_cast<long long>(bio->bi_sector),
             kernel::bio_sectors(bio), kernel::bio_is_write(bio) ? 1 : 0);
  }
  // A write whose bits the saved bitmap file lacks may not reach the HDD before the file is marked
  // stale. It waits with no lock held and is then routed as if it had just come.
  const u64 deadline = kernel::jiffies() + mark_wait_limit_jiffies;
  outcome o = route(dev, bio, flags);
  while (o.marks_pending) {
    if (!zorv_marks_wait_or_refuse(&dev->f, o.event, deadline)) {
      o.rc = -EIO;
      break;
    }
    o = route(dev, bio, flags);
  }
  if (o.rc < 0) kernel::bio_endio(bio, o.rc);
  return 0;
}

namespace {

void unplug_hdd(const zorv_blkdev* filter) {
  if (filter->f.hdd_bdev != nullptr) kernel::blk_unplug(kernel::bdev_get_queue(filter->f.hdd_bdev));
}

}  // namespace

void zorv_unplug_filter(kernel::request_queue* q) {
  unplug_hdd(static_cast<const zorv_blkdev*>(q->queuedata));
}

void zorv_unplug_snap(kernel::request_queue* q) {
  const auto* snap = static_cast<const zorv_blkdev*>(q->queuedata);
  if (snap->s.filter != nullptr) unplug_hdd(snap->s.filter);
}

}  // namespace zorv
