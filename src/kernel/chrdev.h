// SPDX-License-Identifier: GPL-2.0-only
// Character device registration, and the entries by which a transport reaches a device.
#pragma once

#include "kernel/types.h"
#include "kernel/uaccess.h"

namespace kernel {

struct inode;
struct file;

struct file_operations {
  s64 (*read)(file*, user_addr buffer, std::size_t bytes, s64* pos);
  s64 (*write)(file*, user_addr buffer, std::size_t bytes, s64* pos);
  int (*open)(inode*, file*);
  int (*release)(inode*, file*);
  int (*ioctl)(inode*, file*, u32 command, user_addr argument);
};

// Registers minors base .. base + count - 1 of the major under the name.
//   returns  0 (a given major), the chosen major (major 0) | -EBUSY (taken) | -EINVAL (> 4095)
[[nodiscard]] int register_chrdev_region(u32 major, u32 base, u32 count, const char* name,
                                         const file_operations* fops);
void unregister_chrdev_region(u32 major, u32 base, u32 count, const char* name);

// For transports: the registered device of that name, or null. The caller holds what keeps the
// driver loaded for as long as it uses the result.
[[nodiscard]] const file_operations* chrdev_find(const char* name, u32* major);

// One command, in the calling task, against the current task's user_space: open, ioctl, release.
// The device keeps nothing per open, so its entries get a null file.
//   returns  the entry's result | -ENODEV (no device of that name)
[[nodiscard]] int chrdev_ioctl(const char* name, u32 command, user_addr argument);

}  // namespace kernel
