// SPDX-License-Identifier: GPL-2.0-only
// kdirtyd and the writes that wait for it. The filter's file locks, held by a test, stand for a
// bitmap directory on a slow disk.
#include "driver/bitmap/dirty.h"

#include "driver/bitmap/bitmap.h"
#include "driver/core/log.h"
#include "kernel/task.h"
#include "kernel/time.h"
#include "support/at_log_line.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

constexpr u32 incr = ZORV_BMP_INCREMENTAL;
const bytes stale{'Z', 'O', 'R', 'V', 'B', 'M', 'P', 1};

struct dirty_test : driver_test {
  memory_disk disk{"d0", 1 << 20}, disk1{"d1", 1 << 20};
  const std::string incr_file = dir / "zorv0.incr", diff_file = dir / "zorv0.diff";

  void SetUp() override {
    driver_test::SetUp();
    add_started_filter(disk.path());
    add_started_filter(disk1.path());
    log.clear();
  }
  static zorv_filter* filter(u32 minor = 0) { return &zorv_blkdev_arr[minor]->f; }
  static void mark(u32 extent, u32 minor = 0) {
    zorv_block_mark_extents(filter(minor), extent * 128ULL, 1);
  }
  static bool settled(u32 minor = 0) {
    return eventually([minor] { return !zorv_marks_pending(filter(minor)); });
  }
  bool is_stale(const std::string& file) const { return read_file(file) == stale; }
  bool is_saved(const std::string& file) const { return read_file(file).size() == 18; }
};

// A write in a thread of its own, as a front end sends it.
class write_in_thread {
 public:
  write_in_thread(u32 minor, u32 extent)
      : thread_([this, minor, extent] {
          client c(minor);
          rc_ = c.fill(extent * 65536ULL, 512, 0x77);
          done_ = true;
          c.close();
        }) {}
  ~write_in_thread() { thread_.join(); }
  [[nodiscard]] bool done() const { return done_; }
  int wait() {
    EXPECT_TRUE(eventually([this] { return done(); }));
    return rc_;
  }

 private:
  std::atomic<bool> done_{false};
  std::atomic<int> rc_{1};
  std::thread thread_;
};

// Holds the filter's files as long as it lives or until release().
class slow_files {
 public:
  explicit slow_files(u32 minor) NO_THREAD_SAFETY_ANALYSIS : f_(&zorv_blkdev_arr[minor]->f) {
    for (auto& m : f_->marks) rzmutex_lock(&m.file_mutex);
    rzmutex_lock(&f_->bmp_mutex);
  }
  ~slow_files() { release(); }
  void release() NO_THREAD_SAFETY_ANALYSIS {
    if (f_ == nullptr) return;
    rzmutex_unlock(&f_->bmp_mutex);
    for (auto& m : f_->marks) rzmutex_unlock(&m.file_mutex);
    f_ = nullptr;
  }

 private:
  kernel::lock_order_exception stands_in_for_another_task_;
  zorv_filter* f_;
};

}  // namespace

TEST_F(dirty_test, the_first_new_bit_after_a_save_makes_the_file_stale) {
  zorv_debug = 2;
  mark(3);
  mark(3);
  mark(4);
  ASSERT_TRUE(settled());
  EXPECT_EQ(read_file(incr_file), stale);
  EXPECT_EQ(read_file(diff_file), stale);
  EXPECT_EQ(log.count("zorv_sched_write_dirty_flag(): Appending dirty request for"), 2);
  EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, incr), 0);
  mark(4);
  mark(5);
  ASSERT_TRUE(settled());
  EXPECT_EQ(read_file(incr_file), stale);
  EXPECT_EQ(log.count("Appending dirty request for Incremental bitmap of zorv(100, 0)"), 2);
  EXPECT_EQ(log.count("Appending dirty request for Differential"), 1) << "it was not saved since";
}

TEST_F(dirty_test, one_thread_at_a_time) {
  EXPECT_EQ(zorv_start_kdirtyd(), -EALREADY);
  EXPECT_TRUE(log.has("zorv_start_kdirtyd(): kdirtyd has already been started."));
  EXPECT_EQ(zorv_stop_kdirtyd(), 0);
  EXPECT_EQ(zorv_stop_kdirtyd(), -ESRCH);
  EXPECT_TRUE(log.has("zorv_stop_kdirtyd(): kdirtyd is not running."));
  kernel::fault_arm(kernel::fault_site::thread_create, 1, 1, EAGAIN);
  EXPECT_EQ(zorv_start_kdirtyd(), -EAGAIN);
  EXPECT_TRUE(log.has("zorv_start_kdirtyd(): Failed to start kdirtyd: rc=-11"));
  EXPECT_EQ(zorv_start_kdirtyd(), 0);
  mark(1);
  EXPECT_TRUE(settled());
}

TEST_F(dirty_test, a_slow_folder_delays_no_other_nodes_marks) {
  zorv_debug = 2;
  slow_files slow(1);
  mark(1, 1);
  mark(1, 0);
  ASSERT_TRUE(settled(0));
  EXPECT_TRUE(zorv_marks_pending(filter(1)));
  slow.release();
  ASSERT_TRUE(settled(1));
  std::string order;
  for (const auto& line : log.lines()) {
    const auto at = line.find("Writing dirty flag 1 into ");
    if (at != std::string::npos) order += line.substr(at + 26, 1) + line.substr(line.size() - 2, 1);
  }
  EXPECT_EQ(order, "I0D0I1D1") << "a node's own in the order in which they were queued";
}

TEST_F(dirty_test, a_save_cancels_what_it_makes_needless) {
  {
    const slow_files slow(0);
    mark(2);
    at_log_line hook("Killing all dirty requests", [] {
      EXPECT_EQ(filter()->marks_exposed.load(), 3U) << "the old file is still there";
    });
    EXPECT_EQ(zorv_block_save_bmp(filter(), incr), 0);
    EXPECT_EQ(filter()->marks_exposed.load(), 1U) << "the other one is due";
  }
  ASSERT_TRUE(settled());
  EXPECT_EQ(zorv_yield_to_dirty_requests(filter(), 10), 0);
  EXPECT_TRUE(is_saved(incr_file));
  EXPECT_TRUE(is_stale(diff_file));
}

TEST_F(dirty_test, writes_do_not_wait_for_the_contents_of_a_file) {
  {
    at_log_line hook("Killing all dirty requests",
                     [] { EXPECT_EQ(filter()->marks_exposed.load(), 0U); });
    EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
  }
  kernel::fault_arm(kernel::fault_site::file_write, 3, 1, EIO);
  at_log_line hook("Failed to write 8 bytes into " + incr_file, [this] {
    mark(2);
    EXPECT_TRUE(eventually([this] { return is_stale(diff_file); })) << "the other one's mark";
  });
  EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, incr), -EIO);
}

TEST_F(dirty_test, a_save_that_overtakes_a_mark_makes_it_needless) {
  at_log_line hook("Appending dirty request for Incremental",
                   [] { EXPECT_EQ(zorv_block_save_bmp(filter(), incr), 0); });
  mark(2);
  ASSERT_TRUE(settled());
  EXPECT_EQ(zorv_yield_to_dirty_requests(filter(), 10), 0);
  EXPECT_TRUE(is_saved(incr_file));
}

TEST_F(dirty_test, a_load_cancels_what_it_makes_needless) {
  {
    const slow_files slow(0);
    kernel::fault_arm(kernel::fault_site::file_write, 1, 2, EIO);
    EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);  // neither marked nor saved, so a mark is due
    EXPECT_TRUE(zorv_marks_pending(filter()));
    EXPECT_EQ(bmp(ZORV_LOAD_BMP, 0, incr), 0);  // the old file has all that the bitmap has
  }
  ASSERT_TRUE(settled());
  EXPECT_EQ(zorv_yield_to_dirty_requests(filter(), 10), 0);
  EXPECT_TRUE(is_saved(incr_file));
}

TEST_F(dirty_test, a_write_waits_for_its_mark) {
  client reader(0U);
  slow_files slow(0);
  write_in_thread first(0, 6);
  ASSERT_TRUE(eventually([] { return zorv_marks_pending(filter()); }));
  write_in_thread second(0, 6);  // its bit is set already, its mark is not on disk either
  EXPECT_EQ(reader.get(6 * 65536, 512), bytes(512, 0));
  EXPECT_FALSE(first.done() || second.done());
  EXPECT_EQ(disk.writes(), 0U);
  slow.release();
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(second.wait(), 0);
  EXPECT_EQ(disk.writes(), 2U);
  EXPECT_EQ(log.errors(), "");
}

// What can neither be marked nor removed in time is noted where the next load looks.
TEST_F(dirty_test, after_thirty_seconds_the_file_is_noted_and_the_write_goes_on) {
  client keeps_open(0U);
  slow_files slow(0);
  write_in_thread a(0, 6), b(0, 7);
  ASSERT_TRUE(eventually([&] { return changed(0, incr) == std::vector<u32>{6, 7}; }));
  kernel::turn_clock(29000);
  EXPECT_FALSE(eventually([&] { return a.done() || b.done(); }, 100));
  kernel::fault_arm(kernel::fault_site::state_write, 1, 2, ENOSPC);  // it is tried again
  kernel::turn_clock(1000);
  EXPECT_EQ(a.wait(), 0);
  EXPECT_EQ(b.wait(), 0);
  EXPECT_TRUE(eventually([&] {
    return log.count("It is noted in the state folder that the file") == 2;
  })) << log.errors();
  EXPECT_TRUE(is_saved(incr_file));
  slow.release();
}

TEST_F(dirty_test, a_mark_that_hangs_keeps_no_command) {
  slow_files slow(0);
  const auto elsewhere = [](const std::function<int()>& command) {
    int rc = 1;
    std::thread([&] { rc = command(); }).join();
    return rc;
  };
  {
    write_in_thread write(0, 6);
    ASSERT_TRUE(eventually([] { return filter()->worker.since != 0; }));
    kernel::turn_clock(30000);
    EXPECT_EQ(write.wait(), 0);
  }
  EXPECT_EQ(elsewhere([this] { return bmp(ZORV_SAVE_BMP, 0, incr); }), -EIO);
  EXPECT_EQ(elsewhere([this] { return stop(0); }), -EIO);
  EXPECT_EQ(elsewhere([this] { return del(0); }), -EBUSY);
  EXPECT_TRUE(log.has("Marking the files of zorv(100, 0) makes no progress")) << log.errors();
  slow.release();
  EXPECT_EQ(del(0), 0);
}

TEST_F(dirty_test, a_command_that_hangs_keeps_neither_writes_nor_other_commands) {
  const auto hang_at = [](const char* line, const std::function<int()>& command,
                          const std::function<void()>& meanwhile) {
    std::atomic<bool> hung{false}, hangs{true};
    at_log_line hook(line, [&] {
      for (hung = true; hangs;) kernel::yield();
    });
    std::thread hanging([&] { EXPECT_EQ(command(), 0); });
    EXPECT_TRUE(eventually([&] { return hung.load(); }));
    meanwhile();
    hangs = false;
    hanging.join();
  };
  client c(0U);
  kernel::fault_arm(kernel::fault_site::file_write, 1, -1, EROFS);
  kernel::fault_arm(kernel::fault_site::file_unlink, 1, -1, EROFS);
  EXPECT_EQ(c.fill(65536, 512, 1), 0);  // noted in the state folder
  kernel::fault_disarm_all();
  hang_at(
      "Taking back the note", [this] { return bmp(ZORV_SAVE_BMP, 0, incr); },
      [&] { EXPECT_EQ(c.fill(196608, 512, 2), 0) << "its mark is written"; });
  EXPECT_TRUE(is_stale(incr_file));
  c.close();
  hang_at(
      "Saving dirty incr/diff", [this] { return stop(0); },
      [&] {
        kernel::turn_clock(30000);
        EXPECT_EQ(stop(0), -EBUSY);
        EXPECT_EQ(del(0), -EBUSY);
        EXPECT_EQ(start(0), -EBUSY);
      });
}

TEST_F(dirty_test, where_the_state_folder_hangs_as_well_the_write_ends_with_an_error) {
  client keeps_open(0U);
  slow_files slow(0);
  std::atomic<bool> hangs{true};
  at_log_line hook("It can't be noted that", [&] {
    while (hangs) kernel::yield();
  });
  kernel::fault_arm(kernel::fault_site::state_write, 1, -1, EIO);
  write_in_thread a(0, 6);
  ASSERT_TRUE(eventually([&] { return changed(0, incr) == std::vector<u32>{6}; }));
  kernel::turn_clock(30000);
  EXPECT_TRUE(eventually([] { return kernel::fault_calls(kernel::fault_site::state_write) != 0; }));
  EXPECT_FALSE(a.done());
  kernel::turn_clock(30000);
  EXPECT_EQ(a.wait(), -EIO);
  EXPECT_EQ(keeps_open.fill(7 * 65536, 512, 1), -EIO) << "those behind it do not wait";
  hangs = false;
  kernel::fault_disarm_all();
  slow.release();
  EXPECT_TRUE(settled());
  EXPECT_EQ(keeps_open.fill(7 * 65536, 512, 1), 0);
}

TEST_F(dirty_test, a_mark_is_tried_again_until_it_is_on_disk) {
  using site = kernel::fault_site;
  client c(0U);
  kernel::fault_arm(site::file_write, 1, -1, EROFS);
  kernel::fault_arm(site::file_unlink, 1, -1, EROFS);
  EXPECT_EQ(c.fill(65536, 512, 1), 0);
  EXPECT_TRUE(is_saved(incr_file)) << "noted in the state folder";
  EXPECT_NE(proc("zorv/zorv0/bmp_trouble").find("noted in the state folder: " + incr_file),
            std::string::npos);
  EXPECT_EQ(bmp(ZORV_LOAD_BMP, 0, incr), 0);
  EXPECT_EQ(get_bmp(0, incr), bytes(2, 0xFF));
  kernel::fault_disarm_all();
  kernel::turn_clock(60000);
  EXPECT_TRUE(eventually([&] { return is_stale(incr_file) && is_stale(diff_file); }));
  // A note that is made while the save takes the last one back stands.
  std::thread noting;
  std::atomic<bool> noted{false};
  {
    at_log_line hook("Taking back the note about " + incr_file, [&] {
      noting = std::thread([&] {
        EXPECT_EQ(zorv_block_excuse_bmp(filter(), incr), 0);
        noted = true;
      });
      (void)eventually([&] { return noted.load(); }, 100);
    });
    EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
  }
  noting.join();
  EXPECT_EQ(bmp(ZORV_LOAD_BMP, 0, incr), 0);
  EXPECT_EQ(get_bmp(0, incr), bytes(2, 0xFF));
  EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
  EXPECT_EQ(bmp(ZORV_LOAD_BMP, 0, incr), 0);
  EXPECT_EQ(get_bmp(0, incr), bytes(2, 0)) << "saved, so the note is gone";

  for (site s : {site::file_write, site::file_unlink, site::state_write}) {
    kernel::fault_arm(s, 1, -1, EIO);
  }
  const auto refused = c.start_write(2 * 65536, bytes(512, 2));
  EXPECT_EQ(refused->wait(), -EIO);
  EXPECT_EQ(c.fill(2 * 65536, 512, 3), -EIO);
  EXPECT_EQ(stop(0), -EBUSY);
  c.close();
  EXPECT_EQ(stop(0), -EIO) << "stopped, but whoever stops it hears of it";
  EXPECT_EQ(disk.peek(2 * 65536, 1)[0], 0);
  kernel::fault_disarm_all();
  EXPECT_EQ(start(0), 0);
  EXPECT_TRUE(settled());
  EXPECT_TRUE(is_stale(incr_file));
  EXPECT_EQ(client(0U).fill(2 * 65536, 512, 4), 0);
}

// The reserve request steps in, also when a save has cancelled it and it is still queued.
TEST_F(dirty_test, short_memory_does_not_lose_a_mark) {
  const auto mark_without_memory = [](u32 extent) {
    kernel::fault_arm(kernel::fault_site::alloc, 1, 2, ENOMEM);
    mark(extent);
    kernel::fault_disarm_all();
  };
  {
    const slow_files slow(0);  // kdirtyd allocates too
    mark_without_memory(1);
    EXPECT_EQ(log.count("<3>ERROR: zorv_sched_write_dirty_flag(): Memory allocation failure"), 2);
    EXPECT_EQ(zorv_block_save_bmp(filter(), incr), 0);
    mark_without_memory(2);
  }
  ASSERT_TRUE(settled());
  EXPECT_TRUE(is_stale(incr_file) && is_stale(diff_file));
}

TEST_F(dirty_test, a_destroyed_filter_is_left_alone) {
  zorv_debug = 2;
  slow_files slow(0);
  mark(1);
  ASSERT_TRUE(eventually([&] { return log.has("kdirtyd(): Got "); }));
  std::atomic<int> rc{0};
  std::atomic<bool> dropped{false};
  std::thread destroy([&] {
    rc = zorv_yield_to_dirty_requests(filter(), 10);
    zorv_drop_dirty_requests(filter());
    dropped = true;
  });
  EXPECT_FALSE(eventually([&] { return rc.load() != 0; }, 50));
  kernel::turn_clock(10000);
  EXPECT_TRUE(eventually([&] { return rc.load() == -ETIMEDOUT; }));
  EXPECT_TRUE(
      log.has("zorv_yield_to_dirty_requests(): There are still some dirty requests pending for "
              "zorv(100, 0). Continuing anyway..."));
  EXPECT_FALSE(eventually([&] { return dropped.load(); }, 50)) << "kdirtyd has one in hand";
  slow.release();
  destroy.join();
  EXPECT_EQ(zorv_yield_to_dirty_requests(filter(), 1), 0);
  EXPECT_TRUE(is_saved(diff_file)) << "the one behind it was dropped";
  EXPECT_EQ(zorv_start_mark_workers(filter()), 0);
}

TEST_F(dirty_test, stopping_drops_what_is_queued) {
  zorv_debug = 2;
  slow_files slow(0);
  mark(1);
  ASSERT_TRUE(eventually([&] { return log.has("kdirtyd(): Got "); }));
  EXPECT_EQ(zorv_stop_kdirtyd(), 0);
  slow.release();
  EXPECT_EQ(zorv_yield_to_dirty_requests(filter(), 1), 0) << "the queue is empty";
  EXPECT_TRUE(is_saved(diff_file)) << "dropped, not written";
  EXPECT_EQ(zorv_start_kdirtyd(), 0);
}
