// SPDX-License-Identifier: GPL-2.0-only
// What the parts of a COW thread share: the passes over the queue (cowpass.cc), the copying of
// groups of chunks (cowcopy.cc), the serving of snap reads (cowread.cc).
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

constexpr u32 group_bytes = 4U << 20;
constexpr u32 group_pages = group_bytes / kernel::page_size;
constexpr u32 group_max_chunks = group_pages;

// Chunks that one pass has found for one snap, each once.
struct cow_group {
  zorv_blkdev* snap = nullptr;
  u32 capacity = 0;  // chunks
  u32 count = 0;
  s32 chunks[group_max_chunks];
  s32 seen[2 * group_max_chunks];  // open addressing, -1: free

  void reset();
  [[nodiscard]] bool full() const { return count != 0 && count >= capacity; }
  // The first chunk makes the group its snap's.
  void add(zorv_blkdev* target, s32 chunk);
};

// Everything a thread needs to copy, had before it serves anybody: the copy path allocates nothing
// but clones, whose pools have a reserve.
struct cow_worker {
  zorv_filter* filter = nullptr;
  cow_group group;
  kernel::bio bios[group_pages];      // one per run of adjacent pages, the first page's
  kernel::bio_vec vecs[group_pages];  // page k's segment
  sector_t sectors[group_pages];      // where page k lies on the HDD
  u32 lengths[group_pages];           // bytes of page k that the HDD has
  kernel::bio read_bio;               // read_from_hdd and snap reads
  kernel::bio_vec read_vecs[kernel::bio_max_segments];
  std::byte* pages = nullptr;  // group_bytes, page by page
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

// One pass over the queue; leaves in the worker's group what has to be copied next.
void cow_pass(cow_worker* w) REQUIRES_SHARED(zorv_blkdev_rwlock);

// Copies the group and records it, or invalidates its snap and those that depend on it.
//   order  the chunks' data is synced before their bits are set, the bits are synced on return
void cow_chunks(cow_worker* w) REQUIRES_SHARED(zorv_blkdev_rwlock);

// Fills a read of the snap from COW data files and the HDD.
//   returns  0 | -EIO
[[nodiscard]] int cow_serve_read(cow_worker* w, zorv_blkdev* snap, kernel::bio* bio)
    REQUIRES_SHARED(zorv_blkdev_rwlock);

// Sends a bio of the HDD through a tracked clone and waits for it. The bio's completion must be
// cow_bio_wait's.
//   returns  0 | -EIO
[[nodiscard]] int cow_read_and_wait(zorv_filter* f, kernel::bio* bio);

// The snap and every older started one can no longer be trusted: marked so, their copies dropped.
//   op  the operation that failed, for the message
void zorv_snap_invalidate(zorv_blkdev* snap, const char* op) REQUIRES_SHARED(zorv_blkdev_rwlock);

}  // namespace zorv
