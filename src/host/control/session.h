// SPDX-License-Identifier: GPL-2.0-only
// One client of the control socket, from its first byte to its last.
#pragma once

#include <string>
#include <vector>

#include "host/control/command_slots.h"
#include "host/control/memory_budget.h"
#include "host/control/message_space.h"
#include "host/control/server.h"
#include "host/unix_socket.h"
#include "zorv/control.h"

namespace zorv {

class control_session {
 public:
  control_session(unique_fd fd, const stop_signal* stop, const control_options& options,
                  memory_budget* memory, command_slots* slots)
      : stop_(stop),
        stream_(std::move(fd), stop),
        options_(options),
        memory_(memory, options.own_buffer_bytes),
        slots_(slots) {}
  ~control_session();
  control_session(const control_session&) = delete;
  control_session& operator=(const control_session&) = delete;

  // Serves requests until the peer leaves, misbehaves, or the server stops.
  void run();
  // Tells the peer why it is not served.
  void refuse(int error, const std::string& text) { send_error(0, error, text); }

 private:
  enum class next { request, leave };

  // Bits that a bitmap was cleared of and that the peer does not have for sure.
  struct taken_bits {
    std::uint64_t handout = 0;  // 0: none
    std::uint32_t number = 0;   // the peer's name for it
    std::uint32_t minor = 0;
    std::uint64_t bytes = 0;
  };

  [[nodiscard]] next serve_one();
  [[nodiscard]] next await_reader();
  [[nodiscard]] next receive_parts(const zorv_ctl_request& request);
  [[nodiscard]] std::string objection(const zorv_ctl_request& request) const;
  [[nodiscard]] next run_ioctl(const zorv_ctl_request& request);
  [[nodiscard]] int carry_out(const zorv_ctl_request& request, message_space* space);
  void note_taken(const zorv_ctl_request& request, zorv_ctl_reply* reply);
  [[nodiscard]] next run_host(const zorv_ctl_request& request);
  [[nodiscard]] int settle(std::uint32_t request, std::string* error);
  [[nodiscard]] next send_reply(const zorv_ctl_reply& reply, const char* record, const char* buffer,
                                const char* text);
  next send_error(unsigned kind, int error, const std::string& text);
  void confirm(const taken_bits& bits);
  void put_back(const taken_bits& bits) noexcept;
  void release_buffer();
  [[nodiscard]] time_point deadline(std::uint64_t bytes) const;

  const stop_signal* stop_;
  stream stream_;
  const control_options& options_;
  memory_share memory_;
  command_slots* slots_;
  std::string record_;
  lazy_buffer buffer_;
  std::uint64_t buffer_share_bytes_ = 0;
  taken_bits unread_;             // confirmed by reading the reply
  std::vector<taken_bits> held_;  // confirmed by a request of their own
  std::uint32_t taken_count_ = 0;
};

}  // namespace zorv
