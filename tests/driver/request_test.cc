// SPDX-License-Identifier: GPL-2.0-only
// What becomes of a bio sent to a filter that cannot be served.
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct request_test : driver_test {
  memory_disk disk{"d0", 64 << 20};
};

}  // namespace

TEST_F(request_test, requests_that_cannot_be_served_end_with_their_error) {
  const u32 m = add_started_filter(disk.path());
  client c(m);
  EXPECT_EQ(c.fill((64 << 20) - 4096, 8192, 1), -EIO) << "beyond the end";
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
