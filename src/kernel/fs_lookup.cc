// SPDX-License-Identifier: GPL-2.0-only
// Path look-up, and the device namespace that stands before the host's names.
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <map>
#include <mutex>

#include "kernel/fault.h"
#include "kernel/fs_internal.h"
#include "kernel/mem.h"
#include "kernel/task.h"

namespace kernel {
namespace {

constexpr std::string_view namespace_dirs[] = {"/dev/zorv", "/dev/image"};
constexpr std::size_t name_max_bytes = 255;

struct node {
  u32 mode;
  devt dev;
  u64 ino;
};

struct device_namespace {
  std::mutex lock;
  std::map<std::string, node, std::less<>> nodes;  // by normalised path
  u64 last_ino = 2;                                // 1 and 2 are the directories
};

device_namespace& the_namespace() {
  static device_namespace& ns = *new device_namespace;  // outlives every thread
  return ns;
}

// Index of the namespace directory with that normalised path, or -1.
int namespace_dir_index(std::string_view path) {
  for (std::size_t i = 0; i < std::size(namespace_dirs); i++) {
    if (path == namespace_dirs[i]) return static_cast<int>(i);
  }
  return -1;
}

std::string_view last_component(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string join(const std::string& dir, std::string_view name) {
  std::string path = dir;
  if (path.empty() || path.back() != '/') path += '/';
  path += name;
  return path;
}

dentry* new_dentry(std::string path) {
  dentry* d = knew<dentry>(GFP_KERNEL);
  if (d == nullptr) return nullptr;
  d->d_name = path == "/" ? path : std::string(last_component(path));
  d->d_path = std::move(path);
  return d;
}

// The entry of a normalised namespace path; negative when the name is free.
int namespace_lookup(const std::string& path, dentry** out) {
  const int dir = namespace_dir_index(path);
  const bool in_dir = dir < 0 && namespace_dir_index(fs_parent_of(path)) >= 0;
  inode found;
  bool exists = dir >= 0;
  if (exists) {
    found.i_mode = S_IFDIR_ | 0755;
    found.i_ino = static_cast<u64>(dir) + 1;
  } else {
    auto& ns = the_namespace();
    const std::scoped_lock guard(ns.lock);
    // Below a name of the namespace there is nothing: nodes are no directories.
    if (!in_dir) return ns.nodes.contains(fs_parent_of(path)) ? -ENOTDIR : -ENOENT;
    if (const auto it = ns.nodes.find(path); it != ns.nodes.end()) {
      exists = true;
      found.i_mode = it->second.mode;
      found.i_rdev = it->second.dev;
      found.i_ino = it->second.ino;
    }
  }
  dentry* d = new_dentry(path);
  if (d == nullptr) return -ENOMEM;
  d->d_namespace = true;
  d->d_negative = !exists;
  d->d_node = found;
  *out = d;
  return 0;
}

// The entry of a host path; -ENOENT and the host's other errors.
int host_lookup(const std::string& path, bool follow, dentry** out) {
  struct stat st;
  if ((follow ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st)) != 0) return -errno;
  // Ours are in the namespace; by its number this one would be taken for one of them.
  if (S_ISBLK(st.st_mode) && blkdev_registered(major(st.st_rdev))) return -ENXIO;
  std::string spelled = path;
  while (spelled.size() > 1 && spelled.back() == '/') spelled.pop_back();
  dentry* d = new_dentry(std::move(spelled));
  if (d == nullptr) return -ENOMEM;
  d->d_node.i_mode = st.st_mode;
  if (S_ISBLK(st.st_mode) || S_ISCHR(st.st_mode)) {
    d->d_node.i_rdev = mkdev(major(st.st_rdev), minor(st.st_rdev));
  }
  d->d_node.i_ino = st.st_ino;
  d->d_node.i_size = static_cast<u64>(st.st_size);
  d->d_fs_dev = fs_device_of(path.c_str(), follow);
  *out = d;
  return 0;
}

int lookup_entry(const std::string& path, bool follow, dentry** out) {
  const std::string normalised = fs_normalise(path);
  if (!fs_in_namespace(normalised)) return host_lookup(path, follow, out);
  if (const int rc = namespace_lookup(normalised, out); rc != 0) return rc;
  int rc = 0;
  if ((*out)->d_negative) {
    rc = -ENOENT;
  } else if (path.back() == '/' && namespace_dir_index(normalised) < 0) {
    rc = -ENOTDIR;
  }
  if (rc != 0) dput(*out);
  return rc;
}

int lookup_parent(std::string_view path, nameidata* nd) {
  while (path.size() > 1 && path.back() == '/') {
    path.remove_suffix(1);
    nd->trailing = true;
  }
  nd->last = std::string(last_component(path));
  if (path == "/") {
    nd->type = LAST_ROOT;
  } else if (nd->last == ".") {
    nd->type = LAST_DOT;
  } else if (nd->last == "..") {
    nd->type = LAST_DOTDOT;
  }
  if (nd->last.size() > name_max_bytes) return -ENAMETOOLONG;
  dentry* dir = nullptr;
  if (const int rc = lookup_entry(fs_parent_of(path), true, &dir); rc != 0) return rc;
  if ((dir->d_node.i_mode & S_IFMT_) != S_IFDIR_) {
    dput(dir);
    return -ENOTDIR;
  }
  nd->path = dir;
  return 0;
}

// Directories are looked up anew each time, so their mutexes are found by path. Two directories
// may share one: nobody holds more than one.
std::mutex& dir_mutex(const dentry* dir) {
  static std::mutex* const mutexes = new std::mutex[16];
  return mutexes[std::hash<std::string>{}(dir->d_path) % 16];
}

}  // namespace

std::string fs_normalise(std::string_view path) {
  std::string out;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string_view part = path.substr(at, end - at);
    at = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      const std::size_t slash = out.rfind('/');
      out.resize(slash == std::string::npos ? 0 : slash);
      continue;
    }
    out += '/';
    out += part;
  }
  if (out.empty()) out = "/";
  // A relative path is the host's business whatever it spells.
  return path.starts_with('/') ? out : std::string(path);
}

bool fs_in_namespace(std::string_view normalised) {
  for (const std::string_view dir : namespace_dirs) {
    if (normalised == dir) return true;
    if (normalised.starts_with(dir) && normalised[dir.size()] == '/') return true;
  }
  return false;
}

std::string fs_parent_of(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  return slash == 0 ? "/" : std::string(path.substr(0, slash));
}

dentry* dget(dentry* d) {
  if (d != nullptr) d->d_count++;
  return d;
}

void dput(dentry* d) {
  if (d != nullptr && --d->d_count == 0) kdelete(d);
}

int path_lookup(const char* path, u32 flags, nameidata* nd) {
  might_sleep("path_lookup");
  *nd = nameidata{};
  nd->flags = flags;
  const std::string_view text = path;
  if (text.empty()) return -ENOENT;
  if (text.size() >= PATH_MAX) return -ENAMETOOLONG;
  if ((flags & LOOKUP_PARENT) != 0) return lookup_parent(text, nd);
  return lookup_entry(std::string(text), (flags & LOOKUP_FOLLOW) != 0, &nd->path);
}

void path_put(nameidata* nd) {
  dput(nd->path);
  nd->path = nullptr;
}

void dir_lock(dentry* dir) {
  might_sleep("dir_lock");
  dir_mutex(dir).lock();
}
void dir_unlock(dentry* dir) { dir_mutex(dir).unlock(); }

dentry* lookup_one_len(const char* name, dentry* dir, std::size_t len) {
  might_sleep("lookup_one_len");
  const std::string_view text(name, len);
  if (text.empty() || text.find('/') != std::string_view::npos) return err_ptr<dentry>(-EACCES);
  if (text.size() > name_max_bytes) return err_ptr<dentry>(-ENAMETOOLONG);
  const std::string path = join(dir->d_path, text);
  dentry* entry = nullptr;
  int rc = 0;
  if (dir->d_namespace) {
    rc = namespace_lookup(path, &entry);
  } else {
    rc = host_lookup(path, false, &entry);
    if (rc == -ENOENT) {
      entry = new_dentry(path);
      rc = entry == nullptr ? -ENOMEM : 0;
      if (entry != nullptr) entry->d_negative = true;
    }
  }
  return rc == 0 ? entry : err_ptr<dentry>(rc);
}

int vfs_mknod(dentry* dir, dentry* entry, u32 mode, devt dev) {
  might_sleep("vfs_mknod");
  if (const int rc = fault_check(fault_site::node_make); rc != 0) return rc;
  if (!entry->d_negative) return -EEXIST;
  if (!dir->d_namespace) return -EPERM;
  auto& ns = the_namespace();
  const std::scoped_lock guard(ns.lock);
  const auto [it, added] = ns.nodes.try_emplace(entry->d_path, node{mode, dev, ns.last_ino + 1});
  if (!added) return -EEXIST;
  ns.last_ino++;
  entry->d_negative = false;
  entry->d_node.i_mode = mode;
  entry->d_node.i_rdev = dev;
  entry->d_node.i_ino = it->second.ino;
  return 0;
}

int vfs_unlink(dentry* dir, dentry* entry) {
  might_sleep("vfs_unlink");
  if (const int rc = fault_check(fault_site::file_unlink); rc != 0) return rc;
  if (entry->d_negative) return -ENOENT;
  if (dir->d_namespace) {
    auto& ns = the_namespace();
    const std::scoped_lock guard(ns.lock);
    return ns.nodes.erase(entry->d_path) == 0 ? -ENOENT : 0;
  }
  if (fs_is_recording()) return unsynced_unlink(entry->d_path.c_str());
  return ::unlink(entry->d_path.c_str()) == 0 ? 0 : -errno;
}

}  // namespace kernel
