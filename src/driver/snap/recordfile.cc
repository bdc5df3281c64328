// SPDX-License-Identifier: GPL-2.0-only
// The file has two slots, written in turn: while one is being written the other still says what the
// file said before. What a reader takes is the whole slot of the higher number. A list that a
// strike has shortened is never followed by a longer one without a start in between, so whichever
// of the two a power cut leaves lists nothing that the other side of the strike did not.
//
// A file is believed on the state folder's word alone: that names, for each disk, the file that was
// last in use for it and the number from which on it counts. So one that has been left for another
// folder or minor, an older copy that comes back, and one that could not be written list nothing.
#include "driver/snap/recordfile.h"

#include <cstdlib>

#include "driver/bitmap/bitmap.h"
#include "driver/core/log.h"
#include "kernel/mem.h"
#include "kernel/random.h"
#include "kernel/state.h"
#include "kernel/text.h"

namespace zorv {

namespace {

constexpr char slot_magic[8] = {'Z', 'O', 'R', 'V', 'S', 'N', 'P', '1'};
constexpr u64 slot_stride = 12288;  // bytes from one slot to the other

// Integers are little-endian.
struct slot_disk {
  char magic[8];
  u64 seq;
  u8 file_id[16];
  u8 state[16];  // the state folder's id
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

bool is_named(const zorv_filter* f) { return f->disk_identity[0] != '\0'; }

}  // namespace

namespace recordfile {

int open(zorv_filter* f, u32 flags) {
  zorv_record& r = f->record;
  char owner[kernel::file_claim::owner_bytes];
  std::snprintf(owner, sizeof owner, "zorv(%d, %u)'s record of its snaps", zorv_blk_major,
                f->filter_minor);
  const int rc = zorv_fopen_own(r.fname, flags | kernel::FO_RDWR | kernel::FO_LARGEFILE, owner,
                                file_lock::exclusive, &r.claim, &r.file);
  if (rc != 0) return rc;
  r.foreign = zorv_fis_foreign(r.file, 0, slot_magic, sizeof slot_magic) ||
              zorv_fis_foreign(r.file, slot_stride, slot_magic, sizeof slot_magic);
  return 0;
}

void close(zorv_record* r) {
  if (r->file != nullptr) zorv_fclose(r->file);
  r->file = nullptr;
  r->claim.reset();
  r->name_synced = false;
}

int retire(zorv_filter* f) {
  zorv_record& r = f->record;
  if (!is_named(f)) return -ENODATA;
  rzmutex_guard guard(&r.word_mutex);
  const int rc = kernel::state_forget(zorv_disk_key(f, ".snaps").text, r.fname);
  if (rc != 0) return rc;
  r.named = r.rival = false;
  kernel::spin_guard list(&r.lock);
  r.listed = r.ahead = false;
  zorv_record_update_stale(&r);
  return 0;
}

}  // namespace recordfile

namespace {

using recordfile::retire;

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

// ---- the state folder's word -------------------------------------------------------------------

struct word_text {
  char text[96];
};
word_text word_of(const u8 (&file_id)[16], u64 seq, u64 disk_bytes) {
  word_text word;
  std::snprintf(word.text, sizeof word.text, "%s.%llu.%llu", kernel::hex_text(file_id).text,
                static_cast<unsigned long long>(seq), static_cast<unsigned long long>(disk_bytes));
  return word;
}

// Whether the word is about the slot or an earlier one of its file, and this folder's to give.
bool names(const word_text& word, const slot_disk& d) {
  const int digits = 2 * sizeof d.file_id + 1;
  u8 folder[16];
  kernel::state_id(folder);
  return std::memcmp(d.state, folder, sizeof folder) == 0 &&
         std::strncmp(word.text, word_of(d.file_id, 0, 0).text, digits) == 0 &&
         std::strtoull(word.text + digits, nullptr, 10) <= d.seq;
}

// The file, on disk with the entries as they were, is the one that counts. If entries have been
// taken out since then it lists too much, and is written again.
//   returns  0 | negative errno (logged): it may not be believed; ahead says whether another is
int stand_in(zorv_filter* f, u32 strikes) {
  zorv_record& r = f->record;
  rzmutex_guard guard(&r.word_mutex);  // nobody retires it between the look and the word
  {
    kernel::spin_guard list(&r.lock);
    if (r.strikes != strikes) return 0;
  }
  int rc = 0;
  if (is_named(f)) {
    rc = kernel::state_put(zorv_disk_key(f, ".snaps").text,
                           word_of(r.file_id, r.seq, f->dev_size).text);
  }
  if (rc == 0) {
    r.named = true;
    r.rival = false;
  } else {
    zorv_log(LOG_ERROR, "%s(): The state folder can't be told of %s: rc=%d", "zorv_record_write",
             r.fname, rc);
  }
  if (r.rival) return rc;
  kernel::spin_guard list(&r.lock);
  if (r.strikes == strikes) r.ahead = false;  // else the word is about a list that is too long
  zorv_record_update_stale(&r);
  return r.named ? 0 : rc;  // an earlier word about the file will do
}

// ---- the file, written -------------------------------------------------------------------------

// The open file is not what the name leads to any more: should it come back, it lists nothing.
//   returns  0 (it is closed) | negative errno
int leave_file(zorv_filter* f) {
  zorv_record& r = f->record;
  if (r.file == nullptr) return 0;
  int rc = r.foreign ? 0 : kernel::vfs_empty(r.file->filp);
  if (rc == 0) rc = zorv_fsync(r.file);
  if (rc != 0) rc = retire(f);
  if (rc != 0) return rc;
  recordfile::close(&r);
  rzmutex_guard guard(&r.word_mutex);
  kernel::get_random_bytes(r.file_id, sizeof r.file_id);
  r.named = false;
  return 0;
}

//   returns  0 | negative errno (logged)
int write_slot(zorv_filter* f, slot_disk* d, u32* strikes) {
  zorv_record& r = f->record;
  if (!in_place(r)) {
    int rc = leave_file(f);
    if (rc == 0) rc = recordfile::open(f, kernel::FO_CREAT);
    // Another node's says nothing of this one.
    if (rc == 0 && !r.foreign) rc = kernel::vfs_empty(r.file->filp);
    if (rc != 0) return rc;
  }
  if (r.foreign) return -EEXIST;
  {
    kernel::spin_guard guard(&r.lock);
    r.listed = true;
  }
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

// A file that cannot be written says nothing when it is gone.
int remove_file(zorv_filter* f) {
  zorv_record& r = f->record;
  if (!in_place(r) || r.foreign) return -ESTALE;
  {
    rzmutex_guard guard(&r.word_mutex);
    if (r.rival) return -EBUSY;  // it is not this one that would be believed
  }
  int rc = kernel::fs_unlink_file(r.fname, r.claim.id());
  if (rc == 0) rc = kernel::fs_sync_parent(r.fname);
  if (rc != 0) return rc;
  recordfile::close(&r);
  kernel::spin_guard guard(&r.lock);
  r.listed = r.ahead = false;
  zorv_record_update_stale(&r);
  return 0;
}

// ---- the file, read ----------------------------------------------------------------------------

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
  if (found != 0) r->seq = d->seq;
  return found;
}

// Why the list cannot be believed, or null.
const char* difference(const zorv_filter* f, const slot_disk& d, bool named) {
  if (!is_named(f)) return "the disk has nothing stable to name it by";
  if (std::strncmp(d.identity, f->disk_identity, sizeof d.identity) != 0) {
    return "it is of another disk";
  }
  if (d.disk_bytes != f->dev_size) return "the disk has another size";
  return named ? nullptr : "the state folder does not name it: the disk was in use without it";
}

// Takes the list over, or remembers that there may be one that this node does not believe.
//   d  null: there is no file with a list
void take_list(zorv_filter* f, const slot_disk* d) {
  zorv_record& r = f->record;
  word_text word{};
  int said = is_named(f)
                 ? kernel::state_get(zorv_disk_key(f, ".snaps").text, word.text, sizeof word.text)
                 : 0;
  if (said == -ENOENT) said = 0;  // no folder
  const bool named = d != nullptr && said > 0 && names(word, *d);
  const char* why = d == nullptr ? nullptr : difference(f, *d, named);
  const bool lists = d != nullptr && d->count != 0;
  if (why != nullptr && lists) {
    zorv_log(LOG_ERROR, "%s(): No snap of zorv(%d, %d) can be resumed as valid: %s: %s.",
             "zorv_record_attach", zorv_blk_major, f->filter_minor, r.fname, why);
  }
  rzmutex_guard guard(&r.word_mutex);
  r.named = named && why == nullptr;
  r.rival = said != 0 && !named;
  if (r.named) {
    std::memcpy(r.file_id, d->file_id, sizeof r.file_id);
  } else {
    kernel::get_random_bytes(r.file_id, sizeof r.file_id);
  }
  kernel::spin_guard list(&r.lock);
  r.listed = lists || said != 0;
  r.ahead = r.rival || (lists && why != nullptr);
  for (u32 i = 0; r.named && i < d->count; ++i) {
    zorv_record_entry& e = r.entries[r.count++];
    std::memcpy(e.id, d->ids[i], snap_id_bytes);
    e.instant = ++r.instants;
    e.running = false;
  }
  zorv_record_update_stale(&r);
}

// What an earlier life has written may not be on disk yet: a power cut could bring back a list
// that is longer.
int make_stable(zorv_file* file) {
  const int rc = zorv_fsync(file);
  return rc != 0 ? rc : kernel::fs_sync_parent(file->fname);
}

}  // namespace

namespace recordfile {

int settle(zorv_filter* f) {
  const slot_ptr d = alloc_slot();
  if (d == nullptr) return -ENOMEM;
  zorv_record& r = f->record;
  u32 strikes = 0;
  int rc = write_slot(f, d.get(), &strikes);
  if (rc == 0) rc = stand_in(f, strikes);
  if (rc == 0) return 0;
  {
    kernel::spin_guard guard(&r.lock);
    if (!r.ahead) return rc;
  }
  return retire(f) == 0 || remove_file(f) == 0 ? 0 : rc;
}

void load(zorv_filter* f, zorv_file* file) {
  zorv_record& r = f->record;
  const slot_ptr d = alloc_slot();
  const slot_ptr other = alloc_slot();
  int rc = d != nullptr && other != nullptr ? 0 : -ENOMEM;
  if (rc == 0) rc = file != nullptr ? make_stable(file) : -EACCES;
  if (rc == 0) rc = read_slots(&r, file, d.get(), other.get());
  take_list(f, rc > 0 ? d.get() : nullptr);
  if (rc >= 0) return;
  zorv_log(LOG_ERROR, "%s(): No snap of zorv(%d, %d) can be resumed as valid: %s: rc=%d.",
           "zorv_record_attach", zorv_blk_major, f->filter_minor, r.fname, rc);
  // Its numbers are not known, and a lower one would not count: what is written next is another.
  recordfile::close(&r);
  kernel::spin_guard guard(&r.lock);
  r.listed = r.ahead = true;  // somebody may be able to read it
  zorv_record_update_stale(&r);
}

void load_nothing(zorv_filter* f) { take_list(f, nullptr); }

}  // namespace recordfile

}  // namespace zorv
