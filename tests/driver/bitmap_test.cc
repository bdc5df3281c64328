// SPDX-License-Identifier: GPL-2.0-only
// The change bitmaps: which bits a write sets, and what the commands do and refuse.

#include "driver/bitmap/bitmap.h"

#include <bit>

#include "driver/bitmap/dirty.h"
#include "driver/bitmap/handout.h"
#include "kernel/uaccess.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

constexpr u32 incr = ZORV_BMP_INCREMENTAL, diff = ZORV_BMP_DIFFERENTIAL;

struct bitmap_test : driver_test {
  memory_disk disk{"d0", 100 * 65536};  // 100 extents: 13 bytes, four spare bits
  static constexpr u32 bmp_bytes = 13;

  int range(u32 number, u32 minor, u32 type, bytes* data) {
    zorv_bmp_range_req req{minor, type, 0, {}, 0};
    if (data != nullptr) {
      req.size = static_cast<u32>(data->size());
      req.data = reinterpret_cast<u64>(data->data());
    }
    return command(number, &req);
  }
  static zorv_filter* filter(u32 minor) { return &zorv_blkdev_arr[minor]->f; }
  static u32 dirty(u32 minor, u32 type) { return zorv_bmp_of(filter(minor), type).dirty->load(); }
};

}  // namespace

TEST_F(bitmap_test, a_write_marks_the_extents_it_touches) {
  const u32 m = add_started_filter(disk.path());
  const struct {
    u64 sector;
    u32 sectors;
    std::vector<u32> extents;
  } table[] = {
      {0, 0, {}},         {0, 1, {0}},        {127, 1, {0}},
      {127, 2, {0, 1}},   {128, 128, {1}},    {128, 129, {1, 2}},
      {1023, 1, {7}},     {1024, 1, {8}},     {12799, 1, {99}},
      {12799, 500, {99}}, {896, 256, {7, 8}}, {128 * 30, 128 * 4, {30, 31, 32, 33}},
  };
  for (const auto& row : table) {
    ASSERT_EQ(bmp(ZORV_CLR_BMP, m, incr), 0);
    ASSERT_EQ(bmp(ZORV_CLR_BMP, m, diff), 0);
    zorv_block_mark_extents(filter(m), row.sector, row.sectors);
    EXPECT_EQ(changed(m, incr), row.extents) << row.sector << "+" << row.sectors;
    EXPECT_EQ(changed(m, diff), row.extents);
    EXPECT_EQ(get_bmp(m, incr)[12] & 0xF0, 0) << "nothing behind the last extent";
  }
}

TEST_F(bitmap_test, info_looks_only_at_the_extents) {
  const u32 m = add_started_filter(disk.path());
  const auto info_of = [&](u8 most, u8 last) {
    bytes map(bmp_bytes, most);
    map[12] = last;
    EXPECT_EQ(range(ZORV_SET_BMP, m, incr, &map), 0);
    const auto i = info(m);
    return std::tuple{i.incr_bmp_clear, i.incr_bmp_full, proc("zorv/zorv0/incr_bmp_changed")};
  };
  EXPECT_EQ(info_of(0, 0xF0), std::tuple(1U, 0U, "0\n")) << "spare bits count as nothing";
  EXPECT_EQ(info_of(0, 0x08), std::tuple(0U, 0U, "1\n"));
  EXPECT_EQ(info_of(0xFF, 0x0F), std::tuple(0U, 1U, "100\n"));
  EXPECT_EQ(info_of(0xFE, 0xFF), std::tuple(0U, 0U, "88\n"));

  memory_disk large{"d1", u64{4096} * 8 * 40003};
  const u32 n = add_filter(large.path(), {.extent_size = 4096});
  bytes map(40003);
  u32 set = 0;
  for (u32 i = 0; i < map.size(); ++i) {
    map[i] = static_cast<u8>(i < 1000 ? 0xFF : i * 37 >> 4);
    set += static_cast<u32>(std::popcount(map[i]));
  }
  EXPECT_EQ(range(ZORV_SET_BMP, n, incr, &map), 0);
  EXPECT_EQ(proc("zorv/zorv1/incr_bmp_changed"), std::to_string(set) + "\n");
}

TEST_F(bitmap_test, refusals_name_their_cause) {
  const u32 m = add_started_filter(disk.path());
  bytes exact(bmp_bytes), shorter(bmp_bytes - 1);
  const std::string both = "bitmap size and bitmap data pointer must either be both NULL or both ";
  const std::pair<u32, std::string> commands[] = {
      {ZORV_GET_BMP, "get_bmp"},     {ZORV_GET_AND_CLR_BMP, "get_and_clr_bmp"},
      {ZORV_MERGE_BMP, "merge_bmp"}, {ZORV_SET_BMP, "set_bmp"},
      {ZORV_CLR_BMP, "clr_bmp"},     {ZORV_SAVE_BMP, "save_bmp"},
      {ZORV_LOAD_BMP, "load_bmp"}};
  for (const auto& c : commands) {
    const u32 number = c.first;
    const std::string& op = c.second;
    const auto refused = [&](u32 type, u32 size, const void* data, const std::string& text) {
      zorv_bmp_range_req req{m, type, size, {}, reinterpret_cast<u64>(data)};
      log.clear();
      EXPECT_EQ(command(number, &req), -EINVAL) << op;
      EXPECT_EQ(log.errors().rfind("<3>ERROR: zorv_ioctl_" + op + "(): " + text, 0), 0U)
          << log.errors();
    };
    refused(2, bmp_bytes, exact.data(), "Invalid bitmap type 2 (should be either 1 or 0)\n");
    zorv_blkdev_arr[m]->dev_type = ZORV_DEV_SNAP;
    refused(incr, bmp_bytes, exact.data(), "zorv(100, 0) is not a filter device\n");
    zorv_blkdev_arr[m]->dev_type = ZORV_DEV_FILTER;
    if (number == ZORV_CLR_BMP || number == ZORV_SAVE_BMP || number == ZORV_LOAD_BMP) continue;
    refused(incr, bmp_bytes - 1, shorter.data(), "Invalid bitmap size 12. Should have been 13\n");
    const bool set = number == ZORV_SET_BMP;
    refused(incr, bmp_bytes, nullptr, set ? both : "NULL bitmap data pointer passed as input\n");
    if (set) refused(incr, 0, exact.data(), both);
  }
}

TEST_F(bitmap_test, a_copy_or_allocation_that_fails_changes_nothing) {
  const u32 m = add_started_filter(disk.path());
  bytes map(bmp_bytes, 0x24);
  ASSERT_EQ(range(ZORV_SET_BMP, m, incr, &map), 0);
  for (u32 number : {ZORV_GET_BMP, ZORV_GET_AND_CLR_BMP, ZORV_MERGE_BMP, ZORV_SET_BMP}) {
    const bool out = number == ZORV_GET_BMP || number == ZORV_GET_AND_CLR_BMP;
    log.clear();
    zorv_bmp_range_req wild{m, incr, bmp_bytes, {}, 0x10};
    EXPECT_EQ(command(number, &wild), -EFAULT);
    EXPECT_TRUE(log.has(out ? "Failed to copyout the bitmap" : "Failed to copyin the bitmap"));
    bytes data(bmp_bytes, 0xDB);
    kernel::fault_arm(kernel::fault_site::alloc, 2, 1, ENOMEM);  // behind the dispatcher's
    EXPECT_EQ(range(number, m, incr, &data), -ENOMEM);
    kernel::fault_disarm_all();
    EXPECT_TRUE(log.has("Failed to allocate a 13-byte buffer"));
    EXPECT_EQ(get_bmp(m, incr), map) << std::hex << number;
    EXPECT_EQ(dirty(m, incr), 0U);
  }
}

// A caller's memory at which a write is marked while a command copies into it.
struct marking_space : kernel::user_space {
  std::function<void()> mark;
  bool fails = true;
  bytes got;
  bool read(void*, kernel::user_addr, std::size_t) override { return false; }
  bool write(kernel::user_addr, const void* from, std::size_t n) override {
    mark();
    if (fails) return false;
    got.assign(static_cast<const u8*>(from), static_cast<const u8*>(from) + n);
    return true;
  }
};

TEST_F(bitmap_test, get_and_clear_hands_out_all_that_it_clears) {
  const u32 m = add_started_filter(disk.path());
  marking_space space;
  space.mark = [&] { zorv_block_mark_extents(filter(m), 8 * 128, 1); };
  const kernel::user_space_scope scope(&space);
  zorv_block_mark_extents(filter(m), 0, 1);
  zorv_bmp_range_req req{m, incr, bmp_bytes, {}, 0x1000};
  EXPECT_EQ(zorv_ioctl_get_and_clr_bmp(zorv_blkdev_arr[m], &req), -EFAULT);
  EXPECT_EQ(changed(m, incr), (std::vector<u32>{0, 8})) << "nothing is cleared";
  space.mark = [&] { zorv_block_mark_extents(filter(m), 16 * 128, 1); };
  space.fails = false;
  EXPECT_EQ(zorv_ioctl_get_and_clr_bmp(zorv_blkdev_arr[m], &req), 0);
  bytes want(bmp_bytes, 0);
  want[0] = want[1] = 1;
  EXPECT_EQ(space.got, want);
  EXPECT_EQ(changed(m, incr), (std::vector<u32>{16})) << "marked after the clearing";
}

// Until the reader has said that it has them, the bits are in the file; one that goes without them
// leaves them in the bitmap.
TEST_F(bitmap_test, bits_handed_to_nobody_are_not_lost) {
  const u32 m = add_started_filter(disk.path());
  confirms = false;
  const auto in_file = [&] { return read_file(dir / "zorv0.incr")[16]; };
  zorv_block_mark_extents(filter(m), 5 * 128, 1);
  EXPECT_EQ(get_bmp(m, incr, ZORV_GET_AND_CLR_BMP)[0], 1 << 5);
  const u64 id = zorv_handout_last();
  EXPECT_TRUE(changed(m, incr).empty());
  EXPECT_EQ(in_file(), 1 << 5);
  EXPECT_EQ(bmp(ZORV_SAVE_BMP, m, incr), 0);
  EXPECT_EQ(in_file(), 1 << 5) << "every save keeps them";
  zorv_handout_return(id);
  zorv_handout_confirm(id);  // too late
  EXPECT_EQ(changed(m, incr), std::vector<u32>{5});
  (void)get_bmp(m, incr, ZORV_GET_AND_CLR_BMP);
  zorv_handout_confirm(zorv_handout_last());
  EXPECT_EQ(in_file(), 0);
  (void)get_bmp(m, incr, ZORV_GET_BMP);
  EXPECT_EQ(zorv_handout_last(), 0U);
  (void)get_bmp(m, incr, ZORV_GET_AND_CLR_BMP);
  EXPECT_EQ(stop(m), 0);
  EXPECT_EQ(del(m), 0);
  zorv_handout_confirm(zorv_handout_last());  // its node has gone
}

// Writers set bits and remember them; an agent takes and clears. Every bit set must turn up.
TEST_F(bitmap_test, no_mark_is_lost_to_get_and_clear_under_load) {
  memory_disk big{"big", 4096ULL * 8192};
  const u32 m = add_started_filter(big.path(), {.extent_size = 4096});
  zorv_filter* f = filter(m);
  constexpr u32 writers = 3, cells = 8192, rounds = 25;
  // Marks of each extent, counted before and after they are made. A bit that is handed out covers
  // at most the marks begun by then; one that is not covers none, so those ended before must have
  // been handed out already.
  std::vector<std::atomic<u32>> begun(cells), ended(cells);
  std::vector<u32> handed(cells);
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (u32 w = 0; w < writers; ++w) {
    threads.emplace_back([&, w] {
      u32 seed = w * 77 + 1;
      while (!stop.load()) {
        seed = seed * 1664525 + 1013904223;
        const u32 e = seed >> 8 & (cells - 1);
        begun[e].fetch_add(1);
        zorv_block_mark_extents(f, e * 8ULL, 8);
        ended[e].fetch_add(1);
      }
    });
  }
  const auto take = [&] {
    std::vector<u32> before(cells);
    for (u32 e = 0; e < cells; ++e) before[e] = ended[e].load();
    const bytes got = get_bmp(m, incr, ZORV_GET_AND_CLR_BMP);
    for (u32 e = 0; e < cells; ++e) {
      if ((got[e >> 3] >> (e & 7) & 1) != 0) {
        handed[e] = begun[e].load();
      } else {
        EXPECT_LE(before[e], handed[e]) << "a mark of extent " << e << " is gone";
      }
    }
  };
  for (u32 i = 0; i < rounds && !HasFailure(); ++i) take();
  stop.store(true);
  for (auto& t : threads) t.join();
  take();
  EXPECT_TRUE(changed(m, incr).empty());
  EXPECT_GT(changed(m, diff).size(), 7000U) << "the other bitmap keeps everything";
  unload();  // before the disk goes
}
