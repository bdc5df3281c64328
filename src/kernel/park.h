// SPDX-License-Identifier: GPL-2.0-only
// What a wait queue does to a sleeping task; for lock.cc only.
#pragma once

#include "kernel/task.h"

namespace kernel {

// Sets the task running if its state is in mode; false if it is not. *unpark tells whether
// task_unpark() must follow. The task must be known to be alive: it is, while it is queued on a
// wait queue whose lock the caller holds.
[[nodiscard]] bool task_make_running(task_struct* task, u32 mode, bool* unpark) noexcept;

// Ends the task's sleep. Only the address is used, so the task may have gone meanwhile: a waker
// calls it after it has released the queue's lock.
void task_unpark(task_struct* task) noexcept;

}  // namespace kernel
