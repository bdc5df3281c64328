// SPDX-License-Identifier: GPL-2.0-only
// The COW request queue: one per filter. Holds the bios that may not go to the HDD yet, in order,
// indexed by the 4 KiB blocks they cover.
#pragma once

#include <atomic>

#include "driver/core/lock_order.h"
#include "driver/core/types.h"
#include "driver/util/block_index.h"
#include "kernel/bio.h"
#include "kernel/list.h"
#include "kernel/lock.h"

namespace zorv {

struct cow_request;
using cow_block = block_entry<cow_request>;

// A request stays in the queue for a moment after its bio has ended or has been sent on, so range
// and direction are kept here and nobody but the consumer looks into the bio.
struct cow_request {
  kernel::list_node<cow_request> queue_link{this};
  kernel::list_node<cow_request> read_link{this};  // among the picked out reads; under lock
  kernel::list_of<cow_block> blocks;               // ascending
  s32 snap_minor = -1;  // newest started snap when queued; negative: none; under lock
  kernel::bio* bio = nullptr;
  devt dev = 0;  // the node that the bio was sent to
  sector_t first_sector = 0;
  sector_t last_sector = 0;  // inclusive
  bool is_write = false;
  bool picked_out = false;  // a read that the reading tasks serve; under lock
  u32 waits_since = 0;      // the consumer's: the copy that it waits to see the end of
  u64 record_since = 0;     // ... jiffies since when it has waited for the record; 0: it has not
};

constexpr u32 cowqueue_hash_size = 16384;

struct zorv_cowqueue {
  kernel::list_of<cow_request> reqs;  // oldest first; under lock
  block_index<cow_request> hash;      // under lock
  kernel::spinlock_t lock{order::cow_queue};
  std::atomic<s32> cnt{0};
  // Counts what may let the consumer get further: requests that came, copies that were made.
  std::atomic<u32> events{0};
  kernel::wait_queue_head wait;  // the COW thread sleeps here
};

[[nodiscard]] int zorv_cowqueue_init(zorv_cowqueue* q);  // 0 | -ENOMEM
// Queues the bio: a write at the tail, a read as far ahead as no overlap forbids, never first.
//   returns  0 | -ENOMEM (nothing was queued; the caller ends the bio)
[[nodiscard]] int zorv_cowqueue_append(zorv_cowqueue* q, s32 snap_minor, kernel::bio* bio,
                                       gfp_t flags);
// Whether a held request other than r overlaps it.
[[nodiscard]] bool zorv_cowqueue_overlaps_other(zorv_cowqueue* q, const cow_request* r)
    REQUIRES(q->lock);
// 1 when a held request of a selected direction overlaps the bio's sectors, else 0.
[[nodiscard]] int zorv_cowqueue_find_overlap_req(zorv_cowqueue* q, int match_reads,
                                                 int match_writes, const kernel::bio* bio);
// Whether a request that stands before r in the queue overlaps it.
[[nodiscard]] bool zorv_cowqueue_overlaps_earlier(zorv_cowqueue* q, cow_request* r)
    REQUIRES(q->lock);
void zorv_cowqueue_remove(zorv_cowqueue* q, cow_request* r) REQUIRES(q->lock);
int zorv_cowqueue_purge(zorv_cowqueue* q);  // every held bio ends with -EIO
int zorv_cowqueue_destroy(zorv_cowqueue* q);

}  // namespace zorv
