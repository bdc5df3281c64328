// SPDX-License-Identifier: GPL-2.0-only
#include "cli/text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "cli/cli.h"

namespace zorv::cli {
namespace {

constexpr std::string_view units = "KMGT";

[[noreturn]] void usage(const std::string& text) { throw failure(status_usage, 0, text); }

}  // namespace

std::uint64_t parse_size(const std::string& text, std::uint64_t limit) {
  std::uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  unsigned shift = 0;
  if (error == std::errc() && end - rest == 1) {
    const std::size_t unit = units.find(static_cast<char>(std::toupper(*rest)));
    if (unit != std::string_view::npos) shift = 10 * (static_cast<unsigned>(unit) + 1);
  }
  if (error == std::errc::invalid_argument || (rest != end && shift == 0)) {
    usage(text + " is no size: digits, then K, M, G or T or nothing");
  }
  if (error != std::errc() || value > limit >> shift) {
    usage(text + " is too large: at most " + std::to_string(limit) + " bytes");
  }
  return value << shift;
}

std::string show_size(std::uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes);
  auto value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < units.size()) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  const bool whole = bytes % (1ULL << 10 * (unit + 1)) == 0 || value >= 100;
  std::snprintf(text, sizeof text, whole ? "%.0f%c" : "%.1f%c", value, units[unit]);
  return text;
}

std::string printable(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    const bool second_set = c == 0xc2 && next >= 0x80 && next < 0xa0;  // U+0080 to U+009F
    if (c >= 0x20 && c != 0x7f && !second_set) {
      out += text[i];
      continue;
    }
    char code[5];
    std::snprintf(code, sizeof code, "\\x%02x", second_set ? next : c);
    out += code;
    if (second_set) ++i;
  }
  return out;
}

std::string percent_encode(std::string_view text) {
  static constexpr std::string_view safe = "-._~/";
  std::string out;
  for (const char c : text) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0 ||
        safe.find(c) != std::string_view::npos) {
      out += c;
    } else {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02X",
                    static_cast<unsigned>(static_cast<unsigned char>(c)));
      out += code;
    }
  }
  return out;
}

std::string absolute_path(const std::string& path) {
  return path.empty() ? path : std::filesystem::absolute(path).string();
}

void fill_field(char* to, std::size_t bytes, const std::string& from, const char* what) {
  if (from.size() >= bytes) {
    usage(std::string(what) + " is too long: at most " + std::to_string(bytes - 1) + " bytes");
  }
  std::memset(to, 0, bytes);
  from.copy(to, bytes - 1);
}

void table::row(std::vector<std::string> cells) {
  for (std::string& cell : cells) cell = printable(cell);
  rows_.push_back(std::move(cells));
}

std::string table::text() const {
  std::vector<std::size_t> widths(titles_.size());
  std::vector<bool> right(titles_.size());
  std::vector<std::vector<std::string>> rows = {titles_};
  for (std::size_t i = 0; i < titles_.size(); ++i) {
    right[i] = titles_[i].front() == '>';
    if (right[i]) rows[0][i].erase(0, 1);
  }
  rows.insert(rows.end(), rows_.begin(), rows_.end());
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string out;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string pad(widths[i] - row[i].size(), ' ');
      line += right[i] ? pad + row[i] : row[i] + pad;
      line += "  ";
    }
    out += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return out;
}

}  // namespace zorv::cli
