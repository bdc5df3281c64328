// SPDX-License-Identifier: GPL-2.0-only
// Raw bitmaps to and from files and standard streams.
#pragma once

#include <sys/types.h>

#include <memory>
#include <span>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace zorv::cli {

// What was written to it is on disk with its name, or went to a pipe or a device: 0 or an errno.
[[nodiscard]] int sync_output(int fd);

// Where a raw bitmap goes: a file, which gets its name only when it is whole and on disk, what a
// link leads to, a pipe or a device, or standard output. Everything that can fail early fails in
// the constructor, before the bitmap is taken from the driver. One at a time in a process.
class bitmap_sink {
 public:
  // Path "": standard output, which must be no terminal. Throws, EBUSY for a locked file.
  explicit bitmap_sink(const std::string& path);
  ~bitmap_sink();
  bitmap_sink(const bitmap_sink&) = delete;
  bitmap_sink& operator=(const bitmap_sink&) = delete;
  // Throws when not every byte is where it belongs, and on disk if that is a file.
  void write(std::span<const unsigned char> bytes);

 private:
  void open_through(int flags);
  void open_beside(mode_t mode, bool replaces);

  std::string path_;
  std::string temporary_;
  int fd_ = -1;
};

// "-o FILE" of a command; "-" becomes "".
void add_output_option(CLI::App* command, std::string* file);

// The whole file, "-" for standard input. Throws when it is not exactly that long.
[[nodiscard]] std::vector<unsigned char> read_bitmap(const std::string& path, std::size_t bytes);

// RFC 4648, with padding.
[[nodiscard]] std::string base64(std::span<const unsigned char> bytes);

}  // namespace zorv::cli
