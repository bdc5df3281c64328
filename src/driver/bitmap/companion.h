// SPDX-License-Identifier: GPL-2.0-only
// The companion of a node's bitmap files: which disk they are about, cut into which extents, and
// which state folder may have a note about them. Without a companion that says what holds now,
// every extent counts as changed. Format: docs/bitmap-file.md.
//
// It is open and locked for the node's life, so that no other daemon writes files of that name.
// Which pair of files has last stood for a disk is kept in the state folder: an older one that
// comes back, from another folder or minor, has missed what was written since.
#pragma once

#include <atomic>

#include "driver/core/lock.h"
#include "driver/core/types.h"
#include "driver/util/file.h"

namespace zorv {

struct zorv_filter;

// Under bmp_mutex, except while the node is being created.
struct zorv_companion {
  char fname[1024] = {};
  zorv_file* file = nullptr;
  kernel::file_claim claim;
  u8 pair[16] = {};      // of this pair of bitmap files, new with every companion written
  bool ours = false;     // the file on disk says what holds: bitmap files may be believed
  bool notes = false;    // ... or at least our state folder and a pair that notes can be about
  bool absent = true;    // there is none
  bool lost = false;     // its name leads elsewhere, and what is there is not ours yet
  bool foreign = false;  // what is there is somebody else's
  // Notes about the pair are made and taken back, each with what marks[].excused says of it. Inside
  // bmp_mutex; taken alone by waiting writes.
  rzmutex note_mutex{order::bmp_notes};
  kernel::file_id unusable;               // what stood at its name when that could not be opened
  std::atomic<const char*> why{nullptr};  // everything counted as changed when the node was made
};

// Opens, locks and reads it; makes an empty one where there is none, if that can be done. Logs why
// everything counts as changed.
//   returns  0 | -EBUSY (locked by another daemon, or somebody's in this one; logged)
[[nodiscard]] int zorv_companion_attach(zorv_filter* f);
// Sees to it that the open companion is the one that the name leads to; where another has come to
// stand, that one is taken, and no file beside it is believed before it has been written.
//   returns  0 | -EBUSY (another daemon has it: nothing here may be changed)
[[nodiscard]] int zorv_companion_follow(zorv_filter* f);
// Makes it say what holds. Both bitmap files are durably stale by then.
//   returns  0 | negative errno (logged)
[[nodiscard]] int zorv_companion_renew(zorv_filter* f);
void zorv_companion_detach(zorv_filter* f);

// Names in the state folder.
struct zorv_state_key {
  char text[64];
};
// Of a note about one of the pair; false while notes cannot be about it.
[[nodiscard]] bool zorv_companion_note_key(const zorv_filter* f, const char* suffix,
                                           zorv_state_key* key);
// Of what stands for the disk: its bitmap files, or with a suffix something else. That two disks
// share one costs no more than what it says.
[[nodiscard]] zorv_state_key zorv_disk_key(const zorv_filter* f, const char* suffix = "");

}  // namespace zorv
