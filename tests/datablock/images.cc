// SPDX-License-Identifier: GPL-2.0-only
#include "images.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace zorv_test {

std::string run(const std::string& command) {
  std::string output;
  // A plain user's path lacks the administrator's tools.
  FILE* pipe = ::popen(
      ("PATH=$PATH:/usr/sbin:/sbin LC_ALL=C; export PATH LC_ALL; (" + command + ") 2>&1").c_str(),
      "r");
  if (pipe == nullptr) {
    ADD_FAILURE() << "cannot run " << command;
    return output;
  }
  char piece[4096];
  for (std::size_t n = 0; (n = std::fread(piece, 1, sizeof piece, pipe)) > 0;) {
    output.append(piece, n);
  }
  const int status = ::pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command << "\n" << output;
  return output;
}

std::string make_sparse(const std::string& path, u64 bytes) {
  std::ofstream(path).close();
  EXPECT_EQ(::truncate(path.c_str(), static_cast<off_t>(bytes)), 0);
  return path;
}

namespace {

void write_at(const std::string& path, u64 offset, const bytes& data) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(::pwrite(fd, data.data(), data.size(), static_cast<off_t>(offset)),
            static_cast<ssize_t>(data.size()));
  ::close(fd);
}

bytes read_at(const std::string& path, u64 offset, u64 length) {
  bytes data(length);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(::pread(fd, data.data(), length, static_cast<off_t>(offset)),
            static_cast<ssize_t>(length));
  ::close(fd);
  return data;
}

u64 number_after(const std::string& text, const std::string& key) {
  const std::size_t at = text.find(key);
  EXPECT_NE(at, std::string::npos) << key;
  return at == std::string::npos ? 0 : std::strtoull(text.c_str() + at + key.size(), nullptr, 10);
}

// "7" or "7-9", as the tools write it.
void set_free(const char* range, bit_vector* used) {
  char* end = nullptr;
  const u64 first = std::strtoull(range, &end, 10);
  const u64 last = *end == '-' ? std::strtoull(end + 1, nullptr, 10) : first;
  for (u64 b = first; b <= last; ++b) used->at(b) = false;
}

void put_be32(bytes* b, u64 at, u32 v) {
  for (int i = 0; i < 4; ++i) (*b)[at + static_cast<u64>(i)] = static_cast<u8>(v >> (24 - 8 * i));
}

}  // namespace

// ---- ext2 ----------------------------------------------------------------------------------

bit_vector ext2_in_use(const std::string& path) {
  const std::string report = run("dumpe2fs '" + path + "'");
  bit_vector used(number_after(report, "Block count:"), true);
  std::istringstream lines(report.substr(report.find("\nGroup 0:")));
  for (std::string line; std::getline(lines, line);) {
    const std::string key = "  Free blocks: ";
    if (line.rfind(key, 0) != 0) continue;
    std::replace(line.begin(), line.end(), ',', ' ');
    std::istringstream ranges(line.substr(key.size()));
    for (std::string range; ranges >> range;) set_free(range.c_str(), &used);
  }
  return used;
}

void populate_ext2(const std::string& path, std::mt19937* random) {
  const std::string script = path + ".script";
  const std::string content = path + ".content";
  std::ofstream out(script);
  for (int i = 0; i < 60; ++i) {
    const u32 kib = 1 + (*random)() % 300;
    const std::string source = content + std::to_string(kib % 8);
    make_sparse(source, kib * 1024ULL);
    write_file(source, bytes(kib * 1024ULL, static_cast<u8>(i + 1)));
    out << "write " << source << " file" << i << "\n";
    if (i > 4 && (*random)() % 3 == 0)
      out << "rm file" << (*random)() % static_cast<u32>(i) << "\n";
  }
  out.close();
  run("debugfs -w -f '" + script + "' '" + path + "'");
}

fs_image make_ext2(const std::string& path, u64 bytes, const std::string& options,
                   std::mt19937* random) {
  make_sparse(path, bytes);
  run("mke2fs -q -F -E lazy_itable_init=1 " + options + " '" + path + "'");
  populate_ext2(path, random);
  fs_image image{path, bytes, 0, {}};
  image.in_use = ext2_in_use(path);
  image.block_size =
      static_cast<u32>(number_after(run("dumpe2fs -h '" + path + "'"), "Block size:"));
  // The boot block, and with 1 KiB blocks the one before the superblock, is never anybody's.
  image.in_use[0] = true;
  return image;
}

// ---- ReiserFS ------------------------------------------------------------------------------

bit_vector reiserfs_in_use(const std::string& path) {
  const std::string report = run("debugreiserfs -m '" + path + "'");
  const u64 count = number_after(report, "Count of blocks on the device:");
  bit_vector used(count, true);
  const std::string key = "Free(";
  for (std::size_t at = report.find(key); at != std::string::npos; at = report.find(key, at + 1)) {
    set_free(report.c_str() + at + key.size(), &used);
  }
  return used;
}

// There is no tool that writes files into an image, so blocks are marked in the bitmaps, and the
// superblock's count follows.
fs_image make_reiserfs(const std::string& path, u64 bytes_total, std::mt19937* random) {
  make_sparse(path, bytes_total);
  run("mkreiserfs -q -f -f '" + path + "'");
  fs_image image{path, bytes_total, 4096, reiserfs_in_use(path)};
  constexpr u64 per_bitmap = 4096 * 8;
  u32 free_blocks = zorv::get_le32(read_at(path, 65536 + 4, 4).data());
  for (u64 i = 0; i * per_bitmap < image.in_use.size(); ++i) {
    const u64 place = (i == 0 ? 17 : i * per_bitmap) * 4096;
    bytes map = read_at(path, place, 4096);
    for (int run_no = 0; run_no < 200; ++run_no) {
      const u64 first = i * per_bitmap + (*random)() % per_bitmap;
      const u64 length = 1 + (*random)() % 64;
      for (u64 b = first; b < first + length; ++b) {
        if (b >= image.in_use.size() || b >= (i + 1) * per_bitmap || image.in_use[b]) continue;
        const u64 bit = b - i * per_bitmap;
        map[bit / 8] = static_cast<u8>(map[bit / 8] | 1U << (bit % 8));
        image.in_use[b] = true;
        --free_blocks;
      }
    }
    write_at(path, place, map);
  }
  write_at(path, 65536 + 4,
           {static_cast<u8>(free_blocks), static_cast<u8>(free_blocks >> 8),
            static_cast<u8>(free_blocks >> 16), static_cast<u8>(free_blocks >> 24)});
  EXPECT_EQ(difference(reiserfs_in_use(path), image.in_use), "");
  return image;
}

// ---- XFS -----------------------------------------------------------------------------------

bit_vector xfs_in_use(const std::string& path, u64 blocks, u32 blocks_per_group) {
  bit_vector used(blocks, true);
  std::istringstream lines(run("xfs_db -r -c 'freesp -d' '" + path + "'"));
  std::string line;
  std::getline(lines, line);  // the heading
  for (u64 group = 0, start = 0, length = 0; std::getline(lines, line);) {
    std::istringstream fields(line);
    if (!(fields >> group >> start >> length)) break;
    for (u64 b = 0; b < length; ++b) used.at(group * blocks_per_group + start + b) = false;
  }
  return used;
}

namespace {

struct free_extent {
  u32 start, length;
};

// Blocks of a tree come from the front of the free space that is being cut up.
struct tree_builder {
  std::string path;
  u64 group_start;
  u32 block_size;
  u32 next_block;

  void put(u32 block, u32 level, u32 left, u32 right, const std::vector<free_extent>& entries,
           const std::vector<u32>& pointers) const {
    bytes b(block_size);
    put_be32(&b, 0, 0x41425442);
    put_be32(&b, 4, level << 16 | static_cast<u32>(entries.size()));
    put_be32(&b, 8, left);
    put_be32(&b, 12, right);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      put_be32(&b, 16 + i * 8, entries[i].start);
      put_be32(&b, 20 + i * 8, entries[i].length);
    }
    const u64 pointers_at = 16 + (block_size - 16) / 12 * 8ULL;
    for (std::size_t i = 0; i < pointers.size(); ++i) {
      put_be32(&b, pointers_at + i * 4, pointers[i]);
    }
    write_at(path, (group_start + block) * block_size, b);
  }

  // One level over `entries` (extents, or first keys with `below`); the root, and levels used.
  u32 build(const std::vector<free_extent>& entries, const std::vector<u32>& below, u32 level,
            u32* levels) {
    constexpr std::size_t per_node = 20;  // few, so that there are many nodes
    const std::size_t nodes = std::max<std::size_t>(1, (entries.size() + per_node - 1) / per_node);
    std::vector<free_extent> keys;
    std::vector<u32> blocks;
    for (std::size_t n = 0; n < nodes; ++n) blocks.push_back(next_block++);
    for (std::size_t n = 0; n < nodes; ++n) {
      const std::size_t first = n * per_node;
      const std::size_t last = std::min(first + per_node, entries.size());
      const auto at = [](std::size_t i) { return static_cast<std::ptrdiff_t>(i); };
      put(blocks[n], level, n == 0 ? ~0U : blocks[n - 1], n + 1 == nodes ? ~0U : blocks[n + 1],
          {entries.begin() + at(first), entries.begin() + at(last)},
          level == 0 ? std::vector<u32>{}
                     : std::vector<u32>{below.begin() + at(first), below.begin() + at(last)});
      if (!entries.empty()) keys.push_back(entries[first]);
    }
    *levels = level + 1;
    return nodes == 1 ? blocks[0] : build(keys, blocks, level + 1, levels);
  }
};

// Cuts the last free extent of a group fresh from its maker into random ones.
void fragment_group(const std::string& path, u64 group_start, u32 block_size,
                    std::mt19937* random) {
  const u64 header = group_start * block_size + 512;
  bytes agf = read_at(path, header, 64);
  const bytes root = read_at(path, (group_start + get_be32(agf, 16)) * block_size, 64);
  const u64 record = 8 + get_be32(root, 4) * 8ULL;  // a leaf has its level, 0, above the count
  const u32 start = get_be32(root, record);
  const u32 end = start + get_be32(root, record + 4);
  tree_builder tree{path, group_start, block_size, start};
  constexpr u32 room_for_tree = 400;
  std::vector<free_extent> extents;
  u32 total = 0;
  u32 longest = 0;
  for (u32 at = start + room_for_tree; at + 1200 < end;) {
    const u32 length = 1 + (*random)() % ((*random)() % 8 == 0 ? 1000 : 30);
    extents.push_back({at, length});
    total += length;
    longest = std::max(longest, length);
    at += length + 1 + (*random)() % 40;
    if (extents.size() > 4000) break;
  }
  u32 levels = 0;
  put_be32(&agf, 16, tree.build(extents, {}, 0, &levels));
  EXPECT_LE(tree.next_block, start + room_for_tree);
  put_be32(&agf, 28, levels);
  put_be32(&agf, 52, total);
  put_be32(&agf, 56, longest);
  put_be32(&agf, 60, tree.next_block - start - 1);
  write_at(path, header, agf);
}

}  // namespace

fs_image make_xfs(const std::string& path, u64 bytes_total, u32 group_count, u32 block_size,
                  std::mt19937* random) {
  make_sparse(path, bytes_total);
  run("mkfs.xfs --unsupported -q -m crc=0 -n ftype=0 -b size=" + std::to_string(block_size) +
      " -d agcount=" + std::to_string(group_count) +
      " -l agnum=" + std::to_string(group_count - 1) + " '" + path + "'");
  const bytes sb = read_at(path, 0, 512);
  const u32 group_blocks = get_be32(sb, 84);
  const u64 blocks = get_be32(sb, 12);
  for (u32 a = 0; a < group_count; ++a) {
    fragment_group(path, static_cast<u64>(a) * group_blocks, block_size, random);
  }
  fs_image image{path, bytes_total, block_size, xfs_in_use(path, blocks, group_blocks)};
  // The tool counts the blocks of a group's free list (sector 3) as free; they are the allocator's.
  for (u64 a = 0; a < group_count; ++a) {
    const bytes header = read_at(path, a * group_blocks * block_size + 512, 1536);
    const u32 first = get_be32(header, 40);
    for (u32 i = 0; i < get_be32(header, 48); ++i) {
      image.in_use[a * group_blocks + get_be32(header, 1024 + (first + i) % 128 * 4ULL)] = true;
    }
  }
  return image;
}

// ---- maps ----------------------------------------------------------------------------------

namespace {
std::string unused_disk_name() {
  static std::atomic<int> used{0};
  return "image" + std::to_string(used++);
}
}  // namespace

image_disk::image_disk(const fs_image& image, u64 extra_bytes)
    : disk_(unused_disk_name(), image.bytes + extra_bytes) {
  const int fd = ::open(image.path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0) << image.path;
  bytes piece(1 << 20);
  for (off_t at = ::lseek(fd, 0, SEEK_DATA); at >= 0; at = ::lseek(fd, at, SEEK_DATA)) {
    const off_t end = ::lseek(fd, at, SEEK_HOLE);
    while (at < end) {
      const ssize_t n = ::pread(
          fd, piece.data(), std::min<std::size_t>(piece.size(), static_cast<u64>(end - at)), at);
      EXPECT_GT(n, 0);
      if (n <= 0) break;
      const bytes data(piece.begin(), piece.begin() + n);
      if (std::any_of(data.begin(), data.end(), [](u8 b) { return b != 0; })) {
        disk_.poke(static_cast<u64>(at), data);
      }
      at += n;
    }
  }
  ::close(fd);
}

image_disk::~image_disk() {
  if (bdev_ != nullptr) kernel::blkdev_put(bdev_, kernel::FMODE_READ);
}

kernel::block_device* image_disk::bdev() {
  if (bdev_ == nullptr) bdev_ = kernel::open_by_devnum(disk_.dev(), kernel::FMODE_READ);
  EXPECT_FALSE(kernel::is_err(bdev_));
  return bdev_;
}

bool map_result::all_set() const {
  return std::all_of(chunks.begin(), chunks.end(), [](bool b) { return b; });
}

map_result build_map(kernel::block_device* bdev, u32 chunk_size) {
  zorv::zorv_blkbmp map;
  zorv::zorv_blkbmp_init(&map);
  map_result result{zorv::zorv_blkbmp_read(&map, bdev, static_cast<s32>(chunk_size)), {}};
  const u64 chunks = (bdev->bd_size_bytes + chunk_size - 1) / chunk_size;
  for (u64 c = 0; c < chunks; ++c) {
    result.chunks.push_back(zorv::zorv_blkbmp_test_bit(&map, c) != 0);
  }
  zorv::zorv_blkbmp_destroy(&map);
  return result;
}

bit_vector chunks_of(const fs_image& image, u64 device_bytes, u32 chunk_size) {
  bit_vector chunks((device_bytes + chunk_size - 1) / chunk_size, false);
  const u64 per_chunk = chunk_size / image.block_size;
  for (u64 b = 0; b < image.in_use.size(); ++b) {
    if (image.in_use[b]) chunks[b / per_chunk] = true;
  }
  const u64 behind = image.in_use.size() * image.block_size;
  for (u64 at = behind; at < device_bytes; at += 512) chunks[at / chunk_size] = true;
  return chunks;
}

std::string difference(const bit_vector& got, const bit_vector& expected) {
  if (got.size() != expected.size()) {
    return "sizes " + std::to_string(got.size()) + " and " + std::to_string(expected.size());
  }
  const auto at = std::mismatch(got.begin(), got.end(), expected.begin());
  if (at.first == got.end()) return "";
  return "bit " + std::to_string(at.first - got.begin()) + " is " + (*at.first ? "set" : "clear");
}

kernel::s64 first_lost(const map_result& map, const bit_vector& in_use) {
  for (u64 b = 0; b < in_use.size(); ++b) {
    if (in_use[b] && !map.chunks.at(b)) return static_cast<kernel::s64>(b);
  }
  return -1;
}

}  // namespace zorv_test
