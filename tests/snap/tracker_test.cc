// SPDX-License-Identifier: GPL-2.0-only
// The bio clone tracker, on a disk that holds what it is sent.
#include "driver/io/aio.h"
#include "kernel/mem.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct tracker_test : testing::Test {
  void SetUp() override { ASSERT_EQ(zorv_aio_init(&aio), 0); }
  void TearDown() override {
    kernel::fault_disarm_all();
    if (aio.hash.ready()) zorv_aio_destroy(&aio, 0);
  }

  struct request {
    explicit request(kernel::block_device* bdev, u64 sector, u32 sectors, u32 rw = kernel::READ)
        : data(sectors * 512) {
      b = kernel::bio_alloc(kernel::GFP_KERNEL, 256);
      b->bi_bdev = bdev;
      b->bi_sector = sector;
      b->bi_rw = rw;
      b->bi_private = this;
      b->bi_end_io = [](kernel::bio* bio, int rc) {
        auto* r = static_cast<request*>(bio->bi_private);
        r->error = rc;
        r->ended = true;
      };
      for (u32 at = 0; at < data.size(); at += 4096) {
        kernel::bio_add_page(b, kernel::page_at(data.data() + at),
                             std::min<u32>(4096, static_cast<u32>(data.size()) - at), 0);
      }
    }
    ~request() { kernel::bio_put(b); }
    kernel::bio* b;
    bytes data;
    std::atomic<int> error{0};
    std::atomic<bool> ended{false};
  };
  kernel::bio* clone(request& r, int wait = 0) {
    return zorv_aio_clone(&aio, r.b, wait, kernel::GFP_NOIO);
  }

  memory_disk disk{"d0", 32 << 20};
  zorv_aio aio;
};

}  // namespace

TEST_F(tracker_test, requests_conflict_when_they_share_a_sector_and_one_is_in_flight) {
  disk.serve(memory_disk::serving::held);
  request first(disk.bdev(), 4, 2);  // sectors 4 and 5
  kernel::bio* c = clone(first);
  ASSERT_NE(c, nullptr);
  kernel::generic_make_request(c);

  struct {
    u64 sector;
    u32 sectors;
    bool conflict;
  } table[] = {{0, 4, false},  // the same 4 KiB block
               {6, 2, false},           {0, 5, true}, {5, 1, true}, {0, 16, true},
               {4096 * 8 + 4, 2, false}};  // the same bucket
  for (const auto& t : table) {
    request r(disk.bdev(), t.sector, t.sectors);
    kernel::bio* other = clone(r);
    EXPECT_EQ(other == nullptr, t.conflict) << t.sector << "+" << t.sectors;
    if (other != nullptr) kernel::bio_put(other);  // dropped without being sent
  }

  // Completed but not freed: no conflict.
  c->bi_cnt.fetch_add(1);
  disk.release();
  EXPECT_TRUE(first.ended);
  request again(disk.bdev(), 4, 2);
  kernel::bio* next = clone(again);
  EXPECT_NE(next, nullptr);
  kernel::bio_put(next);
  kernel::bio_put(c);
}

TEST_F(tracker_test, a_waiting_clone_comes_when_the_earlier_request_has_ended) {
  for (const bool plugged : {false, true}) {
    disk.plug(plugged);
    disk.serve(plugged ? memory_disk::serving::at_once : memory_disk::serving::held);
    request first(disk.bdev(), 0, 8, kernel::WRITE);
    request second(disk.bdev(), 7, 8);
    kernel::generic_make_request(clone(first));
    std::atomic<bool> got{false};
    std::thread waiter([&] {
      kernel::bio* c = clone(second, 1);
      got = true;
      kernel::bio_put(c);
    });
    if (!plugged) {  // a plugged request is started by the waiter itself
      EXPECT_FALSE(eventually([&] { return got.load(); }, 30));
      disk.release(0, -EIO);
    }
    EXPECT_TRUE(eventually([&] { return got.load(); }));
    waiter.join();
    EXPECT_EQ(first.error, plugged ? 0 : -EIO) << "the clone's status is the submitter's";
  }
}

TEST_F(tracker_test, destroy_waits_for_every_clone_and_the_last_one_takes_the_caches) {
  zorv_aio other;
  ASSERT_EQ(zorv_aio_init(&other), 0);
  EXPECT_TRUE(kernel::kmem_cache_exists("aio_item") && kernel::kmem_cache_exists("aio_block"));
  disk.serve(memory_disk::serving::held);
  request r(disk.bdev(), 0, 8);
  kernel::generic_make_request(clone(r));
  std::atomic<bool> gone{false};
  std::thread destroyer([&] {
    zorv_aio_destroy(&aio, 0);
    gone = true;
  });
  EXPECT_FALSE(eventually([&] { return gone.load(); }, 30));
  disk.release();
  destroyer.join();
  EXPECT_TRUE(kernel::kmem_cache_exists("aio_item"));
  zorv_aio_destroy(&other, 0);
  EXPECT_FALSE(kernel::kmem_cache_exists("aio_item") || kernel::kmem_cache_exists("aio_block"));
  EXPECT_EQ(zorv_aio_init(&other), 0);
  zorv_aio_destroy(&other, 0);
}
