// SPDX-License-Identifier: GPL-2.0-only
// Damaged images: whatever a field says, no chunk that holds a block in use comes out clear, and
// the answer comes quickly.
#include "images.h"
#include "kernel/time.h"

namespace zorv_test {
namespace {

constexpr u64 MiB = 1 << 20;
constexpr u64 build_limit_jiffies = 5000;

std::mt19937 fixed() { return std::mt19937(20260101); }

bytes le32(u32 v) {
  return {static_cast<u8>(v), static_cast<u8>(v >> 8), static_cast<u8>(v >> 16),
          static_cast<u8>(v >> 24)};
}
bytes be32(u32 v) {
  const bytes b = le32(v);
  return {b.rbegin(), b.rend()};
}

struct damage {
  u64 at;
  bytes with;
  int rc;
  const char* message;
};

class spoiled_images : public ::testing::Test {
 protected:
  void use(fs_image image) {
    image_ = std::move(image);
    disk_ = std::make_unique<image_disk>(image_);
    ASSERT_EQ(first_lost(build_map(disk_->bdev(), image_.block_size), image_.in_use), -1);
  }

  // Builds the map with some bytes replaced; it must be safe and quick.
  map_result spoil(u64 at, const bytes& with, const std::string& what) {
    log.clear();
    const bytes old = disk_->disk().peek(at, with.size());
    disk_->disk().poke(at, with);
    const u64 before = kernel::jiffies();
    map_result map = build_map(disk_->bdev(), image_.block_size);
    EXPECT_LT(kernel::jiffies() - before, build_limit_jiffies) << what;
    EXPECT_EQ(first_lost(map, image_.in_use), -1) << what << "\n" << log.errors();
    disk_->disk().poke(at, old);
    return map;
  }
  // Each is noticed for its own reason, and all counts as allocated: a group that contradicts
  // itself says that something else has been written over the file system.
  void expect_noticed(const std::vector<damage>& table) {
    for (const damage& d : table) {
      const map_result map = spoil(d.at, d.with, d.message);
      EXPECT_EQ(map.rc < 0 ? map.rc : 0, d.rc) << d.message;
      EXPECT_TRUE(map.all_set()) << d.message;
      EXPECT_EQ(log.count(d.message), 1) << d.at << " " << d.message << "\n" << log.errors();
    }
  }
  u32 word(u64 at) { return get_be32(disk_->disk().peek(at, 4), 0); }

  // Every 16-bit word of a range, set to values that are likely to hurt.
  void spoil_every_word(u64 from, u64 length, const std::vector<u64>& exempt = {}) {
    for (u64 at = from; at < from + length; at += 2) {
      if (std::find(exempt.begin(), exempt.end(), at) != exempt.end()) continue;
      const bytes old = disk_->disk().peek(at, 2);
      for (const bytes& with : std::vector<bytes>{{0, 0},
                                                  {0xff, 0xff},
                                                  {old[0], 0x80},
                                                  {1, 0},
                                                  {static_cast<u8>(old[0] ^ 1), old[1]},
                                                  {old[0], static_cast<u8>(old[1] ^ 1)},
                                                  {static_cast<u8>(old[0] << 1), old[1]},
                                                  {static_cast<u8>(old[0] >> 1), old[1]}}) {
        if (with == old) continue;
        spoil(at, with,
              "word at " + std::to_string(at) + " = " + std::to_string(with[0]) + "," +
                  std::to_string(with[1]));
      }
    }
  }

  fs_image image_;
  std::unique_ptr<image_disk> disk_;
  log_capture log;
  temp_dir dir;
};

TEST_F(spoiled_images, ext2_words) {
  std::mt19937 random = fixed();
  use(make_ext2(dir / "image", 12 * MiB, "-t ext2 -b 1024 -g 1024", &random));
  spoil_every_word(1024, 1024);
  spoil_every_word(2048, 12 * 32);
}

TEST_F(spoiled_images, ext4_words) {
  std::mt19937 random = fixed();
  use(make_ext2(dir / "image", 16 * MiB, "-t ext4 -b 1024 -g 2048 -O 64bit,metadata_csum -N 256",
                &random));
  spoil_every_word(1024, 1024);
  spoil_every_word(2048, 8 * 64);
}

TEST_F(spoiled_images, reiserfs_words) {
  std::mt19937 random = fixed();
  use(make_reiserfs(dir / "image", 300 * MiB, &random));
  spoil_every_word(65536, 80);
}

TEST_F(spoiled_images, xfs_words) {
  std::mt19937 random = fixed();
  use(make_xfs(dir / "image", 64 * MiB, 4, 4096, &random));
  spoil_every_word(0, 208);
  spoil_every_word(512, 64);
}

TEST_F(spoiled_images, ext2_by_table) {
  std::mt19937 random = fixed();
  use(make_ext2(dir / "image", 12 * MiB, "-t ext2 -b 1024 -g 1024", &random));
  constexpr const char *corrupt = "is corrupt.",
                       *unread = "Failed to read Block Group Descriptors of hdd(",
                       *group_size = "impossible number of blocks per group",
                       *sum = "has another count of free blocks than its groups";
  const auto first_free = std::find(image_.in_use.begin() + 1 + 1024, image_.in_use.end(), false);
  const u32 free_block = static_cast<u32>(first_free - image_.in_use.begin());
  const u64 desc = 2048 + (free_block - 1) / 1024 * 32;
  const auto low = [this](u64 at) { return disk_->disk().peek(at, 1)[0]; };
  const u32 bitmap = low(desc) | u32{low(desc + 1)} << 8;
  expect_noticed({
      {1024 + 4, le32(0), -EINVAL, corrupt},            // no blocks
      {1024 + 32, le32(0), -EINVAL, corrupt},           // none in a group
      {1024 + 40, le32(0), -EINVAL, corrupt},           // no inodes in a group
      {1024 + 24, le32(22), -EINVAL, corrupt},          // a block size that overflows
      {1024 + 24, le32(0xffffffff), -EINVAL, corrupt},  // twice
      {1024 + 24, le32(3), -EINVAL, unread},            // blocks of 8 KiB
      {1024 + 24, le32(21), -EINVAL, unread},           // of 2 GiB
      {1024 + 20, le32(0xfffffff0), 0, "has an impossible first block"},
      {1024 + 4, le32(0xffffffff), 0, "is larger than the device"},
      {1024 + 32, le32(8200), 0, group_size},  // more bits than a bitmap has
      {1024 + 32, le32(1), 0, group_size},
      {1024 + 4, le32(4097), 0, "has counts that contradict each other"},  // groups for the inodes
      {1024 + 12, {static_cast<u8>(low(1024 + 12) ^ 1)}, 0, sum},
      {desc + 12, {static_cast<u8>(low(desc + 12) ^ 1)}, 0, sum},
      {desc, le32(7), 0, "cannot have its bitmap where its descriptor says"},
      {desc, le32(bitmap + 1), 0, "is inconsistent with the bitmap ("},
      {desc + 8, le32(free_block), 0, "has its own tables as free"},
  });
}

TEST_F(spoiled_images, reiserfs_by_table) {
  std::mt19937 random = fixed();
  use(make_reiserfs(dir / "image", 300 * MiB, &random));
  const u32 free_blocks = disk_->disk().peek(65536 + 4, 1)[0];
  constexpr const char* counts = "has counts that contradict each other";
  expect_noticed({
      {65536 + 44, {0, 0}, -EINVAL, "reiserfs_reader_init(): Superblock of hdd("},
      {65536 + 44, {0, 0x20}, -EINVAL, "Failed to read Bitmap #0 (from block 9): rc=-22"},
      {65536 + 44, {0xa0, 0x0f}, 0, "has an impossible block size"},
      {65536 + 70, {0, 0}, 0, counts},
      {65536 + 70, {2, 0}, 0, counts},
      {65536, {0, 0, 0, 0}, 0, counts},
      {65536 + 4, {static_cast<u8>(free_blocks ^ 1)}, -EINVAL, "but bitmaps argue for "},
      {65536 + 52, {'r'}, -EINVAL, "zorv_blkbmp_read(): Cannot recognize file system on hdd("},
  });
}

TEST_F(spoiled_images, xfs_by_table) {
  std::mt19937 random = fixed();
  use(make_xfs(dir / "image", 128 * MiB, 2, 4096, &random));
  const u64 root = word(512 + 16) * 4096ULL;
  const u64 first_pointer = root + 16 + 340 * 8;
  const u32 first_leaf = word(first_pointer);
  const u64 leaf = first_leaf * 4096ULL;
  ASSERT_EQ(word(512 + 28), 2U);
  constexpr const char *superblock = "xfs_reader_init(): Superblock of hdd(",
                       *counts = "has counts that contradict each other",
                       *place = "is out of place in AG 0";
  expect_noticed({
      {4, be32(0), -EINVAL, superblock},
      {4, be32(0x80000000), -EINVAL, superblock},
      {84, be32(0), -EINVAL, superblock},
      {84, be32(1), 0, "has an impossible size of allocation groups"},
      {88, be32(0), 0, counts},
      {88, be32(3), 0, counts},
      {88, be32(0x7fffffff), 0, counts},
      {8, be32(1), 0, "is larger than the device"},
      {512 + 8, be32(1), 0, counts},
      {512 + 12, be32(0xffffffff), 0, counts},
      {512 + 16, be32(0xffffffff), -EINVAL, "lies outside AG 0"},
      {512 + 16, be32(0), -EINVAL, "xfs_find_leaf(): Invalid B+tree node block magic: 0x58465342"},
      {512 + 28, be32(3), -EINVAL, "xfs_find_leaf(): B+tree block "},
      {root + 4, be32(0x0001ffff), -EINVAL, "cannot have level 1 and 65535 records"},
      {root + 4, be32(0xffff0001), -EINVAL, "cannot have level 65535 and 1 records"},
      {first_pointer, be32(word(512 + 16)), -EINVAL, "has level 1 instead of 0"},  // to itself
      {leaf + 4, be32(511), -EINVAL, "cannot have level 0 and 511 records"},
      {leaf + 12, be32(first_leaf), -EINVAL, place},  // a circle of siblings
      {leaf + 12, be32(word(512 + 16)), -EINVAL, "A leaf's sibling in AG 0 has level 1"},
      {leaf + 12, be32(0xffffffff), 0, "is inconsistent with its B+tree ("},
      {leaf + 16, be32(0xfffffff0), -EINVAL, place},
      {leaf + 20, be32(0xffffffff), -EINVAL, place},
      {leaf + 20, be32(0), -EINVAL, place},
  });
}

// A number that cannot belong to this file system makes all of it doubtful, not one group.
TEST_F(spoiled_images, ext2_descriptor_that_points_outside_spoils_all) {
  std::mt19937 random = fixed();
  use(make_ext2(dir / "image", 24 * MiB, "-t ext2 -b 1024 -g 1024", &random));
  const u32 blocks = static_cast<u32>(image_.in_use.size());
  const u32 inode_table = disk_->disk().peek(2048 + 5 * 32 + 8, 1)[0];
  for (const u64 field : {0, 4, 8}) {
    for (const u32 outside : {0U, blocks + 1, blocks + inode_table, ~0U}) {
      EXPECT_TRUE(spoil(2048 + 5 * 32 + field, le32(outside), "descriptor 5").all_set())
          << field << " " << outside;
    }
  }
}

// An image that ends early, cut shorter and shorter.
TEST_F(spoiled_images, images_cut_short) {
  std::mt19937 random = fixed();
  for (const fs_image& whole :
       {make_ext2(dir / "ext2", 12 * MiB, "-t ext2 -b 1024 -g 1024", &random),
        make_reiserfs(dir / "reiserfs", 150 * MiB, &random),
        make_xfs(dir / "xfs", 64 * MiB, 4, 4096, &random)}) {
    for (u64 bytes_left = whole.bytes - 4096; bytes_left >= 512; bytes_left = bytes_left / 3) {
      fs_image cut = whole;
      cut.bytes = bytes_left & ~u64{511};
      ASSERT_EQ(::truncate(cut.path.c_str(), static_cast<off_t>(cut.bytes)), 0);
      image_disk disk(cut);
      EXPECT_TRUE(build_map(disk.bdev(), 4096).all_set()) << whole.path << " " << bytes_left;
    }
  }
}

}  // namespace
}  // namespace zorv_test
