// SPDX-License-Identifier: GPL-2.0-only
#include "host/log.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zorv {
namespace {

thread_local error_capture* capture = nullptr;

void write_stderr(const char* text, std::size_t bytes) {
  while (bytes > 0) {
    const ssize_t n = ::write(STDERR_FILENO, text, bytes);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // nowhere left to complain to
    text += n;
    bytes -= static_cast<std::size_t>(n);
  }
}

}  // namespace

error_capture::error_capture() : outer_(capture) { capture = this; }
error_capture::~error_capture() { capture = outer_; }

void host_log_sink(const char* text) {
  static constexpr char error_mark[] = "<3>ERROR: ";
  constexpr std::size_t mark_len = sizeof error_mark - 1;
  std::size_t len = std::strlen(text);
  if (capture != nullptr && std::strncmp(text, error_mark, mark_len) == 0) {
    std::size_t body = len - mark_len;
    while (body > 0 && text[mark_len + body - 1] == '\n') --body;
    body = std::min(body, sizeof capture->text_ - 1);
    std::memcpy(capture->text_, text + mark_len, body);
    capture->text_[body] = '\0';
  }
  write_stderr(text, len);
}

void host_log(log_level level, const std::string& text) {
  const std::string line = (level == log_level::error ? "<3>zorvd: " : "<6>zorvd: ") + text + "\n";
  write_stderr(line.data(), line.size());
}

}  // namespace zorv
