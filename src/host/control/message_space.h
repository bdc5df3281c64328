// SPDX-License-Identifier: GPL-2.0-only
// A caller's address space made of what came in its message: its record and its buffer, each at
// the address at which the caller has it.
#pragma once

#include <cstddef>

#include "kernel/uaccess.h"

namespace zorv {

// Zero-filled memory that the host provides page by page as it is used.
class lazy_buffer {
 public:
  lazy_buffer() = default;
  ~lazy_buffer();
  lazy_buffer(lazy_buffer&& other) noexcept;
  lazy_buffer& operator=(lazy_buffer&& other) noexcept;
  [[nodiscard]] bool allocate(std::size_t bytes);  // false: no memory; 0 bytes always fit
  [[nodiscard]] char* data() const { return data_; }
  [[nodiscard]] std::size_t size() const { return size_; }

 private:
  char* data_ = nullptr;
  std::size_t size_ = 0;
};

class message_space : public kernel::user_space {
 public:
  enum direction : unsigned { none = 0, in = 1, out = 2 };

  // A run of the caller's memory. Only what one run holds whole can be copied.
  struct segment {
    kernel::user_addr addr = 0;
    char* data = nullptr;
    std::size_t size = 0;
    unsigned allowed = none;        // direction flags
    std::size_t written_begin = 0;  // what the driver has written: one run, begin <= end
    std::size_t written_end = 0;
  };

  message_space(const segment& record, const segment& buffer) : record_(record), buffer_(buffer) {}

  bool read(void* to, kernel::user_addr from, std::size_t n) override;
  // A write must join what was written to the segment before; the driver copies front to back.
  bool write(kernel::user_addr to, const void* from, std::size_t n) override;

  [[nodiscard]] const segment& record() const { return record_; }
  [[nodiscard]] const segment& buffer() const { return buffer_; }

 private:
  [[nodiscard]] segment* find(kernel::user_addr addr, std::size_t n, direction wanted);

  segment record_;
  segment buffer_;
};

}  // namespace zorv
