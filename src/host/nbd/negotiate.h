// SPDX-License-Identifier: GPL-2.0-only
// The handshake: from "NBDMAGIC" to an opened device.
#pragma once

#include <atomic>

#include "host/nbd/export.h"

namespace zorv::nbd {

// What a finished handshake has settled. Owns an opener of the export's device.
struct session {
  session() = default;
  ~session() { release(); }
  session(const session&) = delete;
  session& operator=(const session&) = delete;
  // Gives the device back. Before the connection is closed, so that whoever has disconnected can
  // stop the node at once.
  void release();

  nbd_export target;
  kernel::block_device* bdev = nullptr;
  kernel::fmode_t mode = 0;
  bool structured = false;
  bool block_status = false;  // base:allocation is selected for this export
};

struct negotiation {
  int fd;
  nbd_export_source* exports;
  unsigned limit_ms;
  const std::atomic<bool>* stopping;
};

// Haggles until the client has chosen an export.
//   returns  true: transmission starts | false: the connection is to be closed
[[nodiscard]] bool negotiate(const negotiation& n, session* s);

}  // namespace zorv::nbd
