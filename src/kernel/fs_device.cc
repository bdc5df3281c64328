// SPDX-License-Identifier: GPL-2.0-only
// Which block device a path lives on.
//
// Most file systems say it themselves: st_dev is the device's number. Those that span devices or
// other file systems show a made-up number with major 0; for them the mount table has the source.
// File systems of memory, of the network and of other programs sit on no block device: 0.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <charconv>
#include <fstream>
#include <sstream>

#include "kernel/fs_internal.h"

namespace kernel {
namespace {

constexpr int max_stacking = 4;  // overlays on overlays

std::atomic<fs_device_resolver> device_resolver{nullptr};

devt device_below(const char* path, bool follow, int depth);

struct mount_entry {
  u64 id = 0;
  std::string device;  // "major:minor"
  std::string type;
  std::string source;
  std::string options;  // of the file system
};

// Blanks, tabs, newlines and backslashes are written as three octal digits.
std::string unescape(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); i++) {
    unsigned value = 0;
    if (text[i] == '\\' && i + 3 < text.size() &&
        std::from_chars(text.data() + i + 1, text.data() + i + 4, value, 8).ptr ==
            text.data() + i + 4) {
      out += static_cast<char>(value);
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

// "id parent major:minor root point options [tag...] - type source options"
bool parse_mount_line(const std::string& line, mount_entry* m) {
  std::istringstream in(line);
  std::string parent, field;
  if (!(in >> m->id >> parent >> m->device)) return false;
  while (in >> field && field != "-") {
  }
  std::string source, options;
  if (!(in >> m->type >> source >> options)) return false;
  m->source = unescape(source);
  m->options = unescape(options);
  return true;
}

bool find_mount(const struct statx& at, mount_entry* found) {
  std::ifstream table("/proc/self/mountinfo");
  const std::string device =
      std::to_string(at.stx_dev_major) + ':' + std::to_string(at.stx_dev_minor);
  const bool by_id = (at.stx_mask & STATX_MNT_ID) != 0;
  for (std::string line; std::getline(table, line);) {
    mount_entry m;
    if (!parse_mount_line(line, &m)) continue;
    if (by_id ? m.id == at.stx_mnt_id : m.device == device) {
      *found = m;
      return true;
    }
  }
  return false;
}

// The number of a mount's source device. Its node may be missing from this mount namespace;
// the kernel's own list then still has the number.
devt device_of_source(const std::string& source) {
  struct stat st;
  if (::stat(source.c_str(), &st) == 0) {
    return S_ISBLK(st.st_mode) ? mkdev(major(st.st_rdev), minor(st.st_rdev)) : 0;
  }
  std::ifstream number("/sys/class/block/" + source.substr(source.rfind('/') + 1) + "/dev");
  u32 major_number = 0, minor_number = 0;
  char colon = 0;
  if (!(number >> major_number >> colon >> minor_number)) return 0;
  return mkdev(major_number, minor_number);
}

// The directory that an overlay writes to, or the uppermost one that it reads from. A separator
// inside a name has a backslash before it.
std::string overlay_directory(const std::string& options) {
  const std::string all = ',' + options;
  for (const std::string_view key : {",upperdir=", ",lowerdir=", ",lowerdir+="}) {
    std::size_t at = all.find(key);
    if (at == std::string::npos) continue;
    const bool list = key[1] == 'l';
    std::string name;
    for (at += key.size(); at < all.size(); at++) {
      if (all[at] == ',' || (list && all[at] == ':')) break;
      if (all[at] == '\\' && at + 1 < all.size()) at++;
      name += all[at];
    }
    return name;
  }
  return {};
}

devt ask_resolver(u32 host_major, u32 host_minor) {
  const auto resolver = device_resolver.load(std::memory_order_acquire);
  return resolver == nullptr ? 0 : resolver(host_major, host_minor);
}

devt device_of_anonymous(const struct statx& at, int depth) {
  mount_entry m;
  if (!find_mount(at, &m)) return 0;
  if (m.type == "overlay") {
    const std::string dir = overlay_directory(m.options);
    return dir.empty() || depth >= max_stacking ? 0 : device_below(dir.c_str(), true, depth + 1);
  }
  if (m.type.starts_with("fuse") && m.type != "fuseblk") return ask_resolver(0, at.stx_dev_minor);
  return m.source.starts_with("/dev/") ? device_of_source(m.source) : 0;
}

devt device_of(const struct statx& at, int depth) {
  const devt dev = at.stx_dev_major != 0 ? mkdev(at.stx_dev_major, at.stx_dev_minor)
                                         : device_of_anonymous(at, depth);
  if (dev == 0) return 0;
  const devt better = ask_resolver(major_of(dev), minor_of(dev));
  return better != 0 ? better : dev;
}

devt device_below(const char* path, bool follow, int depth) {
  struct statx at;
  const int flags = follow ? 0 : AT_SYMLINK_NOFOLLOW;
  if (::statx(AT_FDCWD, path, flags, STATX_BASIC_STATS | STATX_MNT_ID, &at) != 0) return 0;
  return device_of(at, depth);
}

}  // namespace

devt fs_device_of(const char* path, bool follow) { return device_below(path, follow, 0); }

devt fs_device_of_open(int fd) {
  struct statx at;
  if (::statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_MNT_ID, &at) != 0) return 0;
  return device_of(at, 0);
}

void set_fs_device_resolver(fs_device_resolver fn) {
  device_resolver.store(fn, std::memory_order_release);
}

}  // namespace kernel
