// SPDX-License-Identifier: GPL-2.0-only
// Whose device it is, if not the file system's whose superblock was found.
//
// A superblock outlives its file system. Storage pools, RAID arrays, caches, volume managers and
// ciphers write their labels around the place where it lies (the first 16 KiB are often left
// alone), so what it says about free blocks would be believed about somebody else's data. Each of
// them has a public on-disk format with a fixed mark at a fixed place; one of these anywhere is
// enough. A mark may also be the remains of an earlier owner: nothing on the disk tells that apart,
// and the answer that costs copies is the safe one.
#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include "driver/datablock/reader.h"
#include "driver/util/file.h"

namespace zorv {

namespace {

using namespace std::string_view_literals;

constexpr u64 KiB = 1024;
constexpr u64 MiB = 1024 * KiB;
constexpr u64 sector = kernel::sector_size;

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
constexpr const char* image = "shares the device with the image of a virtual disk";
constexpr const char* other_fs = "shares the device with another file system";

constexpr std::string_view md_magic = "\xfc\x4e\x2b\xa9"sv;  // 0xa92b4efc, little-endian
constexpr std::string_view md_magic_be = "\xa9\x2b\x4e\xfc"sv;
constexpr std::string_view ism_magic = "Intel Raid ISM Cfg Sig. "sv;
constexpr std::string_view luks_copy = "SKUL\xba\xbe"sv;

constexpr mark at_front[] = {
    {raid, 0, md_magic},  // version 1.1
    {raid, 0, "DmRd"sv},
    {cipher, 0, "LUKS\xba\xbe"sv},
    {cipher, 3, "-FVE-FS-"sv},
    {mapped, 0, "integrt\0"sv},
    {mapped, 0, "verity\0\0"sv},
    {mapped, 0, "dmvdo001"sv},
    {mapped, 0, "SnAp"sv},
    {mapped, 0, "rRiM"sv},  // a mirror's log
    {mapped, 0, "DBZD"sv},  // zones
    {mapped, 0, "UBI#"sv},
    {mapped, 32, "\xba\x52\x9c\x01\0\0\0\0"sv},  // thin volumes
    {cache, 0, "\x21\x93\x48\x23"sv},            // of writes
    {cache, 32, "\x03\xc4\x18\0\0\0\0\0"sv},
    {replica, 0, "$DRBDmgr=q"sv},
    {replica, 16, "DRBDdlh*"sv},
    {pool, 0, "bluestore block device"sv},
    {pool, 0, "mpoolDev"sv},
    {volume, 0, "LABELONE"sv},  // in any of the first four sectors
    {volume, sector, "LABELONE"sv},
    {volume, 2 * sector, "LABELONE"sv},
    {volume, 3 * sector, "LABELONE"sv},
    {volume, 0, "HM\1\0"sv},
    {volume, 0, "HM\2\0"sv},
    {volume, 0, "\1\x82\1\1"sv},
    {volume, 32, "ORCLDISK"sv},
    {partitions, 0, "\x0b\xe5\xa9\x41"sv},   // SGI
    {partitions, 0, "ER"sv},                 // Mac
    {partitions, 0, "\xc9\xc2\xd4\xc1"sv},   // AIX
    {partitions, 4, "IPL1"sv},               // PC-98
    {partitions, 64, "\x57\x45\x56\x82"sv},  // BSD
    {partitions, sector, "\x57\x45\x56\x82"sv},
    {partitions, sector - 4, "\xda\xbe"sv},  // Sun
    {partitions, sector, "PM\0\0"sv},        // Mac
    {partitions, sector, "EFI PART"sv},
    {partitions, sector + 12, "\xee\xde\x0d\x60"sv},  // Solaris
    {partitions, 6 * sector, "PRIVHEAD"sv},           // dynamic disks
    {partitions, 16 * KiB - 72, "\x57\x29\x03\0"sv},  // Ultrix
    {partitions, 29 * sector + 4, "\x0d\x60\x5e\xca"sv},
    {image, 0, "QFI\xfb"sv},
    {image, 0, "QED\0"sv},
    {image, 0, "KDMV"sv},
    {image, 0, "conectix"sv},
    {image, 0, "vhdxfile"sv},
    {image, 64, "\x7f\x10\xda\xbe"sv},
    {pool, sector + 4, "!Stra0tis\x86\xff\x02^Arh"sv},
    {raid, 4 * KiB, md_magic},                    // version 1.2
    {partitions, 4 * KiB, "EFI PART"sv},          // sectors of 4 KiB
    {cache, 4 * KiB + 24, "\xc6\x85\x73\xf6"sv},  // the file system's ids begin so, too
    {raid, 9 * sector + 32, "\xf0\x16\x78\x5a"sv},
    {raid, 9 * sector + 32, "\xfd\x16\x78\x5a"sv},
    {pool, 4 * KiB + sector + 4, "!Stra0tis\x86\xff\x02^Arh"sv},
    {raid, 8 * KiB, "marcCRAM"sv},
    {cipher, 16 * KiB, luks_copy},  // the second header of version 2
    {cipher, 32 * KiB, luks_copy},
    {cipher, 64 * KiB, luks_copy},
    {cipher, 128 * KiB, luks_copy},
    {cipher, 256 * KiB, luks_copy},
    {cipher, 512 * KiB, luks_copy},
    {cipher, 1 * MiB, luks_copy},
    {volume, 1 * MiB, "\x0d\xd0\x01\xc0"sv},  // of the file system at 2 MiB
    {cipher, 2 * MiB, luks_copy},
    {cipher, 4 * MiB, luks_copy},

    {swap, 0, "\xed\xc3\x02\xe9\x98\x56\xe5\x0c"sv},  // hibernated
    {other_fs, 0, "\xce\xfa\xad\x1b"sv},              // BFS
    {other_fs, 0, "SFOZ"sv},
    {other_fs, 0, "hsqs"sv},  // squashfs
    {other_fs, 0, "sqsh"sv},
    {other_fs, 0, "qshs"sv},
    {other_fs, 0, "\x45\x3d\xcd\x28"sv},  // cramfs
    {other_fs, 0, "\x28\xcd\x3d\x45"sv},
    {other_fs, 0, "-rom1fs-"sv},
    {other_fs, 0, "\x31\x18\x10\x06"sv},  // UBIFS
    {other_fs, 0, "\xfe\xed\xba\xbe"sv},  // XFS, a log on its own
    {other_fs, 0, "DOS"sv},               // Amiga
    {other_fs, 0, "PFS\1"sv},
    {other_fs, 0, "SFS\0"sv},
    {other_fs, 3, "NTFS    "sv},
    {other_fs, 3, "EXFAT   "sv},
    {other_fs, 3, "ReFS\0"sv},
    {other_fs, 32, "NXSB"sv},  // APFS
    {other_fs, 32, "BFS1"sv},  // BeFS
    {other_fs, sector + 32, "BFS1"sv},
    {other_fs, 32, "1SFB"sv},
    {other_fs, sector + 32, "1SFB"sv},
    {other_fs, 54, "FAT"sv},  // FAT12, FAT16
    {other_fs, 54, "MSDOS"sv},
    {other_fs, 82, "FAT"sv},  // FAT32
    {other_fs, 82, "MSWIN"sv},
    {other_fs, 1016, "\x20\x7e\x18\xfd"sv},  // System V
    {other_fs, 1016, "\xfd\x18\x7e\x20"sv},
    {other_fs, 1 * KiB, "H+\0\4"sv},  // HFS+
    {other_fs, 1 * KiB, "HX\0\5"sv},
    {other_fs, 1 * KiB, "\xe2\xe1\xf5\xe0"sv},  // EROFS
    {other_fs, 1 * KiB, "\x10\x20\xf5\xf2"sv},  // F2FS, two copies
    {other_fs, 5 * KiB, "\x10\x20\xf5\xf2"sv},
    {other_fs, 2 * KiB, "\x2b\x55\x44"sv},  // Xenix
    {other_fs, 2 * KiB, "\x44\x55\x2b\0"sv},
    {other_fs, 1 * KiB, "\xf5\xfc\x01\xa5"sv},  // VxFS
    {other_fs, 1 * KiB + 6, "\x34\x34"sv},      // NILFS2
    {other_fs, 1 * KiB, "OCFSV2"sv},            // OCFS2, by its block size
    {other_fs, 2 * KiB, "OCFSV2"sv},
    {other_fs, 4 * KiB, "OCFSV2"sv},
    {other_fs, 8 * KiB, "OCFSV2"sv},
    {other_fs, 8 * KiB, "OracleCFS"sv},
    {other_fs, 4 * KiB, "SPB5"sv},              // NSS
    {other_fs, 8 * KiB, "\x49\xe8\x95\xf9"sv},  // HPFS
    {other_fs, 8 * KiB, "\xa5\x01\xfc\xf5"sv},  // VxFS
    {other_fs, 8 * KiB, "\x22\x11\x19\x68"sv},  // QNX6
    {other_fs, 8 * KiB + 20, "ReIsEr"sv},       // ReiserFS 3.5
    {other_fs, 8 * KiB + 52, "ReIsEr"sv},
    {other_fs, 32 * KiB, "JFS1"sv},  // JFS, two copies
    {other_fs, 60 * KiB, "JFS1"sv},
    {other_fs, 32 * KiB + 1, "CD001"sv},  // ISO 9660, UDF
    {other_fs, 32 * KiB + 1, "BEA01"sv},
    {other_fs, 32 * KiB + 1, "NSR0"sv},
    {other_fs, 34 * KiB + 1, "NSR0"sv},
    {other_fs, 32 * KiB + 1, "CD-ROM"sv},
    {other_fs, 32 * KiB + 9, "CDROM"sv},
    {other_fs, 64 * KiB, "ReIsEr4"sv},
    {other_fs, 64 * KiB, "\x01\x16\x19\x70\0\0\0\1"sv},  // GFS, GFS2
    {other_fs, 64 * KiB + 64, "_BHRfS_M"sv},             // btrfs, two copies
    {other_fs, 64 * MiB + 64, "_BHRfS_M"sv},
    {other_fs, 2 * MiB, "\x5e\xf1\xab\x2f"sv},  // VMFS
};

constexpr mark at_end[] = {
    {partitions, 2047 * sector, "TOCBLOCK"sv},  // dynamic disks: the last MiB
    {partitions, 192 * sector, "PRIVHEAD"sv},
    {raid, 11 * sector, "\xf3\x16\x78\x5a"sv},
    {raid, 11 * sector, "\xfd\x16\x78\x5a"sv},
    {raid, 8 * KiB, ism_magic},  // the last sector but one, of 4 KiB
    {raid, 4 * KiB, "AppleRAIDHeader"sv},
    {volume, 4 * KiB, "GEOM::"sv},
    {partitions, 4 * KiB, "EFI PART"sv},  // sectors of 4 KiB
    {raid, 2 * sector, ism_magic},
    {raid, 2 * sector, "NVIDIA"sv},
    {other_fs, 2 * sector, "H+\0\4"sv},
    {other_fs, 2 * sector, "HX\0\5"sv},
    {volume, sector, "GEOM::"sv},
    {partitions, sector, "EFI PART"sv},
    {partitions, sector, "PRIVHEAD"sv},
    {image, sector, "conectix"sv},
    {image, sector - 1, "conectix"sv},
    {other_fs, sector - 3, "NTFS    "sv},  // the boot sector's copy
    {raid, sector, "\x37\xfc\x4d\x1e"sv},
    {raid, sector, "$XIDE$"sv},
    {raid, sector, "JM"sv},
    {raid, sector, "\x55\xaa\0"sv},  // three versions of one format
    {raid, sector, "\x55\xaa\1"sv},
    {raid, sector, "\x55\xaa\2"sv},
    {raid, sector - 96, "\0\0\0\x2f"sv},
    {mapped, 64, "AVBf"sv},
};

// Marks that stand at one of several places.
struct family {
  const char* why;
  std::span<const u64> at;
  std::span<const std::string_view> texts;
};

template <std::size_t count>
constexpr std::array<u64, count> multiples(u64 of) {
  std::array<u64, count> a{};
  for (std::size_t i = 0; i < count; ++i) a[i] = i * of;
  return a;
}
constexpr auto first_16_sectors = multiples<16>(sector);
constexpr std::string_view amiga[] = {"RDSK"sv};
// At the end of the first page of memory, of whatever size.
constexpr u64 swap_at[] = {4 * KiB - 10, 8 * KiB - 10, 16 * KiB - 10, 32 * KiB - 10, 64 * KiB - 10};
constexpr std::string_view swap_texts[] = {"SWAPSPACE2"sv,  "SWAP-SPACE"sv,  "S1SUSPEND\0"sv,
                                           "S2SUSPEND\0"sv, "ULSUSPEND\0"sv, "LINHIB0001"sv};
constexpr u64 ufs_at[] = {1372, 8 * KiB + 1372, 64 * KiB + 1372, 256 * KiB + 1372};
constexpr std::string_view ufs_texts[] = {"\x54\x19\x01\0"sv,   "\0\x01\x19\x54"sv,     // version 1
                                          "\x19\x01\x54\x19"sv, "\x19\x54\x01\x19"sv,   // version 2
                                          "\x12\x56\x19\0"sv,   "\0\x19\x56\x12"sv,     // variants
                                          "\x14\x50\x09\0"sv,   "\0\x09\x50\x14"sv,     //
                                          "\x95\x21\x61\0"sv,   "\0\x61\x21\x95"sv,     //
                                          "\x94\x19\x23\x05"sv, "\x05\x23\x19\x94"sv};  //
constexpr family families_at_front[] = {{partitions, first_16_sectors, amiga},
                                        {swap, swap_at, swap_texts},
                                        {other_fs, ufs_at, ufs_texts}};

constexpr u64 ddf_at[] = {257 * sector, 4 * KiB, sector};
constexpr std::string_view ddf_texts[] = {"\xde\x11\xde\x11"sv, "\x11\xde\x11\xde"sv};
constexpr u64 promise_at[] = {3087 * sector, 991 * sector, 974 * sector, 951 * sector, 911 * sector,
                              735 * sector,  675 * sector, 591 * sector, 399 * sector, 256 * sector,
                              255 * sector,  63 * sector,  16 * sector};
constexpr std::string_view promise_texts[] = {"Promise Technology, Inc."sv};
constexpr family families_at_end[] = {{raid, promise_at, promise_texts}, {raid, ddf_at, ddf_texts}};

// Reads the device 4 KiB at a time and keeps the last piece: marks are asked for in ascending
// order where they can be.
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
  const u8* boot = probe->bytes(0);
  for (u32 at = 446; at < 510; at += 16) {
    const u8* entry = boot + at;
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

// What is aligned to a border before the end of the device.
const char* rival_at_aligned_end(device_probe* probe) {
  const u64 size = probe->size();
  if (size < 128 * KiB) return nullptr;
  const u64 block_64k = (size & ~(64 * KiB - 1)) - 64 * KiB;  // version 0.90
  const u64 block_8k = (size - 8 * KiB) & ~(4 * KiB - 1);     // version 1.0
  const u64 last_block = (size & ~(4 * KiB - 1)) - 4 * KiB;
  const mark marks[] = {
      {raid, block_64k, md_magic},
      {raid, block_64k, md_magic_be},
      {raid, block_8k, md_magic},
      {other_fs, last_block + 6, "\x34\x34"sv},      // NILFS2
      {replica, last_block + 60, "\x83\x74\x02"sv},  // DRBD
  };
  for (const mark& m : marks) {
    if (probe->holds(m.at, m.text)) return m.why;
  }
  return nullptr;
}

// A hash tree over the whole file system, its free blocks included, stands behind it: at its end or
// at the next round place.
bool has_hash_tree_behind(device_probe* probe, u64 fs_bytes) {
  const u64 end = std::min(probe->size(), fs_bytes + 1 * MiB);
  for (u64 at = fs_bytes & ~(sector - 1); at < end; at += sector) {
    if (probe->holds(at, "verity\0\0"sv) || probe->holds(at, "\x01\xb0\x01\xb0"sv)) return true;
  }
  return false;
}

// Up to four entries of 12 bytes: a flag, three letters for the type, start and length.
bool has_atari_partitions(device_probe* probe) {
  constexpr std::string_view types[] = {"GEM"sv, "BGM"sv, "XGM"sv, "LNX"sv, "SWP"sv, "RAW"sv};
  for (u64 at = 0x1c6; at < 0x1c6 + 4 * 12; at += 12) {
    for (const std::string_view type : types) {
      if (probe->holds(at + 1, type) && (probe->bytes(0)[at] & 1) != 0) return true;
    }
  }
  return false;
}

// Marks that would be taken for what the file systems with readers have there themselves.
bool has_other_file_system(device_probe* probe, fs_kind own) {
  if (own != fs_kind::xfs && probe->holds(0, "XFSB"sv)) return true;
  if (own != fs_kind::reiserfs && probe->holds(64 * KiB + 52, "ReIsEr"sv)) return true;
  if (own == fs_kind::ext2) return false;
  constexpr mark over_superblock[] = {{other_fs, 1080, "\x53\xef"sv},           // ext2
                                      {other_fs, 1 * KiB, "BD"sv},              // HFS
                                      {other_fs, 1 * KiB + 16, "\x7f\x13"sv},   // MINIX
                                      {other_fs, 1 * KiB + 16, "\x8f\x13"sv},   //
                                      {other_fs, 1 * KiB + 16, "\x68\x24"sv},   //
                                      {other_fs, 1 * KiB + 16, "\x78\x24"sv},   //
                                      {other_fs, 1 * KiB + 24, "\x5a\x4d"sv}};  //
  return std::any_of(std::begin(over_superblock), std::end(over_superblock),
                     [probe](const mark& m) { return probe->holds(m.at, m.text); });
}

enum class counted { from_start, from_end };

const char* rival_of_marks(device_probe* probe, counted how, std::span<const mark> marks,
                           std::span<const family> families) {
  const auto holds = [probe, how](u64 at, std::string_view text) {
    if (how == counted::from_end && at > probe->size()) return false;
    return probe->holds(how == counted::from_end ? probe->size() - at : at, text);
  };
  for (const mark& m : marks) {
    if (holds(m.at, m.text)) return m.why;
  }
  for (const family& f : families) {
    for (const u64 at : f.at) {
      for (const std::string_view text : f.texts) {
        if (holds(at, text)) return f.why;
      }
    }
  }
  return nullptr;
}

}  // namespace

const char* fs_reader_rival(kernel::block_device* hdd, fs_kind own, u64 fs_bytes) {
  device_probe probe(hdd);
  const char* why = rival_of_marks(&probe, counted::from_start, at_front, families_at_front);
  if (why == nullptr) why = rival_of_marks(&probe, counted::from_end, at_end, families_at_end);
  if (why == nullptr) why = rival_at_aligned_end(&probe);
  if (why == nullptr && (has_partitions(&probe) || has_atari_partitions(&probe))) why = partitions;
  if (why == nullptr && has_pool_labels(&probe)) why = pool;
  if (why == nullptr && has_hash_tree_behind(&probe, fs_bytes)) why = mapped;
  if (why == nullptr && has_other_file_system(&probe, own)) why = other_fs;
  if (why == nullptr && probe.failed()) why = "is on a device that cannot be read throughout";
  return why;
}

}  // namespace zorv
