// SPDX-License-Identifier: GPL-2.0-only
// Sizes, names and tables, as they are read and shown.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zorv::cli {

// Bytes from digits and at most one of K, M, G, T (powers of 1024). Throws a usage failure for
// anything else and for more than limit.
[[nodiscard]] std::uint64_t parse_size(const std::string& text, std::uint64_t limit);

// "64K", "1.5G", "512": short, for people.
[[nodiscard]] std::string show_size(std::uint64_t bytes);

// What could move the cursor or begin a line becomes \xHH.
[[nodiscard]] std::string printable(std::string_view text);

// What is safe in the path of a URI stays, the rest becomes %XX.
[[nodiscard]] std::string percent_encode(std::string_view text);

// An absolute path: the daemon's working directory is not ours. Nothing is resolved.
[[nodiscard]] std::string absolute_path(const std::string& path);

// The text of a fixed field, up to its NUL.
template <std::size_t N>
[[nodiscard]] std::string field(const char (&from)[N]) {
  const std::string_view all(from, N);
  return std::string(all.substr(0, all.find('\0')));
}

// Copies into a fixed field. Throws a usage failure that names `what` when it does not fit.
void fill_field(char* to, std::size_t bytes, const std::string& from, const char* what);
template <std::size_t N>
void fill(char (&to)[N], const std::string& from, const char* what) {
  fill_field(to, N, from, what);
}

// Rows of cells in aligned columns. Columns whose title begins with '>' are aligned to the right.
class table {
 public:
  explicit table(std::vector<std::string> titles) : titles_(std::move(titles)) {}
  void row(std::vector<std::string> cells);
  [[nodiscard]] std::string text() const;

 private:
  std::vector<std::string> titles_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace zorv::cli
