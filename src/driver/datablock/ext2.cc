// SPDX-License-Identifier: GPL-2.0-only
// The ext2/ext3 reader.
//
// The volume is cut into groups; each has one block of bits that says which of its blocks are in
// use, and a descriptor that says where that block lies and how many blocks are free. The
// descriptors are read once, the bitmaps one at a time.
//
// The magic is also worn by newer relatives. What their feature words say is followed where it is
// known (64-byte descriptors, flexible groups, bitmaps that were never initialised); a feature
// that is not known, or one that gives a bit another meaning, puts the whole file system in doubt.
#include "driver/datablock/ext2.h"

#include "driver/core/log.h"
#include "driver/util/file.h"

namespace zorv {

namespace {

constexpr u32 superblock_bytes = 1024;  // block 1 of 1024-byte blocks
constexpr u16 ext2_magic = 0xef53;

// s_state
constexpr u16 state_clean = 0x1;
constexpr u16 state_errors = 0x2;
// s_feature_incompat
constexpr u32 incompat_recover = 0x4;
constexpr u32 incompat_meta_bg = 0x10;
constexpr u32 incompat_64bit = 0x80;
// filetype, recover, extents, 64bit, mmp, flex_bg, ea_inode, csum_seed, largedir, inline_data,
// encrypt, casefold: none changes what the bit of a block means.
constexpr u32 incompat_known = 0x2 | incompat_recover | 0x40 | incompat_64bit | 0x100 |
                               ext2_incompat_flex_bg | 0x400 | 0x2000 | 0x4000 | 0x8000 | 0x10000 |
                               0x20000;
// s_feature_ro_compat
constexpr u32 ro_compat_bigalloc = 0x200;
// sparse_super, large_file, btree_dir, huge_file, gdt_csum, dir_nlink, extra_isize, quota,
// metadata_csum, readonly, project, shared_blocks, verity, orphan_present.
constexpr u32 ro_compat_known = ext2_ro_compat_sparse_super | 0x2 | 0x4 | 0x8 | 0x10 | 0x20 | 0x40 |
                                0x100 | 0x400 | 0x1000 | 0x2000 | 0x4000 | 0x8000 | 0x10000;

ext2_superblock parse_superblock(const u8* p) {
  ext2_superblock s{};
  s.inodes_count = get_le32(p);
  s.blocks_count_lo = get_le32(p + 4);
  s.first_data_block = get_le32(p + 20);
  s.log_block_size = get_le32(p + 24);
  s.blocks_per_group = get_le32(p + 32);
  s.inodes_per_group = get_le32(p + 40);
  s.magic = get_le16(p + 56);
  s.state = get_le16(p + 58);
  s.compat = get_le32(p + 92);
  s.incompat = get_le32(p + 96);
  s.ro_compat = get_le32(p + 100);
  const bool has_inode_size = get_le32(p + 76) != 0;  // revision 0 has inodes of 128 bytes
  s.inode_size = has_inode_size ? get_le16(p + 88) : 128;
  s.reserved_gdt_blocks = get_le16(p + 206);
  s.desc_size = get_le16(p + 254);
  s.blocks_count_hi = get_le32(p + 336);
  s.free_blocks = get_le32(p + 12);
  if ((s.incompat & incompat_64bit) != 0) s.free_blocks |= u64{get_le32(p + 344)} << 32;
  s.backup_groups[0] = get_le32(p + 588);
  s.backup_groups[1] = get_le32(p + 592);
  s.csum = ext2_csum_of(p);
  s.csum_ok = ext2_superblock_csum_ok(s.csum, p);
  return s;
}

// Why the file system cannot be taken at its word, or null.
const char* doubt_of(const ext2_reader& r) {
  const ext2_superblock& sb = r.sb;
  if ((sb.incompat & ~incompat_known) != 0 || (sb.ro_compat & ~ro_compat_known) != 0) {
    return (sb.ro_compat & ro_compat_bigalloc) != 0 ? "allocates clusters of blocks"
                                                    : "has features that are not known here";
  }
  if (!sb.csum_ok) return "has a superblock with a wrong checksum";
  if ((sb.state & state_errors) != 0) return "is marked as having errors";
  if ((sb.incompat & incompat_recover) != 0) return "has a journal that must be replayed";
  if ((sb.state & state_clean) == 0) return "was not cleanly unmounted";
  if (!is_power_of_2(r.desc_bytes) || r.desc_bytes > r.block_size ||
      ((sb.incompat & incompat_64bit) != 0 ? sb.desc_size < 64
                                           : sb.desc_size > ext2_classic_desc_bytes)) {
    return "has group descriptors of an impossible size";
  }
  // One block holds a group's bits; the makers of file systems use multiples of 8, from 256 up.
  if (r.blocks_per_group > r.block_size * 8 || r.blocks_per_group % 8 != 0 ||
      r.blocks_per_group < 256) {
    return "has an impossible number of blocks per group";
  }
  if (r.first_data_block != (r.block_size == 1024 ? 1U : 0U) ||
      r.blocks_count <= r.first_data_block) {
    return "has an impossible first block";
  }
  if (r.blocks_count > r.hdd->bd_size_bytes / r.block_size) return "is larger than the device";
  // Group 0 holds the whole table, and so does every group with a copy of it.
  if (r.desc_blocks >= r.blocks_per_group || r.desc_blocks >= r.blocks_count) {
    return "has more group descriptors than fit into a group";
  }
  // The inodes are counted apart from the blocks, and both give the number of groups.
  if (r.group_desc_count * r.inodes_per_group != sb.inodes_count) {
    return "has counts that contradict each other";
  }
  return fs_reader_rival(r.hdd, fs_kind::ext2, r.blocks_count * r.block_size);
}

// Sizes of the tables, and the level-2 lines.
void describe(ext2_reader* r) {
  const ext2_superblock& sb = r->sb;
  r->blocks_count = sb.blocks_count_lo;
  if ((sb.incompat & incompat_64bit) != 0) {
    r->blocks_count |= static_cast<u64>(sb.blocks_count_hi) << 32;
    r->desc_bytes = sb.desc_size;
  }
  if (r->blocks_count > r->first_data_block) {
    r->group_desc_count = (r->blocks_count - 1 - r->first_data_block) / r->blocks_per_group + 1;
  }
  r->descs_per_block = r->desc_bytes == 0 ? 0 : r->block_size / r->desc_bytes;
  if (r->descs_per_block != 0) {
    r->desc_blocks = (r->group_desc_count + r->descs_per_block - 1) / r->descs_per_block;
  }
  zorv_log(2, "   magic=0x%04x", sb.magic);
  zorv_log(2, "   block_size=%d", r->block_size);
  zorv_log(2, "   blocks_count=%lld (%lldMB)", static_cast<long long>(r->blocks_count),
           static_cast<long long>((r->blocks_count * (r->block_size >> 10)) >> 10));
  zorv_log(2, "   blocks_per_group=%d", r->blocks_per_group);
  zorv_log(2, "   group_desc_count=%lld", static_cast<long long>(r->group_desc_count));
  zorv_log(2, "   desc_blocks=%lld", static_cast<long long>(r->desc_blocks));
}

// Reads the descriptors and makes the rest of the context; false (logged) when it cannot.
bool load_tables(ext2_reader* r) {
  const devt dev = r->hdd->bd_dev;
  const u32 major = kernel::major_of(dev);
  const u32 minor = kernel::minor_of(dev);
  int rc = -EINVAL;
  if (r->block_size <= kernel::page_size) {  // larger blocks cannot be read
    r->descs.reset(static_cast<u8*>(kernel::vmalloc(r->block_size * r->desc_blocks)));
    r->bitmap.reset(static_cast<u8*>(kernel::vmalloc(r->block_size)));
    if (r->descs == nullptr || r->bitmap == nullptr) {
      zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", "ext2_reader_init");
      return false;
    }
    rc = zorv_bread(r->hdd, r->descs.get(), r->block_size, r->first_data_block + 1LL,
                    static_cast<s32>(r->desc_blocks));
  }
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to read Block Group Descriptors of hdd(%d, %d): rc=%d",
             "ext2_reader_init", major, minor, rc);
    return false;
  }
  for (u32 v = 0; v < 256; ++v) r->bit_cnt[v] = static_cast<u8>(std::popcount(v));
  return true;
}

}  // namespace

void* ext2_reader_init(kernel::block_device* hdd, u32* fs_block_size) {
  const u32 major = kernel::major_of(hdd->bd_dev);
  const u32 minor = kernel::minor_of(hdd->bd_dev);
  u8 raw[superblock_bytes];
  const int rc = zorv_bread(hdd, raw, superblock_bytes, 1, 1);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", __func__, major,
             minor, rc);
    return nullptr;
  }
  const ext2_superblock sb = parse_superblock(raw);
  if (sb.magic != ext2_magic) {
    zorv_log(3, "%s(): hdd(%d, %d) doesn't have ext2/ext3 FS.", __func__, major, minor);
    return nullptr;
  }
  zorv_log(2, "%s(): Detected ext2/ext3 FS on hdd(%d, %d)", __func__, major, minor);
  auto* r = kernel::knew<ext2_reader>(kernel::GFP_KERNEL);
  if (r == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
    return nullptr;
  }
  scope_exit fail([r] { kernel::kdelete(r); });
  r->hdd = hdd;
  r->sb = sb;
  r->block_size = sb.log_block_size < 22 ? 1024U << sb.log_block_size : 0;
  r->first_data_block = sb.first_data_block;
  r->blocks_per_group = sb.blocks_per_group;
  r->inodes_per_group = sb.inodes_per_group;
  if (fs_block_size != nullptr) *fs_block_size = r->block_size;
  const bool no_blocks =
      sb.blocks_count_lo == 0 && ((sb.incompat & incompat_64bit) == 0 || sb.blocks_count_hi == 0);
  if (r->blocks_per_group == 0 || r->inodes_per_group == 0 || no_blocks || r->block_size == 0) {
    zorv_log(LOG_ERROR, "%s(): Superblock of hdd(%d, %d) is corrupt.", __func__, major, minor);
    return nullptr;
  }
  if ((sb.incompat & incompat_meta_bg) != 0) {
    zorv_log(LOG_ERROR, "%s(): Sorry, we don't support ext2/ext3 with meta block groups.",
             __func__);
    return nullptr;
  }
  describe(r);
  if (r->block_size <= kernel::page_size) {
    if (const char* why = doubt_of(*r); why != nullptr) {
      fs_reader_log_doubt(__func__, "ext2/ext3 FS", hdd->bd_dev, why);
      r->in_doubt = true;
    }
  }
  if (!r->in_doubt) {
    if (!load_tables(r)) return nullptr;
    if (const char* why = ext2_doubt_of_descriptors(*r); why != nullptr) {
      fs_reader_log_doubt(__func__, "ext2/ext3 FS", hdd->bd_dev, why);
      r->in_doubt = true;
    }
  }
  fail.cancel();
  return r;
}

int ext2_reader_read(void* context, s64 start_chunk, u32 chunk_size, u8* bits, s32 count) {
  auto* r = static_cast<ext2_reader*>(context);
  int rc = fs_reader_check(__func__, r, r == nullptr ? 0 : r->block_size, chunk_size);
  if (rc < 0) return rc;
  if (!r->examined && !r->in_doubt) {
    rc = ext2_examine_groups(r);
    if (rc < 0) return rc;
  }
  const chunk_window w = open_window(start_chunk, chunk_size, r->block_size, bits, count);
  if (r->in_doubt) {
    w.mark_all();
    return 0;
  }
  w.mark_span(0, r->first_data_block + 1ULL);
  w.mark_behind(*r->hdd, r->blocks_count, r->block_size);
  u64 group = 0;
  if (w.first_block() > r->first_data_block) {
    group = (w.first_block() - r->first_data_block) / r->blocks_per_group;
  }
  for (; group < r->group_desc_count && ext2_group_start(*r, group) < w.end_block(); ++group) {
    rc = ext2_load_group(r, group);
    if (rc < 0) return rc;
    const u64 start = ext2_group_start(*r, group);
    w.mark_bitmap(r->bitmap.get(), start, start, ext2_group_end(*r, group));
  }
  return 0;
}

int ext2_reader_destroy(void* context) {
  kernel::kdelete(static_cast<ext2_reader*>(context));
  return 0;
}

}  // namespace zorv
