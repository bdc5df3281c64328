// SPDX-License-Identifier: GPL-2.0-only
// The file has two slots, written in turn: while one is being written the other still says what the
// file said before. What a reader takes is the whole slot of the higher number. A list that a
// strike has shortened is never followed by a longer one without a start in between, so whichever
// of the two a power cut leaves lists nothing that the other side of the strike did not.
#include "driver/snap/record.h"

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "kernel/mem.h"
#include "kernel/random.h"
#include "kernel/state.h"

namespace zorv {

namespace {

constexpr char slot_magic[8] = {'Z', 'O', 'R', 'V', 'S', 'N', 'P', '1'};
constexpr u64 slot_stride = 12288;  // bytes from one slot to the other

// Integers are little-endian.
struct slot_disk {
  char magic[8];
  u64 seq;
  u8 file_id[16];
  u8 state[kernel::state_id_bytes];
  u64 disk_bytes;
  u32 count;
  u32 reserved;
  char identity[kernel::bdev_identity_bytes];  // NUL-padded; empty: nothing stable
  u8 ids[record_max][snap_id_bytes];           // oldest instant first
  u32 reserved2;
  u32 crc;  // zorv_crc32 of all before it, from 0xFFFFFFFF
};
static_assert(sizeof(slot_disk) == 64 + 1024 + 512 * 16 + 8 && sizeof(slot_disk) <= slot_stride);
using slot_ptr = kernel::kbuf<slot_disk>;

slot_ptr alloc_slot() {
  slot_ptr slot(static_cast<slot_disk*>(kernel::kzalloc(sizeof(slot_disk), kernel::GFP_NOIO)));
  if (slot == nullptr) zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", "zorv_record_write");
  return slot;
}

u32 crc_of(const slot_disk& d) {
  u32 crc = 0xFFFFFFFF;
  zorv_crc32(&d, offsetof(slot_disk, crc), &crc);
  return crc;
}

bool is_zero(const u8 (&id)[16]) {
  const u8 zero[16] = {};
  return std::memcmp(id, zero, sizeof zero) == 0;
}

void fill_note_key(const zorv_record& r, char (&key)[64]) {
  char* at = key;
  for (const u8 byte : r.file_id) at += std::snprintf(at, 3, "%02x", byte);
  std::snprintf(at, sizeof key - 32, ".snaps");
}

// ---- the list ------------------------------------------------------------------------------

void update_stale(zorv_record* r) REQUIRES(r->lock) {
  bool stale = r->ahead && !r->excused;
  for (u32 i = 0; i < r->count; ++i) stale = stale || !r->entries[i].running;
  r->stale.store(stale);
}

zorv_record_entry* find(zorv_record* r, const u8 (&id)[snap_id_bytes]) REQUIRES(r->lock) {
  for (u32 i = 0; i < r->count; ++i) {
    if (std::memcmp(r->entries[i].id, id, snap_id_bytes) == 0) return &r->entries[i];
  }
  return nullptr;
}

void note_strike(zorv_record* r) REQUIRES(r->lock) {
  r->ahead = r->on_file;
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
  update_stale(r);
}

// ---- the file ------------------------------------------------------------------------------

int open_record(zorv_filter* f, u32 flags) {
  zorv_record& r = f->record;
  char owner[kernel::file_claim::owner_bytes];
  std::snprintf(owner, sizeof owner, "zorv(%d, %u)'s record of its snaps", zorv_blk_major,
                f->filter_minor);
  return zorv_fopen_own(r.fname, flags | kernel::FO_RDWR | kernel::FO_LARGEFILE, owner,
                        file_lock::exclusive, &r.claim, &r.file);
}

void close_record(zorv_record* r) {
  if (r->file != nullptr) zorv_fclose(r->file);
  r->file = nullptr;
  r->claim.reset();
  r->name_synced = false;
}

// Whether the name leads to the open file still.
bool in_place(const zorv_record& r) {
  kernel::file_id there;
  return r.file != nullptr && kernel::path_identity(r.fname, &there) == 0 && there == r.claim.id();
}

//   returns  the number of strikes by then
u32 fill_slot(zorv_filter* f, slot_disk* d) {
  zorv_record& r = f->record;
  std::memcpy(d->magic, slot_magic, sizeof slot_magic);
  d->seq = r.seq + 1;
  std::memcpy(d->file_id, r.file_id, sizeof d->file_id);
  kernel::state_id(d->state);
  d->disk_bytes = f->dev_size;
  copy_text(d->identity, f->disk_identity);
  kernel::spin_guard guard(&r.lock);
  d->count = r.count;
  for (u32 i = 0; i < r.count; ++i) std::memcpy(d->ids[i], r.entries[i].id, snap_id_bytes);
  return r.strikes;
}

void set_on_file(zorv_record* r) {
  kernel::spin_guard guard(&r->lock);
  r->on_file = true;
}

int note_file(zorv_record* r) {
  char key[64];
  fill_note_key(*r, key);
  return kernel::state_note(key, r->fname);
}

// The open file is not what the name leads to any more: should it come back, it lists nothing.
//   returns  0 (it is closed) | negative errno
int leave_file(zorv_record* r) {
  if (r->file == nullptr) return 0;
  int rc = kernel::vfs_empty(r->file->filp);
  if (rc == 0) rc = zorv_fsync(r->file);
  rzmutex_guard notes(&r->note_mutex);
  if (rc != 0) rc = note_file(r);
  if (rc != 0) return rc;
  close_record(r);
  kernel::get_random_bytes(r->file_id, sizeof r->file_id);  // notes are about the one that is left
  kernel::spin_guard guard(&r->lock);
  r->excused = false;
  update_stale(r);
  return 0;
}

//   returns  0 | negative errno (logged)
int write_slot(zorv_filter* f, slot_disk* d, u32* strikes) {
  zorv_record& r = f->record;
  if (!in_place(r)) {
    int rc = leave_file(&r);
    if (rc == 0) rc = open_record(f, kernel::FO_CREAT);
    // Whatever it is, it says nothing of this node.
    if (rc == 0 && kernel::file_size(r.file->filp) != 0) rc = kernel::vfs_empty(r.file->filp);
    if (rc != 0) return rc;
  }
  set_on_file(&r);
  std::memset(d, 0, sizeof *d);
  *strikes = fill_slot(f, d);
  d->crc = crc_of(*d);
  int rc = zorv_fwrite(r.file, d->seq % 2 * slot_stride, d, sizeof *d);
  if (rc >= 0) rc = zorv_fsync(r.file);
  if (rc >= 0 && !r.name_synced) rc = kernel::fs_sync_parent(r.fname);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to write %s: rc=%d", "zorv_record_write", r.fname, rc);
    return rc;
  }
  r.name_synced = true;
  r.seq = d->seq;
  return 0;
}

// The file is what the entries were when it was written. If entries have been taken out since then
// it still lists too much, and a note about it stays.
void written(zorv_filter* f, u32 strikes) {
  zorv_record& r = f->record;
  rzmutex_guard notes(&r.note_mutex);  // nobody notes it between the look and the forgetting
  bool noted = false;
  {
    kernel::spin_guard guard(&r.lock);
    if (r.strikes != strikes) return;
    r.ahead = false;
    noted = r.excused;
  }
  char key[64];
  fill_note_key(r, key);
  if (noted && kernel::state_forget(key) != 0) return;
  kernel::spin_guard guard(&r.lock);
  r.excused = false;
  update_stale(&r);
}

// Reads the two slots; what is left in *d is the valid one of the higher number.
//   returns  1 | 0 (none is valid: nobody will ever take this file) | negative errno
int read_slots(zorv_record* r, zorv_file* file, slot_disk* d, slot_disk* other) {
  int found = 0;
  for (u64 i = 0; i < 2; ++i) {
    if (kernel::file_size(file->filp) < i * slot_stride + sizeof *other) break;
    const int rc = zorv_fread(file, i * slot_stride, other, sizeof *other);
    if (rc < 0) return rc;
    if (rc != static_cast<int>(sizeof *other) || other->crc != crc_of(*other) ||
        std::memcmp(other->magic, slot_magic, sizeof slot_magic) != 0 ||
        other->count > record_max) {
      continue;
    }
    if (found == 0 || other->seq > d->seq) *d = *other;
    found = 1;
  }
  if (found != 0) {
    r->seq = d->seq;
    std::memcpy(r->file_id, d->file_id, sizeof r->file_id);
  }
  return found;
}

// Whether the state folder has a note about the file: 1, 0 or a negative errno.
int is_noted(const zorv_record& r) {
  char key[64];
  fill_note_key(r, key);
  return kernel::state_noted(key);
}

// Why the list cannot be believed, or null.
const char* difference(const zorv_filter* f, const slot_disk& d) {
  u8 state[kernel::state_id_bytes];
  kernel::state_id(state);
  if (f->disk_identity[0] == '\0') return "the disk has nothing stable to name it by";
  if (std::strncmp(d.identity, f->disk_identity, sizeof d.identity) != 0) {
    return "it is of another disk";
  }
  if (d.disk_bytes != f->dev_size) return "the disk has another size";
  if (is_zero(state)) return "there is no state folder";
  if (std::memcmp(d.state, state, sizeof state) != 0) return "another state folder was in use";
  const int noted = is_noted(f->record);
  if (noted < 0) return "the state folder can't be read";
  return noted > 0 ? "it could not be written" : nullptr;
}

// Takes the list over, or remembers that the file lists what this node does not believe.
void take_list(zorv_filter* f, const slot_disk& d, const char* why) {
  zorv_record& r = f->record;
  if (why != nullptr && d.count != 0) {
    zorv_log(LOG_ERROR, "%s(): No snap of zorv(%d, %d) can be resumed as valid: %s: %s.",
             "zorv_record_attach", zorv_blk_major, f->filter_minor, r.fname, why);
  }
  const bool noted = is_noted(r) > 0;
  kernel::spin_guard guard(&r.lock);
  r.on_file = true;
  r.ahead = why != nullptr && d.count != 0;
  r.excused = noted;  // until the file has been written anew
  for (u32 i = 0; why == nullptr && i < d.count; ++i) {
    zorv_record_entry& e = r.entries[r.count++];
    std::memcpy(e.id, d.ids[i], snap_id_bytes);
    e.instant = ++r.instants;
    e.running = false;
  }
  update_stale(&r);
}

// What an earlier life has written may not be on disk yet: a power cut could bring back a list
// that is longer.
int make_stable(zorv_file* file) {
  const int rc = zorv_fsync(file);
  return rc != 0 ? rc : kernel::fs_sync_parent(file->fname);
}

void load(zorv_filter* f, zorv_file* file) {
  zorv_record& r = f->record;
  const slot_ptr d = alloc_slot();
  const slot_ptr other = alloc_slot();
  int rc = d != nullptr && other != nullptr ? make_stable(file) : -ENOMEM;
  if (rc == 0) rc = read_slots(&r, file, d.get(), other.get());
  if (rc > 0) take_list(f, d[0], difference(f, d[0]));
  if (rc >= 0) return;
  zorv_log(LOG_ERROR, "%s(): No snap of zorv(%d, %d) can be resumed as valid: %s: rc=%d.",
           "zorv_record_attach", zorv_blk_major, f->filter_minor, r.fname, rc);
  kernel::spin_guard guard(&r.lock);
  r.on_file = r.ahead = true;  // somebody may be able to read it
  update_stale(&r);
}

// What can be neither written nor removed is noted.
int note(zorv_filter* f) {
  zorv_record& r = f->record;
  rzmutex_guard notes(&r.note_mutex);
  if (is_zero(r.file_id)) return -ENOENT;  // nothing is known of the file
  const int rc = note_file(&r);
  if (rc != 0) return rc;
  kernel::spin_guard guard(&r.lock);
  r.excused = true;
  update_stale(&r);
  return 0;
}

// A file that cannot be written says nothing when it is gone.
int remove_file(zorv_filter* f) {
  zorv_record& r = f->record;
  if (r.file != nullptr && !in_place(r)) return -ESTALE;
  kernel::file_id there;
  int rc = kernel::path_identity(r.fname, &there);
  if (rc == 0) rc = kernel::fs_unlink_file(r.fname, there);
  if (rc == 0) rc = kernel::fs_sync_parent(r.fname);
  if (rc != 0) return rc;
  close_record(&r);
  kernel::spin_guard guard(&r.lock);
  r.on_file = r.ahead = false;
  update_stale(&r);
  return 0;
}

// Has the file say what the entries say, or at least not be believed where it says more.
//   returns  0 | negative errno
int settle(zorv_filter* f, slot_disk* d) {
  zorv_record& r = f->record;
  u32 strikes = 0;
  const int rc = write_slot(f, d, &strikes);
  if (rc == 0) {
    written(f, strikes);
    return 0;
  }
  {
    kernel::spin_guard guard(&r.lock);
    if (r.excused) return 0;
    if (!r.ahead) return rc;
  }
  return remove_file(f) == 0 || note(f) == 0 ? 0 : rc;
}

void wake_held_writes(zorv_filter* f) {
  f->cowqueue.events.fetch_add(1);
  kernel::wake_up_all(&f->cowqueue.wait);
}

}  // namespace

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
  int rc = open_record(f, 0);
  if (rc == -EBUSY) return rc;
  if (rc == 0) {
    load(f, r.file);
  } else if (rc != -ENOENT && rc != -EINVAL) {
    // One that can only be read lists what it lists all the same.
    const zorv_file_ptr reader(zorv_fopen(r.fname, kernel::FO_RDONLY | kernel::FO_NOFOLLOW, 0));
    if (reader != nullptr) load(f, reader.get());
    kernel::spin_guard guard(&r.lock);
    if (reader == nullptr) r.on_file = r.ahead = true;
    update_stale(&r);
  }
  if (is_zero(r.file_id)) kernel::get_random_bytes(r.file_id, sizeof r.file_id);
  return 0;
}

void zorv_record_detach(zorv_filter* f) {
  zorv_record& r = f->record;
  close_record(&r);
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
  update_stale(&r);
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
  update_stale(&r);
  return nullptr;
}

void zorv_record_stopped(zorv_filter* f, const u8 (&id)[snap_id_bytes]) {
  zorv_record& r = f->record;
  kernel::spin_guard guard(&r.lock);
  if (zorv_record_entry* e = find(&r, id)) e->running = false;
  update_stale(&r);
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
  update_stale(&r);
  return true;
}

int zorv_record_save(zorv_filter* f) {
  const slot_ptr d = alloc_slot();
  if (d == nullptr) return -ENOMEM;
  rzmutex_guard files(&f->record.mutex);
  return settle(f, d.get());
}

void zorv_record_restore(zorv_filter* f) {
  {
    kernel::spin_guard guard(&f->record.lock);
    if (f->record.count == 0 || (f->record.on_file && !f->record.excused)) return;
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
  const slot_ptr d = alloc_slot();
  if (d == nullptr) return -ENOMEM;
  int rc = 0;
  {
    rzmutex_guard files(&r.mutex);
    for (bool again = true; again && rc == 0;) {
      {
        kernel::spin_guard guard(&r.lock);
        strike(&r);
      }
      rc = settle(f, d.get());
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
  const int rc = note(f);
  {
    marks_guard guard(f);
    if (rc == 0) f->record_due = false;
  }
  wake_held_writes(f);
  return rc;
}

}  // namespace zorv
