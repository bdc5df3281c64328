// SPDX-License-Identifier: GPL-2.0-only
// Which snaps a resume believes, and in which order it puts them.
#include "driver/snap/cowwork.h"
#include "kernel/state.h"
#include "snap/snap_fixture.h"
#include "support/at_log_line.h"

using namespace zorv;
using namespace zorv_test;
using kernel::fault_site;

namespace {

struct record_test : snap_test {
  record_test() : snap_test(2 * MiB) {}
  int write(u64 offset = MiB, u8 value = 9) { return client(filter).fill(offset, 4096, value); }
  // What a resume comes to; the snap is started afterwards.
  bool resumed(u32 snap) {
    log.clear();
    EXPECT_EQ(resume(snap), 0) << log.errors();
    return valid(snap);
  }
  // The driver anew, the snaps a and b as nodes 1 and 2, stopped.
  void restart(bool snaps = true, const std::string& bmp_dir = "") {
    unload();
    load();
    filter = add_filter(disk.path(), {.bmp_dir = bmp_dir});
    EXPECT_EQ(start(filter), 0);
    for (const char* name : {"a", "b"}) {
      if (snaps) add_snap({.files = dir / name});
    }
  }
};

}  // namespace

TEST_F(record_test, a_snap_that_has_missed_a_write_is_not_resumed_as_valid) {
  const u32 a = add_started_snap({.files = dir / "a"}), b = add_started_snap({.files = dir / "b"});
  EXPECT_EQ(write(0), 0);
  struct {
    const char* what;
    std::function<void()> meanwhile;
    bool valid;
  } table[] = {
      {"nothing", [] {}, true},
      {"restart", [this] { restart(); }, true},
      {"restart of the filter", [this] { EXPECT_EQ(stop(filter) | start(filter), 0); }, true},
      {"the newer one first", [&] { EXPECT_EQ(resume(b) | stop(b), 0); }, true},
      {"the older one alone",
       [&] {
         EXPECT_FALSE(resumed(a));
         EXPECT_TRUE(log.has("zorv(100, 1) needs a newer snap that has not been resumed"));
         EXPECT_EQ(stop(a), 0);
       },
       true},
      {"a write", [this] { EXPECT_EQ(write(), 0); }, false},
      {"a write after a restart",
       [this] {
         restart();
         EXPECT_EQ(write(), 0);
       },
       false},
      {"a write and a restart",
       [this] {
         EXPECT_EQ(write(), 0);
         restart();
       },
       false},
      {"other files, and no write",
       [this] {
         restart(false, state.path());
         restart();
       },
       true},
      {"a write with other files",
       [this] {
         restart(false, state.path());
         EXPECT_EQ(write(), 0);
         restart();
       },
       false},
      {"a write with other files, and the state folder as it was before",
       [this] {
         using opt = std::filesystem::copy_options;
         std::filesystem::copy(state / "zorv", state / "old", opt::recursive | opt::copy_symlinks);
         restart(false, state.path());
         EXPECT_EQ(write(), 0);
         unload();
         std::filesystem::remove_all(state / "zorv");
         std::filesystem::rename(state / "old", state / "zorv");
         EXPECT_EQ(kernel::state_set_dir((state / "zorv").c_str()), 0);
         load();
         restart();
       },
       false},
      {"a write and the record as it was before",
       [this] {
         const std::string record = dir / "zorv0.snaps";
         const bytes before = read_file(record);
         EXPECT_EQ(write(), 0);
         unload();
         write_file(record, before);
         load();
         restart();
       },
       false},
      {"a write and a power cut",
       [this] {
         kernel::fault_record_unsynced_begin();
         EXPECT_EQ(write(), 0);
         kernel::fault_power_cut();
         kernel::fault_record_unsynced_end();
         restart();
       },
       false},
      {"the newer one started anew", [&] { EXPECT_EQ(start(b) | stop(b), 0); }, false},
      {"the newer one deleted",
       [&] {
         EXPECT_EQ(del(b), 0);
         restart();
       },
       false}};
  for (const auto& t : table) {
    EXPECT_EQ(stop(b) | stop(a), 0);
    t.meanwhile();
    const bool newer = std::filesystem::exists(dir / "b.cow") && resumed(b);
    EXPECT_EQ(resumed(a), t.valid) << t.what << log.errors();
    EXPECT_EQ(log.has("has missed writes"), !t.valid) << t.what;
    if (t.valid) {
      EXPECT_TRUE(newer) << t.what;
      for (const u32 snap : {a, b}) expect_unchanged(snap);
      continue;
    }
    EXPECT_EQ(stop(b) | stop(a), 0);
    disk.poke(0, pattern(0, disk_bytes));
    EXPECT_EQ(start(a) | start(b), 0);
    EXPECT_EQ(write(0), 0);
  }
}

TEST_F(record_test, a_record_that_could_not_be_read_lists_what_starts_after_that) {
  const u32 a = add_started_snap({.files = dir / "a"}), b = add_started_snap({.files = dir / "b"});
  unload();
  kernel::fault_arm(fault_site::file_sync, 1, -1, EIO);
  load();
  filter = add_filter(disk.path());
  kernel::fault_disarm_all();
  EXPECT_TRUE(log.has("can be resumed as valid: " + (dir / "zorv0.snaps: rc=-5.")));
  EXPECT_EQ(add_started_snap({.files = dir / "a"}), a);
  EXPECT_EQ(write(0), 0);
  restart();
  EXPECT_FALSE(resumed(b));
  EXPECT_EQ(stop(b), 0);
  EXPECT_TRUE(resumed(a)) << log.errors();
  expect_unchanged(a);
}

// A mutex that the test holds stands for a folder that hangs.
TEST_F(record_test, a_held_write_that_a_stop_lets_go_is_missed) NO_THREAD_SAFETY_ANALYSIS {
  enum { nothing, the_record, the_state_folder_too };
  for (const int hangs : {nothing, the_record, the_state_folder_too}) {
    const u32 a = add_started_snap({.files = dir / "a"});
    zorv_record& record = zorv_blkdev_arr[filter]->f.record;
    kernel::block_device* bdev = client(filter).bdev();
    disk.serve(memory_disk::serving::held);
    pending_io held(bdev, kernel::WRITE, 0, bytes(512, 1));
    EXPECT_TRUE(eventually([this] { return disk.held_count() > 0; }));
    if (hangs != nothing) rzmutex_lock(&record.mutex);
    if (hangs == the_state_folder_too) rzmutex_lock(&record.word_mutex);
    std::thread stopper([&] { EXPECT_EQ(stop(a), 0); });
    EXPECT_TRUE(eventually([a] { return zorv_blkdev_arr[a]->started.load() == 0; }));
    disk.serve(memory_disk::serving::at_once);
    disk.release_all();
    if (hangs != nothing) EXPECT_FALSE(eventually([&] { return held.done(); }, 100));
    const u64 begin = kernel::jiffies();
    EXPECT_TRUE(eventually([&] {
      if (hangs != nothing) kernel::turn_clock(1000);
      return held.done();
    }));
    EXPECT_GE(kernel::jiffies() - begin, hangs * 29000U);
    EXPECT_EQ(held.wait(), hangs == the_state_folder_too ? -EIO : 0);
    stopper.join();
    if (hangs == the_state_folder_too) rzmutex_unlock(&record.word_mutex);
    if (hangs != nothing) rzmutex_unlock(&record.mutex);
    EXPECT_TRUE(!resumed(a) || shown(a, 0, disk_bytes) == pattern(0, disk_bytes));
    EXPECT_EQ(del(a), 0);
    disk.poke(0, pattern(0, disk_bytes));
  }
}

TEST_F(record_test, a_snap_that_is_lost_while_it_is_being_listed_is_not_believed) {
  add_started_snap({.files = dir / "a"});
  const u32 b = add_snap({.files = dir / "b"});
  {
    at_log_line hook("The state folder can't be told of",
                     [b] { zorv_snap_abandon(zorv_blkdev_arr[b], "test"); });
    kernel::fault_arm(fault_site::state_write, 1, 1, EIO);
    EXPECT_EQ(start(b), 0);
  }
  EXPECT_EQ(write(), 0);
  restart();
  EXPECT_FALSE(resumed(b));
}

TEST_F(record_test, a_snap_that_loses_a_newer_one_while_it_is_resumed_is_invalid) {
  const u32 a = add_started_snap({.files = dir / "a"}), b = add_started_snap({.files = dir / "b"});
  EXPECT_EQ(stop(a), 0);
  at_log_line hook(line("zorv(100, %u) has missed nothing", a), [b] {
    const kernel::lock_order_exception stands_in_for_another_task;
    zorv_snap_invalidate(zorv_blkdev_arr[b], "test");
  });
  EXPECT_FALSE(resumed(a));
}

TEST_F(record_test, resumed_snaps_stand_in_the_order_of_their_instants_before_those_of_this_life) {
  const u32 a = add_started_snap({.files = dir / "a"}), b = add_started_snap({.files = dir / "b"});
  EXPECT_EQ(write(0), 0);
  EXPECT_EQ(stop(a) | stop(b), 0);
  restart(false);
  const u32 n = add_started_snap({.minor = 7});
  EXPECT_EQ(add_snap({.minor = static_cast<s32>(b), .files = dir / "b"}), b);
  EXPECT_EQ(add_snap({.minor = static_cast<s32>(a), .files = dir / "a"}), a);
  EXPECT_TRUE(resumed(b) && resumed(a));
  EXPECT_EQ(proc("zorv/zorv0/snaps"), "1\n2\n7\n");
  const bytes now = disk.peek(0, disk_bytes);
  EXPECT_EQ(write(0, 1) | write(MiB, 1), 0);
  EXPECT_TRUE(shown(n, 0, disk_bytes) == now) << "the copies are the newest one's";
  for (const u32 snap : {a, b}) expect_unchanged(snap);
  // A start that fails moves nobody.
  EXPECT_EQ(stop(a), 0);
  kernel::fault_arm(fault_site::file_open, 1, 1, EIO);
  EXPECT_EQ(start(a), -EIO);
  EXPECT_EQ(proc("zorv/zorv0/snaps"), "1\n2\n7\n");
}

TEST_F(record_test, what_cannot_be_written_is_not_believed_or_removed_or_the_write_fails) {
  const u32 a = add_started_snap({.files = dir / "a"});
  for (const u32 way : {0U, 1U, 2U}) {
    client c(filter);
    EXPECT_EQ(c.fill(0, 4096, 1) | stop(a), 0);  // the bitmaps' files are stale
    kernel::fault_arm(fault_site::file_write, 1, -1, EIO);
    if (way > 0) kernel::fault_arm(fault_site::state_write, 1, -1, EIO);
    if (way == 2) kernel::fault_arm(fault_site::file_unlink, 1, -1, EIO);
    EXPECT_EQ(c.fill(0, 4096, 2), way == 2 ? -EIO : 0) << way << log.errors();
    EXPECT_TRUE(log.has("zorv0.snaps: rc=-5")) << way;
    kernel::fault_disarm_all();
    const bool told =
        proc("zorv/zorv0/bmp_trouble").find("folder: " + dir / "zorv0.snaps") != std::string::npos;
    EXPECT_EQ(told, way == 0);
    if (way == 2) EXPECT_TRUE(eventually([&] { return c.fill(0, 4096, 2) == 0; }));
    EXPECT_EQ(std::filesystem::exists(dir / "zorv0.snaps"), way != 1);
    log.clear();
    c.close();
    unload();
    EXPECT_EQ(kernel::state_standing(), told ? 1U : 0U);
    load();
    filter = add_filter(disk.path());
    EXPECT_EQ(start(filter), 0);
    EXPECT_EQ(add_snap({.files = dir / "a"}), a);
    EXPECT_FALSE(resumed(a)) << way;
    EXPECT_EQ(stop(a) | start(a), 0);
    EXPECT_EQ(kernel::state_standing(), 0U);
  }
}

TEST_F(record_test, an_invalid_snap_whose_files_cannot_say_so_stays_invalid) {
  const u32 a = add_started_snap({.files = dir / "a"});
  client c(filter);
  EXPECT_EQ(c.fill(0, 4096, 1), 0);
  kernel::fault_arm(fault_site::file_write, 1, 2, EIO);  // the copy, and the emptying
  EXPECT_EQ(c.fill(MiB, 4096, 1), 0);
  kernel::fault_disarm_all();
  EXPECT_FALSE(valid(a)) << log.errors();
  EXPECT_GT(std::filesystem::file_size(dir / "a.cow"), disk_bytes);
  EXPECT_EQ(stop(a), 0);
  EXPECT_FALSE(resumed(a));
}

// From its instant on the older ones' chunks go to the newest alone.
TEST_F(record_test, no_snap_is_believed_without_a_newer_one_that_could_not_be_listed) {
  add_started_snap({.files = dir / "a"});
  const u32 b = add_snap({.files = dir / "b"}), c = add_snap({.files = dir / "c"});
  kernel::fault_arm(fault_site::file_write, 1, 0, EIO);
  EXPECT_EQ(start(b), 0);
  const u64 last = kernel::fault_calls(fault_site::file_write);
  kernel::fault_arm(fault_site::file_write, last, 1, EIO);
  EXPECT_EQ(start(c), 0);
  kernel::fault_disarm_all();
  EXPECT_TRUE(log.has("zorv0.snaps: rc=-5")) << "the last write of a start is the record's";
  EXPECT_EQ(write(0), 0);
  restart();
  EXPECT_FALSE(resumed(b));
}

TEST_F(record_test, a_list_is_believed_only_from_the_disk_and_where_it_was_written) {
  const u32 a = add_started_snap({.files = dir / "a"});
  // An earlier life's list that cannot be made stable may have a longer one behind it.
  unload();
  load();
  kernel::fault_arm(fault_site::file_sync, 1, -1, EIO);
  filter = add_filter(disk.path());
  kernel::fault_disarm_all();
  EXPECT_EQ(start(filter), 0);
  EXPECT_EQ(add_snap({.files = dir / "a"}), a);
  EXPECT_FALSE(resumed(a));
  // One that is away while the write comes lists nothing when it is back.
  EXPECT_EQ(stop(a) | start(a) | stop(a), 0);
  const std::string record = dir / "zorv0.snaps", away = dir / "away";
  std::filesystem::rename(record, away);
  EXPECT_EQ(write(0), 0);
  std::filesystem::rename(away, record);
  restart();
  EXPECT_FALSE(resumed(a));
  // Where none can be made, no write is held up for it.
  write_file(record, bytes(600, 'm'));
  restart();
  EXPECT_EQ(start(a) | stop(a) | write(0), 0) << log.errors();
  EXPECT_EQ(read_file(record), bytes(600, 'm')) << "somebody else's";
  std::filesystem::remove(record);
  std::filesystem::create_directory(record);
  restart();
  EXPECT_EQ(start(a) | stop(a) | write(0), 0) << log.errors();
}
