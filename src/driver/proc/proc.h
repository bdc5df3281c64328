// SPDX-License-Identifier: GPL-2.0-only
// The status tree under /proc/zorv.
#pragma once

#include "driver/core/blkdev.h"
#include "kernel/procfs.h"

namespace zorv {

int zorv_create_proc();                      // 0 | -EINVAL
int zorv_remove_proc();                      // 0
int zorv_proc_add_device(zorv_blkdev* dev);  // 0 | -EINVAL (the node then has no directory)
int zorv_proc_del_device(zorv_blkdev* dev);  // 0
void zorv_remove_proc_entry(kernel::proc_dir_entry* entry);

}  // namespace zorv
