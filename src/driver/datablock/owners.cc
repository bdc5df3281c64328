// SPDX-License-Identifier: GPL-2.0-only
// Whose device it is, if not the file system's whose superblock was found.
//
// A superblock outlives its file system. Storage pools, RAID arrays, caches, volume managers and
// ciphers write their labels around the place where it lies (the first 16 KiB are often left
// alone), so what it says about free blocks would be believed about somebody else's data. Each of
// them has a public on-disk format with a fixed mark at a fixed place; one of these anywhere is
// enough. A mark may also be the remains of an earlier owner: nothing on the disk tells that apart,
// and the answer that costs copies is the safe one.
#include <string_view>

#include "driver/datablock/reader.h"
#include "driver/util/file.h"

namespace zorv {

namespace {

using namespace std::string_view_literals;

constexpr u64 KiB = 1024;

struct mark {
  const char* why;
  u64 at;  // bytes from the start of the device, or back from its end
  std::string_view text;
};

constexpr const char* volume = "shares the device with a volume manager's label";
constexpr const char* partitions = "shares the device with a partition table";
constexpr const char* raid = "shares the device with a RAID member's label";
constexpr const char* cache = "shares the device with a cache device's label";
constexpr const char* pool = "shares the device with a storage pool's label";
constexpr const char* cipher = "shares the device with an encrypted volume's header";
constexpr const char* swap = "shares the device with a swap area";
constexpr const char* replica = "shares the device with a replicated device's label";
constexpr const char* mapped = "shares the device with the header of a device above it";
constexpr const char* other_fs = "shares the device with another file system";

constexpr std::string_view md_magic = "\xfc\x4e\x2b\xa9"sv;  // 0xa92b4efc, little-endian
constexpr std::string_view md_magic_be = "\xa9\x2b\x4e\xfc"sv;
constexpr std::string_view luks_copy = "SKUL\xba\xbe"sv;

constexpr mark at_front[] = {
    {raid, 0, md_magic},  // version 1.1
    {cipher, 0, "LUKS\xba\xbe"sv},
    {cipher, 3, "-FVE-FS-"sv},
    {mapped, 0, "integrt\0"sv},
    {mapped, 0, "verity\0\0"sv},
    {mapped, 0, "dmvdo001"sv},
    {pool, 0, "bluestore block device"sv},
    {volume, 0, "LABELONE"sv},  // in any of the first four sectors
    {volume, 512, "LABELONE"sv},
    {partitions, 512, "EFI PART"sv},
    {pool, 516, "!Stra0tis\x86\xff\x02^Arh"sv},
    {volume, 1024, "LABELONE"sv},
    {volume, 1536, "LABELONE"sv},
    {swap, 4 * KiB - 10, "SWAPSPACE2"sv},  // at the end of a page of 4 KiB, 8 KiB, ...
    {swap, 4 * KiB - 10, "SWAP-SPACE"sv},
    {raid, 4 * KiB, md_magic},                    // version 1.2
    {partitions, 4 * KiB, "EFI PART"sv},          // sectors of 4 KiB
    {cache, 4 * KiB + 24, "\xc6\x85\x73\xf6"sv},  // both formats' ids begin so
    {pool, 4612, "!Stra0tis\x86\xff\x02^Arh"sv},
    {swap, 8 * KiB - 10, "SWAPSPACE2"sv},
    {cipher, 16 * KiB, luks_copy},  // the second header of version 2
    {swap, 16 * KiB - 10, "SWAPSPACE2"sv},
    {cipher, 32 * KiB, luks_copy},
    {other_fs, 32 * KiB, "JFS1"sv},
    {swap, 32 * KiB - 10, "SWAPSPACE2"sv},
    {cipher, 64 * KiB, luks_copy},
    {swap, 64 * KiB - 10, "SWAPSPACE2"sv},
    {other_fs, 64 * KiB, "\x01\x16\x19\x70\0\0\0\1"sv},  // GFS2
    {other_fs, 64 * KiB + 64, "_BHRfS_M"sv},
    {cipher, 128 * KiB, luks_copy},
    {cipher, 256 * KiB, luks_copy},
    {cipher, 512 * KiB, luks_copy},
    {cipher, 1024 * KiB, luks_copy},
    {cipher, 2048 * KiB, luks_copy},
    {cipher, 4096 * KiB, luks_copy},
};

constexpr mark at_end[] = {
    {partitions, 4 * KiB, "EFI PART"sv},         // sectors of 4 KiB
    {replica, 4 * KiB - 60, "\x83\x74\x02"sv},   // DRBD: internal metadata
    {raid, 1024, "Intel Raid ISM Cfg Sig. "sv},  // the last sector but one
    {partitions, 512, "EFI PART"sv},
    {raid, 512, "\xde\x11\xde\x11"sv},  // DDF
    {volume, 512, "GEOM::"sv},
};

// Reads the device 4 KiB at a time and keeps the last piece: marks are asked for in ascending
// order.
class device_probe {
 public:
  explicit device_probe(kernel::block_device* hdd) : hdd_(hdd) {}
  // Beyond the device there is nothing. A mark does not cross a border of 4 KiB.
  [[nodiscard]] bool holds(u64 at, std::string_view text) {
    return at + text.size() <= size() && load(at / sizeof buf_) &&
           std::memcmp(buf_ + at % sizeof buf_, text.data(), text.size()) == 0;
  }
  [[nodiscard]] const u8* bytes(u64 at) { return load(at / sizeof buf_) ? buf_ : nullptr; }
  [[nodiscard]] bool failed() const { return failed_; }
  [[nodiscard]] u64 size() const { return hdd_->bd_size_bytes & ~u64{kernel::sector_size - 1}; }

 private:
  bool load(u64 piece) {
    if (piece == piece_) return true;
    if (failed_) return false;
    const u64 start = piece * sizeof buf_;
    const bool whole = start + sizeof buf_ <= size();
    const u32 unit = whole ? u32{sizeof buf_} : kernel::sector_size;
    const u64 count = whole ? 1 : (size() - start) / unit;
    piece_ =
        zorv_bread(hdd_, buf_, unit, static_cast<s64>(start / unit), static_cast<s32>(count)) == 0
            ? piece
            : ~u64{0};
    failed_ = piece_ != piece;
    return !failed_;
  }

  kernel::block_device* hdd_;
  u64 piece_ = ~u64{0};
  bool failed_ = false;
  u8 buf_[4096] = {};
};

// A boot loader in front of a file system has the signature too, but no partitions.
bool has_partitions(device_probe* probe) {
  if (!probe->holds(510, "\x55\xaa"sv)) return false;
  const u8* sector = probe->bytes(0);
  for (u32 at = 446; at < 510; at += 16) {
    const u8* entry = sector + at;
    const bool used = entry[4] != 0 && get_le32(entry + 12) != 0;  // type, length in sectors
    if ((entry[0] & 0x7f) == 0 && used) return true;
  }
  return false;
}

// A pool keeps four labels of 256 KiB, two at each end of the device. In each: names and values,
// closed by a block trailer 40 bytes before 128 KiB, then the ring of uberblocks, at least 1 KiB
// apart. Both byte orders are in use.
bool has_pool_labels(device_probe* probe) {
  constexpr u64 label_bytes = 256 * KiB;
  constexpr u64 ring = 128 * KiB;
  const u64 end = probe->size() & ~(label_bytes - 1);
  if (end < 4 * label_bytes) return false;
  for (const u64 label : {u64{0}, label_bytes, end - 2 * label_bytes, end - label_bytes}) {
    if (probe->holds(label + ring - 40, "\x11\x7a\x0c\xb1\x7a\xda\x10\x02"sv) ||
        probe->holds(label + ring - 40, "\x02\x10\xda\x7a\xb1\x0c\x7a\x11"sv)) {
      return true;
    }
    for (u64 at = label + ring; at < label + label_bytes; at += KiB) {
      if (probe->holds(at, "\x0c\xb1\xba\0\0\0\0\0"sv) ||
          probe->holds(at, "\0\0\0\0\0\xba\xb1\x0c"sv)) {
        return true;
      }
    }
  }
  return false;
}

// Versions 0.90 and 1.0 keep their superblock near the end.
bool has_raid_at_end(device_probe* probe) {
  const u64 size = probe->size();
  if (size >= 128 * KiB) {
    const u64 at = (size & ~(64 * KiB - 1)) - 64 * KiB;
    if (probe->holds(at, md_magic) || probe->holds(at, md_magic_be)) return true;
  }
  return size >= 16 * KiB && probe->holds((size - 8 * KiB) & ~(4 * KiB - 1), md_magic);
}

bool has_other_file_system(device_probe* probe, fs_kind own) {
  return (own != fs_kind::xfs && probe->holds(0, "XFSB"sv)) ||
         (own != fs_kind::ext2 && probe->holds(1080, "\x53\xef"sv)) ||
         (own != fs_kind::reiserfs && probe->holds(64 * KiB + 52, "ReIsEr"sv));
}

}  // namespace

const char* fs_reader_rival(kernel::block_device* hdd, fs_kind own) {
  device_probe probe(hdd);
  const char* why = nullptr;
  for (const mark& m : at_front) {
    if (why == nullptr && probe.holds(m.at, m.text)) why = m.why;
  }
  for (const mark& m : at_end) {
    if (why == nullptr && m.at <= probe.size() && probe.holds(probe.size() - m.at, m.text)) {
      why = m.why;
    }
  }
  if (why == nullptr && has_partitions(&probe)) why = partitions;
  if (why == nullptr && has_pool_labels(&probe)) why = pool;
  if (why == nullptr && has_raid_at_end(&probe)) why = raid;
  if (why == nullptr && has_other_file_system(&probe, own)) why = other_fs;
  if (why == nullptr && probe.failed()) why = "is on a device that cannot be read throughout";
  return why;
}

}  // namespace zorv
