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

void close_gate(block_device* bdev) {
  spin_guard lock(&bdev->bd_gate_lock);
  ++bdev->bd_frozen;
}

void open_gate(block_device* bdev) {
  bool last;
  {
    spin_guard lock(&bdev->bd_gate_lock);
    last = bdev->bd_frozen != 0 && --bdev->bd_frozen == 0;
  }
  if (last) wake_up_all(&bdev->bd_gate_wait);
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

super_block* freeze_bdev(block_device* bdev, u64 deadline_jiffies) {
  might_sleep("freeze_bdev");
  close_gate(bdev);
  const s64 left = static_cast<s64>(deadline_jiffies - jiffies());
  if (wait_event_timeout(
          &bdev->bd_gate_wait, [bdev] { return idle(bdev); },
          left > 0 ? static_cast<u64>(left) : 0)) {
    return &bdev->bd_super;
  }
  open_gate(bdev);
  return err_ptr<super_block>(-ETIMEDOUT);
}

void thaw_bdev(block_device* bdev, super_block* sb) {
  (void)sb;
  might_sleep("thaw_bdev");
  open_gate(bdev);
}

}  // namespace kernel
