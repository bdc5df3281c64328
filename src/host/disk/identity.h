// SPDX-License-Identifier: GPL-2.0-only
// Texts that name a disk over restarts and reboots: what stands behind kernel::bdev_identity. A
// text is given only where the host can tell the disk from any other that may come in its place;
// device and loop numbers, paths and the order of disks never go into one.
#pragma once

#include <string>

#include "kernel/fs.h"

namespace zorv {

// Of a regular file, as an image or behind a loop device: its file system, inode number and time of
// birth.
//   fd       open
//   path     where it lies, absolute
//   returns  0 | -ENODATA (the file system has no lasting name, or keeps no time of birth)
[[nodiscard]] int file_disk_identity(int fd, const std::string& path, std::string* text);

// Where the host describes its devices; a test has them recorded elsewhere.
struct host_trees {
  std::string sys = "/sys";
  std::string udev = "/run/udev/data";
};

// Of a block device of the host: the UUID of a device mapper or array device; a partition by its
// UUID, its disk and where it starts; a loop device over all of a file or device by that one, else
// with offset and size limit; any other by its world wide name or serial number.
//   returns  0 | -ENODATA (nothing of the kind, or a medium that can be exchanged)
[[nodiscard]] int device_disk_identity(kernel::devt dev, const host_trees& trees,
                                       std::string* text);

}  // namespace zorv
