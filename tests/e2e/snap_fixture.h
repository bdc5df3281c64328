// SPDX-License-Identifier: GPL-2.0-only
// Snapshots as their users meet them: a filter over an image, clients on its exports, zorvctl.
#pragma once

#include <cstring>
#include <random>

#include "support/daemon.h"

namespace zorv_test {

constexpr u64 KiB = 1024, MiB = 1024 * KiB;

class snap_e2e : public ::testing::Test {
 protected:
  static constexpr u64 chunk = 16 * KiB;

  // A daemon with the image and a started filter "disk" over it; again after a restart.
  void serve(const std::string& image) {
    d = std::make_unique<daemon_process>(std::vector<std::string>{"--disk", image + ",name=disk"},
                                         dir / "run");
    ASSERT_TRUE(d->serving()) << d->log();
    d->must(
        {"add-filter", "disk", "--extent-size", "64K", "--bmp-dir", dir.path(), "--name", "disk"});
    d->must({"start", "disk"});
  }
  void TearDown() override {
    if (d != nullptr && d->pid() > 0) EXPECT_EQ(d->end(SIGTERM), 0) << d->log();
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

  temp_dir dir;
  std::unique_ptr<daemon_process> d;
};

// A file of random content; no two blocks alike.
inline bytes make_random_file(const std::string& path, u64 size, u32 seed) {
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
inline std::string shell(const std::string& command) {
  const program_result r = run_program({"bash", "-o", "pipefail", "-c", command});
  EXPECT_EQ(r.status, 0) << command << "\n" << r.out << r.err;
  return r.out;
}

}  // namespace zorv_test
