// SPDX-License-Identifier: GPL-2.0-only
// Where a test can make a service fail, and what it can have remembered for a power cut. Both are
// in builds with ZORV_FAULTS alone, which link the switchboard and the recorder of tests/doubles;
// a product has neither: there the tests of a switch are constants.
#pragma once

#ifdef ZORV_FAULTS
#include <atomic>
#endif

#include "kernel/types.h"

namespace kernel {

enum class fault_site : u32 {
  alloc,  // kmalloc, vmalloc, alloc_page, slab and pool growth, bios, disks, queues
  file_open,
  file_read,
  file_write,
  file_sync,
  file_unlink,
  state_write,  // a note of the state folder
  node_make,    // device nodes
  bio_read,     // a bio sent to a disk that honours the switch (memory disk, image disk)
  bio_write,
  bio_flush,  // ... or the sync that an image disk serves flushes and FUA writes with
  thread_create,
  chrdev_register,
  blkdev_register,
  proc_create,
  user_copy,  // copy_from_user, copy_to_user
  count_,
};

#ifdef ZORV_FAULTS
extern std::atomic<u32> fault_armed;  // number of armed switches
int fault_check_slow(fault_site site);
#endif

// 0, or the negative errno to fail with. Called by the services.
inline int fault_check([[maybe_unused]] fault_site site) {
#ifdef ZORV_FAULTS
  return fault_armed.load(std::memory_order_relaxed) == 0 ? 0 : fault_check_slow(site);
#else
  return 0;
#endif
}

}  // namespace kernel
