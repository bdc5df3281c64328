// SPDX-License-Identifier: GPL-2.0-only
#include "host/control/message_space.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace zorv {

lazy_buffer::~lazy_buffer() {
  if (data_ != nullptr) ::munmap(data_, size_);
}

lazy_buffer::lazy_buffer(lazy_buffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

lazy_buffer& lazy_buffer::operator=(lazy_buffer&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  return *this;
}

bool lazy_buffer::allocate(std::size_t bytes) {
  *this = lazy_buffer();
  if (bytes == 0) return true;
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (p == MAP_FAILED) return false;
  data_ = static_cast<char*>(p);
  size_ = bytes;
  return true;
}

message_space::segment* message_space::find(kernel::user_addr addr, std::size_t n,
                                            direction wanted) {
  for (segment* s : {&record_, &buffer_}) {
    if ((s->allowed & wanted) != 0 && addr >= s->addr && n <= s->size &&
        addr - s->addr <= s->size - n) {
      return s;
    }
  }
  return nullptr;
}

bool message_space::read(void* to, kernel::user_addr from, std::size_t n) {
  const segment* s = find(from, n, in);
  if (s == nullptr) return false;
  std::memcpy(to, s->data + (from - s->addr), n);
  return true;
}

bool message_space::write(kernel::user_addr to, const void* from, std::size_t n) {
  segment* s = find(to, n, out);
  if (s == nullptr) return false;
  const std::size_t begin = to - s->addr;
  const bool first = s->written_begin == s->written_end;
  if (!first && (begin > s->written_end || begin + n < s->written_begin)) return false;
  std::memcpy(s->data + begin, from, n);
  s->written_begin = first ? begin : std::min(s->written_begin, begin);
  s->written_end = first ? begin + n : std::max(s->written_end, begin + n);
  return true;
}

}  // namespace zorv
