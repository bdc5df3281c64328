// SPDX-License-Identifier: GPL-2.0-only
// Loading a change bitmap.
#include <algorithm>

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/bmpfile.h"
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "kernel/mem.h"
#include "kernel/state.h"

namespace zorv {

namespace {

constexpr const char* op = "zorv_block_load_bmp";

using bits_buffer = kernel::vbuf<u8>;

u32 get_le32(const u8* from) {
  u32 v = 0;
  for (int i = 3; i >= 0; --i) v = v << 8 | from[i];
  return v;
}

enum class verdict {
  current,   // the buffer holds the bitmap
  useless,   // no loader will ever take this file, once that is on disk
  in_doubt,  // unreadable now, or made for another geometry: another load may take it
};

struct read_result {
  int rc;
  verdict file;
};

// Whether the state folder has a note about the file: 1, 0 or a negative errno. The note stays
// until the next save is on disk, and as long as it does no mark has to be.
int is_noted(zorv_filter* f, u32 type) {
  zorv_state_key key;
  const int noted = bmpfile::note_key(f, type, &key) ? kernel::state_noted(key.text) : 0;
  if (noted <= 0) return noted;
  marks_guard guard(f);
  f->marks[type].excused = true;
  return 1;
}

// What keeps a file from being believed whatever it holds; null: nothing.
const char* objection(zorv_filter* f, u32 type) {
  const int noted = is_noted(f, type);
  if (!f->companion.ours) return "is not known to be about this disk";
  if (noted < 0) return "may be noted as outdated in the state folder, which can't be read";
  if (noted > 0) return "is noted as outdated in the state folder";
  return f->marks[type].sync_failed ? "may differ from what is on disk" : nullptr;
}

// Reads and checks the open file into bits.
read_result read_open_file(zorv_file* file, const zorv_bmp_view& bmp, u8* bits) {
  char head[bmpfile::prefix_bytes] = {};
  int rc = zorv_fread(file, 0, head, bmpfile::prefix_bytes);
  if (rc < 0) return {rc, verdict::in_doubt};
  if (rc != bmpfile::prefix_bytes ||
      std::memcmp(head, bmpfile::prefix, bmpfile::prefix_bytes) != 0) {
    zorv_log(LOG_ERROR, "%s(): File %s is corrupt: Invalid prefix.", op, bmp.fname);
    return {-EIO, verdict::useless};
  }
  u8 dirty = 1;
  rc = zorv_fread(file, bmpfile::dirty_offset, &dirty, 1);
  if (rc < 0) return {rc, verdict::in_doubt};
  if (rc != 1 || dirty != 0) {
    zorv_log(LOG_ERROR, "%s(): File %s is dirty. Ignoring file contents.", op, bmp.fname);
    return {0, verdict::useless};
  }
  u8 word[4] = {};
  rc = zorv_fread(file, bmpfile::size_offset, word, sizeof word);
  if (rc < 0) return {rc, verdict::in_doubt};
  if (rc != sizeof word || get_le32(word) != bmp.size) {
    zorv_log(LOG_ERROR, "%s(): File %s contains bitmap of invalid size. Ignoring file contents.",
             op, bmp.fname);
    return {0, verdict::in_doubt};
  }
  const int crc_rc = zorv_fread(file, bmpfile::crc_offset, word, sizeof word);
  if (crc_rc < 0) return {crc_rc, verdict::in_doubt};
  rc = zorv_fread(file, bmpfile::bits_offset, bits, static_cast<int>(bmp.size));
  if (rc < 0) return {rc, verdict::in_doubt};
  if (crc_rc != sizeof word || rc != static_cast<int>(bmp.size) ||
      get_le32(word) != bmpfile::crc_of(bits, bmp.size)) {
    zorv_log(LOG_ERROR, "%s(): File %s has invalid checksum. Ignoring file contents.", op,
             bmp.fname);
    return {0, verdict::useless};
  }
  return {0, verdict::current};
}

read_result read_file(zorv_filter* f, u32 type, const zorv_bmp_view& bmp, u8* bits) {
  zorv_log(2, "%s(): Reading %s", op, bmp.fname);
  const int rc = bmpfile::follow_name(f, type, bmpfile::missing::fail);
  const char* why = objection(f, type);
  if (rc == -ENOENT) {
    zorv_log(LOG_ERROR, "%s(): There is no file %s.", op, bmp.fname);
    return {-EIO, verdict::useless};
  }
  // A link or no regular file is never opened.
  if (rc != 0) return {-EIO, rc == -EINVAL ? verdict::useless : verdict::in_doubt};
  const read_result result = read_open_file(f->marks[type].file, bmp, bits);
  if (result.file != verdict::current) return result;
  if (why != nullptr) {
    zorv_log(LOG_ERROR, "%s(): File %s %s. Ignoring file contents.", op, bmp.fname, why);
    return {0, verdict::in_doubt};  // another life may believe it
  }
  return result;
}

// What was found may be so in the page cache alone: an earlier life's mark whose sync it did not
// see, a name that somebody has taken away. A power cut would bring back what was there before.
bool is_lasting(zorv_filter* f, u32 type) {
  if (f->marks[type].file != nullptr && bmpfile::sync(f, type) != 0) return false;
  const int rc = kernel::fs_sync_parent(zorv_bmp_of(f, type).fname);
  return rc == 0 || rc == -ENOENT;  // not even a folder
}

// From here until load_end every bit that is marked is also noted in kept. A file that is known to
// lack bits - its stale mark is still due - does not take them away from the bitmap either.
void load_begin(zorv_filter* f, u32 type, const zorv_bmp_view& bmp, u8* kept) {
  bool lacks_bits = false;
  {
    marks_guard guard(f);
    zorv_mark_state& m = f->marks[type];
    m.loading = true;
    m.load_marks = kept;
    lacks_bits = m.maybe_current && bmp.dirty->load() != 0;
  }
  if (!lacks_bits) return;
  for (u32 at = 0; at < bmp.size; at += zorv_bmp_piece_bytes) {
    const u32 end = std::min(at + zorv_bmp_piece_bytes, bmp.size);
    {
      kernel::spin_guard guard(&f->bmp_lock);
      const u8* from = zorv_bmp_bits(f, type);
      for (u32 i = at; i < end; ++i) kept[i] = static_cast<u8>(kept[i] | from[i]);
    }
    zorv_bmp_give_way(f);
  }
}

// Puts what was loaded in the bitmap's place, with the flag that goes with it.
void put_in_place(zorv_filter* f, u32 type, u32 dirty, bits_buffer* bits) REQUIRES(f->bmp_lock) {
  u8*& place = zorv_bmp_bits(f, type);
  u8* before = place;
  place = bits->release();
  bits->reset(before);
  zorv_bmp_of(f, type).dirty->store(dirty);
  f->marks[type].known = true;
}

// Adds what has to be kept to the file's bits, which writes have been marked in meanwhile.
//   returns  whether the file lacks some of it
bool add_kept(zorv_filter* f, u32 type, u32 size, const u8* kept) {
  u8 lacking = 0;
  for (u32 at = 0; at < size; at += zorv_bmp_piece_bytes) {
    const u32 end = std::min(at + zorv_bmp_piece_bytes, size);
    {
      kernel::spin_guard guard(&f->bmp_lock);
      u8* to = zorv_bmp_bits(f, type);
      for (u32 i = at; i < end; ++i) {
        lacking = static_cast<u8>(lacking | (kept[i] & ~to[i]));
        to[i] = static_cast<u8>(to[i] | kept[i]);
      }
    }
    zorv_bmp_give_way(f);
  }
  return lacking != 0;
}

// What is marked in the file's bits from their exchange on turns the flag 1; what was marked before
// is found in kept.
void load_current(zorv_filter* f, u32 type, const zorv_bmp_view& bmp, bits_buffer* bits,
                  const u8* kept) {
  {
    marks_guard guard(f);
    zorv_mark_state& m = f->marks[type];
    if (m.known) ++m.exchanges;  // bits may have gone
    put_in_place(f, type, 0, bits);
    m.maybe_current = true;
  }
  const bool lacking = add_kept(f, type, bmp.size, kept);
  {
    marks_guard guard(f);
    if (lacking) bmp.dirty->store(1);
    f->marks[type].loading = false;
    f->marks[type].load_marks = nullptr;
    if (bmp.dirty->load() == 0) zorv_marks_cancel(f, type);
  }
  zorv_marks_settle(f);
}

// Writes wait no longer than what is wrong with the file is known: until all is set in the bitmap's
// place, it has at least the bits that it had.
void load_nothing(zorv_filter* f, u32 type, const zorv_bmp_view& bmp, bits_buffer* bits,
                  verdict file) {
  {
    marks_guard guard(f);
    zorv_mark_state& m = f->marks[type];
    m.loading = false;
    m.load_marks = nullptr;
    m.maybe_current = file != verdict::useless;
    bmp.dirty->store(1);
  }
  std::memset(bits->get(), 0xFF, bmp.size);
  marks_guard guard(f);
  put_in_place(f, type, 1, bits);
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

int zorv_block_load_bmp(zorv_filter* f, u32 type) {
  zorv_log(2, "%s(): Loading %s bitmap of zorv(%d, %d)", __func__, zorv_bmp_type_name(type),
           zorv_blk_major, f->filter_minor);
  const zorv_bmp_view bmp = zorv_bmp_of(f, type);
  bits_buffer bits(static_cast<u8*>(kernel::vmalloc(bmp.size)));
  const kernel::vbuf<u8> kept(bits == nullptr ? nullptr
                                              : static_cast<u8*>(kernel::vzalloc(bmp.size)));
  if (kept == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to allocate %d bytes.", __func__, bmp.size);
    load_impossible(f, type, bmp);
    return -ENOMEM;
  }
  const rzmutex_hold one_at_a_time(&f->save_mutex, file_limit_jiffies, op);
  const rzmutex_hold files(&f->bmp_mutex, file_limit_jiffies, op);
  if (!one_at_a_time || !files) {
    load_impossible(f, type, bmp);
    return -EIO;
  }
  load_begin(f, type, bmp, kept.get());
  read_result result = read_file(f, type, bmp, bits.get());
  if (result.file == verdict::useless && !is_lasting(f, type)) result.file = verdict::in_doubt;
  if (result.file == verdict::current) {
    load_current(f, type, bmp, &bits, kept.get());
  } else {
    load_nothing(f, type, bmp, &bits, result.file);
  }
  return result.rc;
}

}  // namespace zorv
