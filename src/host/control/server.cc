// SPDX-License-Identifier: GPL-2.0-only
#include "host/control/server.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <new>
#include <system_error>
#include <thread>

#include "host/control/session.h"
#include "host/log.h"

namespace zorv {

namespace {
constexpr unsigned max_commands_per_node = 24;
}

// One accepting thread and one thread per client. The accepting thread alone touches `clients`,
// until stop() has joined it.
struct control_server::impl {
  struct client {
    std::thread thread;
    std::atomic<bool> ended{false};
  };

  control_options options;
  unix_listener listener;
  stop_signal stop;
  memory_budget memory;
  command_slots slots{max_commands_per_node};
  std::thread acceptor;
  std::list<client> clients;

  void accept_loop();
  void serve(unique_fd fd);
  void reap();
};

control_server::control_server() : impl_(std::make_unique<impl>()) {}
control_server::~control_server() { stop(); }

int control_server::start(const control_options& options, std::string* error) {
  impl_->options = options;
  impl_->memory.limit_bytes = options.max_buffer_bytes;
  int rc = impl_->stop.open(std::chrono::milliseconds(options.stop_grace_ms));
  if (rc != 0) {
    *error = std::string("no event descriptor: ") + std::strerror(-rc);
    return rc;
  }
  rc = impl_->listener.open(options.socket_path, error);
  if (rc != 0) return rc;
  try {
    impl_->acceptor = std::thread([this] { impl_->accept_loop(); });
  } catch (const std::system_error& e) {
    impl_->listener.close();
    *error = std::string("no thread for the control socket: ") + e.what();
    return -EAGAIN;
  }
  return 0;
}

void control_server::announce_stop() {
  if (impl_->acceptor.joinable()) impl_->stop.raise();
}

void control_server::stop() {
  if (!impl_->acceptor.joinable()) return;
  impl_->stop.raise();
  impl_->acceptor.join();
  impl_->listener.close();
  for (impl::client& c : impl_->clients) c.thread.join();
  impl_->clients.clear();
}

void control_server::impl::accept_loop() {
  pollfd fds[2] = {{listener.fd(), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
  for (;;) {
    const int n = ::poll(fds, 2, -1);
    if (n < 0 && errno != EINTR) {
      host_log(log_level::error,
               std::string("the control socket is lost: ") + std::strerror(errno));
      return;
    }
    if (n <= 0) continue;
    if (fds[1].revents != 0) return;
    unique_fd fd(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    reap();
    if (fd) {
      try {
        serve(std::move(fd));
      } catch (const std::bad_alloc&) {
        host_log(log_level::error, "no memory for a control connection");
      }
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
      // The connection stays pending; ask again when something may have been freed.
      ::poll(fds + 1, 1, 100);
    }
  }
}

void control_server::impl::serve(unique_fd fd) {
  if (clients.size() >= options.max_connections) {
    control_session(std::move(fd), &stop, options, &memory, &slots)
        .refuse(-EBUSY, "too many connections to the control socket");
    return;
  }
  auto session = std::make_unique<control_session>(std::move(fd), &stop, options, &memory, &slots);
  client& c = clients.emplace_back();
  try {
    c.thread = std::thread([&c, s = std::move(session)]() mutable {
      try {
        s->run();
      } catch (const std::exception& e) {
        host_log(log_level::error, std::string("a control connection ends: ") + e.what());
      }
      s.reset();
      c.ended = true;
    });
  } catch (const std::exception& e) {
    clients.pop_back();  // the session went with the failed thread, and closed
    host_log(log_level::error, std::string("no thread for a control connection: ") + e.what());
  }
}

void control_server::impl::reap() {
  for (auto it = clients.begin(); it != clients.end();) {
    if (it->ended) {
      it->thread.join();
      it = clients.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace zorv
