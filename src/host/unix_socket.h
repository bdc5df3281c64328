// SPDX-License-Identifier: GPL-2.0-only
// Unix stream sockets with deadlines and a way to be told to stop.
#pragma once

#include <sys/types.h>

#include <atomic>
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

// Who is at the other end of a connected socket.
struct socket_peer {
  int pid = 0;              // of the process that connected; it may have handed the socket on
  unsigned long inode = 0;  // of its socket, as /proc/PID/fd shows it; 0 when the host does not say
};
[[nodiscard]] socket_peer peer_of(int fd);

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

// The owner's wish to end, seen by all that wait for a peer.
class stop_signal {
 public:
  // grace  how long a peer that is still owed something has after raise()
  //   returns  0 | negative errno
  [[nodiscard]] int open(std::chrono::milliseconds grace);
  void raise();  // once; called by one thread
  [[nodiscard]] bool raised() const { return raised_at_.load() != no_deadline; }
  [[nodiscard]] time_point grace_end() const;            // no_deadline before raise()
  [[nodiscard]] int fd() const { return event_.get(); }  // readable once raised

 private:
  unique_fd event_;
  std::chrono::milliseconds grace_{0};
  std::atomic<time_point> raised_at_{no_deadline};
};

enum class io { done, end, reset, stopped, timed_out };

// What became of all that was sent.
enum class delivery { pending, read, lost };

// A connected, non-blocking socket.
class stream {
 public:
  stream(unique_fd fd, const stop_signal* stop) : fd_(std::move(fd)), stop_(stop) {}

  // Waits until there is something to read: data or the end.
  [[nodiscard]] io wait_readable(time_point deadline);
  // Reads exactly that much. end: the peer closed before the first byte or in the middle.
  [[nodiscard]] io receive(void* to, std::size_t bytes, time_point deadline);
  // Sends all parts. A stop leaves it the owner's grace.
  [[nodiscard]] io send(iovec* parts, int count, time_point deadline);
  // pending: the peer has not read everything, and may yet; lost: it never will.
  [[nodiscard]] delivery delivered();
  // Whether nobody is at the other end any more. A peer that only sends no more is there.
  [[nodiscard]] bool abandoned() const;

 private:
  enum class on_stop { end, limit };
  [[nodiscard]] io wait(short events, on_stop then, time_point deadline);

  unique_fd fd_;
  const stop_signal* stop_;
  bool reset_ = false;
};

}  // namespace zorv
