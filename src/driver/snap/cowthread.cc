// SPDX-License-Identifier: GPL-2.0-only
// kcowd's life: start, the loop, shutdown and abort.
//
// A thread that cannot get its working set never serves anybody: its start fails and pid stays 0,
// the snap that wanted it comes up invalid, and no write waits for a copy.
#include "driver/snap/cowthread.h"

#include "driver/core/log.h"
#include "driver/snap/cowwork.h"
#include "kernel/mem.h"

namespace zorv {

namespace {

struct worker_deleter {
  void operator()(cow_worker* w) const {
    kernel::vfree(w->pages);
    w->~cow_worker();
    kernel::vfree(w);
  }
};
using worker_ptr = std::unique_ptr<cow_worker, worker_deleter>;

worker_ptr alloc_worker(zorv_filter* f) {
  void* memory = kernel::vmalloc(sizeof(cow_worker));
  if (memory == nullptr) return nullptr;
  worker_ptr w(new (memory) cow_worker);
  w->filter = f;
  w->pages = static_cast<std::byte*>(kernel::vmalloc(group_bytes));
  return w->pages != nullptr ? std::move(w) : nullptr;
}

// Collects until there is nothing more to collect, or no room for what another pass may find.
pass_result collect(cow_worker* w) REQUIRES_SHARED(zorv_blkdev_rwlock) {
  cow_batch& b = w->batch;
  b.count = 0;
  b.groups = 0;
  pass_result r;
  do {
    r = cow_pass(w, collecting::yes);
  } while (!r.ended_early && r.more != 0 && b.count + r.more <= b.capacity);
  return r;
}

void pass(cow_worker* w) REQUIRES_SHARED(zorv_blkdev_rwlock) {
  if (w->busy.load()) {
    (void)cow_pass(w, collecting::no);
    return;
  }
  const pass_result r = collect(w);
  if (w->batch.count != 0) {
    w->busy.store(true);
    kernel::wake_up(&w->wait);
  }
  if (r.ended_early) (void)cow_pass(w, collecting::no);
}

void serve(zorv_cowthread* t, cow_worker* w) {
  zorv_cowqueue& q = w->filter->cowqueue;
  u32 seen = q.events.load() - 1;
  const auto due = [t, &q, &seen] {
    return t->stop.load() != 0 || (q.cnt.load() != 0 && q.events.load() != seen);
  };
  while (t->stop.load() == 0) {
    kernel::wait_event(&q.wait, due, kernel::TASK_INTERRUPTIBLE);
    zorv_log(4, "%s(): mark: wait_event() is over.", "cow_worker");
    if (t->stop.load() != 0) return;
    seen = q.events.load();
    zorv_table_stand_aside(stand_aside::cow_thread);
    {
      table_read_guard table;  // no record goes while a pass runs
      pass(w);
    }
    if (q.cnt.load() == 0) kernel::wake_up_all(&q.wait);  // whoever waits for the drain
  }
}

// The copying task.
int cowcopy(void* arg) {
  auto* w = static_cast<cow_worker*>(arg);
  zorv_cowqueue& q = w->filter->cowqueue;
  kernel::daemonize("kcowd-copy");
  for (;;) {
    kernel::wait_event(&w->wait, [w] { return w->stop.load() != 0 || w->busy.load(); });
    if (!w->busy.load()) break;
    zorv_table_stand_aside(stand_aside::cow_thread);
    {
      table_read_guard table;
      cow_chunks(w);
    }
    w->copies.fetch_add(1);
    w->busy.store(false);
    q.events.fetch_add(1);
    kernel::wake_up_all(&q.wait);
  }
  return kernel::complete_and_exit(&w->done, 0);
}

// The working set and the copying task.
//   returns  0 | -ENOMEM | the negative code of thread creation; logged
int set_up(worker_ptr* w, const zorv_cowthread* t) {
  *w = alloc_worker(t->filter);
  if (*w == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", "cowthread");
    return -ENOMEM;
  }
  kernel::init_completion(&(*w)->done);
  const int rc = kernel::kernel_thread(
      cowcopy, w->get(), kernel::clone_fs | kernel::clone_files | kernel::clone_sighand);
  if (rc >= 0) return 0;
  zorv_log(LOG_ERROR, "%s(): Failed to start COW thread %s: rc=%d", "cowthread", "kcowd-copy", rc);
  return rc;
}

int cowthread(void* arg) {
  auto* t = static_cast<zorv_cowthread*>(arg);
  zorv_log(1, "%s(): Initializing...", __func__);
  kernel::daemonize(t->name);
  worker_ptr w;
  const int rc = set_up(&w, t);
  t->ready_rc = rc;
  if (rc == 0) {
    zorv_log(1, "%s(): COW will be done in groups of %d bytes", __func__, group_bytes);
    zorv_log(1, "%s(): Preallocated %d pages and %d bio for %d chunks", __func__, group_pages,
             group_pages, group_max_chunks);
  }
  kernel::complete(&t->ready);
  if (rc == 0) {
    serve(t, w.get());
    w->stop.store(1);
    kernel::wake_up(&w->wait);
    kernel::wait_for_completion(&w->done);
  }
  w.reset();
  return kernel::complete_and_exit(&t->done, 0);
}

void reset(zorv_cowthread* t) {
  std::memset(t->name, 0, sizeof(t->name));
  t->stop.store(0);
  t->pid.store(0);
  t->filter = nullptr;
}

// Ends the thread, which serves nothing more than the pass it is in.
void stop_and_wait(zorv_cowthread* t) {
  t->stop.store(1);
  kernel::wake_up_all(&t->filter->cowqueue.wait);
  kernel::wait_for_completion(&t->done);
}

}  // namespace

int zorv_cowthread_start(zorv_cowthread* t, const char* name, zorv_filter* filter) {
  if (t == nullptr) {
    zorv_log(LOG_ERROR, "%s(): NULL thread pointer passed as input", __func__);
    return -EINVAL;
  }
  if (t->pid.load() != 0) {
    zorv_log(LOG_ERROR, "%s(): COW thread is already running: pid=%d", __func__, t->pid.load());
    return -EALREADY;
  }
  reset(t);
  t->filter = filter;
  copy_text_n(t->name, sizeof(t->name), name == nullptr || name[0] == '\0' ? "kcowd" : name);
  kernel::init_completion(&t->done);
  kernel::init_completion(&t->ready);
  const int pid = kernel::kernel_thread(
      cowthread, t, kernel::clone_fs | kernel::clone_files | kernel::clone_sighand);
  if (pid < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to start COW thread %s: rc=%d", __func__, t->name, pid);
    return pid;
  }
  kernel::wait_for_completion(&t->ready);
  if (t->ready_rc != 0) {
    kernel::wait_for_completion(&t->done);
    return t->ready_rc;
  }
  t->pid.store(pid);
  zorv_log(1, "%s(): Successfully started COW thread %s. pid=%d...", __func__, t->name, pid);
  return 0;
}

int zorv_cowthread_shutdown(zorv_cowthread* t) {
  if (t == nullptr) {
    zorv_log(LOG_ERROR, "%s(): NULL thread pointer passed as input", __func__);
    return -EINVAL;
  }
  if (t->pid.load() == 0) return 0;
  zorv_log(1, "%s(): Stopping COW thread %s (pid=%d)...", __func__, t->name, t->pid.load());
  zorv_cowqueue& q = t->filter->cowqueue;
  kernel::wait_event(&q.wait, [&q] { return q.cnt.load() == 0; });
  stop_and_wait(t);
  reset(t);
  return 0;
}

int zorv_cowthread_abort(zorv_cowthread* t) {
  if (t == nullptr) {
    zorv_log(LOG_ERROR, "%s(): NULL thread pointer passed as input", __func__);
    return -EINVAL;
  }
  if (t->pid.load() == 0) return 0;
  zorv_log(1, "%s(): Aborting COW thread %s (pid=%d)...", __func__, t->name, t->pid.load());
  stop_and_wait(t);
  (void)zorv_cowqueue_purge(&t->filter->cowqueue);
  reset(t);
  return 0;
}

}  // namespace zorv
