// SPDX-License-Identifier: GPL-2.0-only
// Files and names: where a path leads, what a power cut leaves.
#include "kernel/fs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <random>

#include "doubles/fault.h"
#include "kernel/fs_internal.h"
#include "support/driver_fixture.h"

using namespace kernel;
using zorv_test::bytes;
using zorv_test::temp_dir;

namespace {

int look_up(const std::string& path, u32 flags = 0) {
  nameidata nd;
  const int rc = path_lookup(path.c_str(), flags, &nd);
  if (rc == 0) path_put(&nd);
  return rc;
}

int make_node(const std::string& dir, const std::string& name, devt dev) {
  nameidata nd;
  EXPECT_EQ(path_lookup((dir + "/" + name).c_str(), LOOKUP_PARENT, &nd), 0);
  dentry* entry = lookup_one_len(name.c_str(), nd.path, name.size());
  const int rc = vfs_mknod(nd.path, entry, S_IFBLK_ | 0600, dev);
  dput(entry);
  path_put(&nd);
  return rc;
}

int remove_name(const std::string& path) {
  nameidata nd;
  EXPECT_EQ(path_lookup(path.c_str(), LOOKUP_PARENT, &nd), 0);
  dentry* entry = lookup_one_len(nd.last.c_str(), nd.path, nd.last.size());
  const int rc = vfs_unlink(nd.path, entry);
  dput(entry);
  path_put(&nd);
  return rc;
}

// A file of the layer for one scope.
struct open_file {
  open_file(const std::string& path, u32 flags) : f(filp_open(path.c_str(), flags, 0600)) {
    EXPECT_FALSE(is_err(f)) << path << ": " << ptr_err(f);
  }
  ~open_file() { EXPECT_EQ(filp_close(f), 0); }
  void write(u64 offset, const bytes& data) const {
    auto pos = static_cast<s64>(offset);
    EXPECT_EQ(vfs_write(f, data.data(), data.size(), &pos), static_cast<s64>(data.size()));
    EXPECT_EQ(pos, static_cast<s64>(offset + data.size()));
  }
  file* f;
};

void put_file(const std::string& path, const bytes& data) {
  open_file f(path, FO_RDWR | FO_CREAT | FO_TRUNC);
  f.write(0, data);
}

}  // namespace

TEST(fs, namespace_paths_are_found_however_they_are_spelled) {
  ASSERT_EQ(make_node("/dev/zorv", "n1", mkdev(100, 7)), 0);
  const struct {
    const char* path;
    int rc;
  } table[] = {
      {"/dev/zorv/n1", 0},
      {"//dev/./zorv//n1", 0},
      {"/dev/image/../zorv/n1", 0},
      {"/dev/zorv", 0},
      {"/dev/zorv/", 0},
      {"/dev/zorv/n1/", -ENOTDIR},
      {"/dev/zorv/n1/x", -ENOTDIR},
      {"/dev/zorv/n2", -ENOENT},
      {"/dev/zorv/n2/x", -ENOENT},
      {"/dev/image/n1", -ENOENT},
      {"/dev/zorvx", -ENOENT},
      {"", -ENOENT},
  };
  for (const auto& t : table) EXPECT_EQ(look_up(t.path), t.rc) << t.path;
  EXPECT_EQ(look_up("/" + std::string(5000, 'a')), -ENAMETOOLONG);

  nameidata nd;
  ASSERT_EQ(path_lookup("/dev/zorv/n1", LOOKUP_FOLLOW, &nd), 0);
  EXPECT_TRUE(s_isblk(nd.path->d_inode()->i_mode));
  EXPECT_EQ(nd.path->d_inode()->i_rdev, mkdev(100, 7));
  EXPECT_EQ(nd.path->d_fs_dev, 0U);
  path_put(&nd);
  EXPECT_EQ(ptr_err(filp_open("/dev/zorv/n1", FO_RDWR, 0)), -ENXIO);

  EXPECT_EQ(make_node("/dev/zorv", "n1", mkdev(100, 8)), -EEXIST);
  EXPECT_EQ(remove_name("/dev/zorv/n1"), 0);
  EXPECT_EQ(remove_name("/dev/zorv/n1"), -ENOENT);
  EXPECT_EQ(look_up("/dev/zorv/n1"), -ENOENT);
}

TEST(fs, host_paths_show_the_hosts_inode_and_device) {
  temp_dir dir;
  put_file(dir / "file", bytes(5, 1));
  EXPECT_EQ(look_up(dir / "file/x", LOOKUP_PARENT), -ENOTDIR);
  EXPECT_EQ(make_node(dir.path(), "node", mkdev(1, 1)), -EPERM) << "the host's take no nodes";
  ASSERT_EQ(::symlink("/proc/self/stat", (dir / "link").c_str()), 0);
  struct stat st;
  ASSERT_EQ(::stat((dir / "file").c_str(), &st), 0);
  nameidata nd;
  ASSERT_EQ(path_lookup((dir / "file").c_str(), 0, &nd), 0);
  EXPECT_EQ(nd.path->d_inode()->i_size, 5U);
  EXPECT_EQ(nd.path->d_inode()->i_ino, st.st_ino);
  const devt fs_dev = nd.path->d_fs_dev;
  if (major(st.st_dev) != 0) {
    EXPECT_EQ(fs_dev, mkdev(major(st.st_dev), minor(st.st_dev)));
  }
  path_put(&nd);

  // The link lives here, what it leads to lives on no device at all.
  EXPECT_EQ(fs_device_of((dir / "link").c_str(), false), fs_dev);
  EXPECT_EQ(fs_device_of((dir / "link").c_str(), true), 0U);

  set_fs_device_resolver([](u32, u32) { return mkdev(100, 3); });
  EXPECT_EQ(fs_device_of((dir / "file").c_str(), true), fs_dev == 0 ? 0 : mkdev(100, 3));
  EXPECT_EQ(fs_device_of("/proc", true), 0U) << "nothing to resolve";
  set_fs_device_resolver(nullptr);
}

TEST(fs, a_fifo_in_place_of_a_file_holds_nobody) {
  temp_dir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  for (const u32 flags : {FO_RDONLY, FO_WRONLY, FO_RDWR}) {
    EXPECT_EQ(ptr_err(filp_open((dir / "fifo").c_str(), flags, 0)), -ENXIO);
  }
}

TEST(fs, writes_at_once_all_reach_the_file) {
  const std::unique_ptr<file_writes, void (*)(file_writes*)> writes(file_writes_alloc(),
                                                                    file_writes_free);
  std::size_t failed = 1;
  for (const u32 flags : {FO_RDWR, FO_RDWR | FO_SYNC}) {
    temp_dir dir;
    const std::string path = dir / "file";
    put_file(path, {0});
    open_file f(path, flags);
    // Two hundred pages, every second one begun, now and then a few bytes more or less.
    bytes want(200 * 2 * page_size), memory(want.size() + page_size);
    const auto aligned = reinterpret_cast<std::uintptr_t>(memory.data()) % page_size;
    u8* pages = memory.data() + (aligned == 0 ? 0 : page_size - aligned);
    for (std::size_t at = 0; at < want.size(); at += 2 * page_size) {
      const std::size_t i = at / page_size;
      const std::size_t skip = i % 14 == 6 ? 512 : 0,
                        n = page_size + (i % 10 == 8 ? 100 : 0) - skip;
      for (std::size_t k = at + skip; k < at + skip + n; ++k) {
        want[k] = pages[k] = static_cast<u8>(k * 7 + i);
      }
      vfs_begin_write(writes.get(), f.f, pages + at + skip, n, at + skip);
      // The host's cache meets what is not there yet.
      if (i % 20 == 0) EXPECT_LE(zorv_test::read_file(path).size(), want.size());
    }
    EXPECT_EQ(vfs_end_writes(writes.get(), f.f, &failed), 0);
    want.resize(std::filesystem::file_size(path));
    EXPECT_TRUE(zorv_test::read_file(path) == want) << flags;
    const int direct = ::open(path.c_str(), O_RDWR | O_DIRECT);
    EXPECT_EQ(f.f->direct.load() >= 0, direct >= 0) << "it goes past the cache where it can";
    ::close(direct);

    fault_arm(fault_site::file_write, 2, 1, EIO);
    for (const u64 at : {0, 4096, 8192}) {
      vfs_begin_write(writes.get(), f.f, pages, at == 4096 ? 100 : 4096, at);
    }
    EXPECT_EQ(vfs_end_writes(writes.get(), f.f, &failed), -EIO);
    EXPECT_EQ(failed, 100U);
    EXPECT_EQ(vfs_end_writes(writes.get(), f.f, &failed), 0) << "told once";

    open_file reader(path, FO_RDONLY);
    vfs_begin_write(writes.get(), reader.f, pages, 4096, 0);
    EXPECT_EQ(vfs_end_writes(writes.get(), reader.f, &failed), -EBADF);

    fault_record_unsynced_begin();
    bytes(4096, 0xcc).swap(want);
    vfs_begin_write(writes.get(), f.f, want.data(), want.size(), 0);
    EXPECT_EQ(vfs_end_writes(writes.get(), f.f, &failed), 0);
    fault_power_cut();
    fault_record_unsynced_end();
    const bool kept = zorv_test::read_file(path)[0] == 0xcc;
    EXPECT_EQ(kept, (flags & FO_SYNC) != 0);
  }
}

TEST(power_cut, leaves_what_was_synced_of_a_file) {
  const u32 seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  temp_dir dir;
  const std::string path = dir / "file";
  put_file(path, bytes(9000, 0x55));
  const auto apply = [](bytes* to, u64 at, const bytes& data) {
    to->resize(std::max<std::size_t>(to->size(), at + data.size()));
    std::copy(data.begin(), data.end(), to->begin() + static_cast<long>(at));
  };
  for (int round = 0; round < 40; round++) {
    bytes durable = zorv_test::read_file(path), now = durable;
    fault_record_unsynced_begin();
    {
      open_file plain(path, FO_RDWR), synced(path, FO_RDWR | FO_SYNC);
      for (int step = 0; step < 25; step++) {
        const u32 what = random() % 8;
        const u64 at = random() % 20000;
        const bytes data(random() % 6000 + 1, static_cast<u8>(random()));
        if (what == 0) {
          EXPECT_EQ(vfs_fsync(plain.f), 0);
          durable = now;
        } else if (what == 1) {
          open_file(path, FO_RDWR | FO_TRUNC);
          now.clear();
        } else {
          (what < 4 ? synced : plain).write(at, data);
          apply(&now, at, data);
          if (what < 4) apply(&durable, at, data);
        }
      }
      EXPECT_EQ(zorv_test::read_file(path), now);
      fault_power_cut();
    }
    fault_record_unsynced_end();
    ASSERT_EQ(zorv_test::read_file(path), durable) << "round " << round;
  }
}

TEST(power_cut, leaves_the_names_that_their_directory_had) {
  temp_dir dir;
  put_file(dir / "old", bytes(5000, 1));
  put_file(dir / "older", {2});
  fault_record_unsynced_begin();
  put_file(dir / "kept", {3});
  EXPECT_EQ(remove_name(dir / "older"), 0);
  fault_arm(fault_site::file_sync, 1, 1, EIO);
  EXPECT_EQ(fs_sync_parent((dir / "kept").c_str()), -EIO);
  EXPECT_EQ(fs_sync_parent((dir / "kept").c_str()), 0);
  put_file(dir / "new", {4});
  {
    open_file f(dir / "new", FO_RDWR);
    EXPECT_EQ(vfs_fsync(f.f), 0) << "the file is synced, its name is not";
  }
  EXPECT_EQ(remove_name(dir / "old"), 0);
  put_file(dir / "old", {9});
  fault_power_cut();
  fault_record_unsynced_end();

  EXPECT_FALSE(std::filesystem::exists(dir / "new"));
  EXPECT_FALSE(std::filesystem::exists(dir / "older"));
  EXPECT_EQ(zorv_test::read_file(dir / "old"), bytes(5000, 1));
  ASSERT_TRUE(std::filesystem::exists(dir / "kept"));
  EXPECT_EQ(zorv_test::read_file(dir / "kept"), bytes{}) << "its contents were not synced";
}
