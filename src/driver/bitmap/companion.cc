// SPDX-License-Identifier: GPL-2.0-only
#include "driver/bitmap/companion.h"

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "kernel/mem.h"
#include "kernel/random.h"
#include "kernel/state.h"
#include "kernel/text.h"

namespace zorv {

namespace {

constexpr char magic[8] = {'Z', 'O', 'R', 'V', 'D', 'S', 'K', '1'};
constexpr u32 own_flags = kernel::FO_RDWR | kernel::FO_LARGEFILE;

// Integers are little-endian, as the hosts are that this runs on.
struct companion_disk {
  char magic[8];
  u8 pair[16];
  u8 state[16];
  u64 disk_bytes;
  u32 extent_bytes;
  u32 reserved;
  char identity[kernel::bdev_identity_bytes];  // NUL-terminated; empty: nothing stable
  u32 reserved2;
  u32 crc;  // zorv_crc32 of all before it, from 0xFFFFFFFF
};
static_assert(sizeof(companion_disk) == 56 + 1024 + 8);
constexpr int record_bytes = sizeof(companion_disk);

u32 crc_of(const companion_disk& d) {
  u32 crc = 0xFFFFFFFF;
  zorv_crc32(&d, offsetof(companion_disk, crc), &crc);
  return crc;
}

// What a companion would have to say now.
void fill_present(const zorv_filter* f, companion_disk* d) {
  *d = {};
  std::memcpy(d->magic, magic, sizeof magic);
  std::memcpy(d->pair, f->companion.pair, sizeof d->pair);
  kernel::state_id(d->state);
  d->disk_bytes = f->dev_size;
  d->extent_bytes = f->extent_size;
  copy_text(d->identity, f->disk_identity);
}

bool is_zero(const u8 (&id)[16]) {
  const u8 zero[16] = {};
  return std::memcmp(id, zero, sizeof zero) == 0;
}

// Why no bitmap files of an earlier life are ever believed; null when they may be.
const char* nameless(const zorv_filter* f) {
  if (f->hdd_is_node) return "the disk is a node, which may have been written to without this one";
  return f->disk_identity[0] == '\0' ? "the disk has nothing stable to name it by" : nullptr;
}

// Why the bitmap files beside it cannot be believed; null when they can.
const char* difference(const companion_disk& d, const companion_disk& now) {
  if (std::memcmp(d.identity, now.identity, sizeof d.identity) != 0) return "it is of another disk";
  if (d.disk_bytes != now.disk_bytes) return "the disk has another size";
  if (d.extent_bytes != now.extent_bytes) return "the extents have another size";
  if (is_zero(now.state)) return "there is no state folder";
  if (std::memcmp(d.state, now.state, sizeof d.state) != 0) {
    return "another state folder was in use";
  }
  return nullptr;
}

// Reads it and says why it does not do, or null.
const char* read_companion(zorv_filter* f, zorv_file* file) {
  zorv_companion& c = f->companion;
  c.foreign = zorv_fis_foreign(file, 0, magic, sizeof magic);
  if (kernel::file_size(file->filp) == 0) return "it is new";
  if (c.foreign) return "it is something else";
  companion_disk d;
  companion_disk now;
  if (zorv_fread(file, 0, &d, record_bytes) != record_bytes || crc_of(d) != d.crc ||
      std::memcmp(d.magic, magic, sizeof magic) != 0 ||
      strnlen(d.identity, sizeof d.identity) == sizeof d.identity) {
    return "it is damaged";
  }
  std::memcpy(c.pair, d.pair, sizeof c.pair);
  fill_present(f, &now);
  c.notes = !is_zero(now.state) && std::memcmp(d.state, now.state, sizeof d.state) == 0;
  return difference(d, now);
}

// What the state folder says of the pair that stands for the disk: which it is, and in which file,
// since of a copy nobody knows from when it is.
struct pair_text {
  char text[112];
};
pair_text text_of_pair(const zorv_filter* f) {
  const zorv_companion& c = f->companion;
  pair_text pair;
  const kernel::file_id id = c.claim.held() ? c.claim.id() : kernel::file_id{};
  std::snprintf(pair.text, sizeof pair.text, "%s.%llu.%lld.%llu", kernel::hex_text(c.pair).text,
                static_cast<unsigned long long>(id.ino), static_cast<long long>(id.birth_ns),
                static_cast<unsigned long long>(f->dev_size));
  return pair;
}

bool pair_stands(const zorv_filter* f) {
  char said[sizeof(pair_text)] = {};
  // Without a birth a copy of the companion may pass for it.
  return f->companion.claim.held() && f->companion.claim.id().birth_ns != 0 &&
         kernel::state_get(zorv_disk_key(f).text, said, sizeof said) > 0 &&
         std::strcmp(said, text_of_pair(f).text) == 0;
}

// No pair stands for the disk from now on, until one is written anew.
//   returns  0 | negative errno (logged)
int retire_pairs(const zorv_filter* f) {
  if (f->hdd_is_node) return 0;  // the filter below sees what is written
  int rc = 0;
  if (f->disk_identity[0] != '\0') {
    rc = kernel::state_forget(zorv_disk_key(f).text);
  } else {  // it may be any disk of its size
    char size[24];
    std::snprintf(size, sizeof size, ".%llu", static_cast<unsigned long long>(f->dev_size));
    rc = kernel::state_forget_all("disk-", size);
  }
  if (rc == 0 || rc == -ENOENT) return 0;
  zorv_log(LOG_ERROR, "%s(): The state folder can't be changed: rc=%d", "zorv_companion_attach",
           rc);
  return rc;
}

int open_locked(zorv_filter* f, u32 flags) {
  char owner[kernel::file_claim::owner_bytes];
  std::snprintf(owner, sizeof owner, "zorv(%d, %d)'s companion of its bitmaps", zorv_blk_major,
                static_cast<int>(f->filter_minor));
  zorv_companion& c = f->companion;
  return zorv_fopen_own(c.fname, flags, owner, file_lock::exclusive, &c.claim, &c.file);
}

bool bitmap_files_there(const zorv_filter* f) {
  kernel::file_id ignored;
  return kernel::path_identity(f->incr_bmp_fname, &ignored) == 0 ||
         kernel::path_identity(f->diff_bmp_fname, &ignored) == 0;
}

}  // namespace

int zorv_companion_attach(zorv_filter* f) {
  zorv_companion& c = f->companion;
  const char* why = nullptr;
  kernel::file_id there;
  if (kernel::path_identity(c.fname, &there) != 0) there = {};
  int rc = open_locked(f, own_flags);
  c.absent = rc == -ENOENT;
  if (rc == -ENOENT) rc = open_locked(f, own_flags | kernel::FO_CREAT);
  if (rc == -EBUSY) return rc;
  if (rc == 0) {
    c.absent = c.absent || kernel::file_size(c.file->filp) == 0;
    why = read_companion(f, c.file);
  } else if (rc == -EINVAL) {
    c.absent = true;  // no file that a companion could ever be read from
    why = "it is no ordinary file";
  } else {
    why = c.absent ? "there is none" : "it can't be opened for writing";
    // Where nothing can be written, a note may be about this pair all the same.
    kernel::file* filp = kernel::filp_open(c.fname, kernel::FO_RDONLY | kernel::FO_NOFOLLOW, 0);
    if (!kernel::is_err(filp)) {
      zorv_file reader{c.fname, filp};
      (void)read_companion(f, &reader);
      kernel::filp_close(filp);
    }
  }
  const char* const never = nameless(f);
  if (never != nullptr) why = never;
  if (why == nullptr && !pair_stands(f)) {
    why = "other bitmap files have been in use for the disk since";
  }
  c.ours = why == nullptr;
  if (!c.ours && (rc = retire_pairs(f)) != 0) return rc;
  c.unusable = c.file == nullptr ? there : kernel::file_id{};
  // A node's first life is nothing to report.
  const bool made = c.absent && c.file != nullptr && never == nullptr;
  const bool fresh = made && !bitmap_files_there(f);
  if (made && !fresh) why = "it is missing beside bitmap files";
  c.why.store(fresh ? nullptr : why);
  if (!c.ours) {
    zorv_log(1, "%s(): Everything counts as changed on zorv(%d, %d): %s: %s.", __func__,
             zorv_blk_major, f->filter_minor, c.fname, why);
  }
  return 0;
}

int zorv_companion_renew(zorv_filter* f) {
  zorv_companion& c = f->companion;
  if (c.file == nullptr) {
    const int rc = open_locked(f, own_flags | kernel::FO_CREAT);
    if (rc != 0) return rc == -EBUSY || rc == -EINVAL || rc == -ENOENT ? rc : -EIO;
    c.foreign = zorv_fis_foreign(c.file, 0, magic, sizeof magic);
  }
  if (c.foreign) return -EEXIST;
  // Notes about the pair as it was mean nothing from now on.
  rzmutex_guard notes(&f->companion.note_mutex);
  zorv_state_key old[2];
  const bool noted =
      zorv_companion_note_key(f, "incr", &old[0]) && zorv_companion_note_key(f, "diff", &old[1]);
  c.notes = false;
  kernel::get_random_bytes(c.pair, sizeof c.pair);
  companion_disk d;
  fill_present(f, &d);
  d.crc = crc_of(d);
  c.absent = false;
  int rc = zorv_fwrite(c.file, 0, &d, record_bytes);
  if (rc >= 0) rc = zorv_fsync(c.file);
  if (rc >= 0) rc = kernel::fs_sync_parent(c.fname);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to write %s: rc=%d", __func__, c.fname, rc);
    return rc;
  }
  if (nameless(f) == nullptr) {
    rc = kernel::state_put(zorv_disk_key(f).text, text_of_pair(f).text);
  }
  if (rc != 0 && rc != -ENOENT) {
    zorv_log(LOG_ERROR, "%s(): The state folder can't be changed: rc=%d", __func__, rc);
    return rc;
  }
  c.ours = true;
  c.notes = !is_zero(d.state);
  {
    marks_guard guard(f);
    for (zorv_mark_state& m : f->marks) m.excused = false;  // the notes were about the old pair
  }
  for (const zorv_state_key& key : old) {
    if (noted) (void)kernel::state_forget(key.text);
  }
  return 0;
}

int zorv_companion_follow(zorv_filter* f) {
  zorv_companion& c = f->companion;
  kernel::file_id there;
  const int looked = kernel::path_identity(c.fname, &there);
  if (c.file != nullptr) {
    if (looked == 0 && there == c.claim.id()) return 0;
    if (looked != 0 && looked != -ENOENT && looked != -ENOTDIR) return 0;  // it cannot be told
    zorv_log(LOG_ERROR, "%s(): %s is not the file that it was.", __func__, c.fname);
    zorv_companion_detach(f);
    c.lost = true;
  } else if (looked != 0) {
    return 0;  // no companion, so nobody else's either
  } else if (!c.lost && c.unusable.valid() && there == c.unusable) {
    return 0;  // what it means has been seen to
  }
  const int rc = zorv_companion_attach(f);
  if (rc != 0) return rc;
  if (c.lost && c.ours) {
    const int retired = retire_pairs(f);
    if (retired != 0) return retired;
  }
  c.lost = c.ours = false;
  marks_guard guard(f);
  for (zorv_mark_state& m : f->marks) m.maybe_current = true;
  return 0;
}

void zorv_companion_detach(zorv_filter* f) {
  zorv_companion& c = f->companion;
  if (c.file != nullptr) zorv_fclose(c.file);
  c.file = nullptr;
  c.claim.reset();
}

bool zorv_companion_note_key(const zorv_filter* f, const char* suffix, zorv_state_key* key) {
  if (!f->companion.notes) return false;
  std::snprintf(key->text, sizeof key->text, "%s.%s", kernel::hex_text(f->companion.pair).text,
                suffix);
  return true;
}

zorv_state_key zorv_disk_key(const zorv_filter* f, const char* suffix) {
  u64 hash = kernel::fnv1a_seed;
  for (const char* c = f->disk_identity; *c != '\0'; ++c) hash = kernel::fnv1a(hash, *c);
  zorv_state_key key;
  std::snprintf(key.text, sizeof key.text, "disk-%016llx%s", static_cast<unsigned long long>(hash),
                suffix);
  return key;
}

}  // namespace zorv
