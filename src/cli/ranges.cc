// SPDX-License-Identifier: GPL-2.0-only
#include "cli/ranges.h"

#include <algorithm>

#include "cli/text.h"

namespace zorv::cli {

std::vector<byte_range> set_ranges(std::span<const unsigned char> bitmap,
                                   std::uint64_t bytes_per_bit, std::uint64_t size_bytes) {
  std::vector<byte_range> ranges;
  const std::uint64_t covered = (size_bytes + bytes_per_bit - 1) / bytes_per_bit;
  const std::uint64_t bits = std::min<std::uint64_t>(covered, bitmap.size() * 8);
  for (std::uint64_t bit = 0; bit < bits; ++bit) {
    const unsigned char byte = bitmap[bit / 8];
    if (byte == 0 && bit % 8 == 0) {
      bit += 7;
      continue;
    }
    if ((byte >> bit % 8 & 1) == 0) continue;
    const std::uint64_t offset = bit * bytes_per_bit;
    const std::uint64_t length = std::min(bytes_per_bit, size_bytes - offset);
    if (!ranges.empty() && ranges.back().offset + ranges.back().length == offset) {
      ranges.back().length += length;
    } else {
      ranges.push_back({offset, length});
    }
  }
  return ranges;
}

answer show_ranges(const std::vector<byte_range>& ranges, std::uint64_t size_bytes, json document) {
  std::uint64_t total = 0;
  std::string text;
  json list = json::array();
  for (const byte_range& r : ranges) {
    total += r.length;
    text += std::to_string(r.offset) + " " + std::to_string(r.length) + "\n";
    list.push_back({{"offset", r.offset}, {"length", r.length}});
  }
  text += "total " + std::to_string(total) + " of " + std::to_string(size_bytes) + " bytes in " +
          std::to_string(ranges.size()) + (ranges.size() == 1 ? " range\n" : " ranges\n");
  document["dev_size"] = size_bytes;
  document["ranges"] = std::move(list);
  document["total"] = total;
  return {std::move(document), std::move(text)};
}

}  // namespace zorv::cli
