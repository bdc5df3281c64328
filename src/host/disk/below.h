// SPDX-License-Identifier: GPL-2.0-only
// What a block device of the host stands on: the whole disk of a partition, the devices of a
// volume, the file or device behind a loop device, and what those stand on in turn.
#pragma once

#include <string>
#include <vector>

#include "kernel/fs.h"

namespace zorv {

// The file behind a loop device, or the device: one of the two is set.
struct loop_backing {
  kernel::file_id file;
  kernel::devt device = 0;
  bool operator==(const loop_backing&) const = default;
};
//   device   "/dev/loop7"
//   returns  false: it cannot be asked, or has nothing behind it
[[nodiscard]] bool ask_loop(const std::string& device, loop_backing* out);

// A device as something that one may claim beside files, which never have device number 0.
inline kernel::file_id device_as_file(kernel::devt dev) { return {0, dev, 0}; }

struct layer {
  kernel::file_id id;  // a file, or device_as_file
  // Who stands on it: a loop device has all of it, or may have; what shares a disk as partitions or
  // volumes share it is "slices".
  std::string user;
};

// Every layer below the device, without it itself.
[[nodiscard]] std::vector<layer> layers_below(kernel::devt dev);

}  // namespace zorv
