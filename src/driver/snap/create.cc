// SPDX-License-Identifier: GPL-2.0-only
// ADD_SNAP_NODE: a snap node over a filter, created and left stopped.
//
// The COW thread of a filter writes the COW files of its snaps while writes to the filter wait for
// it. So those files cannot live on a node of this driver: not on the filter's own, and not on
// another, whose requests may come to wait for this filter in turn.
#include "driver/block/block.h"
#include "driver/core/log.h"
#include "driver/io/request.h"
#include "driver/proc/proc.h"

namespace zorv {

namespace {

constexpr const char* op = "zorv_ioctl_add_snap_node";
constexpr u32 max_snaps = 256;            // of one filter
constexpr u64 max_chunks = 1ULL << 30;    // of one snap
constexpr u32 max_chunk_size = 1U << 31;  // bytes
constexpr devt first_real_dev = 1U << kernel::minor_bits;

// Refuses a file without a device below it, and one on a node of ours.
int check_file_dev(const char* path, u32 filter_minor) {
  const devt dev = zorv_get_file_devt(path);
  if (dev < first_real_dev) {
    zorv_log(LOG_ERROR, "%s(): Failed to get ID of the device with %s", op, path);
    return -EINVAL;
  }
  if (!zorv_is_own_dev(dev)) return 0;
  if (kernel::minor_of(dev) == filter_minor) {
    zorv_log(LOG_ERROR, "%s(): File %s can't be on the partition being snapped!", op, path);
  } else {
    zorv_log(LOG_ERROR, "%s(): File %s can't be on zorv(%d, %d)", op, path, kernel::major_of(dev),
             kernel::minor_of(dev));
  }
  return -EINVAL;
}

int check_chunk_size(const zorv_blkdev* filter, u32 chunk_size) {
  if (!is_power_of_2(chunk_size)) {
    zorv_log(LOG_ERROR, "%s(): Chunk size must be a power of 2", op);
    return -EINVAL;
  }
  if (chunk_size % kernel::page_size != 0) {
    zorv_log(LOG_ERROR, "%s(): Chunk size must be a multiple of page size (%dB)", op,
             kernel::page_size);
    return -EINVAL;
  }
  rzread_guard walk(&filter->f.snaps_lock);
  const auto& snaps = filter->f.snaps;
  for (const zorv_blkdev* s = snaps.front(); s != nullptr; s = snaps.next_of(s->s.snap_link)) {
    if (s->s.chunk_size == chunk_size) continue;
    zorv_log(LOG_ERROR,
             "%s(): zorv(%d, %d) already has one snap with chunk size %d. All snaps must have "
             "identical chunk sizes.",
             op, zorv_blk_major, filter->minor, s->s.chunk_size);
    return -EINVAL;
  }
  return 0;
}

// Raises the chunk size until chunk numbers fit; -EINVAL (logged) when no size does.
int fit_chunk_size(const zorv_blkdev* filter, u32* chunk_size) {
  const u64 dev_size = filter->f.dev_size;
  const u32 requested = *chunk_size;
  while (dev_size > *chunk_size * max_chunks && *chunk_size < max_chunk_size) *chunk_size *= 2;
  if (*chunk_size == requested && dev_size <= requested * max_chunks) return 0;
  zorv_log(LOG_ERROR, "%s(): Chunk size %d is too small for such a large volume %lld", op,
           requested, static_cast<long long>(dev_size));
  if (dev_size > *chunk_size * max_chunks) return -EINVAL;
  zorv_log(LOG_ERROR, "%s(): We have automatically increased it to %d", op, *chunk_size);
  return 0;
}

void fill_record(zorv_blkdev* dev, const zorv_add_snap_req* req, zorv_blkdev* filter) {
  zorv_snap& s = dev->s;
  dev->dev_type = ZORV_DEV_SNAP;
  dev->dev_mutex.place = kernel::lock_place(order::snap_dev);
  copy_text(dev->uuid, req->uuid);
  s.snap_minor = dev->minor;
  s.chunk_size = req->chunk_size;
  s.chunk_shift = log2_u32(req->chunk_size);
  s.chunk_cnt = ((filter->f.dev_size - 1) >> s.chunk_shift) + 1;
  s.filter = filter;
  copy_text(s.cow_data_fname, req->cow_data_fname);
  copy_text(s.cow_bmp_fname, req->cow_bmp_fname);
  s.cow_data_size = s.chunk_cnt << s.chunk_shift;
  s.cow_bmp_size = static_cast<u32>(((filter->f.dev_size - 1) >> s.chunk_shift >> 3) + 1);
}

// Everything that may be refused, and the record's place in the table and among the snaps, as one
// step: two additions do not get past each other's checks.
//   req  its minor, name and chunk size are filled in
int enter(zorv_blkdev* dev, zorv_add_snap_req* req, zorv_blkdev* filter) {
  table_write_guard table;
  if (filter->f.nr_snaps.load() >= max_snaps) {
    zorv_log(LOG_ERROR, "%s(): Too many snaps already associated with zorv(%d, %d).", op,
             zorv_blk_major, filter->minor);
    return -ENOSPC;
  }
  int rc = check_chunk_size(filter, req->chunk_size);
  if (rc == 0) rc = fit_chunk_size(filter, &req->chunk_size);
  if (rc == 0) rc = zorv_blkdev_reserve(op, dev, &req->snap_minor, req->name);
  if (rc != 0) return rc;
  zorv_log(1, "%s(): Attaching snap zorv(%d, %d) to filter zorv(%d, %d)", op, zorv_blk_major,
           dev->minor, zorv_blk_major, filter->minor);
  fill_record(dev, req, filter);
  rzwrite_guard link(&filter->f.snaps_lock);
  filter->f.snaps.push_back(&dev->s.snap_link);
  filter->f.nr_snaps.fetch_add(1);
  return 0;
}

int create(zorv_add_snap_req* req, zorv_blkdev* filter) {
  zorv_blkdev* dev = kernel::knew<zorv_blkdev>(kernel::GFP_KERNEL);
  if (dev == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failure", op);
    return -ENOMEM;
  }
  scope_exit free_record([dev] { kernel::kdelete(dev); });
  const int rc = enter(dev, req, filter);
  if (rc != 0) return rc;
  dev->disk =
      zorv_block_add_disk(dev, filter->f.dev_size, filter->f.hdd_bdev, zorv_unplug_snap, op);
  if (dev->disk == nullptr) {
    zorv_snap_unlink(&filter->f, dev);
    zorv_blkdev_release(dev);
    return -ENOMEM;
  }
  free_record.cancel();
  (void)zorv_proc_add_device(dev);
  kernel::set_disk_ro(dev->disk, 1);
  zorv_block_make_node(dev);
  zorv_blkdev_publish(dev);
  return 0;
}

}  // namespace

int zorv_ioctl_add_snap_node(zorv_add_snap_req* req) {
  zorv_log(1,
           "%s(): Creating new snap node: snap_minor=%d, zorv_minor=%d, chunk_size=%d, "
           "cow_bmp_fname=%s, cow_data_fname=%s",
           op, req->snap_minor, req->filter_minor, req->chunk_size, req->cow_bmp_fname,
           req->cow_data_fname);
  if (!zorv_block_node_name_fits(req->name, op)) return -EINVAL;
  int rc = check_file_dev(req->cow_bmp_fname, req->filter_minor);
  if (rc == 0) rc = check_file_dev(req->cow_data_fname, req->filter_minor);
  if (rc != 0) return rc;
  if (req->uuid[0] == '\0') zorv_make_uuid(req->uuid);

  // Pinned until the snap is live: a removal of the filter finds all its snaps.
  const node_ref filter = zorv_node_get(req->filter_minor);
  if (!filter || filter->dev_type != ZORV_DEV_FILTER) {
    zorv_log(LOG_ERROR, "%s(): Invalid filter node minor number %d passed.", op, req->filter_minor);
    return -EINVAL;
  }
  return create(req, filter.get());
}

}  // namespace zorv
