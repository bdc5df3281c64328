// SPDX-License-Identifier: GPL-2.0-only
// Interleavings by plan: something happens exactly where the driver logs a certain line.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "driver/core/log.h"
#include "kernel/printk.h"

namespace zorv_test {

// Does something in the task that logs when a line with the text goes by, that many times.
class at_log_line {
 public:
  at_log_line(std::string text, std::function<void()> act, int times = 1) {
    {
      const std::lock_guard<std::mutex> guard(lock_);
      text_ = std::move(text);
      act_ = std::move(act);
      times_ = times;
    }
    next_.store(kernel::set_printk_sink(sink));
    zorv_debug_before_ = zorv::zorv_debug;
    zorv::zorv_debug = 2;
  }
  ~at_log_line() {
    zorv::zorv_debug = zorv_debug_before_;
    kernel::set_printk_sink(next_.load());
    const std::lock_guard<std::mutex> guard(lock_);
    EXPECT_EQ(times_, 0) << "no line with " << text_;
    act_ = nullptr;
  }
  at_log_line(const at_log_line&) = delete;
  at_log_line& operator=(const at_log_line&) = delete;

 private:
  static void sink(const char* line) {
    // Another task may log in the moment in which the sink is changed.
    const kernel::printk_sink next = next_.load();
    if (next != nullptr) next(line);
    std::function<void()> act;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      if (times_ > 0 && std::string(line).find(text_) != std::string::npos) {
        act = act_;
        --times_;
      }
    }
    if (act) act();
  }
  static inline std::mutex lock_;
  static inline std::string text_;
  static inline std::function<void()> act_;
  static inline int times_ = 0;
  static inline std::atomic<kernel::printk_sink> next_ = nullptr;
  int zorv_debug_before_ = 0;
};

}  // namespace zorv_test
