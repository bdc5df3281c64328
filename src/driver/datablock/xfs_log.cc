// SPDX-License-Identifier: GPL-2.0-only
// Whether an XFS log is clean. The superblock has no flag for it: an unmount writes one last record
// that says so, and the log is clean when that record is the last one in it.
//
// The log is a ring of 512-byte blocks. Each time round it is written with a new cycle number,
// which stands in the first word of every block (in the second one of a record's first block, whose
// first word is a magic). So the head, where the next record would go, is where the cycle number
// drops, and it is found by bisection. Only the plain picture is accepted: blocks of one cycle up
// to the head, of the cycle before it, or never written, behind; and right before the head one
// complete record that holds the unmount operation and nothing else.
#include "driver/core/types.h"
#include "driver/datablock/xfs.h"
#include "driver/util/file.h"

namespace zorv {

namespace {

constexpr u32 record_magic = 0xfeedbabe;
constexpr u32 version_2 = 2;                   // bit of the record's version
constexpr u32 bytes_per_header_block = 32768;  // of a version 2 record
constexpr u32 max_record_bytes = 256 * 1024;
constexpr u8 unmount_flag = 0x20;  // of an operation
constexpr u32 min_log_blocks = 512;
constexpr u32 max_log_blocks = 1U << 22;  // 2 GiB

struct log_area {
  xfs_reader* reader;
  u64 first_sector;
  u32 blocks;  // 512-byte units
  u8 buf[kernel::sector_size];

  [[nodiscard]] bool read(u32 block) {
    return zorv_bread(reader->hdd, buf, kernel::sector_size, static_cast<s64>(first_sector + block),
                      1) == 0;
  }
  [[nodiscard]] bool holds_record() const { return get_be32(buf) == record_magic; }
  [[nodiscard]] bool cycle_of(u32 block, u32* cycle) {
    if (!read(block)) return false;
    *cycle = get_be32(holds_record() ? buf + 4 : buf);
    return true;
  }
};

// Where the log lies; false when the superblock's numbers are not those of a log on this device.
bool locate(xfs_reader* r, log_area* log) {
  const u32 log2 = r->ag_blocks_log();
  if (r->log_start() == 0 || log2 > 31) return false;
  const u64 group = r->log_start() >> log2;
  const u64 in_group = r->log_start() & ((1ULL << log2) - 1);
  if (group >= r->ag_count() || in_group + r->log_blocks() > r->ag_blocks()) return false;
  const u32 sectors_per_block = r->block_size() / kernel::sector_size;
  const u64 blocks = static_cast<u64>(r->log_blocks()) * sectors_per_block;
  if (blocks < min_log_blocks || blocks > max_log_blocks) return false;
  log->reader = r;
  log->first_sector = (group * r->ag_blocks() + in_group) * sectors_per_block;
  log->blocks = static_cast<u32>(blocks);
  return true;
}

// The block after the last written one, and the cycle up to it.
bool find_head(log_area* log, u32* head, u32* cycle) {
  u32 last = 0;
  if (!log->cycle_of(0, cycle) || !log->cycle_of(log->blocks - 1, &last)) return false;
  if (*cycle == 0) return false;
  *head = 0;
  if (last == *cycle) return true;  // written to the very end
  if (last != 0 && last != *cycle - 1) return false;
  u32 low = 0;  // has the cycle; high has not
  u32 high = log->blocks - 1;
  while (high - low > 1) {
    const u32 middle = low + (high - low) / 2;
    u32 found = 0;
    if (!log->cycle_of(middle, &found)) return false;
    if (found != *cycle && found != last) return false;
    (found == *cycle ? low : high) = middle;
  }
  *head = high;
  return true;
}

}  // namespace

bool xfs_log_is_clean(xfs_reader* r) {
  log_area log{};
  u32 head = 0;
  u32 cycle = 0;
  if (!locate(r, &log) || !find_head(&log, &head, &cycle)) return false;
  const u32 end = head == 0 ? log.blocks : head;  // the record lies in front of it
  constexpr u32 reach =
      max_record_bytes / kernel::sector_size + max_record_bytes / bytes_per_header_block;
  for (u32 back = 1; back <= reach && back <= end; ++back) {
    const u32 at = end - back;
    if (!log.read(at)) return false;
    if (!log.holds_record()) {
      if (get_be32(log.buf) != cycle) return false;
      continue;
    }
    const u32 data_bytes = get_be32(log.buf + 12);
    const u32 record_bytes = get_be32(log.buf + 320);
    u32 headers = 1;
    if ((get_be32(log.buf + 8) & version_2) != 0 && record_bytes > bytes_per_header_block) {
      headers = (record_bytes + bytes_per_header_block - 1) / bytes_per_header_block;
    }
    if (data_bytes == 0 || data_bytes > max_record_bytes || headers >= back) return false;
    const u32 data_blocks = (data_bytes + kernel::sector_size - 1) / kernel::sector_size;
    const bool last_and_whole = headers + data_blocks == back && get_be32(log.buf + 4) == cycle &&
                                get_be64(log.buf + 16) == (static_cast<u64>(cycle) << 32 | at);
    const bool one_operation = get_be32(log.buf + 40) == 1;
    if (!last_and_whole || !one_operation || !log.read(at + headers)) return false;
    return (log.buf[9] & unmount_flag) != 0;
  }
  return false;
}

}  // namespace zorv
