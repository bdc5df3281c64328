// SPDX-License-Identifier: GPL-2.0-only
// The status tree as a reader sees it.
#include "driver/proc/proc.h"

#include "driver/core/log.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct proc_test : driver_test {
  memory_disk disk{"p0", 1000000000};

  static bool there(const std::string& path) {
    std::vector<kernel::proc_listing> list;
    return kernel::proc_list(path, &list) == 0;
  }
};

}  // namespace

TEST_F(proc_test, a_filter_shows_every_field) {
  const u32 m = add_filter(disk.path(), {.minor = 3, .name = "data", .uuid = "U"});
  kernel::block_device* hdd = disk.bdev();
  EXPECT_EQ(proc_texts("zorv/zorv3"),
            (text_list{{"dev_type", "filter\n"},
                       {"minor", "3\n"},
                       {"uuid", "U\n"},
                       {"name", "data\n"},
                       {"dev_name", "/dev/zorv/data\n"},
                       {"started", "0\n"},
                       {"use_cnt", "0\n"},
                       {"hdd_major", std::to_string(kernel::major_of(hdd->bd_dev)) + "\n"},
                       {"hdd_minor", std::to_string(kernel::minor_of(hdd->bd_dev)) + "\n"},
                       {"hdd_name", disk.path() + "\n"},
                       {"snap_minor", ""},
                       {"extent_size", "65536\n"},
                       {"extent_cnt", "15259\n"},
                       {"dev_size", "1000000000\n"},
                       {"bmp_dir", dir.path() + "\n"},
                       {"incr_bmp_size", "1908\n"},
                       {"incr_bmp_dirty", proc("zorv/zorv3/incr_bmp_dirty")},
                       {"diff_bmp_size", "1908\n"},
                       {"diff_bmp_dirty", proc("zorv/zorv3/diff_bmp_dirty")},
                       {"incr_bmp_changed", "15259\n"},
                       {"diff_bmp_changed", "15259\n"},
                       {"bmp_trouble", ""},
                       {"cowqueue_len", "0\n"},
                       {"snaps", ""}}));
  EXPECT_EQ(start(m), 0);
  {
    const client c(m);
    EXPECT_EQ(proc("zorv/zorv3/started") + proc("zorv/zorv3/use_cnt"), "1\n1\n");
  }
  EXPECT_EQ(del(m), 0);
  EXPECT_FALSE(there("zorv/zorv3"));
}

TEST_F(proc_test, the_log_level_is_read_and_written) {
  std::vector<kernel::proc_listing> list;
  ASSERT_EQ(kernel::proc_list("zorv", &list), 0);
  ASSERT_EQ(list.size(), 3U);
  EXPECT_EQ(list[2].name + std::to_string(list[2].mode), "debug" + std::to_string(0644));
  EXPECT_EQ(proc("zorv/chr_major") + proc("zorv/blk_major") + proc("zorv/debug"), "100\n100\n1\n");
  const struct {
    std::string text;
    int rc, level;
  } table[] = {
      {"4\n", 2, 4},
      {"3 ", 2, 3},
      {"2", 1, 2},
      {"-1", 2, -1},
      {"\n", 1, 0},
      {"4x", -EINVAL, 0},
      {"x", -EINVAL, 0},
      {"", -EINVAL, 0},
      {"4294967298", 10, 2},
      {std::string(1025, '1'), -EINVAL, 2},
      // The last of 1024 bytes is dropped, so what is wrong with it is not seen.
      {std::string(1022, '0') + "3x", 1024, 3},
  };
  for (const auto& t : table) {
    EXPECT_EQ(kernel::proc_write("zorv/debug", t.text), t.rc) << t.text;
    EXPECT_EQ(proc("zorv/debug"), std::to_string(t.level) + "\n") << t.text;
  }
  EXPECT_EQ(kernel::proc_write("zorv/chr_major", "1"), -EACCES);
  kernel::fault_arm(kernel::fault_site::alloc, 1, 1, ENOMEM);
  EXPECT_EQ(kernel::proc_write("zorv/debug", "1"), -ENOMEM);
  EXPECT_TRUE(log.has("zorv_write_proc(): Memory allocation failed."));
  kernel::fault_arm(kernel::fault_site::user_copy, 1, 1, EFAULT);
  EXPECT_EQ(kernel::proc_write("zorv/debug", "1"), -EFAULT);
  EXPECT_TRUE(log.has("zorv_write_proc(): zorv_debug=2"));
  EXPECT_TRUE(log.has("zorv_read_proc(): debug=2"));
}

TEST_F(proc_test, a_directory_that_cannot_be_completed_is_not_there) {
  add_filter(disk.path());
  zorv_blkdev* dev = zorv_blkdev_arr[0];
  zorv_proc_del_device(dev);
  for (u64 nth = 1; nth <= 25; nth++) {
    kernel::fault_arm(kernel::fault_site::proc_create, nth, 1, ENOMEM);
    EXPECT_EQ(zorv_proc_add_device(dev), -EINVAL) << nth;
    EXPECT_FALSE(there("zorv/zorv0")) << nth;
  }
  EXPECT_TRUE(log.has("zorv_proc_add_device(): Failed to create /proc/zorv/zorv0/snaps."));

  unload();
  EXPECT_FALSE(there("zorv"));
  const char* names[] = {" directory.", "/chr_major.", "/blk_major.", "/debug."};
  for (u64 nth = 1; nth <= 4; nth++) {
    kernel::fault_arm(kernel::fault_site::proc_create, nth, 1, ENOMEM);
    EXPECT_EQ(zorv_create_proc(), -EINVAL);
    EXPECT_TRUE(log.has(std::string("Failed to create /proc/zorv") + names[nth - 1]));
    EXPECT_EQ(zorv_remove_proc(), 0);
    EXPECT_FALSE(there("zorv"));
  }
}
