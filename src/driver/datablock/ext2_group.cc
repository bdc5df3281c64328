// SPDX-License-Identifier: GPL-2.0-only
// One group of an ext2/ext3 file system: its descriptor, its bitmap, and whether they agree.
#include <algorithm>

#include "driver/core/log.h"
#include "driver/datablock/ext2.h"
#include "driver/util/file.h"
#include "kernel/task.h"

namespace zorv {

namespace {

constexpr u16 bg_block_uninit = 0x2;  // of bg_flags; counts only where descriptors have checksums

struct group_desc {
  const u8* raw;
  u64 block_bitmap, inode_bitmap, inode_table;  // blocks
  u32 free_blocks;
  bool uninit;  // the bitmap was never written
};

group_desc parse_desc(const ext2_reader& r, u64 group) {
  const u8* p = r.descs.get() + group * r.desc_bytes;
  group_desc d{};
  d.raw = p;
  d.block_bitmap = get_le32(p);
  d.inode_bitmap = get_le32(p + 4);
  d.inode_table = get_le32(p + 8);
  d.free_blocks = get_le16(p + 12);
  d.uninit = r.sb.csum.kind != ext2_csum_kind::none && (get_le16(p + 18) & bg_block_uninit) != 0;
  if (r.desc_bytes > ext2_classic_desc_bytes) {
    d.block_bitmap |= static_cast<u64>(get_le32(p + 32)) << 32;
    d.inode_bitmap |= static_cast<u64>(get_le32(p + 36)) << 32;
    d.inode_table |= static_cast<u64>(get_le32(p + 40)) << 32;
    d.free_blocks |= static_cast<u32>(get_le16(p + 44)) << 16;
  }
  return d;
}

bool is_power_of(u64 v, u64 base) {
  while (v % base == 0) v /= base;
  return v == 1;
}

// Whether a copy of superblock and descriptors stands at the start of the group.
bool has_superblock(const ext2_reader& r, u64 group) {
  if (group == 0) return true;
  if ((r.sb.compat & ext2_compat_sparse_super2) != 0) {
    return group == r.sb.backup_groups[0] || group == r.sb.backup_groups[1];
  }
  if (group == 1 || (r.sb.ro_compat & ext2_ro_compat_sparse_super) == 0) return true;
  return is_power_of(group, 3) || is_power_of(group, 5) || is_power_of(group, 7);
}

u64 inode_table_blocks(const ext2_reader& r) {
  const u64 bytes = static_cast<u64>(r.inodes_per_group) * r.sb.inode_size;
  return (bytes + r.block_size - 1) / r.block_size;
}

// Calls fn(first, end), in bits of the group's bitmap, for the group's own bitmaps and inode table
// where they lie in the group (with flexible groups they may lie anywhere).
template <class F>
void for_own_metadata(const ext2_reader& r, u64 group, const group_desc& d, F fn) {
  const u64 start = ext2_group_start(r, group);
  const u64 end = ext2_group_end(r, group);
  const struct {
    u64 first, count;
  } spans[] = {{d.block_bitmap, 1}, {d.inode_bitmap, 1}, {d.inode_table, inode_table_blocks(r)}};
  for (const auto& s : spans) {
    if (s.first >= end) continue;
    const u64 from = std::max(s.first, start);
    const u64 to = std::min(s.first + s.count, end);
    if (from < to) fn(from - start, to - start);
  }
}

// The bitmap of a group whose bitmap was never written: in use is what makes a group (copies of
// superblock and descriptors, its own bitmaps and inode table), and nothing else.
void derive_bitmap(ext2_reader* r, u64 group, const group_desc& d) {
  u8* bits = r->bitmap.get();
  const u64 blocks = ext2_group_end(*r, group) - ext2_group_start(*r, group);
  std::memset(bits, 0, r->block_size);
  if (has_superblock(*r, group)) {
    set_bits(bits, 0, std::min(1 + r->desc_blocks + r->sb.reserved_gdt_blocks, blocks));
  }
  for_own_metadata(*r, group, d, [bits](u64 from, u64 to) { set_bits(bits, from, to); });
  set_bits(bits, blocks, r->block_size * 8ULL);
}

// Whether the bitmap, which lies in the file system, is where a bitmap of this group can be.
bool bitmap_block_plausible(const ext2_reader& r, u64 group, u64 block) {
  if ((r.sb.incompat & ext2_incompat_flex_bg) != 0) return true;
  return block >= ext2_group_start(r, group) && block < ext2_group_end(r, group);
}

u32 count_free(const ext2_reader& r) {
  u32 in_use = 0;
  for (u32 i = 0; i < r.block_size; ++i) in_use += r.bit_cnt[r.bitmap[i]];
  return r.block_size * 8 - in_use;
}

// Compares the bitmap in the buffer with the descriptor and with what every bitmap must have set.
// Why the group cannot be taken at its word, or null.
const char* doubt_of_bitmap(const ext2_reader& r, u64 group, const group_desc& d) {
  const u8* bits = r.bitmap.get();
  const u64 blocks = ext2_group_end(r, group) - ext2_group_start(r, group);
  const u64 all_bits = r.block_size * 8ULL;
  if (!r.sb.csum.desc_ok(d.raw, r.desc_bytes, static_cast<u32>(group))) {
    return "has a descriptor with a wrong checksum";
  }
  if (!d.uninit && !r.sb.csum.bitmap_ok(d.raw, r.desc_bytes, bits, r.blocks_per_group / 8)) {
    return "has a bitmap with a wrong checksum";
  }
  // Bits past the end of a group stand for no block and are always set; a clear one says that the
  // group, or the file system, goes on.
  if (find_clear_bit(bits, blocks, all_bits) < all_bits) return "has free blocks behind its end";
  bool tables_in_use = true;
  for_own_metadata(r, group, d, [bits, &tables_in_use](u64 from, u64 to) {
    if (find_clear_bit(bits, from, to) < to) tables_in_use = false;
  });
  return tables_in_use ? nullptr : "has its own tables as free";
}

int load_bitmap(ext2_reader* r, u64 group, const group_desc& d) {
  if (d.uninit) {
    derive_bitmap(r, group, d);
    return 0;
  }
  const int rc =
      zorv_bread(r->hdd, r->bitmap.get(), r->block_size, static_cast<s64>(d.block_bitmap), 1);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to read Data Bitmap of Block Group %d: rc=%d",
             "ext2_reader_read", static_cast<s32>(group), rc);
  }
  return rc;
}

// Whether the group agrees with itself; logged where it does not. The bitmap is in the buffer.
bool group_is_sound(const ext2_reader& r, u64 group, const group_desc& d) {
  const char* why = nullptr;
  const u32 free_blocks = count_free(r);
  if (!d.uninit && !bitmap_block_plausible(r, group, d.block_bitmap)) {
    why = "cannot have its bitmap where its descriptor says";
  } else if (free_blocks != d.free_blocks) {
    zorv_log(LOG_ERROR,
             "%s(): Number of free blocks (%d) in block group %d is inconsistent with the bitmap "
             "(%d).",
             "ext2_reader_read", d.free_blocks, static_cast<s32>(group), free_blocks);
    return false;
  } else {
    why = doubt_of_bitmap(r, group, d);
  }
  if (why == nullptr) return true;
  zorv_log(LOG_ERROR, "%s(): Block group %d %s.", "ext2_reader_read", static_cast<s32>(group), why);
  return false;
}

}  // namespace

const char* ext2_doubt_of_descriptors(const ext2_reader& r) {
  const auto inside = [&r](u64 first, u64 count) {
    return first > r.first_data_block && first < r.blocks_count && count <= r.blocks_count - first;
  };
  const u64 table_blocks = inode_table_blocks(r);
  u64 free_blocks = 0;
  for (u64 group = 0; group < r.group_desc_count; ++group) {
    const group_desc d = parse_desc(r, group);
    if (!inside(d.block_bitmap, 1) || !inside(d.inode_bitmap, 1) ||
        !inside(d.inode_table, table_blocks)) {
      return "has a group descriptor that points outside of it";
    }
    free_blocks += d.free_blocks;
  }
  return free_blocks == r.sb.free_blocks ? nullptr
                                         : "has another count of free blocks than its groups";
}

int ext2_examine_groups(ext2_reader* r) {
  for (u64 group = 0; group < r->group_desc_count; ++group) {
    if (kernel::signal_pending()) return -EINTR;
    const int rc = ext2_load_group(r, group);
    if (rc < 0) return rc;
    if (!group_is_sound(*r, group, parse_desc(*r, group))) {
      fs_reader_log_doubt("ext2_reader_read", "ext2/ext3 FS", r->hdd->bd_dev,
                          "has a block group that contradicts itself");
      r->in_doubt = true;
      return 0;
    }
    kernel::cond_resched();
  }
  r->examined = true;
  return 0;
}

int ext2_load_group(ext2_reader* r, u64 group) {
  if (r->cached_group == static_cast<s64>(group)) return 0;
  r->cached_group = -1;
  const int rc = load_bitmap(r, group, parse_desc(*r, group));
  if (rc == 0) r->cached_group = static_cast<s64>(group);
  return rc;
}

}  // namespace zorv
