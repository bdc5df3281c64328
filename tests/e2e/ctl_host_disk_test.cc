// SPDX-License-Identifier: GPL-2.0-only
// Block devices of the host behind a filter. Loop devices stand for them where this machine lets
// us have some; the cases that need one say so and check the refusals of a host without.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "support/daemon.h"

using namespace zorv_test;
using testing::HasSubstr;

namespace {

class loop_device {
 public:
  explicit loop_device(const std::string& image, const std::vector<std::string>& options = {}) {
    std::vector<std::string> argv = {"losetup", "--find", "--show", image};
    argv.insert(argv.end(), options.begin(), options.end());
    const program_result r = run_program(argv);
    if (r.status == 0) path_ = r.out.substr(0, r.out.find('\n'));
    std::cout << (path_.empty() ? "no loop devices here: refusals only\n"
                                : "host block device: " + path_ + "\n");
  }
  ~loop_device() {
    if (!path_.empty()) EXPECT_EQ(run_program({"losetup", "--detach", path_}).status, 0);
  }
  loop_device(const loop_device&) = delete;
  loop_device& operator=(const loop_device&) = delete;
  [[nodiscard]] bool there() const { return !path_.empty(); }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

class mount_point {
 public:
  mount_point(const std::string& device, std::string dir) : dir_(std::move(dir)) {
    there_ = run_program({"mount", device, dir_}).status == 0;
    std::cout << (there_ ? "mounted\n" : "no mounting here: nothing to refuse\n");
  }
  ~mount_point() {
    if (there_) EXPECT_EQ(run_program({"umount", dir_}).status, 0);
  }
  mount_point(const mount_point&) = delete;
  mount_point& operator=(const mount_point&) = delete;
  [[nodiscard]] bool there() const { return there_; }

 private:
  std::string dir_;
  bool there_ = false;
};

// Opens alone, as a mount would; -1 while somebody else has it.
int open_alone(const std::string& path) { return ::open(path.c_str(), O_RDWR | O_EXCL); }

struct ctl_host_disk : testing::Test {
  temp_dir dir;
  daemon_process d;
  program_result add(const std::string& device) {
    return d.ctl(
        {"add-filter", device, "--extent-size", "64K", "--bmp-dir", dir.path(), "--name", "data"});
  }
};

}  // namespace

TEST_F(ctl_host_disk, is_held_while_a_node_stands_over_it) {
  EXPECT_THAT(add("/dev/null").err, HasSubstr("/dev/null is not a block device."));
  EXPECT_THAT(add(dir / "none").err, HasSubstr("Unable to lookup"));
  make_image(dir / "disk.img", 8 << 20);
  const loop_device loop(dir / "disk.img");
  if (!loop.there()) return;

  ASSERT_EQ(add(loop.path()).status, 0) << d.log();
  EXPECT_EQ(open_alone(loop.path()), -1) << "the disk is ours";
  EXPECT_EQ(d.ctl_json({"info", "data"}).at("dev_size"), 8 << 20);
  d.must({"start", "data"});
  d.must({"bmp", "clear", "data", "incr"});
  const auto io = run_program(
      {"qemu-io", "-f", "raw", "-c", "write -q -P 90 1M 4k", "-c", "flush", d.uri("data")});
  EXPECT_EQ(io.status, 0) << io.out << io.err;
  EXPECT_EQ(read_file(dir / "disk.img")[(1 << 20) + 17], 90);
  EXPECT_THAT(d.must({"bmp", "show", "data", "incr"}), HasSubstr("1048576 65536\n"));
  EXPECT_THAT(d.ctl({"attach", dir / "disk.img"}).err, HasSubstr(loop.path() + "'s file"));
  d.must({"stop", "data"});
  d.must({"del", "data"});
  EXPECT_THAT(d.ctl({"attach", dir / "disk.img"}).err,
              HasSubstr("open for writing elsewhere: by " + loop.path()));
  const int fd = open_alone(loop.path());
  EXPECT_GE(fd, 0) << "the disk is free again";

  EXPECT_THAT(add(loop.path()).err, HasSubstr("Can't attach to an open HDD device"));
  ::close(fd);
  const int beside = ::open(loop.path().c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_THAT(add(loop.path()).err, HasSubstr("Can't attach to an open HDD device"));
  ::close(beside);
  make_image(dir / "fixed.img", 8 << 20);
  const loop_device fixed(dir / "fixed.img", {"--read-only"});
  ASSERT_TRUE(fixed.there());
  EXPECT_THAT(add(fixed.path()).err, HasSubstr("Unable to open HDD device"));
  EXPECT_EQ(d.end(SIGTERM), 0);
}

TEST_F(ctl_host_disk, mounted_ones_are_refused) {
  make_image(dir / "disk.img", 8 << 20);
  const loop_device loop(dir / "disk.img");
  if (!loop.there()) return;
  ASSERT_EQ(run_program({"mke2fs", "-q", loop.path()}).status, 0);
  ASSERT_EQ(::mkdir((dir / "mnt").c_str(), 0700), 0);
  {
    const mount_point mnt(loop.path(), dir / "mnt");
    if (!mnt.there()) return;
    EXPECT_THAT(add(loop.path()).err, HasSubstr("Can't attach to mounted HDD device"));
    EXPECT_THAT(d.ctl({"datablock", "test", loop.path()}).err, HasSubstr("mounted"));
  }
  EXPECT_EQ(add(loop.path()).status, 0) << d.log();
  EXPECT_EQ(d.end(SIGTERM), 0);
}

TEST_F(ctl_host_disk, one_disk_by_two_ways_is_one_disk) {
  make_image(dir / "disk.img", 8 << 20);
  const auto use = [this](const std::string& disk, const char* write) {
    EXPECT_EQ(add(disk).status, 0) << d.log();
    d.must({"start", "data"});
    if (std::string(write).empty()) d.must({"bmp", "clear", "data", "incr"});
    const auto io =
        run_program({"qemu-io", "-f", "raw", "-c", write, "-c", "flush", d.uri("data")});
    EXPECT_EQ(io.status, 0) << io.out << io.err;
    d.must({"stop", "data"});
    std::string changed = d.must({"bmp", "show", "data", "incr"});
    d.must({"del", "data"});
    return changed;
  };
  d.must({"attach", dir / "disk.img"});
  use("/dev/image/disk", "");
  d.must({"detach", "disk"});
  const loop_device first(dir / "disk.img");
  if (!first.there()) return;
  EXPECT_THAT(use(first.path(), "write -q 1M 4k"), HasSubstr("1048576 65536\ntotal 65536 of"));
  ASSERT_EQ(add(first.path()).status, 0) << d.log();
  const std::string name = dir / "other.name";
  std::filesystem::create_hard_link(dir / "disk.img", name);
  const loop_device again(name, {"--offset", "1M"}), nested(first.path(), {"--offset", "1M"});
  ASSERT_TRUE(again.there() && nested.there());
  for (const loop_device* other : {&again, &nested}) {
    const auto r = d.ctl({"add-filter", other->path(), "--extent-size", "64K", "--bmp-dir",
                          dir.path(), "--name", "other"});
    EXPECT_THAT(r.err, HasSubstr("Can't attach to an open HDD device")) << other->path();
  }
  EXPECT_THAT(d.ctl({"attach", name}).err, HasSubstr(first.path() + "'s file"));
  EXPECT_EQ(d.end(SIGTERM), 0);
}
