// SPDX-License-Identifier: GPL-2.0-only
// Creating snap nodes, and resuming them on the files they have.
#include "driver/core/log.h"
#include "kernel/fs.h"
#include "kernel/module.h"
#include "snap/snap_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct node_test : snap_test {
  int refused(const zorv_add_snap_req& asked) {
    log.clear();
    auto req = asked;
    return command(ZORV_ADD_SNAP_NODE, &req);
  }
};

}  // namespace

TEST_F(node_test, a_snap_that_cannot_be_is_refused_and_leaves_nothing) {
  add_snap({.minor = 9});
  const auto base = snap_request({});
  struct {
    std::function<void(zorv_add_snap_req&)> spoil;
    int rc;
    const char* said;
  } table[] = {
      {[](auto& r) { r.filter_minor = 5; }, -EINVAL, "Invalid filter node minor number 5 passed."},
      {[](auto& r) { r.filter_minor = 9; }, -EINVAL, "Invalid filter node minor number 9 passed."},
      {[](auto& r) { r.filter_minor = 4096; }, -EINVAL, "Invalid filter node minor number 4096"},
      {[](auto& r) { r.chunk_size = 0; }, -EINVAL, "Chunk size must be a power of 2"},
      {[](auto& r) { r.chunk_size = 12288; }, -EINVAL, "Chunk size must be a power of 2"},
      {[](auto& r) { r.chunk_size = 1; }, -EINVAL,
       "Chunk size must be a multiple of page size (4096B)"},
      {[](auto& r) { r.chunk_size = 4096; }, -EINVAL,
       "zorv(100, 0) already has one snap with chunk size 65536. All snaps must have identical"},
      {[](auto& r) { r.snap_minor = 9; }, -EINVAL, "Device minor number 9 is already taken"},
      {[](auto& r) { r.snap_minor = 256; }, -EINVAL, "Minor number 256 is too big: max=255"},
      {[](auto& r) { r.cow_bmp_fname[0] = 0; }, -EINVAL, "Failed to get ID of the device with "},
      {[](auto& r) { std::strcpy(r.cow_data_fname, "x"); }, -EINVAL, "device with x"},
      {[](auto& r) { std::memset(r.name, 'n', sizeof(r.name)); }, -EINVAL, "is too long"},
  };
  for (auto& t : table) {
    auto req = base;
    t.spoil(req);
    EXPECT_EQ(refused(req), t.rc) << t.said;
    EXPECT_TRUE(log.has(t.said)) << t.said << "\n" << log.errors();
  }
  EXPECT_EQ(proc("zorv/zorv0/snaps"), "9\n");
  // No allocation that fails leaves a half-made node.
  int failures = 0;
  for (u64 n = 1;; ++n) {
    auto req = base;
    kernel::fault_arm(kernel::fault_site::alloc, n, 1, ENOMEM);
    const int rc = command(ZORV_ADD_SNAP_NODE, &req);
    const bool hit = kernel::fault_calls(kernel::fault_site::alloc) >= n;
    kernel::fault_disarm_all();
    if (rc == 0) {
      EXPECT_EQ(del(static_cast<u32>(req.snap_minor)), 0);
    } else {
      ++failures;
      EXPECT_EQ(proc("zorv/zorv0/snaps"), "9\n") << n;
    }
    if (!hit) break;
  }
  EXPECT_GE(failures, 3);
  EXPECT_EQ(add_snap(), 1U);
}

TEST_F(node_test, a_snap_shows_its_own_fields_and_its_filters) {
  add_started_snap({.minor = 5, .name = "old", .uuid = "U", .files = dir / "s"});
  EXPECT_EQ(client(filter).fill(0, 512, 1), 0);
  const u32 newer = add_started_snap({.minor = 7});
  EXPECT_EQ(stop(newer), 0);
  EXPECT_EQ(proc("zorv/zorv0/snaps"), "5\n7\n");
  EXPECT_EQ(proc("zorv/zorv0/snap_minor"), "5\n7\n");
  EXPECT_EQ(proc("zorv/zorv7/stop_pending"), "1\n");
  EXPECT_EQ(proc_texts("zorv/zorv5"), (text_list{{"dev_type", "snap\n"},
                                                 {"minor", "5\n"},
                                                 {"uuid", "U\n"},
                                                 {"name", "old\n"},
                                                 {"dev_name", "/dev/zorv/old\n"},
                                                 {"started", "1\n"},
                                                 {"stop_pending", "0\n"},
                                                 {"del_pending", "0\n"},
                                                 {"use_cnt", "0\n"},
                                                 {"filter_minor", "0\n"},
                                                 {"hdd_major", proc("zorv/zorv0/hdd_major")},
                                                 {"hdd_minor", proc("zorv/zorv0/hdd_minor")},
                                                 {"hdd_name", disk.path() + "\n"},
                                                 {"chunk_size", "65536\n"},
                                                 {"cow_bmp_fname", dir / "s.bmp" + "\n"},
                                                 {"cow_data_fname", dir / "s.cow" + "\n"},
                                                 {"cow_bmp_size", "16\n"},
                                                 {"cow_data_size", "8388608\n"},
                                                 {"snap_valid", "1\n"},
                                                 {"copied_chunks", "1\n"},
                                                 {"copied_bytes", "65536\n"}}));
}

TEST_F(node_test, a_postponed_stop_that_finds_the_snap_open_is_made_when_it_is_closed) {
  const u32 older = add_started_snap(), newer = add_started_snap();
  EXPECT_EQ(stop(newer), 0);
  const std::string started = line("zorv/zorv%u/started", newer);
  {
    const client keeps(newer);
    EXPECT_EQ(stop(older), 0);
    EXPECT_EQ(proc(started), "1\n");
  }
  EXPECT_EQ(proc(started), "0\n");
  zorv_blkdev_arr[newer]->s.stop_due.store(1);  // as a stop beside this one leaves it
  EXPECT_EQ(start(newer), 0);
  { const client again(newer); }
  EXPECT_EQ(proc(started), "1\n") << "another life";
}

TEST_F(node_test, chunks_grow_with_the_volume_until_their_numbers_fit) {
  struct {
    u64 size;
    u32 asked, used;
  } table[] = {{1ULL << 40, 4096, 4096},
               {(4ULL << 40), 4096, 4096},
               {(4ULL << 40) + 512, 4096, 8192},
               {5ULL << 40, 4096, 8192}};
  int n = 0;
  for (const auto& t : table) {
    memory_disk big("big" + std::to_string(n++), t.size);
    const u32 f = add_filter(big.path(), {.extent_size = 1U << 24});
    auto req = snap_request({.chunk_size = t.asked});
    req.filter_minor = f;
    log.clear();
    ASSERT_EQ(command(ZORV_ADD_SNAP_NODE, &req), 0) << log.errors();
    EXPECT_EQ(req.chunk_size, t.used) << t.size;
    EXPECT_EQ(log.count("Chunk size 4096 is too small for such a large volume"),
              t.used != t.asked ? 1 : 0);
    EXPECT_EQ(log.count("We have automatically increased it to 8192"), t.used != t.asked ? 1 : 0);
    auto second = snap_request({.chunk_size = t.asked});
    second.filter_minor = f;
    EXPECT_EQ(command(ZORV_ADD_SNAP_NODE, &second), t.used != t.asked ? -EINVAL : 0)
        << "the requested size is compared";
    EXPECT_EQ(del(f), 0);
  }
}

TEST_F(node_test, a_filter_carries_256_snaps) {
  unload();
  ASSERT_EQ(kernel::module_param_set("zorv_max_blk_minor", "400"), 0);
  load();
  filter = add_started_filter(disk.path());
  for (int i = 0; i < 256; ++i) add_snap();
  EXPECT_EQ(refused(snap_request({})), -ENOSPC);
  EXPECT_TRUE(log.has("Too many snaps already associated with zorv(100, 0)."));
}

namespace {

// What the resolver below says about every host path.
devt lives_on = 0;

}  // namespace

TEST_F(node_test, files_that_requests_wait_for_cannot_be_on_a_node) {
  kernel::set_fs_device_resolver([](u32, u32) { return lives_on; });
  memory_disk other_disk("d1", disk_bytes);
  const u32 other = add_started_filter(other_disk.path());
  auto request = snap_request({});
  lives_on = kernel::mkdev(100, filter);
  EXPECT_EQ(refused(request), -EINVAL);
  EXPECT_TRUE(log.has("can't be on the partition being snapped!"));
  lives_on = kernel::mkdev(100, other);
  EXPECT_EQ(refused(request), -EINVAL);
  EXPECT_TRUE(log.has("can't be on zorv(100, 1)")) << log.errors();
  zorv_add_filter_req filter_request{};
  std::strcpy(filter_request.hdd_name, "/dev/image/d2");
  zorv::copy_text_n(filter_request.bmp_dir, sizeof filter_request.bmp_dir, dir.path().c_str());
  filter_request.extent_size = 65536;
  memory_disk third("d2", disk_bytes);
  EXPECT_EQ(command(ZORV_ADD_FILTER_NODE, &filter_request), -EINVAL);
  EXPECT_TRUE(log.has("Bitmap files in " + dir.path())) << log.errors();
  kernel::set_fs_device_resolver(nullptr);
}

TEST_F(node_test, a_resume_on_lost_files_fails_or_leaves_the_snap_invalid) {
  const u32 snap = add_snap({.files = dir / "s"});
  EXPECT_EQ(resume(filter), -EINVAL);
  EXPECT_TRUE(log.has("zorv(100, 0) is not a snap device"));
  EXPECT_EQ(resume(200), -EINVAL);
  EXPECT_EQ(resume(snap), -EIO) << "there are no files yet";
  EXPECT_EQ(proc("zorv/zorv1/started"), "0\n");
  ASSERT_EQ(start(snap), 0);
  EXPECT_EQ(client(filter).fill(0, MiB, 1), 0);
  EXPECT_EQ(stop(snap), 0);
  for (const std::string which : {"s.bmp", "s.cow"}) {
    const bytes whole = read_file(dir / which);
    for (const auto& [content, why] : {std::pair{bytes(10), "are not as long as they were made"},
                                       {bytes(whole.size()), "have no seal"}}) {
      write_file(dir / which, content);
      ASSERT_EQ(resume(snap), 0);
      EXPECT_TRUE(log.has(std::string("The COW files of zorv(100, 1) ") + why)) << which;
      EXPECT_TRUE(log.has("Invalidating snap device zorv(100, 1)"));
      bytes out;
      EXPECT_EQ(client(snap).read(0, 4096, &out), -EIO);
      EXPECT_EQ(read_file(dir / which), content) << "they may be somebody's";
      EXPECT_EQ(stop(snap), 0);
      log.clear();
    }
    write_file(dir / which, whole);
  }
  ASSERT_EQ(resume(snap), 0);
  expect_unchanged(snap);
  EXPECT_EQ(resume(snap), -EALREADY);
  EXPECT_EQ(stop(snap), 0);
  for (u64 n = 1; n <= 12; ++n) {
    for (const auto site : {kernel::fault_site::file_open, kernel::fault_site::file_read}) {
      kernel::fault_arm(site, n, 1, EIO);
      const int rc = resume(snap);
      kernel::fault_disarm_all();
      EXPECT_TRUE(rc == 0 || rc == -EIO);
      EXPECT_EQ(stop(snap), 0);
    }
  }
}
