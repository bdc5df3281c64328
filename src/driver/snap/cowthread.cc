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

// Somebody's write waits for these tasks while whoever reads a snap keeps the processors busy.
constexpr int nice_for_held_writes = -20;
constexpr int nice_for_snap_reads = 10;

// Gives up one use of it. A copying task that was left behind may be its last user.
struct worker_deleter {
  void operator()(cow_worker* w) const {
    if (w->users.fetch_sub(1) != 1) return;
    for (cow_copier& c : w->copiers) {
      kernel::vfree(c.pages);
      kernel::file_writes_free(c.writes);
    }
    for (cow_reader& r : w->readers) kernel::vfree(r.bounce);
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
  for (cow_copier& c : w->copiers) {
    c.worker = w.get();
    c.pages = static_cast<std::byte*>(kernel::vmalloc(group_bytes));
    c.writes = kernel::file_writes_alloc();
    if (c.pages == nullptr || c.writes == nullptr) return nullptr;
  }
  for (cow_reader& r : w->readers) {
    r.worker = w.get();
    r.bounce = static_cast<std::byte*>(kernel::vmalloc(bounce_bytes));
    if (r.bounce == nullptr) return nullptr;
  }
  return w;
}

// Collects until there is nothing more to collect, or no room for what another pass may find.
pass_result collect(cow_worker* w, cow_batch* b) {
  b->count = 0;
  b->groups = 0;
  b->lost = false;
  bool sent = false;
  pass_result r;
  do {
    r = cow_pass(w, b);
    sent |= r.sent;
  } while (!r.ended_early && r.more != 0 && b->count + r.more <= b->capacity);
  r.sent = sent;
  return r;
}

// Hands the idle copying tasks what there is to be copied.
//   returns  whether the HDD is to be unplugged
bool hand_out(cow_worker* w) {
  bool sent = false;
  for (cow_copier& c : w->copiers) {
    if (c.busy.load()) continue;
    const pass_result r = collect(w, &c.batch);
    sent |= r.sent;
    if (c.batch.count != 0 || c.batch.lost) {
      w->copying.fetch_add(1);
      c.busy.store(true);
      kernel::wake_up(&c.wait);
    }
    if (!r.ended_early && r.more == 0) return sent;  // everything has been looked at
  }
  return cow_pass(w, nullptr).sent || sent;
}

// The copies come first: what is sent on goes to the HDD beside them.
void pass(cow_worker* w) {
  w->looks_again = false;
  if (hand_out(w)) kernel::blk_unplug(kernel::bdev_get_queue(w->filter->hdd_bdev));
}

bool hangs(u64 since) {
  return since != 0 && kernel::time_after_eq(kernel::jiffies(), since + file_limit_jiffies);
}

// Another pass looks at every write, at those that wait for a copy as well.
void look_again(cow_worker* w) {
  w->copies.fetch_add(1);
  w->filter->cowqueue.events.fetch_add(1);
}

// What a snap's file does not give up is an error of the read, and the end of the snap.
//   returns  how many were left behind
u32 leave_hanging_readers(cow_worker* w) {
  zorv_filter* f = w->filter;
  u32 left = 0;
  for (cow_reader& r : w->readers) {
    node_ref snap;
    cow_request* request = nullptr;
    {
      kernel::spin_guard guard(&r.hand);
      if (!r.left.load() && hangs(r.file_since)) {
        r.left.store(true);
        request = r.serving;
        snap = zorv_node_pin(r.source);
        r.source->s.left.fetch_add(1);
        f->cow_left.fetch_add(1);
        w->reading.fetch_sub(1);
      }
      left += r.left.load() ? 1 : 0;
    }
    if (request == nullptr) continue;
    if (snap) {
      zorv_log(LOG_ERROR, "%s(): Reading from zorv(%d, %d) makes no progress in its files",
               "cow_worker", zorv_blk_major, snap->minor);
      zorv_snap_abandon(snap.get(), "cow_worker");
    }
    cow_end_read(w, request, -EIO);
    look_again(w);
    kernel::wake_up_all(&w->reads_wait);  // another is the one that always reads
  }
  if (left < nr_readers) return left;
  while (cow_request* r = cow_take_read(w)) {  // nobody is there to read
    const node_ref snap = cow_find_snap(f, static_cast<s32>(kernel::minor_of(r->dev)));
    if (snap && snap_usable(snap.get())) {
      zorv_snap_abandon(snap.get(), "cow_worker");
      look_again(w);
    }
    cow_end_read(w, r, -EIO);
  }
  return left;
}

// What hangs in a file is left behind: its snap becomes invalid, which lets go what waits for it.
// A late return finds that, and changes nothing.
void leave_hanging(cow_worker* w) {
  const u32 readers_left = leave_hanging_readers(w);
  zorv_filter* f = w->filter;
  u32 left = 0;
  for (cow_copier& c : w->copiers) {
    node_ref snap;
    {
      kernel::spin_guard guard(&c.hand);
      if (!c.left.load() && c.batch.snap && hangs(c.file_since.load())) {
        c.left.store(true);
        snap = zorv_node_pin(c.batch.snap.get());
        c.batch.snap->s.left.fetch_add(1);
        f->cow_left.fetch_add(1);
        w->copying.fetch_sub(1);
      }
      left += c.left.load() ? 1 : 0;
    }
    if (!snap) continue;
    zorv_log(LOG_ERROR, "%s(): Copying for zorv(%d, %d) makes no progress in its files",
             "cow_worker", zorv_blk_major, snap->minor);
    zorv_snap_abandon(snap.get(), "cow_worker");
    look_again(w);
  }
  f->cowthread.unable.store(left == nr_copiers || readers_left == nr_readers);
  if (left < nr_copiers || f->cowqueue.cnt.load() == 0) return;
  for (node_ref s = zorv_snap_oldest(*f); s; s = zorv_snap_newer(*f, s.get())) {
    if (!snap_usable(s.get())) continue;
    zorv_snap_abandon(s.get(), "cow_worker");  // nobody is there to copy for it
    look_again(w);
  }
}

void serve(zorv_cowthread* t, cow_worker* w) {
  zorv_cowqueue& q = w->filter->cowqueue;
  u32 seen = q.events.load() - 1;
  const auto due = [t, &q, &seen] {
    return t->stop.load() != 0 || (q.cnt.load() != 0 && q.events.load() != seen);
  };
  while (t->stop.load() == 0) {
    const bool at_files =
        w->copying.load() != 0 || w->reading.load() != 0 || w->nr_reads.load() != 0;
    const bool left = w->filter->cow_left.load() != 0 || t->unable.load();
    if (!at_files && !left && !w->looks_again) {
      kernel::wait_event(&q.wait, due, kernel::TASK_INTERRUPTIBLE);
    } else if (!kernel::wait_event_timeout(&q.wait, due, kernel::HZ)) {
      leave_hanging(w);
      if (w->looks_again) q.events.fetch_add(1);
      continue;
    }
    leave_hanging(w);
    zorv_log(4, "%s(): mark: wait_event() is over.", "cow_worker");
    if (t->stop.load() != 0) return;
    seen = q.events.load();
    pass(w);
    if (q.cnt.load() == 0) kernel::wake_up_all(&q.wait);  // whoever waits for the drain
  }
}

// A copying task.
int cowcopy(void* arg) {
  auto* c = static_cast<cow_copier*>(arg);
  cow_worker* w = c->worker;
  zorv_cowqueue& q = w->filter->cowqueue;
  kernel::daemonize("kcowd-copy");
  kernel::set_user_nice(nice_for_held_writes);
  for (;;) {
    kernel::wait_event(&c->wait, [c, w] { return w->stop.load() != 0 || c->busy.load(); });
    if (!c->busy.load()) break;
    cow_chunks(c);
    node_ref snap;  // keeps the filter until nothing of it is used any more
    bool was_left;
    {
      kernel::spin_guard guard(&c->hand);
      snap = std::move(c->batch.snap);
      was_left = c->left.exchange(false);
    }
    if (was_left) {
      snap->s.left.fetch_sub(1);
      w->filter->cow_left.fetch_sub(1);
    } else {
      w->copying.fetch_sub(1);
    }
    w->copies.fetch_add(1);
    c->busy.store(false);
    q.events.fetch_add(1);
    kernel::wake_up_all(&q.wait);
  }
  // The host takes its time over this; here the tasks wait for it at the same time.
  kernel::file_writes_free(c->writes);
  c->writes = nullptr;
  const worker_ptr last(w);
  c->ended.store(true);
  kernel::complete(&c->done);
  return 0;
}

// A reading task. What none has begun when they are stopped stays in the queue.
int cowread(void* arg) {
  auto* reader = static_cast<cow_reader*>(arg);
  cow_worker* w = reader->worker;
  kernel::daemonize("kcowd-read");
  kernel::set_user_nice(nice_for_snap_reads);
  // The first that is not left behind.
  const auto always = [w, reader] {
    const cow_reader* r = w->readers;
    while (r != reader && r->left.load()) ++r;
    return r == reader;
  };
  const auto due = [w, always] {
    return w->stop.load() != 0 || (w->nr_reads.load() != 0 && (w->copying.load() == 0 || always()));
  };
  for (;;) {
    kernel::wait_event(&w->reads_wait, due);
    if (w->stop.load() != 0) break;
    cow_serve_read(reader);
  }
  const worker_ptr last(w);
  reader->ended.store(true);
  kernel::complete(&reader->done);
  return 0;
}

// Starts a task of the worker's, which completes *done when it has ended.
//   returns  0 | the negative code of thread creation; logged
int start_task(int (*body)(void*), void* arg, const char* name, kernel::completion* done) {
  kernel::init_completion(done);
  const int rc = kernel::kernel_thread(
      body, arg, kernel::clone_fs | kernel::clone_files | kernel::clone_sighand);
  if (rc >= 0) return 0;
  zorv_log(LOG_ERROR, "%s(): Failed to start COW thread %s: rc=%d", "cowthread", name, rc);
  kernel::complete(done);  // nobody is there to wait for
  return rc;
}

// Waits for a copying or reading task to end, or to be left behind.
template <class Task>
void await_end(cow_worker* w, Task* t) {
  const auto settled = [t] { return t->ended.load() || t->left.load(); };
  while (!kernel::wait_event_timeout(&w->filter->cowqueue.wait, settled, kernel::HZ / 10)) {
    leave_hanging(w);
  }
  if (t->ended.load()) kernel::wait_for_completion(&t->done);
}

// Ends the other tasks, but for what is left behind.
void stop_tasks(cow_worker* w) {
  w->stop.store(1);
  for (cow_copier& c : w->copiers) kernel::wake_up(&c.wait);
  kernel::wake_up_all(&w->reads_wait);
  for (cow_copier& c : w->copiers) await_end(w, &c);
  for (cow_reader& r : w->readers) await_end(w, &r);
  kernel::spin_guard guard(&w->filter->cowqueue.lock);
  while (cow_request* r = w->reads.front()) r->read_link.unlink();  // they are the queue's alone
}

// The working set and the other tasks.
//   returns  0 | -ENOMEM | the negative code of thread creation; logged
int set_up(worker_ptr* worker, const zorv_cowthread* t) {
  *worker = alloc_worker(t->filter);
  cow_worker* w = worker->get();
  if (w == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", "cowthread");
    return -ENOMEM;
  }
  int rc = 0;
  for (cow_copier& c : w->copiers) {
    w->users.fetch_add(1);
    const int started = start_task(cowcopy, &c, "kcowd-copy", &c.done);
    if (started != 0) {
      c.ended.store(true);
      w->users.fetch_sub(1);
    }
    if (rc == 0) rc = started;
  }
  for (cow_reader& r : w->readers) {
    w->users.fetch_add(1);
    const int started = start_task(cowread, &r, "kcowd-read", &r.done);
    if (started != 0) {
      r.ended.store(true);
      w->users.fetch_sub(1);
    }
    if (rc == 0) rc = started;
  }
  if (rc != 0) stop_tasks(w);  // none has begun anything
  return rc;
}

int cowthread(void* arg) {
  auto* t = static_cast<zorv_cowthread*>(arg);
  zorv_log(1, "%s(): Initializing...", __func__);
  kernel::daemonize(t->name);
  kernel::set_user_nice(nice_for_held_writes);
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
    stop_tasks(w.get());
  }
  w.reset();
  return kernel::complete_and_exit(&t->done, 0);
}

void reset(zorv_cowthread* t) {
  std::memset(t->name, 0, sizeof(t->name));
  t->stop.store(0);
  t->pid.store(0);
  t->unable.store(false);
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
