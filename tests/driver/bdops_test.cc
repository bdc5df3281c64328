// SPDX-License-Identifier: GPL-2.0-only
// Opening and closing nodes, commands of block devices, requests that cannot be served.
#include <thread>

#include "driver/block/block.h"
#include "driver/core/log.h"
#include "kernel/module.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct bdops_test : driver_test {
  memory_disk disk{"d0", 1 << 20};
};

}  // namespace

TEST_F(bdops_test, openers_are_counted_and_only_a_started_node_has_any) {
  const u32 m = add_filter(disk.path());
  EXPECT_EQ(kernel::ptr_err(kernel::open_by_devnum(kernel::mkdev(100, m), 1)), -EIO);
  EXPECT_TRUE(log.has("zorv_block_open(): zorv(100, 0) hasn't been started yet."));
  EXPECT_EQ(info(m).use_cnt, 0U);
  EXPECT_EQ(kernel::module_refcount(), 0);
  ASSERT_EQ(start(m), 0);
  client a(m);
  client b(m);
  EXPECT_EQ(info(m).use_cnt, 2U);
  EXPECT_EQ(kernel::module_refcount(), 2);
  a.close();
  EXPECT_EQ(info(m).use_cnt, 1U);
  EXPECT_EQ(zorv_blkdev_arr[m]->bdev, b.bdev());
  b.close();
  EXPECT_EQ(zorv_blkdev_arr[m]->bdev, nullptr);
  EXPECT_EQ(kernel::module_refcount(), 0);
  kernel::gendisk stranger;
  stranger.first_minor = 9;
  kernel::block_device node;
  node.bd_dev = kernel::mkdev(100, 9);
  EXPECT_EQ(zorv_block_release(&stranger, 0), -EINVAL);
  EXPECT_EQ(zorv_block_open(&node, 0), -EINVAL);
  EXPECT_EQ(zorv_block_ioctl(&node, 0, 0x1261, 0), -EINVAL);
  EXPECT_EQ(log.count("Unable to find zorv(100, 9)"), 2);
  EXPECT_TRUE(log.has("zorv_block_ioctl(): Unknown device zorv(100, 9)"));
  EXPECT_EQ(kernel::module_refcount(), 0);
}

TEST_F(bdops_test, a_close_whose_save_hangs_keeps_nobody_from_opening_and_closing) {
  const u32 m = add_started_filter(disk.path());
  const auto first = std::make_unique<client>(m);
  std::atomic<bool> closed{false};
  std::thread closing;
  {
    const kernel::lock_order_exception stands_in_for_another_task;
    rzmutex_guard hangs(&zorv_blkdev_arr[m]->f.save_mutex);
    EXPECT_EQ(first->fill(0, 512, 1), 0);
    closing = std::thread([&] {
      first->close();
      closed = true;
    });
    EXPECT_TRUE(eventually([&] { return zorv_blkdev_arr[m]->f.closes.load() == 1; }));
    client second(m);
    EXPECT_EQ(second.fill(65536, 512, 2), 0);
    second.close();
    EXPECT_FALSE(closed);
    EXPECT_EQ(stop(m), -EBUSY);  // the first is not through
  }
  closing.join();
  EXPECT_EQ(zorv_blkdev_arr[m]->f.incr_bmp_dirty.load(), 0U);  // for both of them
  EXPECT_EQ(stop(m), 0);
}

TEST_F(bdops_test, device_commands_go_to_the_hdd) {
  const u32 m = add_started_filter(disk.path());
  client c(m);
  zorv_debug = 2;
  disk.set_ioctl_result(-ENOTTY);
  EXPECT_EQ(zorv_block_ioctl(c.bdev(), 1, 0x1261, 5), -ENOTTY);
  EXPECT_TRUE(log.has("zorv_block_ioctl(): cmd=0x1261 (BLKFLSBUF)"));
  disk.set_ioctl_result(17);
  EXPECT_EQ(zorv_block_ioctl(c.bdev(), 1, 0xdead, 6), 17);
  EXPECT_TRUE(log.has("cmd=0xdead (UNKNOWN)"));
  EXPECT_EQ(zorv_block_ioctl(c.bdev(), 1, 0x80081270, ~0ULL), -EFAULT);
  EXPECT_EQ(zorv_block_ioctl(c.bdev(), 1, 0x40081271, ~0ULL - 4), -EFAULT);
  const std::vector<std::pair<u32, u64>> want{{0x1261, 5}, {0xdead, 6}};
  EXPECT_EQ(disk.ioctls(), want);

  zorv_blkdev_arr[m]->dev_type = ZORV_DEV_SNAP;  // one without a filter
  EXPECT_EQ(zorv_block_ioctl(c.bdev(), 1, 0x1261, 0), -EIO);
  EXPECT_TRUE(log.has("zorv_block_ioctl(): Internal error: fdev==NULL."));
  zorv_info_req req{};
  req.minor = m;
  EXPECT_EQ(command(ZORV_GET_INFO, &req), -EINVAL);
  EXPECT_TRUE(log.has("zorv_ioctl_get_info(): Snap device zorv(100, 0) is not attached to a"));
  zorv_blkdev_arr[m]->dev_type = ZORV_DEV_FILTER;
}

TEST_F(bdops_test, requests_that_cannot_be_served_end_with_their_error) {
  const u32 m = add_started_filter(disk.path());
  client c(m);
  EXPECT_EQ(c.fill((1 << 20) - 4096, 8192, 1), -EIO) << "beyond the end";
  kernel::fault_arm(kernel::fault_site::bio_write, 1, 1, EIO);
  EXPECT_EQ(c.fill(0, 4096, 1), -EIO) << "an error of the HDD reaches the client";
  kernel::fault_arm(kernel::fault_site::bio_read, 1, 1, EIO);
  bytes out;
  EXPECT_EQ(c.read(0, 4096, &out), -EIO);
  EXPECT_EQ(c.fill(0, 4096, 1), 0);
  // A raw submitter that does not open the node.
  kernel::block_device* bdev = c.bdev();
  c.close();
  EXPECT_EQ(stop(m), 0);
  EXPECT_EQ(pending_io(bdev, kernel::WRITE, 0, bytes(512)).wait(), -EIO);
  EXPECT_TRUE(
      log.has("zorv_make_request(): I/O request for zorv(100, 0), which is in STOPPED state."));
}
