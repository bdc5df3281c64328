// SPDX-License-Identifier: GPL-2.0-only
// Entries by path, the device that a path lives on, and reads of raw blocks.
#include "driver/util/file.h"

#include <unistd.h>

#include "doubles/fault.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;
using kernel::fault_site;

namespace {

struct file_test : ::testing::Test {
  temp_dir dir;
  log_capture log;
  std::string path = dir / "file";

  ~file_test() override { kernel::fault_disarm_all(); }

  // The one error that was said since the last call.
  bool said(const std::string& text) {
    const std::string errors = log.errors();
    log.clear();
    return errors == "<3>ERROR: " + text + "\n";
  }
};

}  // namespace

TEST_F(file_test, entries_are_found_by_absolute_path) {
  write_file(path, {1});
  ASSERT_EQ(::symlink(path.c_str(), (dir / "link").c_str()), 0);
  EXPECT_EQ(kernel::ptr_err(zorv_get_file_dentry("file", 1)), -EINVAL);
  EXPECT_TRUE(said("zorv_get_file_dentry(): Can't lookup file: must be an absolute path."));
  EXPECT_EQ(zorv_get_file_dentry((dir / "none").c_str(), 1), nullptr);
  EXPECT_EQ(zorv_get_file_dentry((dir / "none/below").c_str(), 1), nullptr);
  EXPECT_EQ(kernel::ptr_err(zorv_get_file_dentry((path + "/below").c_str(), 1)), -ENOTDIR);
  for (const int follow : {0, 1}) {
    kernel::dentry* d = zorv_get_file_dentry((dir / "link").c_str(), follow);
    ASSERT_FALSE(d == nullptr || kernel::is_err(d));
    const bool regular = (d->d_inode()->i_mode & kernel::S_IFMT_) == kernel::S_IFREG_;
    EXPECT_EQ(regular, follow == 1);
    EXPECT_EQ(d->d_count, 1U);
    kernel::dput(d);
  }
}

TEST_F(file_test, a_path_that_is_not_there_yet_lives_where_its_nearest_ancestor_does) {
  write_file(path, {1});
  kernel::set_fs_device_resolver([](u32, u32) { return kernel::mkdev(100, 9); });
  const devt dev = zorv_get_file_devt(path.c_str());
  EXPECT_EQ(zorv_get_file_devt((dir / "a/b/c").c_str()), dev);
  EXPECT_EQ(zorv_get_file_devt((path + "/below").c_str()), dev);
  EXPECT_EQ(zorv_get_file_devt("/proc/none"), 0U);
  const devt root = zorv_get_file_devt("/");
  EXPECT_EQ(zorv_get_file_devt("/a-name-that-is-not-there"), root);
  EXPECT_EQ(zorv_get_file_devt("relative/path"), 0U);
  kernel::set_fs_device_resolver(nullptr);
}

TEST_F(file_test, blocks_are_read_one_after_the_other) {
  memory_disk disk("bread", 1 << 20);
  bytes content(1 << 20);
  for (std::size_t i = 0; i < content.size(); i++) content[i] = static_cast<u8>(i / 512 * 7 + i);
  disk.poke(0, content);
  kernel::block_device* bdev = zorv_open_bdev(disk.dev(), kernel::FMODE_READ);
  ASSERT_NE(bdev, nullptr);
  disk.plug(true);
  disk.record(true);
  bytes got(8192, 0xee);
  EXPECT_EQ(zorv_bread(bdev, got.data(), 1024, 5, 3), 0);
  EXPECT_TRUE(std::equal(got.begin(), got.begin() + 3 * 1024, content.begin() + 5 * 1024));
  EXPECT_EQ(got[3 * 1024], 0xee);
  ASSERT_EQ(disk.recorded().size(), 3U);
  for (std::size_t i = 0; i < 3; i++) {
    EXPECT_EQ(disk.recorded()[i].offset_bytes, (10 + 2 * i) * 512);
    EXPECT_EQ(disk.recorded()[i].length_bytes, 1024U);
  }

  disk.record(true);
  EXPECT_EQ(zorv_bread(bdev, got.data(), 8192, 0, 1), -EINVAL);
  EXPECT_TRUE(said("zorv_bread(): Block size cannot be larger than page size (4096)"));
  EXPECT_EQ(zorv_bread(bdev, got.data(), 4096, 0, 0), 0);
  for (const kernel::s64 wild : {s64{-1}, s64{1} << 60, (s64{1} << 52) + 1}) {
    EXPECT_EQ(zorv_bread(bdev, got.data(), 4096, wild, 1), -EIO) << wild;
  }
  EXPECT_TRUE(log.has("zorv_bread(): Failed to read 4096-byte block #-1"));
  kernel::fault_arm(fault_site::bio_read, 2, 1, EIO);
  EXPECT_EQ(zorv_bread(bdev, got.data(), 512, 0, 3), -EIO);
  EXPECT_TRUE(log.has("zorv_bread(): Failed to read 512-byte block #1"));
  kernel::fault_disarm_all();
  log.clear();
  kernel::fault_arm(fault_site::alloc, 1, 1, ENOMEM);
  EXPECT_EQ(zorv_bread(bdev, got.data(), 512, 0, 1), -ENOMEM);
  EXPECT_TRUE(said("zorv_bread(): Memory allocation failed."));

  EXPECT_EQ(zorv_is_mounted(bdev), 0);
  disk.set_mounted(true);
  EXPECT_EQ(zorv_is_mounted(bdev), 1);
  zorv_close_bdev(bdev);
  EXPECT_EQ(zorv_open_bdev(kernel::mkdev(4000, 1), kernel::FMODE_READ), nullptr);
}
