// SPDX-License-Identifier: GPL-2.0-only
#include "host/disk/identity.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "host/disk/below.h"

namespace zorv {

namespace {

using kernel::u32;

// FS_IOC_GETFSUUID, younger than the headers of some hosts.
struct fs_uuid {
  unsigned char bytes;
  unsigned char uuid[16];
};
constexpr unsigned long get_fs_uuid = _IOR(0x15, 0, fs_uuid);

// What an attribute file holds, with every run of blanks and unprintable bytes as one blank.
std::string read_words(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::string out;
  bool blank = false;
  for (char c; in.get(c);) {
    if (std::isgraph(static_cast<unsigned char>(c)) == 0) {
      blank = !out.empty();
      continue;
    }
    if (blank) out += ' ';
    blank = false;
    out += c;
  }
  return out;
}

// The number that a virtual machine monitor gives whoever was given none: it counts places.
bool counts_places(const std::string& word) {
  const auto at = word.rfind("QM0");
  return at != std::string::npos && word.find_first_not_of("0123456789", at + 2) == word.npos;
}

// Whether somebody took the trouble to make it differ.
bool names_something(const std::string& word) {
  return word.find_first_not_of("0- .") != std::string::npos && word != "none" &&
         !counts_places(word);
}

std::string udev_value(const host_trees& trees, u32 major, u32 minor, const char* key) {
  std::ifstream in(trees.udev + "/b" + std::to_string(major) + ":" + std::to_string(minor));
  const std::string start = std::string("E:") + key + "=";
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(start, 0) == 0) return line.substr(start.size());
  }
  return "";
}

std::string hex(const void* data, std::size_t bytes) {
  std::string out;
  char digits[3];
  for (std::size_t i = 0; i < bytes; ++i) {
    std::snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char*>(data)[i]);
    out += digits;
  }
  return out;
}

struct statx look(int at, const std::string& path, int flags) {
  struct statx st = {};
  if (::statx(at, path.c_str(), flags, STATX_INO | STATX_BTIME, &st) != 0) st.stx_mask = 0;
  return st;
}

std::string birth_of(const struct statx& st) {
  if ((st.stx_mask & STATX_BTIME) == 0 || (st.stx_btime.tv_sec == 0 && st.stx_btime.tv_nsec == 0)) {
    return "";
  }
  char text[48];
  std::snprintf(text, sizeof text, "%lld.%09u", static_cast<long long>(st.stx_btime.tv_sec),
                st.stx_btime.tv_nsec);
  return text;
}

// When the highest folder of the file system was made.
std::string birth_of_root(const std::string& path, const struct statx& file) {
  std::string born;
  for (std::filesystem::path at = path; at.has_relative_path();) {
    at = at.parent_path();
    const struct statx st = look(AT_FDCWD, at, AT_SYMLINK_NOFOLLOW);
    if (st.stx_dev_major != file.stx_dev_major || st.stx_dev_minor != file.stx_dev_minor) break;
    born = birth_of(st);
  }
  return born;
}

// The file system that the file lies on, or "".
std::string file_system_of(int fd, const std::string& path, const struct statx& file) {
  struct statfs fs = {};
  if (::fstatfs(fd, &fs) != 0) return "";
  // Here f_fsid is made of the UUID, and on btrfs of the subvolume as well, whose snapshots hold
  // files of the same inode and birth. Elsewhere it is a device number.
  const bool lasting = fs.f_type == EXT4_SUPER_MAGIC || fs.f_type == BTRFS_SUPER_MAGIC;
  static constexpr char nothing[sizeof fs.f_fsid] = {};
  if (lasting && std::memcmp(&fs.f_fsid, nothing, sizeof nothing) != 0) {
    return "fsid " + hex(&fs.f_fsid, sizeof fs.f_fsid);
  }
  fs_uuid uuid = {};
  if (::ioctl(fd, get_fs_uuid, &uuid) == 0 && uuid.bytes <= sizeof uuid.uuid) {
    const std::string text = hex(uuid.uuid, uuid.bytes);
    if (names_something(text)) return "uuid " + text;
  }
  const std::string known =
      udev_value(host_trees{}, file.stx_dev_major, file.stx_dev_minor, "ID_FS_UUID");
  if (names_something(known)) return "uuid " + known;
  const std::string root = birth_of_root(path, file);
  return root.empty() ? "" : "root " + root;
}

// A block device's folder in /sys, with its links resolved.
class sys_device {
 public:
  sys_device(const host_trees& trees, std::string folder)
      : trees_(trees), folder_(std::move(folder)) {
    unsigned major = 0, minor = 0;
    if (std::sscanf(attribute("dev").c_str(), "%u:%u", &major, &minor) != 2) return;
    major_ = major;
    minor_ = minor;
    there_ = true;
  }

  [[nodiscard]] std::string identity() const {
    if (!there_) return "";
    if (has("loop")) return loop();
    if (has("partition")) return partition();
    if (has("dm")) return prefixed("dm ", attribute("dm/uuid"));
    if (has("md")) {
      const std::string uuid = attribute("md/uuid");
      return prefixed("md ", names_something(uuid) ? uuid : udev("MD_UUID"));
    }
    return whole_disk();
  }

 private:
  [[nodiscard]] std::string attribute(const char* name) const {
    return read_words(folder_ + "/" + name);
  }
  [[nodiscard]] bool has(const char* name) const {
    std::error_code ignored;
    return std::filesystem::exists(folder_ + "/" + name, ignored);
  }
  [[nodiscard]] std::string udev(const char* key) const {
    return udev_value(trees_, major_, minor_, key);
  }
  static std::string prefixed(const char* kind, const std::string& word) {
    return names_something(word) ? kind + word : "";
  }

  [[nodiscard]] std::string whole_disk() const;
  [[nodiscard]] std::string partition() const;
  [[nodiscard]] std::string loop() const;

  const host_trees& trees_;
  std::string folder_;
  u32 major_ = 0, minor_ = 0;
  bool there_ = false;
};

std::string sys_device::whole_disk() const {
  // The medium's own, where it is a card.
  if (const std::string card = prefixed("card ", attribute("device/cid")); !card.empty()) {
    return card;
  }
  // A reader's serial number says nothing of what lies in it.
  if (attribute("removable") == "1") return "";
  for (const char* name : {"wwid", "device/wwid", "serial", "device/serial"}) {
    if (const std::string text = prefixed("disk ", attribute(name)); !text.empty()) return text;
  }
  for (const char* key : {"ID_WWN_WITH_EXTENSION", "ID_WWN", "ID_SERIAL"}) {
    if (const std::string text = prefixed("disk ", udev(key)); !text.empty()) return text;
  }
  return "";
}

std::string sys_device::partition() const {
  const std::string parent =
      sys_device(trees_, std::filesystem::path(folder_).parent_path()).identity();
  std::string uuid = udev("ID_PART_ENTRY_UUID");
  if (!names_something(uuid)) uuid.clear();
  if (uuid.empty() && parent.empty()) return "";
  std::string text = "partition";
  if (!uuid.empty()) text += " " + uuid;
  text += " from " + attribute("start");
  return parent.empty() ? text : text + " of " + parent;
}

// Whether that is the file that the loop device has open. The name is what it was for whoever set
// the device up, perhaps among other mounts.
bool loop_has(const std::string& device, const struct stat& file) {
  loop_backing behind;
  if (!ask_loop(device, &behind)) return false;
  if (behind.device == 0) return behind.file == kernel::file_id{file.st_dev, file.st_ino, 0};
  return S_ISBLK(file.st_mode) &&
         behind.device == kernel::mkdev(major(file.st_rdev), minor(file.st_rdev));
}

std::string sys_device::loop() const {
  std::ifstream in(folder_ + "/loop/backing_file");
  std::string path, file;
  std::getline(in, path);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
  if (fd < 0) return "";
  struct stat st;
  int rc = ::fstat(fd, &st) == 0 ? 0 : -errno;
  if (rc == 0 && trees_.sys == host_trees{}.sys &&
      !loop_has("/dev/" + std::filesystem::path(folder_).filename().string(), st)) {
    rc = -ENODATA;
  }
  if (rc == 0) {
    rc = S_ISBLK(st.st_mode)
             ? device_disk_identity(kernel::mkdev(major(st.st_rdev), minor(st.st_rdev)), trees_,
                                    &file)
             : file_disk_identity(fd, path, &file);
  }
  ::close(fd);
  if (rc != 0) return "";
  const std::string from = attribute("loop/offset"), limit = attribute("loop/sizelimit");
  // All of it is the same disk by another way.
  if (from == "0" && limit == "0") return file;
  return "loop from " + from + " limit " + limit + " of " + file;
}

}  // namespace

int file_disk_identity(int fd, const std::string& path, std::string* text) {
  const struct statx st = look(fd, "", AT_EMPTY_PATH);
  const std::string born = birth_of(st);
  // Without it another file may come to the same inode number.
  if ((st.stx_mask & STATX_INO) == 0 || born.empty()) return -ENODATA;
  const std::string fs = file_system_of(fd, path, st);
  if (fs.empty()) return -ENODATA;
  *text = "file " + std::to_string(st.stx_ino) + " born " + born + " on " + fs;
  return 0;
}

int device_disk_identity(kernel::devt dev, const host_trees& trees, std::string* text) {
  const std::string link = trees.sys + "/dev/block/" + std::to_string(kernel::major_of(dev)) + ":" +
                           std::to_string(kernel::minor_of(dev));
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::canonical(link, error);
  if (error) return -ENODATA;
  *text = sys_device(trees, folder).identity();
  return text->empty() ? -ENODATA : 0;
}

}  // namespace zorv
