// SPDX-License-Identifier: GPL-2.0-only
// One client of the control socket, from its first byte to its last.
#pragma once

#include <atomic>
#include <string>

#include "host/control/message_space.h"
#include "host/control/server.h"
#include "host/unix_socket.h"
#include "zorv/control.h"

namespace zorv {

class control_session {
 public:
  // buffer_bytes: what all sessions' messages hold together, see control_options.
  control_session(unique_fd fd, int stop_fd, const control_options& options,
                  std::atomic<std::uint64_t>* buffer_bytes)
      : stream_(std::move(fd), stop_fd), options_(options), buffer_bytes_(buffer_bytes) {}
  ~control_session() { release_buffer(); }
  control_session(const control_session&) = delete;
  control_session& operator=(const control_session&) = delete;

  // Serves requests until the peer leaves, misbehaves, or the server stops.
  void run();
  // Tells the peer why it is not served.
  void refuse(int error, const std::string& text) { send_error(0, error, text); }

 private:
  enum class next { request, leave };

  [[nodiscard]] next serve_one();
  [[nodiscard]] next receive_parts(const zorv_ctl_request& request);
  [[nodiscard]] std::string objection(const zorv_ctl_request& request) const;
  [[nodiscard]] next run_ioctl(const zorv_ctl_request& request);
  [[nodiscard]] next run_host(const zorv_ctl_request& request);
  [[nodiscard]] next send_reply(const zorv_ctl_reply& reply, const char* record, const char* buffer,
                                const char* text);
  next send_error(unsigned kind, int error, const std::string& text);
  void give_back_unread_bits();
  [[nodiscard]] bool reserve_buffer(std::uint64_t bytes);
  void release_buffer();
  [[nodiscard]] time_point deadline(std::uint64_t bytes) const;

  stream stream_;
  const control_options& options_;
  std::atomic<std::uint64_t>* buffer_bytes_;
  std::uint64_t reserved_bytes_ = 0;
  std::string record_;
  lazy_buffer buffer_;
  // The answer in buffer_ holds bits that exist nowhere else until the peer has read them.
  bool unconfirmed_ = false;
  zorv_bmp_range_req taken_{};  // whose bits they are
};

}  // namespace zorv
