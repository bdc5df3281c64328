// SPDX-License-Identifier: GPL-2.0-only
// Raw bitmaps to and from files and standard streams.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

namespace zorv::cli {

// Where a raw bitmap goes: a file, which gets its name only when it is whole and on disk, or
// standard output. Everything that can fail early fails in the constructor, before the bitmap is
// taken from the driver.
class bitmap_sink {
 public:
  // Path "": standard output, which must be no terminal. Throws.
  explicit bitmap_sink(const std::string& path);
  ~bitmap_sink();
  bitmap_sink(const bitmap_sink&) = delete;
  bitmap_sink& operator=(const bitmap_sink&) = delete;
  // Throws when not every byte is where it belongs.
  void write(std::span<const unsigned char> bytes);

 private:
  std::string path_;
  std::string temporary_;
  int fd_ = -1;
};

// The whole file, "-" for standard input. Throws when it is not exactly that long.
[[nodiscard]] std::vector<unsigned char> read_bitmap(const std::string& path, std::size_t bytes);

// RFC 4648, with padding.
[[nodiscard]] std::string base64(std::span<const unsigned char> bytes);

}  // namespace zorv::cli
