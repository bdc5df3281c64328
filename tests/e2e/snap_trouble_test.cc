// SPDX-License-Identifier: GPL-2.0-only
// Snapshots under their readers, and COW files that cannot be written.
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>

#include "e2e/snap_fixture.h"

using namespace zorv_test;
using testing::HasSubstr;

namespace {

class snap_trouble : public snap_e2e {
 protected:
  static constexpr u64 disk_bytes = 4 * MiB;

  void SetUp() override {
    original = make_random_file(dir / "disk.raw", disk_bytes, 1);
    serve(dir / "disk.raw");
  }
  // Overwrites [offset, end) by pieces; no client of the filter may see an error.
  void overwrite(u64 offset, u64 end, u8 with) {
    node_client client(*d, "disk");
    for (const u64 piece = 96 * KiB; offset < end; offset += piece) {
      EXPECT_EQ(client.write(offset, bytes(std::min(piece, end - offset), with)), 0U);
    }
  }
  void expect_invalid(const std::string& snap) {
    SCOPED_TRACE(snap);
    EXPECT_EQ(info(snap).at("snap_valid"), 0);
    EXPECT_THAT(d->must({"list"}), testing::ContainsRegex(snap + " +snap +INVALID"));
    EXPECT_THAT(d->log(), HasSubstr("Invalidating snap device zorv(100, " +
                                    info(snap).at("minor").dump() + ")"));
    EXPECT_EQ(node_client(*d, snap).read(0, 4096).error, wire::eio);
  }
  bytes original;
};

TEST_F(snap_trouble, a_snap_is_not_stopped_under_its_reader) {
  take_snap("old");
  overwrite(0, MiB, 1);
  take_snap("new");
  overwrite(0, disk_bytes, 2);
  {
    node_client reader(*d, "new");
    for (const char* command : {"stop", "del"}) {
      EXPECT_THAT(d->ctl({command, "new"}).err, HasSubstr("EBUSY"));
    }
    bytes shown(MiB, 1);
    shown.insert(shown.end(), original.begin() + MiB, original.end());
    EXPECT_TRUE(reader.read(0, disk_bytes).data == shown);
    EXPECT_EQ(reader.write(0, bytes(4096)), wire::eperm);
  }
  d->must({"del", "new"});
  EXPECT_EQ(info("new").at("del_pending"), 1);
  EXPECT_EQ(node_client(*d, "new").read(0, 4096).error, wire::eio) << "it only serves the older";
  EXPECT_TRUE(show("old") == original);
  d->must({"del", "old"});
  EXPECT_TRUE(d->ctl_json({"list", "snap"}).empty());
}

// A file system that is too small for the copies, mounted for this test and gone with it; or,
// where nothing can be mounted, a file size that the daemon may not exceed.
class small_space {
 public:
  explicit small_space(const temp_dir& dir) : at_(dir / "small") {
    std::filesystem::create_directory(at_);
    make_image(dir / "small.img", 3 * MiB);
    const std::string image = dir / "small.img";
    mounted_ =
        run_program({"mke2fs", "-q", "-F", "-t", "ext4", "-O", "^has_journal", image}).status ==
            0 &&
        ::unshare(CLONE_NEWNS) == 0 &&
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        run_program({"mount", "-o", "loop", image, at_}).status == 0;
    std::printf("full by %s\n", mounted_ ? "a small ext4" : "RLIMIT_FSIZE");
  }
  ~small_space() {
    if (mounted_) ::umount2(at_.c_str(), MNT_DETACH);
  }
  [[nodiscard]] const std::string& path() const { return at_; }
  // From now on the copies of the last chunks do not fit.
  void fill(pid_t daemon, u64 limit_bytes) const {
    if (mounted_) return;
    const rlimit limit{limit_bytes, limit_bytes};
    EXPECT_EQ(::prlimit(daemon, RLIMIT_FSIZE, &limit, nullptr), 0);
  }

 private:
  const std::string at_;
  bool mounted_ = false;
};

TEST_F(snap_trouble, a_full_cow_file_system_costs_the_snapshot_and_nothing_else) {
  ASSERT_EQ(d->end(SIGTERM), 0);
  const small_space small(dir);
  serve(dir / "disk.raw");
  take_snap("old");
  take_snap("full", small.path());
  // With a limit to the file size, only the end of the last chunk is beyond it.
  small.fill(d->pid(), disk_bytes - 4 * KiB);
  overwrite(0, disk_bytes - 8 * KiB, 1);
  expect_invalid("full");
  expect_invalid("old");
  bytes now(disk_bytes - 8 * KiB, 1);
  now.insert(now.end(), original.end() - 8 * KiB, original.end());
  EXPECT_TRUE(show("disk") == now);
  d->must({"del", "old"});
  d->must({"del", "full"});
  take_snap("fresh");
  overwrite(0, MiB, 2);
  EXPECT_TRUE(show("fresh") == now);
}

TEST_F(snap_trouble, a_cow_directory_that_vanishes_costs_the_snapshot_and_nothing_else) {
  std::filesystem::create_directory(dir / "cow");
  take_snap("snap", dir / "cow");
  overwrite(0, MiB, 1);
  EXPECT_TRUE(show("snap") == original);
  std::filesystem::remove_all(dir / "cow");
  overwrite(0, disk_bytes, 2);
  expect_invalid("snap");
  EXPECT_TRUE(show("disk") == bytes(disk_bytes, 2));
  d->must({"stop", "snap"});
  EXPECT_EQ(d->ctl({"resume", "snap"}).status, 1);
  EXPECT_EQ(d->ctl({"start", "snap"}).status, 1);
  d->must({"del", "snap"});
}

}  // namespace
