// SPDX-License-Identifier: MIT
#include "client/channel.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zorv {
namespace {

constexpr std::size_t max_answer_bytes = 64U << 20;

// Drops the first n bytes of what msg still has to send.
void advance(msghdr* msg, std::size_t n) {
  while (msg->msg_iovlen > 0 && n >= msg->msg_iov->iov_len) {
    n -= msg->msg_iov->iov_len;
    ++msg->msg_iov;
    --msg->msg_iovlen;
  }
  if (msg->msg_iovlen == 0) return;
  msg->msg_iov->iov_base = static_cast<char*>(msg->msg_iov->iov_base) + n;
  msg->msg_iov->iov_len -= n;
}

// A send, a receive and a connect then end with EAGAIN after so long without progress.
void limit_waits(int fd, unsigned limit_ms) {
  const timeval limit{.tv_sec = limit_ms / 1000, .tv_usec = limit_ms % 1000 * 1000L};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

}  // namespace

int channel::connect(const std::string& path, unsigned limit_ms) {
  disconnect();
  path_ = path;
  limit_ms_ = limit_ms;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty()) return -ENOENT;
  if (path.size() >= sizeof addr.sun_path) return -ENAMETOOLONG;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -errno;
  limit_waits(fd, limit_ms);
  int rc = 0;
  do {
    rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    rc = errno == EAGAIN ? -ETIMEDOUT : -errno;
    ::close(fd);
    return rc;
  }
  fd_ = fd;
  ++life_;
  return 0;
}

void channel::set_limit(unsigned limit_ms) {
  limit_ms_ = limit_ms;
  if (fd_ >= 0) limit_waits(fd_, limit_ms);
}

void channel::disconnect() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

int channel::call(exchange* x) {
  int rc = send_request(*x);
  // A daemon that refuses a request may close before it has read all of it; its reason is worth
  // reading even then.
  const int received = rc == -ETIMEDOUT ? rc : receive_reply(x);
  if (received != -ECONNRESET) rc = received;
  if (rc == -ECONNRESET || rc == -EPROTO || rc == -ETIMEDOUT) disconnect();
  return rc;
}

int channel::send_request(const exchange& x) {
  const bool with_buffer = (x.request.flags & ZORV_CTL_BUFFER_IN) != 0;
  iovec parts[3] = {
      {const_cast<zorv_ctl_request*>(&x.request), sizeof x.request},
      {const_cast<void*>(x.record), x.request.record_bytes},
      {const_cast<void*>(x.buffer), with_buffer ? x.request.buffer_bytes : 0},
  };
  msghdr msg{};
  msg.msg_iov = parts;
  msg.msg_iovlen = 3;
  for (advance(&msg, 0); msg.msg_iovlen > 0;) {
    const ssize_t n = ::sendmsg(fd_, &msg, MSG_NOSIGNAL);
    if (n < 0 && (errno == EINTR || (errno == EAGAIN && daemon_answers()))) continue;
    if (n < 0) return errno == EAGAIN ? -ETIMEDOUT : -ECONNRESET;
    advance(&msg, static_cast<std::size_t>(n));
  }
  return -ECONNRESET;  // until a reply says otherwise
}

int channel::receive(void* to, std::size_t bytes) {
  auto* at = static_cast<char*>(to);
  while (bytes > 0) {
    const ssize_t n = ::recv(fd_, at, bytes, 0);
    if (n < 0 && (errno == EINTR || (errno == EAGAIN && daemon_answers()))) continue;
    if (n <= 0) return n < 0 && errno == EAGAIN ? -ETIMEDOUT : -ECONNRESET;
    at += n;
    bytes -= static_cast<std::size_t>(n);
  }
  return 0;
}

// Whether the daemon says who it is to another client that asks. One that takes no more clients
// because it ends still owes this one a reply. Leaves errno at EAGAIN.
bool channel::daemon_answers() const {
  channel other;
  zorv_ctl_request request{};
  request.magic = ZORV_CTL_MAGIC;
  request.version = ZORV_CTL_VERSION;
  request.kind = ZORV_CTL_HOST;
  request.command = ZORV_HOST_INFO;
  const int connected = other.connect(path_, limit_ms_);
  char answer = 0;
  const bool silent =
      connected == -ETIMEDOUT ||
      (connected == 0 && ::send(other.fd_, &request, sizeof request, MSG_NOSIGNAL) > 0 &&
       ::recv(other.fd_, &answer, 1, 0) < 0 && errno == EAGAIN);
  errno = EAGAIN;
  return !silent;
}

int channel::receive_reply(exchange* x) {
  zorv_ctl_reply reply{};
  int rc = receive(&reply, sizeof reply);
  if (rc != 0) return rc;
  if (reply.magic != ZORV_CTL_MAGIC || reply.version != ZORV_CTL_VERSION ||
      reply.text_bytes > ZORV_CTL_MAX_TEXT || reply.record_bytes > x->record_room) {
    return -EPROTO;
  }
  rc = receive(x->record_out, reply.record_bytes);
  if (rc != 0) return rc;
  char* to = nullptr;
  if (x->answer != nullptr) {
    if (reply.buffer_bytes > max_answer_bytes) return -EPROTO;
    x->answer->resize(reply.buffer_bytes);
    to = x->answer->data();
  } else if (reply.buffer_bytes > 0) {
    if (reply.buffer_offset > x->buffer_room ||
        reply.buffer_bytes > x->buffer_room - reply.buffer_offset) {
      return -EPROTO;
    }
    to = x->buffer_out + reply.buffer_offset;
  }
  rc = receive(to, reply.buffer_bytes);
  if (rc != 0) return rc;
  x->text.resize(reply.text_bytes);
  rc = receive(x->text.data(), reply.text_bytes);
  if (rc != 0) return rc;
  x->handout = reply.handout;
  return reply.result;
}

}  // namespace zorv
