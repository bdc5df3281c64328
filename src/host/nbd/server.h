// SPDX-License-Identifier: GPL-2.0-only
// The NBD server: every started node is an export of its name on one Unix socket.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/nbd/export.h"

namespace zorv {

struct nbd_options {
  std::string socket_path;  // created with mode 0600; a stale socket is replaced
  unsigned max_connections = 64;
  std::size_t max_inflight_bytes = 16U << 20;  // per client
  unsigned handshake_limit_ms = 30000;         // from connecting to the first request
  unsigned reply_limit_ms = 5000;              // without reading its replies, when the server stops
  nbd_export_source* exports = nullptr;        // null: the driver's started nodes
};

// A client that has a node open, as the host knows it.
struct nbd_client_process {
  kernel::devt node = 0;
  int pid = 0;                 // that connected
  kernel::u64 peer_inode = 0;  // of its socket; 0: unknown
};

class nbd_server {
 public:
  nbd_server();
  ~nbd_server();
  nbd_server(const nbd_server&) = delete;
  nbd_server& operator=(const nbd_server&) = delete;

  //   returns  0 | negative errno, with one sentence in *error
  [[nodiscard]] int start(const nbd_options& options, std::string* error);
  // Everybody who is past negotiation now.
  [[nodiscard]] std::vector<nbd_client_process> clients();
  // Waits until the connections whose peers have gone have released the nodes for which concerns()
  // says so, at most two seconds: whoever has disconnected finds the node unused. One that is not
  // past negotiation may be about any node.
  void settle(const std::function<bool(kernel::devt node)>& concerns);
  // Stops accepting, lets requests in flight finish, closes every connection and every node.
  void stop();

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};

}  // namespace zorv
