// SPDX-License-Identifier: GPL-2.0-only
// A superblock in front of somebody else's data: nothing that it says is free may be believed.
#include "images.h"

namespace zorv_test {
namespace {

constexpr u64 MiB = 1 << 20;
constexpr kernel::s64 KiB = 1024;

constexpr kernel::s64 sector = 512;

enum class counted { from_start, from_end, from_aligned_end };
struct owner_mark {
  const char* what;
  kernel::s64 at;
  std::string text;
  const char* why;
  counted how = counted::from_start;
};

std::vector<owner_mark> owner_marks() {
  using namespace std::string_literals;
  using enum counted;
  constexpr const char* raid = "shares the device with a RAID member's label";
  constexpr const char* pool = "shares the device with a storage pool's label";
  constexpr const char* cache = "shares the device with a cache device's label";
  constexpr const char* volume = "shares the device with a volume manager's label";
  constexpr const char* cipher = "shares the device with an encrypted volume's header";
  constexpr const char* table = "shares the device with a partition table";
  constexpr const char* swap = "shares the device with a swap area";
  constexpr const char* mapped = "shares the device with the header of a device above it";
  constexpr const char* fs = "shares the device with another file system";
  const std::string md = "\xfc\x4e\x2b\xa9"s, uberblock = "\x0c\xb1\xba\0\0\0\0\0"s;
  const std::string ism = "Intel Raid ISM Cfg Sig. ";
  return {
      {"RAID 1.2", 4 * KiB, md, raid},
      {"RAID 1.0", 8 * KiB, md, raid, from_aligned_end},
      {"RAID 0.90", 68 * KiB, md, raid, from_aligned_end},
      {"ISM", 2 * sector, ism, raid, from_end},
      {"ISM, sectors of 4 KiB", 8 * KiB, ism, raid, from_end},
      {"DDF, second place, little-endian", 257 * sector, "\x11\xde\x11\xde"s, raid, from_end},
      {"NVIDIA", 2 * sector, "NVIDIA", raid, from_end},
      {"Promise, farthest place", 3087 * sector, "Promise Technology, Inc.", raid, from_end},
      {"HighPoint 37x", 9 * sector + 32, "\xf0\x16\x78\x5a"s, raid},
      {"HighPoint 45x", 11 * sector, "\xf3\x16\x78\x5a"s, raid, from_end},
      {"VIA", sector, "\x55\xaa\1"s, raid, from_end},
      {"pool, first label", 128 * KiB, uberblock, pool},
      {"pool, big-endian, second label's last block", 511 * KiB, "\0\0\0\0\0\xba\xb1\x0c"s, pool},
      {"pool, third label", 388 * KiB, uberblock, pool, from_aligned_end},
      {"pool, last label's names", 132 * KiB + 40, "\x11\x7a\x0c\xb1\x7a\xda\x10\x02"s, pool,
       from_aligned_end},
      {"cache", 4 * KiB + 24, "\xc6\x85\x73\xf6\x4e\x1a\x45\xca"s, cache},
      {"volume", sector, "LABELONE", volume},
      {"VMFS member", 1 * MiB, "\x0d\xd0\x01\xc0"s, volume},
      {"DRBD", 4 * KiB - 60, "\x83\x74\x02\x6d"s, "a replicated device's label", from_aligned_end},
      {"cipher", 16 * KiB, "SKUL\xba\xbe", cipher},
      {"Android footer", 64, "AVBf", mapped, from_end},
      {"verity behind the file system", 4 * KiB, "verity\0\0"s, mapped, from_aligned_end},
      {"VHD", sector, "conectix", "shares the device with the image of a virtual disk", from_end},
      {"swap", 4 * KiB - 10, "SWAPSPACE2", swap},
      {"hibernation", 64 * KiB - 10, "S1SUSPEND\0"s, swap},
      {"GPT's copy", sector, "EFI PART", table, from_end},
      {"GPT, sectors of 4 KiB", 4 * KiB, "EFI PART", table},
      {"Sun", sector - 4, "\xda\xbe"s, table},
      {"BSD", sector, "\x57\x45\x56\x82"s, table},
      {"Amiga, last place", 15 * sector, "RDSK", table},
      {"Atari", 0x1c6 + 12, "\1GEM"s, table},
      {"dynamic disk's last header", sector, "PRIVHEAD", table, from_end},
      {"UFS1, big-endian", 8 * KiB + 1372, "\0\1\x19\x54"s, fs},
      {"UFS2", 256 * KiB + 1372, "\x19\x01\x54\x19"s, fs},
      {"ReiserFS 3.5", 8 * KiB + 52, "ReIsErFs", fs},
      {"OCFS2", 8 * KiB, "OCFSV2", fs},
      {"JFS", 32 * KiB, "JFS1", fs},
      {"UDF", 32 * KiB + 1, "BEA01", fs},
      {"VMFS", 2 * MiB, "\x5e\xf1\xab\x2f"s, fs},
      {"NILFS2, second copy", 4 * KiB - 6, "\x34\x34", fs, from_aligned_end},
      {"NTFS, second copy", sector - 3, "NTFS    ", fs, from_end},
  };
}

TEST(owners, a_mark_of_another_owner_makes_everything_count_as_allocated) {
  temp_dir dir;
  std::mt19937 random(20260101);
  for (const fs_image& image : {make_ext2(dir / "ext2", 40 * MiB, "-t ext3 -b 4096", &random),
                                make_reiserfs(dir / "reiserfs", 60 * MiB, &random),
                                make_xfs(dir / "xfs", 64 * MiB, 2, 4096, &random)}) {
    // The device ends behind the file system, off every border that a label is aligned to.
    image_disk disk(image, 4 * KiB + sector);
    for (const owner_mark& m : owner_marks()) {
      const u64 place = static_cast<u64>(m.at);
      const u64 at = m.how == counted::from_start ? place
                     : m.how == counted::from_end ? image.bytes + 4 * KiB + sector - place
                                                  : image.bytes + 4 * KiB - place;
      const bytes text(m.text.begin(), m.text.end());
      const bytes old = disk.disk().peek(at, text.size());
      log_capture log;
      disk.disk().poke(at, text);
      EXPECT_TRUE(build_map(disk.bdev(), 65536).all_set()) << image.path << ": " << m.what;
      EXPECT_EQ(log.count(m.why), 1) << image.path << ": " << m.what << "\n" << log.errors();
      disk.disk().poke(at, old);
    }
    disk.disk().poke(510, {0x55, 0xaa});  // a boot loader's, without partitions
    EXPECT_EQ(difference(build_map(disk.bdev(), 65536).chunks,
                         chunks_of(image, disk.bdev()->bd_size_bytes, 65536)),
              "");
  }
}

}  // namespace
}  // namespace zorv_test
