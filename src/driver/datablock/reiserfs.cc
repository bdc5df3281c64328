// SPDX-License-Identifier: GPL-2.0-only
// The ReiserFS 3.6 reader.
//
// Bitmap blocks stand at fixed places, each for as many blocks as it has bits, and the superblock
// has the number of free blocks. The two are compared once, before anything else is believed.
#include <algorithm>

#include "driver/core/log.h"
#include "driver/datablock/reader.h"
#include "driver/util/file.h"
#include "kernel/mem.h"

namespace zorv {

namespace {

constexpr u32 superblock_offset = 65536;
constexpr u32 superblock_bytes = 80;  // what is used of it
constexpr u32 superblock_read_bytes = 4096;
constexpr char magic_text[10] = "ReIsEr2Fs";
constexpr u16 state_valid = 1;
constexpr char journal_desc_magic[] = "ReIsErLB";  // 12 bytes before the end of its block

struct reiserfs_reader {
  u8 sb[superblock_bytes] = {};         // as on the disk, but byte 63 is 0 and ends the magic
  kernel::block_device* hdd = nullptr;  // not owned
  kernel::vbuf<u8> bitmap;              // one block: the bitmap last read
  s32 cached_bitmap = -1;
  u32 bits_per_bitmap = 0;
  u32 first_bitmap_block = 0;
  bool in_doubt = false;  // every chunk counts as allocated

  [[nodiscard]] u32 block_count() const { return get_le32(sb); }
  [[nodiscard]] u32 free_blocks() const { return get_le32(sb + 4); }
  [[nodiscard]] u32 journal_first_block() const { return get_le32(sb + 12); }
  [[nodiscard]] u32 journal_dev() const { return get_le32(sb + 16); }
  [[nodiscard]] u32 journal_blocks() const { return get_le32(sb + 20); }
  [[nodiscard]] u32 block_size() const { return get_le16(sb + 44); }
  [[nodiscard]] u16 umount_state() const { return get_le16(sb + 50); }
  [[nodiscard]] const char* magic() const { return reinterpret_cast<const char*>(sb + 52); }
  [[nodiscard]] u32 bitmap_count() const { return get_le16(sb + 70); }
  [[nodiscard]] s32 version() const { return get_le16(sb + 72); }
  [[nodiscard]] u32 inode_generation() const { return get_le32(sb + 76); }

  [[nodiscard]] s64 bitmap_block(u32 i) const {
    return i == 0 ? first_bitmap_block : static_cast<s64>(i) * bits_per_bitmap;
  }
  [[nodiscard]] u32 bitmaps_needed() const {
    return (block_count() + (bits_per_bitmap - 1ULL)) / bits_per_bitmap;
  }
};

// What a cleanly unmounted file system looks like: no transaction waits in its journal
// for being copied to its place. The journal's header names the place of the oldest one that may;
// only a newer transaction than the last one copied counts.
//   returns  1 something waits | 0 | the read's error
int journal_pending(reiserfs_reader* r) {
  const u64 end = static_cast<u64>(r->journal_first_block()) + r->journal_blocks();
  if (end >= r->block_count()) return 1;
  u8* block = r->bitmap.get();
  const u32 bytes = r->block_size();
  int rc = zorv_bread(r->hdd, block, bytes, static_cast<s64>(end), 1);
  if (rc < 0) return rc;
  const u32 last_flushed = get_le32(block);
  const u32 offset = get_le32(block + 4);
  if (offset != 0 && offset >= r->journal_blocks()) return 1;
  rc = zorv_bread(r->hdd, block, bytes, static_cast<s64>(r->journal_first_block()) + offset, 1);
  if (rc < 0) return rc;
  const bool is_desc =
      std::memcmp(block + bytes - 12, journal_desc_magic, sizeof journal_desc_magic - 1) == 0;
  return is_desc && get_le32(block) > last_flushed ? 1 : 0;
}

// Why the file system cannot be taken at its word, or null. Uses the block buffer.
const char* doubt_of(reiserfs_reader* r, u16 fs_state) {
  if (!is_power_of_2(r->block_size()) || r->block_size() < kernel::sector_size) {
    return "has an impossible block size";
  }
  if (r->block_size() > kernel::page_size) return nullptr;  // its first bitmap cannot be read
  if (r->umount_state() != state_valid) {
    return "was not cleanly unmounted";
  }
  if (fs_state != 0) return "is marked as having errors";
  if (r->block_count() > r->hdd->bd_size_bytes / r->block_size())
    return "is larger than the device";
  if (r->block_count() == 0 || r->bitmap_count() != r->bitmaps_needed()) {
    return "has counts that contradict each other";
  }
  const u64 fs_bytes = static_cast<u64>(r->block_count()) * r->block_size();
  const char* rival = fs_reader_rival(r->hdd, fs_kind::reiserfs, fs_bytes);
  if (rival != nullptr) return rival;
  if (r->journal_dev() != 0) return nullptr;  // an unmount leaves nothing in it
  const int pending = journal_pending(r);
  if (pending < 0) return "has a journal that cannot be read";
  return pending == 0 ? nullptr : "has a journal that must be replayed";
}

constexpr auto zero_bits = [] {
  struct {
    u8 of[256];
  } t{};
  for (u32 v = 0; v < 256; ++v) t.of[v] = static_cast<u8>(8 - std::popcount(v));
  return t;
}();

// Counts the free blocks of all bitmaps and compares them with the superblock.
bool verify_free_count(reiserfs_reader* r) {
  const devt dev = r->hdd->bd_dev;
  const u32 bytes = r->block_size();
  u32 free_blocks = 0;
  u32 remaining = r->block_count();  // becomes 0 only when it is a multiple of 8
  for (u32 i = 0; i == 0 || i < r->bitmap_count(); ++i) {
    const s64 block = r->bitmap_block(i);
    const int rc = zorv_bread(r->hdd, r->bitmap.get(), bytes, block, 1);
    if (rc < 0) {
      zorv_log(LOG_ERROR, "%s(): Failed to read Bitmap #%d (from block %d): rc=%d",
               "reiserfs_reader_init", i, static_cast<s32>(block), rc);
      return false;
    }
    for (u32 j = 0; j < bytes && remaining != 0; ++j, remaining -= 8) {
      free_blocks += zero_bits.of[r->bitmap[j]];
    }
    if (i + 1 == r->bitmaps_needed()) {
      // Bits past the end stand for no block and are always set; a clear one says that the file
      // system goes on.
      const u64 used = r->block_count() - static_cast<u64>(i) * r->bits_per_bitmap;
      if (find_clear_bit(r->bitmap.get(), used, r->bits_per_bitmap) < r->bits_per_bitmap) {
        fs_reader_log_doubt("reiserfs_reader_init", "ReiserFS", dev,
                            "has free blocks behind its end");
        r->in_doubt = true;
      }
    }
  }
  if (free_blocks != r->free_blocks()) {
    zorv_log(LOG_ERROR,
             "%s(): Unexpected inconsistency of ReiserFS SB on hdd=(%d, %d) says that it has %d "
             "blocks, but bitmaps argue for %d",
             "reiserfs_reader_init", kernel::major_of(dev), kernel::minor_of(dev), r->free_blocks(),
             free_blocks);
    return false;
  }
  return true;
}

void describe(const reiserfs_reader& r) {
  zorv_log(2, "   magic=\"%s\"", r.magic());
  zorv_log(2, "   block_size=%d", r.block_size());
  zorv_log(2, "   block_count=%d", r.block_count());
  zorv_log(2, "   free_count=%d", r.free_blocks());
  zorv_log(2, "   bitmaps=%d", r.bitmap_count());
  zorv_log(2, "   state=%d (%s)", r.umount_state(),
           r.umount_state() == state_valid ? "VALID" : "ERROR");
  zorv_log(2, "   version=%d", r.version());
  zorv_log(2, "   inode_generation=%d", r.inode_generation());
}

}  // namespace

void* reiserfs_reader_init(kernel::block_device* hdd, u32* fs_block_size) {
  const u32 major = kernel::major_of(hdd->bd_dev);
  const u32 minor = kernel::minor_of(hdd->bd_dev);
  auto* r = fs_reader_context(__func__, hdd, &reiserfs_reader::bitmap, superblock_read_bytes);
  if (r == nullptr) return nullptr;
  scope_exit fail([r] { kernel::kdelete(r); });
  const int rc = zorv_bread(hdd, r->bitmap.get(), superblock_read_bytes,
                            superblock_offset / superblock_read_bytes, 1);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to read Super Block of hdd(%d, %d) at offset 65536: rc=%d",
             __func__, major, minor, rc);
    return nullptr;
  }
  std::memcpy(r->sb, r->bitmap.get(), superblock_bytes);
  const u16 fs_state = get_le16(r->sb + 62);
  r->sb[63] = 0;
  if (std::memcmp(r->magic(), magic_text, sizeof magic_text) != 0) {
    zorv_log(3, "%s(): hdd(%d, %d) doesn't have ReiserFS.", __func__, major, minor);
    return nullptr;
  }
  const u32 block_size = r->block_size();
  if (fs_block_size != nullptr) *fs_block_size = block_size;
  if (block_size == 0) {
    zorv_log(LOG_ERROR, "%s(): Superblock of hdd(%d, %d) is corrupt.", __func__, major, minor);
    return nullptr;
  }
  if (block_size != superblock_read_bytes && !fs_reader_buffer(__func__, &r->bitmap, block_size)) {
    return nullptr;
  }
  zorv_log(2, "%s(): Detected ReiserFS on hdd(%d, %d)", __func__, major, minor);
  describe(*r);
  r->bits_per_bitmap = block_size * 8;
  r->first_bitmap_block = superblock_offset / block_size + 1;
  if (const char* why = doubt_of(r, fs_state); why != nullptr) {
    fs_reader_log_doubt(__func__, "ReiserFS", hdd->bd_dev, why);
    r->in_doubt = true;
  } else if (!verify_free_count(r)) {
    return nullptr;
  }
  fail.cancel();
  return r;
}

int reiserfs_reader_read(void* context, s64 start_chunk, u32 chunk_size, u8* bits, s32 count) {
  auto* r = static_cast<reiserfs_reader*>(context);
  int rc = fs_reader_check(__func__, r, r == nullptr ? 0 : r->block_size(), chunk_size);
  if (rc < 0) return rc;
  const chunk_window w = open_window(start_chunk, chunk_size, r->block_size(), bits, count);
  if (r->in_doubt) {
    w.mark_all();
    return 0;
  }
  w.mark_behind(*r->hdd, r->block_count(), r->block_size());
  const u64 per_bitmap = r->bits_per_bitmap;
  const u64 end = std::min<u64>(w.end_block(), r->block_count());
  for (u64 i = w.first_block() / per_bitmap; i < r->bitmap_count() && i * per_bitmap < end; ++i) {
    if (r->cached_bitmap != static_cast<s32>(i)) {
      r->cached_bitmap = -1;
      rc = zorv_bread(r->hdd, r->bitmap.get(), r->block_size(),
                      r->bitmap_block(static_cast<u32>(i)), 1);
      if (rc < 0) {
        zorv_log(LOG_ERROR, "%s(): Failed to read Bitmap #%d: rc=%d", __func__, static_cast<s32>(i),
                 rc);
        return rc;
      }
      r->cached_bitmap = static_cast<s32>(i);
    }
    w.mark_bitmap(r->bitmap.get(), i * per_bitmap, i * per_bitmap,
                  std::min((i + 1) * per_bitmap, end));
  }
  return 0;
}

int reiserfs_reader_destroy(void* context) {
  kernel::kdelete(static_cast<reiserfs_reader*>(context));
  return 0;
}

}  // namespace zorv
