// SPDX-License-Identifier: GPL-2.0-only
#include "driver/datablock/ext2_csum.h"

#include "driver/datablock/bits.h"

namespace zorv {

namespace {

constexpr u32 incompat_csum_seed = 0x2000;
constexpr u32 ro_compat_gdt_csum = 0x10;
constexpr u32 ro_compat_metadata_csum = 0x400;
constexpr u32 superblock_csum_at = 1020;
constexpr u32 desc_csum_at = 30;
constexpr u32 desc_bitmap_csum_lo_at = 24;
constexpr u32 desc_bitmap_csum_hi_at = 56;

// Reflected CRC tables by byte.
template <class T, T polynomial>
constexpr auto make_table() {
  struct {
    T of[256];
  } t{};
  for (u32 v = 0; v < 256; ++v) {
    T sum = static_cast<T>(v);
    for (int i = 0; i < 8; ++i) {
      sum = static_cast<T>((sum & 1) != 0 ? (sum >> 1) ^ polynomial : sum >> 1);
    }
    t.of[v] = sum;
  }
  return t;
}
constexpr auto crc32c_table = make_table<u32, 0x82f63b78>();
constexpr auto crc16_table = make_table<u16, 0xa001>();

}  // namespace

u32 ext2_crc32c(u32 sum, const u8* data, u64 bytes) {
  for (u64 i = 0; i < bytes; ++i) sum = crc32c_table.of[(sum ^ data[i]) & 0xff] ^ (sum >> 8);
  return sum;
}

u16 ext2_crc16(u16 sum, const u8* data, u64 bytes) {
  for (u64 i = 0; i < bytes; ++i) {
    sum = static_cast<u16>(crc16_table.of[(sum ^ data[i]) & 0xff] ^ (sum >> 8));
  }
  return sum;
}

ext2_csum ext2_csum_of(const u8* superblock) {
  ext2_csum c;
  std::memcpy(c.uuid, superblock + 104, sizeof c.uuid);
  const u32 incompat = get_le32(superblock + 96);
  const u32 ro_compat = get_le32(superblock + 100);
  if ((ro_compat & ro_compat_metadata_csum) != 0) {
    c.kind = ext2_csum_kind::crc32c;
    c.seed = (incompat & incompat_csum_seed) != 0 ? get_le32(superblock + 624)
                                                  : ext2_crc32c(~0U, c.uuid, sizeof c.uuid);
  } else if ((ro_compat & ro_compat_gdt_csum) != 0) {
    c.kind = ext2_csum_kind::crc16;
  }
  return c;
}

bool ext2_superblock_csum_ok(const ext2_csum& csum, const u8* superblock) {
  return csum.kind != ext2_csum_kind::crc32c || ext2_crc32c(~0U, superblock, superblock_csum_at) ==
                                                    get_le32(superblock + superblock_csum_at);
}

bool ext2_csum::desc_ok(const u8* desc, u32 desc_bytes, u32 group) const {
  if (kind == ext2_csum_kind::none) return true;
  const u8 number[4] = {static_cast<u8>(group), static_cast<u8>(group >> 8),
                        static_cast<u8>(group >> 16), static_cast<u8>(group >> 24)};
  const u8* rest = desc + desc_csum_at + 2;
  const u64 rest_bytes = desc_bytes - desc_csum_at - 2;
  u16 sum = 0;
  if (kind == ext2_csum_kind::crc32c) {
    constexpr u8 blank[2] = {};
    u32 wide = ext2_crc32c(seed, number, sizeof number);
    wide = ext2_crc32c(wide, desc, desc_csum_at);
    wide = ext2_crc32c(wide, blank, sizeof blank);
    sum = static_cast<u16>(ext2_crc32c(wide, rest, rest_bytes));
  } else {
    sum = ext2_crc16(0xffff, uuid, sizeof uuid);
    sum = ext2_crc16(sum, number, sizeof number);
    sum = ext2_crc16(sum, desc, desc_csum_at);
    sum = ext2_crc16(sum, rest, rest_bytes);
  }
  return sum == get_le16(desc + desc_csum_at);
}

bool ext2_csum::bitmap_ok(const u8* desc, u32 desc_bytes, const u8* bitmap, u64 bytes) const {
  if (kind != ext2_csum_kind::crc32c) return true;
  const u32 sum = ext2_crc32c(seed, bitmap, bytes);
  if (get_le16(desc + desc_bitmap_csum_lo_at) != (sum & 0xffff)) return false;
  return desc_bytes <= desc_bitmap_csum_hi_at ||
         get_le16(desc + desc_bitmap_csum_hi_at) == sum >> 16;
}

}  // namespace zorv
