// SPDX-License-Identifier: GPL-2.0-only
#include "driver/datablock/blkbmp.h"

#include <algorithm>

#include "driver/core/log.h"
#include "driver/datablock/fragment.h"
#include "driver/datablock/reader.h"
#include "kernel/mem.h"
#include "kernel/task.h"

namespace zorv {

namespace {

// Counts its holder among the map's users. The order matters: a destroyer that has cleared `valid`
// and then found no users can be sure that nobody looks at the old fragments (hence seq_cst).
class [[nodiscard]] map_use {
 public:
  explicit map_use(const zorv_blkbmp* b) : b_(b) {
    b_->users.fetch_add(1, std::memory_order_seq_cst);
    valid_ = b_->valid.load(std::memory_order_seq_cst) != 0;
  }
  ~map_use() { b_->users.fetch_sub(1, std::memory_order_release); }
  map_use(const map_use&) = delete;
  map_use& operator=(const map_use&) = delete;
  [[nodiscard]] bool valid() const { return valid_; }

 private:
  const zorv_blkbmp* b_;
  bool valid_;
};

// The fragments of a map under construction, freed unless they are handed over.
struct fragment_array {
  sa* frags = nullptr;
  s32 cnt = 0;

  fragment_array() = default;
  ~fragment_array() { free(frags, cnt); }
  fragment_array(const fragment_array&) = delete;
  fragment_array& operator=(const fragment_array&) = delete;

  static void free(sa* frags, s32 cnt) {
    if (frags == nullptr) return;
    for (s32 i = 0; i < cnt; ++i) fragment_free(&frags[i]);
    kernel::kfree(frags);
  }
};

// Takes away what the map holds; builds that are under way will not be published.
void make_empty(zorv_blkbmp* b) {
  {
    kernel::spin_guard guard(&b->lock);
    b->valid.store(0, std::memory_order_seq_cst);
    ++b->generation;
  }
  // Whoever still saw the map as valid goes on using it: a look-up takes nanoseconds, an export
  // milliseconds.
  while (b->users.load(std::memory_order_seq_cst) != 0) {
    kernel::set_current_state(kernel::TASK_UNINTERRUPTIBLE);
    kernel::schedule_timeout(1);
  }
  sa* frags = nullptr;
  s32 cnt = 0;
  {
    kernel::spin_guard guard(&b->lock);
    // Nothing is published over fragments that have not been taken away.
    std::swap(frags, b->frags);
    std::swap(cnt, b->frag_cnt);
    b->chunk_cnt = 0;
  }
  fragment_array::free(frags, cnt);
}

bool publish(zorv_blkbmp* b, u32 generation, fragment_array* built, u32 chunk_cnt) {
  kernel::spin_guard guard(&b->lock);
  if (b->generation != generation || b->frags != nullptr) return false;
  b->frags = built->frags;
  b->frag_cnt = built->cnt;
  b->chunk_cnt = chunk_cnt;
  b->valid.store(1, std::memory_order_seq_cst);
  built->frags = nullptr;
  return true;
}

// Reads and packs every fragment; the size of the last one, 0 without any, or a negative errno.
int build_fragments(const fs_reader_use& reader, u32 chunk_size, u32 chunk_cnt,
                    fragment_array* built) {
  built->frags = static_cast<sa*>(
      kernel::kzalloc(static_cast<size_t>(built->cnt) * sizeof(sa), kernel::GFP_KERNEL));
  if (built->frags == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", "zorv_blkbmp_read");
    return -ENOMEM;
  }
  const kernel::vbuf<u8> staging(static_cast<u8*>(kernel::vmalloc(fragment_bytes)));
  if (staging == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed", "zorv_blkbmp_read");
    return -ENOMEM;
  }
  int rc = 0;
  u32 left = chunk_cnt;
  s64 start = 0;
  for (s32 i = 0; i < built->cnt; ++i) {
    if (kernel::signal_pending()) return -EINTR;
    const s32 chunks = static_cast<s32>(std::min(left, fragment_chunks));
    rc = reader.read(start, chunk_size, staging.get(), chunks);
    if (rc < 0) return rc;
    rc = fragment_build(&built->frags[i], staging.get(), (chunks + 7) >> 3);
    if (rc < 0) return rc;
    left -= static_cast<u32>(chunks);
    start += chunks;
    kernel::cond_resched();
  }
  return rc;
}

}  // namespace

int zorv_blkbmp_init(zorv_blkbmp* b) {
  make_empty(b);
  return 0;
}

int zorv_blkbmp_destroy(zorv_blkbmp* b) {
  make_empty(b);
  return 0;
}

int zorv_blkbmp_read(zorv_blkbmp* b, kernel::block_device* hdd, s32 chunk_size, map_build build) {
  u32 generation = 0;
  {
    kernel::spin_guard guard(&b->lock);
    generation = b->generation;
  }
  const devt dev = hdd->bd_dev;
  // Whatever asks below whether it should end is told no where the map is built to its end.
  const bool may_end = build == map_build::interruptible;
  const kernel::signal_scope patience(may_end ? kernel::current()->signal : nullptr,
                                      kernel::current()->signal_arg);
  const fs_reader_use reader(hdd, nullptr);
  if (!reader) {
    zorv_log(1, "%s(): Cannot recognize file system on hdd(%d, %d). Datablocks will be disabled",
             __func__, kernel::major_of(dev), kernel::minor_of(dev));
    return -EINVAL;
  }
  const u32 chunk_bytes = static_cast<u32>(chunk_size);
  if (chunk_bytes < 2 || !is_power_of_2(chunk_bytes)) {
    zorv_log(LOG_ERROR, "%s(): Chunk size (%d) must be a power of 2", __func__, chunk_size);
    return -EINVAL;
  }
  const u32 shift = log2_u32(chunk_bytes);
  const u64 size = hdd->bd_size_bytes;
  const u64 chunks = (size >> shift) + ((size & (chunk_bytes - 1)) != 0 ? 1 : 0);
  if (chunks > UINT32_MAX) {
    zorv_log(LOG_ERROR, "%s(): hdd(%d, %d) has too many chunks of %d bytes for a bitmap", __func__,
             kernel::major_of(dev), kernel::minor_of(dev), chunk_size);
    return -EINVAL;
  }
  const u32 chunk_cnt = static_cast<u32>(chunks);
  fragment_array built;
  built.cnt = static_cast<s32>((chunks + fragment_chunks - 1) >> fragment_shift);
  const int rc = built.cnt == 0 ? 0 : build_fragments(reader, chunk_bytes, chunk_cnt, &built);
  if (rc < 0) return rc;
  if (!publish(b, generation, &built, chunk_cnt)) {
    zorv_log(1, "%s(): The bitmap of hdd(%d, %d) was given up while it was built", __func__,
             kernel::major_of(dev), kernel::minor_of(dev));
    return -EAGAIN;
  }
  return rc;
}

int zorv_blkbmp_test_bit(const zorv_blkbmp* b, u64 chunk) {
  // Without a map, as for most of a build, nobody needs to be counted.
  if (b->valid.load(std::memory_order_relaxed) == 0) return 1;
  const map_use use(b);
  if (!use.valid() || chunk >= b->chunk_cnt) return 1;
  return fragment_test(&b->frags[chunk >> fragment_shift],
                       static_cast<u32>(chunk & (fragment_chunks - 1)));
}

int zorv_blkbmp_export(const zorv_blkbmp* b, s32 chunks_per_extent, u8* out, s32 size_bytes) {
  if (out == nullptr) {
    zorv_log(LOG_ERROR, "%s(): NULL buffer passed as input", __func__);
    return -EINVAL;
  }
  const map_use use(b);
  if (!use.valid()) {
    if (size_bytes > 0) std::memset(out, 0xff, static_cast<size_t>(size_bytes));
    return 0;
  }
  if (chunks_per_extent < 1) {
    zorv_log(LOG_ERROR, "%s(): An extent of %d chunks passed as input", __func__,
             chunks_per_extent);
    return -EINVAL;
  }
  const u64 per_extent = static_cast<u64>(chunks_per_extent);
  const u64 needed = bytes_of_bits((b->chunk_cnt + per_extent - 1) / per_extent);
  if (size_bytes < 0 || static_cast<u64>(size_bytes) < needed) {
    zorv_log(LOG_ERROR,
             "%s(): Insufficient buffer size passed as input: should be %d instead of %d", __func__,
             static_cast<s32>(needed), size_bytes);
    return -EINVAL;
  }
  std::memset(out, 0, needed);
  // From one set chunk to the first chunk of the next extent.
  for (u64 c = 0; c < b->chunk_cnt;) {
    const u64 frag_start = c & ~static_cast<u64>(fragment_chunks - 1);
    const u64 frag_end = std::min<u64>(frag_start + fragment_chunks, b->chunk_cnt);
    const u64 found = frag_start + fragment_find_set(&b->frags[c >> fragment_shift],
                                                     static_cast<u32>(c - frag_start),
                                                     static_cast<u32>(frag_end - frag_start));
    if (found < frag_end) set_bit_at(out, found / per_extent);
    c = found < frag_end ? (found / per_extent + 1) * per_extent : frag_end;
  }
  return 0;
}

u64 zorv_blkbmp_memory(const zorv_blkbmp* b) {
  const map_use use(b);
  if (!use.valid()) return sizeof *b;
  u64 bytes = sizeof *b + static_cast<u64>(b->frag_cnt) * sizeof(sa);
  for (s32 i = 0; i < b->frag_cnt; ++i) {
    const sa& f = b->frags[i];
    u64 stored = 0;
    for (u32 j = 0; j < f.piece_cnt; ++j) stored = std::max<u64>(stored, f.index[j] + 1U);
    bytes += 2ULL * f.piece_cnt + stored * f.piece_size;
  }
  return bytes;
}

}  // namespace zorv
