// SPDX-License-Identifier: GPL-2.0-only
// Spin locks, waiting and waking, threads and the clock, under contention.
#include "kernel/lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "doubles/fault.h"
#include "kernel/task.h"
#include "kernel/time.h"
#include "support/driver_fixture.h"

using namespace kernel;
using zorv_test::eventually;

namespace {

template <class Body>
void in_threads(unsigned count, Body body) {
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < count; ++i) threads.emplace_back([=] { body(i); });
  for (auto& t : threads) t.join();
}

}  // namespace

TEST(spinlock, holders_exclude_each_other) {
  spinlock_t lock;
  u64 plain = 0;
  std::atomic<unsigned> ready{0};
  in_threads(4, [&](unsigned) {
    ready.fetch_add(1);
    while (ready.load() < 4) yield();
    for (int i = 0; i < 100000; ++i) {
      spin_guard guard(&lock);
      const u64 seen = plain;
      std::atomic_signal_fence(std::memory_order_seq_cst);  // a read, later a write
      plain = seen + 1;
    }
  });
  EXPECT_EQ(plain, 400000U);
  EXPECT_EQ(current()->spin_depth, 0U);
}

// Who works under the lock in pieces lets others in by that.
TEST(spinlock, a_task_that_waits_is_seen_until_it_has_the_lock) {
  spinlock_t lock;
  std::atomic<bool> had{false};
  lock.lock();
  std::thread waiter([&] {
    spin_guard guard(&lock);
    had = true;
  });
  EXPECT_TRUE(eventually([&] { return spin_is_contended(&lock); }));
  EXPECT_FALSE(had);
  lock.unlock();
  waiter.join();
  EXPECT_FALSE(spin_is_contended(&lock));
}

TEST(sleeping_deathtest, is_a_bug_under_a_spin_lock_and_in_completion_context) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        spinlock_t lock;
        spin_guard guard(&lock);
        yield();
      },
      "BUG: yield may sleep.*1 spin locks held");
  EXPECT_DEATH(
      {
        bio b;
        b.bi_end_io = [](bio*, int) {
          completion c;
          wait_for_completion(&c);
        };
        bio_endio(&b, 0);
      },
      "BUG: wait_for_completion may sleep.*in completion context");
  EXPECT_DEATH(
      {
        spinlock_t lock;
        bio b;
        spin_guard guard(&lock);
        bio_endio(&b, 0);
      },
      "BUG: bio_endio called");
}

// A hand-over between two tasks: a lost wake-up hangs it.
TEST(wait_queue, no_wake_up_is_lost) {
  wait_queue_head q;
  std::atomic<int> turn{0};
  in_threads(2, [&](unsigned me) {
    for (int i = 0; i < 5000; ++i) {
      wait_event(&q, [&] { return turn.load() % 2 == static_cast<int>(me); });
      turn.fetch_add(1);
      wake_up(&q);
    }
  });
  EXPECT_EQ(turn.load(), 10000);
}

TEST(wait_queue, wakes_all_plain_waiters_and_as_many_exclusive_ones_as_asked) {
  wait_queue_head q;
  std::atomic<u32> sleeping{0}, woken_plain{0}, woken_exclusive{0};
  const auto sleeper = [&](bool exclusive) {
    wait_queue_entry e;
    (exclusive ? add_wait_queue_exclusive : add_wait_queue)(&q, &e);
    set_current_state(TASK_UNINTERRUPTIBLE);
    sleeping.fetch_add(1);
    schedule();
    (exclusive ? woken_exclusive : woken_plain).fetch_add(1);
    remove_wait_queue(&q, &e);
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) threads.emplace_back(sleeper, i % 2 == 0);
  ASSERT_TRUE(eventually([&] { return sleeping.load() == 6; }));
  wake_up_nr(&q, TASK_INTERRUPTIBLE, 0);  // none sleeps that way
  wake_up(&q);
  ASSERT_TRUE(eventually([&] { return woken_plain.load() == 3 && woken_exclusive.load() == 1; }));
  // Whoever has been woken and not yet left the queue takes nobody else's wake-up.
  wake_up_nr(&q, TASK_NORMAL, 2);
  for (auto& t : threads) t.join();
  EXPECT_EQ(woken_exclusive.load(), 3U);
}

TEST(completion, may_die_as_soon_as_its_waiter_goes_on) {
  std::atomic<completion*> handed{nullptr};
  constexpr int rounds = 5000;
  std::thread completer([&] {
    for (int i = 0; i < rounds; ++i) {
      completion* c = nullptr;
      while ((c = handed.exchange(nullptr)) == nullptr) yield();
      complete(c);
    }
  });
  for (int i = 0; i < rounds; ++i) {
    auto c = std::make_unique<completion>();
    handed.store(c.get());
    wait_for_completion(c.get());
  }
  completer.join();
}

TEST(clock, sleepers_notice_when_it_is_turned) {
  wait_queue_head q;
  EXPECT_FALSE(wait_event_timeout(
      &q, [] { return false; }, 5));
  std::atomic<int> looked{0};
  std::atomic<bool> timed_out{false};
  const u64 before = jiffies();
  std::thread sleeper([&] {
    timed_out.store(!wait_event_timeout(
        &q, [&] { return looked.fetch_add(1) < 0; }, 600000));
  });
  // The second look comes when the deadline has been set.
  ASSERT_TRUE(eventually([&] { return looked.load() >= 2; }));
  turn_clock(600001);
  sleeper.join();
  EXPECT_TRUE(timed_out.load());
  EXPECT_GE(jiffies() - before, 600001U);
  EXPECT_LT(jiffies() - before, 700000U);
}

#ifdef ZORV_LOCK_ORDER
TEST(lock_order_deathtest, a_lock_taken_against_it_ends_the_program_with_both_stacks) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  static constexpr lock_class outer{"outer", 1, false};
  static constexpr lock_class inner{"inner", 2, true};
  spinlock_t a(outer), b(inner), c(inner);
  {
    spin_guard first(&a);
    spin_guard second(&b);
    spin_guard third(&c);
  }
  EXPECT_DEATH(
      {
        spinlock_t d(outer);
        spin_guard first(&a);
        spin_guard second(&d);
      },
      "takes outer");
  spin_guard holds(&c);  // whose place is free again
  EXPECT_DEATH(
      { spin_guard takes(&a); },
      "against their order\nholds inner (.|\n)*TestBody(.|\n)*takes outer (.|\n)*TestBody");
}
#endif

TEST(time_compare, survives_the_wrap) {
  constexpr u64 top = ~u64{0};
  static_assert(time_after(5, top) && !time_after(top, 5) && !time_after(7, 7));
  static_assert(time_after_eq(7, 7) && time_after_eq(5, top) && !time_after_eq(top, 5));
}
