// SPDX-License-Identifier: GPL-2.0-only
#include "harness.h"

namespace {

using namespace zorv_fuzz;
constexpr u64 MiB = 1 << 20;

std::vector<zorv_test::fs_image> make_images(const std::string& dir) {
  std::mt19937 random(1);
  return {zorv_test::make_xfs(dir + "/a", 40 * MiB, 2, 4096, &random),
          zorv_test::make_xfs(dir + "/b", 40 * MiB, 2, 1024, &random)};
}

u64 big(const bytes& b, u64 at, int length) {
  u64 v = 0;
  for (int i = 0; i < length; ++i) v = v << 8 | b[at + static_cast<u64>(i)];
  return v;
}

// Block by block: whether any leaf of its group, reachable or not, has it in a free extent.
bit_vector may_be_free(const read_fn& read, const std::vector<u64>& sectors, u64 device_bytes,
                       u32* unit) {
  const bytes sb = read(0, 512);
  *unit = static_cast<u32>(big(sb, 4, 4));
  const u64 group_blocks = big(sb, 84, 4);
  const u64 blocks = std::min(big(sb, 8, 8), device_bytes / *unit);
  bit_vector may(blocks, false);
  for (const u64 at : sectors) {
    const u64 b = at / *unit;
    const bytes head = read(at, 8);
    if (at % *unit != 0 || b >= blocks) continue;
    if (big(head, 0, 4) != 0x41425442 || big(head, 4, 2) != 0) continue;
    const u64 count = std::min<u64>(big(head, 6, 2), (*unit - 16) / 8);
    const bytes leaf = read(b * *unit, *unit);
    const u64 group_start = b / group_blocks * group_blocks;
    for (u64 i = 0; i < count; ++i) {
      const u64 start = group_start + big(leaf, 16 + i * 8, 4);
      const u64 end = std::min(start + big(leaf, 20 + i * 8, 4), blocks);
      for (u64 f = start; f < end; ++f) may[f] = true;
    }
  }
  return may;
}

}  // namespace

const target zorv_fuzz::the_target{make_images, may_be_free};
