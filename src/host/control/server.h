// SPDX-License-Identifier: GPL-2.0-only
// The control socket: commands of the driver and requests to the host, one thread per client.
// docs/control-protocol.md describes the messages.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace zorv {

struct control_options {
  std::string socket_path;  // mode 0600; a stale socket is replaced
  std::string run_dir;      // told to clients that ask
  std::string nbd_socket_path;
  unsigned max_connections = 64;
  // What a client's messages and the bitmaps that it has taken and not confirmed may hold: its own,
  // and for all together what goes beyond that.
  std::uint64_t own_buffer_bytes = 8ULL << 20;
  std::uint64_t max_buffer_bytes = 1ULL << 30;
  unsigned stall_ms = 30'000;  // a message that a peer began, or a reply, gets this long and 1 s
                               // per MiB
  unsigned stop_grace_ms = 5'000;  // what is left of that for a reply when the server stops
  // Called before a command that needs a node unused (STOP_NODE, DEL_NODE): a client that has
  // disconnected may still have it open for a moment. May be empty.
  std::function<void(std::uint32_t minor)> settle_clients;
};

class control_server {
 public:
  control_server();
  ~control_server();
  control_server(const control_server&) = delete;
  control_server& operator=(const control_server&) = delete;

  //   returns  0 | negative errno, with one sentence in *error
  [[nodiscard]] int start(const control_options& options, std::string* error);
  // Tells clients and commands in progress of the stop that comes; their time begins.
  void announce_stop();
  // Stops accepting, lets commands in progress finish and answers them (whoever does not read its
  // answer is left behind after the grace), closes every connection
  // and removes the socket. Safe to call again.
  void stop();

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};

}  // namespace zorv
