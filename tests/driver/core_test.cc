// SPDX-License-Identifier: GPL-2.0-only
// Locks, log, load and unload.
#include <gtest/gtest.h>

#include "driver/core/lock.h"
#include "driver/core/log.h"
#include "driver/core/module.h"
#include "kernel/chrdev.h"
#include "kernel/module.h"
#include "kernel/procfs.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

// The tests misuse locks on purpose, so the analysis is off for them.
struct lock_test : ::testing::Test {
  log_capture log;
};

TEST_F(lock_test, writer_recurses_and_misuse_changes_nothing) NO_THREAD_SAFETY_ANALYSIS {
  rzrwlock l;
  rzwrite_lock(&l);
  rzwrite_lock(&l);
  EXPECT_EQ(l.count, -2);
  std::thread([&]() NO_THREAD_SAFETY_ANALYSIS { rzwrite_unlock(&l); }).join();
  EXPECT_EQ(l.count, -2);
  EXPECT_EQ(log.count("<3>ERROR: rzwrite_unlock(): Can't release RW lock: not owner."), 1);
  rzwrite_unlock(&l);
  rzwrite_unlock(&l);
  EXPECT_EQ(l.count, 0);
  EXPECT_EQ(l.owner, nullptr);
  rzwrite_unlock(&l);
  EXPECT_EQ(log.count("not owner."), 2);
  rzread_unlock(&l);
  EXPECT_EQ(log.count("<3>ERROR: rzread_unlock(): Can't release RO lock: not locked."), 1);
  EXPECT_EQ(l.count, 0);
}

TEST_F(lock_test, reader_enters_while_a_writer_waits) NO_THREAD_SAFETY_ANALYSIS {
  rzrwlock l;
  rzread_lock(&l);
  rzread_lock(&l);
  std::atomic<bool> writing{false};
  std::thread writer([&]() NO_THREAD_SAFETY_ANALYSIS {
    rzwrite_lock(&l);
    writing = true;
    rzwrite_unlock(&l);
  });
  ASSERT_TRUE(eventually([&]() NO_THREAD_SAFETY_ANALYSIS {
    const kernel::spin_guard guard(&l.wait.lock);
    return !l.wait.entries.empty();
  }));
  std::thread([&]() NO_THREAD_SAFETY_ANALYSIS { rzread_lock(&l); }).join();  // a third one
  for (int readers = 3; readers > 0; --readers) {
    EXPECT_FALSE(writing);
    rzread_unlock(&l);
  }
  writer.join();
  EXPECT_TRUE(writing);
}

TEST_F(lock_test, mutex_recurses_and_excludes) NO_THREAD_SAFETY_ANALYSIS {
  rzmutex m;
  rzmutex_lock(&m);
  rzmutex_lock(&m);
  rzmutex_lock(&m);
  std::thread([&]() NO_THREAD_SAFETY_ANALYSIS { rzmutex_unlock(&m); }).join();
  EXPECT_EQ(log.count("<3>ERROR: rzmutex_unlock(): Can't unlock mutex: not owner."), 1);
  std::atomic<bool> entered{false};
  std::thread other([&]() NO_THREAD_SAFETY_ANALYSIS {
    rzmutex_lock(&m);
    entered = true;
    rzmutex_unlock(&m);
  });
  rzmutex_unlock(&m);
  rzmutex_unlock(&m);
  EXPECT_FALSE(entered);
  rzmutex_unlock(&m);
  other.join();
  EXPECT_TRUE(entered);
}

struct log_test : ::testing::Test {
  log_capture log;
  void TearDown() override { zorv_debug = 1; }
};

TEST_F(log_test, levels_are_filtered_and_forms_differ) {
  struct {
    int debug;
    std::vector<int> printed;
  } const table[] = {
      {0, {255, 7}}, {1, {1, 255, 7}}, {3, {1, 2, 3, 255, 7}}, {4, {1, 2, 3, 4, 255, 7}}};
  for (const auto& row : table) {
    zorv_debug = row.debug;
    log.clear();
    for (int level : {1, 2, 3, 4, 255, 7}) zorv_log(level, "level %d", level);
    std::vector<int> seen;
    for (const auto& l : log.lines()) seen.push_back(std::stoi(l.substr(l.rfind(' ') + 1)));
    EXPECT_EQ(seen, row.printed) << "zorv_debug " << row.debug;
  }
  kernel::current()->pid = 7;
  log.clear();
  zorv_log(1, "%s(): x", "f");
  zorv_log(1, "%s(): x\n", "f");
  zorv_log(255, "%s(): Memory allocation failed.", "f");
  kernel::current()->pid = 123456;
  zorv_log(1, "y");
  kernel::current()->irq_depth = 1;
  zorv_log(1, "z");
  kernel::current()->irq_depth = 0;
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"<6>0007: f(): x", "<6>0007: f(): x",
                                                   "<3>ERROR: f(): Memory allocation failed.",
                                                   "<6>123456: y", "<6> int: z"}));
}

TEST_F(log_test, long_messages_are_cut_and_stay_whole_among_many) {
  zorv_log(1, "%s", std::string(3000, 'a').c_str());
  EXPECT_EQ(log.lines().at(0).substr(log.lines()[0].find(": ") + 2), std::string(2047, 'a'));
  log.clear();
  std::vector<std::thread> threads;
  for (char c : {'b', 'c', 'd'}) {
    threads.emplace_back([c] {
      for (int i = 0; i < 200; ++i) zorv_log(255, "%s", std::string(1500, c).c_str());
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_EQ(log.lines().size(), 600U);
  for (const auto& l : log.lines()) {
    EXPECT_EQ(l, "<3>ERROR: " + std::string(1500, l.back()));
  }
}

struct load_test : ::testing::Test {
  void SetUp() override { reset_parameters(); }
  void TearDown() override {
    kernel::fault_disarm_all();
    reset_parameters();
    kernel::join_exited_threads();
  }
  static bool tree_exists() {
    std::vector<kernel::proc_listing> l;
    return kernel::proc_list("zorv", &l) == 0;
  }
  log_capture log;
};

TEST_F(load_test, a_failed_step_leaves_nothing_behind_and_the_next_load_succeeds) {
  using site = kernel::fault_site;
  struct {
    site where;
    int error;
    const char* said;
  } const table[] = {{site::chrdev_register, EBUSY, "Failed to register character device: rc=-16."},
                     {site::blkdev_register, EBUSY, "zorv_init(): rc=-16"},
                     {site::thread_create, EAGAIN, "zorv_init(): rc=-11"}};
  for (const auto& row : table) {
    kernel::fault_arm(row.where, 1, 1, row.error);
    EXPECT_EQ(zorv_init(), -row.error);
    EXPECT_TRUE(log.has(row.said)) << log.errors();
    EXPECT_FALSE(tree_exists());
    EXPECT_EQ(zorv_debug_buffer.load(), nullptr);
    EXPECT_EQ(zorv_blk_registered, 0);
    kernel::fault_disarm_all();
  }
  // Every allocation and every entry of the tree in turn.
  for (site where : {site::alloc, site::proc_create}) {
    for (u64 n = 1;; ++n) {
      kernel::fault_arm(where, n, 1, ENOMEM);
      const int rc = zorv_init();
      const bool reached = kernel::fault_calls(where) >= n;
      kernel::fault_disarm_all();
      if (rc == 0) {
        EXPECT_EQ(zorv_cleanup(), 0) << log.errors();
        if (!reached) break;
        continue;
      }
      EXPECT_FALSE(tree_exists()) << "after failing call " << n;
      EXPECT_EQ(zorv_blk_registered, 0) << "after failing call " << n;
    }
  }
}

TEST_F(load_test, the_kernel_chooses_majors_and_the_parameter_shows_them) {
  ASSERT_EQ(kernel::module_param_set("zorv_chr_major", "0"), 0);
  ASSERT_EQ(kernel::module_param_set("zorv_blk_major", "0"), 0);
  ASSERT_EQ(zorv_init(), 0);
  EXPECT_GT(zorv_chr_major, 0);
  EXPECT_GT(zorv_blk_major, 0);
  u32 major = 0;
  EXPECT_NE(kernel::chrdev_find("zorv", &major), nullptr);
  EXPECT_EQ(static_cast<int>(major), zorv_chr_major);
  std::string text;
  EXPECT_EQ(kernel::proc_read("zorv/blk_major", &text), 0);
  EXPECT_EQ(text, std::to_string(zorv_blk_major) + "\n");
  EXPECT_EQ(zorv_cleanup(), 0);
}
