// SPDX-License-Identifier: GPL-2.0-only
// Snapshots as their users meet them: under readers, over a file system whose free space costs
// nothing, with COW files that cannot be written.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <set>
#include <sstream>

#include "support/daemon.h"

using namespace zorv_test;
using testing::HasSubstr;

namespace {

constexpr u64 KiB = 1024, MiB = 1024 * KiB;

class snap_e2e : public with_daemon {
 protected:
  static constexpr u64 chunk = 16 * KiB;

  // A daemon with the image and a started filter "disk" over it; again after a restart.
  void serve(const std::string& image) {
    with_daemon::serve(image);
    add_started("disk", "disk");
  }
  // A started snap with COW files in the directory (default: the test's own).
  void take_snap(const std::string& name, const std::string& cow_dir = "") {
    d->must({"add-snap", "disk", "--chunk-size", std::to_string(chunk), "--cow-dir",
             cow_dir.empty() ? dir.path() : cow_dir, "--name", name});
    d->must({"start", name});
  }
  nlohmann::json info(const std::string& node) { return d->ctl_json({"info", node}); }
  u64 copied(const std::string& snap) { return info(snap).at("copied_bytes"); }
  bytes show(const std::string& node) {
    return node_client(*d, node).read(0, info(node).at("dev_size")).data;
  }
};

// A file of random content; no two blocks alike.
bytes make_random_file(const std::string& path, u64 size, u32 seed) {
  std::mt19937_64 random(seed);
  bytes content(size);
  for (u64 i = 0; i + 8 <= size; i += 8) {
    const u64 word = random();
    std::memcpy(&content[i], &word, sizeof word);
  }
  write_file(path, content);
  return content;
}

// Runs a shell command; what it prints. Fails the test unless it succeeds.
std::string shell(const std::string& command) {
  const program_result r = run_program({"bash", "-o", "pipefail", "-c", command});
  EXPECT_EQ(r.status, 0) << command << "\n" << r.out << r.err;
  return r.out;
}

class snap_trouble : public snap_e2e {
 protected:
  static constexpr u64 disk_bytes = 4 * MiB;

  void SetUp() override {
    original = make_random_file(dir / "disk.raw", disk_bytes, 1);
    serve(dir / "disk.raw");
  }
  // Overwrites [offset, end) by pieces; no client of the filter may see an error.
  void overwrite(u64 offset, u64 end, u8 with) {
    node_client client(*d, "disk");
    for (const u64 piece = 96 * KiB; offset < end; offset += piece) {
      EXPECT_EQ(client.write(offset, bytes(std::min(piece, end - offset), with)), 0U);
    }
  }
  void expect_invalid(const std::string& snap) {
    SCOPED_TRACE(snap);
    EXPECT_EQ(info(snap).at("snap_valid"), 0);
    EXPECT_THAT(d->must({"list"}), testing::ContainsRegex(snap + " +snap +INVALID"));
    EXPECT_THAT(d->log(), HasSubstr("Invalidating snap device zorv(100, " +
                                    info(snap).at("minor").dump() + ")"));
    EXPECT_EQ(node_client(*d, snap).read(0, 4096).error, wire::eio);
  }
  bytes original;
};

TEST_F(snap_trouble, a_snap_is_not_stopped_under_its_reader) {
  take_snap("old");
  overwrite(0, MiB, 1);
  take_snap("new");
  overwrite(0, disk_bytes, 2);
  {
    node_client reader(*d, "new");
    for (const char* command : {"stop", "del"}) {
      EXPECT_THAT(d->ctl({command, "new"}).err, HasSubstr("EBUSY"));
    }
    bytes shown(MiB, 1);
    shown.insert(shown.end(), original.begin() + MiB, original.end());
    EXPECT_TRUE(reader.read(0, disk_bytes).data == shown);
    EXPECT_EQ(reader.write(0, bytes(4096)), wire::eperm);
  }
  d->must({"del", "new"});
  EXPECT_EQ(info("new").at("del_pending"), 1);
  EXPECT_EQ(node_client(*d, "new").read(0, 4096).error, wire::eio) << "it only serves the older";
  EXPECT_TRUE(show("old") == original);
  d->must({"del", "old"});
  EXPECT_TRUE(d->ctl_json({"list", "snap"}).empty());
}

TEST_F(snap_trouble, a_cow_file_that_cannot_grow_costs_the_snapshot_and_nothing_else) {
  take_snap("old");
  take_snap("full");
  // Only the end of the last chunk is beyond it.
  const rlimit largest{disk_bytes - 4 * KiB, RLIM_INFINITY};
  rlimit before{};
  ASSERT_EQ(::prlimit(d->pid(), RLIMIT_FSIZE, &largest, &before), 0);
  overwrite(0, disk_bytes - 8 * KiB, 1);
  expect_invalid("full");
  expect_invalid("old");
  bytes now(disk_bytes - 8 * KiB, 1);
  now.insert(now.end(), original.end() - 8 * KiB, original.end());
  EXPECT_TRUE(show("disk") == now);
  d->must({"del", "old"});
  d->must({"del", "full"});
  ASSERT_EQ(::prlimit(d->pid(), RLIMIT_FSIZE, &before, nullptr), 0);
  take_snap("fresh");
  overwrite(0, MiB, 2);
  EXPECT_TRUE(show("fresh") == now);
}

TEST_F(snap_trouble, a_cow_directory_that_vanishes_costs_the_snapshot_and_nothing_else) {
  std::filesystem::create_directory(dir / "cow");
  take_snap("snap", dir / "cow");
  overwrite(0, MiB, 1);
  EXPECT_TRUE(show("snap") == original);
  std::filesystem::remove_all(dir / "cow");
  overwrite(0, disk_bytes, 2);
  expect_invalid("snap");
  EXPECT_TRUE(show("disk") == bytes(disk_bytes, 2));
  d->must({"stop", "snap"});
  EXPECT_EQ(d->ctl({"resume", "snap"}).status, 1);
  EXPECT_EQ(d->ctl({"start", "snap"}).status, 1);
  d->must({"del", "snap"});
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
  make_image(dir / "disk.raw", image_bytes);
  shell("mke2fs -q -F -t ext3 -b 4096 -d " + dir / "tree" + " " + dir / "disk.raw");
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
  const auto cow_file_takes = [&] {
    struct stat st {};
    EXPECT_EQ(::stat((dir / "snap.cowdata").c_str(), &st), 0);
    return static_cast<u64>(st.st_blocks) * 512;
  };
  const u64 cow_file_at_start = cow_file_takes();
  node_client client(*d, "disk");
  u64 free_chunks = 0;
  for (u64 c = 0; c < free_in_chunk.size(); ++c) {
    if (free_in_chunk[c] != chunk_blocks) continue;
    EXPECT_EQ(client.write(c * chunk, bytes(chunk, 0x55)), 0U);
    ++free_chunks;
  }
  EXPECT_GT(free_chunks, 100U);
  EXPECT_EQ(copied("snap"), 0U);
  EXPECT_EQ(cow_file_takes(), cow_file_at_start);

  data.resize(600);  // a part of it will do
  std::set<u64> data_chunks;
  for (const u64 b : data) {
    EXPECT_EQ(client.write(b * block_bytes, bytes(block_bytes, 0xaa)), 0U);
    data_chunks.insert(b / chunk_blocks);
  }
  EXPECT_EQ(copied("snap"), data_chunks.size() * chunk);
  EXPECT_GE(cow_file_takes(), data_chunks.size() * chunk);
  shell("nbdcopy '" + d->uri("snap") + "' " + dir / "snap.raw");
  shell("e2fsck -fn " + dir / "snap.raw");
  shell("debugfs -R 'dump /big " + dir / "big" + "' " + dir / "snap.raw");
  EXPECT_TRUE(read_file(dir / "big") == big);
}

}  // namespace
