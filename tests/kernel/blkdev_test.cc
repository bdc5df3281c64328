// SPDX-License-Identifier: GPL-2.0-only
// Bios from allocation to their end, opening, plugging, freezing, and the disk that tests use.
#include "kernel/blkdev.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <fstream>
#include <iostream>
#include <numeric>
#include <thread>
#include <vector>

#include "doubles/fault.h"
#include "doubles/memory_disk.h"
#include "kernel/fs.h"
#include "support/driver_fixture.h"

using namespace kernel;
using zorv::memory_disk;
using zorv_test::bytes;
using zorv_test::client;
using zorv_test::eventually;
using zorv_test::log_capture;
using zorv_test::pending_io;
using zorv_test::temp_dir;

namespace {

struct blkdev_test : testing::Test {
  memory_disk disk{"kernel_test", 8 << 20};
  client c{open_by_devnum(disk.dev(), FMODE_READ | FMODE_WRITE)};
  ~blkdev_test() override { fault_disarm_all(); }
};

struct ended {
  int calls = 0;
  int error = 1;
  u32 irq_depth = 0;
};

void note_end(bio* b, int error) {
  auto* e = static_cast<ended*>(b->bi_private);
  ++e->calls;
  e->error = error;
  e->irq_depth = current()->irq_depth;
}

}  // namespace

TEST_F(blkdev_test, a_bio_holds_what_it_was_made_for_and_a_clone_shares_it) {
  bytes memory(page_size);
  bio* b = bio_alloc(GFP_KERNEL, 3);
  EXPECT_EQ(bio_add_page(b, page_at(memory.data()), 4096, 0), 4096U);
  EXPECT_EQ(bio_add_page(b, page_at(memory.data()), 512, 3584), 512U);
  EXPECT_EQ(bio_add_page(b, page_at(memory.data()), 1024, 3584), 0U) << "beyond the page";
  EXPECT_EQ(bio_add_page(b, page_at(memory.data()), 512, 0), 512U);
  EXPECT_EQ(bio_add_page(b, page_at(memory.data()), 512, 0), 0U) << "no room";
  EXPECT_EQ(bio_sectors(b), 10U);
  b->bi_sector = 77;
  b->bi_rw = WRITE | REQ_FUA;
  b->bi_bdev = disk.bdev();
  b->bi_end_io = note_end;
  bio* clone = bio_clone(b, GFP_NOIO);
  const auto told = [](const bio* x) {
    return std::tuple(x->bi_sector, x->bi_size, x->bi_rw, x->bi_bdev, x->bi_vcnt,
                      x->bi_io_vec[1].bv_offset);
  };
  EXPECT_EQ(told(clone), told(b));
  EXPECT_EQ(clone->bi_end_io, nullptr) << "an end is not inherited";
  bio_put(b);
  bio_put(clone);
  EXPECT_EQ(bio_alloc(GFP_KERNEL, bio_max_segments + 1), nullptr);
}

TEST_F(blkdev_test, a_bio_ends_once_in_completion_context_with_its_error) {
  log_capture log;
  const auto send = [this](u32 rw, u64 sector, u32 sectors) {
    static u8 memory[page_size];
    ended e;
    bio_vec vec;
    bio b;
    bio_init(&b, &vec, 1);
    if (sectors != 0) bio_add_page(&b, page_at(memory), sectors * sector_size, 0);
    b.bi_sector = sector;
    b.bi_bdev = disk.bdev();
    b.bi_private = &e;
    b.bi_end_io = note_end;
    submit_bio(rw, &b);
    EXPECT_EQ(e.calls, 1);
    EXPECT_EQ(e.irq_depth, 1U);
    EXPECT_EQ(b.bi_uptodate.load(), e.error == 0);
    return e.error;
  };
  const u64 end = (8 << 20) / sector_size;
  EXPECT_EQ(send(READ, end - 8, 8), 0);
  EXPECT_EQ(send(WRITE, end - 7, 8), -EIO);
  EXPECT_TRUE(log.has("attempt to access beyond end of device"));
  EXPECT_EQ(send(READ, ~u64{0} - 3, 8), -EIO) << "the sum wraps";
  EXPECT_EQ(send(WRITE | REQ_FLUSH, end + 1, 0), 0) << "a flush is nowhere";
  fault_arm(fault_site::bio_read, 1, 1, ENODATA);
  EXPECT_EQ(send(READ, 0, 1), -ENODATA);
  disk.fail(4096, 4096, memory_disk::direction::write, -ENOSPC, 1);
  EXPECT_EQ(send(READ, 8, 1), 0);
  EXPECT_EQ(send(WRITE, 7, 1), 0);
  EXPECT_EQ(send(WRITE, 7, 2), -ENOSPC);
  EXPECT_EQ(send(WRITE, 7, 2), 0);
  EXPECT_EQ(current()->irq_depth, 0U);
}

TEST_F(blkdev_test, a_freeze_waits_for_what_was_admitted_and_admits_nobody) {
  disk.serve(memory_disk::serving::held);
  auto before = c.start_write(0, bytes(4096, 1));
  std::atomic<bool> frozen{false};
  super_block* token = nullptr;
  std::thread freezer([&] {
    token = freeze_bdev(disk.bdev(), jiffies() + 20000);
    frozen.store(true);
  });
  ASSERT_TRUE(eventually([&] {
    if (!blkdev_try_enter(disk.bdev())) return true;
    blkdev_exit(disk.bdev());
    return false;
  }));
  EXPECT_FALSE(frozen.load()) << "one request is under way";
  EXPECT_EQ(ptr_err(freeze_bdev(disk.bdev(), jiffies() + 20)), -ETIMEDOUT);
  EXPECT_FALSE(blkdev_try_enter(disk.bdev())) << "the other freeze goes on";
  disk.release_all();
  freezer.join();
  EXPECT_EQ(before->wait(), 0);
  disk.serve(memory_disk::serving::at_once);
  std::thread late([&] { EXPECT_EQ(c.fill(4096, 4096, 2), 0); });
  EXPECT_EQ(freeze_bdev(disk.bdev(), jiffies() + 20000), token) << "nests";
  thaw_bdev(disk.bdev(), token);
  EXPECT_FALSE(blkdev_try_enter(disk.bdev())) << "one freeze is left";
  EXPECT_EQ(disk.writes(), 1U);
  thaw_bdev(disk.bdev(), token);
  late.join();
  EXPECT_EQ(disk.writes(), 2U);
}

TEST(disks, are_found_by_number_and_counted) {
  EXPECT_EQ(ptr_err(open_by_devnum(mkdev(zorv::memory_major, 99999), FMODE_READ)), -ENXIO);
  for (const auto& [size, block] : std::vector<std::pair<u64, u32>>{
           {1000000000, 512}, {1 << 20, 4096}, {(1 << 20) + 1024, 1024}, {1000001, 512}}) {
    EXPECT_EQ(memory_disk("sized", size).bdev()->bd_block_bytes, block) << size;
  }
  auto disk = std::make_unique<memory_disk>("counted", 1 << 20);
  disk->set_mounted(true);
  EXPECT_NE(get_super(disk->bdev()), nullptr);
  client a(open_by_devnum(disk->dev(), FMODE_READ)), b(open_by_devnum(disk->dev(), FMODE_READ));
  EXPECT_EQ(disk->bdev()->bd_openers.load(), 2);
  EXPECT_FALSE(del_gendisk_unused(disk->disk()));
  EXPECT_EQ(a.fill(0, 512, 1), 0);
  b.close();
  disk.reset();
  // Who still has the disk open keeps a device that answers nothing.
  log_capture log;
  EXPECT_EQ(a.fill(0, 512, 1), -EIO);
  EXPECT_TRUE(log.has("Trying to access nonexistent block-device counted (0)"));
  EXPECT_EQ(ptr_err(open_by_devnum(a.bdev()->bd_dev, FMODE_READ)), -ENXIO);
}

TEST(majors, are_taken_once) {
  const int major = register_blkdev(0, "kernel_test");
  ASSERT_GT(major, 0);
  const auto taken = static_cast<u32>(major);
  EXPECT_EQ(register_blkdev(taken, "other"), -EBUSY);
  unregister_blkdev(taken, "other");  // not the owner
  EXPECT_EQ(register_blkdev(taken, "other"), -EBUSY);
  unregister_blkdev(taken, "kernel_test");
  EXPECT_EQ(register_blkdev(taken, "other"), 0);
  unregister_blkdev(taken, "other");
  EXPECT_EQ(register_blkdev(4096, "big"), -EINVAL);
}

TEST(majors, of_the_host_stay_its_own) {
  constexpr u32 majors_of_a_host = 512;
  std::ifstream devices("/proc/devices");
  std::string word;
  while (devices >> word && word != "Block") {
  }
  u32 number = 0, seen = 0;
  for (devices >> word; devices >> number >> word; ++seen) {
    EXPECT_EQ(register_blkdev(number, "test"), -EBUSY) << word;
  }
  EXPECT_GT(seen, 0U);
  const int major = register_blkdev(0, "test");
  EXPECT_GE(major, static_cast<int>(majors_of_a_host));
  // A node of the host that has come to a number of ours all the same.
  const temp_dir dir;
  if (::mknod((dir / "node").c_str(), S_IFBLK | 0600, makedev(static_cast<u32>(major), 0)) == 0) {
    nameidata nd;
    EXPECT_EQ(path_lookup((dir / "node").c_str(), LOOKUP_FOLLOW, &nd), -ENXIO);
  } else {
    std::cout << "no device nodes here\n";
  }
  unregister_blkdev(static_cast<u32>(major), "test");
}
