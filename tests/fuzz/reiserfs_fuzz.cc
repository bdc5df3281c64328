// SPDX-License-Identifier: GPL-2.0-only
#include "harness.h"

namespace {

using namespace zorv_fuzz;
constexpr u64 MiB = 1 << 20;

std::vector<zorv_test::fs_image> make_images(const std::string& dir) {
  std::mt19937 random(1);
  return {zorv_test::make_reiserfs(dir + "/a", 34 * MiB, &random),
          zorv_test::make_reiserfs(dir + "/b", 130 * MiB, &random)};
}

// Block by block: what its bitmap says of it.
bit_vector may_be_free(const read_fn& read, const std::vector<u64>& /*sectors*/, u64 device_bytes,
                       u32* unit) {
  const bytes sb = read(65536, 80);
  *unit = static_cast<u32>(little(sb, 44, 2));
  const u64 blocks = std::min(little(sb, 0, 4), device_bytes / *unit);
  const u64 per_bitmap = *unit * 8ULL;
  bit_vector may(blocks);
  bytes bitmap;
  for (u64 b = 0; b < blocks; ++b) {
    if (b % per_bitmap == 0) bitmap = read((b == 0 ? 65536 / *unit + 1 : b) * *unit, *unit);
    may[b] = (bitmap[b % per_bitmap / 8] >> (b % 8) & 1) == 0;
  }
  return may;
}

}  // namespace

const target zorv_fuzz::the_target{make_images, may_be_free};
