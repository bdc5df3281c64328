// SPDX-License-Identifier: GPL-2.0-only
#include "host/nbd/server.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <list>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "host/nbd/negotiate.h"
#include "host/nbd/transmission.h"
#include "host/unix_socket.h"
#include "kernel/printk.h"
#include "kernel/task.h"

namespace zorv {

namespace {

// A backup that reads a snapshot gives way to the clients that write to the disk.
constexpr int nice_of_readers = 10;

constexpr int send_buffer_bytes = 1 << 20;
// How often is looked whether clients that are told of the end read their last replies.
constexpr auto look_interval = std::chrono::milliseconds(50);

struct connection {
  int fd = -1;  // -1 once closed; under the server's lock
  std::thread thread;
  bool finished = false;
  nbd_client_process peer;  // node 0 before the end of negotiation; under the server's lock
  // While the server stops, under its lock: what the client has not read, and since when that is.
  int unread = 0;
  std::chrono::steady_clock::time_point unread_since;
};

int fail(std::string* error, int code, std::string text) {
  if (error != nullptr) *error = std::move(text);
  return code;
}

}  // namespace

struct nbd_server::impl {
  nbd_options options;
  node_exports nodes;
  nbd_export_source* exports = nullptr;
  unix_listener listener;
  int stop_fd = -1;
  std::thread acceptor;
  std::atomic<bool> stopping{false};
  std::mutex lock;
  std::condition_variable closed;
  std::list<connection> connections;  // under lock
  bool told_full = false;             // the acceptor's, as is the next
  bool told_short = false;

  void accept_loop() noexcept;
  void take(int fd);
  void serve(connection* c) noexcept;
  void converse(connection* c);
  std::list<connection> finished_locked();
  void cut_off_deaf_locked();
};

void nbd_server::impl::accept_loop() noexcept {
  kernel::daemonize("zorv-nbd-accept");
  pollfd p[2] = {{listener.fd(), POLLIN, 0}, {stop_fd, POLLIN, 0}};
  while (!stopping.load()) {
    ::poll(p, 2, -1);
    if ((p[1].revents & POLLIN) != 0) return;
    const int fd = ::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
      told_short = false;
      take(fd);
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
      if (!std::exchange(told_short, true)) {
        kernel::printk("<3>ERROR: zorvd: NBD connections have to wait: %s.\n",
                       std::strerror(errno));
      }
      ::poll(&p[1], 1, 100);  // until somebody has closed something
    }
  }
}

std::list<connection> nbd_server::impl::finished_locked() {
  std::list<connection> gone;
  for (auto c = connections.begin(); c != connections.end();) {
    const auto at = c++;
    if (at->finished) gone.splice(gone.end(), connections, at);
  }
  return gone;
}

// A client that reads is let wait for its disk; one that leaves its replies unread is cut off.
void nbd_server::impl::cut_off_deaf_locked() {
  const auto now = std::chrono::steady_clock::now();
  const auto limit = std::chrono::milliseconds(options.reply_limit_ms);
  for (connection& c : connections) {
    int unread = 0;
    if (c.fd < 0 || ::ioctl(c.fd, SIOCOUTQ, &unread) != 0) continue;
    if (unread == 0 || unread != c.unread) {
      c.unread = unread;
      c.unread_since = now;
    } else if (now - c.unread_since >= limit) {
      ::shutdown(c.fd, SHUT_RDWR);
    }
  }
}

void nbd_server::impl::take(int fd) {
  std::unique_lock guard(lock);
  for (connection& c : finished_locked()) c.thread.join();
  if (connections.size() >= options.max_connections) {
    if (!told_full) {
      kernel::printk("<3>ERROR: zorvd: NBD connections are refused: there are %u already.\n",
                     options.max_connections);
    }
    told_full = true;
    ::close(fd);
    return;
  }
  told_full = false;
  // As much as the host lets anybody have: a large read then is sent with fewer stops.
  ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
  try {
    connection& c = connections.emplace_back();
    c.fd = fd;
    c.thread = std::thread([this, &c] { serve(&c); });
  } catch (const std::exception& e) {
    kernel::printk("<3>ERROR: zorvd: an NBD connection gets no thread: %s.\n", e.what());
    if (!connections.empty() && connections.back().fd == fd) connections.pop_back();
    ::close(fd);
  }
}

void nbd_server::impl::converse(connection* c) {
  const int fd = c->fd;
  nbd::session s;
  const nbd::negotiation n{fd, exports, options.handshake_limit_ms, &stopping};
  if (!nbd::negotiate(n, &s)) return;
  const socket_peer peer = peer_of(fd);
  {
    const std::lock_guard guard(lock);
    c->peer = {s.target.dev, peer.pid, peer.inode};
  }
  if (s.target.read_only) kernel::set_user_nice(nice_of_readers);
  const auto t = std::make_unique<nbd::transmission>(fd, s, options.max_inflight_bytes, &stopping);
  if (!t->init()) throw std::runtime_error("it gets no memory or no descriptor");
  t->run();
}

void nbd_server::impl::serve(connection* c) noexcept {
  kernel::daemonize("zorv-nbd");
  try {
    converse(c);
  } catch (const std::exception& e) {
    kernel::printk("<3>ERROR: zorvd: an NBD connection ended: %s.\n", e.what());
  }
  const std::lock_guard guard(lock);
  ::close(c->fd);
  c->fd = -1;
  c->finished = true;
  closed.notify_all();
}

nbd_server::nbd_server() : impl_(std::make_unique<impl>()) {}

nbd_server::~nbd_server() { stop(); }

int nbd_server::start(const nbd_options& options, std::string* error) {
  impl* i = impl_.get();
  i->options = options;
  i->exports = options.exports != nullptr ? options.exports : &i->nodes;
  i->stopping.store(false);
  i->stop_fd = ::eventfd(0, EFD_CLOEXEC);
  if (i->stop_fd < 0) return fail(error, -errno, "The NBD server cannot be started.");
  if (const int rc = i->listener.open(options.socket_path, error); rc != 0) {
    stop();
    return rc;
  }
  try {
    i->acceptor = std::thread([i] { i->accept_loop(); });
  } catch (const std::system_error& e) {
    stop();
    return fail(error, -e.code().value(), "No thread for the NBD server.");
  }
  return 0;
}

std::vector<nbd_client_process> nbd_server::clients() {
  std::vector<nbd_client_process> all;
  const std::lock_guard guard(impl_->lock);
  for (const connection& c : impl_->connections) {
    if (!c.finished && c.peer.node != 0) all.push_back(c.peer);
  }
  return all;
}

void nbd_server::settle(const std::function<bool(kernel::devt node)>& concerns) {
  constexpr auto limit = std::chrono::seconds(2);
  impl* i = impl_.get();
  std::unique_lock guard(i->lock);
  const auto none_leaving = [&] {
    for (const connection& c : i->connections) {
      pollfd p{c.fd, POLLRDHUP, 0};
      const bool leaving = c.fd >= 0 && ::poll(&p, 1, 0) == 1;
      if (leaving && (c.peer.node == 0 || concerns(c.peer.node))) return false;
    }
    return true;
  };
  i->closed.wait_for(guard, limit, none_leaving);
}

void nbd_server::stop() {
  impl* i = impl_.get();
  i->stopping.store(true);
  const kernel::u64 one = 1;
  if (i->stop_fd >= 0) (void)!::write(i->stop_fd, &one, sizeof one);
  if (i->acceptor.joinable()) i->acceptor.join();
  i->listener.close();
  std::list<connection> gone;
  {
    std::unique_lock guard(i->lock);
    const auto all_closed = [i] {
      for (const connection& c : i->connections) {
        if (!c.finished) return false;
      }
      return true;
    };
    // Nothing new is received, replies still go out.
    for (const connection& c : i->connections) {
      if (c.fd >= 0) ::shutdown(c.fd, SHUT_RD);
    }
    while (!i->closed.wait_for(guard, look_interval, all_closed)) i->cut_off_deaf_locked();
    gone = i->finished_locked();
  }
  for (connection& c : gone) c.thread.join();
  if (i->stop_fd >= 0) ::close(i->stop_fd);
  i->stop_fd = -1;
}

}  // namespace zorv
