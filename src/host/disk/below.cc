// SPDX-License-Identifier: GPL-2.0-only
#include "host/disk/below.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace zorv {

namespace fs = std::filesystem;
using kernel::devt;

namespace {

devt number_in(const fs::path& folder) {
  std::ifstream in(folder / "dev");
  unsigned major = 0, minor = 0;
  char colon = 0;
  return in >> major >> colon >> minor ? kernel::mkdev(major, minor) : 0;
}

class walk {
 public:
  void below(devt dev) {
    std::error_code error;
    const fs::path folder =
        fs::canonical("/sys/dev/block/" + std::to_string(kernel::major_of(dev)) + ":" +
                          std::to_string(kernel::minor_of(dev)),
                      error);
    if (error) return;
    if (fs::exists(folder / "partition", error)) return stands_on(number_in(folder / ".."), slices);
    if (fs::exists(folder / "loop", error)) return below_loop("/dev/" + folder.filename().string());
    for (fs::directory_iterator at(folder / "slaves", error), end; !error && at != end;
         at.increment(error)) {
      stands_on(number_in(at->path()), slices);
    }
  }
  std::vector<layer> found;

 private:
  static constexpr const char* slices = "slices";

  void stands_on(devt dev, const std::string& user) {
    const kernel::file_id id = device_as_file(dev);
    const bool seen = std::any_of(found.begin(), found.end(),
                                  [&](const layer& l) { return l.id == id && l.user == user; });
    if (dev == 0 || seen) return;
    found.push_back({id, user});
    below(dev);
  }

  void below_loop(const std::string& device) {
    loop_backing behind;
    if (!ask_loop(device, &behind)) return;
    if (behind.device != 0) return stands_on(behind.device, device);
    found.push_back({behind.file, device});
  }
};

}  // namespace

bool ask_loop(const std::string& device, loop_backing* out) {
  loop_info64 info = {};
  const int fd = ::open(device.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  const bool told = fd >= 0 && ::ioctl(fd, LOOP_GET_STATUS64, &info) == 0;
  if (fd >= 0) ::close(fd);
  if (!told) return false;
  *out = {};
  if (info.lo_rdevice != 0) {
    out->device = kernel::mkdev(major(info.lo_rdevice), minor(info.lo_rdevice));
  } else {
    out->file = {info.lo_device, info.lo_inode, 0};
  }
  return true;
}

std::vector<layer> layers_below(devt dev) {
  walk w;
  w.below(dev);
  return std::move(w.found);
}

}  // namespace zorv
