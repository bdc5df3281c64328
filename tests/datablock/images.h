// SPDX-License-Identifier: GPL-2.0-only
// File system images made by their own tools, what those tools say is in use, and the same read
// through a datablock map.
#pragma once

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "doubles/memory_disk.h"
#include "driver/datablock/bits.h"
#include "driver/datablock/blkbmp.h"
#include "support/driver_fixture.h"

namespace zorv_test {

// Runs a shell command; its output. Fails the test when the command does.
std::string run(const std::string& command);

inline u32 get_be32(const bytes& b, u64 at) { return zorv::get_be32(b.data() + at); }

// The bits of a volume in units of some size.
using bit_vector = std::vector<bool>;

struct fs_image {
  std::string path;
  u64 bytes = 0;
  u32 block_size = 0;
  bit_vector in_use;  // per block of the file system, as its own tool reports
};

// Empty files of a size; the makers below fail the test when a tool fails.
std::string make_sparse(const std::string& path, u64 bytes);
// Files written, some removed again, at random.
void populate_ext2(const std::string& path, std::mt19937* random);
fs_image make_ext2(const std::string& path, u64 bytes, const std::string& options,
                   std::mt19937* random);
fs_image make_reiserfs(const std::string& path, u64 bytes, std::mt19937* random);
// Every group's free space is cut into random extents, in trees of several levels.
fs_image make_xfs(const std::string& path, u64 bytes, u32 group_count, u32 block_size,
                  std::mt19937* random);
// What the tool says of the image as it is now.
bit_vector ext2_in_use(const std::string& path);

// An image in a memory disk, opened for reading by the first use of bdev(). extra_bytes: the disk
// goes on behind the image.
class image_disk {
 public:
  explicit image_disk(const fs_image& image, u64 extra_bytes = 0);
  ~image_disk();
  image_disk(const image_disk&) = delete;
  image_disk& operator=(const image_disk&) = delete;
  [[nodiscard]] kernel::block_device* bdev();
  [[nodiscard]] zorv::memory_disk& disk() { return disk_; }

 private:
  zorv::memory_disk disk_;
  kernel::block_device* bdev_ = nullptr;
};

// A map built from the device; test(c) for every chunk.
struct map_result {
  int rc;
  bit_vector chunks;
  [[nodiscard]] bool all_set() const;
};
map_result build_map(kernel::block_device* bdev, u32 chunk_size);

// One bit per chunk of the device: some block of it is in use, or lies behind the file system.
bit_vector chunks_of(const fs_image& image, u64 device_bytes, u32 chunk_size);
// Where two bit vectors first differ, for messages; "" when they do not.
std::string difference(const bit_vector& got, const bit_vector& expected);
// The first chunk that is clear though it holds a block in use; -1 when there is none.
kernel::s64 first_lost(const map_result& map, const bit_vector& in_use);

}  // namespace zorv_test
