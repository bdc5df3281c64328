// SPDX-License-Identifier: GPL-2.0-only
#include "host/fs_stack.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <utility>

#include "driver/util/file.h"
#include "host/unix_socket.h"
#include "kernel/fs.h"

namespace zorv {
namespace {

using kernel::devt;
using kernel::u32;
using kernel::u64;
namespace fs = std::filesystem;

constexpr int max_levels = 16;  // of file systems on devices on file systems

std::vector<std::string> names_in(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator at(dir, error), end; !error && at != end; at.increment(error)) {
    names.push_back(at->path().filename().string());
  }
  return names;
}

bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

std::string first_line(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

std::string link_of(const std::string& path) {
  char to[4096];
  const ssize_t n = ::readlink(path.c_str(), to, sizeof to);
  return n < 0 ? std::string() : std::string(to, static_cast<std::size_t>(n));
}

// "major:minor"
bool read_number(const std::string& path, std::pair<u32, u32>* number) {
  std::ifstream in(path);
  char colon = 0;
  return static_cast<bool>(in >> number->first >> colon >> number->second);
}

// What a process holds that matters here.
struct process {
  int pid = 0;
  std::set<u64> sockets;
  std::set<std::string> fuse;  // connections it serves; "" where the kernel does not say which

  [[nodiscard]] bool holds(const nbd_client_process& c) const {
    return pid == c.pid || (c.peer_inode != 0 && sockets.count(c.peer_inode) != 0);
  }
};

process look_at(const std::string& proc, int pid) {
  process p;
  p.pid = pid;
  const std::string dir = proc + '/' + std::to_string(pid);
  for (const std::string& fd : names_in(dir + "/fd")) {
    const std::string to = link_of(dir + "/fd/" + fd);
    constexpr std::string_view socket = "socket:[";
    if (to.starts_with(socket)) {
      p.sockets.insert(std::strtoull(to.c_str() + socket.size(), nullptr, 10));
    } else if (to == "/dev/fuse") {
      std::ifstream info(dir + "/fdinfo/" + fd);
      std::string key, connection;
      while (info >> key && key != "fuse_connection:") {
      }
      info >> connection;
      p.fuse.insert(connection);
    }
  }
  return p;
}

// One question about one device: what has been looked at, and who our clients are.
class walk {
 public:
  explicit walk(const stack_view& view) : view_(view), clients_(view.clients()) {}

  devt below(u32 major, u32 minor) {
    if (clients_.empty() || !seen_.insert({major, minor}).second) return 0;
    if (major == 0) return below_fuse(std::to_string(minor));
    const std::string dir =
        view_.sys + "/dev/block/" + std::to_string(major) + ':' + std::to_string(minor);
    if (!exists(dir)) return 0;
    if (exists(dir + "/partition")) return below_device(dir + "/..");
    if (exists(dir + "/loop")) return below_loop(dir);
    std::error_code ignored;
    const std::string name = fs::canonical(dir, ignored).filename().string();
    if (name.starts_with("nbd")) return below_nbd(first_line(dir + "/pid"));
    for (const std::string& slave : names_in(dir + "/slaves")) {
      if (const devt node = below_device(dir + "/slaves/" + slave); node != 0) return node;
    }
    return below_siblings(name);
  }

 private:
  devt below_device(const std::string& dir) {
    std::pair<u32, u32> number;
    return read_number(dir + "/dev", &number) ? below(number.first, number.second) : 0;
  }

  // The backing file says where it lives, under whatever name it is known; the name, where the
  // device cannot be asked.
  devt below_loop(const std::string& dir) {
    std::error_code ignored;
    const std::string device = view_.dev + '/' + fs::canonical(dir, ignored).filename().string();
    const unique_fd fd(::open(device.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    loop_info64 info{};
    if (fd && ::ioctl(fd.get(), LOOP_GET_STATUS64, &info) == 0) {
      const dev_t at = static_cast<dev_t>(info.lo_device);
      if (const devt node = below(major(at), minor(at)); node != 0) return node;
    }
    const devt at = zorv_get_file_devt(first_line(dir + "/loop/backing_file").c_str());
    for (const nbd_client_process& c : clients_) {
      if (at == c.node) return at;  // the look-up came here for what lies below
    }
    return at == 0 ? 0 : below(kernel::major_of(at), kernel::minor_of(at));
  }

  // A process that serves the file system and is our client.
  devt below_fuse(const std::string& connection) {
    for (const process& p : processes()) {
      if (p.fuse.count(connection) == 0 && p.fuse.count("") == 0) continue;
      for (const nbd_client_process& c : clients_) {
        if (p.holds(c)) return c.node;
      }
    }
    return 0;
  }

  // The process that has set the device up holds the connection, or has handed it to the kernel
  // and gone: then it is in nobody's hands.
  devt below_nbd(const std::string& pid) {
    if (pid.empty()) return 0;
    const process owner = look_at(view_.proc, std::atoi(pid.c_str()));
    for (const nbd_client_process& c : clients_) {
      if (owner.holds(c)) return c.node;
    }
    for (const nbd_client_process& c : clients_) {
      const auto& all = processes();
      if (std::none_of(all.begin(), all.end(), [&c](const process& p) { return p.holds(c); })) {
        return c.node;
      }
    }
    return 0;
  }

  // The other devices of a file system that spans several.
  devt below_siblings(const std::string& name) {
    const std::string pools = view_.sys + "/fs/btrfs/";
    for (const std::string& pool : names_in(pools)) {
      const std::string devices = pools + pool + "/devices/";
      if (!exists(devices + name)) continue;
      for (const std::string& device : names_in(devices)) {
        if (const devt node = below_device(devices + device); node != 0) return node;
      }
    }
    return 0;
  }

  const std::vector<process>& processes() {
    if (!processes_.empty()) return processes_;
    for (const std::string& name : names_in(view_.proc)) {
      const int pid = std::atoi(name.c_str());
      if (pid > 0) processes_.push_back(look_at(view_.proc, pid));
    }
    return processes_;
  }

  const stack_view& view_;
  const std::vector<nbd_client_process> clients_;
  std::set<std::pair<u32, u32>> seen_;
  std::vector<process> processes_;
};

std::mutex watching;
stack_view watched;  // under watching; without clients: nobody watches

devt resolve(u32 major, u32 minor) {
  // A look-up of a loop device's file comes back here.
  thread_local int level = 0;
  stack_view view;
  {
    const std::lock_guard guard(watching);
    view = watched;
  }
  if (!view.clients || level >= max_levels) return 0;
  ++level;
  const devt node = own_node_below(view, major, minor);
  --level;
  return node;
}

}  // namespace

devt own_node_below(const stack_view& view, u32 major, u32 minor) {
  return walk(view).below(major, minor);
}

void watch_fs_stack(std::function<std::vector<nbd_client_process>()> clients) {
  const bool on = clients != nullptr;
  {
    const std::lock_guard guard(watching);
    watched.clients = std::move(clients);
  }
  kernel::set_fs_device_resolver(on ? resolve : nullptr);
}

}  // namespace zorv
