// SPDX-License-Identifier: GPL-2.0-only
// Tasks sleep on their own state word. A task that is about to sleep adds `parked` to its state,
// so that a waker knows whether a system call is needed to get it going again; a wake-up that
// comes before that is only a store.
#include "kernel/task.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "kernel/fault.h"
#include "kernel/list.h"
#include "kernel/lock.h"
#include "kernel/mem.h"
#include "kernel/park.h"
#include "kernel/time.h"

namespace kernel {
namespace {

constexpr u32 parked = 0x100;

constinit thread_local task_struct this_task;
constinit thread_local completion* completed_at_exit = nullptr;

static_assert(sizeof(std::atomic<u32>) == sizeof(u32));

long futex(const std::atomic<u32>* word, int op, u32 value, const timespec* limit) noexcept {
  return syscall(SYS_futex, word, op | FUTEX_PRIVATE_FLAG, value, limit, nullptr, 0);
}

// Sleeps until the state is no longer the one given, at most for limit_ns (0: for ever).
void park(task_struct* self, u32 state, u64 limit_ns) noexcept {
  if ((state & parked) == 0) {
    if (!self->state.compare_exchange_strong(state, state | parked)) return;
    state |= parked;
  }
  timespec limit{static_cast<time_t>(limit_ns / 1000000000),
                 static_cast<long>(limit_ns % 1000000000)};
  futex(&self->state, FUTEX_WAIT, state, limit_ns == 0 ? nullptr : &limit);
}

// A thread of kernel_thread(), from its creation until somebody joins it.
struct kthread {
  int (*fn)(void*) = nullptr;
  void* arg = nullptr;
  pthread_t thread{};
  s32 pid = 0;
  bool returned = false;  // under threads.lock
  completion started;
  list_node<kthread> link{this};
};

struct thread_registry {
  std::mutex lock;
  list_of<kthread> all;
};

// Never destroyed: threads may still run when the process ends.
thread_registry& threads() {
  static auto* registry = new thread_registry;
  return *registry;
}

void* thread_main(void* arg) noexcept {
  auto* t = static_cast<kthread*>(arg);
  t->pid = current()->pid;
  complete(&t->started);
  t->fn(t->arg);
  {
    std::lock_guard lock(threads().lock);
    t->returned = true;
  }
  if (completed_at_exit != nullptr) complete(completed_at_exit);
  return nullptr;
}

// Signals are the business of the host's threads: one of ours inherits a full mask.
int start_thread(kthread* t) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const int error = pthread_create(&t->thread, nullptr, thread_main, t);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return -error;
}

u64 monotonic_ns() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<u64>(ts.tv_sec) * 1000000000 + static_cast<u64>(ts.tv_nsec);
}

}  // namespace

task_struct* current() noexcept {
  task_struct* self = &this_task;
  if (self->pid == 0) [[unlikely]] {
    self->pid = static_cast<s32>(syscall(SYS_gettid));
    pthread_getname_np(pthread_self(), self->comm, sizeof(self->comm));
  }
  return self;
}

bool signal_pending() noexcept {
  const task_struct* self = current();
  return self->signal != nullptr && self->signal(self->signal_arg);
}

signal_scope::signal_scope(bool (*pending)(void*), void* arg) noexcept
    : before_(current()->signal), arg_before_(current()->signal_arg) {
  current()->signal = pending;
  current()->signal_arg = arg;
}

signal_scope::~signal_scope() {
  current()->signal = before_;
  current()->signal_arg = arg_before_;
}

void might_sleep(const char* what) noexcept {
  const task_struct* self = current();
  if (self->spin_depth == 0 && self->irq_depth == 0) [[likely]]
    return;
  std::fprintf(stderr, "BUG: %s may sleep, called by %s/%d with %u spin locks held%s\n", what,
               self->comm, self->pid, self->spin_depth,
               self->irq_depth != 0 ? " in completion context" : "");
  std::abort();
}

int kernel_thread(int (*fn)(void*), void* arg, u32 flags) {
  (void)flags;
  might_sleep("kernel_thread");
  join_exited_threads();
  if (const int error = fault_check(fault_site::thread_create)) return error;
  auto* t = knew<kthread>(GFP_KERNEL);
  if (t == nullptr) return -ENOMEM;
  t->fn = fn;
  t->arg = arg;
  {
    std::lock_guard lock(threads().lock);
    if (const int error = start_thread(t)) {
      kdelete(t);
      return error;
    }
    threads().all.push_back(&t->link);
  }
  wait_for_completion(&t->started);
  return t->pid;
}

void daemonize(const char* name) {
  task_struct* self = current();
  const std::size_t len = strnlen(name, sizeof(self->comm) - 1);
  std::memcpy(self->comm, name, len);
  std::memset(self->comm + len, 0, sizeof(self->comm) - len);
  char host_name[16] = {};  // what the host shows of it
  std::memcpy(host_name, name, len < sizeof(host_name) - 1 ? len : sizeof(host_name) - 1);
  pthread_setname_np(pthread_self(), host_name);
}

void set_user_nice(int nice) {
  // On Linux a thread id here means that thread alone.
  (void)::setpriority(PRIO_PROCESS, static_cast<id_t>(current()->pid), nice);
}

int complete_and_exit(completion* done, int code) {
  completed_at_exit = done;
  return code;
}

void join_exited_threads() {
  might_sleep("join_exited_threads");
  list_of<kthread> exited;
  {
    std::lock_guard lock(threads().lock);
    for (kthread& t : threads().all) {
      if (!t.returned) continue;
      t.link.unlink();
      exited.push_back(&t.link);
    }
  }
  while (kthread* t = exited.front()) {
    t->link.unlink();
    pthread_join(t->thread, nullptr);
    kdelete(t);
  }
}

void set_current_state(u32 state) noexcept { current()->state.store(state); }

bool task_make_running(task_struct* task, u32 mode, bool* unpark) noexcept {
  u32 state = task->state.load();
  do {
    if ((state & mode) == 0) return false;
  } while (!task->state.compare_exchange_weak(state, TASK_RUNNING));
  *unpark = (state & parked) != 0;
  return true;
}

void task_unpark(task_struct* task) noexcept { futex(&task->state, FUTEX_WAKE, INT_MAX, nullptr); }

void schedule() {
  might_sleep("schedule");
  task_struct* self = current();
  for (u32 state; (state = self->state.load()) != TASK_RUNNING;) park(self, state, 0);
}

s64 schedule_timeout(s64 timeout_jiffies) {
  might_sleep("schedule_timeout");
  // Short naps, because a turned clock wakes nobody.
  constexpr s64 longest_nap_ms = 10;
  task_struct* self = current();
  const u64 deadline = jiffies() + static_cast<u64>(timeout_jiffies > 0 ? timeout_jiffies : 0);
  for (;;) {
    const s64 left = static_cast<s64>(deadline - jiffies());
    const u32 state = self->state.load();
    if (state == TASK_RUNNING || left <= 0) {
      self->state.store(TASK_RUNNING);
      return left > 0 ? left : 0;
    }
    park(self, state, static_cast<u64>(left < longest_nap_ms ? left : longest_nap_ms) * 1000000);
  }
}

// Loops that yield until somebody else has done something are common above. A host with few
// processors may give such a loop its processor back at once, so one that has turned many times
// in a row naps.
void yield() {
  might_sleep("yield");
  constexpr u64 same_loop_ns = 20000;
  constexpr u32 turns_before_nap = 64;
  constexpr long nap_ns = 50000;
  static thread_local u64 last_ns = 0;
  static thread_local u32 turns = 0;
  turns = monotonic_ns() - last_ns < same_loop_ns ? turns + 1 : 0;
  if (turns < turns_before_nap) {
    sched_yield();
  } else {
    const timespec nap{0, nap_ns};
    nanosleep(&nap, nullptr);
  }
  last_ns = monotonic_ns();
}

}  // namespace kernel
