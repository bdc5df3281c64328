// SPDX-License-Identifier: GPL-2.0-only
// Where the kernel log goes: standard error, markers included, so that a journal reads the levels.
//
// Whoever logs may hold locks that requests wait for, so nobody waits for the log's reader:
// messages go into a bounded queue, and a thread of its own writes them.
#pragma once

#include <string>

namespace zorv {

// A printk sink. Each message stays whole. Of errors that differ in numbers alone, 50 are written
// in ten seconds and the rest is counted; what is no error is never held back.
//   context  any
void host_log_sink(const char* text);

// One line of the daemon itself: "<3>zorvd: text" or "<6>zorvd: text".
enum class log_level { error, info };
void host_log(log_level level, const std::string& text);

// Starts the writer; until then, and when there is no thread for it, a message is written by its
// caller. What does not fit into the queue is counted, and the count is written in its place.
void host_log_start();
// Waits until everything logged so far is written, at most so long; then the process may end.
void host_log_flush(unsigned limit_ms);

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
