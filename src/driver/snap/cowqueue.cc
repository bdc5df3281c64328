// SPDX-License-Identifier: GPL-2.0-only
// Two orders that must agree: where requests overlap, the order of the list is the order of
// arrival (a write goes to the tail, a read behind everything it overlaps). A bucket holds its
// entries newest first, so whatever stands behind an entry in its bucket arrived earlier, and the
// question whether an earlier request overlaps needs no walk over the list.
#include "driver/snap/cowqueue.h"

#include <cassert>

#include "driver/core/lock.h"
#include "driver/core/log.h"
#include "kernel/blkdev.h"
#include "kernel/mem.h"

namespace zorv {

namespace {

constexpr u32 pool_reserve = 8192;  // requests, and blocks

// Shared by all queues.
block_pools<cow_request> pools{"cow_request", "cow_block", pool_reserve,
                               "zorv_cowqueue_destroy(): Destroying global COW allocators."};

// The request for the bio, not linked anywhere; or null (logged).
cow_request* make_request(s32 snap_minor, kernel::bio* bio, gfp_t flags) {
  cow_request* r = pools.make(bio, flags);
  if (r == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed", "zorv_cowqueue_append");
    return nullptr;
  }
  r->snap_minor = snap_minor;
  r->bio = bio;
  r->dev = bio->bi_bdev->bd_dev;
  r->is_write = kernel::bio_is_write(bio);
  return r;
}

// The request behind which a read belongs in a queue that is not empty: the newest it overlaps,
// else the head.
cow_request* place_of_read_locked(zorv_cowqueue* q, const cow_request* read) REQUIRES(q->lock) {
  const auto any = [](const cow_request&) { return true; };
  if (!q->hash.any_overlap(read->first_sector, read->last_sector, any)) return q->reqs.front();
  cow_request* at = q->reqs.back();
  while (!overlaps(*at, read->first_sector, read->last_sector)) {
    at = q->reqs.prev_of(at->queue_link);
  }
  return at;
}

}  // namespace

int zorv_cowqueue_init(zorv_cowqueue* q) {
  assert(q != nullptr);
  const bool have_allocators = pools.take();
  q->cnt.store(0);
  const int rc = q->hash.init(cowqueue_hash_size);
  if (rc == 0 && have_allocators) return 0;
  zorv_log(LOG_ERROR,
           rc != 0 ? "%s(): Failed to create queue hash." : "%s(): Memory allocation failed.",
           __func__);
  pools.drop();
  q->hash.release();
  return -ENOMEM;
}

int zorv_cowqueue_append(zorv_cowqueue* q, s32 snap_minor, kernel::bio* bio, gfp_t flags) {
  assert(q != nullptr && bio != nullptr && bio->bi_size >= kernel::sector_size);
  zorv_log(3, "%s(): Appending new request...", __func__);
  cow_request* r = make_request(snap_minor, bio, flags);
  if (r == nullptr) return -ENOMEM;
  {
    kernel::spin_guard guard(&q->lock);
    cow_request* behind = nullptr;
    if (!r->is_write && !q->reqs.empty()) behind = place_of_read_locked(q, r);
    q->hash.add(r);
    q->cnt.fetch_add(1);
    if (behind != nullptr) {
      r->queue_link.insert_after(&behind->queue_link);
    } else {
      q->reqs.push_back(&r->queue_link);
    }
  }
  q->events.fetch_add(1);
  kernel::wake_up(&q->wait);
  return 0;
}

int zorv_cowqueue_find_overlap_req(zorv_cowqueue* q, int match_reads, int match_writes,
                                   const kernel::bio* bio) {
  assert(q != nullptr && bio != nullptr && (match_reads != 0 || match_writes != 0));
  // Between two overlapping requests of one submitter lies the end of the first, so an empty queue
  // needs no lock to be called empty.
  if (q->cnt.load() == 0) return 0;
  const sector_t last = bio->bi_sector + kernel::bio_sectors(bio) - 1;
  kernel::spin_guard guard(&q->lock);
  const auto selected = [=](const cow_request& r) {
    return (r.is_write ? match_writes : match_reads) != 0;
  };
  return q->hash.any_overlap(bio->bi_sector, last, selected) ? 1 : 0;
}

bool zorv_cowqueue_overlaps_earlier(zorv_cowqueue* q, cow_request* r) {
  return q->hash.overlaps_earlier(r);
}

bool zorv_cowqueue_overlaps_other(zorv_cowqueue* q, const cow_request* r) {
  return q->hash.any_overlap(r->first_sector, r->last_sector,
                             [r](const cow_request& other) { return &other != r; });
}

void zorv_cowqueue_remove(zorv_cowqueue* q, cow_request* r) {
  block_index<cow_request>::remove(r);
  r->queue_link.unlink();
  pools.free(r);
  q->cnt.fetch_sub(1);
}

int zorv_cowqueue_purge(zorv_cowqueue* q) {
  assert(q != nullptr);
  zorv_log(1, "%s(): Purging all COW queue requests", __func__);
  for (;;) {
    kernel::bio* bio;
    {
      kernel::spin_guard guard(&q->lock);
      cow_request* head = q->reqs.front();
      if (head == nullptr) return 0;
      bio = head->bio;
      zorv_cowqueue_remove(q, head);
    }
    kernel::bio_endio(bio, -EIO);
  }
}

int zorv_cowqueue_destroy(zorv_cowqueue* q) {
  assert(q != nullptr);
  zorv_log(1, "%s(): Destroying COW queue", __func__);
  const int rc = zorv_cowqueue_purge(q);
  if (rc != 0) return rc;
  pools.drop();
  q->hash.release();
  return rc;
}

}  // namespace zorv
