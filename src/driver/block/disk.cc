// SPDX-License-Identifier: GPL-2.0-only
// The disk and the device node of a new node, alike for filters and snaps.
#include "driver/block/block.h"
#include "driver/core/log.h"
#include "driver/io/request.h"

namespace zorv {

kernel::gendisk* zorv_block_add_disk(zorv_blkdev* dev, u64 dev_size, kernel::block_device* hdd,
                                     kernel::unplug_fn unplug, const char* caller) {
  kernel::gendisk* disk = kernel::alloc_disk(1);
  kernel::request_queue* queue =
      disk == nullptr ? nullptr : kernel::blk_alloc_queue(kernel::GFP_KERNEL);
  if (queue == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to allocate new generic disk.", caller);
    if (disk != nullptr) kernel::put_disk(disk);
    return nullptr;
  }
  disk->major = static_cast<u32>(zorv_blk_major);
  disk->first_minor = dev->minor;
  std::snprintf(disk->disk_name, sizeof(disk->disk_name), "zorv%u", dev->minor);
  disk->fops = &zorv_bdops;
  disk->flags = 0;
  disk->private_data = dev;
  kernel::set_capacity(disk, dev_size >> kernel::sector_shift);
  kernel::blk_queue_make_request(queue, zorv_make_request);
  queue->queuedata = dev;
  queue->unplug = unplug;
  // Requests built for the node have to fit the HDD, so its limits hold before anyone can open it.
  const kernel::request_queue* below = kernel::bdev_get_queue(hdd);
  queue->limits = below->limits;
  queue->ra_pages = below->ra_pages;
  disk->queue = queue;
  kernel::add_disk(disk);
  return disk;
}

void zorv_block_make_node(zorv_blkdev* dev) {
  char path[sizeof(dev->dev_name)];
  if (!zorv_node_path(dev->name, path)) return;
  // Such a name would lead somewhere else, and what stands there would be removed.
  if (std::strchr(dev->name, '/') != nullptr) {
    zorv_log(LOG_ERROR, "%s(): Node name %s contains a '/': zorv(%d, %d) gets no device node.",
             __func__, dev->name, zorv_blk_major, static_cast<int>(dev->minor));
    return;
  }
  (void)zorv_unlink(path);
  if (zorv_mknod(path, 1, static_cast<u32>(zorv_blk_major), dev->minor) == 0) {
    copy_text(dev->dev_name, path);
  }
}

bool zorv_block_node_name_fits(const char* name, const char* caller) {
  char path[sizeof(zorv_blkdev::dev_name)];
  if (zorv_node_path(name, path)) return true;
  zorv_log(LOG_ERROR,
           "%s(): Node name %s is too long: the path of its device node must fit %zu characters",
           caller, name, sizeof(path) - 1);
  return false;
}

}  // namespace zorv
