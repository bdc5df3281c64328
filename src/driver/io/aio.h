// SPDX-License-Identifier: GPL-2.0-only
// The bio clone tracker: one per filter. Remembers every clone sent to the HDD until it is freed,
// indexed by the 4 KiB blocks it covers, so that no two overlapping requests sent through it are
// in flight at once and they reach the HDD in the order in which they were cloned.
#pragma once

#include "driver/core/types.h"
#include "driver/util/block_index.h"
#include "kernel/bio.h"
#include "kernel/list.h"

namespace zorv {

struct aio_item;
using aio_block = block_entry<aio_item>;

constexpr u32 aio_hash_size = 4096;

struct zorv_aio {
  kernel::list_of<aio_item> items;  // live clones, oldest first
  block_index<aio_item> hash;
};

[[nodiscard]] int zorv_aio_init(zorv_aio* aio);  // 0 | -ENOMEM
// A tracked clone of the submitter's bio, or null: no memory (logged) or, with wait 0, an overlap
// with a clone in flight. With wait 1 it yields until the overlap has gone.
//   owner  the caller submits the clone or drops it with bio_put
[[nodiscard]] kernel::bio* zorv_aio_clone(zorv_aio* aio, kernel::bio* bio, int wait, gfp_t flags);
void zorv_aio_end_io(kernel::bio* clone, int error);
void zorv_aio_destructor(kernel::bio* clone);
// Waits until every clone has been freed. abort: only 0 is used.
int zorv_aio_destroy(zorv_aio* aio, int abort);

}  // namespace zorv
