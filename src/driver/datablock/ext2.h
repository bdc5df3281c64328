// SPDX-License-Identifier: GPL-2.0-only
// What the sources of the ext2/ext3 reader share.
#pragma once

#include "driver/datablock/ext2_csum.h"
#include "driver/datablock/reader.h"
#include "kernel/mem.h"

namespace zorv {

// s_feature_compat
constexpr u32 ext2_compat_sparse_super2 = 0x200;
// s_feature_incompat
constexpr u32 ext2_incompat_flex_bg = 0x200;
// s_feature_ro_compat
constexpr u32 ext2_ro_compat_sparse_super = 0x1;

constexpr u32 ext2_classic_desc_bytes = 32;

// What of the superblock is used, in host order.
struct ext2_superblock {
  u32 inodes_count, blocks_count_lo, first_data_block, log_block_size, blocks_per_group,
      inodes_per_group;
  u64 free_blocks;
  u16 magic, state;
  u32 compat, incompat, ro_compat;
  u32 inode_size;  // bytes
  u32 reserved_gdt_blocks;
  u32 desc_size;  // bytes, as stored
  u32 blocks_count_hi;
  u32 backup_groups[2];
  bool csum_ok;
  ext2_csum csum;
};

struct ext2_reader {
  kernel::block_device* hdd = nullptr;  // not owned
  ext2_superblock sb{};
  u32 block_size = 0;  // bytes
  u64 blocks_count = 0;
  u32 first_data_block = 0;
  u32 blocks_per_group = 0;
  u32 inodes_per_group = 0;
  u32 desc_bytes = ext2_classic_desc_bytes;
  u64 group_desc_count = 0;
  u32 descs_per_block = 0;
  u64 desc_blocks = 0;
  kernel::vbuf<u8> descs;   // the whole descriptor table
  kernel::vbuf<u8> bitmap;  // one block: the block bitmap last read
  s64 cached_group = -1;    // the group that `bitmap` describes, -1 for none
  bool examined = false;    // every group has been looked at
  bool in_doubt = false;    // every chunk counts as allocated
  u8 bit_cnt[256] = {};     // set bits of each byte value
};

// Why the descriptors, all together, cannot be those of this file system, or null. One that points
// outside of it says that it is larger than its superblock claims, or that the table is not its
// own.
[[nodiscard]] const char* ext2_doubt_of_descriptors(const ext2_reader& r);

// Looks at every group, once. The groups of a file system that was cleanly unmounted agree with
// themselves: one that does not says that something else has been written over it, and then no
// group can be believed (in_doubt, two log lines).
//   returns  0 | -EINTR (kernel::signal_pending) | the read's error (logged)
[[nodiscard]] int ext2_examine_groups(ext2_reader* r);

// Brings the bitmap of a group that has been examined into `bitmap`.
//   returns  0 | the read's error (logged)
[[nodiscard]] int ext2_load_group(ext2_reader* r, u64 group);

inline u64 ext2_group_start(const ext2_reader& r, u64 group) {
  return r.first_data_block + group * r.blocks_per_group;
}
inline u64 ext2_group_end(const ext2_reader& r, u64 group) {
  const u64 end = ext2_group_start(r, group) + r.blocks_per_group;
  return end < r.blocks_count ? end : r.blocks_count;
}

}  // namespace zorv
