// SPDX-License-Identifier: GPL-2.0-only
// The list of a filter's record; its file is recordfile.cc's.
#include "driver/snap/record.h"

#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "driver/snap/recordfile.h"
#include "kernel/mem.h"

namespace zorv {

namespace {

zorv_record_entry* find(zorv_record* r, const u8 (&id)[snap_id_bytes]) REQUIRES(r->lock) {
  for (u32 i = 0; i < r->count; ++i) {
    if (std::memcmp(r->entries[i].id, id, snap_id_bytes) == 0) return &r->entries[i];
  }
  return nullptr;
}

void note_strike(zorv_record* r) REQUIRES(r->lock) {
  r->ahead = r->listed;
  ++r->strikes;
}

// Takes out what does not run.
void strike(zorv_record* r) REQUIRES(r->lock) {
  u32 kept = 0;
  for (u32 i = 0; i < r->count; ++i) {
    if (r->entries[i].running) r->entries[kept++] = r->entries[i];
  }
  if (kept != r->count) note_strike(r);
  r->count = kept;
  zorv_record_update_stale(r);
}

void wake_held_writes(zorv_filter* f) {
  f->cowqueue.events.fetch_add(1);
  kernel::wake_up_all(&f->cowqueue.wait);
}

}  // namespace

void zorv_record_update_stale(zorv_record* r) {
  bool stale = r->ahead;
  for (u32 i = 0; i < r->count; ++i) stale = stale || !r->entries[i].running;
  r->stale.store(stale);
}

int zorv_record_attach(zorv_filter* f) {
  zorv_record& r = f->record;
  const int len =
      std::snprintf(r.fname, sizeof r.fname, "%s/zorv%u.snaps", f->bmp_dir, f->filter_minor);
  if (len < 0 || static_cast<std::size_t>(len) >= sizeof r.fname) {
    zorv_log(LOG_ERROR, "%s(): The name of the record of the snaps in %s is too long", __func__,
             f->bmp_dir);
    return -ENAMETOOLONG;
  }
  {
    auto* entries =
        static_cast<zorv_record_entry*>(kernel::vzalloc(record_max * sizeof(zorv_record_entry)));
    if (entries == nullptr) {
      zorv_log(LOG_ERROR, "%s(): Memory allocation failure", __func__);
      return -ENOMEM;
    }
    kernel::spin_guard guard(&r.lock);
    r.entries = entries;
  }
  int rc = recordfile::open(f, 0);
  if (rc == -EBUSY) return rc;
  if (rc == 0) {
    recordfile::load(f, r.file);
  } else if (rc != -ENOENT && rc != -EINVAL) {
    // One that can only be read lists what it lists all the same.
    const zorv_file_ptr reader(zorv_fopen(r.fname, kernel::FO_RDONLY | kernel::FO_NOFOLLOW, 0));
    recordfile::load(f, reader.get());
  } else {
    recordfile::load_nothing(f);
  }
  return 0;
}

void zorv_record_detach(zorv_filter* f) {
  zorv_record& r = f->record;
  recordfile::close(&r);
  kernel::spin_guard guard(&r.lock);
  kernel::vfree(r.entries);
  r.entries = nullptr;
  r.count = 0;
}

u64 zorv_record_started(zorv_filter* f, const u8 (&id)[snap_id_bytes]) {
  zorv_record& r = f->record;
  kernel::spin_guard guard(&r.lock);
  if (r.count == record_max) strike(&r);  // a filter has fewer snaps than that
  zorv_record_entry& e = r.entries[r.count++];
  std::memcpy(e.id, id, snap_id_bytes);
  e.instant = ++r.instants;
  e.running = true;
  if (r.count > 1) note_strike(&r);
  zorv_record_update_stale(&r);
  return e.instant;
}

const char* zorv_record_resumed(zorv_filter* f, const u8 (&id)[snap_id_bytes], u64* instant) {
  zorv_record& r = f->record;
  kernel::spin_guard guard(&r.lock);
  zorv_record_entry* e = find(&r, id);
  if (e == nullptr) return "has missed writes: the record does not list it";
  if (e->running) return "runs already, as another node";
  *instant = e->instant;
  for (const zorv_record_entry* n = e + 1; n < r.entries + r.count; ++n) {
    if (!n->running) return "needs a newer snap that has not been resumed";
  }
  e->running = true;
  zorv_record_update_stale(&r);
  return nullptr;
}

bool zorv_record_lists(zorv_filter* f, const u8 (&id)[snap_id_bytes]) {
  kernel::spin_guard guard(&f->record.lock);
  return find(&f->record, id) != nullptr;
}

void zorv_record_stopped(zorv_filter* f, const u8 (&id)[snap_id_bytes]) {
  zorv_record& r = f->record;
  kernel::spin_guard guard(&r.lock);
  if (zorv_record_entry* e = find(&r, id)) e->running = false;
  zorv_record_update_stale(&r);
}

bool zorv_record_lost(zorv_filter* f, const u8 (&id)[snap_id_bytes]) {
  zorv_record& r = f->record;
  kernel::spin_guard guard(&r.lock);
  zorv_record_entry* e = find(&r, id);
  if (e == nullptr) return false;
  const auto gone = static_cast<u32>(e - r.entries) + 1;
  for (u32 i = gone; i < r.count; ++i) r.entries[i - gone] = r.entries[i];
  r.count -= gone;
  note_strike(&r);
  zorv_record_update_stale(&r);
  return true;
}

int zorv_record_save(zorv_filter* f) {
  const rzmutex_hold files(&f->record.mutex, file_limit_jiffies, __func__);
  return files ? recordfile::settle(f) : -EIO;
}

void zorv_record_restore(zorv_filter* f) {
  {
    kernel::spin_guard guard(&f->record.lock);
    if (f->record.count == 0 || f->record.listed) return;
  }
  if (zorv_record_save(f) == 0) return;
  zorv_log(LOG_ERROR, "%s(): No snap of zorv(%d, %d) can be resumed as valid: %s is missing",
           __func__, zorv_blk_major, f->filter_minor, f->record.fname);
}

void zorv_record_wanted(zorv_filter* f) {
  {
    marks_guard guard(f);
    f->record_due = true;
  }
  zorv_marks_settle(f);
}

int zorv_record_write(zorv_filter* f) {
  zorv_record& r = f->record;
  int rc = 0;
  {
    rzmutex_guard files(&r.mutex);
    for (bool again = true; again && rc == 0;) {
      {
        kernel::spin_guard guard(&r.lock);
        strike(&r);
      }
      rc = recordfile::settle(f);
      if (rc != 0) {
        // There may be no file at all, and none can be made: then nothing lists what has gone.
        kernel::spin_guard guard(&r.lock);
        if (!r.ahead) rc = 0;
      }
      marks_guard guard(f);
      again = r.stale.load();
      if (rc == 0 && !again) f->record_due = false;
    }
  }
  wake_held_writes(f);
  return rc;
}

int zorv_record_excuse(zorv_filter* f) {
  zorv_record& r = f->record;
  {
    kernel::spin_guard guard(&r.lock);
    strike(&r);
  }
  const int rc = recordfile::retire(f);
  {
    marks_guard guard(f);
    if (rc == 0) f->record_due = false;
  }
  wake_held_writes(f);
  return rc;
}

}  // namespace zorv
