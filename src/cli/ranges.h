// SPDX-License-Identifier: GPL-2.0-only
// Bitmaps as ranges of bytes.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "cli/cli.h"

namespace zorv::cli {

struct byte_range {
  std::uint64_t offset;
  std::uint64_t length;
  bool operator==(const byte_range&) const = default;
};

// The runs of set bits among the first that cover size_bytes, as byte ranges: neighbours merged,
// the last one cut at the size. Bits past the bitmap's end count as clear.
[[nodiscard]] std::vector<byte_range> set_ranges(std::span<const unsigned char> bitmap,
                                                 std::uint64_t bytes_per_bit,
                                                 std::uint64_t size_bytes);

// One line "offset length" per range and a total; the document's "ranges" and "total".
[[nodiscard]] answer show_ranges(const std::vector<byte_range>& ranges, std::uint64_t size_bytes,
                                 json document);

}  // namespace zorv::cli
