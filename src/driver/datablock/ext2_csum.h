// SPDX-License-Identifier: GPL-2.0-only
// Checksums that newer relatives of ext2 keep over their metadata. They are the only thing that can
// tell a group's descriptor from that of another group, so they are compared wherever they exist.
#pragma once

#include "driver/core/types.h"

namespace zorv {

// CRC-32C, reflected, without the final inversion; starts from ~0 unless a sum is continued.
[[nodiscard]] u32 ext2_crc32c(u32 sum, const u8* data, u64 bytes);
// CRC-16 of the polynomial 0x8005, reflected; starts from ~0.
[[nodiscard]] u16 ext2_crc16(u16 sum, const u8* data, u64 bytes);

enum class ext2_csum_kind { none, crc16, crc32c };

struct ext2_csum {
  ext2_csum_kind kind = ext2_csum_kind::none;
  u8 uuid[16] = {};
  u32 seed = 0;  // of CRC-32C sums over everything but the superblock

  [[nodiscard]] bool desc_ok(const u8* desc, u32 desc_bytes, u32 group) const;
  // desc holds the sum of the bitmap's first `bytes` bytes.
  [[nodiscard]] bool bitmap_ok(const u8* desc, u32 desc_bytes, const u8* bitmap, u64 bytes) const;
};

// From a superblock of 1024 bytes.
[[nodiscard]] ext2_csum ext2_csum_of(const u8* superblock);
[[nodiscard]] bool ext2_superblock_csum_ok(const ext2_csum& csum, const u8* superblock);

}  // namespace zorv
