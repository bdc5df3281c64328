// SPDX-License-Identifier: GPL-2.0-only
// A snap's COW files, as start and resume set them up.
#include "driver/snap/snap.h"

#include "driver/core/log.h"
#include "driver/snap/cowfiles.h"

namespace zorv {

namespace {

void close_file(zorv_file** file) {
  if (*file != nullptr) (void)zorv_fclose(*file);
  *file = nullptr;
}

}  // namespace

int zorv_snap_open_files(zorv_blkdev* snap) {
  zorv_snap& s = snap->s;
  zorv_snap_close_files(snap);  // left open by a stop for a copy that hung
  int rc = zorv_cowfiles_open_new(snap);
  if (rc == 0) rc = zorv_cowbmp_init(&s.cowbmp, s.chunk_cnt);
  // What the files held goes; older snaps may have shown some of it.
  if (rc == 0 && zorv_record_lost(&s.filter->f, s.life_id)) (void)zorv_record_save(&s.filter->f);
  if (rc == 0) rc = zorv_cowfiles_make(snap);
  if (rc != 0) return rc;
  if (s.filter->f.cowthread.pid.load() == 0) zorv_snap_disown_files(snap);
  return 0;
}

void zorv_snap_disown_files(zorv_blkdev* snap) {
  if (snap->s.cow_data_file == nullptr) return;
  zorv_log(2, "%s(): Emptying %s", __func__, snap->s.cow_data_file->fname);
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
  if (zorv_datablock_maps == 0) {
    zorv_log(1, "%s(): zorv_datablock_maps=0: all of zorv(%d, %d) counts as allocated", __func__,
             zorv_blk_major, static_cast<s32>(snap_minor));
    return;
  }
  kernel::block_device* bdev = zorv_open_bdev(
      kernel::mkdev(static_cast<u32>(zorv_blk_major), snap_minor), kernel::FMODE_READ);
  if (bdev == nullptr) return;
  // An open node is neither stopped nor removed, so its record stays.
  auto* snap = static_cast<zorv_blkdev*>(bdev->bd_disk->private_data);
  if (snap->dev_type == ZORV_DEV_SNAP && snap->s.snap_valid.load() != 0 &&
      snap->s.datablock_bmp.valid.load() == 0) {
    (void)zorv_blkbmp_read(&snap->s.datablock_bmp, bdev, static_cast<s32>(snap->s.chunk_size));
  }
  zorv_close_bdev(bdev);
}

}  // namespace zorv
