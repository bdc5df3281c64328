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

class spoiled_images : public ::testing::Test {
 protected:
  void use(fs_image image) {
    image_ = std::move(image);
    disk_ = std::make_unique<image_disk>(image_);
    ASSERT_EQ(first_lost(build_map(disk_->bdev(), image_.block_size), image_.in_use), -1);
  }

  // Builds the map with some bytes replaced; it must be safe and quick.
  map_result spoil(u64 at, const bytes& with, const std::string& what) {
    const bytes old = disk_->disk().peek(at, with.size());
    disk_->disk().poke(at, with);
    const u64 before = kernel::jiffies();
    map_result map = build_map(disk_->bdev(), image_.block_size);
    EXPECT_LT(kernel::jiffies() - before, build_limit_jiffies) << what;
    EXPECT_EQ(first_lost(map, image_.in_use), -1) << what << "\n" << log.errors();
    disk_->disk().poke(at, old);
    log.clear();
    return map;
  }

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

bytes le32(u32 v) {
  return {static_cast<u8>(v), static_cast<u8>(v >> 8), static_cast<u8>(v >> 16),
          static_cast<u8>(v >> 24)};
}
bytes be32(u32 v) {
  return {static_cast<u8>(v >> 24), static_cast<u8>(v >> 16), static_cast<u8>(v >> 8),
          static_cast<u8>(v)};
}

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

struct ext2_damage {
  const char* what;
  u64 at;
  u32 value;
  int rc;
  const char* message;
};

TEST_F(spoiled_images, ext2_by_table) {
  std::mt19937 random = fixed();
  use(make_ext2(dir / "image", 12 * MiB, "-t ext2 -b 1024 -g 1024", &random));
  const std::string corrupt = "ext2_reader_init(): Superblock of hdd(";
  const ext2_damage table[] = {
      {"no blocks", 1024 + 4, 0, -EINVAL, "is corrupt."},
      {"no blocks per group", 1024 + 32, 0, -EINVAL, "is corrupt."},
      {"no inodes per group", 1024 + 40, 0, -EINVAL, "is corrupt."},
      {"block size overflows", 1024 + 24, 22, -EINVAL, "is corrupt."},
      {"block size overflows twice", 1024 + 24, 0xffffffff, -EINVAL, "is corrupt."},
      {"blocks of 8 KiB", 1024 + 24, 3, -EINVAL, "Failed to read Block Group Descriptors of hdd("},
      {"blocks of 2 GiB", 1024 + 24, 21, -EINVAL, "Failed to read Block Group Descriptors of hdd("},
      {"wild first block", 1024 + 20, 0xfffffff0, 0, "has an impossible first block"},
      {"more blocks than the device", 1024 + 4, 0xffffffff, 0, "is larger than the device"},
      {"more bits than a bitmap", 1024 + 32, 8200, 0, "impossible number of blocks per group"},
      {"fewer groups than inodes", 1024 + 4, 4097, 0, "has counts that contradict each other"},
      {"tiny groups", 1024 + 32, 1, 0, "impossible number of blocks per group"},
  };
  for (const ext2_damage& d : table) {
    const bytes old = disk_->disk().peek(d.at, 4);
    disk_->disk().poke(d.at, le32(d.value));
    const map_result map = build_map(disk_->bdev(), 4096);
    EXPECT_EQ(map.rc < 0 ? map.rc : 0, d.rc) << d.what;
    EXPECT_TRUE(map.all_set()) << d.what;
    EXPECT_EQ(log.count(d.message), 1) << d.what << "\n" << log.errors();
    log.clear();
    disk_->disk().poke(d.at, old);
  }
}

// A group whose numbers disagree is set as a whole; the others stay exact.
TEST_F(spoiled_images, ext2_group_that_disagrees_is_set_alone) {
  std::mt19937 random = fixed();
  use(make_ext2(dir / "image", 24 * MiB, "-t ext2 -b 1024 -g 1024", &random));
  const auto first_free = std::find(image_.in_use.begin() + 1 + 1024, image_.in_use.end(), false);
  const u64 group = static_cast<u64>(first_free - image_.in_use.begin() - 1) / 1024;
  const u64 desc = 2048 + group * 32;
  const bytes free_blocks = disk_->disk().peek(desc + 12, 2);
  const u32 bitmap = disk_->disk().peek(desc, 1)[0] | disk_->disk().peek(desc + 1, 1)[0] << 8;
  const struct {
    u64 at;
    bytes with;
    const char* message;
  } table[] = {
      {desc + 12, {static_cast<u8>(free_blocks[0] ^ 1), free_blocks[1]}, "Number of free blocks ("},
      {desc, le32(7), "cannot have its bitmap where its descriptor says"},
      {desc, le32(bitmap + 1), "is inconsistent with the bitmap ("},
      {desc + 8, le32(bitmap + 700), "has its own tables as free"},
  };
  bit_vector expected = chunks_of(image_, image_.bytes, 1024);
  const auto start = expected.begin() + static_cast<std::ptrdiff_t>(1 + group * 1024);
  std::fill(start, start + 1024, true);
  for (const auto& t : table) {
    const bytes old = disk_->disk().peek(t.at, t.with.size());
    disk_->disk().poke(t.at, t.with);
    EXPECT_EQ(difference(build_map(disk_->bdev(), 1024).chunks, expected), "") << t.message;
    EXPECT_EQ(log.count(t.message), 1) << t.message << log.errors();
    log.clear();
    disk_->disk().poke(t.at, old);
  }
}

TEST_F(spoiled_images, reiserfs_by_table) {
  std::mt19937 random = fixed();
  use(make_reiserfs(dir / "image", 300 * MiB, &random));
  const u32 free_blocks = disk_->disk().peek(65536 + 4, 1)[0];
  const struct {
    u64 at;
    bytes with;
    int rc;
    const char* message;
  } table[] = {
      {65536 + 44, {0, 0}, -EINVAL, "reiserfs_reader_init(): Superblock of hdd("},
      {65536 + 44, {0, 0x20}, -EINVAL, "Failed to read Bitmap #0 (from block 9): rc=-22"},
      {65536 + 44, {0xa0, 0x0f}, 0, "has an impossible block size"},
      {65536 + 70, {0, 0}, 0, "has counts that contradict each other"},
      {65536 + 70, {2, 0}, 0, "has counts that contradict each other"},
      {65536, {0, 0, 0, 0}, 0, "has counts that contradict each other"},
      {65536 + 4, {static_cast<u8>(free_blocks ^ 1)}, -EINVAL, "but bitmaps argue for "},
      {65536 + 52, {'r'}, -EINVAL, "zorv_blkbmp_read(): Cannot recognize file system on hdd("},
  };
  for (const auto& t : table) {
    const bytes old = disk_->disk().peek(t.at, t.with.size());
    disk_->disk().poke(t.at, t.with);
    const map_result map = build_map(disk_->bdev(), 65536);
    EXPECT_EQ(map.rc < 0 ? map.rc : 0, t.rc) << t.message;
    EXPECT_TRUE(map.all_set()) << t.message;
    EXPECT_EQ(log.count(t.message), 1) << log.errors();
    log.clear();
    disk_->disk().poke(t.at, old);
  }
}

TEST_F(spoiled_images, xfs_by_table) {
  std::mt19937 random = fixed();
  use(make_xfs(dir / "image", 128 * MiB, 2, 4096, &random));
  const auto word = [this](u64 at) {
    const bytes b = disk_->disk().peek(at, 4);
    return static_cast<u32>(b[0]) << 24 | static_cast<u32>(b[1]) << 16 |
           static_cast<u32>(b[2]) << 8 | b[3];
  };
  const u64 root = word(512 + 16) * 4096ULL;
  const u64 first_pointer = root + 16 + 340 * 8;
  const u32 first_leaf = word(first_pointer);
  const u64 leaf = first_leaf * 4096ULL;
  ASSERT_EQ(word(512 + 28), 2U);
  struct damage {
    u64 at;
    u32 value;
    int rc;
    const char* message;
  };
  const damage table[] = {
      {4, 0, -EINVAL, "xfs_reader_init(): Superblock of hdd("},
      {4, 0x80000000, -EINVAL, "xfs_reader_init(): Superblock of hdd("},
      {84, 0, -EINVAL, "xfs_reader_init(): Superblock of hdd("},
      {84, 1, 0, "has an impossible size of allocation groups"},
      {88, 0, 0, "has counts that contradict each other"},
      {88, 3, 0, "has counts that contradict each other"},
      {88, 0x7fffffff, 0, "has counts that contradict each other"},
      {8, 1, 0, "is larger than the device"},
      {512 + 8, 1, 0, "has counts that contradict each other"},
      {512 + 12, 0xffffffff, 0, "has counts that contradict each other"},
      {512 + 16, 0xffffffff, -EINVAL, "lies outside AG 0"},
      {512 + 16, 0, -EINVAL, "xfs_find_leaf(): Invalid B+tree node block magic: 0x58465342"},
      {512 + 28, 3, -EINVAL, "xfs_find_leaf(): B+tree block "},
      {root + 4, 0x0001ffff, -EINVAL, "cannot have level 1 and 65535 records"},
      {root + 4, 0xffff0001, -EINVAL, "cannot have level 65535 and 1 records"},
      {first_pointer, word(512 + 16), -EINVAL, "has level 1 instead of 0"},  // to itself
      {leaf + 4, 511, -EINVAL, "cannot have level 0 and 511 records"},
      {leaf + 12, first_leaf, -EINVAL, "is out of place in AG 0"},  // a circle of siblings
      {leaf + 12, word(512 + 16), -EINVAL, "A leaf's sibling in AG 0 has level 1"},
      {leaf + 12, 0xffffffff, 0, "is inconsistent with its B+tree ("},
      {leaf + 16, 0xfffffff0, -EINVAL, "is out of place in AG 0"},
      {leaf + 20, 0xffffffff, -EINVAL, "is out of place in AG 0"},
      {leaf + 20, 0, -EINVAL, "is out of place in AG 0"},
  };
  for (const damage& d : table) {
    const bytes old = disk_->disk().peek(d.at, 4);
    disk_->disk().poke(d.at, be32(d.value));
    const map_result map = build_map(disk_->bdev(), 4096);
    EXPECT_EQ(map.rc < 0 ? map.rc : 0, d.rc) << d.message;
    EXPECT_EQ(first_lost(map, image_.in_use), -1) << d.message;
    EXPECT_EQ(log.count(d.message), 1) << d.at << "\n" << log.errors();
    log.clear();
    disk_->disk().poke(d.at, old);
  }
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

// A group whose extents do not add up to its count is set as a whole; the others stay exact.
TEST_F(spoiled_images, xfs_group_that_disagrees_is_set_alone) {
  std::mt19937 random = fixed();
  use(make_xfs(dir / "image", 64 * MiB, 4, 4096, &random));
  bit_vector expected = chunks_of(image_, image_.bytes, 4096);
  std::fill(expected.begin() + 4096, expected.begin() + 2 * 4096, true);
  const u64 free_blocks_at = 16 * MiB + 512 + 55;
  bytes free_blocks = disk_->disk().peek(free_blocks_at, 1);
  free_blocks[0] ^= 1;
  disk_->disk().poke(free_blocks_at, free_blocks);
  EXPECT_EQ(difference(build_map(disk_->bdev(), 4096).chunks, expected), "") << log.errors();
  EXPECT_EQ(log.count("is inconsistent with its B+tree ("), 1);
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
