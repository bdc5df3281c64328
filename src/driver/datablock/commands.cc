// SPDX-License-Identifier: GPL-2.0-only
// GET_DATABLOCK_BMP and TEST_DATABLOCK.
#include "driver/block/block.h"
#include "driver/core/log.h"
#include "driver/datablock/bits.h"
#include "kernel/mem.h"
#include "kernel/uaccess.h"

namespace zorv {

int zorv_ioctl_get_datablock_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req) {
  const s32 minor = static_cast<s32>(req->minor);
  zorv_log(1, "%s(): Returning datablock bitmap of zorv(%d, %d)", __func__, zorv_blk_major, minor);
  if (dev->dev_type != ZORV_DEV_SNAP) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) is not a snap device", __func__, zorv_blk_major, minor);
    return -EINVAL;
  }
  if (dev->started.load() == 0) {
    zorv_log(LOG_ERROR, "%s(): Snap device zorv(%d, %d) has not been started yet", __func__,
             zorv_blk_major, minor);
    return -EINVAL;
  }
  if (req->data == 0) {
    zorv_log(LOG_ERROR, "%s(): NULL bitmap data pointer passed as input", __func__);
    return -EINVAL;
  }
  const u32 extent_size = req->type;
  const u32 chunk_size = dev->s.chunk_size;
  if (extent_size < 2 || !is_power_of_2(extent_size)) {
    zorv_log(LOG_ERROR, "%s(): Extent size (%d) must have been a power of 2.", __func__,
             static_cast<s32>(extent_size));
    return -EINVAL;
  }
  if (extent_size < chunk_size) {
    zorv_log(LOG_ERROR, "%s(): Extent size (%d) must be bigger than chunk size (%d).", __func__,
             static_cast<s32>(extent_size), static_cast<s32>(chunk_size));
    return -EINVAL;
  }
  // The length comes from the snap's own chunk count, which is there with and without a map: a
  // missing map must read as all ones over the whole volume, not as nothing.
  const u64 per_extent = extent_size / chunk_size;
  const u64 needed = bytes_of_bits((dev->s.chunk_cnt + per_extent - 1) / per_extent);
  const s32 capacity = static_cast<s32>(req->size);
  if (capacity < 0 || needed > static_cast<u64>(capacity)) {
    zorv_log(LOG_ERROR, "%s(): Bitmap buffer is not large enough: should be %lldB instead of %dB.",
             __func__, static_cast<long long>(needed), capacity);
    return -EINVAL;
  }
  const s32 size = static_cast<s32>(needed);
  const kernel::vbuf<u8> bits(static_cast<u8*>(kernel::vmalloc(needed)));
  if (bits == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to allocated %d bytes of memory", __func__, size);
    return -ENOMEM;
  }
  std::memset(bits.get(), 0xff, needed);  // what the map should not cover counts as data
  const int rc =
      zorv_blkbmp_export(&dev->s.datablock_bmp, static_cast<s32>(per_extent), bits.get(), size);
  if (rc < 0) return rc;
  if (kernel::copy_to_user(req->data, bits.get(), needed) != 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to copyout the bitmap", __func__);
    return -EFAULT;
  }
  req->size = static_cast<u32>(size);
  return 0;
}

namespace {

// The device number that a path names; 0 when it names none, with the reason logged and in *rc.
devt device_of_path(const char* path, int* rc) {
  constexpr const char* caller = "zorv_ioctl_test_datablock";
  kernel::dentry* entry = zorv_get_file_dentry(path, 1);
  if (kernel::is_err(entry)) {
    zorv_log(LOG_ERROR, "%s(): Unable to lookup %s: rc=%d", caller, path, kernel::ptr_err(entry));
    *rc = -ENOENT;
    return 0;
  }
  if (entry == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Unable to derive major/minor numbers for %s", caller, path);
    *rc = -EINVAL;
    return 0;
  }
  const scope_exit drop([entry] { kernel::dput(entry); });
  *rc = -EINVAL;
  if (entry->d_inode() == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Unable to derive major/minor numbers for %s", caller, path);
    return 0;
  }
  if (!kernel::s_isblk(entry->d_inode()->i_mode)) {
    zorv_log(LOG_ERROR, "%s(): %s is not a block device.", caller, path);
    return 0;
  }
  *rc = 0;
  return entry->d_inode()->i_rdev;
}

}  // namespace

int zorv_ioctl_test_datablock(zorv_test_datablock_req* req) {
  char path[ZORV_PATH_LEN];
  copy_text(path, req->hdd_name);  // the record need not hold a NUL
  zorv_log(1, "%s(): Testing datablocks on %s", __func__, path);
  if (path[0] == '\0') {
    zorv_log(LOG_ERROR, "%s(): Empty HDD name passed as input.", __func__);
    return -EINVAL;
  }
  int rc = 0;
  const devt dev = device_of_path(path, &rc);
  if (rc < 0) return rc;
  zorv_log(2, "%s(): Successfully derived HDD major=%d, minor=%d", __func__, kernel::major_of(dev),
           kernel::minor_of(dev));
  kernel::block_device* hdd = zorv_open_bdev(dev, kernel::FMODE_READ);
  if (hdd == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to open %s", __func__, path);
    return -EIO;
  }
  const scope_exit close([hdd] { zorv_close_bdev(hdd); });
  if (zorv_is_mounted(hdd) != 0) {
    zorv_log(LOG_ERROR, "%s(): Can't test mounted HDD device %s", __func__, path);
    return -EBUSY;
  }
  return zorv_blkbmp_test(hdd);
}

}  // namespace zorv
