// SPDX-License-Identifier: GPL-2.0-only
// HDD backends: attached image files, host block devices, memory (tests). Each is a gendisk of the
// kernel layer with a request queue of its own.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kernel/blkdev.h"

namespace zorv {

// Above every major that a host has, so that no host block device is taken for one of these.
constexpr kernel::u32 image_major = 3840;  // "/dev/image/NAME"
constexpr kernel::u32 memory_major = 3841;

struct attached_disk {
  std::string name;
  std::string path;  // the image file, absolute
  kernel::u64 size_bytes;
  bool read_only;
  kernel::s32 openers;
};

enum class access { read_write, read_only };

// Attaches an image file as /dev/image/NAME (name empty: the file's base name without extension).
// Claims it in this daemon and takes an advisory lock on it; never changes its length.
//   returns  0 | -EEXIST (name taken) | -EBUSY (attached or something else's in this daemon, locked
//   by
//            another program, or, unless read-only, seen to be open for writing elsewhere) |
//            -EINVAL (no regular file, shorter than one sector, bad name) | the open's error
//   error    one sentence for a person
[[nodiscard]] int image_attach(const std::string& path, const std::string& name, access mode,
                               std::string* error, std::string* used_name = nullptr);
//   returns  0 | -ENOENT | -EBUSY (a node or a client has it open)
[[nodiscard]] int image_detach(const std::string& name, std::string* error);
std::vector<attached_disk> image_list();
// Detaches everything that is not open; called at exit.
void image_detach_all();

// Lets open_by_devnum bring in host block devices by number (exclusive access where possible).
void host_block_init();

}  // namespace zorv
