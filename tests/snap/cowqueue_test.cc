// SPDX-License-Identifier: GPL-2.0-only
// The COW queue's order and its overlap tests.
#include "driver/snap/cowqueue.h"

#include "kernel/mem.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct cowqueue_test : testing::Test {
  void SetUp() override { ASSERT_EQ(zorv_cowqueue_init(&q), 0); }
  void TearDown() override {
    kernel::fault_disarm_all();
    if (q.hash.ready()) zorv_cowqueue_destroy(&q);
    for (kernel::bio* b : bios) kernel::bio_put(b);
  }
  kernel::bio* bio(u32 rw, u64 sector, u32 sectors) {
    kernel::bio* b = kernel::bio_alloc(kernel::GFP_KERNEL, 1);
    b->bi_bdev = disk.bdev();
    b->bi_sector = sector;
    b->bi_size = sectors * 512;
    b->bi_rw = rw;
    b->bi_end_io = [](kernel::bio* e, int error) {
      *static_cast<std::atomic<int>*>(e->bi_private) += error == -EIO ? 1 : 1000;
    };
    b->bi_private = &failed;
    bios.push_back(b);
    return b;
  }
  // "w0+8 r4+1": appends, one by one.
  void append(const std::string& requests) {
    char rw;
    unsigned sector, sectors;
    for (const char* p = requests.c_str(); std::sscanf(p, " %c%u+%u", &rw, &sector, &sectors) == 3;
         p = std::strchr(p + 1, ' ') != nullptr ? std::strchr(p + 1, ' ') : "") {
      ASSERT_EQ(
          zorv_cowqueue_append(&q, 7, bio(rw == 'w' ? 1 : 0, sector, sectors), kernel::GFP_NOIO),
          0);
    }
  }
  std::string order() {
    std::string out;
    kernel::spin_guard guard(&q.lock);
    for (const cow_request& r : q.reqs) {
      out += out.empty() ? "" : " ";
      out += (r.is_write ? "w" : "r") + std::to_string(r.first_sector) + "+" +
             std::to_string(r.last_sector - r.first_sector + 1);
    }
    return out;
  }
  // One letter per request in order: b blocked by an earlier one, f free.
  std::string blocked() {
    std::string out;
    kernel::spin_guard guard(&q.lock);
    for (cow_request& r : q.reqs) out += zorv_cowqueue_overlaps_earlier(&q, &r) ? 'b' : 'f';
    return out;
  }

  memory_disk disk{"d0", 1 << 20};
  zorv_cowqueue q;
  std::atomic<int> failed{0};
  std::vector<kernel::bio*> bios;
};

}  // namespace

TEST_F(cowqueue_test, writes_queue_up_and_reads_go_as_far_ahead_as_overlaps_let_them) {
  struct {
    const char *appended, *order, *blocked;
  } table[] = {
      {"w0+8 w100+8 w0+8", "w0+8 w100+8 w0+8", "ffb"},
      {"w0+8 r100+8", "w0+8 r100+8", "ff"},
      {"w0+8 w8+8 w16+8 r100+8", "w0+8 r100+8 w8+8 w16+8", "ffff"},
      {"w0+8 w8+8 w16+8 r15+1", "w0+8 w8+8 r15+1 w16+8", "ffbf"},
      {"w0+8 w8+8 w16+8 r7+10", "w0+8 w8+8 w16+8 r7+10", "fffb"},
      {"r0+8 r200+8 w300+8 r0+8", "r0+8 r0+8 r200+8 w300+8", "fbff"},
      {"r0+8", "r0+8", "f"},
      {"w0+8 w131072+8 w131076+8", "w0+8 w131072+8 w131076+8", "ffb"},  // one bucket
      {"w0+8 r40+8 w44+1", "w0+8 r40+8 w44+1", "ffb"},
  };
  for (const auto& t : table) {
    append(t.appended);
    EXPECT_EQ(order(), t.order);
    EXPECT_EQ(blocked(), t.blocked) << t.appended;
    EXPECT_EQ(q.cnt.load(), static_cast<int>(std::strlen(t.blocked)));
    EXPECT_EQ(zorv_cowqueue_purge(&q), 0);
    EXPECT_EQ(failed.exchange(0), static_cast<int>(std::strlen(t.blocked))) << "each ends, -EIO";
    EXPECT_EQ(q.cnt.load(), 0);
  }
}

TEST_F(cowqueue_test, overlaps_are_found_by_direction_and_sector) {
  append("w12+8 r100+8");
  struct {
    int reads, writes;
    u64 sector;
    u32 sectors;
    int found;
  } table[] = {{0, 1, 19, 1, 1}, {0, 1, 20, 1, 0},    {0, 1, 4, 8, 0},   {0, 1, 4, 9, 1},
               {1, 0, 12, 8, 0}, {0, 1, 100, 8, 0},   {1, 0, 107, 4, 1}, {1, 1, 0, 500, 1},
               {1, 1, 20, 8, 0}, {1, 1, 131084, 8, 0}};
  for (const auto& t : table) {
    EXPECT_EQ(zorv_cowqueue_find_overlap_req(&q, t.reads, t.writes,
                                             bio(kernel::READ, t.sector, t.sectors)),
              t.found)
        << t.sector << "+" << t.sectors;
  }
}
