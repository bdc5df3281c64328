// SPDX-License-Identifier: GPL-2.0-only
// What the sources of the XFS reader share.
#pragma once

#include "driver/datablock/reader.h"
#include "kernel/mem.h"

namespace zorv {

constexpr u32 xfs_superblock_bytes = 208;  // what is used of it

struct xfs_reader {
  u8 sb[xfs_superblock_bytes] = {};     // as on the disk, big-endian
  kernel::block_device* hdd = nullptr;  // not owned
  kernel::vbuf<u8> block_buf;           // the block last read
  // Of each group, from its free-space header:
  kernel::vbuf<u32> bno_roots;    // root of the tree of free extents by block number
  kernel::vbuf<u32> ag_lengths;   // blocks
  kernel::vbuf<u32> bno_levels;   // height of that tree
  kernel::vbuf<u32> free_blocks;  // sum of its extents
  bool examined = false;          // every group's tree has been added up
  bool in_doubt = false;          // every chunk counts as allocated

  [[nodiscard]] u32 magic() const { return get_be32(sb); }
  [[nodiscard]] u32 block_size() const { return get_be32(sb + 4); }
  [[nodiscard]] u64 blocks() const { return get_be64(sb + 8); }
  [[nodiscard]] u64 log_start() const { return get_be64(sb + 48); }  // 0: on another device
  [[nodiscard]] u32 ag_blocks() const { return get_be32(sb + 84); }
  [[nodiscard]] u32 ag_count() const { return get_be32(sb + 88); }
  [[nodiscard]] u32 log_blocks() const { return get_be32(sb + 96); }
  [[nodiscard]] u32 sector_bytes() const { return get_be16(sb + 102); }
  [[nodiscard]] u32 ag_blocks_log() const { return sb[124]; }
  [[nodiscard]] bool in_progress() const { return sb[126] != 0; }
};

// Descends from a node of a group's free-space tree to the leaf that covers the key, which is then
// in block_buf.
//   group_start  the group's first block
//   node         group-relative block
//   returns      0 | -EINVAL (broken tree, logged) | the read's error
[[nodiscard]] int xfs_find_leaf(xfs_reader* r, u32 key, u64 group_start, u32 node);

// Whether the log ends in an unmount record, so that nothing of it needs to be replayed. In doubt
// the answer is no.
[[nodiscard]] bool xfs_log_is_clean(xfs_reader* r);

}  // namespace zorv
