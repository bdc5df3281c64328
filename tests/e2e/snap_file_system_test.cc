// SPDX-License-Identifier: GPL-2.0-only
// What snapshots are for: a file system whose files change stays whole, with its old files, in
// the snapshot, and its free space costs nothing.
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "e2e/snap_fixture.h"

using namespace zorv_test;

namespace {

bytes ext3_file(const std::string& image, const std::string& name) {
  const temp_dir dir;
  shell("debugfs -R 'dump /" + name + " " + (dir / "out") + "' " + image);
  return read_file(dir / "out");
}

void make_ext3(const std::string& image, const std::string& tree) {
  make_image(image, 16 * MiB);
  shell("mke2fs -q -F -t ext3 -b 4096 -d " + tree + " " + image);
}

void change_ext3(const std::string& image, const std::string& tree) {
  std::string commands;
  for (const char* old : {"f1", "f4", "f6"}) commands += std::string("rm /") + old + "\n";
  commands += "mkdir /d\n";
  for (const char* f : {"f2", "f3", "f7"}) {
    commands += "write " + tree + "/" + f + " d/" + f + "\n";
  }
  write_file(image + ".commands", bytes(commands.begin(), commands.end()));
  shell("debugfs -w -f " + image + ".commands " + image);
}

class snap_file_system : public snap_e2e {
 protected:
  // Lets two clients write what differs between the disk and a changed image of it.
  void write_differences(const bytes& before, const bytes& after) {
    constexpr u64 piece = 32 * KiB;
    const auto write_half = [&](u64 half) {
      node_client client(*d, "disk");
      for (u64 at = half * piece; at < after.size(); at += 2 * piece) {
        if (std::memcmp(&after[at], &before[at], piece) == 0) continue;
        const auto from = after.begin() + static_cast<long>(at);
        EXPECT_EQ(client.write(at, bytes(from, from + piece)), 0U);
      }
    };
    std::thread other(write_half, 1);
    write_half(0);
    other.join();
  }
};

TEST_F(snap_file_system, stays_whole_with_its_old_files) {
  std::map<std::string, bytes> files;
  std::filesystem::create_directory(dir / "tree");
  for (u32 i = 0; i < 8; ++i) {
    const std::string name = "f" + std::to_string(i);
    files[name] = make_random_file(dir / ("tree/" + name), (5 + 56 * i) * KiB, i);
  }
  make_ext3(dir / "disk.raw", dir / "tree");
  const bytes before = read_file(dir / "disk.raw");
  write_file(dir / "changed.raw", before);
  change_ext3(dir / "changed.raw", dir / "tree");
  const bytes after = read_file(dir / "changed.raw");

  serve(dir / "disk.raw");
  take_snap("snap");
  write_differences(before, after);
  EXPECT_TRUE(show("disk") == after);
  shell("e2fsck -fn " + dir / "disk.raw");
  EXPECT_GT(copied("snap"), 0U);
  shell("nbdcopy '" + d->uri("snap") + "' " + dir / "snap.raw");
  shell("e2fsck -fn " + dir / "snap.raw");
  for (const auto& [name, content] : files) {
    EXPECT_TRUE(ext3_file(dir / "snap.raw", name) == content) << name;
  }
}

// The numbers and ranges that a tool prints.
std::vector<u64> block_list(const std::string& text) {
  std::vector<u64> blocks;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const std::size_t dash = word.find('-');
    const u64 first = std::stoull(word);
    const u64 last = dash == std::string::npos ? first : std::stoull(word.substr(dash + 1));
    for (u64 b = first; b <= last; ++b) blocks.push_back(b);
  }
  return blocks;
}

TEST_F(snap_e2e, free_space_is_not_copied_and_data_is) {
  constexpr u64 image_bytes = 16 * MiB, block_bytes = 4 * KiB, chunk_blocks = chunk / block_bytes;
  std::filesystem::create_directory(dir / "tree");
  const bytes big = make_random_file(dir / "tree/big", 7 * MiB, 1);
  make_ext3(dir / "disk.raw", dir / "tree");
  std::vector<u64> free_in_chunk(image_bytes / chunk);
  for (const u64 b :
       block_list(shell("dumpe2fs " + dir / "disk.raw" +
                        " 2>/dev/null | sed -n 's/^  Free blocks: //p' | tr , ' '"))) {
    ++free_in_chunk[b / chunk_blocks];
  }
  auto data = block_list(shell("debugfs -R 'blocks /big' " + dir / "disk.raw"));
  ASSERT_GE(data.size(), big.size() / block_bytes);

  serve(dir / "disk.raw");
  take_snap("snap");
  const u64 cow_file_at_start = info("snap").at("cow_data_allocated");
  node_client client(*d, "disk");
  u64 free_chunks = 0;
  for (u64 c = 0; c < free_in_chunk.size(); ++c) {
    if (free_in_chunk[c] != chunk_blocks) continue;
    EXPECT_EQ(client.write(c * chunk, bytes(chunk, 0x55)), 0U);
    ++free_chunks;
  }
  EXPECT_GT(free_chunks, 100U);
  EXPECT_EQ(copied("snap"), 0U);
  EXPECT_EQ(info("snap").at("cow_data_allocated"), cow_file_at_start);

  data.resize(600);  // a part of it will do
  std::set<u64> data_chunks;
  for (const u64 b : data) {
    EXPECT_EQ(client.write(b * block_bytes, bytes(block_bytes, 0xaa)), 0U);
    data_chunks.insert(b / chunk_blocks);
  }
  EXPECT_EQ(copied("snap"), data_chunks.size() * chunk);
  EXPECT_GE(info("snap").at("cow_data_allocated"), data_chunks.size() * chunk);
  write_file(dir / "snap.raw", show("snap"));
  shell("e2fsck -fn " + dir / "snap.raw");
  EXPECT_TRUE(ext3_file(dir / "snap.raw", "big") == big);
}

}  // namespace
