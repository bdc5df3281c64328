// SPDX-License-Identifier: GPL-2.0-only
// Admission of requests to a device, and the freeze that stops it.
#include "kernel/blkdev.h"

namespace kernel {
namespace {

bool idle(block_device* bdev) {
  spin_guard lock(&bdev->bd_gate_lock);
  return bdev->bd_admitted == 0;
}

bool frozen(block_device* bdev) {
  spin_guard lock(&bdev->bd_gate_lock);
  return bdev->bd_frozen != 0;
}

// Counts one more freeze if there is one already.
bool nest(block_device* bdev) {
  spin_guard lock(&bdev->bd_gate_lock);
  if (bdev->bd_frozen == 0) return false;
  ++bdev->bd_frozen;
  return true;
}

void close_gate(block_device* bdev) {
  spin_guard lock(&bdev->bd_gate_lock);
  bdev->bd_frozen = 1;
}

// True when the last freeze has gone.
bool open_gate(block_device* bdev) {
  spin_guard lock(&bdev->bd_gate_lock);
  return bdev->bd_frozen != 0 && --bdev->bd_frozen == 0;
}

}  // namespace

bool blkdev_try_enter(block_device* bdev) {
  spin_guard lock(&bdev->bd_gate_lock);
  if (bdev->bd_frozen != 0) return false;
  ++bdev->bd_admitted;
  return true;
}

void blkdev_enter(block_device* bdev) {
  might_sleep("blkdev_enter");
  while (!blkdev_try_enter(bdev)) {
    wait_event(&bdev->bd_gate_wait, [bdev] { return !frozen(bdev); });
  }
}

// The wake-up stays under the lock: once it is released the opener may close the device.
void blkdev_exit(block_device* bdev) {
  spin_guard lock(&bdev->bd_gate_lock);
  if (--bdev->bd_admitted == 0 && bdev->bd_frozen != 0) wake_up_all(&bdev->bd_gate_wait);
}

super_block* freeze_bdev(block_device* bdev) {
  might_sleep("freeze_bdev");
  down(&bdev->bd_freeze_sem);
  if (!nest(bdev)) {
    const block_device_operations* ops = bdev->bd_disk->fops;
    const int error = ops != nullptr && ops->freeze != nullptr ? ops->freeze(bdev) : 0;
    if (error != 0) {
      up(&bdev->bd_freeze_sem);
      return err_ptr<super_block>(error);
    }
    close_gate(bdev);
    wait_event(&bdev->bd_gate_wait, [bdev] { return idle(bdev); });
  }
  up(&bdev->bd_freeze_sem);
  return &bdev->bd_super;
}

void thaw_bdev(block_device* bdev, super_block* sb) {
  (void)sb;
  might_sleep("thaw_bdev");
  down(&bdev->bd_freeze_sem);
  if (open_gate(bdev)) {
    wake_up_all(&bdev->bd_gate_wait);
    const block_device_operations* ops = bdev->bd_disk->fops;
    if (ops != nullptr && ops->thaw != nullptr) ops->thaw(bdev);
  }
  up(&bdev->bd_freeze_sem);
}

}  // namespace kernel
