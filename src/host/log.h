// SPDX-License-Identifier: GPL-2.0-only
// Where the kernel log goes: standard error, markers included, so that a journal reads the levels.
#pragma once

#include <string>

namespace zorv {

// A printk sink. Each message is one write; nobody's message is cut by another's.
void host_log_sink(const char* text);

// One line of the daemon itself: "<3>zorvd: text" or "<6>zorvd: text".
enum class log_level { error, info };
void host_log(log_level level, const std::string& text);

// Keeps the last error that the driver logs in this thread while it lives: the reason that a
// client is told beside the errno.
class [[nodiscard]] error_capture {
 public:
  error_capture();
  ~error_capture();
  error_capture(const error_capture&) = delete;
  error_capture& operator=(const error_capture&) = delete;
  // The message without marker, "ERROR: " and newline; empty when none was logged.
  [[nodiscard]] const char* text() const { return text_; }

 private:
  friend void host_log_sink(const char* text);
  char text_[512] = {};
  error_capture* outer_;
};

}  // namespace zorv
