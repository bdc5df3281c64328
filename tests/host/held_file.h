// SPDX-License-Identifier: GPL-2.0-only
// A file whose medium does not answer: in this program, what would have to wait for it waits.
#pragma once

#include <sys/types.h>

#include <string>

namespace zorv_test {

// One at a time. From construction on every sync, and every read or write that the page cache may
// not answer, waits; until then release() or the end lets all of them go.
class held_file {
 public:
  explicit held_file(const std::string& path);
  ~held_file() { release(); }
  held_file(const held_file&) = delete;
  held_file& operator=(const held_file&) = delete;
  void release();
  [[nodiscard]] static unsigned waiting();  // calls that wait now
};

}  // namespace zorv_test
