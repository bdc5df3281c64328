// SPDX-License-Identifier: GPL-2.0-only
// kcowd: one thread per filter, from the first start or resume of one of its snaps until the
// filter stops. It empties the filter's COW request queue.
#pragma once

#include <atomic>

#include "driver/core/types.h"
#include "kernel/lock.h"

namespace zorv {

struct zorv_filter;

struct zorv_cowthread {
  char name[64] = {};
  std::atomic<u32> stop{0};
  std::atomic<s32> pid{0};  // 0: no thread
  // All that copies, or all that reads, hangs in files: no snap is to be started.
  std::atomic<bool> unable{false};
  zorv_filter* filter = nullptr;
  kernel::completion done;
  kernel::completion ready;  // the thread has its working set, or has found that it cannot get it
  int ready_rc = 0;
};

// The thread, running and with its working set. pid is set only once it serves the queue, so that
// no request is ever queued for a thread that will not come.
//   returns  0 | -EINVAL (null record) | -EALREADY | the negative code of thread creation |
//            -ENOMEM (no working set; no thread is left)
int zorv_cowthread_start(zorv_cowthread* t, const char* name, zorv_filter* filter);
// Drains the queue, then ends the thread. 0 (also without a thread) | -EINVAL (null record)
int zorv_cowthread_shutdown(zorv_cowthread* t);
// Ends the thread, then fails what the queue still holds with -EIO.
int zorv_cowthread_abort(zorv_cowthread* t);

}  // namespace zorv
