// SPDX-License-Identifier: GPL-2.0-only
// The current task, kernel threads, and what a task may do where it stands.
#pragma once

#include <atomic>

#include "kernel/types.h"

namespace kernel {

struct completion;
struct user_space;

enum task_state : u32 {
  TASK_RUNNING = 0,
  TASK_INTERRUPTIBLE = 1,
  TASK_UNINTERRUPTIBLE = 2,
  TASK_NORMAL = TASK_INTERRUPTIBLE | TASK_UNINTERRUPTIBLE,
};

// One per thread that ever calls into the kernel layer; lives as long as the thread.
struct task_struct {
  std::atomic<u32> state{TASK_RUNNING};
  s32 pid = 0;                      // thread id of the host
  char comm[64] = {};               // always NUL-terminated
  user_space* mm = nullptr;         // whose memory copy_from_user and copy_to_user mean; not owned
  u32 spin_depth = 0;               // spin locks held; sleeping is a bug while it is not 0
  u32 irq_depth = 0;                // > 0: completion context
  bool (*signal)(void*) = nullptr;  // see signal_scope
  void* signal_arg = nullptr;
};

task_struct* current() noexcept;

// Completion context: a bio's completion function is running. It must not sleep.
inline bool in_interrupt() noexcept { return current()->irq_depth != 0; }

// Whether nobody wants any more what the current task is doing: who asked for it has gone, or the
// daemon ends. Work that may take long and may be given up looks between its portions and ends with
// -EINTR; what a later command relies on is carried through.
bool signal_pending() noexcept;
// Says for the current task, while the object lives, how that is found out.
//   pending  called by this task only, often; must not block
class [[nodiscard]] signal_scope {
 public:
  signal_scope(bool (*pending)(void* arg), void* arg) noexcept;
  ~signal_scope();
  signal_scope(const signal_scope&) = delete;
  signal_scope& operator=(const signal_scope&) = delete;

 private:
  bool (*before_)(void*);
  void* arg_before_;
};

// Aborts with a message when the caller may not sleep (spin lock held, completion context).
// Every operation of this layer that can block calls it first.
void might_sleep(const char* what) noexcept;

constexpr u32 clone_fs = 0x200, clone_files = 0x400, clone_sighand = 0x800;

// Starts a thread that runs fn(arg). The flags are accepted and have no meaning here.
//   returns  the new thread's id (> 0) | -ENOMEM, -EAGAIN (no thread; nothing is left behind)
//   owner    the layer joins the thread; see join_exited_threads
[[nodiscard]] int kernel_thread(int (*fn)(void*), void* arg, u32 flags);

// Gives the current thread its name (63 characters are kept). Threads of kernel_thread() run with
// every signal blocked from their start.
void daemonize(const char* name);

// Weighs the current thread against others for the processor, as nice(2) does: -20 (first) to 19.
// Without the right to it nothing changes.
void set_user_nice(int nice);

// Ends a thread body: `return complete_and_exit(&done, 0);`. The completion is completed by
// the thread's trampoline after the body has returned, when nothing of its frame is used any more.
[[nodiscard]] int complete_and_exit(completion* done, int code);

// Waits for threads whose body has returned. Called at exit and by tests; may sleep.
void join_exited_threads();

void set_current_state(u32 state) noexcept;

// Sleeps until a wake-up has set the current task running; returns at once if it is running.
void schedule();
// The same with a limit in jiffies; returns the jiffies left, 0 when the limit was reached.
s64 schedule_timeout(s64 timeout_jiffies);
// Gives way. A caller that does nothing else in a loop naps for some tens of microseconds a turn.
void yield();
// The host preempts its threads by itself, so this only checks that the caller may sleep.
inline void cond_resched() { might_sleep("cond_resched"); }

}  // namespace kernel
