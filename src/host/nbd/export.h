// SPDX-License-Identifier: GPL-2.0-only
// What the server offers by which name.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/blkdev.h"

namespace zorv {

struct nbd_export {
  std::string name;
  std::string description;
  kernel::devt dev = 0;
  kernel::u64 size_bytes = 0;
  bool read_only = false;
  bool default_candidate = false;            // the only one of these is the export named ""
  kernel::u32 min_block_bytes = 512;         // the disk's, a power of two
  kernel::u32 preferred_block_bytes = 4096;  // a power of two, no smaller
};

class nbd_export_source {
 public:
  virtual ~nbd_export_source() = default;
  // Any thread; what it returns may be out of date at once, opening the device decides.
  virtual std::vector<nbd_export> list() = 0;
};

// The driver's started nodes. Snapshots are read-only; a filter can be the default.
class node_exports : public nbd_export_source {
 public:
  std::vector<nbd_export> list() override;
};

// The export of that name; the empty name means the only default candidate.
std::optional<nbd_export> nbd_find_export(nbd_export_source* source, std::string_view name);

}  // namespace zorv
