// SPDX-License-Identifier: GPL-2.0-only
// What one node waits for is no other node's business, and nodes come and go beside everything
// else.
#include "driver/core/module.h"
#include "snap/snap_fixture.h"
#include "support/at_log_line.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct pins_test : snap_test {
  memory_disk other{"d1", MiB}, third{"d2", MiB};
  std::atomic<bool> let_go{false};

  // Commands and requests of all kinds while something stands still; then lets that go.
  void expect_others_go_on(const std::string& what) {
    std::atomic<bool> done{false};
    std::thread busy([&] {
      zorv_device_list_req list{ZORV_DEV_FILTER, 0, {}};
      EXPECT_EQ(command(ZORV_GET_DEVICE_LIST, &list), 0);
      zorv_info_req one{};
      one.minor = 1;
      (void)command(ZORV_GET_INFO, &one);
      std::string text;
      (void)kernel::proc_read("zorv/zorv1/use_cnt", &text);
      EXPECT_EQ(client(filter).fill(0, 4096, 1), 0);
      const u32 fresh = add_started_filter(third.path(), {.minor = 7});
      EXPECT_EQ(stop(fresh), 0);
      EXPECT_EQ(del(fresh), 0);
      done = true;
    });
    EXPECT_TRUE(eventually([&] { return done.load(); }, 5000)) << what;
    let_go = true;
    busy.join();
  }
};

}  // namespace

TEST_F(pins_test, a_command_that_stands_still_holds_up_no_other_node) {
  const auto clear = [&] { EXPECT_EQ(bmp(ZORV_CLR_BMP, 1, ZORV_BMP_INCREMENTAL), 0); };
  const auto close = [&] {
    EXPECT_EQ(start(1), 0);
    client c(1);
    EXPECT_EQ(c.fill(0, 4096, 1), 0);
  };
  const struct {
    const char* line;
    std::function<void()> call;
  } table[] = {
      {"Loading Differential bitmap of zorv(100, 1)", [&] { add_filter(other.path()); }},
      {"Saving Incremental bitmap of zorv(100, 1)", clear},
      {"Saving Incremental bitmap of zorv(100, 1)", close},
      {"zorv_block_save_dirty_bmps(): Saving dirty", [&] { EXPECT_EQ(stop(1), 0); }},
      {"Destroying AIO tracker.", [&] { EXPECT_EQ(del(1), 0); }},
  };
  for (const auto& t : table) {
    let_go = false;
    std::atomic<bool> there{false};
    const at_log_line stand_still(t.line, [&] {
      there = true;
      EXPECT_TRUE(eventually([&] { return let_go.load(); }, 20000));
    });
    std::thread call(t.call);
    EXPECT_TRUE(eventually([&] { return there.load(); })) << t.line;
    expect_others_go_on(t.line);
    call.join();
  }
}

TEST_F(pins_test, a_start_waits_for_requests_no_longer_than_a_minute_and_holds_up_nobody) {
  ASSERT_EQ(add_started_filter(other.path()), 1U);
  auto req = snap_request({});
  req.filter_minor = 1;
  ASSERT_EQ(command(ZORV_ADD_SNAP_NODE, &req), 0);
  const auto snap = static_cast<u32>(req.snap_minor);
  client c(1);
  other.serve(memory_disk::serving::held);
  auto io = c.start_write(0, bytes(4096, 1));
  std::atomic<int> rc{1};
  std::thread starter([&] { rc = start(snap); });
  EXPECT_TRUE(eventually([&] {
    if (!kernel::blkdev_try_enter(c.bdev())) return true;
    kernel::blkdev_exit(c.bdev());
    return false;
  }));
  expect_others_go_on("a frozen device");
  EXPECT_EQ(rc, 1);
  kernel::turn_clock(60000);
  EXPECT_TRUE(eventually([&] { return rc != 1; }, 5000));
  if (rc == 1) other.release_all();
  starter.join();
  EXPECT_EQ(rc, -EAGAIN);
  EXPECT_TRUE(log.has("Timed out waiting for FS on zorv(100, 1) (" + other.path() + ")"));
  other.serve(memory_disk::serving::at_once);
  other.release_all();
  EXPECT_EQ(io->wait(), 0);
  EXPECT_EQ(c.fill(0, 4096, 2), 0) << "thawed";
  EXPECT_EQ(start(snap), 0);
}

// Locks that the test holds stand for a stop and for files that hang.
TEST_F(pins_test, a_snap_that_hangs_in_its_files_keeps_nobody_from_its_filter)
NO_THREAD_SAFETY_ANALYSIS {
  const u32 snap = add_snap();
  zorv_blkdev* dev = zorv_blkdev_arr[snap];
  rzrwlock& files = dev->s.file_lock;
  const kernel::lock_order_exception stands_in_for_another_task;
  rzmutex_lock(&dev->dev_mutex);
  rzwrite_lock(&files);
  std::thread starter([&] { EXPECT_EQ(start(snap), 0); });
  EXPECT_TRUE(eventually([&] { return dev->s.start_mutex.owner.load() != nullptr; }));
  expect_others_go_on("a start behind a stop");
  rzmutex_unlock(&dev->dev_mutex);
  EXPECT_TRUE(eventually([&] { return zorv_blkdev_arr[filter]->f.snaps_starting == 1; }));
  expect_others_go_on("a start at its files");
  EXPECT_EQ(stop(filter), -EBUSY);
  rzwrite_unlock(&files);
  starter.join();
  client c(filter), reader(snap);
  EXPECT_EQ(c.fill(0, 4096, 2), 0);
  EXPECT_EQ(shown(snap, 0, 4096), bytes(4096, 1));
  rzwrite_lock(&files);
  auto held = c.start_write(MiB, bytes(4096, 3));
  EXPECT_TRUE(eventually([&] { return zorv_blkdev_arr[filter]->f.cowqueue.cnt == 1; }));
  auto read = reader.start_read(0, 4096);  // wants the files
  EXPECT_TRUE(eventually([&] { return read->done(); })) << "the thread goes on";
  EXPECT_FALSE(held->done());
  rzwrite_unlock(&files);
  EXPECT_EQ(held->wait(), 0);
  EXPECT_EQ(shown(snap, MiB, 4096), pattern(MiB, 4096));
}

TEST_F(pins_test, nodes_on_nodes_go_upper_first_and_one_in_use_keeps_only_itself) {
  const u32 snap = add_started_snap({.minor = 5});
  const u32 upper = add_started_filter("/dev/zorv/zorv0", {.minor = 2});
  const u32 on_snap = add_filter("/dev/zorv/zorv5", {.minor = 6});
  EXPECT_EQ(client(upper).fill(0, 4096, 1), 0);
  EXPECT_EQ(stop(filter), -EBUSY);
  EXPECT_EQ(del(on_snap), 0);
  add_filter("/dev/zorv/zorv" + std::to_string(snap), {.minor = static_cast<s32>(on_snap)});
  add_started_filter(other.path(), {.minor = 1});
  {
    const client keeps(1);
    EXPECT_EQ(zorv_cleanup(), -EBUSY);
    EXPECT_EQ(disk.bdev()->bd_openers.load(), 0) << "all three are gone";
    EXPECT_EQ(other.bdev()->bd_openers.load(), 1);
  }
  EXPECT_EQ(zorv_cleanup(), 0);
  EXPECT_TRUE(log.has("zorv_cleanup(): The driver is being unloaded."));
  EXPECT_EQ(other.bdev()->bd_openers.load(), 0);
  loaded = false;
}

TEST_F(pins_test, nodes_come_and_go_beside_commands_and_requests) {
  std::atomic<bool> stopping{false};
  std::vector<std::thread> others;
  others.emplace_back([&] {
    client c(filter);
    for (u64 n = 0; !stopping; ++n) ASSERT_EQ(c.fill(n % 100 * 64 * KiB, 4096, 1), 0);
  });
  others.emplace_back([&] {
    while (!stopping) {
      zorv_info_req about{};
      about.minor = 1;
      (void)command(ZORV_GET_INFO, &about);
      about.minor = filter;
      EXPECT_EQ(command(ZORV_GET_INFO, &about), 0);
      std::string text;
      (void)kernel::proc_read("zorv/zorv1/hdd_name", &text);
      EXPECT_TRUE(text.empty() || text == other.path() + "\n") << text;
      EXPECT_EQ(bmp(ZORV_SAVE_BMP, filter, ZORV_BMP_INCREMENTAL), 0);
    }
  });
  for (const u32 minor : {2U, 3U}) {  // two that stop, start and go at any time
    others.emplace_back([&, minor] {
      while (!stopping) {
        for (const u32 number : {ZORV_START_NODE, ZORV_STOP_NODE, ZORV_DEL_NODE}) {
          (void)node(number, minor);
        }
      }
    });
  }
  for (u32 i = 0; i < 15; ++i) {
    add_filter(other.path(), {.minor = 1});
    for (const s32 minor : {2, 3}) {
      auto req = snap_request({.minor = minor, .files = dir / ("s" + std::to_string(minor))});
      const int rc = command(ZORV_ADD_SNAP_NODE, &req);
      EXPECT_TRUE(rc == 0 || rc == -EINVAL) << rc;
    }
    EXPECT_EQ(del(1), 0);
  }
  stopping = true;
  for (auto& t : others) t.join();
}
