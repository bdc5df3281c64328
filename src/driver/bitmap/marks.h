// SPDX-License-Identifier: GPL-2.0-only
// What is known of a change bitmap's file, and which writes must therefore wait.
//
// A bitmap file that looks current although a write that it does not show has reached the HDD is
// the one thing that must never survive a crash. So the record below says of each file whether it
// may look current and whether it lacks bits, and a write waits while both hold:
//
//   exposed = not given_up and (loading
//                               or maybe_current and (dirty or behind)
//                               or saving and dirty)
//
// - maybe_current and dirty: the file was complete when the bitmap changed; its stale mark is due.
// - maybe_current and behind: a save has copied those changes (dirty is 0 again) but has not
//   touched the file yet.
// - saving and dirty: the file will be complete in a moment, without what came after the copy.
// - loading: a file that may not show the write is about to count as current. The load keeps what
//   is marked while it reads.
//
// Every term changes under the filter's bmp_lock, and a write that finds its bit already set took
// the same lock after the write that set it: whoever relies on a bit sees the exposure it caused.
#pragma once

#include <atomic>

#include "driver/core/types.h"
#include "kernel/list.h"

namespace zorv {

struct zorv_filter;

// One queued stale mark. Fields under req_spin (dirty.cc).
struct zorv_dirty_req {
  kernel::list_node<zorv_dirty_req> link{this};
  u32 active = 0;  // 0: cancelled; kdirtyd drops it without writing
  zorv_filter* filter = nullptr;
  s32 type = 0;
  bool reserve = false;  // part of its filter, never freed
  bool again = false;    // the reserve was wanted anew while it was still queued
};

// One per bitmap; under the filter's bmp_lock unless said otherwise.
struct zorv_mark_state {
  bool maybe_current = false;  // a loader could accept the file as it is on disk
  bool behind = false;         // ... and it lacks bits that a save in progress has copied
  bool given_up = false;       // writes no longer wait: the mark failed or took too long
  bool noted = false;          // a mark is to be queued by whoever set this
  bool known = false;          // the bitmap has had its contents from a load
  bool name_synced = false;    // the file's directory entry is on disk; under bmp_mutex
  bool saving = false;         // a save has its copy and has not ended
  bool loading = false;
  u64 exchanges = 0;         // times that a command has put other bits in the bitmap's place
  u8* load_marks = nullptr;  // while loading: the bits that the load must keep
  zorv_dirty_req reserve;    // for the mark when memory is short
};

}  // namespace zorv
