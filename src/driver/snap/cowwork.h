// SPDX-License-Identifier: GPL-2.0-only
// What the parts of a COW thread share: the passes over the queue (cowpass.cc), the copying of
// chunks (cowcopy.cc), the serving of snap reads (cowread.cc).
//
// kcowd is several tasks. The first goes over the queue: it sends on what need not wait, collects
// the chunks that writes wait for, and picks out the snap reads that need COW data files. The
// copying tasks copy chunks and sync, the reading tasks serve those reads. So while a copy is being
// made, a sync runs or a file is read, nothing stands still that does not wait for just that. The
// first collects only while a copying task is idle: what has come in by then is copied together.
// There are several copying tasks so that one reads and writes while another syncs.
//
// The filter outlives the tasks: they end when it stops. A snap is pinned by whoever works for it,
// and none of them holds the table: what a COW file or the HDD does to them is no other node's
// business.
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
  node_ref snap;     // empty: so is the batch
  u32 life = 0;      // of the snap, when the chunks were collected
  u32 capacity = 0;  // chunks; of a group, and of all
  u32 count = 0;
  bool lost = false;  // the snap has been made invalid: what it had is to be emptied
  u32 groups = 0;
  u32 group_end[group_max_chunks];  // into chunks
  s32 chunks[group_max_chunks];
};

// What a pass came to, beside what it sent on and settled.
struct pass_result {
  bool sent = false;         // the HDD may hold back what has been sent on: it is to be unplugged
  bool ended_early = false;  // requests behind have not been looked at
  u32 more = 0;              // writes that miss further chunks
};

struct cow_worker;

// A copying task with all it needs: the copy path allocates nothing but clones and bitmap pages.
struct cow_copier {
  cow_worker* worker = nullptr;

  cow_batch batch;                // whose it is: busy
  std::atomic<bool> busy{false};  // true: the copying task's, until it has made it false
  kernel::wait_queue_head wait;   // it sleeps here
  kernel::completion done;        // it has ended
  std::atomic<bool> ended{false};

  kernel::spinlock_t hand{
      order::cow_task};               // between it and the first task: left, and batch.snap's end
  std::atomic<bool> left{false};      // it hangs in a file: nobody waits for it until it is back
  std::atomic<u64> file_since{0};     // jiffies since when it has been at a file; 0: it is not
  kernel::bio bios[group_pages];      // one per run of adjacent pages, the first page's
  kernel::bio_vec vecs[group_pages];  // page k's segment
  sector_t sectors[group_pages];      // where page k lies on the HDD
  u32 lengths[group_pages];           // bytes of page k that the HDD has
  std::byte* pages = nullptr;         // group_bytes, page by page
  kernel::file_writes* writes = nullptr;  // of the COW data file
};
constexpr u32 nr_copiers = 3;

// A reading task. The first always reads; the others only while nothing is being copied, because
// what they read would hold up the syncs that writes wait for.
struct cow_reader {
  cow_worker* worker = nullptr;
  kernel::completion done;  // it has ended
  std::atomic<bool> ended{false};

  // Between it and the first task, which takes the request away from one that hangs in a file.
  kernel::spinlock_t hand{order::cow_task};
  cow_request* serving GUARDED_BY(hand) = nullptr;
  zorv_blkdev* source GUARDED_BY(hand) = nullptr;  // whose file it is at, pinned
  u64 file_since GUARDED_BY(hand) = 0;             // jiffies; 0: it is at no file
  std::atomic<bool> left{false};                   // ... and nobody waits for it until it is back
  std::byte* bounce = nullptr;  // what a file is read into: a client's memory would be the client's
  kernel::bio bio;
  kernel::bio_vec vecs[kernel::bio_max_segments];
};
constexpr u32 nr_readers = 3;
constexpr u32 bounce_bytes = 256U << 10;

// The working set, had before anybody is served.
struct cow_worker {
  zorv_filter* filter = nullptr;
  std::atomic<u32> stop{0};   // the other tasks end
  std::atomic<u32> users{1};  // the first task and the others; the last frees it

  cow_copier copiers[nr_copiers];
  std::atomic<u32> copying{0};  // busy copiers
  std::atomic<u32> copies{1};   // what ended a wait for a copy: batches done or left behind
  bool looks_again = false;     // the first task's: a write waits for what raises no event

  cow_reader readers[nr_readers];
  kernel::list_of<cow_request> reads;  // picked out, not begun; under the queue's lock
  std::atomic<u32> nr_reads{0};        // of them
  std::atomic<u32> reading{0};         // reading tasks that serve one and were not left behind
  kernel::wait_queue_head reads_wait;  // the reading tasks sleep here
};

// Whether copies are made for the snap and held by it.
inline bool snap_usable(const zorv_blkdev* s) {
  return s->started.load() != 0 && s->s.snap_valid.load() != 0;
}
// Whether the snap holds the old contents of the chunk.
inline bool snap_has_chunk(zorv_blkdev* s, s32 chunk) {
  return snap_usable(s) && zorv_cowbmp_test_bit(&s->s.cowbmp, chunk) != 0;
}
// Whether reads of the snap are answered at all.
inline bool snap_readable(const zorv_blkdev* s) {
  return snap_usable(s) && s->s.stop_pending.load() == 0;
}
// The snap of that minor over this filter, or empty.
node_ref cow_find_snap(const zorv_filter* f, s32 minor);

// One pass over the queue. Chunks that writes wait for become the batch's next group; without a
// batch those writes are left as they are.
pass_result cow_pass(cow_worker* w, cow_batch* batch);

// Copies the batch and records it, or invalidates its snap and those that depend on it.
//   order  the chunks' data is synced before their bits are set, and the bits are synced before
//          the chunks stop being on their way
void cow_chunks(cow_copier* c);

// Serves the oldest read that was picked out, if there is one, from COW data files and the HDD, and
// takes it out of the queue.
void cow_serve_read(cow_reader* reader);
// The oldest read that was picked out and that no reading task has begun, or null.
[[nodiscard]] cow_request* cow_take_read(cow_worker* w);
// Ends the read and takes it out of the queue.
void cow_end_read(cow_worker* w, cow_request* r, int rc);

// Sends a read of the HDD, or a tracked clone of it, and waits for it.
//   returns  0 | -EIO
[[nodiscard]] int cow_read_and_wait(zorv_filter* f, kernel::bio* bio);

// Marks it invalid, and every older started one, and leaves the files as they are: they hang, or
// the caller may not wait for them.
void zorv_snap_abandon(zorv_blkdev* snap, const char* op);

// The snap and every older started one can no longer be trusted: marked so, their copies dropped.
// Waits for the copying tasks' writes, so it is not for the middle of one's own.
//   op     the operation that failed, for the message
//   locks  the snap is pinned; none of the table's or of a list of snaps
void zorv_snap_invalidate(zorv_blkdev* snap, const char* op) EXCLUDES(zorv_blkdev_rwlock);
// The second half of that, of one that has been abandoned.
void zorv_snap_drop_copies(zorv_blkdev* snap) EXCLUDES(zorv_blkdev_rwlock);

}  // namespace zorv
