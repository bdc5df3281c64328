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
constexpr u32 block_shift = 3;      // sectors to 4 KiB blocks

// Shared by all queues.
rzmutex allocators_mutex{order::allocators};
s32 cowqueue_cnt GUARDED_BY(allocators_mutex) = 0;  // live queues; the first makes the allocators
kernel::kmem_cache* queue_cache = nullptr;
kernel::kmem_cache* block_cache = nullptr;
kernel::mempool* queue_pool = nullptr;
kernel::mempool* block_pool = nullptr;

void drop_allocators() {
  rzmutex_guard guard(&allocators_mutex);
  if (--cowqueue_cnt != 0) return;
  zorv_log(2, "%s(): Destroying global COW allocators.", "zorv_cowqueue_destroy");
  kernel::mempool_destroy(queue_pool);
  kernel::mempool_destroy(block_pool);
  kernel::kmem_cache_destroy(queue_cache);
  kernel::kmem_cache_destroy(block_cache);
  queue_pool = block_pool = nullptr;
  queue_cache = block_cache = nullptr;
}

// To be dropped, whatever comes of it.
bool take_allocators() {
  rzmutex_guard guard(&allocators_mutex);
  ++cowqueue_cnt;
  if (queue_cache == nullptr) {
    queue_cache = kernel::kmem_cache_create("cow_request", sizeof(cow_request), 8);
  }
  if (block_cache == nullptr) {
    block_cache = kernel::kmem_cache_create("cow_block", sizeof(cow_block), 8);
  }
  if (queue_pool == nullptr && queue_cache != nullptr) {
    queue_pool = kernel::mempool_create(pool_reserve, queue_cache);
  }
  if (block_pool == nullptr && block_cache != nullptr) {
    block_pool = kernel::mempool_create(pool_reserve, block_cache);
  }
  return queue_pool != nullptr && block_pool != nullptr;
}

void free_request(cow_request* r) {
  for (cow_block& entry : r->blocks) {
    entry.req_link.unlink();
    kernel::mempool_free(block_pool, &entry);
  }
  kernel::mempool_free(queue_pool, r);
}

// The request with an entry for every block of the bio, not linked anywhere; or null (logged).
cow_request* alloc_request(s32 snap_minor, kernel::bio* bio, gfp_t flags) {
  void* memory = kernel::mempool_alloc(queue_pool, flags);
  if (memory == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed", "zorv_cowqueue_append");
    return nullptr;
  }
  auto* r = new (memory) cow_request;
  r->snap_minor = snap_minor;
  r->bio = bio;
  r->dev = bio->bi_bdev->bd_dev;
  r->first_sector = bio->bi_sector;
  r->last_sector = bio->bi_sector + kernel::bio_sectors(bio) - 1;
  r->is_write = kernel::bio_is_write(bio);
  const u64 last_block = r->last_sector >> block_shift;
  for (u64 block = r->first_sector >> block_shift; block <= last_block; ++block) {
    memory = kernel::mempool_alloc(block_pool, flags);
    if (memory == nullptr) {
      zorv_log(LOG_ERROR, "%s(): Memory allocation failed", "zorv_cowqueue_append");
      free_request(r);
      return nullptr;
    }
    auto* entry = new (memory) cow_block;
    entry->bio = bio;
    entry->req = r;
    r->blocks.push_back(&entry->req_link);
  }
  return r;
}

bool overlap(const cow_request* r, sector_t first, sector_t last) {
  return r->first_sector <= last && first <= r->last_sector;
}

kernel::list_of<cow_block>* bucket(zorv_cowqueue* q, u64 block) {
  return &q->hash[block & (cowqueue_hash_size - 1)];
}

bool any_overlap_locked(zorv_cowqueue* q, bool reads, bool writes, sector_t first, sector_t last)
    REQUIRES(q->lock) {
  for (u64 block = first >> block_shift; block <= last >> block_shift; ++block) {
    for (const cow_block& entry : *bucket(q, block)) {
      const cow_request* r = entry.req;
      if ((r->is_write ? writes : reads) && overlap(r, first, last)) return true;
    }
  }
  return false;
}

// The request behind which a read belongs in a queue that is not empty: the newest it overlaps,
// else the head.
cow_request* place_of_read_locked(zorv_cowqueue* q, const cow_request* read) REQUIRES(q->lock) {
  if (!any_overlap_locked(q, true, true, read->first_sector, read->last_sector)) {
    return q->reqs.front();
  }
  cow_request* at = q->reqs.back();
  while (!overlap(at, read->first_sector, read->last_sector)) {
    at = q->reqs.prev_of(at->queue_link);
  }
  return at;
}

}  // namespace

int zorv_cowqueue_init(zorv_cowqueue* q) {
  assert(q != nullptr);
  const bool have_allocators = take_allocators();
  q->cnt.store(0);
  q->hash = static_cast<kernel::list_of<cow_block>*>(
      kernel::vmalloc(cowqueue_hash_size * sizeof(kernel::list_of<cow_block>)));
  if (q->hash == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to create queue hash.", __func__);
  } else {
    for (u32 i = 0; i < cowqueue_hash_size; ++i) new (&q->hash[i]) kernel::list_of<cow_block>;
    if (have_allocators) return 0;
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
  }
  drop_allocators();
  kernel::vfree(q->hash);
  q->hash = nullptr;
  return -ENOMEM;
}

int zorv_cowqueue_append(zorv_cowqueue* q, s32 snap_minor, kernel::bio* bio, gfp_t flags) {
  assert(q != nullptr && bio != nullptr && bio->bi_size >= kernel::sector_size);
  zorv_log(3, "%s(): Appending new request...", __func__);
  cow_request* r = alloc_request(snap_minor, bio, flags);
  if (r == nullptr) return -ENOMEM;
  {
    kernel::spin_guard guard(&q->lock);
    cow_request* behind = nullptr;
    if (!r->is_write && !q->reqs.empty()) behind = place_of_read_locked(q, r);
    u64 block = r->first_sector >> block_shift;
    for (cow_block& entry : r->blocks) bucket(q, block++)->push_front(&entry.hash_link);
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
  return any_overlap_locked(q, match_reads != 0, match_writes != 0, bio->bi_sector, last) ? 1 : 0;
}

bool zorv_cowqueue_overlaps_earlier(zorv_cowqueue* q, const cow_request* r) {
  u64 block = r->first_sector >> block_shift;
  auto& blocks = const_cast<cow_request*>(r)->blocks;
  for (const cow_block& entry : blocks) {
    const kernel::list_of<cow_block>* chain = bucket(q, block++);
    for (const cow_block* older = chain->next_of(entry.hash_link); older != nullptr;
         older = chain->next_of(older->hash_link)) {
      if (overlap(older->req, r->first_sector, r->last_sector)) return true;
    }
  }
  return false;
}

bool zorv_cowqueue_overlaps_other(zorv_cowqueue* q, const cow_request* r) {
  for (u64 block = r->first_sector >> block_shift; block <= r->last_sector >> block_shift;
       ++block) {
    for (const cow_block& entry : *bucket(q, block)) {
      if (entry.req != r && overlap(entry.req, r->first_sector, r->last_sector)) return true;
    }
  }
  return false;
}

void zorv_cowqueue_remove(zorv_cowqueue* q, cow_request* r) {
  for (cow_block& entry : r->blocks) entry.hash_link.unlink();
  r->queue_link.unlink();
  free_request(r);
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
  drop_allocators();
  kernel::vfree(q->hash);
  q->hash = nullptr;
  return rc;
}

}  // namespace zorv
