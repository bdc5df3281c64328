// SPDX-License-Identifier: GPL-2.0-only
// The life of a clone: linked here while it may be in flight (orig set), no longer counted once it
// has completed (orig null), gone when its last reference is dropped.
//
// A completion may end the submitter's bio while others look for overlaps, and a clone that is not
// sent after all may outlive the bio it was made of. So an item carries the range of its bio and
// nobody looks into a bio that is not his own.
#include "driver/io/aio.h"

#include <atomic>
#include <cassert>

#include "driver/core/lock.h"
#include "driver/core/log.h"
#include "kernel/blkdev.h"
#include "kernel/lock.h"
#include "kernel/mem.h"

namespace zorv {

struct aio_item {
  kernel::list_node<aio_item> link{this};
  kernel::list_of<aio_block> blocks;  // ascending
  kernel::bio* orig = nullptr;        // null once the clone has completed; under aio_spin
  kernel::bio* clone = nullptr;
  void (*saved_destructor)(kernel::bio*) = nullptr;
  sector_t first_sector = 0;
  sector_t last_sector = 0;  // inclusive
};

namespace {

constexpr u32 pool_reserve = 4096;       // items, and blocks
constexpr u32 rounds_before_sleep = 8;   // of yield, for an overlap that is about to go
constexpr u64 conflict_wait_ticks = 10;  // longest sleep before the target is unplugged again

// Shared by all trackers. Completions take it.
kernel::spinlock_t aio_spin{order::clones};
u64 aio_gone GUARDED_BY(aio_spin) = 0;       // clones that stopped counting so far
u32 aio_waiters GUARDED_BY(aio_spin) = 0;    // tasks that wait for one
u32 aio_releasing GUARDED_BY(aio_spin) = 0;  // destructors between unlinking and their end
kernel::wait_queue_head aio_wait;

block_pools<aio_item> pools{"aio_item", "aio_block", pool_reserve,
                            "zorv_aio_destroy(): Destroying global AIO allocators."};

// Whether a clone in flight touches the item's sectors.
bool overlaps_locked(const zorv_aio* aio, const aio_item* item) REQUIRES(aio_spin) {
  return aio->hash.any_overlap(item->first_sector, item->last_sector,
                               [](const aio_item& other) { return other.orig != nullptr; });
}

// A clone has stopped counting as in flight: whether someone has to be woken for it.
bool note_gone_locked() REQUIRES(aio_spin) {
  ++aio_gone;
  return aio_waiters != 0;
}

u64 gone_count() {
  kernel::spin_guard guard(&aio_spin);
  return aio_gone;
}

// Lets the clone that is in the way make progress: starts the disk on it (every clone of a tracker
// goes to the disk that stands behind the waiting bio too) and waits until some clone has gone.
void wait_for_conflict(const kernel::bio* bio, u32 round, u64 seen) {
  kernel::blk_unplug(kernel::bdev_get_queue(bio->bi_bdev));
  if (round < rounds_before_sleep) {
    kernel::yield();
  } else {
    // Without an end the disk is unplugged again: the clone may have been plugged only now.
    (void)kernel::wait_event_timeout(
        &aio_wait, [seen] { return gone_count() != seen; }, conflict_wait_ticks);
  }
  zorv_log(3, "%s(): waiting...", "zorv_aio_clone");
}

}  // namespace

kernel::bio* zorv_aio_clone(zorv_aio* aio, kernel::bio* bio, int wait, gfp_t flags) {
  assert(aio != nullptr && bio != nullptr && bio->bi_size >= kernel::sector_size);
  aio_item* item = pools.make(bio, flags);
  if (item == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
    return nullptr;
  }
  kernel::bio* clone = kernel::bio_clone(bio, flags);
  if (clone == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to clone BIO.", "zorv_aio_clone");
    pools.free(item);
    return nullptr;
  }

  for (u32 round = 0;; ++round) {
    u64 seen;
    {
      kernel::spin_guard guard(&aio_spin);
      if (round != 0) --aio_waiters;
      if (!overlaps_locked(aio, item)) {
        item->orig = bio;
        item->clone = clone;
        item->saved_destructor = clone->bi_destructor;
        clone->bi_destructor = zorv_aio_destructor;
        clone->bi_private = item;
        clone->bi_end_io = zorv_aio_end_io;
        aio->hash.add(item);
        aio->items.push_back(&item->link);
        return clone;
      }
      if (wait != 0) ++aio_waiters;
      seen = aio_gone;
    }
    if (wait == 0) break;
    wait_for_conflict(bio, round, seen);
  }
  kernel::bio_put(clone);
  pools.free(item);
  return nullptr;
}

void zorv_aio_end_io(kernel::bio* clone, int error) {
  kernel::bio* orig = nullptr;
  bool wake = false;
  {
    kernel::spin_guard guard(&aio_spin);
    if (auto* item = static_cast<aio_item*>(clone->bi_private)) {
      orig = item->orig;
      item->orig = nullptr;
      wake = note_gone_locked();
    }
  }
  if (wake) kernel::wake_up_all(&aio_wait);
  if (orig != nullptr) {
    orig->bi_idx = clone->bi_idx;
    kernel::bio_endio(orig, error);
  }
  kernel::bio_put(clone);
}

void zorv_aio_destructor(kernel::bio* clone) {
  aio_item* item;
  bool wake = false;
  {
    kernel::spin_guard guard(&aio_spin);
    item = static_cast<aio_item*>(clone->bi_private);
    if (item == nullptr) return;
    item->link.unlink();
    block_index<aio_item>::remove(item);
    if (item->orig != nullptr) wake = note_gone_locked();  // dropped without having been sent
    ++aio_releasing;
  }
  if (wake) kernel::wake_up_all(&aio_wait);
  clone->bi_destructor = item->saved_destructor;
  if (clone->bi_destructor != nullptr) clone->bi_destructor(clone);
  pools.free(item);
  kernel::spin_guard guard(&aio_spin);
  --aio_releasing;
}

int zorv_aio_init(zorv_aio* aio) {
  assert(aio != nullptr);
  zorv_log(2, "%s(): Initializing AIO tracker.", __func__);
  const int rc = aio->hash.init(aio_hash_size);
  const bool have_allocators = pools.take();
  if (rc == 0 && have_allocators) return 0;

  zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
  aio->hash.release();
  pools.drop();
  return -ENOMEM;
}

int zorv_aio_destroy(zorv_aio* aio, int /*abort*/) {
  assert(aio != nullptr);
  zorv_log(2, "%s(): Destroying AIO tracker.", __func__);
  for (u32 round = 0;; ++round) {
    kernel::request_queue* queue = nullptr;
    u64 seen;
    {
      kernel::spin_guard guard(&aio_spin);
      // The pools are still in use while a destructor that has unlinked its item runs on.
      if (aio->items.empty() && aio_releasing == 0) break;
      if (!aio->items.empty()) {
        queue = kernel::bdev_get_queue(aio->items.front()->clone->bi_bdev);
      }
      seen = aio_gone;
      ++aio_waiters;
    }
    if (queue != nullptr) kernel::blk_unplug(queue);
    if (round < rounds_before_sleep || queue == nullptr) {
      kernel::yield();
    } else {
      (void)kernel::wait_event_timeout(
          &aio_wait, [seen] { return gone_count() != seen; }, conflict_wait_ticks);
    }
    kernel::spin_guard guard(&aio_spin);
    --aio_waiters;
  }
  pools.drop();
  aio->hash.release();
  return 0;
}

}  // namespace zorv
