// SPDX-License-Identifier: GPL-2.0-only
// Whose bitmap files these are: of which disk, and of which node and daemon.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "kernel/state.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;
namespace fs = std::filesystem;

namespace {

constexpr u32 incr = ZORV_BMP_INCREMENTAL;
const bytes stale{'Z', 'O', 'R', 'V', 'B', 'M', 'P', 1};

struct companion_test : driver_test {
  std::optional<memory_disk> disk;
  const std::string file = dir / "zorv0.incr";

  void SetUp() override {
    driver_test::SetUp();
    disk.emplace("d0", 1 << 20);
    ASSERT_EQ(add_started_filter(disk->path()), 0U);
  }
  void TearDown() override {
    unload();
    driver_test::TearDown();
  }
  // The next life of the node, over whatever disk there is.
  std::vector<u32> after_add_again(u32 extent_size = 65536) {
    EXPECT_EQ(del(0), 0);
    log.clear();
    EXPECT_EQ(add_filter(disk->path(), {.extent_size = extent_size, .minor = 0}), 0U);
    return changed(0, incr);
  }
};

}  // namespace

TEST_F(companion_test, a_bitmap_is_believed_for_its_disk_extents_and_state_folder_alone) {
  EXPECT_TRUE(after_add_again().empty());
  fs::copy(dir.path(), dir / "copy");
  EXPECT_EQ(del(0), 0);
  add_filter(disk->path(), {.minor = 0, .bmp_dir = dir / "copy"});
  EXPECT_EQ(changed(0, incr).size(), 16U) << "of a copy nobody knows from when it is";
  EXPECT_EQ(del(0), 0);
  add_filter(disk->path(), {.minor = 0});
  EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
  const struct {
    u64 disk_bytes;
    u32 extent_size;
    std::string identity, state, reason;
  } table[] = {
      {1 << 20, 65536, "another", "zorv", "it is of another disk"},
      {1 << 20, 65536, "", "zorv", "the disk has nothing stable to name it by"},
      {(1 << 20) - 65536, 65536, "memory:d0", "zorv", "the disk has another size"},
      {1 << 20, 131072, "memory:d0", "zorv", "the extents have another size"},
      {1 << 20, 65536, "memory:d0", "elsewhere", "another state folder was in use"},
  };
  constexpr auto as_it_is = fs::copy_options::recursive | fs::copy_options::copy_symlinks;
  fs::copy(state / "zorv", state / "elsewhere", as_it_is);
  for (const auto& row : table) {
    EXPECT_EQ(del(0), 0);
    disk.emplace("d0", row.disk_bytes);
    disk->set_identity(row.identity);
    ASSERT_EQ(kernel::state_set_dir((state / row.state).c_str()), 0);
    log.clear();
    add_filter(disk->path(), {.extent_size = row.extent_size, .minor = 0});
    EXPECT_EQ(changed(0, incr).size(), info(0).extent_cnt) << row.reason;
    EXPECT_TRUE(log.has("zorv0.disk: " + row.reason)) << row.reason;
    EXPECT_NE(proc("zorv/zorv0/bmp_trouble").find(row.reason), std::string::npos);
    // The file is still right about its own disk, unless that has been in use without it.
    EXPECT_EQ(del(0), 0);
    disk.emplace("d0", 1 << 20);
    ASSERT_EQ(kernel::state_set_dir((state / "zorv").c_str()), 0);
    add_filter(disk->path(), {.minor = 0});
    const bool in_use =
        (row.identity == "memory:d0" || row.identity.empty()) && row.state == "zorv";
    EXPECT_EQ(changed(0, incr).empty(), !in_use) << row.reason;
    EXPECT_EQ(log.has("other bitmap files have been in use for the disk since"), in_use);
    EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
  }
  EXPECT_EQ(del(0), 0);
  disk->set_identity("another");
  add_started_filter(disk->path(), {.minor = 0});
  disk->set_identity("memory:d0");
  EXPECT_EQ(stop(0), 0);
  EXPECT_EQ(after_add_again().size(), 16U) << "the files have become another disk's";
  EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
  fs::remove(dir / "zorv0.disk");
  EXPECT_EQ(after_add_again().size(), 16U);
  EXPECT_TRUE(proc("zorv/zorv0/bmp_trouble").find("zorv0.disk: it is missing") < 99);
  EXPECT_EQ(start(0), 0);
  add_started_filter("/dev/zorv/zorv0", {.minor = 1});
  EXPECT_EQ(stop(1) | del(1), 0);
  EXPECT_EQ(client(0U).fill(65536, 512, 1), 0) << "while no filter stands over it";
  add_filter("/dev/zorv/zorv0", {.minor = 1});
  EXPECT_EQ(changed(1, incr).size(), 16U);
}

TEST_F(companion_test, one_daemon_and_no_other_file_stands_behind_the_names) {
  EXPECT_EQ(del(0), 0);
  const int other = ::open((dir / "zorv0.disk").c_str(), O_RDWR);
  struct flock whole {};
  whole.l_type = F_WRLCK;
  ASSERT_EQ(::fcntl(other, F_OFD_SETLK, &whole), 0);
  auto req = filter_request(disk->path(), {.minor = 0, .bmp_dir = dir.path()});
  EXPECT_EQ(command(ZORV_ADD_FILTER_NODE, &req), -EBUSY);
  ::close(other);

  const bytes mine(600, 'm');
  for (const char* suffix : {"incr", "diff", "disk"}) {
    const std::string theirs = dir / "zorv9." + suffix;
    write_file(theirs, mine);
    add_started_filter(disk->path(), {.minor = 9});
    EXPECT_EQ(client(9U).fill(0, 512, 1), 0);
    EXPECT_EQ(bmp(ZORV_SAVE_BMP, 9, incr) != 0, suffix != std::string("diff"));
    EXPECT_EQ(log.has(theirs + " holds something that is not ours"), true) << suffix;
    fs::rename(theirs, theirs + ".away");  // as the log advises
    EXPECT_EQ(bmp(ZORV_SAVE_BMP, 9, incr), 0) << suffix;
    EXPECT_EQ(stop(9) | del(9), 0);
    EXPECT_EQ(read_file(theirs + ".away"), mine) << suffix;
  }
  write_file(dir / "mine", mine);
  fs::remove(file);
  fs::create_symlink(dir / "mine", file);
  add_filter(disk->path(), {.minor = 0});
  EXPECT_NE(bmp(ZORV_SAVE_BMP, 0, incr), 0);
  fs::remove(file);
  fs::create_hard_link(dir / "zorv0.diff", file);
  const bytes diff = read_file(file);
  EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, incr), -EBUSY);
  EXPECT_EQ(read_file(dir / "mine"), mine);
  EXPECT_EQ(read_file(file), diff);
  fs::remove(file);
  EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, incr), 0);
}

TEST_F(companion_test, one_that_cannot_be_opened_holds_up_no_write) {
  const fs::path name = dir / "zorv0.disk";
  const std::function<void()> table[] = {
      [&] { fs::create_symlink(dir / "away", name); },
      [&] { fs::create_directory(name); },
  };
  for (const auto& comes : table) {
    for (const bool while_it_runs : {false, true}) {
      EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
      if (!while_it_runs) EXPECT_EQ(del(0), 0);
      fs::rename(name, dir / "away");
      comes();
      log.clear();
      if (!while_it_runs) EXPECT_EQ(add_filter(disk->path(), {.minor = 0}) | start(0), 0U);
      {
        client c(0U);
        for (const u64 extent : {7, 8}) EXPECT_EQ(c.fill(extent * 65536, 512, 1), 0);
      }
      EXPECT_EQ(log.count("zorv_companion_attach(): Everything counts as changed"), 1);
      EXPECT_EQ(del(0), 0);
      fs::remove(name);
      fs::rename(dir / "away", name);
      add_filter(disk->path(), {.minor = 0});
      EXPECT_EQ(changed(0, incr).size(), 16U);
      EXPECT_EQ(start(0), 0);
    }
  }
}

TEST_F(companion_test, a_file_that_takes_the_name_is_marked_before_the_next_write_goes) {
  fs::copy_file(file, dir / "copy");
  fs::rename(file, dir / "aside");
  fs::rename(dir / "copy", file);
  client c(0U);
  EXPECT_EQ(c.fill(65536, 512, 1), 0);
  EXPECT_EQ(read_file(file), stale);
  EXPECT_EQ(read_file(dir / "aside"), stale) << "it may come back";
}
