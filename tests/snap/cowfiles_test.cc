// SPDX-License-Identifier: GPL-2.0-only
// Whose a COW file is, and what it is about.
#include <fcntl.h>
#include <unistd.h>

#include "snap/snap_fixture.h"

using namespace zorv;
using namespace zorv_test;
using kernel::fault_site;

namespace {

struct cowfiles_test : snap_test {
  cowfiles_test() : snap_test(2 * MiB) {}
  // A snap whose COW data file has another name; the bitmap file is its own.
  u32 snap_on(const std::string& data) {
    auto req = snap_request({});
    copy_text_n(req.cow_data_fname, sizeof(req.cow_data_fname), data.c_str());
    EXPECT_EQ(command(ZORV_ADD_SNAP_NODE, &req), 0) << log.errors();
    return static_cast<u32>(req.snap_minor);
  }
  void restart(const snap_options& o) {
    unload();
    load();
    filter = add_filter(disk.path());
    EXPECT_EQ(add_snap(o), 1U);
  }
};

}  // namespace

TEST_F(cowfiles_test, what_is_somebody_elses_is_neither_changed_nor_removed) {
  const bytes precious(100, 7);
  write_file(dir / "theirs", precious);
  kernel::file_claim claim;
  kernel::file_id id;
  ASSERT_EQ(kernel::path_identity((dir / "theirs").c_str(), &id), 0);
  ASSERT_EQ(kernel::claim_file(id, "an attached image", &claim), 0);
  const u32 used = add_started_snap({.files = dir / "used"});
  EXPECT_EQ(stop(used), 0);  // a stopped snap's files are its own still
  write_file(dir / "locked", precious);
  const int other_program = ::open((dir / "locked").c_str(), O_RDWR);
  struct flock lock = {
      .l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 0, .l_len = 0, .l_pid = 0};
  ASSERT_EQ(::fcntl(other_program, F_OFD_SETLK, &lock), 0);
  std::filesystem::create_directory_symlink(dir.path(), dir / "folder");
  std::filesystem::create_hard_link(dir / "theirs", dir / "hard");
  std::filesystem::create_symlink(dir / "free", dir / "link");
  write_file(dir / "free", precious);

  struct {
    const char* name;
    int rc;
    const char* said;
  } table[] = {{"theirs", -EBUSY, "an attached image"},
               {"hard", -EBUSY, "an attached image"},
               {"folder/theirs", -EBUSY, "an attached image"},
               {"folder/./used.bmp", -EBUSY, "zorv(100, 1)'s COW bitmap file"},
               {"used.cow", -EBUSY, "zorv(100, 1)'s COW data file"},
               {"locked", -EBUSY, "another program has locked it"},
               {"link", -EINVAL, "a symbolic link"}};
  for (const auto& t : table) {
    const u32 snap = snap_on(dir / t.name);
    const bytes before = read_file(dir / t.name);
    log.clear();
    EXPECT_EQ(start(snap), t.rc) << t.name;
    EXPECT_TRUE(log.has(t.said)) << t.name << "\n" << log.errors();
    EXPECT_EQ(del(snap), 0);
    EXPECT_TRUE(read_file(dir / t.name) == before) << t.name;
  }
  ::close(other_program);
  // Nobody has claimed it, and a start would take it; that is no leave to delete it.
  for (const bool resumed : {false, true}) {
    const u32 snap = snap_on(dir / "free");
    const std::string bits = info(snap).cow_bmp_fname;
    write_file(bits, {});
    if (resumed) EXPECT_EQ(resume(snap), 0);
    EXPECT_EQ(del(snap), 0);
    EXPECT_EQ(read_file(dir / "free"), precious) << resumed;
    EXPECT_TRUE(log.has("free is no COW file: it stays"));
    EXPECT_FALSE(std::filesystem::exists(bits));
  }
  // A start that fails at the second file has neither made nor taken the first.
  for (const bool there : {false, true}) {
    auto req = snap_request({.files = dir / "kept"});
    copy_text_n(req.cow_bmp_fname, sizeof(req.cow_bmp_fname), (dir / "theirs").c_str());
    ASSERT_EQ(command(ZORV_ADD_SNAP_NODE, &req), 0);
    if (there) write_file(dir / "kept.cow", precious);
    EXPECT_EQ(start(static_cast<u32>(req.snap_minor)), -EBUSY);
    EXPECT_EQ(std::filesystem::exists(dir / "kept.cow"), there);
    if (there) EXPECT_EQ(start(snap_on(dir / "kept.cow")), 0) << log.errors();
  }
  auto req = snap_request({});
  std::memcpy(req.cow_data_fname, req.cow_bmp_fname, sizeof(req.cow_data_fname));
  ASSERT_EQ(command(ZORV_ADD_SNAP_NODE, &req), 0);
  EXPECT_EQ(start(static_cast<u32>(req.snap_minor)), -EINVAL) << "both in one file";
  EXPECT_EQ(resume(used), 0) << "its own";
}

TEST_F(cowfiles_test, a_name_that_leads_elsewhere_by_now_is_left_alone) {
  const bytes precious(100, 7);
  const u32 snap = add_started_snap({.files = dir / "s"});
  write_file(dir / "theirs", precious);
  std::filesystem::remove(dir / "s.cow");
  std::filesystem::create_symlink(dir / "theirs", dir / "s.cow");
  EXPECT_EQ(client(filter).fill(0, 4096, 1), 0);  // a copy into a file without a name: invalid
  EXPECT_FALSE(valid(snap));
  EXPECT_EQ(read_file(dir / "theirs"), precious);
  EXPECT_EQ(del(snap), 0);
  EXPECT_EQ(read_file(dir / "s.cow"), precious);
  EXPECT_TRUE(log.has("s.cow: rc=-116 (it is another file now)")) << log.errors();
  EXPECT_FALSE(std::filesystem::exists(dir / "s.bmp"));
}

TEST_F(cowfiles_test, a_file_cut_short_while_its_snap_runs_makes_it_invalid) {
  int rounds = 0;
  for (const bool by_read : {true, false, true}) {
    const bool grown_again = rounds++ == 2;
    disk.poke(0, pattern(0, disk_bytes));
    const u32 snap = add_started_snap({.files = dir / "s"});
    client c(filter);
    EXPECT_EQ(c.fill(0, 4096, 1), 0);
    const auto length = std::filesystem::file_size(dir / "s.cow");
    std::filesystem::resize_file(dir / "s.cow", 0);
    if (grown_again) std::filesystem::resize_file(dir / "s.cow", length);
    bytes out;
    if (by_read) {
      EXPECT_EQ(client(snap).read(0, 4096, &out), -EIO);
    } else {
      EXPECT_EQ(c.fill(MiB, 4096, 1), 0);  // its copy makes the file longer
    }
    EXPECT_FALSE(valid(snap));
    EXPECT_TRUE(log.has("s.cow does not end as it was made any more"));
    c.close();
    EXPECT_EQ(del(snap), 0);
  }
}

TEST_F(cowfiles_test, a_resume_believes_only_files_of_one_life_on_this_disk) {
  const u32 snap = add_started_snap({.chunk_size = 4096, .files = dir / "s"});
  EXPECT_EQ(client(filter).fill(0, 4096, 1), 0);
  EXPECT_EQ(stop(snap), 0);
  const bytes bits = read_file(dir / "s.bmp"), data = read_file(dir / "s.cow");
  // A later life's other file.
  EXPECT_EQ(start(snap) | stop(snap), 0);
  write_file(dir / "s.bmp", bits);
  EXPECT_EQ(resume(snap), 0);
  EXPECT_TRUE(log.has("The COW files of zorv(100, 1) are not of one life")) << log.errors();
  EXPECT_FALSE(valid(snap));
  EXPECT_EQ(stop(snap), 0);
  write_file(dir / "s.cow", data);

  disk.set_identity("memory:another");
  restart({.chunk_size = 4096, .files = dir / "s"});
  EXPECT_EQ(resume(1), 0);
  EXPECT_TRUE(log.has("The COW files of zorv(100, 1) are about another disk")) << log.errors();
  EXPECT_FALSE(valid(1));
}

// Of a copy nobody knows from when it is; and what another program has made its own is not deleted.
TEST_F(cowfiles_test, copies_are_other_files_and_locked_ones_stay) {
  const u32 snap = add_started_snap({.files = dir / "s"});
  std::filesystem::copy_file(dir / "s.cow", dir / "copy.cow");
  std::filesystem::copy_file(dir / "s.bmp", dir / "copy.bmp");
  std::filesystem::copy_file(dir / "s.cow", dir / "another.cow");
  const u32 twin = add_snap({.files = dir / "copy"});
  EXPECT_EQ(resume(twin), 0);
  EXPECT_FALSE(valid(twin)) << "of a life that runs";
  EXPECT_EQ(stop(snap) | stop(twin), 0);
  EXPECT_EQ(resume(snap), 0);
  EXPECT_TRUE(valid(snap));
  EXPECT_EQ(stop(snap), 0);
  std::filesystem::rename(dir / "another.cow", dir / "s.cow");
  EXPECT_EQ(resume(snap), 0);
  EXPECT_TRUE(log.has("are copies: others than they were made in")) << log.errors();
  EXPECT_FALSE(valid(snap));
  EXPECT_EQ(stop(snap), 0);
  kernel::file* other = kernel::filp_open((dir / "s.cow").c_str(), kernel::FO_RDWR, 0);
  EXPECT_EQ(kernel::vfs_lock(other), 0);
  EXPECT_EQ(del(snap), 0);
  EXPECT_TRUE(std::filesystem::exists(dir / "s.cow"));
  kernel::filp_close(other);
}

TEST_F(cowfiles_test, a_start_that_is_cut_short_leaves_files_that_are_not_believed) {
  const u32 snap = add_started_snap({.files = dir / "s"});
  EXPECT_EQ(client(filter).fill(0, MiB, 1), 0);
  EXPECT_EQ(stop(snap), 0);
  for (const auto site : {fault_site::file_write, fault_site::file_sync}) {
    for (u64 n = 1;; ++n) {
      kernel::fault_record_unsynced_begin();
      kernel::fault_arm(site, n, -1, EIO);
      const int rc = start(snap);
      kernel::fault_power_cut();
      kernel::fault_disarm_all();
      kernel::fault_record_unsynced_end();
      if (rc == 0) EXPECT_EQ(stop(snap), 0);
      ASSERT_EQ(resume(snap), 0);
      EXPECT_EQ(valid(snap), rc == 0) << n;
      if (rc == 0) EXPECT_EQ(shown(snap, 0, MiB), bytes(MiB, 1)) << "nothing of the life before";
      EXPECT_EQ(stop(snap), 0);
      if (rc == 0) break;
    }
  }
}

TEST_F(cowfiles_test, a_resume_syncs_what_it_believes) {
  const u32 snap = add_started_snap({.files = dir / "s"});
  EXPECT_EQ(stop(snap), 0);
  for (u64 n = 1; n <= 4; ++n) {  // two files, two names
    kernel::fault_arm(fault_site::file_sync, n, 1, EIO);
    EXPECT_EQ(resume(snap), 0);
    EXPECT_EQ(kernel::fault_calls(fault_site::file_sync), n);
    kernel::fault_disarm_all();
    EXPECT_FALSE(valid(snap)) << n;
    EXPECT_EQ(stop(snap), 0);
  }
  EXPECT_EQ(resume(snap), 0);
  EXPECT_TRUE(valid(snap));
}
