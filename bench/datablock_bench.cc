// SPDX-License-Identifier: GPL-2.0-only
// Datablock maps: building that of a 1 TiB sparse image of each file system, what it takes in
// memory, and looking chunks up.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "driver/datablock/blkbmp.h"
#include "driver/datablock/fragment.h"
#include "driver/util/file.h"
#include "host/disk/disk.h"
#include "kernel/fs.h"
#include "kernel/printk.h"

namespace {

using namespace zorv;

constexpr u64 image_bytes = 1ULL << 40;

struct folder {
  std::string path;
  folder() {
    std::string name = std::filesystem::temp_directory_path() / "zorv-bench.XXXXXX";
    path = mkdtemp(name.data());
  }
  ~folder() {
    image_detach_all();
    std::filesystem::remove_all(path);
  }
};

// An attached image of the file system, opened for reading; null when it cannot be made here.
kernel::block_device* open_image(const std::string& name, const std::string& maker) {
  static folder where;
  kernel::set_printk_sink([](const char*) {});
  const std::string path = where.path + "/" + name;
  std::ofstream(path).close();
  std::filesystem::resize_file(path, image_bytes);
  const std::string command =
      "PATH=$PATH:/usr/sbin:/sbin " + maker + " " + path + " >/dev/null 2>&1";
  std::string error;
  if (std::system(command.c_str()) != 0 ||
      image_attach(path, name, access::read_only, &error) != 0) {
    return nullptr;
  }
  kernel::dentry* node = zorv_get_file_dentry(("/dev/image/" + name).c_str(), 1);
  kernel::block_device* bdev = zorv_open_bdev(node->d_inode()->i_rdev, kernel::FMODE_READ);
  kernel::dput(node);
  return bdev;
}

void build_map(benchmark::State& state, const char* name, const char* maker) {
  static std::vector<std::pair<std::string, kernel::block_device*>> opened;
  kernel::block_device* bdev = nullptr;
  for (const auto& o : opened) {
    if (o.first == name) bdev = o.second;
  }
  if (bdev == nullptr) opened.emplace_back(name, bdev = open_image(name, maker));
  if (bdev == nullptr) {
    state.SkipWithError("the image cannot be made here");
    return;
  }
  u64 memory = 0;
  for (auto _ : state) {
    zorv_blkbmp map;
    zorv_blkbmp_init(&map);
    if (zorv_blkbmp_read(&map, bdev, static_cast<s32>(state.range(0))) < 0) {
      state.SkipWithError("no map");
      return;
    }
    memory = zorv_blkbmp_memory(&map);
    zorv_blkbmp_destroy(&map);
  }
  state.counters["map_KiB"] = static_cast<double>(memory) / 1024;
}
// Few inodes, so that making the image does not write gigabytes of empty tables.
BENCHMARK_CAPTURE(build_map, ext3, "ext3", "mke2fs -q -F -t ext3 -b 4096 -N 131072")
    ->Arg(4096)
    ->Arg(65536)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(build_map, reiserfs, "reiserfs", "mkreiserfs -q -f -f")
    ->Arg(4096)
    ->Arg(65536)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(build_map, xfs, "xfs", "mkfs.xfs -q -m crc=0 -n ftype=0 -l size=64m")
    ->Arg(4096)
    ->Arg(65536)
    ->Unit(benchmark::kMillisecond);

// A fragment whose chunks are in use in runs of about this many.
struct random_fragment {
  std::vector<u8> bits = std::vector<u8>(fragment_bytes);
  explicit random_fragment(s64 mean_run) {
    std::mt19937 random(1);
    bool used = false;
    for (u64 b = 0; b < fragment_chunks;) {
      const u64 end = b + 1 + random() % (2 * static_cast<u64>(mean_run));
      for (; b < end && b < fragment_chunks; ++b) {
        if (used) bits[b / 8] |= static_cast<u8>(1U << (b % 8));
      }
      used = !used;
    }
  }
};

void pack_fragment(benchmark::State& state) {
  random_fragment source(state.range(0));
  int size = 0;
  for (auto _ : state) {
    sa f;
    size = fragment_build(&f, source.bits.data(), fragment_bytes);
    fragment_free(&f);
  }
  state.counters["bytes"] = size;
}
BENCHMARK(pack_fragment)->Arg(4)->Arg(256)->Arg(16384)->Unit(benchmark::kMicrosecond);

// Look-ups at random, as the routing of writes makes them, by one and by several threads.
void look_up(benchmark::State& state) {
  static zorv_blkbmp map;
  if (state.thread_index() == 0) {
    random_fragment source(64);
    map.frags = static_cast<sa*>(kernel::kzalloc(sizeof(sa), kernel::GFP_KERNEL));
    if (map.frags == nullptr ||
        fragment_build(&map.frags[0], source.bits.data(), fragment_bytes) < 0) {
      std::abort();
    }
    map.frag_cnt = 1;
    map.chunk_cnt = fragment_chunks;
    map.valid.store(1);
  }
  u32 chunk = static_cast<u32>(state.thread_index()) * 77777;
  int set = 0;
  for (auto _ : state) {
    set += zorv_blkbmp_test_bit(&map, chunk & (fragment_chunks - 1));
    chunk += 7919;
  }
  benchmark::DoNotOptimize(set);
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) zorv_blkbmp_destroy(&map);
}
BENCHMARK(look_up)->Threads(1)->Threads(2);

}  // namespace
