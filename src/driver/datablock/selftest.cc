// SPDX-License-Identifier: GPL-2.0-only
#include "driver/datablock/selftest.h"

#include <algorithm>

#include "driver/core/log.h"
#include "driver/datablock/bits.h"
#include "driver/util/file.h"
#include "kernel/mem.h"
#include "kernel/task.h"
#include "kernel/time.h"

namespace zorv {

namespace {

constexpr u32 max_reader_chunk = 65536;     // bytes
constexpr u32 max_chunk = 2 * 1024 * 1024;  // bytes
constexpr u64 min_portion_bytes = 128;

bool device_size(const char* caller, const kernel::block_device* hdd, u64* bytes) {
  *bytes = hdd->bd_size_bytes;
  if (static_cast<s64>(*bytes) >= 0) return true;
  zorv_log(LOG_ERROR, "%s(): Failed to get size of hdd(%d, %d)", caller,
           kernel::major_of(hdd->bd_dev), kernel::minor_of(hdd->bd_dev));
  return false;
}

u64 count_units(u64 bytes, u32 unit) { return (bytes + unit - 1) >> log2_u32(unit); }

kernel::vbuf<u8> bit_array(const char* caller, u64 bits) {
  kernel::vbuf<u8> a(static_cast<u8*>(kernel::vzalloc(std::max<u64>(bytes_of_bits(bits), 1))));
  if (a == nullptr) zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", caller);
  return a;
}

// Whether any of the blocks of a chunk is set.
bool any_block(const u8* blocks, u64 block_cnt, u64 chunk, u64 per_chunk) {
  const u64 end = std::min((chunk + 1) * per_chunk, block_cnt);
  return find_set_bit(blocks, chunk * per_chunk, end) < end;
}

// Long loops ask now and then whether anybody still wants the result.
constexpr u64 ask_every = 1 << 20;
bool given_up(u64 i) { return i % ask_every == 0 && kernel::signal_pending(); }

// Frees the name for a dump: an older dump goes, and so does a link, which is never followed. What
// is somebody's stays.
void make_way(const char* name, const char* owner, u32 flags) {
  kernel::dentry* entry = zorv_get_file_dentry(name, 0);
  if (entry == nullptr || kernel::is_err(entry)) return;
  const bool is_link = kernel::s_islnk(entry->d_inode()->i_mode);
  kernel::dput(entry);
  kernel::file_id link;
  if (is_link) {
    if (kernel::path_identity(name, &link) == 0) (void)kernel::fs_unlink_file(name, link);
    return;
  }
  kernel::file_claim claim;
  zorv_file* older = nullptr;
  if (zorv_fopen_own(name, flags, owner, file_lock::exclusive, &claim, &older) != 0) return;
  (void)kernel::fs_unlink_file(name, claim.id());
  zorv_fclose(older);
}

void dump(const u8* bits, u64 bytes, u32 chunk_size, u64 portion) {
  constexpr const char* owner = "a dump of the self-test";
  constexpr u32 flags = kernel::FO_RDWR | kernel::FO_LARGEFILE;
  char name[64];
  std::snprintf(name, sizeof name, "/tmp/bmp.%d.%d", static_cast<s32>(chunk_size),
                static_cast<s32>(portion));
  make_way(name, owner, flags);
  kernel::file_claim claim;
  zorv_file* made = nullptr;
  if (zorv_fopen_own(name, flags | kernel::FO_CREAT | kernel::FO_EXCL, owner, file_lock::exclusive,
                     &claim, &made) != 0) {
    return;
  }
  const zorv_file_ptr file(made);
  (void)zorv_fwrite(file.get(), 0, bits, static_cast<int>(bytes));
}

// A range of chunks, and how much of it one call reads: a multiple of 8.
struct chunk_range {
  u64 start, count, portion;
};

// Reads the range in calls of its portion, and of no more than ask_every blocks each. `failed`,
// when not null, gets the call that failed.
int read_chunks(void* context, fs_read_fn read, u32 block_size, u32 chunk_size,
                const chunk_range& range, u8* bits, chunk_range* failed) {
  const u64 most = std::max<u64>(ask_every / (chunk_size / block_size), 8);
  const u64 portion = std::min(range.portion, most);
  for (u64 at = 0; at < range.count; at += portion) {
    if (kernel::signal_pending()) return -EINTR;
    const u64 chunks = std::min(portion, range.count - at);
    const int rc = read(context, static_cast<s64>(range.start + at), chunk_size, bits + (at >> 3),
                        static_cast<s32>(chunks));
    if (rc < 0 && failed != nullptr) *failed = {range.start + at, chunks, portion};
    if (rc < 0) return rc;
  }
  return 0;
}

// One chunk size of the reader test: every portion size, against the block bits in *reference
// (which the first array filled becomes).
struct reader_test {
  void* context;
  u32 block_size;
  u64 block_cnt;
  fs_read_fn read;
  kernel::vbuf<u8> reference;

  int compare(const u8* bits, u32 chunk_size, u64 chunks) const {
    const u64 per_chunk = chunk_size / block_size;
    for (u64 c = 0; c < chunks; ++c) {
      if (given_up(c)) return -EINTR;
      const bool expected = any_block(reference.get(), block_cnt, c, per_chunk);
      if (bit_at(bits, c) == expected) continue;
      zorv_log(LOG_ERROR,
               expected ? "Oops. Bit %d of chunk bitmap is clear, but some bits in the block "
                          "bitmap are set."
                        : "Oops. Bit %d of chunk bitmap is set, but all bits in the block bitmap "
                          "are clear.",
               static_cast<s32>(c));
      return -EIO;
    }
    return 0;
  }

  int run(u32 chunk_size, u64 chunks) {
    const u64 bytes = bytes_of_bits(chunks);
    kernel::vbuf<u8> bits = bit_array("zorv_blkbmp_test_reader", chunks);
    if (bits == nullptr) return -ENOMEM;
    for (u64 portion = bytes; portion >= min_portion_bytes; portion /= 2) {
      zorv_log(3, "Testing chunk_size=%d, chunks=%d (portion_size=%d): /tmp/bmp.%d.%d", chunk_size,
               static_cast<s32>(chunks), static_cast<s32>(portion), chunk_size,
               static_cast<s32>(portion));
      chunk_range failed{};
      int rc = read_chunks(context, read, block_size, chunk_size, {0, chunks, portion * 8},
                           bits.get(), &failed);
      if (failed.count != 0 && rc != -EINTR) {
        zorv_log(LOG_ERROR, "Failed to read %d bits starting from chunk %d",
                 static_cast<s32>(failed.count), static_cast<s32>(failed.start));
      }
      if (rc < 0) return rc;
      dump(bits.get(), bytes, chunk_size, portion);
      if (reference == nullptr) {
        reference = std::move(bits);
        bits = bit_array("zorv_blkbmp_test_reader", chunks);
        if (bits == nullptr) return -ENOMEM;
        continue;
      }
      rc = compare(bits.get(), chunk_size, chunks);
      if (rc < 0) return rc;
    }
    return 0;
  }
};

// Everything the steps after the reader test work on.
struct volume_test {
  const fs_reader_use* reader;
  u32 block_size;
  u64 block_cnt;
  kernel::vbuf<u8> blocks;  // the reference: one bit per block
  kernel::vbuf<u8> chunks;  // what is compared with it

  int read_volume(u64 start, u32 chunk_size, u8* bits, u64 count) const {
    return read_chunks(reader->context(), reader->ops()->read, block_size, chunk_size,
                       {start, count, ask_every}, bits, nullptr);
  }

  // Reads a range of chunks from a varying start on.
  int test_ranges() {
    if (block_size > max_chunk) return 0;
    for (u32 chunk_size = block_size; chunk_size <= max_chunk; chunk_size *= 2) {
      const u64 per_chunk = chunk_size / block_size;
      const u64 total = block_cnt == 0 ? 0 : (block_cnt - 1 + per_chunk) / per_chunk;
      const u64 start = total / 2 == 0 ? 0 : kernel::jiffies() % (total / 2);
      const s32 count = static_cast<s32>(total - start);
      zorv_log(3, "%s(): Testing bitmap reading for start chunk=%d, chunk size=%d, chunks=%d",
               "zorv_blkbmp_test", static_cast<s32>(start), chunk_size, count);
      const int rc = read_volume(start, chunk_size, chunks.get(), total - start);
      if (rc < 0) return rc;
      for (u64 c = 0; c < total - start; ++c) {
        if (given_up(c)) return -EINTR;
        const bool expected = any_block(blocks.get(), block_cnt, start + c, per_chunk);
        if (bit_at(chunks.get(), c) == expected) continue;
        zorv_log(LOG_ERROR, "%s(): Bitmap inconsistency for chunk %d: expected %d, got %d",
                 "zorv_blkbmp_test", static_cast<s32>(c), expected ? 1 : 0, expected ? 0 : 1);
        return -EINVAL;
      }
    }
    return 0;
  }

  // Compares what the map exports with what the reader says at the same size.
  int test_export(const zorv_blkbmp* map) {
    zorv_log(2, "%s(): Testing zorv_blkbmp_export()", "zorv_blkbmp_test");
    const kernel::vbuf<u8> exported = bit_array("zorv_blkbmp_test", block_cnt);
    if (exported == nullptr) return -ENOMEM;
    for (u32 extent_size = block_size; extent_size <= max_chunk; extent_size *= 2) {
      const s32 per_extent = static_cast<s32>(extent_size / block_size);
      const s32 extents = static_cast<s32>(
          block_cnt == 0 ? 0 : (block_cnt - 1 + static_cast<u64>(per_extent)) / per_extent);
      zorv_log(3, "%s(): Testing downsample to extent size %d", "zorv_blkbmp_test", extent_size);
      int rc = read_volume(0, extent_size, chunks.get(), static_cast<u64>(extents));
      if (rc < 0) return rc;
      rc = zorv_blkbmp_export(map, per_extent, exported.get(),
                              static_cast<s32>(bytes_of_bits(block_cnt)));
      if (rc < 0) return rc;
      for (s32 k = 0; k < extents; ++k) {
        if (given_up(static_cast<u64>(k))) return -EINTR;
        const bool expected = bit_at(chunks.get(), static_cast<u64>(k));
        const bool got = bit_at(exported.get(), static_cast<u64>(k));
        if (expected == got) continue;
        zorv_log(LOG_ERROR,
                 "%s(): Failed to downsample bitmap for extent of size %d: bit %d doesn't match.",
                 "zorv_blkbmp_test", extent_size, k);
        zorv_log(LOG_ERROR, "  chunk_size=%d, blocks_per_chunk=%d, chunks=%d", extent_size,
                 per_extent, extents);
        zorv_log(LOG_ERROR, "  read_func() returned %d, export() returned %d", expected ? 1 : 0,
                 got ? 1 : 0);
        return -EINVAL;
      }
    }
    return 0;
  }
};

bool block_size_is_usable(const char* caller, u32 block_size) {
  if (block_size >= 2 && is_power_of_2(block_size)) return true;
  zorv_log(LOG_ERROR, "%s(): Not pow2 FS block size returned from FS reader.", caller);
  return false;
}

}  // namespace

int zorv_blkbmp_test_reader(kernel::block_device* hdd, void* context, u32 block_size,
                            fs_read_fn read) {
  u64 size = 0;
  if (!device_size(__func__, hdd, &size)) return -EINVAL;
  if (!block_size_is_usable(__func__, block_size)) return -EIO;
  zorv_log(2, "%s(): Testing bitmap reader for hdd(%d, %d)", __func__,
           kernel::major_of(hdd->bd_dev), kernel::minor_of(hdd->bd_dev));
  reader_test test{context, block_size, count_units(size, block_size), read, nullptr};
  for (u32 chunk_size = block_size; chunk_size <= max_reader_chunk; chunk_size *= 2) {
    const u64 chunks = count_units(size, chunk_size);
    if (bytes_of_bits(chunks) < min_portion_bytes) continue;
    const int rc = test.run(chunk_size, chunks);
    if (rc < 0) return rc;
  }
  return 0;
}

int zorv_blkbmp_test_compressed(const zorv_blkbmp* map, const u8* blocks, u64 block_cnt) {
  zorv_log(2, "   Comparing the results...");
  for (u64 i = 0; i < block_cnt; ++i) {
    if (given_up(i)) return -EINTR;
    const int expected = bit_at(blocks, i) ? 1 : 0;
    const int got = zorv_blkbmp_test_bit(map, i);
    if (got == expected) continue;
    zorv_log(LOG_ERROR, "%s(): Bit %d is misrepresented by blkbmp: %d instead of %d",
             "zorv_blkbmp_test", static_cast<s32>(i), got, expected);
    return -EIO;
  }
  return 0;
}

int zorv_blkbmp_test(kernel::block_device* hdd) {
  const u32 major = kernel::major_of(hdd->bd_dev);
  const u32 minor = kernel::minor_of(hdd->bd_dev);
  zorv_log(2, "%s(): Testing datablock bitmap code for hdd(%d, %d)", __func__, major, minor);
  u64 size = 0;
  if (!device_size(__func__, hdd, &size)) return -EINVAL;
  u32 block_size = 0;
  const fs_reader_use reader(hdd, &block_size);
  if (!reader) {
    zorv_log(1, "%s(): Cannot recognize file system on hdd(%d, %d).", __func__, major, minor);
    return -EINVAL;
  }
  if (block_size == 0) {
    zorv_log(LOG_ERROR, "%s(): NULL FS block size returned from FS reader.", __func__);
    return -EIO;
  }
  if (!block_size_is_usable(__func__, block_size)) return -EIO;
  const u64 block_cnt = count_units(size, block_size);
  if (block_cnt > INT32_MAX) {
    zorv_log(LOG_ERROR, "%s(): hdd(%d, %d) has too many blocks for the test", __func__, major,
             minor);
    return -EINVAL;
  }
  int rc = zorv_blkbmp_test_reader(hdd, reader.context(), block_size, reader.ops()->read);
  if (rc != 0) return rc;

  zorv_log(2,
           "%s(): Reading the entire datablock bitmap with chunk_size=block_size=%dB using the "
           "reader directly",
           __func__, block_size);
  volume_test test{&reader, block_size, block_cnt, bit_array(__func__, block_cnt), nullptr};
  if (test.blocks == nullptr) return -ENOMEM;
  test.chunks = bit_array(__func__, block_cnt);
  if (test.chunks == nullptr) return -ENOMEM;
  rc = test.read_volume(0, block_size, test.blocks.get(), block_cnt);
  if (rc < 0) return rc;

  zorv_log(2,
           "%s(): Reading the entire datablock bitmap with chunk_size=block_size=%dB using blkbmp "
           "API",
           __func__, block_size);
  zorv_blkbmp map;
  const scope_exit destroy([&map] { zorv_blkbmp_destroy(&map); });
  zorv_blkbmp_init(&map);
  // Whatever else it says shows in the comparison.
  if (zorv_blkbmp_read(&map, hdd, static_cast<s32>(block_size), map_build::interruptible) ==
      -EINTR) {
    return -EINTR;
  }
  rc = zorv_blkbmp_test_compressed(&map, test.blocks.get(), block_cnt);
  if (rc < 0) return rc;
  rc = test.test_ranges();
  if (rc < 0) return rc;
  rc = test.test_export(&map);
  if (rc < 0) return rc;
  zorv_log(2, "%s(): Datablock bitmap code tests completed successfully", __func__);
  return 0;
}

}  // namespace zorv
