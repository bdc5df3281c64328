// SPDX-License-Identifier: GPL-2.0-only
// The record of a filter: which snaps have missed no write, in the order of their instants. It lies
// beside the companion of the bitmaps and outlives the daemon; a resume believes a snap's files
// only if the record lists the life that their seals name. Format: docs/cow-files.md.
//
// A running snap is listed for as long as it misses nothing. One that is stopped, invalid or not
// yet back stays listed until a write comes: that waits until the record on disk lists only running
// ones (zorv_filter::record_due, bitmap/marks.h). A snap that has lost what it had goes at once,
// and every older one with it, because part of what those show was in it.
#pragma once

#include <atomic>

#include "driver/core/lock.h"
#include "driver/core/types.h"
#include "driver/util/file.h"
#include "kernel/lock.h"

namespace zorv {

struct zorv_filter;

constexpr u32 snap_id_bytes = 16;  // random, of one life of a snap
constexpr u32 record_max = 512;    // lives in a record

struct zorv_record_entry {
  u8 id[snap_id_bytes];
  u64 instant;   // rises with every start, over restarts too
  bool running;  // misses nothing now
};

struct zorv_record {
  char fname[1024] = {};

  rzmutex mutex{order::record};  // file work
  zorv_file* file = nullptr;  // under mutex, as the next three; open and locked to the node's end
  kernel::file_claim claim;
  u64 seq = 0;
  bool name_synced = false;
  bool foreign = false;  // the open file holds something else: it is never changed

  // The state folder's word on which file counts for the disk. Inside mutex, and taken alone by
  // waiting writes.
  rzmutex word_mutex{order::word};
  u8 file_id[16] = {};  // random; another one whenever the file did not count before
  bool named = false;   // the word is about this file
  bool rival = false;   // it may be about another

  kernel::spinlock_t lock{order::record_list};
  zorv_record_entry* entries GUARDED_BY(lock) = nullptr;  // record_max, in the order of instants
  u32 count GUARDED_BY(lock) = 0;
  u64 instants GUARDED_BY(lock) = 0;     // the last one given
  u32 strikes GUARDED_BY(lock) = 0;      // times that entries were taken out
  bool listed GUARDED_BY(lock) = false;  // a file that counts may list something
  bool ahead GUARDED_BY(lock) = false;   // ... which the entries do not
  // Whether a write has to have the file changed before it goes. Changed under lock.
  std::atomic<bool> stale{false};
};

// Opens, locks and loads the record of a new node.
//   returns  0 (also when there is none, or none that can be believed) | -EBUSY (somebody's) |
//   -ENOMEM
[[nodiscard]] int zorv_record_attach(zorv_filter* f);
void zorv_record_detach(zorv_filter* f);  // accepts a node that was never attached

// The snap of that id has its instant now and is the newest. Returns the instant's number. Older
// ones depend on it from now on, so while the file lists them without it no write goes.
//   locks    the filter's snap_rwlock (write): no write is between the two sides of an instant
[[nodiscard]] u64 zorv_record_started(zorv_filter* f, const u8 (&id)[snap_id_bytes]);
// Whether a snap of that id has missed nothing, and none that is newer and still listed is missing;
// it counts as running then, and *instant is its instant's number.
//   locks    as above
//   returns  null | why not
[[nodiscard]] const char* zorv_record_resumed(zorv_filter* f, const u8 (&id)[snap_id_bytes],
                                              u64* instant);
// Whether it is still listed.
[[nodiscard]] bool zorv_record_lists(zorv_filter* f, const u8 (&id)[snap_id_bytes]);
// The snap does not run any more; it has missed nothing as long as no write comes.
//   locks    as above
void zorv_record_stopped(zorv_filter* f, const u8 (&id)[snap_id_bytes]);
// What the snap had is lost or about to be: it and every older one are not listed any more. They
// stand in the file until zorv_record_save, or until the next write has had it changed. Returns
// whether it was listed.
bool zorv_record_lost(zorv_filter* f, const u8 (&id)[snap_id_bytes]);
// Has the file say what holds, snaps that are not back yet included; for commands.
//   returns  0 | negative errno (logged)
int zorv_record_save(zorv_filter* f);
// The same where the file is gone or not to be believed although there is something to list, as
// after a write that could not have it changed.
void zorv_record_restore(zorv_filter* f);

// What of the list or the file has changed may make writes wait, or let them go.
void zorv_record_update_stale(zorv_record* r) REQUIRES(r->lock);
// A write has come while the record is stale: the mark thread sees to it, the write waits.
//   locks    no spin lock
void zorv_record_wanted(zorv_filter* f);

// Has the file list nothing but running snaps, and takes record_due back.
//   context  the filter's mark thread, or kdirtyd; may sleep; no lock held
//   returns  0 (also when the state folder stands in for it) | negative errno: it is tried again
int zorv_record_write(zorv_filter* f);
// The same without the file, which makes no progress: by the state folder alone.
//   context  the filter's note thread; may sleep; no lock held
//   returns  0 | negative errno: the writes that wait end with -EIO
int zorv_record_excuse(zorv_filter* f);

}  // namespace zorv
