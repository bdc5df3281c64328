// SPDX-License-Identifier: GPL-2.0-only
// GET_INFO and GET_DEVICE_LIST.
#include "driver/bitmap/bitmap.h"
#include "driver/block/block.h"
#include "driver/core/log.h"

namespace zorv {

namespace {

void fill_filter(zorv_filter* f, zorv_info_req* req) {
  copy_text(req->hdd_name, f->hdd_name);
  req->dev_size = f->dev_size;
  req->extent_size = f->extent_size;
  req->extent_cnt = f->extent_cnt;
  req->snap_cnt = 0;
  {
    rzread_guard walk(&f->snaps_lock);
    for (const zorv_blkdev& snap : f->snaps) {
      if (req->snap_cnt == ZORV_LIST_LEN) break;
      if (snap.state.load() != node_state::live) continue;
      req->snap_minors[req->snap_cnt++] = snap.s.snap_minor;
    }
  }
  req->incr_bmp_size = static_cast<u32>(f->incr_bmp_size);
  req->diff_bmp_size = static_cast<u32>(f->diff_bmp_size);
  copy_text(req->incr_bmp_fname, f->incr_bmp_fname);
  copy_text(req->diff_bmp_fname, f->diff_bmp_fname);
  const zorv_bmp_extremes incr = zorv_bmp_look(f, ZORV_BMP_INCREMENTAL);
  const zorv_bmp_extremes diff = zorv_bmp_look(f, ZORV_BMP_DIFFERENTIAL);
  req->incr_bmp_clear = incr.all_clear ? 1 : 0;
  req->incr_bmp_full = incr.all_set ? 1 : 0;
  req->diff_bmp_clear = diff.all_clear ? 1 : 0;
  req->diff_bmp_full = diff.all_set ? 1 : 0;
}

void fill_snap(const zorv_snap& s, zorv_info_req* req) {
  req->snap_valid = s.snap_valid.load();
  req->stop_pending = s.stop_pending.load();
  req->del_pending = s.del_pending.load();
  req->dev_size = s.filter->f.dev_size;
  req->chunk_cnt = static_cast<u32>(s.chunk_cnt);
  req->chunk_size = s.chunk_size;
  req->cow_bmp_size = s.cow_bmp_size;
  req->cow_data_size = s.cow_data_size;
  copy_text(req->cow_bmp_fname, s.cow_bmp_fname);
  copy_text(req->cow_data_fname, s.cow_data_fname);
}

}  // namespace

int zorv_ioctl_get_info(zorv_blkdev* dev, zorv_info_req* req) {
  zorv_log(2, "%s(): Getting info on zorv(%d, %d)", __func__, zorv_blk_major, dev->minor);
  req->dev_type = dev->dev_type;
  req->started = dev->started.load();
  req->use_cnt = dev->use_cnt.load();
  copy_text(req->uuid, dev->uuid);
  copy_text(req->name, dev->name);
  if (dev->dev_type == ZORV_DEV_FILTER) {
    fill_filter(&dev->f, req);
  } else if (dev->dev_type == ZORV_DEV_SNAP) {
    const zorv_blkdev* filter = dev->s.filter;
    if (filter == nullptr || filter->dev_type != ZORV_DEV_FILTER) {
      zorv_log(LOG_ERROR, "%s(): Snap device zorv(%d, %d) is not attached to a filter device.",
               __func__, zorv_blk_major, dev->s.snap_minor);
      return -EINVAL;
    }
    fill_snap(dev->s, req);
  }
  return 0;
}

int zorv_ioctl_get_device_list(zorv_device_list_req* req) {
  const char* op = "zorv_get_device_list_node";
  if (req->dev_type != ZORV_DEV_FILTER && req->dev_type != ZORV_DEV_SNAP) {
    zorv_log(LOG_ERROR, "%s(): Invalid device type 0x%02x passed as input.", op, req->dev_type);
    return -EINVAL;
  }
  zorv_log(2, "%s(): Returning the list of %s devices.", op,
           req->dev_type == ZORV_DEV_FILTER ? "FILTER" : "SNAP");
  table_read_guard table;
  req->count = 0;
  for (int minor = 0; minor <= zorv_max_blk_minor && req->count < ZORV_LIST_LEN; ++minor) {
    const zorv_blkdev* dev = zorv_blkdev_find(static_cast<u32>(minor));
    if (dev != nullptr && dev->dev_type == req->dev_type) {
      req->minors[req->count++] = static_cast<u32>(minor);
    }
  }
  return 0;
}

}  // namespace zorv
