// SPDX-License-Identifier: GPL-2.0-only
// Unix stream sockets with deadlines and a way to be told to stop.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>

struct iovec;

namespace zorv {

// Owns a file descriptor.
class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  ~unique_fd() { reset(); }
  unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  void reset();
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// A listening socket, close-on-exec, non-blocking, and its name, mode 0600. The name appears when
// the socket can be connected to.
class unix_listener {
 public:
  unix_listener() = default;
  ~unix_listener() { close(); }
  unix_listener(const unix_listener&) = delete;
  unix_listener& operator=(const unix_listener&) = delete;

  // A socket that a dead process left at the path is replaced; one that somebody serves, or
  // anything that is no socket, is not touched.
  //   returns  0 | -EADDRINUSE, -EEXIST (no socket), -ENAMETOOLONG, the errors of bind(2)
  //   error    one sentence for a person
  [[nodiscard]] int open(const std::string& path, std::string* error);
  // Removes the name while it leads to this socket.
  void close();
  [[nodiscard]] int fd() const { return fd_.get(); }

 private:
  [[nodiscard]] int bind(const std::string& name);

  unique_fd fd_;
  std::string path_;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
};

using time_point = std::chrono::steady_clock::time_point;
constexpr time_point no_deadline = time_point::max();

enum class io { done, end, reset, stopped, timed_out };

// A connected, non-blocking socket. stop_fd becomes readable when the owner wants to end.
class stream {
 public:
  stream(unique_fd fd, int stop_fd) : fd_(std::move(fd)), stop_fd_(stop_fd) {}

  // Waits until there is something to read: data or the end.
  [[nodiscard]] io wait_readable(time_point deadline);
  // Reads exactly that much. end: the peer closed before the first byte or in the middle.
  [[nodiscard]] io receive(void* to, std::size_t bytes, time_point deadline);
  // Sends all parts. Not cut short by a stop: what was begun is delivered or times out.
  [[nodiscard]] io send(iovec* parts, int count, time_point deadline);
  // Whether the peer has not read everything that was sent.
  [[nodiscard]] bool has_unread() const;

 private:
  [[nodiscard]] io wait(short events, bool until_stop, time_point deadline);

  unique_fd fd_;
  int stop_fd_;
};

}  // namespace zorv
