// SPDX-License-Identifier: GPL-2.0-only
#include "driver/datablock/reader.h"

#include <algorithm>

#include "driver/core/log.h"
#include "driver/util/file.h"

namespace zorv {

const fs_reader fs_readers[fs_reader_cnt] = {
    {"ext2/ext3", ext2_reader_init, ext2_reader_read, ext2_reader_destroy},
    {"ReiserFS", reiserfs_reader_init, reiserfs_reader_read, reiserfs_reader_destroy},
    {"XFS", xfs_reader_init, xfs_reader_read, xfs_reader_destroy},
};

fs_reader_use::fs_reader_use(kernel::block_device* hdd, u32* fs_block_size) {
  for (const fs_reader& r : fs_readers) {
    context_ = r.init(hdd, fs_block_size);
    if (context_ == nullptr) continue;
    reader_ = &r;
    return;
  }
}

fs_reader_use::~fs_reader_use() {
  if (reader_ != nullptr) reader_->destroy(context_);
}

int fs_reader_check(const char* caller, const void* context, u32 fs_block_size, u32 chunk_size) {
  if (context == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Invalid reader's context NULL.", caller);
    return -EINVAL;
  }
  if (chunk_size < 2 || !is_power_of_2(chunk_size)) {
    zorv_log(LOG_ERROR, "%s(): Chunk size (%d) must be a power of 2.", caller,
             static_cast<s32>(chunk_size));
    return -EINVAL;
  }
  if (chunk_size < fs_block_size) {
    zorv_log(LOG_ERROR, "%s(): Chunk size (%d) is smaller than FS block size (%d).", caller,
             static_cast<s32>(chunk_size), static_cast<s32>(fs_block_size));
    return -EINVAL;
  }
  return 0;
}

bool fs_reader_buffer(const char* caller, kernel::vbuf<u8>* buffer, u32 bytes) {
  buffer->reset(static_cast<u8*>(kernel::vmalloc(bytes)));
  if (*buffer == nullptr) zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", caller);
  return *buffer != nullptr;
}

void fs_reader_log_doubt(const char* caller, const char* fs_name, devt dev, const char* why) {
  zorv_log(LOG_ERROR, "%s(): %s on hdd(%d, %d) %s: all its blocks count as allocated.", caller,
           fs_name, kernel::major_of(dev), kernel::minor_of(dev), why);
}

chunk_window open_window(s64 start_chunk, u32 chunk_size, u32 fs_block_size, u8* bits, s32 count) {
  chunk_window w{};
  w.first = start_chunk < 0 ? 0 : static_cast<u64>(start_chunk);
  w.count = count < 0 ? 0 : static_cast<u64>(count);
  w.shift = log2_u32(chunk_size / fs_block_size);
  w.bits = bits;
  std::memset(bits, 0, bytes_of_bits(w.count));
  return w;
}

void chunk_window::mark_span(u64 from, u64 end) const {
  from = std::max(from, first_block());
  end = std::min(end, end_block());
  if (from < end) set_bits(bits, (from >> shift) - first, ((end - 1) >> shift) - first + 1);
}

void chunk_window::mark_bitmap(const u8* bitmap, u64 base, u64 from, u64 end) const {
  from = std::max(from, first_block());
  end = std::min(end, end_block());
  // The first allocated block decides its chunk: the walk goes on at the next one.
  while (from < end) {
    const u64 block = base + find_set_bit(bitmap, from - base, end - base);
    if (block >= end) return;
    set_bit_at(bits, (block >> shift) - first);
    from = ((block >> shift) + 1) << shift;
  }
}

}  // namespace zorv
