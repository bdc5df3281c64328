// SPDX-License-Identifier: GPL-2.0-only
// The files of the change bitmaps: which file it is, and how it stops looking current.
//
// A file is opened once and stays open, so that its stale mark never fails for want of a
// descriptor. Whenever a file is about to be used, its name is looked at: where another file has
// come to stand, that one is taken, and both are stale.
#include "driver/bitmap/bmpfile.h"

#include <array>

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "kernel/state.h"

namespace zorv {

namespace {

constexpr u32 crc_seed = 0xFFFFFFFF;

// The first is the usual one; entry i of the n-th is what byte i does n bytes later.
constexpr u32 crc_step = 8;
constexpr std::array<std::array<u32, 256>, crc_step> make_crc_tables() {
  std::array<std::array<u32, 256>, crc_step> tables{};
  for (u32 i = 0; i < 256; ++i) {
    u32 v = i;
    for (int bit = 0; bit < 8; ++bit) v = (v & 1) != 0 ? v >> 1 ^ 0xEDB88320 : v >> 1;
    tables[0][i] = v;
  }
  for (u32 n = 1; n < crc_step; ++n) {
    for (u32 i = 0; i < 256; ++i) {
      tables[n][i] = tables[0][tables[n - 1][i] & 0xFF] ^ tables[n - 1][i] >> 8;
    }
  }
  return tables;
}
constexpr auto crc_tables = make_crc_tables();

void close_file(zorv_filter* f, u32 type) {
  zorv_mark_state& m = f->marks[type];
  zorv_fclose(m.file);
  m.file = nullptr;
  m.claim.reset();
  m.name_synced = m.sync_failed = false;
}

int open_file(zorv_filter* f, u32 type, u32 flags) {
  zorv_mark_state& m = f->marks[type];
  char owner[kernel::file_claim::owner_bytes];
  std::snprintf(owner, sizeof owner, "zorv(%d, %d)'s %s bitmap", zorv_blk_major,
                static_cast<int>(f->filter_minor), zorv_bmp_type_name(type));
  const int rc = zorv_fopen_own(zorv_bmp_of(f, type).fname, kernel::FO_RDWR | flags, owner,
                                file_lock::none, &m.claim, &m.file);
  if (rc != 0) return rc == -EBUSY || rc == -EINVAL || rc == -ENOENT ? rc : -EIO;
  m.foreign = zorv_fis_foreign(m.file, 0, bmpfile::prefix, bmpfile::prefix_bytes);
  // What it holds is not known; in doubt a load could take it.
  kernel::spin_guard guard(&f->bmp_lock);
  m.maybe_current = m.maybe_current || (!m.foreign && kernel::file_size(m.file->filp) != 0);
  return 0;
}

// Makes the open file eight stale bytes, on disk.
int stale_bytes(zorv_filter* f, u32 type) {
  zorv_mark_state& m = f->marks[type];
  if (m.foreign) return -EEXIST;
  u8 head[bmpfile::prefix_bytes + 1];
  std::memcpy(head, bmpfile::prefix, bmpfile::prefix_bytes);
  head[bmpfile::dirty_offset] = 1;
  int rc = zorv_fwrite(m.file, 0, head, sizeof head);
  if (rc >= 0) rc = bmpfile::sync(f, type);
  if (rc < 0) return rc;
  m.sync_failed = false;  // whatever else is not on disk, the mark is
  (void)kernel::vfs_truncate(m.file->filp, sizeof head);
  return 0;
}

// The open file is not what the name leads to any more: should it come back, it is stale.
int leave_file(zorv_filter* f, u32 type) {
  bool maybe_current = false;
  {
    kernel::spin_guard guard(&f->bmp_lock);
    maybe_current = f->marks[type].maybe_current;
  }
  const int rc = maybe_current && !f->marks[type].foreign ? stale_bytes(f, type) : 0;
  if (rc == 0) close_file(f, type);
  return rc;
}

// Takes the file's name away, durably; a file that could not be opened may be anybody's.
int remove_file(zorv_filter* f, u32 type) {
  const zorv_mark_state& m = f->marks[type];
  const char* fname = zorv_bmp_of(f, type).fname;
  if (m.file == nullptr || m.foreign) return -EBADF;
  int rc = kernel::fs_unlink_file(fname, m.claim.id());
  if (rc == 0 || rc == -ENOENT) rc = kernel::fs_sync_parent(fname);
  if (rc == 0) zorv_marks_file_void(f, type);
  return rc;
}

}  // namespace

namespace bmpfile {

bool lives_on_node(const char* fname) { return zorv_is_own_dev(zorv_get_file_devt(fname)); }

int follow_name(zorv_filter* f, u32 type, missing what) {
  zorv_mark_state& m = f->marks[type];
  const char* fname = zorv_bmp_of(f, type).fname;
  kernel::file_id id;
  const int moved = zorv_companion_follow(f);
  if (moved != 0) return moved;
  int rc = kernel::path_identity(fname, &id);
  if (m.file != nullptr) {
    if (rc != 0 && rc != -ENOENT) return 0;  // it cannot be told: the file is still there
    if (rc == 0 && id == m.claim.id()) return 0;
    const int left = leave_file(f, type);
    if (left != 0) return left;
  }
  if (rc != -ENOENT || what == missing::create) {
    return open_file(f, type, what == missing::create ? kernel::FO_CREAT : 0);
  }
  return rc;
}

int sync(zorv_filter* f, u32 type) {
  zorv_mark_state& m = f->marks[type];
  const int rc = zorv_fsync(m.file);
  if (rc == 0) return 0;
  m.sync_failed = true;
  zorv_log(LOG_ERROR, "%s(): Failed to sync %s: rc=%d", "zorv_fsync", m.file->fname, rc);
  return rc;
}

int write_stale(zorv_filter* f, u32 type) {
  const int rc = stale_bytes(f, type);
  if (rc == 0) zorv_marks_file_void(f, type);
  return rc;
}

bool note_key(const zorv_filter* f, u32 type, zorv_state_key* key) {
  return zorv_companion_note_key(f, type == ZORV_BMP_INCREMENTAL ? "incr" : "diff", key);
}

u32 crc_of(const u8* bits, u32 size) {
  u32 crc = crc_seed;
  zorv_crc32(bits, static_cast<s32>(size), &crc);
  return crc;
}

}  // namespace bmpfile

void zorv_crc32(const void* buffer, s32 length, u32* value) {
  const u8* p = static_cast<const u8*>(buffer);
  u32 v = *value;
  s32 i = 0;
  for (; i + static_cast<s32>(crc_step) <= length; i += crc_step) {  // eight bytes at once
    u64 word = 0;
    std::memcpy(&word, p + i, sizeof word);
    word ^= v;
    v = 0;
    for (u32 n = 0; n < crc_step; ++n) v ^= crc_tables[crc_step - 1 - n][word >> 8 * n & 0xFF];
  }
  for (; i < length; ++i) v = crc_tables[0][(v ^ p[i]) & 0xFF] ^ v >> 8;
  *value = v;
}

int zorv_block_write_dirty_flag(zorv_filter* f, u32 type, int flag) {
  zorv_log(2, "%s(): Writing dirty flag %d into %s bitmap of zorv(%d, %d)", __func__, flag,
           zorv_bmp_type_name(type), zorv_blk_major, f->filter_minor);
  rzmutex_guard alone(&f->marks[type].file_mutex);
  rzmutex_guard files(&f->bmp_mutex);
  const char* fname = zorv_bmp_of(f, type).fname;
  if (bmpfile::lives_on_node(fname)) {
    zorv_log(LOG_ERROR,
             "%s(): Can't set dirty flag in %s. The file must be moved to a different partition.",
             __func__, fname);
    return -EINVAL;
  }
  int rc = bmpfile::follow_name(f, type, bmpfile::missing::fail);
  if (rc == 0 && !f->marks[type].foreign) return bmpfile::write_stale(f, type);
  // Nothing to mark, once that is certain.
  if (rc == 0) rc = bmpfile::sync(f, type);
  if (rc == 0 || rc == -ENOENT) rc = kernel::fs_sync_parent(fname);
  if (rc == -ENOENT) rc = 0;  // not even a folder
  if (rc == 0) zorv_marks_file_void(f, type);
  return rc;
}

int zorv_block_void_bmp(zorv_filter* f, u32 type) {
  rzmutex_guard alone(&f->marks[type].file_mutex);
  rzmutex_guard files(&f->bmp_mutex);
  {
    kernel::spin_guard guard(&f->bmp_lock);
    if (!zorv_marks_due(f, type, excused::too)) return 0;
  }
  const int rc = zorv_block_write_dirty_flag(f, type, 1);
  if (rc == 0) return 0;
  // A folder on the node itself is changed no more than a file there.
  if (!bmpfile::lives_on_node(zorv_bmp_of(f, type).fname) && remove_file(f, type) == 0) return 0;
  return zorv_block_excuse_bmp(f, type) == 0 ? 0 : rc;
}

void zorv_block_stale_bmp(zorv_filter* f, u32 type) {
  const rzmutex_hold alone(&f->marks[type].file_mutex, file_limit_jiffies, __func__);
  if (!alone) return;
  const rzmutex_hold files(&f->bmp_mutex, file_limit_jiffies, __func__);
  if (!files) return;
  {
    kernel::spin_guard guard(&f->bmp_lock);
    if (!f->marks[type].maybe_current) return;
  }
  if (bmpfile::lives_on_node(zorv_bmp_of(f, type).fname)) return;
  if (bmpfile::follow_name(f, type, bmpfile::missing::fail) == 0) {
    (void)bmpfile::write_stale(f, type);
  }
}

int zorv_block_excuse_bmp(zorv_filter* f, u32 type) {
  const char* fname = zorv_bmp_of(f, type).fname;
  rzmutex_guard notes(&f->companion.note_mutex);  // no save is taking a note back
  {
    kernel::spin_guard guard(&f->bmp_lock);
    if (f->marks[type].excused) return 0;
  }
  zorv_state_key key;
  const int rc = bmpfile::note_key(f, type, &key) ? kernel::state_note(key.text, fname) : -EIO;
  if (rc != 0) {
    zorv_log(LOG_ERROR, "%s(): It can't be noted that %s is outdated: rc=%d", __func__, fname, rc);
    return rc;
  }
  zorv_log(LOG_ERROR, "%s(): %s is outdated and can't be marked; it is noted in the state folder.",
           __func__, fname);
  marks_guard guard(f);
  f->marks[type].excused = true;
  return 0;
}

int zorv_block_open_bmps(zorv_filter* f) {
  const struct {
    char* to;
    const char* suffix;
  } names[] = {
      {f->incr_bmp_fname, "incr"}, {f->diff_bmp_fname, "diff"}, {f->companion.fname, "disk"}};
  for (const auto& name : names) {
    const int len = std::snprintf(name.to, ZORV_PATH_LEN, "%s/zorv%u.%s", f->bmp_dir,
                                  f->filter_minor, name.suffix);
    if (len < ZORV_PATH_LEN) continue;
    zorv_log(LOG_ERROR, "%s(): The names of the bitmap files in %s are longer than %d characters",
             __func__, f->bmp_dir, ZORV_PATH_LEN - 1);
    return -ENAMETOOLONG;
  }
  rzmutex_guard files(&f->bmp_mutex);
  return zorv_companion_attach(f);
}

void zorv_block_close_bmps(zorv_filter* f) {
  rzmutex_guard files(&f->bmp_mutex);
  for (u32 type = 0; type < 2; ++type) {
    if (f->marks[type].file != nullptr) close_file(f, type);
  }
  zorv_companion_detach(f);
}

}  // namespace zorv
