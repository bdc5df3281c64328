// SPDX-License-Identifier: GPL-2.0-only
// The file and block helpers: results, and what they say about failures.
#include "driver/util/file.h"

#include <sys/stat.h>

#include "kernel/fault.h"
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
  zorv_file_ptr open(u32 flags = kernel::FO_RDWR | kernel::FO_CREAT) {
    return zorv_file_ptr(zorv_fopen(path.c_str(), flags, 0600));
  }
};

}  // namespace

TEST_F(file_test, transfers_are_positioned_and_whole) {
  const zorv_file_ptr f = open();
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(zorv_fwrite(f.get(), 4, "abcd", 4), 4);
  EXPECT_EQ(zorv_fwrite(f.get(), 0, "x", 0), 0);
  EXPECT_EQ(zorv_fwrite(f.get(), 0, "x", -1), 0);
  EXPECT_EQ(zorv_fsync(f.get()), 0);
  EXPECT_EQ(read_file(path), (bytes{0, 0, 0, 0, 'a', 'b', 'c', 'd'}));
  EXPECT_EQ(log.errors(), "");
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600U);

  char got[16] = {};
  EXPECT_EQ(zorv_fread(f.get(), 0, got, 16), 8);
  EXPECT_TRUE(said("zorv_fread(): Unexpected EOF while trying to read 8 bytes from " + path));
  EXPECT_EQ(zorv_fread(f.get(), 6, got, 2), 2);
  EXPECT_STREQ(got, "cd");
  EXPECT_EQ(zorv_ftruncate(path.c_str()), 0);
  EXPECT_TRUE(read_file(path).empty());
}

TEST_F(file_test, a_failure_is_said_once_by_whoever_meets_it) {
  const struct {
    u32 flags;
    const char* word;
  } table[] = {{kernel::FO_RDONLY, "reading"},
               {kernel::FO_WRONLY, "writing"},
               {kernel::FO_RDWR, "reading and writing"}};
  for (const auto& t : table) {
    EXPECT_EQ(open(t.flags), nullptr);
    EXPECT_TRUE(
        said("zorv_fopen(): Failed to open file " + path + " for " + t.word + ": errno=-2"));
  }
  EXPECT_EQ(zorv_ftruncate(path.c_str()), 0);
  EXPECT_TRUE(log.has("zorv_fopen(): Failed to open file "));
  for (u64 nth = 1; nth <= 2; nth++) {  // the handle, the copy of its path
    log.clear();
    kernel::fault_arm(fault_site::alloc, nth, 1, ENOMEM);
    EXPECT_EQ(open(), nullptr);
    EXPECT_TRUE(said("zorv_fopen(): Memory allocation failed."));
  }
  kernel::fault_disarm_all();
  log.clear();

  const zorv_file_ptr f = open();
  char c[4] = {};
  kernel::fault_arm(fault_site::file_write, 1, 1, ENOSPC);
  EXPECT_EQ(zorv_fwrite(f.get(), 0, c, 4), -ENOSPC);
  EXPECT_TRUE(said("zorv_fwrite(): Failed to write 4 bytes into " + path + ": rc=-28"));
  kernel::fault_arm(fault_site::file_read, 1, 1, EIO);
  EXPECT_EQ(zorv_fread(f.get(), 0, c, 4), -EIO);
  EXPECT_TRUE(said("zorv_fread(): Failed to read 4 bytes from " + path + ": rc=-5"));
  EXPECT_EQ(zorv_fwrite(nullptr, 0, c, 4), -EINVAL);
  EXPECT_TRUE(said("zorv_fwrite(): NULL or invalid file pointer passed as input!"));
  EXPECT_EQ(zorv_fread(nullptr, 0, c, 4), -EINVAL);
  EXPECT_TRUE(said("zorv_fread(): NULL or invalid file pointer passed as input!"));
}

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

TEST_F(file_test, device_nodes_come_and_go) {
  ASSERT_EQ(zorv_mknod("/dev/zorv/t", 1, 100, 3), 0);
  EXPECT_EQ(kernel::namespace_find("/dev/zorv/t"), kernel::mkdev(100, 3));
  EXPECT_EQ(zorv_mknod("/dev/zorv/t", 1, 100, 3), -EEXIST);
  EXPECT_TRUE(said("zorv_mknod(): Failed to mknod /dev/zorv/t: rc=-17"));
  EXPECT_EQ(zorv_unlink("/dev/zorv/t"), 0);
  EXPECT_EQ(zorv_unlink("/dev/zorv/t"), -ENOENT);
  EXPECT_EQ(log.errors(), "") << "a missing name is no news";
  EXPECT_EQ(zorv_mknod("/dev/zorv/..", 1, 100, 3), -EEXIST);
  EXPECT_TRUE(said("zorv_mknod(): Failed to lookup /dev/zorv/..: rc=-17"));
  EXPECT_EQ(zorv_mknod("/dev/zorv/t/", 1, 100, 3), -ENOENT);
  EXPECT_TRUE(said("zorv_mknod(): Failed to lookup /dev/zorv/t/: rc=-2"));
  EXPECT_EQ(zorv_unlink("/dev/zorv/no/t"), -ENOENT);
  EXPECT_TRUE(said("zorv_unlink(): Failed to lookup parent of /dev/zorv/no/t: rc=-2"));

  write_file(path, {1});
  kernel::fault_arm(fault_site::file_unlink, 1, 1, EBUSY);
  EXPECT_EQ(zorv_unlink(path.c_str()), -EBUSY);
  EXPECT_TRUE(said("zorv_unlink(): Failed to unlink " + path + ": rc=-16"));
  EXPECT_EQ(zorv_unlink(path.c_str()), 0);
  EXPECT_TRUE(read_file(path).empty());
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
