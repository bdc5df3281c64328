// SPDX-License-Identifier: GPL-2.0-only
// The driver's one way to say anything.
#pragma once

#include <atomic>

#include "driver/core/types.h"

namespace zorv {

// Levels: 1 major events, 2 detail, 3 results and sizes, 4 per request, 255 errors.
constexpr int LOG_ERROR = 255;

// Verbosity. A module parameter, writable in the status tree, read everywhere without a lock.
extern std::atomic<int> zorv_debug;
extern std::atomic<char*> zorv_debug_buffer;  // there from load to unload
extern u32 zorv_debug_buffer_size;            // bytes: 2048 while the buffer exists, else 0

// Formats and prints one message: errors as "<3>ERROR: text", everything else as "<6>prefix: text"
// with the task's id or " int"; levels 1 to 4 only when zorv_debug is at least the level. At most
// 2047 characters of text; one newline ends the line. Each message comes out whole.
//   context  any
__attribute__((format(printf, 2, 3))) void zorv_log(int level, const char* format, ...);

// Whether a message of the level would be printed; for call sites on the request path.
bool zorv_log_enabled(int level);

[[nodiscard]] int zorv_debug_init();  // 0 | -ENOMEM
int zorv_debug_destroy();             // 0

}  // namespace zorv
