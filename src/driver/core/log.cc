// SPDX-License-Identifier: GPL-2.0-only
//
// Messages are formatted on the caller's stack, bounded as the shared buffer is: callers log from
// any thread and from completion context at once, and each message has to come out whole. The
// buffer itself is what load reserves first, so that a machine too short of memory to say
// anything refuses to load.
#include "driver/core/log.h"

#include <cstdarg>

#include "kernel/mem.h"
#include "kernel/printk.h"
#include "kernel/task.h"

namespace zorv {

namespace {
constexpr u32 message_bytes = 2048;  // text and NUL
}

std::atomic<int> zorv_debug{1};
std::atomic<char*> zorv_debug_buffer{nullptr};
u32 zorv_debug_buffer_size = 0;

int zorv_debug_init() {
  if (zorv_debug_buffer.load() != nullptr) return 0;
  zorv_debug_buffer_size = message_bytes;
  char* fresh = static_cast<char*>(kernel::kmalloc(message_bytes, kernel::GFP_KERNEL));
  if (fresh == nullptr) return -ENOMEM;
  char* expected = nullptr;
  if (!zorv_debug_buffer.compare_exchange_strong(expected, fresh)) kernel::kfree(fresh);
  return 0;
}

int zorv_debug_destroy() {
  kernel::kfree(zorv_debug_buffer.exchange(nullptr));
  zorv_debug_buffer_size = 0;
  return 0;
}

bool zorv_log_enabled(int level) {
  return level < 1 || level > 4 || zorv_debug.load(std::memory_order_relaxed) >= level;
}

void zorv_log(int level, const char* format, ...) {
  if (zorv_debug_buffer.load(std::memory_order_relaxed) == nullptr) (void)zorv_debug_init();
  if (!zorv_log_enabled(level)) return;

  char text[message_bytes];
  va_list args;
  va_start(args, format);
  const int wanted = std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  std::size_t len = wanted < 0 ? 0 : static_cast<std::size_t>(wanted);
  if (len >= sizeof(text)) len = sizeof(text) - 1;
  text[len] = '\0';
  const char* end = len > 0 && text[len - 1] == '\n' ? "" : "\n";

  if (level == LOG_ERROR) {
    kernel::printk("<3>ERROR: %s%s", text, end);
    return;
  }
  char prefix[16] = " int";
  if (!kernel::in_interrupt())
    std::snprintf(prefix, sizeof(prefix), "%04d", kernel::current()->pid);
  kernel::printk("<6>%s: %s%s", prefix, text, end);
}

}  // namespace zorv
