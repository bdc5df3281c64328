// SPDX-License-Identifier: GPL-2.0-only
#include "driver/bitmap/bitmap.h"

#include <algorithm>
#include <bit>

#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"

namespace zorv {

namespace {

// Sets the extent's bit; returns whether the file's stale mark is to be queued.
bool mark_one(zorv_filter* f, u32 type, u64 extent) REQUIRES(f->bmp_lock) {
  const zorv_bmp_view bmp = zorv_bmp_of(f, type);
  u8* bits = zorv_bmp_bits(f, type);
  if (bits == nullptr) return false;
  const auto mask = static_cast<u8>(1U << (extent & 7));
  zorv_mark_state& m = f->marks[type];
  if (m.load_marks != nullptr) m.load_marks[extent >> 3] |= mask;
  const std::atomic_ref<u8> byte(bits[extent >> 3]);
  if ((byte.load(std::memory_order_relaxed) & mask) != 0) return false;
  byte.fetch_or(mask, std::memory_order_relaxed);
  if (bmp.dirty->load(std::memory_order_relaxed) != 0) return false;
  bmp.dirty->store(1, std::memory_order_relaxed);
  f->holds[type].noted = true;
  (void)zorv_marks_update(f);  // a new change never lets a waiting write go
  return true;
}

bool all_bytes(const u8* bytes, u32 count, u8 value) {
  return count == 0 || (bytes[0] == value && std::memcmp(bytes, bytes + 1, count - 1) == 0);
}

constexpr u32 piece_bytes = zorv_bmp_piece_bytes;
constexpr u32 count_piece_bytes = 16 * 1024;  // for somebody who only looks: some microseconds

void add_bits(u8* to, const u8* from, u32 count) {
  for (u32 i = 0; i < count; ++i) to[i] = static_cast<u8>(to[i] | from[i]);
}

// Bits that are set. Most of a bitmap is of one kind, which is seen at the speed of memory. No
// processor is taken for granted that counts by itself: a word keeps 8 counts for as long as none
// can overflow, and compilers do several words at a time.
u32 count_bits(const u8* bytes, u32 count) {
  constexpr u32 run_bytes = 31 * sizeof(u64);  // 31 * 8 bits are counted in a byte
  if (all_bytes(bytes, count, 0)) return 0;
  if (all_bytes(bytes, count, 0xFF)) return count * 8;
  u32 found = 0;
  for (u32 at = 0; at < count; at += run_bytes) {
    const u32 end = std::min(count, at + run_bytes);
    u32 i = at;
    u64 sums = 0;
    for (; i + sizeof(u64) <= end; i += sizeof(u64)) {
      u64 v = 0;
      std::memcpy(&v, bytes + i, sizeof v);
      v -= v >> 1 & 0x5555555555555555;
      v = (v & 0x3333333333333333) + (v >> 2 & 0x3333333333333333);
      sums += (v + (v >> 4)) & 0x0f0f0f0f0f0f0f0f;
    }
    for (; sums != 0; sums >>= 8) found += static_cast<u32>(sums & 0xff);
    for (; i < end; ++i) found += static_cast<u32>(std::popcount(bytes[i]));
  }
  return found;
}

enum class handed_out { left_out, added };

// Piece by piece; begins anew when other bits were put in place meanwhile.
void copy_bits(zorv_filter* f, u32 type, u8* to, handed_out extra) {
  const u32 size = zorv_bmp_of(f, type).size;
  u64 exchanges = 0;
  for (u32 at = 0; at < size; zorv_bmp_give_way(f)) {
    const u32 count = std::min(piece_bytes, size - at);
    kernel::spin_guard guard(&f->bmp_lock);
    if (at == 0) exchanges = f->marks[type].exchanges;
    if (f->marks[type].exchanges != exchanges) {
      at = 0;
      continue;
    }
    std::memcpy(to + at, zorv_bmp_bits(f, type) + at, count);
    if (const u8* kept = f->marks[type].load_marks; kept != nullptr) {
      add_bits(to + at, kept + at, count);
    }
    for (const zorv_handout& h : f->handouts) {
      if (extra == handed_out::added && h.type == type) add_bits(to + at, h.bits + at, count);
    }
    at += count;
  }
}

}  // namespace

void zorv_bmp_give_way(const zorv_filter* f) {
  constexpr u32 most = 80;  // some naps: many may be waiting
  for (u32 turn = 0; turn < most && kernel::spin_is_contended(&f->bmp_lock); ++turn) {
    kernel::yield();
  }
}

void zorv_bmp_copy(zorv_filter* f, u32 type, u8* to) {
  copy_bits(f, type, to, handed_out::left_out);
}

void zorv_bmp_copy_to_save(zorv_filter* f, u32 type, u8* to) {
  copy_bits(f, type, to, handed_out::added);
}

void zorv_bmp_merge(zorv_filter* f, u32 type, const u8* added) {
  const zorv_bmp_view bmp = zorv_bmp_of(f, type);
  for (u32 at = 0; at < bmp.size; at += piece_bytes) {
    const u32 count = std::min(piece_bytes, bmp.size - at);
    if (at != 0 && all_bytes(added + at, count, 0)) continue;
    {
      marks_guard guard(f);
      bmp.dirty->store(1);
      add_bits(zorv_bmp_bits(f, type) + at, added + at, count);
      u8* kept = f->marks[type].load_marks;
      if (kept != nullptr) add_bits(kept + at, added + at, count);
    }
    zorv_bmp_give_way(f);
  }
}

const char* zorv_bmp_type_name(u32 type) {
  switch (type) {
    case ZORV_BMP_INCREMENTAL:
      return "Incremental";
    case ZORV_BMP_DIFFERENTIAL:
      return "Differential";
    default:
      return "Unknown";
  }
}

void zorv_block_mark_extents(zorv_filter* f, sector_t sector, u32 sectors, kernel::bio* bio) {
  if (sectors == 0) return;
  const u32 shift = f->extent_shift - kernel::sector_shift;
  const u64 first = sector >> shift;
  const u64 last = std::min<u64>((sector + sectors - 1) >> shift, f->extent_cnt - 1);
  for (u64 extent = first; extent <= last; ++extent) {
    bool incr = false;
    bool diff = false;
    {
      kernel::spin_guard guard(&f->bmp_lock);
      if (bio != nullptr && bio->bi_tally == nullptr) {
        bio->bi_tally = &f->writes[f->writes_epoch];
        bio->bi_tally->under_way.fetch_add(1);
      }
      incr = mark_one(f, ZORV_BMP_INCREMENTAL, extent);
      diff = mark_one(f, ZORV_BMP_DIFFERENTIAL, extent);
    }
    if (incr) (void)zorv_sched_write_dirty_flag(f, ZORV_BMP_INCREMENTAL);
    if (diff) (void)zorv_sched_write_dirty_flag(f, ZORV_BMP_DIFFERENTIAL);
  }
  // A file that may look current although its bitmap was never clean (it could not be read, say)
  // has had no first new bit; its mark is queued by the first write.
  if (zorv_marks_pending(f)) zorv_marks_settle(f);
}

zorv_bmp_extremes zorv_bmp_look(zorv_filter* f, u32 type) {
  const u32 whole = f->extent_cnt / 8;
  const auto rest = static_cast<u8>((1U << f->extent_cnt % 8) - 1);  // of the last byte
  zorv_bmp_extremes found{true, true};
  u64 exchanges = 0;
  for (u32 at = 0; at < whole || at == 0; zorv_bmp_give_way(f)) {
    const u32 count = std::min(piece_bytes, whole - at);
    kernel::spin_guard guard(&f->bmp_lock);
    const u8* bits = zorv_bmp_bits(f, type);
    if (bits == nullptr) return {false, false};
    if (at != 0 && f->marks[type].exchanges != exchanges) {
      found = {true, true};
      at = 0;
      continue;
    }
    exchanges = f->marks[type].exchanges;
    found.all_clear = found.all_clear && all_bytes(bits + at, count, 0);
    found.all_set = found.all_set && all_bytes(bits + at, count, 0xFF);
    at += count;
    if (at == whole) {
      found.all_clear = found.all_clear && (rest == 0 || (bits[whole] & rest) == 0);
      found.all_set = found.all_set && (rest == 0 || (bits[whole] & rest) == rest);
    }
    if (whole == 0 || (!found.all_clear && !found.all_set)) break;
  }
  return found;
}

u32 zorv_bmp_count(const zorv_filter* f, u32 type) {
  const u32 whole = f->extent_cnt / 8;
  const auto rest = static_cast<u8>((1U << f->extent_cnt % 8) - 1);  // of the last byte
  u32 found = 0;
  u64 exchanges = 0;
  for (u32 at = 0;; zorv_bmp_give_way(f)) {
    const u32 count = std::min(count_piece_bytes, whole - at);
    kernel::spin_guard guard(&f->bmp_lock);
    const u8* bits = zorv_bmp_bits(f, type);
    if (bits == nullptr) return 0;
    if (at != 0 && f->marks[type].exchanges != exchanges) {
      found = 0;
      at = 0;
      continue;
    }
    exchanges = f->marks[type].exchanges;
    found += count_bits(bits + at, count);
    at += count;
    if (at < whole) continue;
    if (rest != 0) found += static_cast<u32>(std::popcount(static_cast<u8>(bits[whole] & rest)));
    return found;
  }
}

}  // namespace zorv
