// SPDX-License-Identifier: GPL-2.0-only
// The kernel log.
#pragma once

namespace kernel {

// Formats one message (its "<3>" or "<6>" marker included, at most 4095 bytes) and hands it to
// the sink whole. Any context; never fails.
__attribute__((format(printf, 1, 2))) void printk(const char* fmt, ...);

// Where messages go; the default writes to standard error. The sink may be called by several
// threads at once and in completion context. Null brings the default back. Returns the previous
// sink.
using printk_sink = void (*)(const char* text);
printk_sink set_printk_sink(printk_sink sink);

}  // namespace kernel
