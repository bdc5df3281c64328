// SPDX-License-Identifier: GPL-2.0-only
// The maps of images made by the file systems' own tools, compared block by block with what these
// tools say is in use.
#include "driver/datablock/reader.h"
#include "images.h"

namespace zorv_test {
namespace {

constexpr u64 MiB = 1 << 20;

std::mt19937 seeded() {
  const u32 seed = std::random_device{}();
  std::printf("seed %u\n", seed);
  return std::mt19937(seed);
}

// At several chunk sizes the map equals the tool's report, and readers, map and export agree.
void expect_exact(const fs_image& image, u64 extra_bytes = 0) {
  log_capture log;
  image_disk disk(image, extra_bytes);
  for (const u32 chunk_size :
       {image.block_size, image.block_size * 8, 65536U, 1U << 20, 8U << 20}) {
    const map_result map = build_map(disk.bdev(), chunk_size);
    EXPECT_GE(map.rc, 0) << log.errors();
    EXPECT_EQ(difference(map.chunks, chunks_of(image, disk.bdev()->bd_size_bytes, chunk_size)), "")
        << image.path << " in chunks of " << chunk_size << "\n"
        << log.errors();
  }
  EXPECT_EQ(zorv::zorv_blkbmp_test(disk.bdev()), 0) << log.errors();
}

// With those bytes in place every block counts as allocated, and one line says why.
void expect_doubt(image_disk* disk, u64 at, const bytes& spoil, const char* why) {
  const bytes old = disk->disk().peek(at, spoil.size());
  disk->disk().poke(at, spoil);
  log_capture log;
  EXPECT_TRUE(build_map(disk->bdev(), 4096).all_set()) << why;
  EXPECT_EQ(log.count(why), 1) << log.errors();
  disk->disk().poke(at, old);
  EXPECT_FALSE(build_map(disk->bdev(), 4096).all_set());
}

TEST(ext2_reader, map_is_what_dumpe2fs_says) {
  const struct {
    u64 mib;
    const char* options;
  } table[] = {
      {20, "-t ext2 -b 1024 -r 0"},
      {41, "-t ext2 -b 1024"},
      {70, "-t ext3 -b 2048"},
      {300, "-t ext3 -b 4096"},
      {40, "-t ext3 -b 1024 -g 2048"},
      {90, "-t ext2 -b 4096 -g 1000"},
      {60, "-t ext2 -b 1024 -O ^sparse_super,^resize_inode"},
      {300, "-t ext3 -b 1024 -O flex_bg -G 8"},
      {300, "-t ext4 -b 1024 -O uninit_bg,^metadata_csum,^64bit,^flex_bg"},
      {300, "-t ext4 -b 1024 -O uninit_bg,^metadata_csum,^64bit"},
      {300, "-t ext4 -b 1024 -O sparse_super2,^resize_inode"},
      {600, "-t ext4 -b 4096 -O 64bit,^metadata_csum"},
      {600, "-t ext4 -b 2048 -O 64bit,metadata_csum"},
  };
  std::mt19937 random = seeded();
  for (const auto& t : table) {
    const temp_dir dir;
    expect_exact(make_ext2(dir / "image", t.mib * MiB, t.options, &random));
  }
}

TEST(ext2_reader, grown_image_on_a_larger_disk) {
  temp_dir dir;
  std::mt19937 random = seeded();
  fs_image image = make_ext2(dir / "image", 30 * MiB, "-t ext3 -b 1024", &random);
  ASSERT_EQ(::truncate(image.path.c_str(), 70 * MiB), 0);
  run("(e2fsck -fy '" + image.path + "'; resize2fs '" + image.path + "' 61003K)");
  populate_ext2(image.path, &random);
  image.in_use = ext2_in_use(image.path);
  image.in_use[0] = true;
  image.bytes = 70 * MiB;
  expect_exact(image, 5 * MiB + 512);
}

// Recognised, every block counts as allocated, and one line says why.
TEST(ext2_reader, doubtful_states_count_as_wholly_allocated) {
  const std::string unknown = "has features that are not known here";
  const struct {
    std::string options, spoil;  // a shell command on $i
    std::string why;
  } table[] = {
      {"-t ext2", "debugfs -w -R 'ssv state 0' $i", "was not cleanly unmounted"},
      {"-t ext3", "printf 'jo\\njw -b 333 /dev/zero\\njc\\n' | debugfs -w -f - $i",
       "has a journal that must be replayed"},
      {"-t ext2", "debugfs -w -R 'ssv state 3' $i", "is marked as having errors"},
      {"-t ext4 -O bigalloc -C 16384", "true", "allocates clusters of blocks"},
      {"-t ext2", "debugfs -w -R 'feature FEATURE_I31' $i", unknown},
      {"-t ext2", "debugfs -w -R 'feature FEATURE_R31' $i", unknown},
      {"-t ext2",
       "printf '\\0\\0\\0\\0\\203\\0\\0\\0\\0\\10\\0\\0\\0\\10\\0\\0' |"
       "dd of=$i bs=1 seek=446 conv=notrunc;"
       "printf '\\125\\252' | dd of=$i bs=1 seek=510 conv=notrunc",
       "shares the device with a partition table"},
  };
  std::mt19937 random = seeded();
  for (const auto& t : table) {
    temp_dir dir;
    const fs_image image = make_ext2(dir / "image", 40 * MiB, t.options + " -b 1024", &random);
    run("i='" + image.path + "'; " + t.spoil);
    log_capture log;
    image_disk disk(image);
    const map_result map = build_map(disk.bdev(), 4096);
    EXPECT_TRUE(map.rc >= 0 && map.all_set()) << t.why;
    EXPECT_EQ(log.count(t.why), 1) << log.errors();
    EXPECT_EQ(log.count("<3>ERROR"), 1) << log.errors();
  }
}

TEST(ext2_reader, meta_block_groups_are_declined) {
  temp_dir dir;
  std::mt19937 random = seeded();
  const fs_image image =
      make_ext2(dir / "image", 40 * MiB, "-t ext4 -b 1024 -O meta_bg,^resize_inode", &random);
  log_capture log;
  image_disk disk(image);
  EXPECT_EQ(build_map(disk.bdev(), 4096).rc, -EINVAL);
  EXPECT_TRUE(
      log.has("ext2_reader_init(): Sorry, we don't support ext2/ext3 with meta block groups."));
}

// ---- ReiserFS ------------------------------------------------------------------------------

TEST(reiserfs_reader, map_is_what_debugreiserfs_says) {
  temp_dir dir;
  std::mt19937 random = seeded();
  expect_exact(make_reiserfs(dir / "one", 100 * MiB + 4096, &random), 3 * MiB);
  expect_exact(make_reiserfs(dir / "several", 700 * MiB + 8192 * 3, &random));
}

TEST(reiserfs_reader, doubtful_states_count_as_wholly_allocated) {
  temp_dir dir;
  std::mt19937 random = seeded();
  const fs_image image = make_reiserfs(dir / "image", 100 * MiB, &random);
  image_disk disk(image);
  expect_doubt(&disk, 65536 + 50, {2, 0}, "was not cleanly unmounted");
  expect_doubt(&disk, 65536 + 62, {1, 0}, "is marked as having errors");
  // A transaction in the journal (which starts at block 18) that was never copied to its place.
  bytes transaction(4096);
  transaction[0] = 9;
  const char magic[] = "ReIsErLB";
  std::copy(magic, magic + 8, transaction.end() - 12);
  expect_doubt(&disk, 18 * 4096, transaction, "has a journal that must be replayed");
}

// ---- XFS -----------------------------------------------------------------------------------

TEST(xfs_reader, map_is_what_xfs_db_says) {
  temp_dir dir;
  std::mt19937 random = seeded();
  expect_exact(make_xfs(dir / "one", 100 * MiB, 1, 4096, &random), MiB);
  expect_exact(make_xfs(dir / "many", 260 * MiB + 8192, 13, 1024, &random));
}

TEST(xfs_reader, log_decides_whether_the_map_is_trusted) {
  temp_dir dir;
  std::mt19937 random = seeded();
  const fs_image image = make_xfs(dir / "image", 100 * MiB, 4, 4096, &random);
  // The log goes round: clean in a later cycle as well.
  run("xfs_db -x -c 'logformat -c 9' '" + image.path + "'");
  expect_exact(image);
  image_disk disk(image);
  const bytes sb = disk.disk().peek(0, 512);
  const auto be32 = [&sb](u64 at) { return u64{get_be32(sb, at)}; };
  const u64 group = be32(52) >> sb[124];
  const u64 log_at = (group * be32(84) + (be32(52) & ((1U << sb[124]) - 1))) * 4096;
  const bytes unmount = disk.disk().peek(log_at, 1024);
  const auto expect_dirty = [&disk](u64 at, const bytes& spoil) {
    expect_doubt(&disk, at, spoil, "was not cleanly unmounted");
  };
  bytes other = unmount;
  other[512 + 9] = 0;
  expect_dirty(log_at, other);  // the last record holds another operation
  other = unmount;
  other[43] = 2;
  expect_dirty(log_at, other);           // it holds two
  expect_dirty(log_at + 1024, unmount);  // something was logged after it
  other = unmount;
  other[15] = 0xff;
  expect_dirty(log_at, other);  // it is not whole
}

TEST(xfs_reader, large_sectors_and_checksummed_trees_are_declined) {
  temp_dir dir;
  const auto declined = [&](const std::string& options) {
    const fs_image image{make_sparse(dir / "image", 100 * MiB), 100 * MiB, 4096, {}};
    run("mkfs.xfs --unsupported -f -q " + options + " '" + image.path + "'");
    image_disk disk(image);
    return build_map(disk.bdev(), 65536).rc;
  };
  log_capture log;
  EXPECT_EQ(declined("-m crc=0 -n ftype=0 -s size=4096"), -EINVAL);
  EXPECT_TRUE(log.has("xfs_reader_init(): Incorrect AGF magic of AG 0 of hdd("));
  EXPECT_EQ(declined("-m crc=1"), -EINVAL);
  EXPECT_TRUE(log.has("Invalid B+tree node block magic: 0x41423342 instead of 0x41425442"));
}

}  // namespace
}  // namespace zorv_test
