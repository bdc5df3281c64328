// SPDX-License-Identifier: GPL-2.0-only
// Fuzzing of the file system readers over mutated images.
//
// The images are made by the file systems' own tools when the fuzzer starts and stay in memory. An
// input is a list of small patches to the sectors that are not blank; they are undone after the
// run. A run builds the map and compares it with a reading of the same image that shares no code
// with the readers: a chunk may be clear only where that reading finds all its blocks free.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "datablock/images.h"
#include "kernel/printk.h"

using namespace zorv_test;

namespace {

constexpr u64 MiB = 1 << 20, sector = 512;

// Reads the medium as it is, patches included; beyond its end it is blank.
using read_fn = std::function<bytes(u64 offset, u64 length)>;

struct target {
  // Makes the images in a folder.
  std::vector<fs_image> (*make_images)(const std::string& dir, std::mt19937* random);
  // Which parts of the device may be free, in units of *unit bytes; only asked when the reader
  // found something free.
  //   sectors  the offsets of the 512-byte sectors that may not be blank
  bit_vector (*may_be_free)(const read_fn& read, const std::vector<u64>& sectors, u64 device_bytes,
                            u32* unit);
};

u64 little(const bytes& b, u64 at, int length) {
  u64 v = 0;
  for (int i = length - 1; i >= 0; --i) v = v << 8 | b[at + static_cast<u64>(i)];
  return v;
}
u64 big(const bytes& b, u64 at, int length) {
  u64 v = 0;
  for (int i = 0; i < length; ++i) v = v << 8 | b[at + static_cast<u64>(i)];
  return v;
}

// ext2: block by block: what the bitmap of its group says of it.
bit_vector ext2_may_be_free(const read_fn& read, const std::vector<u64>&, u64 device_bytes,
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

// ReiserFS: block by block: what its bitmap says of it.
bit_vector reiserfs_may_be_free(const read_fn& read, const std::vector<u64>&, u64 device_bytes,
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

// XFS: block by block: whether any leaf of its group, reachable or not, has it in a free extent.
bit_vector xfs_may_be_free(const read_fn& read, const std::vector<u64>& sectors, u64 device_bytes,
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

constexpr target targets[] = {
    {[](const std::string& dir, std::mt19937* random) -> std::vector<fs_image> {
       return {make_ext2(dir + "/a", 12 * MiB, "-t ext2 -b 1024 -g 1024", random),
               make_ext2(dir + "/b", 12 * MiB, "-t ext4 -b 1024 -g 1024 -O 64bit,^metadata_csum",
                         random),
               make_ext2(dir + "/c", 40 * MiB,
                         "-t ext4 -b 1024 -O uninit_bg,^metadata_csum,^64bit,^flex_bg", random)};
     },
     ext2_may_be_free},
    {[](const std::string& dir, std::mt19937* random) -> std::vector<fs_image> {
       return {make_reiserfs(dir + "/a", 34 * MiB, random),
               make_reiserfs(dir + "/b", 130 * MiB, random)};
     },
     reiserfs_may_be_free},
    {[](const std::string& dir, std::mt19937* random) -> std::vector<fs_image> {
       return {make_xfs(dir + "/a", 40 * MiB, 2, 4096, random),
               make_xfs(dir + "/b", 40 * MiB, 2, 1024, random)};
     },
     xfs_may_be_free}};
constexpr const target& the_target = targets[ZORV_FUZZ_READER];

struct subject {
  std::unique_ptr<image_disk> disk;
  u32 block_size;
  std::vector<u64> sectors;  // offsets of those that are not blank
};
std::vector<subject> subjects;

// The input, byte by byte; zeros behind its end.
class source {
 public:
  source(const u8* data, std::size_t size) : at_(data), end_(data + size) {}
  [[nodiscard]] bool empty() const { return at_ == end_; }
  u8 byte() { return empty() ? u8{0} : *at_++; }
  u32 word() {
    const u32 low = byte();
    return low | static_cast<u32>(byte()) << 8;
  }

 private:
  const u8* at_;
  const u8* end_;
};

void compare(subject* s, const map_result& map, u32 chunk_size) {
  if (map.all_set()) return;
  const u64 device_bytes = s->disk->bdev()->bd_size_bytes;
  const read_fn read = [s, device_bytes](u64 offset, u64 length) {
    bytes out(length);
    if (offset < device_bytes) {
      const bytes there = s->disk->disk().peek(offset, std::min(length, device_bytes - offset));
      std::copy(there.begin(), there.end(), out.begin());
    }
    return out;
  };
  u32 unit = 0;
  const bit_vector may_be_free = the_target.may_be_free(read, s->sectors, device_bytes, &unit);
  for (u64 u = 0; u < may_be_free.size(); ++u) {
    const u64 chunk = u * unit / chunk_size;
    if (may_be_free[u] || chunk >= map.chunks.size() || map.chunks[chunk]) continue;
    std::fprintf(stderr, "chunk %llu is clear, but unit %llu is in use\n",
                 static_cast<unsigned long long>(chunk), static_cast<unsigned long long>(u));
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kernel::set_printk_sink([](const char*) {});
  const temp_dir dir;
  std::mt19937 random(1);
  for (const fs_image& image : the_target.make_images(dir.path(), &random)) {
    subject s{std::make_unique<image_disk>(image), image.block_size, {}};
    const bytes all = s.disk->disk().peek(0, image.bytes);
    for (u64 at = 0; at + sector <= all.size(); at += sector) {
      const auto begin = all.begin() + static_cast<std::ptrdiff_t>(at);
      if (std::any_of(begin, begin + sector, [](u8 b) { return b != 0; })) s.sectors.push_back(at);
    }
    subjects.push_back(std::move(s));
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  source in(data, size);
  subject& s = subjects[in.byte() % subjects.size()];
  const u8 how = in.byte();
  const u32 chunk_size = s.block_size << (how & 7);
  std::vector<std::pair<u64, bytes>> undo;
  while (!in.empty() && undo.size() < 64) {
    u64 at = s.sectors[in.word() % s.sectors.size()] + in.word() % sector;
    bytes patch(1 + in.byte() % 8U);
    for (u8& b : patch) b = in.byte();
    at = std::min(at, s.disk->bdev()->bd_size_bytes - patch.size());
    undo.emplace_back(at, s.disk->disk().peek(at, patch.size()));
    s.disk->disk().poke(at, patch);
  }
  compare(&s, build_map(s.disk->bdev(), chunk_size), chunk_size);
  std::for_each(undo.rbegin(), undo.rend(),
                [&s](const auto& u) { s.disk->disk().poke(u.first, u.second); });
  return 0;
}
