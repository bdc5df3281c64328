// SPDX-License-Identifier: GPL-2.0-only
// Bits that GET_AND_CLR_BMP has cleared and whose reader has not said yet that it has them.
//
// Memory is cleared at once. Until the reader has confirmed, every save writes the bitmap with the
// handed-out bits in it, so that a crash leaves them in the file; a reader that has gone without
// them has them merged back.
#pragma once

#include "driver/core/types.h"
#include "kernel/list.h"

namespace zorv {

struct zorv_filter;

// One GET_AND_CLR_BMP's bits. On its filter's list, under bmp_lock; the bits never change.
struct zorv_handout {
  kernel::list_node<zorv_handout> link{this};
  u64 id = 0;
  u32 type = 0;
  u8* bits = nullptr;  // owned; as many bytes as the bitmap
  ~zorv_handout();
};

// What the calling task's last command handed out; 0: nothing. A command that fails hands out
// nothing.
[[nodiscard]] u64 zorv_handout_last();

// Exactly one of the two is called for each hand-out; an unknown one (its node is gone, or it was
// settled before) and 0 change nothing.
//   locks    none may be held
//   context  may sleep: both save the bitmap
// The reader has the bits: they are forgotten.
void zorv_handout_confirm(u64 id);
// The reader has gone without them: they are in the bitmap again.
void zorv_handout_return(u64 id);

// ---- for the bitmap's own operations
// -------------------------------------------------------------
void zorv_handout_forget_last();  // a command begins
// Numbers the hand-out and puts it on the list, under bmp_lock.
void zorv_handout_add(zorv_filter* f, zorv_handout* h);
void zorv_handout_publish(u64 id);  // it is what the task's last command handed out
void zorv_handout_merge_back(zorv_filter* f, u64 id);
// They are forgotten, and the bitmap counts as not saved; the caller saves.
void zorv_handout_forget(zorv_filter* f, u64 id);
// The node goes.
void zorv_handout_drop_all(zorv_filter* f);

}  // namespace zorv
