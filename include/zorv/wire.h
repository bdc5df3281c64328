// SPDX-License-Identifier: MIT
// Strings and numbers of the control socket's host requests, for both ends of it.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "messages are copied as they are");

namespace zorv::wire {

class writer {
 public:
  writer& str(std::string_view text) {
    const auto len = static_cast<std::uint32_t>(text.size());
    put(&len, sizeof len);
    bytes_.append(text);
    return *this;
  }
  writer& num(std::uint64_t value) {
    put(&value, sizeof value);
    return *this;
  }
  [[nodiscard]] const std::string& bytes() const { return bytes_; }

 private:
  void put(const void* p, std::size_t n) { bytes_.append(static_cast<const char*>(p), n); }
  std::string bytes_;
};

// Reads past the end give empty values and ok() false from then on.
class reader {
 public:
  explicit reader(std::string_view bytes) : rest_(bytes) {}

  std::string_view str() {
    std::uint32_t len = 0;
    if (!take(&len, sizeof len) || len > rest_.size()) return fail();
    const std::string_view text = rest_.substr(0, len);
    rest_.remove_prefix(len);
    return text;
  }
  std::uint64_t num() {
    std::uint64_t value = 0;
    if (!take(&value, sizeof value)) fail();
    return value;
  }
  [[nodiscard]] bool ok() const { return ok_; }
  // Everything was there and nothing is left.
  [[nodiscard]] bool done() const { return ok_ && rest_.empty(); }

 private:
  bool take(void* to, std::size_t n) {
    if (!ok_ || rest_.size() < n) return false;
    std::memcpy(to, rest_.data(), n);
    rest_.remove_prefix(n);
    return true;
  }
  std::string_view fail() {
    ok_ = false;
    rest_ = {};
    return {};
  }
  std::string_view rest_;
  bool ok_ = true;
};

}  // namespace zorv::wire
