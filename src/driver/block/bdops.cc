// SPDX-License-Identifier: GPL-2.0-only
// The block device operations of every node.
#include "driver/bitmap/bitmap.h"
#include "driver/block/block.h"
#include "driver/core/log.h"
#include "kernel/module.h"
#include "kernel/uaccess.h"

namespace zorv {

namespace {

constexpr u32 ioctl_in = 1U << 30;
constexpr u32 ioctl_out = 1U << 31;
constexpr u32 ioctl_bytes(u32 command) { return command >> 16 & 0x3FFF; }

const char* command_name(u32 command) {
  switch (command) {
    case 0x125d:
      return "BLKROSET";
    case 0x125e:
      return "BLKROGET";
    case 0x1260:
      return "BLKGETSIZE";
    case 0x1261:
      return "BLKFLSBUF";
    case 0x1262:
      return "BLKRASET";
    case 0x1263:
      return "BLKRAGET";
    case 0x1268:
      return "BLKSSZGET";
    case 0x1269:
      return "BLKPG";
    case 0x80081270:
      return "BLKBSZGET";
    case 0x40081271:
      return "BLKBSZSET";
    default:
      return "UNKNOWN";
  }
}

// The HDD under a node, or null for a snap without a filter.
kernel::block_device* hdd_of(const zorv_blkdev* dev) {
  const zorv_blkdev* filter = dev->dev_type == ZORV_DEV_SNAP ? dev->s.filter : dev;
  if (filter == nullptr || filter->dev_type != ZORV_DEV_FILTER) return nullptr;
  return filter->f.hdd_bdev;
}

int cannot_find(u32 minor, const char* caller) {
  zorv_log(LOG_ERROR, "%s(): Unable to find zorv(%d, %d)", caller, zorv_blk_major, minor);
  return -EINVAL;
}

// Still open, so the filter is not stopped meanwhile; and who opens it waits for no folder. A
// closer that finds another at it leaves what has come since to that one: a folder that hangs keeps
// one.
void save_at_close(zorv_filter* f) {
  if (f->closes.fetch_add(1) != 0) return;
  for (u32 seen = 1; seen != 0;) {
    seen = f->closes.load();
    (void)zorv_block_save_dirty_bmps(f);
    if (f->closes.compare_exchange_strong(seen, 0)) seen = 0;
  }
}

}  // namespace

const kernel::block_device_operations zorv_bdops = {
    .open = zorv_block_open,
    .release = zorv_block_release,
    .ioctl = zorv_block_ioctl,
    .flush_cache = zorv_block_flush,
    .invalidate = nullptr,
    .mounted = nullptr,
    .identity = nullptr,
};

// What went through a filter is on its HDD; a snap holds nothing back.
int zorv_block_flush(kernel::block_device* bdev) {
  const auto* dev = static_cast<const zorv_blkdev*>(bdev->bd_disk->private_data);
  return dev->dev_type == ZORV_DEV_FILTER ? kernel::fsync_bdev(dev->f.hdd_bdev) : 0;
}

int zorv_block_open(kernel::block_device* bdev, kernel::fmode_t) {
  const u32 minor = kernel::minor_of(bdev->bd_dev);
  zorv_log(2, "%s(): Opening zorv(%d, %d)", __func__, zorv_blk_major, minor);
  kernel::module_get();
  scope_exit drop_reference([] { kernel::module_put(); });
  const node_ref dev = zorv_node_get(minor);
  if (!dev) return cannot_find(minor, __func__);
  rzmutex_guard guard(&dev->dev_mutex);
  if (dev->state.load() != node_state::live) return cannot_find(minor, __func__);
  dev->use_cnt.fetch_add(1);
  if (dev->started.load() == 0) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) hasn't been started yet.", __func__, zorv_blk_major,
             minor);
    dev->use_cnt.fetch_sub(1);
    return -EIO;
  }
  dev->bdev = bdev;
  zorv_log(3, "%s(): bdev=%p", __func__, static_cast<void*>(bdev));
  drop_reference.cancel();
  return 0;
}

int zorv_block_release(kernel::gendisk* disk, kernel::fmode_t) {
  const u32 minor = disk->first_minor;
  zorv_log(2, "%s(): Releasing zorv(%d, %d)", __func__, zorv_blk_major, minor);
  const node_ref dev = zorv_node_get(minor);
  if (!dev) return cannot_find(minor, __func__);
  if (dev->dev_type == ZORV_DEV_FILTER) save_at_close(&dev->f);
  rzmutex_guard guard(&dev->dev_mutex);
  if (dev->use_cnt.fetch_sub(1) == 1) {
    dev->bdev = nullptr;
    if (dev->s.stop_due.load() != 0) (void)zorv_block_stop_device(dev.get());
  }
  kernel::module_put();
  return 0;
}

int zorv_block_ioctl(kernel::block_device* bdev, kernel::fmode_t mode, u32 command, u64 argument) {
  const u32 minor = kernel::minor_of(bdev->bd_dev);
  const node_ref dev = zorv_node_get(minor);
  if (!dev) {
    zorv_log(LOG_ERROR, "%s(): Unknown device zorv(%d, %d)", __func__, zorv_blk_major, minor);
    return -EINVAL;
  }
  zorv_log(2, "%s(): cmd=0x%x (%s)", __func__, command, command_name(command));
  if ((command & (ioctl_in | ioctl_out)) != 0 &&
      !kernel::access_ok(argument, ioctl_bytes(command))) {
    return -EFAULT;
  }
  kernel::block_device* hdd = hdd_of(dev.get());
  if (hdd == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Internal error: fdev==NULL.", __func__);
    return -EIO;
  }
  const kernel::block_device_operations* ops = hdd->bd_disk->fops;
  if (ops == nullptr || ops->ioctl == nullptr) return 0;
  return ops->ioctl(hdd, mode, command, argument);
}

}  // namespace zorv
