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

struct aio_block {
  kernel::list_node<aio_block> item_link{this};
  kernel::list_node<aio_block> hash_link{this};
  aio_item* item = nullptr;
};

namespace {

constexpr u32 pool_reserve = 4096;       // items, and blocks
constexpr u32 block_shift = 3;           // sectors to 4 KiB blocks
constexpr u32 rounds_before_sleep = 8;   // of yield, for an overlap that is about to go
constexpr u64 conflict_wait_ticks = 10;  // longest sleep before the target is unplugged again

// Shared by all trackers. Completions take it.
kernel::spinlock_t aio_spin{order::clones};
u64 aio_gone GUARDED_BY(aio_spin) = 0;       // clones that stopped counting so far
u32 aio_waiters GUARDED_BY(aio_spin) = 0;    // tasks that wait for one
u32 aio_releasing GUARDED_BY(aio_spin) = 0;  // destructors between unlinking and their end
kernel::wait_queue_head aio_wait;

rzmutex allocators_mutex{order::allocators};
s32 aio_cnt GUARDED_BY(allocators_mutex) = 0;  // live trackers; the first makes the allocators
kernel::kmem_cache* item_cache = nullptr;
kernel::kmem_cache* block_cache = nullptr;
kernel::mempool* item_pool = nullptr;
kernel::mempool* block_pool = nullptr;

void drop_allocators() {
  rzmutex_guard guard(&allocators_mutex);
  if (--aio_cnt != 0) return;
  zorv_log(2, "%s(): Destroying global AIO allocators.", "zorv_aio_destroy");
  kernel::mempool_destroy(item_pool);
  kernel::mempool_destroy(block_pool);
  kernel::kmem_cache_destroy(item_cache);
  kernel::kmem_cache_destroy(block_cache);
  item_pool = block_pool = nullptr;
  item_cache = block_cache = nullptr;
}

// To be dropped, whatever comes of it.
bool take_allocators() {
  rzmutex_guard guard(&allocators_mutex);
  ++aio_cnt;
  if (item_cache == nullptr) {
    item_cache = kernel::kmem_cache_create("aio_item", sizeof(aio_item), 8);
  }
  if (block_cache == nullptr) {
    block_cache = kernel::kmem_cache_create("aio_block", sizeof(aio_block), 8);
  }
  if (item_pool == nullptr && item_cache != nullptr) {
    item_pool = kernel::mempool_create(pool_reserve, item_cache);
  }
  if (block_pool == nullptr && block_cache != nullptr) {
    block_pool = kernel::mempool_create(pool_reserve, block_cache);
  }
  return item_pool != nullptr && block_pool != nullptr;
}

void free_item(aio_item* item) {
  for (aio_block& b : item->blocks) {
    b.item_link.unlink();
    kernel::mempool_free(block_pool, &b);
  }
  kernel::mempool_free(item_pool, item);
}

// The item with an entry for every block of the bio, not linked anywhere; or null (logged).
aio_item* alloc_item(const kernel::bio* bio, gfp_t flags) {
  void* memory = kernel::mempool_alloc(item_pool, flags);
  if (memory == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", "zorv_aio_clone");
    return nullptr;
  }
  auto* item = new (memory) aio_item;
  item->first_sector = bio->bi_sector;
  item->last_sector = bio->bi_sector + kernel::bio_sectors(bio) - 1;
  const u64 last_block = item->last_sector >> block_shift;
  for (u64 block = item->first_sector >> block_shift; block <= last_block; ++block) {
    memory = kernel::mempool_alloc(block_pool, flags);
    if (memory == nullptr) {
      zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", "zorv_aio_clone");
      free_item(item);
      return nullptr;
    }
    auto* entry = new (memory) aio_block;
    entry->item = item;
    item->blocks.push_back(&entry->item_link);
  }
  return item;
}

kernel::list_of<aio_block>* bucket(zorv_aio* aio, u64 block) {
  return &aio->hash[block & (aio_hash_size - 1)];
}

// Whether a clone in flight touches the item's sectors. Entries of other blocks in the same bucket
// fall out through the sector test.
bool overlaps_locked(zorv_aio* aio, const aio_item* item) REQUIRES(aio_spin) {
  const u64 last_block = item->last_sector >> block_shift;
  for (u64 block = item->first_sector >> block_shift; block <= last_block; ++block) {
    for (const aio_block& entry : *bucket(aio, block)) {
      const aio_item* other = entry.item;
      if (other->orig != nullptr && other->first_sector <= item->last_sector &&
          item->first_sector <= other->last_sector) {
        return true;
      }
    }
  }
  return false;
}

void link_item_locked(zorv_aio* aio, aio_item* item) REQUIRES(aio_spin) {
  u64 block = item->first_sector >> block_shift;
  for (aio_block& entry : item->blocks) bucket(aio, block++)->push_back(&entry.hash_link);
  aio->items.push_back(&item->link);
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
  aio_item* item = alloc_item(bio, flags);
  if (item == nullptr) return nullptr;
  kernel::bio* clone = kernel::bio_clone(bio, flags);
  if (clone == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to clone BIO.", "zorv_aio_clone");
    free_item(item);
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
        link_item_locked(aio, item);
        return clone;
      }
      if (wait != 0) ++aio_waiters;
      seen = aio_gone;
    }
    if (wait == 0) break;
    wait_for_conflict(bio, round, seen);
  }
  kernel::bio_put(clone);
  free_item(item);
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
    for (aio_block& entry : item->blocks) entry.hash_link.unlink();
    if (item->orig != nullptr) wake = note_gone_locked();  // dropped without having been sent
    ++aio_releasing;
  }
  if (wake) kernel::wake_up_all(&aio_wait);
  clone->bi_destructor = item->saved_destructor;
  if (clone->bi_destructor != nullptr) clone->bi_destructor(clone);
  free_item(item);
  kernel::spin_guard guard(&aio_spin);
  --aio_releasing;
}

int zorv_aio_init(zorv_aio* aio) {
  assert(aio != nullptr);
  zorv_log(2, "%s(): Initializing AIO tracker.", __func__);
  aio->hash = static_cast<kernel::list_of<aio_block>*>(
      kernel::kzalloc(aio_hash_size * sizeof(kernel::list_of<aio_block>), kernel::GFP_KERNEL));
  if (aio->hash != nullptr) {
    for (u32 i = 0; i < aio_hash_size; ++i) new (&aio->hash[i]) kernel::list_of<aio_block>;
  }
  const bool have_allocators = take_allocators();
  if (aio->hash != nullptr && have_allocators) return 0;

  zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
  kernel::kfree(aio->hash);
  aio->hash = nullptr;
  drop_allocators();
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
  drop_allocators();
  kernel::kfree(aio->hash);
  aio->hash = nullptr;
  return 0;
}

}  // namespace zorv
