// SPDX-License-Identifier: GPL-2.0-only
// The switchboard for injected faults. With nothing armed a test of a switch costs one relaxed
// load. For tests only: nothing in the daemon arms a switch.
#pragma once

#include <atomic>

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

// From the n-th call of that site (1 = the next one) on, `times` calls fail with -error.
//   times  -1: until disarmed
void fault_arm(fault_site site, u64 nth, s64 times, int error);
void fault_disarm_all();
// Calls of the site since it was last armed (armed with times 0, a switch only counts).
u64 fault_calls(fault_site site);

extern std::atomic<u32> fault_armed;  // number of armed switches
int fault_check_slow(fault_site site);

// 0, or the negative errno to fail with. Called by the services.
inline int fault_check(fault_site site) {
  return fault_armed.load(std::memory_order_relaxed) == 0 ? 0 : fault_check_slow(site);
}

// What a power cut takes away: between begin and cut, every change of a host file through this
// layer is remembered until the file (or, for names, its directory) is synced; cut undoes what
// was not.
//   fault_power_cut  every open handle stays usable; contents and names go back
void fault_record_unsynced_begin();
void fault_power_cut();
void fault_record_unsynced_end();

}  // namespace kernel
