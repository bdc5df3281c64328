// SPDX-License-Identifier: GPL-2.0-only
// Block devices, and single blocks of them.
#include "driver/core/log.h"
#include "driver/util/file.h"
#include "kernel/blkdev.h"
#include "kernel/lock.h"
#include "kernel/mem.h"

namespace zorv {
namespace {

// Reads one block into the page and waits for it. Returns whether it arrived. Block numbers come
// from disks: a wild one must not wrap to a sector that exists.
bool read_block(kernel::block_device* bdev, kernel::page* page, u32 block_size, s64 block) {
  if (block_size == 0 || block < 0 || block > INT64_MAX / block_size) return false;
  kernel::completion done;
  kernel::init_completion(&done);
  kernel::bio_vec vec;
  kernel::bio bio;
  kernel::bio_init(&bio, &vec, 1);
  if (kernel::bio_add_page(&bio, page, block_size, 0) != block_size) return false;
  bio.bi_bdev = bdev;
  bio.bi_sector = static_cast<sector_t>(block) * block_size / kernel::sector_size;
  bio.bi_end_io = zorv_bio_complete;
  bio.bi_private = &done;

  kernel::blkdev_enter(bdev);
  kernel::submit_bio(kernel::READ, &bio);
  kernel::blk_unplug(kernel::bdev_get_queue(bdev));
  kernel::wait_for_completion(&done);
  kernel::blkdev_exit(bdev);
  return bio.bi_uptodate.load(std::memory_order_relaxed);
}

}  // namespace

kernel::block_device* zorv_open_bdev(devt dev, u32 mode) {
  kernel::block_device* bdev = kernel::open_by_devnum(dev, mode);
  return kernel::is_err(bdev) ? nullptr : bdev;
}

void zorv_close_bdev(kernel::block_device* bdev) {
  kernel::blkdev_put(bdev, kernel::FMODE_READ | kernel::FMODE_WRITE);
}

int zorv_is_mounted(kernel::block_device* bdev) {
  kernel::super_block* sb = kernel::get_super(bdev);
  if (sb == nullptr) return 0;
  kernel::drop_super(sb);
  return 1;
}

int zorv_bread(kernel::block_device* bdev, void* buffer, u32 block_size, s64 first_block,
               s32 count) {
  if (block_size > kernel::page_size) {
    zorv_log(LOG_ERROR, "%s(): Block size cannot be larger than page size (%d)", __func__,
             static_cast<int>(kernel::page_size));
    return -EINVAL;
  }
  kernel::page* page = kernel::alloc_page(kernel::GFP_KERNEL);
  if (page == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
    return -ENOMEM;
  }
  const scope_exit free_page([page] { kernel::free_page(page); });
  auto* to = static_cast<std::byte*>(buffer);
  for (s32 i = 0; i < count; i++) {
    const auto block = static_cast<s64>(static_cast<u64>(first_block) + static_cast<u64>(i));
    if (!read_block(bdev, page, block_size, block)) {
      zorv_log(LOG_ERROR, "%s(): Failed to read %d-byte block #%lld", __func__,
               static_cast<int>(block_size), static_cast<long long>(block));
      return -EIO;
    }
    kernel::cond_resched();
    std::memcpy(to + static_cast<std::size_t>(i) * block_size, kernel::page_address(page),
                block_size);
  }
  return 0;
}

void zorv_bio_complete(kernel::bio* bio, int /*error*/) {
  kernel::complete(static_cast<kernel::completion*>(bio->bi_private));
}

}  // namespace zorv
