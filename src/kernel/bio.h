// SPDX-License-Identifier: GPL-2.0-only
// Block requests.
//
// A bio is one transfer between pages and a run of sectors: at most 256 segments of at most 4096
// bytes (1 MiB), every segment a multiple of 512 bytes. It is sent with generic_make_request()
// and ends exactly once, by bio_endio() calling its bi_end_io in completion context - inside the
// submission or later, on any thread. Callers rely on neither.
#pragma once

#include <atomic>

#include "kernel/lock.h"
#include "kernel/mem.h"
#include "kernel/types.h"

namespace kernel {

struct bio;
struct block_device;

constexpr u32 bio_max_segments = 256;

constexpr u32 READ = 0;
constexpr u32 WRITE = 1;
// bi_rw: bit 0 is the direction.
constexpr u32 REQ_WRITE = 1U << 0;
constexpr u32 REQ_FLUSH =
    1U << 8;                      // with no data: everything completed so far is on stable storage
constexpr u32 REQ_FUA = 1U << 9;  // the write itself is on stable storage when it ends

// Counts bios under way. Whoever routes a bio may count it in one; bio_endio takes it out.
struct bio_tally {
  std::atomic<u32> under_way{0};
  std::atomic<u32> awaiting{0};  // tasks that wait for none to be left
  wait_queue_head zero;
};

struct bio_vec {
  page* bv_page;
  u32 bv_len;     // bytes
  u32 bv_offset;  // bytes into the page; bv_offset + bv_len <= 4096
};

struct bio {
  sector_t bi_sector = 0;
  u32 bi_size = 0;  // bytes still to transfer
  u32 bi_rw = 0;
  block_device* bi_bdev = nullptr;
  bio_vec* bi_io_vec = nullptr;
  u16 bi_vcnt = 0;
  u16 bi_idx = 0;  // current segment
  u16 bi_max_vecs = 0;
  std::atomic<bool> bi_uptodate{true};
  std::atomic<s32> bi_cnt{1};
  void (*bi_end_io)(bio*, int error) = nullptr;
  void* bi_private = nullptr;
  void (*bi_destructor)(bio*) = nullptr;
  bio_tally* bi_tally = nullptr;  // counted there until the bio ends; a clone is not
  bio* bi_next = nullptr;         // for whoever holds the bio in a queue
  bool bi_pooled = false;         // memory belongs to the layer's own pool
};

inline bool bio_is_write(const bio* b) { return (b->bi_rw & REQ_WRITE) != 0; }
inline u32 bio_sectors(const bio* b) { return b->bi_size >> sector_shift; }

// A bio with room for nr segments (at most 256), reference count 1; null when memory is short
// (GFP_ATOMIC) - other callers wait for the layer's reserve.
[[nodiscard]] bio* bio_alloc(gfp_t flags, u32 nr);
// Sets a bio of the caller's own memory to its first state; vecs has room for nr segments.
void bio_init(bio* b, bio_vec* vecs, u16 nr);
// Shares the pages; copies segments, range, direction flags and target.
[[nodiscard]] bio* bio_clone(const bio* b, gfp_t flags);
// Appends a segment; returns len, or 0 when there is no room.
u32 bio_add_page(bio* b, page* p, u32 len, u32 offset);
void bio_put(bio* b);  // the last reference runs bi_destructor (the pool's, unless replaced)
// The destructor of bio_alloc's bios; a replacement calls the one it replaced.
void bio_free(bio* b);

// Ends the bio: notes success or failure in bi_uptodate, then calls bi_end_io in completion
// context. error is 0 or a negative errno.
void bio_endio(bio* b, int error);

// Sends the bio to bi_bdev. Beyond the end of the device it ends with -EIO.
//   context  may sleep (a node's routing takes sleeping locks)
void generic_make_request(bio* b);
// Adds the direction (and flags) to bi_rw and sends.
void submit_bio(u32 rw, bio* b);

}  // namespace kernel
