// SPDX-License-Identifier: MIT
// One connection to the daemon: a request goes, its reply comes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "zorv/control.h"

namespace zorv {

// Where the parts of a request lie and where those of its reply go.
struct exchange {
  zorv_ctl_request request{};
  const void* record = nullptr;  // request.record_bytes of it are sent
  const void* buffer = nullptr;  // sent when ZORV_CTL_BUFFER_IN is set
  void* record_out = nullptr;    // room for record_room bytes
  std::size_t record_room = 0;
  char* buffer_out = nullptr;  // room for buffer_room bytes
  std::size_t buffer_room = 0;
  std::string* answer = nullptr;  // host requests: the reply's buffer, whatever its length
  std::string text;               // the daemon's reason for a failure
  std::uint32_t handout = 0;      // what was taken is called so, 0: nothing was
};

class channel {
 public:
  channel() = default;
  ~channel() { disconnect(); }
  channel(const channel&) = delete;
  channel& operator=(const channel&) = delete;

  //   limit_ms  0: none; else how long the daemon may say nothing
  //   returns   0 | the errors of connect(2), negative | -ETIMEDOUT
  [[nodiscard]] int connect(const std::string& path, unsigned limit_ms);
  [[nodiscard]] bool connected() const { return fd_ >= 0; }
  void disconnect();
  void set_limit(unsigned limit_ms);
  // Counts the connections made.
  [[nodiscard]] std::uint32_t life() const { return life_; }

  // Sends a request and waits for its reply, however long the command takes.
  //   returns  the daemon's result | -ECONNRESET (it is gone; disconnected) | -EPROTO (a reply that
  //            makes no sense; disconnected) | -ETIMEDOUT (it says nothing; disconnected)
  [[nodiscard]] int call(exchange* x);

 private:
  [[nodiscard]] int send_request(const exchange& x);
  [[nodiscard]] int receive_reply(exchange* x);
  [[nodiscard]] int receive(void* to, std::size_t bytes);
  [[nodiscard]] bool daemon_answers() const;

  int fd_ = -1;
  std::uint32_t life_ = 0;
  unsigned limit_ms_ = 0;
  std::string path_;
};

}  // namespace zorv
