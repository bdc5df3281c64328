// SPDX-License-Identifier: GPL-2.0-only
// The packed form of a map, look-up and export, and maps that come and go under their users.
#include "driver/datablock/blkbmp.h"

#include <thread>

#include "driver/datablock/bits.h"
#include "driver/datablock/fragment.h"
#include "driver/datablock/selftest.h"
#include "images.h"

namespace zorv_test {
namespace {

using namespace zorv;
constexpr u64 MiB = 1 << 20;

struct fragment {
  sa f;
  int size = 0;
  // The first bytes of the staging buffer, the rest zero.
  explicit fragment(const bytes& bits) {
    bytes staging(fragment_bytes);
    std::copy(bits.begin(), bits.end(), staging.begin());
    size = fragment_build(&f, staging.data(), static_cast<s32>(bits.size()));
  }
  ~fragment() { fragment_free(&f); }
};

TEST(fragment, takes_its_smallest_form) {
  bytes half(fragment_bytes, 0);
  std::fill(half.begin() + fragment_bytes / 2, half.end(), 0xff);
  const struct {
    bytes bits;
    u32 pieces, piece_size;
    int size;
  } table[] = {
      {bytes(fragment_bytes, 0x00), 256, 512, 1024},
      {bytes(fragment_bytes, 0xff), 256, 512, 1024},
      {half, 256, 256 * 2, 1536},
      {bytes(3, 0x5a), 1, 4, 6},
      {bytes(1, 0x01), 131072, 1, 262146},  // too short to be cut: padded with ones to the end
      {bytes(fragment_bytes, 0x5a), 1, 131072, 131074},  // nothing to share
  };
  for (const auto& t : table) {
    const fragment built(t.bits);
    EXPECT_EQ(built.f.piece_cnt, t.pieces) << t.size;
    EXPECT_EQ(built.f.piece_size, t.piece_size);
    EXPECT_EQ(built.size, t.size);
  }
}

TEST(fragment, look_up_gives_back_every_bit) {
  const u32 seed = std::random_device{}();
  std::printf("seed %u\n", seed);
  std::mt19937 random(seed);
  for (const u64 size : {1UL, 2UL, 3UL, 5UL, 1000UL, 65536UL, 131071UL, 131072UL}) {
    bytes bits(size);
    for (u64 at = 0; at < size;) {  // runs of zeros, of ones and of anything
      const u64 end = std::min(size, at + 1 + random() % 700);
      const u32 kind = random() % 3;
      for (; at < end; ++at) bits[at] = static_cast<u8>(kind == 2 ? random() : 0U - kind);
    }
    const fragment built(bits);
    u32 next = fragment_find_set(&built.f, 0, static_cast<u32>(size * 8));
    for (u32 b = 0; b < size * 8; ++b) {
      ASSERT_EQ(fragment_test(&built.f, b), bit_at(bits.data(), b) ? 1 : 0) << size << " " << b;
      ASSERT_EQ(b == next, bit_at(bits.data(), b)) << size << " " << b;
      if (b == next) next = fragment_find_set(&built.f, b + 1, static_cast<u32>(size * 8));
    }
  }
}

class maps : public ::testing::Test {
 protected:
  void SetUp() override {
    std::mt19937 random(7);
    image = make_ext2(dir / "image", 20 * MiB, "-t ext2 -b 1024", &random);
    zorv_blkbmp_init(&map);
  }
  void TearDown() override { zorv_blkbmp_destroy(&map); }

  temp_dir dir;
  log_capture log;
  fs_image image;
  zorv_blkbmp map;
};

TEST_F(maps, one_chunk_more_than_a_fragment) {
  image_disk disk(image, (fragment_chunks + 1) * 1024ULL - image.bytes);
  ASSERT_GT(zorv_blkbmp_read(&map, disk.bdev(), 1024), 0);
  EXPECT_EQ(map.chunk_cnt, fragment_chunks + 1);
  EXPECT_EQ(map.frag_cnt, 2);
  EXPECT_EQ(zorv_blkbmp_test_bit(&map, 0), 1);
  EXPECT_EQ(zorv_blkbmp_test_bit(&map, fragment_chunks), 1) << "behind the file system";
  EXPECT_EQ(zorv_blkbmp_test_bit(&map, fragment_chunks + 1), 1) << "beyond the end";
  EXPECT_EQ(zorv_blkbmp_test_bit(&map, 1ULL << 40), 1);
}

TEST_F(maps, export_fills_its_buffer_or_says_that_it_is_too_small) {
  image_disk disk(image, 3 * 65536);  // 323 chunks
  ASSERT_GT(zorv_blkbmp_read(&map, disk.bdev(), 65536), 0);
  bytes out(42, 0xa5);
  EXPECT_EQ(zorv_blkbmp_export(&map, 1, out.data(), 40), -EINVAL);
  EXPECT_TRUE(log.has("should be 41 instead of 40"));
  EXPECT_EQ(zorv_blkbmp_export(&map, 1, nullptr, 100), -EINVAL);
  EXPECT_EQ(zorv_blkbmp_export(&map, 0, out.data(), 41), -EINVAL);
  EXPECT_EQ(zorv_blkbmp_export(&map, 1, out.data(), 41), 0);
  EXPECT_EQ(out.back(), 0xa5) << "past the last extent";
  zorv_blkbmp_destroy(&map);
  EXPECT_EQ(zorv_blkbmp_export(&map, 1, out.data(), 41), 0);
  out.pop_back();
  EXPECT_EQ(out, bytes(41, 0xff));
}

// Every allocation and every read of a build fails once: all ones then, exact when none failed.
TEST_F(maps, a_failure_anywhere_in_a_build_gives_all_ones) {
  image_disk disk(image);
  const bit_vector expected = build_map(disk.bdev(), 4096).chunks;
  for (const kernel::fault_site site : {kernel::fault_site::alloc, kernel::fault_site::bio_read}) {
    u64 n = 1;
    for (bool failed = true; failed; ++n) {
      ASSERT_LT(n, 1000U);
      kernel::fault_arm(site, n, 1, -ENOMEM);
      const map_result built = build_map(disk.bdev(), 4096);
      failed = kernel::fault_calls(site) >= n;
      kernel::fault_disarm_all();
      EXPECT_TRUE(failed ? built.all_set() : difference(built.chunks, expected).empty())
          << "call " << n << " gave " << built.rc;
    }
    EXPECT_GT(n, 5U);
  }
}

TEST_F(maps, a_build_whose_map_was_given_up_is_not_published) {
  image_disk disk(image);
  disk.disk().serve(memory_disk::serving::held);
  int rc = 0;
  std::thread builder([&] { rc = zorv_blkbmp_read(&map, disk.bdev(), 4096); });
  ASSERT_TRUE(eventually([&] { return disk.disk().held_count() > 0; }));
  zorv_blkbmp_destroy(&map);
  disk.disk().serve(memory_disk::serving::at_once);
  disk.disk().release_all();
  builder.join();
  EXPECT_EQ(rc, -EAGAIN);
  EXPECT_EQ(map.valid.load(), 0U);
  EXPECT_EQ(zorv_blkbmp_test_bit(&map, 1), 1);
}

// Look-ups and exports beside builds and destructions see the finished map or all ones.
TEST_F(maps, users_see_the_finished_map_or_all_ones) {
  image_disk disk(image);
  const map_result chunks = build_map(disk.bdev(), 65536);
  bytes finished(bytes_of_bits(chunks.chunks.size()));
  for (u64 c = 0; c < chunks.chunks.size(); ++c) {
    if (chunks.chunks[c]) set_bit_at(finished.data(), c);
  }
  const bytes ones(finished.size(), 0xff);
  ASSERT_NE(finished, ones);
  std::atomic<bool> stop{false};
  std::atomic<u64> wrong{0}, seen_finished{0}, seen_ones{0};
  std::vector<std::thread> users;
  for (int t = 0; t < 2; ++t) {
    users.emplace_back([&] {
      bytes out(finished.size());
      for (u64 c = 0; !stop.load(); ++c) {
        const s32 size = static_cast<s32>(out.size());
        if (zorv_blkbmp_export(&map, 1, out.data(), size) != 0) ++wrong;
        ++(out == finished ? seen_finished : out == ones ? seen_ones : wrong);
        const u64 chunk = c % chunks.chunks.size();
        if (zorv_blkbmp_test_bit(&map, chunk) == 0 && chunks.chunks[chunk]) ++wrong;
      }
    });
  }
  for (int round = 0; round < 30 || seen_finished.load() == 0 || seen_ones.load() == 0; ++round) {
    ASSERT_LT(round, 10000);
    EXPECT_GE(zorv_blkbmp_read(&map, disk.bdev(), 65536), 0);
    std::this_thread::yield();
    zorv_blkbmp_destroy(&map);
  }
  stop.store(true);
  for (std::thread& t : users) t.join();
  EXPECT_EQ(wrong.load(), 0U);
}

// ---- self-test -----------------------------------------------------------------------------

TEST_F(maps, self_test_finds_a_planted_fault_in_the_packed_form) {
  image_disk disk(image);
  ASSERT_GT(zorv_blkbmp_read(&map, disk.bdev(), 1024), 0);
  const u64 blocks = image.bytes / 1024;
  bytes bits(bytes_of_bits(blocks));
  for (u64 b = 0; b < blocks; ++b) {
    if (zorv_blkbmp_test_bit(&map, b) != 0) set_bit_at(bits.data(), b);
  }
  EXPECT_EQ(zorv_blkbmp_test_compressed(&map, bits.data(), blocks), 0);
  sa& f = map.frags[0];
  f.pool[static_cast<u64>(f.index[100 >> f.index_shift]) << f.piece_shift] ^= 1;
  EXPECT_EQ(zorv_blkbmp_test_compressed(&map, bits.data(), blocks), -EIO);
  EXPECT_TRUE(log.has("is misrepresented by blkbmp: "));
}

// A reader that forgets the last block of every chunk of several, or invents one.
int forgetful_read(void* context, kernel::s64 start, u32 chunk_size, u8* bits, s32 count) {
  const int rc = ext2_reader_read(context, start, chunk_size, bits, count);
  if (chunk_size > 2048) bits[0] = static_cast<u8>(~bits[0]);
  return rc;
}

TEST_F(maps, self_test_finds_a_reader_that_contradicts_itself) {
  image_disk disk(image);
  void* context = ext2_reader_init(disk.bdev(), nullptr);
  ASSERT_NE(context, nullptr);
  EXPECT_EQ(zorv_blkbmp_test_reader(disk.bdev(), context, 1024, ext2_reader_read), 0);
  EXPECT_EQ(zorv_blkbmp_test_reader(disk.bdev(), context, 1024, forgetful_read), -EIO);
  EXPECT_TRUE(log.has("Oops. Bit "));
  ext2_reader_destroy(context);
}

}  // namespace
}  // namespace zorv_test
