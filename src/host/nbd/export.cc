// SPDX-License-Identifier: GPL-2.0-only
#include "host/nbd/export.h"

#include <algorithm>
#include <bit>

#include "driver/core/blkdev.h"
#include "host/nbd/wire.h"

namespace zorv {

namespace {

nbd_export describe(const zorv_blkdev& dev) {
  nbd_export e;
  e.name = dev.name;
  e.dev = kernel::mkdev(static_cast<u32>(zorv_blk_major), dev.minor);
  e.size_bytes = dev.disk->capacity_sectors.load(std::memory_order_relaxed) << kernel::sector_shift;
  const kernel::queue_limits& limits = dev.disk->queue->limits;
  e.min_block_bytes = std::max(e.min_block_bytes, std::bit_ceil(limits.logical_block_bytes));
  e.preferred_block_bytes =
      std::max({e.preferred_block_bytes, e.min_block_bytes,
                std::bit_ceil(limits.physical_block_bytes), std::bit_ceil(limits.io_min_bytes)});
  e.preferred_block_bytes = std::min(e.preferred_block_bytes, nbd::max_payload_bytes);
  if (dev.dev_type == ZORV_DEV_FILTER) {
    e.description = std::string("filter over ") + dev.f.hdd_name;
    e.read_only = dev.disk->read_only.load(std::memory_order_relaxed);
    e.default_candidate = true;
  } else {
    e.description = "snapshot";
    if (dev.s.filter != nullptr) e.description += std::string(" of ") + dev.s.filter->name;
    e.read_only = true;
  }
  return e;
}

}  // namespace

std::vector<nbd_export> node_exports::list() {
  std::vector<nbd_export> found;
  const table_read_guard guard;
  if (zorv_blkdev_arr == nullptr) return found;
  for (u32 minor = 0; minor <= static_cast<u32>(zorv_max_blk_minor); ++minor) {
    const zorv_blkdev* dev = zorv_blkdev_find(minor);
    if (dev != nullptr && dev->started.load(std::memory_order_relaxed) != 0 &&
        dev->disk != nullptr) {
      found.push_back(describe(*dev));
    }
  }
  return found;
}

std::optional<nbd_export> nbd_find_export(nbd_export_source* source, std::string_view name) {
  std::optional<nbd_export> found;
  for (nbd_export& e : source->list()) {
    if (name.empty() ? !e.default_candidate : e.name != name) continue;
    if (found) return std::nullopt;  // more than one could be the default
    found = std::move(e);
  }
  return found;
}

}  // namespace zorv
