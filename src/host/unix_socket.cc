// SPDX-License-Identifier: GPL-2.0-only
#include "host/unix_socket.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/sockios.h>
#include <linux/unix_diag.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zorv {
namespace {

int set_address(const std::string& path, sockaddr_un* addr, std::string* error) {
  *addr = {};
  addr->sun_family = AF_UNIX;
  if (path.size() >= sizeof addr->sun_path) {
    *error = path + " is too long for a socket: at most " +
             std::to_string(sizeof addr->sun_path - 1) + " bytes";
    return -ENAMETOOLONG;
  }
  std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  return 0;
}

// Whether a process answers at the address.
bool is_served(const sockaddr_un& addr) {
  const unique_fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe) return true;
  return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ||
         errno != ECONNREFUSED;
}

// Removes a socket that nobody serves.
int remove_stale(const std::string& path, std::string* error) {
  sockaddr_un addr;
  const int rc = set_address(path, &addr, error);
  if (rc != 0) return rc;
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT ? 0 : -errno;
  if (!S_ISSOCK(st.st_mode)) {
    *error = path + " is in the way: it is no socket";
    return -EEXIST;
  }
  if (is_served(addr)) {
    *error = path + " is served by another process";
    return -EADDRINUSE;
  }
  return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : -errno;
}

}  // namespace

socket_peer peer_of(int fd) {
  socket_peer peer;
  ucred who{};
  socklen_t bytes = sizeof who;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &bytes) == 0) peer.pid = who.pid;
  struct stat st;
  const unique_fd diag(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (!diag || ::fstat(fd, &st) != 0) return peer;
  struct {
    nlmsghdr header;
    unix_diag_req body;
  } ask{};
  ask.header.nlmsg_len = sizeof ask;
  ask.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  ask.header.nlmsg_flags = NLM_F_REQUEST;
  ask.body.sdiag_family = AF_UNIX;
  ask.body.udiag_states = ~0U;
  ask.body.udiag_ino = static_cast<std::uint32_t>(st.st_ino);
  ask.body.udiag_show = UDIAG_SHOW_PEER;
  ask.body.udiag_cookie[0] = ask.body.udiag_cookie[1] = ~0U;
  alignas(nlmsghdr) char answer[1024];
  if (::send(diag.get(), &ask, sizeof ask, 0) != static_cast<ssize_t>(sizeof ask)) return peer;
  const ssize_t got = ::recv(diag.get(), answer, sizeof answer, 0);
  const auto* header = reinterpret_cast<const nlmsghdr*>(answer);
  if (got < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(unix_diag_msg))) ||
      header->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
    return peer;
  }
  const char* end = answer + got;
  for (const char* at = answer + NLMSG_LENGTH(sizeof(unix_diag_msg));
       end - at >= static_cast<ssize_t>(sizeof(rtattr));) {
    rtattr attribute{};
    std::memcpy(&attribute, at, sizeof attribute);
    std::uint32_t inode = 0;
    if (attribute.rta_len < sizeof attribute) break;
    if (attribute.rta_type == UNIX_DIAG_PEER &&
        attribute.rta_len >= sizeof attribute + sizeof inode) {
      std::memcpy(&inode, at + sizeof attribute, sizeof inode);
      peer.inode = inode;
    }
    at += RTA_ALIGN(attribute.rta_len);
  }
  return peer;
}

void unique_fd::reset() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

// Binds and listens under the name.
int unix_listener::bind(const std::string& name) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, name.c_str(), name.size() + 1);
  fd_ = unique_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // The mode of the descriptor is the mode that bind gives the name, less the umask.
  if (!fd_ || ::fchmod(fd_.get(), 0600) != 0 ||
      ::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    return -errno;
  }
  struct stat st {};
  if (::chmod(name.c_str(), 0600) != 0 || ::listen(fd_.get(), SOMAXCONN) != 0 ||
      ::lstat(name.c_str(), &st) != 0) {
    const int rc = -errno;
    ::unlink(name.c_str());
    return rc;
  }
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  return 0;
}

// The socket is bound beside its name and linked there, which replaces nothing.
int unix_listener::open(const std::string& path, std::string* error) {
  close();
  error->clear();
  const std::string beside = path + ".new";
  int rc = remove_stale(beside, error);
  if (rc == 0) rc = remove_stale(path, error);
  if (rc == 0) {
    rc = bind(beside);
  }
  if (rc == 0) {
    if (::link(beside.c_str(), path.c_str()) != 0) rc = -errno;
    ::unlink(beside.c_str());
  }
  if (rc != 0) {
    close();
    if (error->empty()) *error = "cannot listen on " + path + ": " + std::strerror(-rc);
    return rc;
  }
  path_ = path;
  return 0;
}

void unix_listener::close() {
  struct stat st {};
  if (!path_.empty() && ::lstat(path_.c_str(), &st) == 0 && st.st_dev == dev_ &&
      st.st_ino == ino_) {
    ::unlink(path_.c_str());
  }
  path_.clear();
  fd_.reset();
  dev_ = 0;
  ino_ = 0;
}

int stop_signal::open(std::chrono::milliseconds grace) {
  grace_ = grace;
  event_ = unique_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  return event_ ? 0 : -errno;
}

void stop_signal::raise() {
  if (raised()) return;
  raised_at_ = std::chrono::steady_clock::now();
  const std::uint64_t one = 1;
  while (::write(event_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

time_point stop_signal::grace_end() const {
  const time_point at = raised_at_;
  return at == no_deadline ? at : at + grace_;
}

io stream::wait(short events, on_stop then, time_point deadline) {
  for (;;) {
    const bool stopping = stop_->raised();
    if (stopping && then == on_stop::end) return io::stopped;
    const time_point limit = std::min(deadline, stop_->grace_end());
    int timeout_ms = -1;
    if (limit != no_deadline) {
      const auto left = limit - std::chrono::steady_clock::now();
      const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
      if (ms <= 0) return io::timed_out;
      timeout_ms = static_cast<int>(std::min<long long>(ms, 1 << 30));
    }
    pollfd fds[2] = {{fd_.get(), events, 0}, {stop_->fd(), POLLIN, 0}};
    const int n = ::poll(fds, stopping ? 1 : 2, timeout_ms);
    if (n < 0 && errno != EINTR) return io::reset;
    if (n > 0 && fds[0].revents != 0) return io::done;
  }
}

io stream::wait_readable(time_point deadline) { return wait(POLLIN, on_stop::end, deadline); }

io stream::receive(void* to, std::size_t bytes, time_point deadline) {
  auto* at = static_cast<char*>(to);
  while (bytes > 0) {
    const ssize_t n = ::recv(fd_.get(), at, bytes, 0);
    if (n == 0) return reset_ ? io::reset : io::end;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      const io ready = wait(POLLIN, on_stop::end, deadline);
      if (ready != io::done) return ready;
      continue;
    }
    if (n < 0 || reset_) return io::reset;
    at += n;
    bytes -= static_cast<std::size_t>(n);
  }
  return io::done;
}

io stream::send(iovec* parts, int count, time_point deadline) {
  while (count > 0) {
    if (parts->iov_len == 0) {
      ++parts;
      --count;
      continue;
    }
    msghdr msg{};
    msg.msg_iov = parts;
    msg.msg_iovlen = static_cast<std::size_t>(count);
    const ssize_t n = ::sendmsg(fd_.get(), &msg, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      const io ready = wait(POLLOUT, on_stop::limit, deadline);
      if (ready != io::done) return ready;
      continue;
    }
    if (n < 0) return io::reset;
    auto sent = static_cast<std::size_t>(n);
    while (count > 0 && sent >= parts->iov_len) {
      sent -= parts->iov_len;
      ++parts;
      --count;
    }
    if (count > 0) {
      parts->iov_base = static_cast<char*>(parts->iov_base) + sent;
      parts->iov_len -= sent;
    }
  }
  return io::done;
}

// The host marks a connection as reset before it drops what its peer has left unread, so nothing
// unread and no mark means that everything was read.
delivery stream::delivered() {
  int unread = 0;
  if (::ioctl(fd_.get(), SIOCOUTQ, &unread) != 0) return delivery::lost;
  int error = 0;
  socklen_t length = sizeof error;
  if (::getsockopt(fd_.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
    reset_ = true;  // asking has taken the mark away
  }
  if (reset_) return delivery::lost;
  return unread == 0 ? delivery::read : delivery::pending;
}

bool stream::abandoned() const {
  pollfd p{fd_.get(), 0, 0};
  return ::poll(&p, 1, 0) == 1 && (p.revents & (POLLHUP | POLLERR)) != 0;
}

}  // namespace zorv
