// SPDX-License-Identifier: GPL-2.0-only
// Which of our own nodes a block device of the host stands on.
//
// A client of an export may put a file system on it: a loop device over the file of a FUSE server
// that is our client, the kernel's own NBD device, a volume of a mapper or an array above either.
// Files that the driver writes while requests wait for it must not live there: the request would
// wait for itself, in the kernel, where nothing can be killed. What is not found here (a server on
// another machine, another user's processes) is left to the limits at run time.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/nbd/server.h"
#include "kernel/types.h"

namespace zorv {

struct stack_view {
  // Roots of the trees that are looked at.
  std::string sys = "/sys";
  std::string proc = "/proc";
  std::string dev = "/dev";
  std::function<std::vector<nbd_client_process>()> clients;
};

// The node below the device, through partitions, loop devices, NBD devices, mapped devices, arrays
// and file systems over several devices, several levels deep. Major 0: a file system without a
// device, and the number it shows instead.
//   returns  the node | 0: none is known of
//   context  may sleep; look-ups of the host only
[[nodiscard]] kernel::devt own_node_below(const stack_view& view, kernel::u32 major,
                                          kernel::u32 minor);

// From now on look-ups ask for what stands on nodes of this process; null ends that.
void watch_fs_stack(std::function<std::vector<nbd_client_process>()> clients);

}  // namespace zorv
