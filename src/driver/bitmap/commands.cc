// SPDX-License-Identifier: GPL-2.0-only
// The seven commands on a change bitmap.
//
// A caller's buffer is copied with no lock held, through a buffer of our own: the copy can sleep.
// GET_AND_CLR copies and clears in one critical section all the same, so that a write is marked
// either before it (and handed out) or after it (and kept for the next call).
#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
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

// 0 | -ENOMEM, logged.
int allocate(const char* op, u32 bytes, buffer* out) {
  out->reset(static_cast<u8*>(kernel::vmalloc(bytes)));
  if (*out != nullptr) return 0;
  zorv_log(LOG_ERROR, "%s(): Failed to allocate a %d-byte buffer", op, bytes);
  return -ENOMEM;
}

int copy_in(const char* op, const zorv_bmp_range_req& req, buffer* out) {
  const int rc = allocate(op, req.size, out);
  if (rc != 0) return rc;
  if (kernel::copy_from_user(out->get(), req.data, req.size) == 0) return 0;
  zorv_log(LOG_ERROR, "%s(): Failed to copyin the bitmap", op);
  return -EFAULT;
}

// Hands the bitmap out; *out is what the caller got.
int copy_out(const char* op, zorv_filter* f, const zorv_bmp_range_req& req, buffer* out) {
  const int rc = allocate(op, req.size, out);
  if (rc != 0) return rc;
  {
    kernel::spin_guard guard(&f->bmp_lock);
    std::memcpy(out->get(), zorv_bmp_of(f, req.type).bits, req.size);
  }
  if (kernel::copy_to_user(req.data, out->get(), req.size) == 0) return 0;
  zorv_log(LOG_ERROR, "%s(): Failed to copyout the bitmap", op);
  return -EFAULT;
}

// Changes the bitmap under bmp_lock. With the flag at 1 a write that comes before the save waits
// while the file still looks current; it goes when the save has emptied it.
template <class Change>
void change_bits(zorv_filter* f, u32 type, Change change) {
  marks_guard guard(f);
  const zorv_bmp_view bmp = zorv_bmp_of(f, type);
  change(bmp.bits, bmp.size);
  bmp.dirty->store(1);
}

template <class Change>
void change_and_save(zorv_filter* f, u32 type, Change change) {
  change_bits(f, type, change);
  (void)zorv_block_save_dirty_bmps(f);
}

// Adds the bits of another bitmap.
auto merging(const buffer& added) {
  return [&added](u8* bits, u32 size) {
    for (u32 i = 0; i < size; ++i) bits[i] = static_cast<u8>(bits[i] | added[i]);
  };
}

void announce(const char* op, const char* doing, u32 type, const zorv_blkdev* dev) {
  zorv_log(1, "%s(): %s %s bitmap of zorv(%d, %d)", op, doing, zorv_bmp_type_name(type),
           zorv_blk_major, dev->minor);
}

}  // namespace

int zorv_ioctl_get_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req) {
  announce(__func__, "Getting", req->type, dev);
  const int rc = check_range(__func__, dev, *req);
  if (rc != 0) return rc;
  buffer copy;
  return copy_out(__func__, &dev->f, *req, &copy);
}

int zorv_ioctl_get_and_clr_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req) {
  announce(__func__, "Getting and clearing", req->type, dev);
  int rc = check_range(__func__, dev, *req);
  if (rc != 0) return rc;
  // A first copy shows whether the caller's buffer can be written while nothing has changed yet.
  buffer given;
  rc = copy_out(__func__, &dev->f, *req, &given);
  if (rc != 0) return rc;
  bool grown = false;
  change_bits(&dev->f, req->type, [&](u8* bits, u32 size) {
    grown = std::memcmp(given.get(), bits, size) != 0;
    if (grown) std::memcpy(given.get(), bits, size);
    std::memset(bits, 0, size);
  });
  if (grown && kernel::copy_to_user(req->data, given.get(), req->size) != 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to copyout the bitmap", __func__);
    rc = -EFAULT;
    change_bits(&dev->f, req->type, merging(given));
  }
  (void)zorv_block_save_dirty_bmps(&dev->f);
  return rc;
}

int zorv_ioctl_merge_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req) {
  announce(__func__, "Merging", req->type, dev);
  int rc = check_range(__func__, dev, *req);
  if (rc != 0) return rc;
  buffer added;
  rc = copy_in(__func__, *req, &added);
  if (rc != 0) return rc;
  change_and_save(&dev->f, req->type, merging(added));
  return 0;
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
  buffer bits_in;
  if (req->size != 0) {
    rc = check_size(__func__, req->size, zorv_bmp_of(&dev->f, req->type).size);
    if (rc == 0) rc = copy_in(__func__, *req, &bits_in);
    if (rc != 0) return rc;
  }
  change_and_save(&dev->f, req->type, [&bits_in](u8* bits, u32 size) {
    if (bits_in == nullptr) {
      std::memset(bits, 0xFF, size);
    } else {
      std::memcpy(bits, bits_in.get(), size);
    }
  });
  return 0;
}

int zorv_ioctl_clr_bmp(zorv_blkdev* dev, zorv_bmp_req* req) {
  announce(__func__, "Clearing", req->type, dev);
  const int rc = check_node(__func__, dev, req->type);
  if (rc != 0) return rc;
  change_and_save(&dev->f, req->type, [](u8* bits, u32 size) { std::memset(bits, 0, size); });
  return 0;
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
