// SPDX-License-Identifier: GPL-2.0-only
// The hot operations in process: marking, and a request through a filter over a memory disk.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>

#include "doubles/memory_disk.h"
#include "driver/bitmap/bitmap.h"
#include "driver/core/blkdev.h"
#include "driver/core/module.h"
#include "kernel/chrdev.h"
#include "kernel/printk.h"
#include "support/own_user_space.h"

namespace {

using namespace zorv;

// A loaded driver with one started filter over 1 GiB in memory.
struct setup {
  memory_disk disk{"bench", 1ULL << 30};
  kernel::block_device* node = nullptr;
  zorv_filter* filter = nullptr;

  setup() {
    kernel::set_printk_sink([](const char*) {});
    if (zorv_init() != 0) std::abort();
    zorv_add_filter_req add{};
    copy_text_n(add.hdd_name, sizeof(add.hdd_name), disk.path().c_str());
    copy_text_n(add.bmp_dir, sizeof(add.bmp_dir), "/var/tmp");
    add.minor = 0;
    add.extent_size = 65536;
    command(ZORV_ADD_FILTER_NODE, &add);
    zorv_node_req start{0};
    command(ZORV_START_NODE, &start);
    node = kernel::open_by_devnum(kernel::mkdev(static_cast<kernel::u32>(zorv_blk_major), 0),
                                  kernel::FMODE_WRITE);
    filter = &zorv_blkdev_arr[0]->f;
  }
  static void command(kernel::u32 number, void* record) {
    const kernel::user_space_scope scope(zorv_test::own_user_space());
    if (kernel::chrdev_ioctl("zorv", number, reinterpret_cast<kernel::user_addr>(record)) != 0) {
      std::abort();
    }
  }
};

setup& shared() {
  static auto* s = new setup;
  return *s;
}

void mark_4k(benchmark::State& state) {
  zorv_filter* f = shared().filter;
  kernel::u64 sector = 0;
  for (auto _ : state) {
    zorv_block_mark_extents(f, sector, 8);
    sector = (sector + 88) & 0x1fffff;
  }
}
BENCHMARK(mark_4k)->ThreadRange(1, 2);

void mark_1m(benchmark::State& state) {
  zorv_filter* f = shared().filter;
  for (auto _ : state) zorv_block_mark_extents(f, 0, 2048);
}
BENCHMARK(mark_1m);

void request_through_filter(benchmark::State& state) {
  kernel::block_device* node = shared().node;
  alignas(4096) static thread_local std::byte buffer[4096];
  static std::atomic<kernel::u64> errors{0};
  kernel::u64 sector = 0;
  for (auto _ : state) {
    kernel::bio* b = kernel::bio_alloc(kernel::GFP_NOIO, 1);
    b->bi_bdev = node;
    b->bi_sector = sector;
    b->bi_end_io = [](kernel::bio* done, int error) {
      if (error != 0) errors.fetch_add(1);
      kernel::bio_put(done);
    };
    kernel::bio_add_page(b, kernel::page_at(buffer), 4096, 0);
    kernel::submit_bio(static_cast<kernel::u32>(state.range(0)), b);
    sector = (sector + 88) & 0x1ffff0;
  }
  kernel::blk_unplug(kernel::bdev_get_queue(node));
  if (errors.load() != 0) state.SkipWithError("a request failed");
}
BENCHMARK(request_through_filter)->Arg(kernel::READ)->Arg(kernel::WRITE)->ThreadRange(1, 2);

}  // namespace
