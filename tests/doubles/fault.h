// SPDX-License-Identifier: GPL-2.0-only
// The switchboard for injected faults, and power cuts. With nothing armed a test of a switch costs
// one relaxed load.
#pragma once

#include "kernel/fault.h"

namespace kernel {

// From the n-th call of that site (1 = the next one) on, `times` calls fail with -error.
//   times  -1: until disarmed
void fault_arm(fault_site site, u64 nth, s64 times, int error);
void fault_disarm_all();
// Calls of the site since it was last armed (armed with times 0, a switch only counts).
u64 fault_calls(fault_site site);

// What a power cut takes away: between begin and cut, every change of a host file through this
// layer is remembered until the file (or, for names, its directory) is synced; cut undoes what
// was not.
//   fault_power_cut  every open handle stays usable; contents and names go back
void fault_record_unsynced_begin();
void fault_power_cut();
void fault_record_unsynced_end();

}  // namespace kernel
