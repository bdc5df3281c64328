// SPDX-License-Identifier: GPL-2.0-only
#include "driver/core/module.h"

#include "driver/bitmap/dirty.h"
#include "driver/block/block.h"
#include "driver/control/chardev.h"
#include "driver/core/blkdev.h"
#include "driver/core/log.h"
#include "driver/proc/proc.h"
#include "kernel/mem.h"
#include "kernel/module.h"

namespace zorv {

int zorv_chr_major = 100;
int zorv_blk_major = 100;
int zorv_max_blk_minor = 255;
int zorv_datablock_maps = 1;
int zorv_blk_registered = 0;

namespace {

int debug_parameter = 1;

const kernel::module_param params[] = {
    {"zorv_chr_major", &zorv_chr_major, 100, "major number of the control device, 0: any"},
    {"zorv_blk_major", &zorv_blk_major, 100, "major number of the nodes, 0: any"},
    {"zorv_max_blk_minor", &zorv_max_blk_minor, 255, "highest minor number of a node"},
    {"zorv_datablock_maps", &zorv_datablock_maps, 1,
     "1: what clean file systems say is free is not preserved, 0: everything is"},
    {"zorv_debug", &debug_parameter, 1, "verbosity of the log, 0 to 4"},
};

constexpr const char* uts_release = "2.6.32-358.el6.x86_64";

}  // namespace

int zorv_block_init() {
  zorv_log(2, "%s(): Initializing block device", __func__);
  const int major = kernel::register_blkdev(static_cast<u32>(zorv_blk_major), "zorv");
  if (major < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to register block device: rc=%d.", __func__, major);
    return major;
  }
  if (zorv_blk_major == 0) zorv_blk_major = major;
  zorv_log(2, "%s(): zorv_blk_major=%d", __func__, zorv_blk_major);
  zorv_blk_registered = 1;

  const std::size_t slots = zorv_max_blk_minor < 0 ? 0 : static_cast<u32>(zorv_max_blk_minor) + 1U;
  // A minor has 20 bits, so a larger table could not be addressed.
  if (slots == 0 || slots > kernel::minor_mask + 1U) {
    zorv_log(LOG_ERROR, "%s(): zorv_max_blk_minor=%d must be between 0 and %u", __func__,
             zorv_max_blk_minor, kernel::minor_mask);
    return -EINVAL;
  }
  auto* table =
      static_cast<zorv_blkdev**>(kernel::kzalloc(slots * sizeof(zorv_blkdev*), kernel::GFP_KERNEL));
  if (table == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
    return -ENOMEM;
  }
  {
    table_write_guard guard;
    zorv_blkdev_arr = table;
  }
  return zorv_start_kdirtyd();
}

int zorv_init() {
  zorv_debug.store(debug_parameter);
  zorv_log(1, "%s(): Initializing the driver.", __func__);
  zorv_log(1, "%s(): Built: %s %s", __func__, __DATE__, __TIME__);
  zorv_log(1, "%s(): UTS_RELEASE: %s", __func__, uts_release);

  int rc = zorv_debug_init();
  if (rc == 0) {
    rc = zorv_create_proc();
    if (rc == 0) rc = zorv_char_init();
    if (rc == 0) {
      rc = zorv_block_init();
      if (rc != 0) {
        // What the block side had got is given back before the load fails.
        if (zorv_blk_registered != 0) (void)zorv_block_destroy();
        (void)zorv_char_destroy();
      }
    }
    if (rc != 0) {
      (void)zorv_remove_proc();
      (void)zorv_debug_destroy();
    }
  }
  zorv_log(1, "%s(): rc=%d", __func__, rc);
  if (rc != 0) (void)zorv_debug_destroy();  // the line above may have brought the buffer back
  return rc;
}

int zorv_cleanup() {
  zorv_log(1, "%s(): The driver is being unloaded.", __func__);
  int first = zorv_block_destroy();
  if (first != 0) {
    zorv_log(LOG_ERROR, "%s(): The block side could not be taken down: rc=%d. Releasing the rest.",
             __func__, first);
  }
  const auto step = [&first](const char* what, int rc) {
    if (rc == 0) return;
    zorv_log(LOG_ERROR, "zorv_cleanup(): The %s could not be released: rc=%d.", what, rc);
    if (first == 0) first = rc;
  };
  step("control device", zorv_char_destroy());
  step("status tree", zorv_remove_proc());
  step("log buffer", zorv_debug_destroy());
  return first;
}

}  // namespace zorv
