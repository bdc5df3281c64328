// SPDX-License-Identifier: GPL-2.0-only
#include "host/disk/in_use.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "host/disk/below.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

std::string first_line(const fs::path& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

loop_backing as_backing(int fd) {
  struct stat st = {};
  if (::fstat(fd, &st) != 0) return {};
  if (S_ISBLK(st.st_mode)) return {{}, kernel::mkdev(major(st.st_rdev), minor(st.st_rdev))};
  return {{st.st_dev, st.st_ino, 0}, 0};
}

// By the file, or by its name where the device cannot be asked.
std::string writing_loop(int fd, const std::string& path) {
  const loop_backing file = as_backing(fd);
  std::error_code error;
  for (fs::directory_iterator at("/sys/block", error), end; !error && at != end;
       at.increment(error)) {
    const std::string name = first_line(at->path() / "loop/backing_file");
    if (name.empty() || first_line(at->path() / "ro") == "1") continue;
    const std::string device = "/dev/" + at->path().filename().string();
    loop_backing behind;
    if (ask_loop(device, &behind) ? behind == file : name == path) return device;
  }
  return "";
}

bool may_write(const fs::path& fdinfo) {
  std::ifstream in(fdinfo);
  for (std::string key, value; in >> key >> value;) {
    if (key == "flags:") return (std::strtoul(value.c_str(), nullptr, 8) & O_ACCMODE) != O_RDONLY;
  }
  return false;
}

bool writes(const fs::path& process, const std::string& path) {
  std::error_code error, ignored;
  for (fs::directory_iterator at(process / "fd", error), end; !error && at != end;
       at.increment(error)) {
    if (fs::read_symlink(at->path(), ignored) == path &&
        may_write(process / "fdinfo" / at->path().filename())) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::string writer_elsewhere(int fd, const std::string& path) {
  if (std::string loop = writing_loop(fd, path); !loop.empty()) return loop;
  const std::string self = std::to_string(::getpid());
  std::error_code error;
  for (fs::directory_iterator at("/proc", error), end; !error && at != end; at.increment(error)) {
    const std::string pid = at->path().filename();
    if (pid.find_first_not_of("0123456789") != std::string::npos || pid == self) continue;
    if (writes(at->path(), path)) {
      return "process " + pid + " (" + first_line(at->path() / "comm") + ")";
    }
  }
  return "";
}

}  // namespace zorv
