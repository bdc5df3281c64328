// SPDX-License-Identifier: GPL-2.0-only
#include "harness.h"

namespace {

using namespace zorv_fuzz;
constexpr u64 MiB = 1 << 20;

std::vector<zorv_test::fs_image> make_images(const std::string& dir) {
  using zorv_test::make_ext2;
  std::mt19937 random(1);
  return {
      make_ext2(dir + "/a", 12 * MiB, "-t ext2 -b 1024 -g 1024", &random),
      make_ext2(dir + "/b", 12 * MiB, "-t ext4 -b 1024 -g 1024 -O 64bit,^metadata_csum", &random),
      make_ext2(dir + "/c", 40 * MiB, "-t ext4 -b 1024 -O uninit_bg,^metadata_csum,^64bit,^flex_bg",
                &random)};
}

// Block by block: what the bitmap of its group says of it.
bit_vector may_be_free(const read_fn& read, const std::vector<u64>& /*sectors*/, u64 device_bytes,
                       u32* unit) {
  const bytes sb = read(1024, 1024);
  *unit = 1024U << (sb[24] & 15);
  const bool wide = (sb[96] & 0x80) != 0;
  const u64 blocks =
      std::min(little(sb, 4, 4) | (wide ? little(sb, 336, 4) << 32 : 0), device_bytes / *unit);
  const u64 first = little(sb, 20, 4);
  const u64 per_group = little(sb, 32, 4);
  const u64 desc_bytes = wide ? little(sb, 254, 2) : 32;
  bit_vector may(blocks, true);
  bytes bitmap;
  for (u64 b = 0; b < blocks; ++b) {
    if (b < first) {
      may[b] = false;
      continue;
    }
    const u64 in_group = (b - first) % per_group;
    if (in_group == 0) {
      const u64 group = (b - first) / per_group;
      const bytes desc = read((first + 1) * *unit + group * desc_bytes, desc_bytes);
      const u64 place = little(desc, 0, 4) | (wide ? little(desc, 32, 4) << 32 : 0);
      bitmap = read(place * *unit, *unit);
      if ((sb[100] & 0x10) != 0 && (desc[18] & 2) != 0) bitmap.assign(*unit, 0);  // never written
    }
    may[b] = (bitmap[in_group / 8] >> (in_group % 8) & 1) == 0;
  }
  return may;
}

}  // namespace

const target zorv_fuzz::the_target{make_images, may_be_free};
