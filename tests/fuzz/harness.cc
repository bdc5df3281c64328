// SPDX-License-Identifier: GPL-2.0-only
#include "harness.h"

#include <cstdio>
#include <cstdlib>

#include "kernel/printk.h"

namespace zorv_fuzz {

namespace {

constexpr u64 sector = 512;

struct subject {
  std::unique_ptr<zorv_test::image_disk> disk;
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

void compare(subject* s, const zorv_test::map_result& map, u32 chunk_size) {
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

}  // namespace zorv_fuzz

using namespace zorv_fuzz;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kernel::set_printk_sink([](const char*) {});
  const zorv_test::temp_dir dir;
  for (const zorv_test::fs_image& image : the_target.make_images(dir.path())) {
    subject s{std::make_unique<zorv_test::image_disk>(image), image.block_size, {}};
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
  compare(&s, zorv_test::build_map(s.disk->bdev(), chunk_size), chunk_size);
  std::for_each(undo.rbegin(), undo.rend(),
                [&s](const auto& u) { s.disk->disk().poke(u.first, u.second); });
  return 0;
}
