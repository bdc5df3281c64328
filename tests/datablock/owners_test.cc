// SPDX-License-Identifier: GPL-2.0-only
// A superblock in front of somebody else's data: nothing that it says is free may be believed.
#include "images.h"

namespace zorv_test {
namespace {

constexpr u64 MiB = 1 << 20;
constexpr kernel::s64 KiB = 1024;

struct owner_mark {
  const char* what;
  kernel::s64 at;  // negative: from the end of the device
  std::string text;
  const char* why;
};

std::vector<owner_mark> owner_marks() {
  using namespace std::string_literals;
  constexpr const char* raid = "shares the device with a RAID member's label";
  constexpr const char* pool = "shares the device with a storage pool's label";
  constexpr const char* cache = "shares the device with a cache device's label";
  constexpr const char* volume = "shares the device with a volume manager's label";
  constexpr const char* cipher = "shares the device with an encrypted volume's header";
  constexpr const char* table = "shares the device with a partition table";
  const std::string md = "\xfc\x4e\x2b\xa9"s, uberblock = "\x0c\xb1\xba\0\0\0\0\0"s;
  return {
      {"RAID 1.2", 4 * KiB, md, raid},
      {"RAID 1.0", -8 * KiB, md, raid},
      {"RAID 0.90", -68 * KiB, md, raid},
      {"array of a controller", -1024, "Intel Raid ISM Cfg Sig. ", raid},
      {"pool, first label", 128 * KiB, uberblock, pool},
      {"pool, big-endian, second label's last block", 511 * KiB, "\0\0\0\0\0\xba\xb1\x0c"s, pool},
      {"pool, third label", -388 * KiB, uberblock, pool},
      {"pool, last label's names", -132 * KiB - 40, "\x11\x7a\x0c\xb1\x7a\xda\x10\x02"s, pool},
      {"cache", 4 * KiB + 24, "\xc6\x85\x73\xf6\x4e\x1a\x45\xca"s, cache},
      {"volume", 512, "LABELONE", volume},
      {"cipher", 16 * KiB, "SKUL\xba\xbe", cipher},
      {"swap", 4 * KiB - 10, "SWAPSPACE2", "shares the device with a swap area"},
      {"JFS", 32 * KiB, "JFS1", "shares the device with another file system"},
      {"table's copy at the end", -512, "EFI PART", table},
      {"table for sectors of 4 KiB", 4 * KiB, "EFI PART", table},
  };
}

TEST(owners, a_mark_of_another_owner_makes_everything_count_as_allocated) {
  temp_dir dir;
  std::mt19937 random(20260101);
  for (const fs_image& image : {make_ext2(dir / "ext2", 40 * MiB, "-t ext3 -b 4096", &random),
                                make_reiserfs(dir / "reiserfs", 60 * MiB, &random),
                                make_xfs(dir / "xfs", 64 * MiB, 2, 4096, &random)}) {
    // The device ends behind the file system, off every border that a label is aligned to.
    image_disk disk(image, 4 * KiB + 512);
    for (const owner_mark& m : owner_marks()) {
      // Alignment counts from the start: the marks at the end lie where their owners round to.
      const u64 end = image.bytes + (m.at == -512 || m.at == -1024 ? 4 * KiB + 512 : 4 * KiB);
      const u64 at = m.at < 0 ? end - static_cast<u64>(-m.at) : static_cast<u64>(m.at);
      const bytes text(m.text.begin(), m.text.end());
      const bytes old = disk.disk().peek(at, text.size());
      log_capture log;
      disk.disk().poke(at, text);
      EXPECT_TRUE(build_map(disk.bdev(), 65536).all_set()) << image.path << ": " << m.what;
      EXPECT_EQ(log.count(m.why), 1) << image.path << ": " << m.what << "\n" << log.errors();
      disk.disk().poke(at, old);
    }
    EXPECT_EQ(difference(build_map(disk.bdev(), 65536).chunks,
                         chunks_of(image, disk.bdev()->bd_size_bytes, 65536)),
              "");
  }
}

}  // namespace
}  // namespace zorv_test
