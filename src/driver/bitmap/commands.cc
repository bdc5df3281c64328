// SPDX-License-Identifier: GPL-2.0-only
// The seven commands on a change bitmap.
//
// A caller's buffer is copied with no lock held, through a buffer of our own: the copy can sleep.
// A bitmap is changed by putting another one in its place, however large it is, so that no write
// waits for that; a write is marked either before (and handed out by GET_AND_CLR) or after it (and
// kept for the next call).
#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/bitmap/handout.h"
#include "driver/core/log.h"
#include "kernel/mem.h"
#include "kernel/uaccess.h"

namespace zorv {

namespace {

using buffer = kernel::vbuf<u8>;

int check_node(const char* op, const zorv_blkdev* dev, u32 type) {
  if (dev->dev_type != ZORV_DEV_FILTER) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) is not a filter device", op, zorv_blk_major,
             dev->minor);
    return -EINVAL;
  }
  if (type > ZORV_BMP_INCREMENTAL) {
    zorv_log(LOG_ERROR, "%s(): Invalid bitmap type %d (should be either %d or %d)", op, type,
             ZORV_BMP_INCREMENTAL, ZORV_BMP_DIFFERENTIAL);
    return -EINVAL;
  }
  return 0;
}

int check_size(const char* op, u32 given, u32 expected) {
  if (given == expected) return 0;
  zorv_log(LOG_ERROR, "%s(): Invalid bitmap size %d. Should have been %d", op, given, expected);
  return -EINVAL;
}

int check_range(const char* op, zorv_blkdev* dev, const zorv_bmp_range_req& req) {
  int rc = check_node(op, dev, req.type);
  if (rc == 0) rc = check_size(op, req.size, zorv_bmp_of(&dev->f, req.type).size);
  if (rc == 0 && req.data == 0) {
    zorv_log(LOG_ERROR, "%s(): NULL bitmap data pointer passed as input", op);
    rc = -EINVAL;
  }
  return rc;
}

int no_memory(const char* op, u32 bytes) {
  zorv_log(LOG_ERROR, "%s(): Failed to allocate a %d-byte buffer", op, bytes);
  return -ENOMEM;
}

// 0 | -ENOMEM, logged.
int allocate(const char* op, u32 bytes, buffer* out) {
  out->reset(static_cast<u8*>(kernel::vmalloc(bytes)));
  return *out != nullptr ? 0 : no_memory(op, bytes);
}
int allocate_zeroed(const char* op, u32 bytes, buffer* out) {
  out->reset(static_cast<u8*>(kernel::vzalloc(bytes)));
  return *out != nullptr ? 0 : no_memory(op, bytes);
}

int copy_in(const char* op, const zorv_bmp_range_req& req, buffer* out) {
  const int rc = allocate(op, req.size, out);
  if (rc != 0) return rc;
  if (kernel::copy_from_user(out->get(), req.data, req.size) == 0) return 0;
  zorv_log(LOG_ERROR, "%s(): Failed to copyin the bitmap", op);
  return -EFAULT;
}

int copy_out(const char* op, const zorv_bmp_range_req& req, const u8* bits) {
  if (kernel::copy_to_user(req.data, bits, req.size) == 0) return 0;
  zorv_log(LOG_ERROR, "%s(): Failed to copyout the bitmap", op);
  return -EFAULT;
}

// Puts other bits in the bitmap's place and makes a hand-out of what was there. With the flag at 1
// a write that comes before the save waits while the file still looks current; it goes when the
// save has marked it.
void exchange(zorv_filter* f, u32 type, buffer* bits, zorv_handout* handout) {
  zorv_block_stale_bmp(f, type);
  marks_guard guard(f);
  u8*& place = zorv_bmp_bits(f, type);
  handout->type = type;
  handout->bits = place;
  place = bits->release();
  zorv_mark_state& m = f->marks[type];
  ++m.exchanges;
  zorv_bmp_view bmp = zorv_bmp_of(f, type);
  bmp.dirty->store(1);
  for (u32 i = 0; m.load_marks != nullptr && i < bmp.size; ++i) {  // a load that hangs
    m.load_marks[i] = static_cast<u8>(m.load_marks[i] | place[i]);
  }
  zorv_handout_add(f, handout);
}

// After bits have been taken away: whoever reads the disk from now on finds what they stood for.
//   returns  0 (also when the file could not be saved: it says no less than before) | -EIO
int settle_taken(zorv_filter* f) {
  return zorv_block_save_dirty_bmps(f) == 0 ? 0 : zorv_block_await_writes(f);
}

// After bits have been put in: a file that lacks them does not look current.
//   returns  0 | -EIO (it may, and can be neither saved nor marked nor noted)
int settle_added(zorv_filter* f) {
  if (zorv_block_save_dirty_bmps(f) == 0) return 0;
  zorv_marks_settle(f);
  const u64 deadline = kernel::jiffies() + mark_wait_limit_jiffies;
  for (;;) {
    const u64 event = zorv_marks_event();
    if (zorv_marks_refused(f)) return -EIO;
    if (!zorv_marks_pending(f)) return 0;
    if (!zorv_marks_wait_or_refuse(f, event, deadline)) return -EIO;
  }
}

// As CLR and SET put other bits in a bitmap's place. Until nothing can fail any more what was there
// is handed out to nobody: every save writes it as well, and after a failure it is in the bitmap
// again.
int replace(const char* op, zorv_filter* f, u32 type, buffer* bits, int (*settle)(zorv_filter* f)) {
  auto* before = kernel::knew<zorv_handout>(kernel::GFP_KERNEL);
  if (before == nullptr) return no_memory(op, sizeof(zorv_handout));
  exchange(f, type, bits, before);
  const u64 id = before->id;
  const int rc = settle(f);
  if (rc != 0) {
    zorv_handout_merge_back(f, id);
    return rc;
  }
  zorv_handout_forget(f, id);
  // The file says no less than the bitmap, whatever comes of this.
  (void)zorv_block_save_dirty_bmps(f);
  return 0;
}

void announce(const char* op, const char* doing, u32 type, const zorv_blkdev* dev) {
  zorv_log(1, "%s(): %s %s bitmap of zorv(%d, %d)", op, doing, zorv_bmp_type_name(type),
           zorv_blk_major, dev->minor);
}

}  // namespace

int zorv_ioctl_get_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req) {
  announce(__func__, "Getting", req->type, dev);
  int rc = check_range(__func__, dev, *req);
  buffer copy;
  if (rc == 0) rc = allocate(__func__, req->size, &copy);
  if (rc != 0) return rc;
  zorv_bmp_copy(&dev->f, req->type, copy.get());
  return copy_out(__func__, *req, copy.get());
}

int zorv_ioctl_get_and_clr_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req) {
  announce(__func__, "Getting and clearing", req->type, dev);
  int rc = check_range(__func__, dev, *req);
  buffer fresh;
  if (rc == 0) rc = allocate_zeroed(__func__, req->size, &fresh);
  if (rc != 0) return rc;
  auto* handout = kernel::knew<zorv_handout>(kernel::GFP_KERNEL);
  if (handout == nullptr) return no_memory(__func__, sizeof(zorv_handout));
  exchange(&dev->f, req->type, &fresh, handout);
  const u64 id = handout->id;
  rc = copy_out(__func__, *req, handout->bits);
  if (rc != 0) {
    zorv_handout_merge_back(&dev->f, id);
    return rc;
  }
  rc = settle_taken(&dev->f);
  if (rc != 0) {
    zorv_handout_merge_back(&dev->f, id);
    return rc;
  }
  zorv_handout_publish(id);
  return 0;
}

int zorv_ioctl_merge_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req) {
  announce(__func__, "Merging", req->type, dev);
  int rc = check_range(__func__, dev, *req);
  buffer added;
  if (rc == 0) rc = copy_in(__func__, *req, &added);
  if (rc != 0) return rc;
  zorv_block_stale_bmp(&dev->f, req->type);
  zorv_bmp_merge(&dev->f, req->type, added.get());
  return settle_added(&dev->f);
}

int zorv_ioctl_set_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req) {
  announce(__func__, "Setting", req->type, dev);
  int rc = check_node(__func__, dev, req->type);
  if (rc != 0) return rc;
  if ((req->size != 0) != (req->data != 0)) {
    zorv_log(LOG_ERROR,
             "%s(): bitmap size and bitmap data pointer must either be both NULL or both not-NULL",
             __func__);
    return -EINVAL;
  }
  const u32 size = zorv_bmp_of(&dev->f, req->type).size;
  buffer bits;
  if (req->size != 0) {
    rc = check_size(__func__, req->size, size);
    if (rc == 0) rc = copy_in(__func__, *req, &bits);
  } else {
    rc = allocate(__func__, size, &bits);
    if (rc == 0) std::memset(bits.get(), 0xFF, size);
  }
  if (rc != 0) return rc;
  return replace(__func__, &dev->f, req->type, &bits, [](zorv_filter* f) {
    const int taken = zorv_block_await_writes(f);
    return taken != 0 ? taken : settle_added(f);
  });
}

int zorv_ioctl_clr_bmp(zorv_blkdev* dev, zorv_bmp_req* req) {
  announce(__func__, "Clearing", req->type, dev);
  int rc = check_node(__func__, dev, req->type);
  buffer fresh;
  if (rc == 0) rc = allocate_zeroed(__func__, zorv_bmp_of(&dev->f, req->type).size, &fresh);
  if (rc != 0) return rc;
  return replace(__func__, &dev->f, req->type, &fresh, zorv_block_await_writes);
}

int zorv_ioctl_save_bmp(zorv_blkdev* dev, zorv_bmp_req* req) {
  announce(__func__, "Saving", req->type, dev);
  const int rc = check_node(__func__, dev, req->type);
  return rc != 0 ? rc : zorv_block_save_bmp(&dev->f, req->type);
}

int zorv_ioctl_load_bmp(zorv_blkdev* dev, zorv_bmp_req* req) {
  announce(__func__, "Loading", req->type, dev);
  const int rc = check_node(__func__, dev, req->type);
  return rc != 0 ? rc : zorv_block_load_bmp(&dev->f, req->type);
}

}  // namespace zorv
