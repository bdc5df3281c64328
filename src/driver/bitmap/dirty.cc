// SPDX-License-Identifier: GPL-2.0-only
// The queue of stale marks and the thread that writes them.
//
// Locks: bmp_mutex, then bmp_lock, then req_spin. A save cancels marks while it holds bmp_mutex;
// the thread takes bmp_mutex with no other lock held and looks again whether its request is still
// active, so a mark never lands behind the save that made it needless.
#include "driver/bitmap/dirty.h"

#include "driver/bitmap/bitmap.h"
#include "driver/core/log.h"
#include "kernel/mem.h"
#include "kernel/task.h"
#include "kernel/time.h"

namespace zorv {

namespace {

kernel::spinlock_t req_spin;
kernel::list_of<zorv_dirty_req> req_list GUARDED_BY(req_spin);  // oldest first
// The filter whose request the thread has in hand; that request is still on the list.
const zorv_filter* busy_filter GUARDED_BY(req_spin) = nullptr;
std::atomic<s32> req_cnt{0};  // length of req_list; the thread tests it without the lock
kernel::wait_queue_head req_wait;
kernel::wait_queue_head idle_wait;  // woken after each request
int kdirtyd_started = 0;            // load and unload only
std::atomic<int> kdirtyd_abort{0};
kernel::completion kdirtyd_exited;

void append_locked(zorv_dirty_req* req, zorv_filter* f, u32 type) REQUIRES(req_spin) {
  req->active = 1;
  req->filter = f;
  req->type = static_cast<s32>(type);
  req_list.push_back(&req->link);
  req_cnt.fetch_add(1);
}

void append_reserve_locked(zorv_dirty_req* req, zorv_filter* f, u32 type) REQUIRES(req_spin) {
  if (!req->link.linked()) {
    req->reserve = true;
    append_locked(req, f, type);
  } else if (req->active == 0) {
    req->again = true;  // cancelled, perhaps being dropped at this moment: it takes another turn
  }
}

void remove_locked(zorv_dirty_req* req) REQUIRES(req_spin) {
  req->link.unlink();
  req_cnt.fetch_sub(1);
}

void free_req(zorv_dirty_req* req) {
  if (req != nullptr && !req->reserve) kernel::kdelete(req);
}

// Takes the thread's request off the list, or leaves a reserve that was wanted anew on it.
zorv_dirty_req* finish_locked(zorv_dirty_req* req) REQUIRES(req_spin) {
  busy_filter = nullptr;
  remove_locked(req);
  if (!req->reserve) return req;
  if (req->again) {
    req->again = false;
    append_locked(req, req->filter, static_cast<u32>(req->type));
  }
  return nullptr;
}

bool is_active(const zorv_dirty_req* req) {
  kernel::spin_guard guard(&req_spin);
  return req->active != 0;
}

void handle_first() {
  zorv_dirty_req* req = nullptr;
  {
    kernel::spin_guard guard(&req_spin);
    req = req_list.front();
    if (req == nullptr) return;
    busy_filter = req->filter;
  }
  if (is_active(req)) {
    rzmutex_guard files(&req->filter->bmp_mutex);
    if (is_active(req)) {
      const auto type = static_cast<u32>(req->type);
      const int rc = zorv_block_write_dirty_flag(req->filter, type, 1);
      if (rc < 0) zorv_marks_failed(req->filter, type);
    }
  }
  {
    kernel::spin_guard guard(&req_spin);
    req = finish_locked(req);
  }
  free_req(req);
  kernel::wake_up_all(&idle_wait);
}

void drop_all() {
  for (;;) {
    zorv_dirty_req* req = nullptr;
    {
      kernel::spin_guard guard(&req_spin);
      req = req_list.front();
      if (req == nullptr) return;
      remove_locked(req);
      req->again = false;
      if (req->reserve) req = nullptr;
    }
    free_req(req);
  }
}

int kdirtyd(void*) {
  zorv_log(1, "%s(): Started.", __func__);
  kernel::daemonize("kdirtyd");
  while (kdirtyd_abort.load() == 0) {
    zorv_log(2, "%s(): Waiting for dirty requests to come...", __func__);
    kernel::wait_event(
        &req_wait, [] { return req_cnt.load() != 0 || kdirtyd_abort.load() != 0; },
        kernel::TASK_INTERRUPTIBLE);
    if (kdirtyd_abort.load() != 0) break;
    zorv_log(2, "%s(): Got %d requests in queue", __func__, req_cnt.load());
    handle_first();
  }
  drop_all();
  zorv_log(1, "%s(): Terminated.", __func__);
  return kernel::complete_and_exit(&kdirtyd_exited, 0);
}

void cancel_locked(const zorv_filter* f, u32 type) REQUIRES(req_spin) {
  for (zorv_dirty_req& req : req_list) {
    if (req.filter != f || req.type != static_cast<s32>(type)) continue;
    req.active = 0;
    req.again = false;
  }
}

}  // namespace

int zorv_start_kdirtyd() {
  zorv_log(1, "%s(): Starting kdirtyd", __func__);
  if (kdirtyd_started != 0) {
    zorv_log(LOG_ERROR, "%s(): kdirtyd has already been started.", __func__);
    return -EALREADY;
  }
  kernel::init_completion(&kdirtyd_exited);
  drop_all();
  kdirtyd_abort.store(0);
  const int rc = kernel::kernel_thread(
      kdirtyd, nullptr, kernel::clone_fs | kernel::clone_files | kernel::clone_sighand);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to start kdirtyd: rc=%d", __func__, rc);
    return rc;
  }
  kdirtyd_started = 1;
  zorv_log(2, "%s(): kdirtyd has been started successfully: pid=%d", __func__, rc);
  return 0;
}

int zorv_stop_kdirtyd() {
  zorv_log(1, "%s(): Stopping kdirtyd", __func__);
  if (kdirtyd_started == 0) {
    zorv_log(LOG_ERROR, "%s(): kdirtyd is not running.", __func__);
    return -ESRCH;
  }
  kdirtyd_abort.store(1);
  kernel::wake_up(&req_wait);
  kernel::wait_for_completion(&kdirtyd_exited);
  kdirtyd_started = 0;
  zorv_log(2, "%s(): kdirtyd has been stopped successfully", __func__);
  return 0;
}

int zorv_sched_write_dirty_flag(zorv_filter* f, u32 type) {
  zorv_log(2, "%s(): Appending dirty request for %s bitmap of zorv(%d, %d)", __func__,
           zorv_bmp_type_name(type), zorv_blk_major, f->filter_minor);
  auto* req = kernel::knew<zorv_dirty_req>(kernel::GFP_NOIO);
  if (req == nullptr) zorv_log(LOG_ERROR, "%s(): Memory allocation failure", __func__);
  zorv_dirty_req* unused = req;
  {
    kernel::spin_guard bits(&f->bmp_lock);
    zorv_mark_state& m = f->marks[type];
    if (m.noted) {
      m.noted = false;
      unused = nullptr;
      kernel::spin_guard guard(&req_spin);
      if (req != nullptr) {
        append_locked(req, f, type);
      } else {
        append_reserve_locked(&m.reserve, f, type);
      }
    }
  }
  free_req(unused);
  kernel::wake_up(&req_wait);
  return req != nullptr ? 0 : -ENOMEM;
}

int zorv_kill_dirty_requests(zorv_filter* f, u32 type) {
  zorv_log(2, "%s(): Killing all dirty requests for %s bitmap of zorv(%d, %d)", __func__,
           zorv_bmp_type_name(type), zorv_blk_major, f->filter_minor);
  kernel::spin_guard guard(&req_spin);
  cancel_locked(f, type);
  return 0;
}

void zorv_marks_cancel(zorv_filter* f, u32 type) {
  f->marks[type].noted = false;
  kernel::spin_guard guard(&req_spin);
  cancel_locked(f, type);
}

bool zorv_marks_queued(const zorv_filter* f, u32 type) {
  kernel::spin_guard guard(&req_spin);
  for (zorv_dirty_req& req : req_list) {
    if (req.filter == f && req.type == static_cast<s32>(type) && (req.active != 0 || req.again)) {
      return true;
    }
  }
  return false;
}

int zorv_yield_to_dirty_requests(zorv_filter* f, u32 seconds) {
  const auto none_left = [f] {
    kernel::spin_guard guard(&req_spin);
    for (const zorv_dirty_req& req : req_list) {
      if (req.filter == f) return false;
    }
    return true;
  };
  if (kernel::wait_event_timeout(&idle_wait, none_left, seconds * kernel::HZ)) return 0;
  zorv_log(LOG_ERROR,
           "%s(): There are still some dirty requests pending for zorv(%d, %d). Continuing "
           "anyway...",
           __func__, zorv_blk_major, f->filter_minor);
  return -ETIMEDOUT;
}

void zorv_drop_dirty_requests(zorv_filter* f) {
  kernel::list_of<zorv_dirty_req> dropped;
  {
    kernel::spin_guard guard(&req_spin);
    // The thread takes the one that it has in hand off the list itself.
    const zorv_dirty_req* in_hand = busy_filter == f ? req_list.front() : nullptr;
    for (zorv_dirty_req& req : req_list) {
      if (req.filter != f) continue;
      req.active = 0;
      req.again = false;
      if (&req == in_hand) continue;
      remove_locked(&req);
      if (!req.reserve) dropped.push_back(&req.link);
    }
  }
  while (zorv_dirty_req* req = dropped.front()) {
    req->link.unlink();
    free_req(req);
  }
  kernel::wait_event(&idle_wait, [f] {
    kernel::spin_guard guard(&req_spin);
    return busy_filter != f;
  });
}

}  // namespace zorv
