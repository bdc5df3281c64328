// SPDX-License-Identifier: GPL-2.0-only
// A filter's life: creation with every refusal, start, stop, removal, unload.
#include "kernel/module.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct filter_test : driver_test {
  memory_disk disk{"d0", 1000000000};

  zorv_add_filter_req with(const std::string& hdd, filter_options o = {}) {
    o.bmp_dir = dir.path();
    return filter_request(hdd, o);
  }
  int refused(const zorv_add_filter_req& asked, const std::string& message) {
    log.clear();
    auto req = asked;
    const int rc = command(ZORV_ADD_FILTER_NODE, &req);
    EXPECT_TRUE(log.has("<3>ERROR: zorv_ioctl_add_filter_node(): " + message)) << log.errors();
    EXPECT_EQ(std::memcmp(&req, &asked, sizeof(req)), 0) << "a failed command changes no record";
    return rc;
  }
};

}  // namespace

TEST_F(filter_test, every_refusal_says_why_and_changes_nothing) {
  write_file(dir / "file", {1, 2, 3});
  memory_disk small{"small", 1 << 20, /*block_bytes=*/1024};
  const std::string d = disk.path();
  struct {
    zorv_add_filter_req req;
    std::string message;
    int rc;
  } const table[] = {
      {with(""), "Empty HDD name passed as input.", -EINVAL},
      {with(dir / "nothing"), "Unable to lookup " + (dir / "nothing") + ": rc=0", -ENOENT},
      {with("relative"), "Unable to lookup relative: rc=-22", -ENOENT},
      {with(dir / "file"), (dir / "file") + " is not a block device.", -EINVAL},
      {with(d, {.extent_size = 0}), "Extent size must be a power of 2", -EINVAL},
      {with(d, {.extent_size = 12288}), "Extent size must be a power of 2", -EINVAL},
      {with(small.path(), {.extent_size = 512}),
       "Extent size must be a multiple of block size (1024B)", -EINVAL},
      {with(small.path(), {.extent_size = 2048}),
       "Extent size can't be smaller than page size (4096B)", -EINVAL},
      {with(d, {.minor = 256}), "Minor number 256 is too big: max=255", -EINVAL},
      {with(d, {.name = std::string(123, 'n')}), "Node name nnn", -EINVAL},
      {with(d, {.name = ":7"}), "Node name :7 begins with a ':'", -EINVAL},
      {with(d, {.name = "a\nb"}), "Node name a\nb is not printable", -EINVAL},
      {with(d, {.name = "a\xff"}), "Node name a\xff is not printable", -EINVAL},
      {with(d, {.name = "a\xc2\x9b"}), "Node name a\xc2\x9b is not printable", -EINVAL},
      {with(d, {.name = "a\xe2\x82"}), "Node name a\xe2\x82 is not printable", -EINVAL},
      {with(d, {.name = "a\xed\xa0\x80"}), "Node name a\xed\xa0\x80 is not", -EINVAL},
  };
  for (const auto& row : table) EXPECT_EQ(refused(row.req, row.message), row.rc) << row.message;
  const u32 first = add_filter(d, {.minor = 7, .name = "gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80 a:b"});
  EXPECT_EQ(first, 7U);
  EXPECT_EQ(refused(with(d), "Found a duplicate zorv7 node going to the same HDD device " + d),
            -EINVAL);
  memory_disk other{"d1", 1 << 20};
  EXPECT_EQ(refused(with(other.path(), {.minor = 7}), "Device minor number 7 is already taken"),
            -EINVAL);
  {
    client busy(kernel::open_by_devnum(other.dev(), kernel::FMODE_READ));
    EXPECT_EQ(refused(with(other.path()), "Can't attach to an open HDD device"), -EBUSY);
  }
  other.set_mounted(true);
  EXPECT_EQ(refused(with(other.path()), "Can't attach to mounted HDD device"), -EBUSY);
  other.set_mounted(false);
  EXPECT_EQ(add_filter(other.path()), 0U);
}

TEST_F(filter_test, a_name_that_leads_elsewhere_removes_nothing_there) {
  write_file(dir / "mine", {1});
  const u32 m = add_filter(disk.path(), {.name = "../.." + (dir / "mine")});
  EXPECT_EQ(read_file(dir / "mine"), bytes{1});
  EXPECT_TRUE(log.has("contains a '/'"));
  EXPECT_EQ(proc("zorv/zorv0/dev_name"), "\n");
  EXPECT_EQ(start(m), 0);
}

TEST_F(filter_test, more_extents_than_32_bits_count_are_refused) {
  memory_disk huge{"huge", (1ULL << 44)};  // 16 TiB: 2^32 extents of 4096 bytes
  EXPECT_EQ(refused(with(huge.path(), {.extent_size = 4096}),
                    "Extent size 4096 is too small for such a large volume"),
            -EINVAL);
}

TEST_F(filter_test, the_table_fills_up_and_frees_again) {
  unload();
  ASSERT_EQ(kernel::module_param_set("zorv_max_blk_minor", "2"), 0);
  load();
  std::vector<std::unique_ptr<memory_disk>> disks;
  for (int i = 0; i < 4; ++i)
    disks.push_back(std::make_unique<memory_disk>("t" + std::to_string(i), 1 << 20));
  for (u32 i = 0; i < 3; ++i) EXPECT_EQ(add_filter(disks[i]->path()), i);
  EXPECT_EQ(refused(with(disks[3]->path()), "All 3 of ZORV minor nodes have already been used up."),
            -ENOSPC);
  EXPECT_EQ(del(1), 0);
  EXPECT_EQ(add_filter(disks[3]->path()), 1U);
  unload();
}

TEST_F(filter_test, start_stop_and_delete_follow_the_states) {
  const u32 m = add_filter(disk.path());
  EXPECT_EQ(stop(m), 0) << "stopping a stopped node";
  EXPECT_EQ(start(m), 0);
  EXPECT_EQ(start(m), -EALREADY);
  EXPECT_TRUE(log.has("zorv_block_start_device(): zorv(100, 0) has already been started"));
  {
    client one(m), two(m);
    one.close();
    EXPECT_EQ(stop(m), -EBUSY);
    EXPECT_EQ(del(m), -EBUSY);
    EXPECT_TRUE(log.has("zorv_block_stop_device(): zorv(100, 0) is still being used."));
  }
  EXPECT_EQ(del(m), 0) << "a started node that nobody uses is stopped first";
  EXPECT_EQ(device_of("/dev/zorv/zorv0"), 0U);
  for (u32 number : {ZORV_START_NODE, ZORV_STOP_NODE, ZORV_DEL_NODE}) {
    for (u32 minor : {m, 4096U, 0xffffffffU}) EXPECT_EQ(node(number, minor), -EINVAL);
  }
  EXPECT_TRUE(log.has("Nothing is known about zorv(100, 4096)"));
  EXPECT_EQ(disk.bdev()->bd_openers.load(), 0);
}

TEST_F(filter_test, a_name_is_one_nodes) {
  memory_disk other{"d1", 1 << 20};
  const u32 a = add_filter(disk.path(), {.name = "zorv1"});
  for (const filter_options& o : {filter_options{.name = "zorv1"}, filter_options{.minor = 1}}) {
    EXPECT_EQ(refused(with(other.path(), o), "Node name zorv1 is already taken by zorv(100, 0)"),
              -EEXIST)
        << "its clients could read another disk";
  }
  EXPECT_EQ(device_of("/dev/zorv/zorv1"), kernel::mkdev(100, a));
  EXPECT_EQ(del(a), 0);
  EXPECT_EQ(add_filter(other.path(), {.name = "zorv1"}), a);
  EXPECT_EQ(add_filter(disk.path()), 2U) << "minor 1 has no default name left";
}

// Every call of every kind that creation makes fails once: the command fails cleanly or, where the
// step is allowed to fail, succeeds; either way the next creation and the unload succeed.
TEST_F(filter_test, failing_the_nth_call_of_creation_leaves_no_trace) {
  using site = kernel::fault_site;
  for (site where : {site::alloc, site::file_open, site::file_read, site::node_make,
                     site::proc_create, site::user_copy, site::thread_create}) {
    for (u64 n = 1; n < 200; ++n) {
      auto req = with(disk.path());
      kernel::fault_arm(where, n, 1, ENOMEM);
      const int rc = command(ZORV_ADD_FILTER_NODE, &req);
      const bool reached = kernel::fault_calls(where) >= n;
      kernel::fault_disarm_all();
      if (where == site::thread_create) EXPECT_EQ(rc != 0, reached) << "it has its threads";
      if (rc != 0) {
        EXPECT_EQ(disk.bdev()->bd_openers.load(), zorv_blkdev_arr[0] != nullptr ? 1 : 0);
        EXPECT_TRUE(rc == -ENOMEM || rc == -EIO || rc == -EINVAL || rc == -EFAULT || rc == -ENOENT)
            << rc;
      }
      // The copy back may fail after the node is there.
      if (zorv_blkdev_arr[0] != nullptr) EXPECT_EQ(del(0), 0);
      ASSERT_EQ(disk.bdev()->bd_openers.load(), 0)
          << "site " << static_cast<u32>(where) << " call " << n;
      if (!reached) break;
    }
  }
  EXPECT_EQ(add_filter(disk.path()), 0U);
}
