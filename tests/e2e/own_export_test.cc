// SPDX-License-Identifier: GPL-2.0-only
// A file system on one of our own exports is no place for files that the exports' requests wait
// for.
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>

#include "support/daemon.h"

using namespace zorv_test;
using testing::HasSubstr;

namespace {

// The export as a file (nbdfuse), a loop device over it, a file system on that, mounted. What is
// missing on this machine is said.
class mounted_export {
 public:
  mounted_export(const temp_dir& dir, const std::string& uri)
      : fuse_(dir / "fuse"), mnt_(dir / "mnt") {
    std::filesystem::create_directory(fuse_);
    std::filesystem::create_directory(mnt_);
    missing_ = try_all(dir, uri);
  }
  ~mounted_export() {
    if (mounted_) EXPECT_EQ(run_program({"umount", mnt_}).status, 0);
    if (!loop_.empty()) EXPECT_EQ(run_program({"losetup", "-d", loop_}).status, 0);
    if (served_) EXPECT_EQ(run_program({"umount", fuse_}).status, 0);
  }
  [[nodiscard]] const std::string& missing() const { return missing_; }
  [[nodiscard]] const std::string& path() const { return mnt_; }

 private:
  std::string try_all(const temp_dir& dir, const std::string& uri) {
    if (::geteuid() != 0) return "not root: no loop devices and no mounting";
    if (!std::filesystem::exists("/dev/fuse")) return "no FUSE here";
    const std::string pidfile = dir / "nbdfuse.pid";
    // In the background; it ends when its mount point goes.
    (void)run_program(
        {"sh", "-c",
         "nbdfuse -P '" + pidfile + "' '" + fuse_ + "' '" + uri + "' >/dev/null 2>&1 &"});
    served_ = eventually([&] { return std::filesystem::exists(pidfile); });
    if (!served_) return "nbdfuse serves nothing";
    const program_result r = run_program({"losetup", "-f", "--show", fuse_ + "/nbd"});
    if (r.status != 0) return "no loop devices: " + r.err;
    loop_ = r.out.substr(0, r.out.find('\n'));
    const program_result made = run_program({"mke2fs", "-q", "-t", "ext4", loop_});
    mounted_ = made.status == 0 && run_program({"mount", loop_, mnt_}).status == 0;
    return mounted_ ? "" : "no mounting: " + made.err;
  }

  std::string fuse_, mnt_, loop_, missing_;
  bool served_ = false, mounted_ = false;
};

TEST(own_export, files_that_requests_wait_for_are_refused_on_it) {
  temp_dir dir;
  make_image(dir / "a.img", 64 << 20);
  make_image(dir / "b.img", 64 << 20);
  daemon_process d({"--disk", dir / "a.img,name=a", "--disk", dir / "b.img,name=b"}, dir / "run");
  ASSERT_TRUE(d.serving()) << d.log();
  d.must({"add-filter", "a", "--extent-size", "64K", "--bmp-dir", dir.path(), "--name", "data"});
  d.must({"start", "data"});
  const mounted_export mounted(dir, d.uri("data"));
  if (!mounted.missing().empty()) GTEST_SKIP() << mounted.missing();
  const program_result snap =
      d.ctl({"add-snap", "data", "--chunk-size", "64K", "--cow-dir", mounted.path()});
  EXPECT_EQ(snap.status, 1);
  EXPECT_THAT(snap.err, HasSubstr("can't be on the partition being snapped"));
  const program_result filter = d.ctl(
      {"add-filter", "b", "--extent-size", "64K", "--bmp-dir", mounted.path(), "--name", "other"});
  EXPECT_EQ(filter.status, 1);
  EXPECT_THAT(filter.err, HasSubstr("can't be on zorv("));
  d.must({"add-snap", "data", "--chunk-size", "64K", "--cow-dir", dir.path()});
}

}  // namespace
