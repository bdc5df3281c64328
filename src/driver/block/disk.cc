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

namespace {

// Length of the printable UTF-8 character at p, which a NUL ends; 0 when there is none.
std::size_t character_bytes(const char* p) {
  const auto at = [p](std::size_t i) { return static_cast<u8>(p[i]); };
  const u8 first = at(0);
  if (first < 0x80) return first >= 0x20 && first != 0x7f ? 1 : 0;
  const std::size_t n = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4) return 0;
  u32 code = first & (0x7fU >> n);
  for (std::size_t i = 1; i < n; ++i) {
    if ((at(i) & 0xc0) != 0x80) return 0;
    code = code << 6 | (at(i) & 0x3fU);
  }
  constexpr u32 least[] = {0xa0, 0x800, 0x10000};  // below: control characters, a longer spelling
  const bool half = code >= 0xd800 && code <= 0xdfff;
  return code >= least[n - 2] && code <= 0x10ffff && !half ? n : 0;
}

}  // namespace

bool zorv_block_node_name_fits(const char* name, const char* caller) {
  // Clients list names as they are, and ":11" is how a person says minor 11.
  const char* p = name;
  for (std::size_t n = *p == ':' ? 0 : 1; n != 0 && *p != '\0'; p += n) {
    n = character_bytes(p);
    if (n == 0) break;
  }
  if (*p != '\0') {
    zorv_log(LOG_ERROR, "%s(): Node name %s %s", caller, name,
             *name == ':' ? "begins with a ':'" : "is not printable text in UTF-8");
    return false;
  }
  char path[sizeof(zorv_blkdev::dev_name)];
  if (zorv_node_path(name, path)) return true;
  zorv_log(LOG_ERROR,
           "%s(): Node name %s is too long: the path of its device node must fit %zu characters",
           caller, name, sizeof(path) - 1);
  return false;
}

}  // namespace zorv
