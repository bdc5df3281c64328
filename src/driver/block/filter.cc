// SPDX-License-Identifier: GPL-2.0-only
// ADD_FILTER_NODE: a filter node over an HDD, created and left stopped.
//
// The node has its place in the table, unseen, while its bitmaps are loaded: their folder may lie
// on a file system that stands on another node, whose requests and commands must go on meanwhile.
#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/block/block.h"
#include "driver/core/log.h"
#include "driver/io/request.h"
#include "driver/proc/proc.h"

namespace zorv {

namespace {

constexpr const char* op = "zorv_ioctl_add_filter_node";

// The HDD's device number.
//   returns  0 | -ENOENT (nothing at the path) | -EINVAL (no block device)
int find_hdd(const zorv_add_filter_req* req, devt* dev) {
  if (req->hdd_name[0] == '\0') {
    zorv_log(LOG_ERROR, "%s(): Empty HDD name passed as input.", op);
    return -EINVAL;
  }
  kernel::dentry* entry = zorv_get_file_dentry(req->hdd_name, 1);
  if (entry == nullptr || kernel::is_err(entry)) {
    zorv_log(LOG_ERROR, "%s(): Unable to lookup %s: rc=%d", op, req->hdd_name,
             entry == nullptr ? 0 : kernel::ptr_err(entry));
    return -ENOENT;
  }
  const kernel::inode* inode = entry->d_inode();
  int rc = 0;
  if (inode == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Unable to derive major/minor numbers for %s", op, req->hdd_name);
    rc = -EINVAL;
  } else if (!kernel::s_isblk(inode->i_mode)) {
    zorv_log(LOG_ERROR, "%s(): %s is not a block device.", op, req->hdd_name);
    rc = -EINVAL;
  } else {
    *dev = inode->i_rdev;
    zorv_log(2, "%s(): Successfully derived HDD major=%d, minor=%d", op, kernel::major_of(*dev),
             kernel::minor_of(*dev));
  }
  kernel::dput(entry);
  return rc;
}

// Saves and marks in the folder would be requests to the node that it lies on.
int refuse_own_folder(const char* bmp_dir) {
  const devt dev = zorv_get_file_devt(bmp_dir);
  if (!zorv_is_own_dev(dev)) return 0;
  zorv_log(LOG_ERROR, "%s(): Bitmap files in %s can't be on zorv(%d, %d)", op, bmp_dir,
           kernel::major_of(dev), kernel::minor_of(dev));
  return -EINVAL;
}

int refuse_duplicate(devt dev) {
  table_read_guard table;
  for (u32 m = 0; m <= static_cast<u32>(zorv_max_blk_minor); ++m) {
    const zorv_blkdev* other = zorv_blkdev_find(m);
    if (other != nullptr && other->dev_type == ZORV_DEV_FILTER && other->f.hdd_dev == dev) {
      zorv_log(LOG_ERROR, "%s(): Found a duplicate zorv%d node going to the same HDD device %s", op,
               m, other->f.hdd_name);
      return -EINVAL;
    }
  }
  return 0;
}

// Nobody else may use the HDD; what the host has cached of it is written back and dropped.
int claim_hdd(kernel::block_device* hdd, const char* name) {
  if (zorv_is_mounted(hdd) != 0) {
    zorv_log(LOG_ERROR, "%s(): Can't attach to mounted HDD device %s", op, name);
    return -EBUSY;
  }
  if (hdd->bd_openers.load() + hdd->bd_other_openers.load() > 1) {
    zorv_log(LOG_ERROR, "%s(): Can't attach to an open HDD device %s", op, name);
    return -EBUSY;
  }
  (void)kernel::fsync_bdev(hdd);
  (void)kernel::invalidate_bdev(hdd);
  return 0;
}

int check_geometry(u32 extent_size, u32 block_size, u64 dev_size) {
  if (!is_power_of_2(extent_size)) {
    zorv_log(LOG_ERROR, "%s(): Extent size must be a power of 2", op);
    return -EINVAL;
  }
  if (extent_size % block_size != 0) {
    zorv_log(LOG_ERROR, "%s(): Extent size must be a multiple of block size (%dB)", op, block_size);
    return -EINVAL;
  }
  if (extent_size < kernel::page_size) {
    zorv_log(LOG_ERROR, "%s(): Extent size can't be smaller than page size (%dB)", op,
             kernel::page_size);
    return -EINVAL;
  }
  if (dev_size == 0) {
    zorv_log(LOG_ERROR, "%s(): The HDD has no capacity", op);
    return -EINVAL;
  }
  // Extents are counted in 32 bits; a count that wrapped would leave most of the disk untracked.
  const u64 extents = ((dev_size - 1) >> log2_u32(extent_size)) + 1;
  if (extents > UINT32_MAX) {
    zorv_log(LOG_ERROR,
             "%s(): Extent size %d is too small for such a large volume %lld: it takes %lld "
             "extents, at most %u can be tracked. Use a larger extent size.",
             op, extent_size, static_cast<long long>(dev_size), static_cast<long long>(extents),
             UINT32_MAX);
    return -EINVAL;
  }
  return 0;
}

void fill_record(zorv_blkdev* dev, const zorv_add_filter_req* req, devt hdd_dev,
                 kernel::block_device* hdd) {
  zorv_filter& f = dev->f;
  dev->dev_type = ZORV_DEV_FILTER;
  dev->dev_mutex.place = kernel::lock_place(order::filter_dev);
  f.hdd_dev = hdd_dev;
  f.hdd_bdev = hdd;
  f.hdd_is_node = hdd->bd_disk->fops == &zorv_bdops;
  f.filter_minor = dev->minor;
  copy_text(f.hdd_name, req->hdd_name);
  f.extent_size = req->extent_size;
  f.extent_shift = log2_u32(req->extent_size);
  f.dev_size = hdd->bd_size_bytes;
  f.extent_cnt = static_cast<u32>((f.dev_size - 1) >> f.extent_shift) + 1;
  copy_text(dev->uuid, req->uuid);
  f.incr_bmp_size = f.diff_bmp_size = static_cast<s32>(((f.extent_cnt - 1) >> 3) + 1);
}

void set_bitmap_dir(zorv_filter& f, const char (&dir)[ZORV_PATH_LEN]) {
  copy_text(f.bmp_dir, dir);
  for (std::size_t len = std::strlen(f.bmp_dir); len > 1 && f.bmp_dir[len - 1] == '/'; --len) {
    f.bmp_dir[len - 1] = '\0';
  }
}

// Steps of creation that need the minor. On failure everything done here is undone.
int set_up(zorv_blkdev* dev, const zorv_add_filter_req* req, u32 block_size)
    EXCLUDES(zorv_blkdev_rwlock) {
  zorv_filter& f = dev->f;
  const auto bytes = static_cast<std::size_t>(f.incr_bmp_size);
  scope_exit free_bitmaps([&f] {
    zorv_drop_dirty_requests(&f);
    zorv_block_close_bmps(&f);
    zorv_record_detach(&f);
    kernel::vfree(f.incr_bmp);
    kernel::vfree(f.diff_bmp);
    f.incr_bmp = f.diff_bmp = nullptr;
  });
  int rc = zorv_start_mark_workers(&f);
  if (rc != 0) return rc;
  f.incr_bmp = static_cast<u8*>(kernel::vmalloc(bytes));
  if (f.incr_bmp != nullptr) f.diff_bmp = static_cast<u8*>(kernel::vmalloc(bytes));
  if (f.incr_bmp == nullptr || f.diff_bmp == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to allocate %d+%d bytes of memory for bitmaps", op,
             f.incr_bmp_size, f.diff_bmp_size);
    return -ENOMEM;
  }

  set_bitmap_dir(f, req->bmp_dir);
  rc = zorv_block_open_bmps(&f);
  if (rc == 0) rc = zorv_record_attach(&f);
  if (rc != 0) return rc;
  // An unusable file leaves its bitmap all set, which is what an unknown past means; so does a
  // load that could not even begin.
  std::memset(f.incr_bmp, 0xFF, bytes);
  std::memset(f.diff_bmp, 0xFF, bytes);
  (void)zorv_block_load_bmp(&f, ZORV_BMP_DIFFERENTIAL);
  (void)zorv_block_load_bmp(&f, ZORV_BMP_INCREMENTAL);

  rc = zorv_cowqueue_init(&f.cowqueue);
  if (rc != 0) return rc;
  scope_exit destroy_queue([&f] { (void)zorv_cowqueue_destroy(&f.cowqueue); });
  if (zorv_aio_init(&f.aio) != 0) return -EIO;
  scope_exit destroy_aio([&f] { (void)zorv_aio_destroy(&f.aio, 0); });
  zorv_log(3, "%s(): dev_size=%lld, extent_size=%d, block_size=%d, bmp_size=%d", op,
           static_cast<long long>(f.dev_size), f.extent_size, block_size, f.incr_bmp_size);

  dev->disk = zorv_block_add_disk(dev, f.dev_size, f.hdd_bdev, zorv_unplug_filter, op);
  if (dev->disk == nullptr) return -ENOMEM;
  (void)zorv_proc_add_device(dev);
  kernel::set_disk_ro(dev->disk, 0);
  zorv_block_make_node(dev);

  destroy_aio.cancel();
  destroy_queue.cancel();
  free_bitmaps.cancel();
  return 0;
}

int create(zorv_add_filter_req* req, devt hdd_dev, kernel::block_device* hdd) {
  zorv_blkdev* dev = kernel::knew<zorv_blkdev>(kernel::GFP_KERNEL);
  if (dev == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failure", op);
    return -ENOMEM;
  }
  scope_exit free_record([dev] { kernel::kdelete(dev); });
  (void)kernel::bdev_identity(hdd, dev->f.disk_identity, sizeof dev->f.disk_identity);

  {
    table_write_guard table;
    const int rc = zorv_blkdev_reserve(op, dev, &req->minor, req->name);
    if (rc != 0) return rc;
    fill_record(dev, req, hdd_dev, hdd);
  }
  zorv_log(1, "%s(): Attaching zorv%d to %s", op, req->minor, req->hdd_name);
  const int rc = set_up(dev, req, hdd->bd_block_bytes);
  if (rc != 0) {
    zorv_blkdev_release(dev);
    return rc;
  }
  zorv_blkdev_publish(dev);
  free_record.cancel();
  return 0;
}

}  // namespace

int zorv_ioctl_add_filter_node(zorv_add_filter_req* req) {
  zorv_log(1, "%s(): Adding new node: HDD=%s, zorv_minor=%d, extent_size=%d, bmap_dir=%s", op,
           req->hdd_name, req->minor, req->extent_size, req->bmp_dir);
  if (!zorv_block_node_name_fits(req->name, op)) return -EINVAL;
  devt hdd_dev = 0;
  int rc = find_hdd(req, &hdd_dev);
  if (rc != 0) return rc;
  if (req->uuid[0] == '\0') zorv_make_uuid(req->uuid);
  rc = refuse_own_folder(req->bmp_dir);
  if (rc == 0) rc = refuse_duplicate(hdd_dev);
  if (rc != 0) return rc;

  kernel::block_device* hdd = zorv_open_bdev(hdd_dev, kernel::FMODE_WRITE);
  if (hdd == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Unable to open HDD device %s (%d, %d)", op, req->hdd_name,
             kernel::major_of(hdd_dev), kernel::minor_of(hdd_dev));
    return -EINVAL;
  }
  rc = claim_hdd(hdd, req->hdd_name);
  if (rc == 0) rc = check_geometry(req->extent_size, hdd->bd_block_bytes, hdd->bd_size_bytes);
  if (rc == 0) rc = create(req, hdd_dev, hdd);
  if (rc != 0) zorv_close_bdev(hdd);
  return rc;
}

}  // namespace zorv
