// SPDX-License-Identifier: GPL-2.0-only
// A snap's COW files, as start and resume set them up.
#include "driver/snap/snap.h"

#include "driver/core/log.h"

namespace zorv {

namespace {

constexpr const char* start_op = "zorv_block_start_device";

bool same_path(const char (&a)[ZORV_PATH_LEN], const char (&b)[ZORV_PATH_LEN]) {
  return std::strncmp(a, b, ZORV_PATH_LEN) == 0;
}

// A start truncates the files, so they may be nobody else's.
int refuse_shared_files(const zorv_blkdev* snap) REQUIRES_SHARED(zorv_blkdev_rwlock) {
  const zorv_snap& s = snap->s;
  if (same_path(s.cow_bmp_fname, s.cow_data_fname)) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) can't keep its COW bitmap and its COW data in one file",
             start_op, zorv_blk_major, snap->minor);
    return -EINVAL;
  }
  for (u32 m = 0; m <= static_cast<u32>(zorv_max_blk_minor); ++m) {
    const zorv_blkdev* other = zorv_blkdev_find(m);
    if (other == nullptr || other == snap || other->dev_type != ZORV_DEV_SNAP) continue;
    if (other->started.load() == 0) continue;
    const zorv_snap& o = other->s;
    if (same_path(s.cow_data_fname, o.cow_data_fname) ||
        same_path(s.cow_data_fname, o.cow_bmp_fname) ||
        same_path(s.cow_bmp_fname, o.cow_data_fname) ||
        same_path(s.cow_bmp_fname, o.cow_bmp_fname)) {
      zorv_log(LOG_ERROR, "%s(): A COW file of zorv(%d, %d) is used by zorv(%d, %d)", start_op,
               zorv_blk_major, snap->minor, zorv_blk_major, other->minor);
      return -EBUSY;
    }
  }
  return 0;
}

// The file anew: sparse, of its full length, and so found again after a power cut.
//   returns  the handle | null (logged)
zorv_file* create_file(const char* path, u64 size_bytes) {
  zorv_file_ptr file(zorv_fopen(
      path, kernel::FO_RDWR | kernel::FO_CREAT | kernel::FO_TRUNC | kernel::FO_LARGEFILE, 0600));
  if (file == nullptr) return nullptr;
  const u8 zero = 0;
  if (zorv_fwrite(file.get(), size_bytes - 1, &zero, 1) != 1) return nullptr;
  int rc = zorv_fsync(file.get());
  if (rc == 0) rc = kernel::fs_sync_parent(path);
  if (rc != 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to sync %s: rc=%d", start_op, path, rc);
    return nullptr;
  }
  return file.release();
}

void close_file(zorv_file** file) {
  if (*file != nullptr) (void)zorv_fclose(*file);
  *file = nullptr;
}

}  // namespace

int zorv_snap_open_files(zorv_blkdev* snap) {
  zorv_snap& s = snap->s;
  s.life.fetch_add(1);
  int rc = refuse_shared_files(snap);
  if (rc != 0) return rc;
  s.cow_data_file = create_file(s.cow_data_fname, s.cow_data_size);
  if (s.cow_data_file == nullptr) return -EIO;
  rc = zorv_cowbmp_init(&s.cowbmp, s.chunk_cnt);
  if (rc != 0) return rc;
  s.cow_bmp_file = create_file(s.cow_bmp_fname, s.cow_bmp_size);
  if (s.cow_bmp_file == nullptr) return -EIO;
  if (s.filter->f.cowthread.pid.load() == 0) zorv_snap_disown_files(snap);
  return 0;
}

void zorv_snap_disown_files(zorv_blkdev* snap) {
  if (snap->s.cow_data_file == nullptr) return;
  (void)zorv_fempty(snap->s.cow_data_file);
  (void)zorv_fsync(snap->s.cow_data_file);
}

void zorv_snap_close_files(zorv_blkdev* snap) {
  zorv_snap& s = snap->s;
  s.life.fetch_add(1);
  (void)zorv_cowbmp_destroy(&s.cowbmp);
  close_file(&s.cow_data_file);
  close_file(&s.cow_bmp_file);
  (void)zorv_blkbmp_destroy(&s.datablock_bmp);
}

u32 zorv_snap_valid_at_start(const zorv_blkdev* snap, const char* op) {
  if (snap->s.filter->f.cowthread.pid.load() != 0) return 1;
  zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) has no COW thread", op, zorv_blk_major, snap->minor);
  zorv_log(1, "%s(): Invalidating snap device zorv(%d, %d)", op, zorv_blk_major, snap->minor);
  return 0;
}

void zorv_snap_build_datablock_map(u32 snap_minor) {
  kernel::block_device* bdev = zorv_open_bdev(
      kernel::mkdev(static_cast<u32>(zorv_blk_major), snap_minor), kernel::FMODE_READ);
  if (bdev == nullptr) return;
  // An open node is neither stopped nor removed, so its record stays.
  auto* snap = static_cast<zorv_blkdev*>(bdev->bd_disk->private_data);
  if (snap->dev_type == ZORV_DEV_SNAP && snap->s.datablock_bmp.valid.load() == 0) {
    (void)zorv_blkbmp_read(&snap->s.datablock_bmp, bdev, static_cast<s32>(snap->s.chunk_size));
  }
  zorv_close_bdev(bdev);
}

}  // namespace zorv
