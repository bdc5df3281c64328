// SPDX-License-Identifier: GPL-2.0-only
// What a file system reader offers to the builder of the datablock bitmap.
//
// A reader recognises a file system and says, chunk by chunk, where it has allocated blocks. It
// never trusts a number of the disk: every count is checked against the size of the device or of
// the buffer it indexes, every walk ends. A file system that is recognised but whose allocation
// structures cannot be taken at their word is *in doubt*: one log line says why, and all its
// chunks count as allocated.
#pragma once

#include "driver/core/log.h"
#include "driver/core/types.h"
#include "driver/datablock/bits.h"
#include "kernel/blkdev.h"
#include "kernel/mem.h"

namespace zorv {

struct fs_reader {
  const char* name;
  // The context, or null: not this file system, or one that cannot be used (logged).
  //   fs_block_size  when not null receives the file system's block size in bytes
  //   owner          the caller, until destroy
  void* (*init)(kernel::block_device* hdd, u32* fs_block_size);
  // Zeroes the array and sets bit i when chunk start_chunk + i holds an allocated block.
  //   bits     (count + 7) / 8 bytes
  // The first call may take long: it looks at the whole file system.
  //   returns  0 | -EINVAL (context, chunk size; a broken tree) | -EIO, -ENOMEM (block reads) |
  //            -EINTR (kernel::signal_pending)
  int (*read)(void* context, s64 start_chunk, u32 chunk_size, u8* bits, s32 count);
  int (*destroy)(void* context);  // null is accepted; 0
};

void* ext2_reader_init(kernel::block_device* hdd, u32* fs_block_size);
int ext2_reader_read(void* context, s64 start_chunk, u32 chunk_size, u8* bits, s32 count);
int ext2_reader_destroy(void* context);

void* reiserfs_reader_init(kernel::block_device* hdd, u32* fs_block_size);
int reiserfs_reader_read(void* context, s64 start_chunk, u32 chunk_size, u8* bits, s32 count);
int reiserfs_reader_destroy(void* context);

void* xfs_reader_init(kernel::block_device* hdd, u32* fs_block_size);
int xfs_reader_read(void* context, s64 start_chunk, u32 chunk_size, u8* bits, s32 count);
int xfs_reader_destroy(void* context);

// In the order in which they are tried.
constexpr int fs_reader_cnt = 3;
extern const fs_reader fs_readers[fs_reader_cnt];

// A recognised device: the reader and its context, destroyed at the end of the scope.
class [[nodiscard]] fs_reader_use {
 public:
  // Tries the readers in their order; empty when none takes the device.
  fs_reader_use(kernel::block_device* hdd, u32* fs_block_size);
  ~fs_reader_use();
  fs_reader_use(const fs_reader_use&) = delete;
  fs_reader_use& operator=(const fs_reader_use&) = delete;

  explicit operator bool() const { return context_ != nullptr; }
  [[nodiscard]] const fs_reader* ops() const { return reader_; }
  [[nodiscard]] void* context() const { return context_; }
  [[nodiscard]] int read(s64 start_chunk, u32 chunk_size, u8* bits, s32 count) const {
    return reader_->read(context_, start_chunk, chunk_size, bits, count);
  }

 private:
  const fs_reader* reader_ = nullptr;
  void* context_ = nullptr;
};

// ---- for the readers -----------------------------------------------------------------------
// The checks that every read makes first: context, then chunk size.
//   caller  the operation's name, for its messages
[[nodiscard]] int fs_reader_check(const char* caller, const void* context, u32 fs_block_size,
                                  u32 chunk_size);
// A fresh context with its buffer of that many bytes, or null (logged).
template <class Context>
[[nodiscard]] Context* fs_reader_context(const char* caller, kernel::block_device* hdd,
                                         kernel::vbuf<u8> Context::*buffer, u32 bytes);
// Memory for the buffer instead of what it has; false (logged) without.
[[nodiscard]] bool fs_reader_buffer(const char* caller, kernel::vbuf<u8>* buffer, u32 bytes);
// The log line of a file system in doubt.
void fs_reader_log_doubt(const char* caller, const char* fs_name, devt dev, const char* why);

// Why the device may belong to somebody else than the file system whose superblock was found: the
// mark of another owner (a partition table, a volume manager, a RAID array, a cache, a storage
// pool, a cipher, a swap area, another file system) stands where that owner puts it. Null when
// there is no sign of that. Every reader asks before it believes anything. Reads less than 2 MiB.
//   fs_bytes  where the file system ends; it lies on the device
enum class fs_kind { ext2, reiserfs, xfs };
[[nodiscard]] const char* fs_reader_rival(kernel::block_device* hdd, fs_kind own, u64 fs_bytes);

// The chunks that a read is asked for, and their output.
struct chunk_window {
  u64 first;  // chunk
  u64 count;  // chunks
  u32 shift;  // log2(blocks per chunk)
  u8* bits;   // one per chunk

  [[nodiscard]] u64 first_block() const { return first << shift; }
  [[nodiscard]] u64 end_block() const { return (first + count) << shift; }
  // Sets the chunks of allocated blocks [from, end).
  void mark_span(u64 from, u64 end) const;
  // Sets the chunks of the blocks in [from, end) whose bit is set; bit i stands for block base + i.
  void mark_bitmap(const u8* bitmap, u64 base, u64 from, u64 end) const;
  // Sets the chunks of what the device has behind the last block of the file system, which its
  // owner need not know of: a hash tree, metadata of a layer above, a neighbour since it was made
  // smaller.
  void mark_behind(const kernel::block_device& hdd, u64 fs_blocks, u32 fs_block_size) const {
    mark_span(fs_blocks, (hdd.bd_size_bytes + fs_block_size - 1) / fs_block_size);
  }
  void mark_all() const { set_bits(bits, 0, count); }
};
// Zeroes the output and describes it. The chunk size has passed fs_reader_check.
chunk_window open_window(s64 start_chunk, u32 chunk_size, u32 fs_block_size, u8* bits, s32 count);

template <class Context>
Context* fs_reader_context(const char* caller, kernel::block_device* hdd,
                           kernel::vbuf<u8> Context::*buffer, u32 bytes) {
  auto* r = kernel::knew<Context>(kernel::GFP_KERNEL);
  if (r == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed", caller);
    return nullptr;
  }
  r->hdd = hdd;
  if (fs_reader_buffer(caller, &(r->*buffer), bytes)) return r;
  kernel::kdelete(r);
  return nullptr;
}

}  // namespace zorv
