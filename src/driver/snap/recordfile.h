// SPDX-License-Identifier: GPL-2.0-only
// The file of a filter's record, and the state folder's word about it. For record.cc alone.
#pragma once

#include "driver/snap/record.h"

namespace zorv::recordfile {

// Opens, claims and locks it, as zorv_fopen_own does.
//   locks  the record's mutex, or the node is being created
[[nodiscard]] int open(zorv_filter* f, u32 flags);
void close(zorv_record* r);
// Takes over what the file lists, or remembers that there may be a list that this node does not
// believe.
//   file   null: there is one that cannot be read
void load(zorv_filter* f, zorv_file* file);
void load_nothing(zorv_filter* f);  // there is no file
// Has the file say what the entries say, or at least not be believed where it says more.
//   locks    the record's mutex
//   returns  0 | negative errno (logged)
[[nodiscard]] int settle(zorv_filter* f);
// No file is believed for the disk from now on.
//   returns  0 | negative errno
[[nodiscard]] int retire(zorv_filter* f);

}  // namespace zorv::recordfile
