// SPDX-License-Identifier: GPL-2.0-only
// The files of the change bitmaps: save, load, stale mark.
//
// A file is complete (header, size, checksum, bits) or eight bytes that say "stale"; anything else
// is rejected by the load. A rewrite first empties the file. Once that is on disk, or the stale
// header is, the old contents can never come back, and writes no longer wait for the file's sake.
#include <array>

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "kernel/mem.h"

namespace zorv {

namespace {

constexpr char prefix[] = {'Z', 'O', 'R', 'V', 'B', 'M', 'P'};
constexpr int prefix_bytes = sizeof prefix;
constexpr u64 dirty_offset = 7, size_offset = 8, crc_offset = 12, bits_offset = 16;
constexpr u32 crc_seed = 0xFFFFFFFF;
constexpr u32 rewrite_flags =
    kernel::FO_WRONLY | kernel::FO_CREAT | kernel::FO_TRUNC | kernel::FO_SYNC;
constexpr u32 file_mode = 0600;

constexpr std::array<u32, 256> make_crc_table() {
  std::array<u32, 256> table{};
  for (u32 i = 0; i < 256; ++i) {
    u32 v = i;
    for (int bit = 0; bit < 8; ++bit) v = (v & 1) != 0 ? v >> 1 ^ 0xEDB88320 : v >> 1;
    table[i] = v;
  }
  return table;
}
constexpr std::array<u32, 256> crc_table = make_crc_table();

void put_le32(u8* to, u32 v) {
  for (int i = 0; i < 4; ++i) to[i] = static_cast<u8>(v >> 8 * i);
}
u32 get_le32(const u8* from) {
  u32 v = 0;
  for (int i = 3; i >= 0; --i) v = v << 8 | from[i];
  return v;
}

u32 crc_of(const u8* bits, u32 size) {
  u32 crc = crc_seed;
  zorv_crc32(bits, static_cast<s32>(size), &crc);
  return crc;
}

// A file on a file system that sits on a node of ours would be written through that node.
bool lives_on_node(const char* fname) { return zorv_is_own_dev(zorv_get_file_devt(fname)); }

bool is_missing(const char* fname) {
  kernel::dentry* entry = zorv_get_file_dentry(fname, 1);
  if (entry == nullptr) return true;
  if (kernel::is_err(entry)) return kernel::ptr_err(entry) == -ENOENT;
  kernel::dput(entry);
  return false;
}

// Makes the truncation of a file just opened, or what a failed write has left of it, durable: the
// old contents cannot come back then.
void sync_emptied(zorv_filter* f, u32 type, zorv_file* file) {
  if (zorv_fsync(file) == 0) zorv_marks_file_void(f, type);
}

int write_bitmap(zorv_filter* f, u32 type, zorv_file* file, const u8* bits, u32 size) {
  const u8 dirty = 0;
  u8 size_disk[4];
  u8 crc_disk[4];
  put_le32(size_disk, size);
  put_le32(crc_disk, crc_of(bits, size));
  sync_emptied(f, type, file);  // else a header like the old one would revive the old bits
  int rc = zorv_fwrite(file, 0, prefix, prefix_bytes);
  if (rc >= 0) rc = zorv_fwrite(file, dirty_offset, &dirty, 1);
  if (rc >= 0) rc = zorv_fwrite(file, size_offset, size_disk, sizeof size_disk);
  if (rc >= 0) rc = zorv_fwrite(file, crc_offset, crc_disk, sizeof crc_disk);
  if (rc >= 0) rc = zorv_fwrite(file, bits_offset, bits, static_cast<int>(size));
  return rc < 0 ? rc : 0;
}

// A new file is there after a power cut only if its directory is synced too. Once per bitmap is
// enough; a failure costs the file in a power cut, which then reads as "everything changed".
void sync_name(zorv_filter* f, u32 type, const char* fname) {
  zorv_mark_state& m = f->marks[type];
  if (m.name_synced) return;
  const int rc = kernel::fs_sync_parent(fname);
  m.name_synced = rc == 0;
  if (rc != 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to sync the directory of %s: rc=%d", "zorv_block_save_bmp",
             fname, rc);
  }
}

int rewrite_file(zorv_filter* f, u32 type, const u8* bits, const zorv_bmp_view& bmp) {
  if (lives_on_node(bmp.fname)) {
    zorv_log(LOG_ERROR,
             "%s(): Can't save bitmap to %s. The file must be moved to a different partition.",
             "zorv_block_save_bmp", bmp.fname);
    return -EINVAL;
  }
  zorv_file_ptr file(zorv_fopen(bmp.fname, rewrite_flags, file_mode));
  if (file == nullptr) return -EIO;
  const int rc = write_bitmap(f, type, file.get(), bits, bmp.size);
  if (rc == 0) sync_name(f, type, bmp.fname);
  return rc;
}

enum class verdict {
  current,   // the buffer holds the bitmap
  useless,   // no loader will ever take this file
  in_doubt,  // unreadable now, or made for another geometry: another load may take it
};

struct read_result {
  int rc;
  verdict file;
};

// Reads and checks the file into bits.
read_result read_file(const zorv_bmp_view& bmp, u8* bits) {
  const char* op = "zorv_block_load_bmp";
  const bool missing = is_missing(bmp.fname);
  zorv_file_ptr file(zorv_fopen(bmp.fname, kernel::FO_RDONLY, 0));
  if (file == nullptr) return {-EIO, missing ? verdict::useless : verdict::in_doubt};

  char head[prefix_bytes] = {};
  int rc = zorv_fread(file.get(), 0, head, prefix_bytes);
  if (rc < 0) return {rc, verdict::in_doubt};
  if (rc != prefix_bytes || std::memcmp(head, prefix, prefix_bytes) != 0) {
    zorv_log(LOG_ERROR, "%s(): File %s is corrupt: Invalid prefix.", op, bmp.fname);
    return {-EIO, verdict::useless};
  }
  u8 dirty = 1;
  rc = zorv_fread(file.get(), dirty_offset, &dirty, 1);
  if (rc < 0) return {rc, verdict::in_doubt};
  if (rc != 1 || dirty != 0) {
    zorv_log(LOG_ERROR, "%s(): File %s is dirty. Ignoring file contents.", op, bmp.fname);
    return {0, verdict::useless};
  }
  u8 word[4] = {};
  rc = zorv_fread(file.get(), size_offset, word, sizeof word);
  if (rc < 0) return {rc, verdict::in_doubt};
  if (rc != sizeof word || get_le32(word) != bmp.size) {
    zorv_log(LOG_ERROR, "%s(): File %s contains bitmap of invalid size. Ignoring file contents.",
             op, bmp.fname);
    return {0, verdict::in_doubt};
  }
  const int crc_rc = zorv_fread(file.get(), crc_offset, word, sizeof word);
  if (crc_rc < 0) return {crc_rc, verdict::in_doubt};
  rc = zorv_fread(file.get(), bits_offset, bits, static_cast<int>(bmp.size));
  if (rc < 0) return {rc, verdict::in_doubt};
  if (crc_rc != sizeof word || rc != static_cast<int>(bmp.size) ||
      get_le32(word) != crc_of(bits, bmp.size)) {
    zorv_log(LOG_ERROR, "%s(): File %s has invalid checksum. Ignoring file contents.", op,
             bmp.fname);
    return {0, verdict::useless};
  }
  return {0, verdict::current};
}

// From here until load_end every bit that is marked is also noted in kept. A file that is known to
// lack bits - its stale mark is still due - does not take them away from the bitmap either.
void load_begin(zorv_filter* f, u32 type, const zorv_bmp_view& bmp, u8* kept) {
  marks_guard guard(f);
  zorv_mark_state& m = f->marks[type];
  m.loading = true;
  if (m.maybe_current && bmp.dirty->load() != 0) {
    std::memcpy(kept, zorv_bmp_bits(f, type), bmp.size);
  }
  m.load_marks = kept;
}

void load_end(zorv_filter* f, u32 type, const zorv_bmp_view& bmp, const u8* bits, const u8* kept,
              verdict file) {
  {
    marks_guard guard(f);
    zorv_mark_state& m = f->marks[type];
    u8* to = zorv_bmp_bits(f, type);
    m.loading = false;
    m.load_marks = nullptr;
    m.known = true;
    m.behind = false;
    m.maybe_current = file != verdict::useless;
    if (file == verdict::current) {
      u8 lacking = 0;
      for (u32 i = 0; i < bmp.size; ++i) {
        lacking = static_cast<u8>(lacking | (kept[i] & ~bits[i]));
        to[i] = static_cast<u8>(bits[i] | kept[i]);
      }
      bmp.dirty->store(lacking != 0 ? 1 : 0);
      m.given_up = false;
      if (lacking == 0) zorv_marks_cancel(f, type);
    } else {
      bmp.dirty->store(1);
      std::memset(to, 0xFF, bmp.size);
    }
  }
  if (file == verdict::current) zorv_marks_settle(f);
}

// Without memory for the load nothing is known of the file. A bitmap in use stays as it is; a new
// one (all set by its creator) is from now on ahead of whatever the file says.
void load_impossible(zorv_filter* f, u32 type, const zorv_bmp_view& bmp) {
  marks_guard guard(f);
  zorv_mark_state& m = f->marks[type];
  if (m.known) return;
  m.known = true;
  m.maybe_current = true;
  bmp.dirty->store(1);
}

}  // namespace

void zorv_crc32(const void* buffer, s32 length, u32* value) {
  const u8* p = static_cast<const u8*>(buffer);
  u32 v = *value;
  for (s32 i = 0; i < length; ++i) v = crc_table[(v ^ p[i]) & 0xFF] ^ v >> 8;
  *value = v;
}

int zorv_block_save_bmp(zorv_filter* f, u32 type) {
  zorv_log(2, "%s(): Saving %s bitmap of zorv(%d, %d)", __func__, zorv_bmp_type_name(type),
           zorv_blk_major, f->filter_minor);
  const zorv_bmp_view bmp = zorv_bmp_of(f, type);
  const kernel::vbuf<u8> copy(static_cast<u8*>(kernel::vmalloc(bmp.size)));
  if (copy == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to allocate %d bytes.", __func__, bmp.size);
    return -ENOMEM;
  }
  // The mutex comes before the copy: of two saves the later copy must be the one that stays in
  // the file.
  rzmutex_guard files(&f->bmp_mutex);
  zorv_mark_state& m = f->marks[type];
  {
    marks_guard guard(f);
    m.behind = m.maybe_current && bmp.dirty->load() != 0;
    m.noted = false;
    m.saving = true;
    bmp.dirty->store(0);
  }
  zorv_bmp_copy_to_save(f, type, copy.get());
  (void)zorv_kill_dirty_requests(f, type);
  const int rc = rewrite_file(f, type, copy.get(), bmp);
  {
    marks_guard guard(f);
    m.saving = false;
    m.behind = false;
    m.given_up = false;
    if (rc == 0) {
      m.maybe_current = true;
    } else {
      bmp.dirty->store(1);
    }
  }
  // Marks that were cancelled for this save are queued anew if the file now lacks their bits.
  zorv_marks_settle(f);
  return rc;
}

int zorv_block_save_dirty_bmps(zorv_filter* f) {
  zorv_log(1, "%s(): Saving dirty incr/diff bitmaps to disk", __func__);
  rzmutex_guard files(&f->bmp_mutex);
  int incr_rc = 0;
  int diff_rc = 0;
  if (f->incr_bmp_dirty.load() != 0) incr_rc = zorv_block_save_bmp(f, ZORV_BMP_INCREMENTAL);
  if (f->diff_bmp_dirty.load() != 0) diff_rc = zorv_block_save_bmp(f, ZORV_BMP_DIFFERENTIAL);
  return incr_rc != 0 ? incr_rc : diff_rc;
}

int zorv_block_load_bmp(zorv_filter* f, u32 type) {
  zorv_log(2, "%s(): Loading %s bitmap of zorv(%d, %d)", __func__, zorv_bmp_type_name(type),
           zorv_blk_major, f->filter_minor);
  const zorv_bmp_view bmp = zorv_bmp_of(f, type);
  const kernel::vbuf<u8> bits(static_cast<u8*>(kernel::vmalloc(bmp.size)));
  const kernel::vbuf<u8> kept(bits == nullptr ? nullptr
                                              : static_cast<u8*>(kernel::vzalloc(bmp.size)));
  if (kept == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to allocate %d bytes.", __func__, bmp.size);
    load_impossible(f, type, bmp);
    return -ENOMEM;
  }
  rzmutex_guard files(&f->bmp_mutex);
  load_begin(f, type, bmp, kept.get());
  const read_result result = read_file(bmp, bits.get());
  load_end(f, type, bmp, bits.get(), kept.get(), result.file);
  return result.rc;
}

int zorv_block_write_dirty_flag(zorv_filter* f, u32 type, int flag) {
  zorv_log(2, "%s(): Writing dirty flag %d into %s bitmap of zorv(%d, %d)", __func__, flag,
           zorv_bmp_type_name(type), zorv_blk_major, f->filter_minor);
  rzmutex_guard files(&f->bmp_mutex);
  const char* fname = zorv_bmp_of(f, type).fname;
  if (lives_on_node(fname)) {
    zorv_log(LOG_ERROR,
             "%s(): Can't set dirty flag in %s. The file must be moved to a different partition.",
             __func__, fname);
    return -EINVAL;
  }
  const zorv_file_ptr file(zorv_fopen(fname, rewrite_flags, file_mode));
  if (file == nullptr) return -EIO;
  const u8 dirty = static_cast<u8>(flag);
  int rc = zorv_fwrite(file.get(), 0, prefix, prefix_bytes);
  if (rc >= 0) rc = zorv_fwrite(file.get(), dirty_offset, &dirty, 1);
  if (rc < 0) {
    sync_emptied(f, type, file.get());
    return rc;
  }
  zorv_marks_file_void(f, type);
  return 0;
}

}  // namespace zorv
