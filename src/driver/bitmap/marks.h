// SPDX-License-Identifier: GPL-2.0-only
// What is known of a change bitmap's file, and which writes must therefore wait.
//
// A bitmap file that looks current although a write that it does not show has reached the HDD is
// the one thing that must never survive a crash. So the record below says of each file whether it
// may look current and whether it lacks bits, and a write waits while both hold and the state
// folder does not say that the file is not to be believed:
//
//   exposed = not excused and (loading or maybe_current and dirty)
//
// - maybe_current and dirty: the file was complete when the bitmap changed; its stale mark is due.
// - loading: a file that may not show the write is about to count as current. The load keeps what
//   is marked while it reads.
//
// Every term changes under the filter's bmp_lock, and a write that finds its bit already set took
// the same lock after the write that set it: whoever relies on a bit sees the exposure it caused.
#pragma once

#include <atomic>

#include "driver/core/lock.h"
#include "driver/core/types.h"
#include "driver/util/file.h"
#include "kernel/list.h"
#include "kernel/lock.h"

namespace zorv {

struct zorv_filter;

// What a filter's writes may have to wait for: the stale mark of a bitmap's file (the bitmap's type
// code), or a change of the record that says which snaps have missed no write.
enum zorv_hold_kind : u32 {
  zorv_hold_differential = 0,
  zorv_hold_incremental = 1,
  zorv_hold_record = 2,
  zorv_hold_kinds = 3,
};

// One queued piece of work. Fields under req_spin (dirty.cc).
struct zorv_dirty_req {
  kernel::list_node<zorv_dirty_req> link{this};
  u32 active = 0;  // 0: cancelled; dropped without writing
  zorv_filter* filter = nullptr;
  s32 type = 0;          // a zorv_hold_kind
  bool reserve = false;  // part of its filter, never freed
  bool again = false;    // the reserve was wanted anew while it was still queued
  bool in_hand = false;  // a worker has it
};

// One per kind; under the filter's bmp_lock.
struct zorv_hold {
  bool noted = false;      // work is to be queued by whoever set this
  bool refused = false;    // it cannot be done: writes that would wait end with -EIO
  bool retrying = false;   // the filter's thread tries it again from time to time
  bool overdue = false;    // a write has waited too long: it is to be noted, or being noted
  zorv_dirty_req reserve;  // for when memory is short
};

// One per bitmap; under the filter's bmp_lock unless said otherwise.
struct zorv_mark_state {
  bool maybe_current = false;  // a loader could accept the file as it is on disk
  bool excused = false;        // the state folder says that the file is not to be believed
  bool known = false;          // the bitmap has had its contents from a load
  bool loading = false;
  u64 exchanges = 0;         // times that other bits were put in the bitmap's place
  u64 exchanges_stable = 0;  // ... of which the writes before are known to be on the HDD
  u8* load_marks = nullptr;  // while loading: the bits that the load must keep
  // Outside bmp_mutex: held by whoever marks the file or writes its contents, so that a save of one
  // bitmap does not keep the other from being marked.
  rzmutex file_mutex{order::bmp_file};
  // Under bmp_mutex; also used by a save that holds file_mutex alone.
  zorv_file* file = nullptr;  // open from the node's creation, or the first save, to its end
  kernel::file_claim claim;   // held while open
  bool name_synced = false;   // the file's directory entry is on disk
  bool foreign = false;       // it holds something else: never changed, nor believed
  bool sync_failed = false;   // the page cache may show what is not on disk
};

// When what has failed is tried again, in jiffies, and how often before writes end with an error.
constexpr u64 first_pause_jiffies = 100;
constexpr u64 longest_pause_jiffies = 1000;
constexpr u32 tries_before_refusal = 3;

// A thread that works for one filter, from its creation to its end.
struct zorv_mark_worker {
  bool started = false;
  bool busy = false;          // under req_spin: a request of the filter is in hand
  std::atomic<u64> since{0};  // jiffies since when it has been at a file; 0: it is not
  std::atomic<bool> ending{false};
  kernel::wait_queue_head wait;
  kernel::completion exited;
};

}  // namespace zorv
