// SPDX-License-Identifier: GPL-2.0-only
// What the parts of a COW thread share: the passes over the queue (cowpass.cc), the copying of
// chunks (cowcopy.cc), the serving of snap reads (cowread.cc).
//
// kcowd is two tasks. The first goes over the queue: it serves snap reads, sends on what need not
// wait, and collects the chunks that writes wait for. The second copies them and syncs. So while a
// copy is being made or a sync runs, nothing stands still that does not wait for just that.
// The first collects only while the second is idle: what has come in by then is copied together.
//
// The first task never trusts a look at the bitmap that it took before it owned the range in the
// clone tracker, because bits are set beside it.
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

constexpr u32 group_bytes = 4U << 20;
constexpr u32 group_pages = group_bytes / kernel::page_size;
constexpr u32 group_max_chunks = group_pages;

// Chunks of one snap to be copied: one group, the result of a pass, or several small ones that are
// copied and synced together, four mebibytes at most. A larger chunk is a batch of its own.
struct cow_batch {
  s32 snap_minor = -1;
  u32 capacity = 0;  // chunks; of a group, and of all
  u32 count = 0;
  u32 groups = 0;
  u32 group_end[group_max_chunks];  // into chunks
  s32 chunks[group_max_chunks];
};

// What a pass came to, beside what it sent on and settled.
struct pass_result {
  bool ended_early = false;  // requests behind have not been looked at
  u32 more = 0;              // writes that miss further chunks
};

// The working set, had before anybody is served: the copy path allocates nothing but clones and
// bitmap pages.
struct cow_worker {
  zorv_filter* filter = nullptr;
  kernel::bio read_bio;  // snap reads
  kernel::bio_vec read_vecs[kernel::bio_max_segments];

  cow_batch batch;                // whose it is: busy
  std::atomic<bool> busy{false};  // true: the copying task's, until it has made it false
  std::atomic<u32> copies{1};     // batches done, one more
  std::atomic<u32> stop{0};       // the copying task ends
  kernel::wait_queue_head wait;   // the copying task sleeps here
  kernel::completion done;        // it has ended

  kernel::bio bios[group_pages];      // one per run of adjacent pages, the first page's
  kernel::bio_vec vecs[group_pages];  // page k's segment
  sector_t sectors[group_pages];      // where page k lies on the HDD
  u32 lengths[group_pages];           // bytes of page k that the HDD has
  std::byte* pages = nullptr;         // group_bytes, page by page
};

// Whether copies are made for the snap and held by it.
inline bool snap_usable(const zorv_blkdev* s) {
  return s->started.load() != 0 && s->s.snap_valid.load() != 0;
}
// Whether the snap holds the old contents of the chunk.
inline bool snap_has_chunk(zorv_blkdev* s, s32 chunk) {
  return snap_usable(s) && zorv_cowbmp_test_bit(&s->s.cowbmp, chunk) != 0;
}
// The snap of that minor over this filter, or null.
zorv_blkdev* cow_find_snap(const zorv_filter* f, s32 minor) REQUIRES_SHARED(zorv_blkdev_rwlock);

// One pass over the queue. With collecting, chunks that writes wait for become the batch's next
// group; without, those writes are left as they are.
enum class collecting { no, yes };
pass_result cow_pass(cow_worker* w, collecting mode) REQUIRES_SHARED(zorv_blkdev_rwlock);

// Copies the batch and records it, or invalidates its snap and those that depend on it.
//   order  the chunks' data is synced before their bits are set, and the bits are synced before
//          the chunks stop being on their way
void cow_chunks(cow_worker* w) REQUIRES_SHARED(zorv_blkdev_rwlock);

// Fills a read of the snap from COW data files and the HDD.
//   returns  0 | -EIO
[[nodiscard]] int cow_serve_read(cow_worker* w, zorv_blkdev* snap, kernel::bio* bio)
    REQUIRES_SHARED(zorv_blkdev_rwlock);

// Sends a read of the HDD, or a tracked clone of it, and waits for it.
//   returns  0 | -EIO
[[nodiscard]] int cow_read_and_wait(zorv_filter* f, kernel::bio* bio);

// The snap and every older started one can no longer be trusted: marked so, their copies dropped.
//   op  the operation that failed, for the message
void zorv_snap_invalidate(zorv_blkdev* snap, const char* op) REQUIRES_SHARED(zorv_blkdev_rwlock);

}  // namespace zorv
