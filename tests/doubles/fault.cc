// SPDX-License-Identifier: GPL-2.0-only
#include "doubles/fault.h"

#include "kernel/lock.h"

namespace kernel {
namespace {

struct fault_switch {
  bool armed = false;
  u64 nth = 1;
  s64 times = 0;  // still to fail; -1: until disarmed
  int error = 0;
  u64 calls = 0;
};

constinit spinlock_t lock;
fault_switch switches[static_cast<u32>(fault_site::count_)] GUARDED_BY(lock);

fault_switch* at(fault_site site) REQUIRES(lock) { return &switches[static_cast<u32>(site)]; }

void set_armed(fault_switch* s, bool armed) REQUIRES(lock) {
  if (armed && !s->armed) fault_armed.fetch_add(1, std::memory_order_relaxed);
  if (!armed && s->armed) fault_armed.fetch_sub(1, std::memory_order_relaxed);
  s->armed = armed;
}

}  // namespace

constinit std::atomic<u32> fault_armed{0};

void fault_arm(fault_site site, u64 nth, s64 times, int error) {
  spin_guard guard(&lock);
  fault_switch* s = at(site);
  s->nth = nth;
  s->times = times;
  s->error = error;
  s->calls = 0;
  set_armed(s, true);
}

void fault_disarm_all() {
  spin_guard guard(&lock);
  for (fault_switch& s : switches) set_armed(&s, false);
}

u64 fault_calls(fault_site site) {
  spin_guard guard(&lock);
  return at(site)->calls;
}

int fault_check_slow(fault_site site) {
  spin_guard guard(&lock);
  fault_switch* s = at(site);
  if (!s->armed) return 0;
  if (++s->calls < s->nth || s->times == 0) return 0;
  if (s->times > 0) --s->times;
  return -s->error;
}

}  // namespace kernel
