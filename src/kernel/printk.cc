// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/printk.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kernel {
namespace {

constexpr std::size_t message_bytes = 4096;

// One write per message, so that messages of several threads do not mix.
void write_to_stderr(const char* text) {
  char line[message_bytes + 1];
  std::size_t len = strnlen(text, message_bytes);
  std::memcpy(line, text, len);
  if (len == 0 || line[len - 1] != '\n') line[len++] = '\n';
  const char* at = line;
  while (len > 0) {
    const ssize_t n = ::write(STDERR_FILENO, at, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    at += n;
    len -= static_cast<std::size_t>(n);
  }
}

std::atomic<printk_sink> current_sink{write_to_stderr};

}  // namespace

void printk(const char* fmt, ...) {
  const int saved_errno = errno;
  char text[message_bytes];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  current_sink.load(std::memory_order_acquire)(text);
  errno = saved_errno;
}

printk_sink set_printk_sink(printk_sink sink) {
  return current_sink.exchange(sink != nullptr ? sink : write_to_stderr);
}

}  // namespace kernel
