// SPDX-License-Identifier: GPL-2.0-only
// What a power cut takes away.
//
// While recording, two things are kept. Per changed file: the pages as stable storage holds them
// and the length that it would have after a cut (a page is saved the first time it changes; a sync
// forgets the pages; a synced write updates them). Per changed name: whether the directory on
// stable storage has it, with a descriptor of the file that it stands for. A cut puts the pages,
// the lengths and the names back. What stable storage holds is what the record says: the host is
// not asked to sync while recording. Everything happens under one mutex, so that a change and its
// record are one step.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <tuple>

#include "doubles/fault.h"
#include "kernel/fs_internal.h"

namespace kernel {

std::atomic<bool> fs_recording{false};

namespace {

using page_bytes = std::vector<std::byte>;
using inode_key = std::pair<dev_t, ino_t>;
using name_key = std::tuple<dev_t, ino_t, std::string>;  // directory, name

struct shadow_file {
  int fd = -1;
  u64 durable_bytes = 0;
  std::map<u64, page_bytes> pages;  // by page number
};

struct shadow_name {
  std::string path;
  int fd = -1;  // the file of that name on stable storage; -1: there is none
};

struct record {
  std::mutex lock;
  std::map<inode_key, shadow_file> files;
  std::map<name_key, shadow_name> names;
};

record& the_record() {
  static record& r = *new record;
  return r;
}

void forget_all(record* r) {
  for (auto& [key, f] : r->files) ::close(f.fd);
  for (auto& [key, n] : r->names) {
    if (n.fd >= 0) ::close(n.fd);
  }
  r->files.clear();
  r->names.clear();
}

// The shadow of a regular file, made when there is none; null (*rc 0) for anything else.
shadow_file* shadow_of(record* r, int fd, int* rc) {
  struct stat st;
  *rc = ::fstat(fd, &st) == 0 ? 0 : -errno;
  if (*rc != 0 || !S_ISREG(st.st_mode)) return nullptr;
  const auto [it, added] = r->files.try_emplace({st.st_dev, st.st_ino});
  if (added) {
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    it->second.fd = ::open(self.c_str(), O_RDWR | O_CLOEXEC);
    it->second.durable_bytes = static_cast<u64>(st.st_size);
    if (it->second.fd < 0) {
      *rc = -errno;
      r->files.erase(it);
      return nullptr;
    }
  }
  return &it->second;
}

int save_pages(shadow_file* f, u64 offset, u64 bytes) {
  if (bytes == 0) return 0;
  for (u64 page = offset / page_size; page <= (offset + bytes - 1) / page_size; page++) {
    const auto [it, added] = f->pages.try_emplace(page);
    if (!added) continue;
    it->second.resize(page_size);
    const s64 n = host_pread(f->fd, it->second.data(), page_size, page * page_size);
    if (n < 0) {
      f->pages.erase(it);
      return static_cast<int>(n);
    }
  }
  return 0;
}

// Saves every page from there on that holds data; holes read as zeros after a truncation anyway.
int save_data_pages(shadow_file* f, u64 from_bytes) {
  auto data = static_cast<off_t>(from_bytes);
  while ((data = ::lseek(f->fd, data, SEEK_DATA)) >= 0) {
    const off_t hole = ::lseek(f->fd, data, SEEK_HOLE);
    if (hole < 0) return -errno;
    const int rc = save_pages(f, static_cast<u64>(data), static_cast<u64>(hole - data));
    if (rc != 0) return rc;
    data = hole;
  }
  return errno == ENXIO ? 0 : -errno;
}

// Bytes that reached stable storage while other changes of the same pages have not.
void update_pages(shadow_file* f, const std::byte* from, u64 offset, u64 bytes) {
  for (auto it = f->pages.lower_bound(offset / page_size); it != f->pages.end(); ++it) {
    const u64 start = it->first * page_size;
    const u64 low = std::max(start, offset);
    const u64 high = std::min(start + page_size, offset + bytes);
    if (low >= high) break;
    std::copy(from + (low - offset), from + (high - offset), it->second.begin() + (low - start));
  }
  f->durable_bytes = std::max(f->durable_bytes, offset + bytes);
}

int name_key_of(const char* path, name_key* key) {
  const std::string parent = fs_parent_of(path);
  struct stat st;
  if (::stat(parent.c_str(), &st) != 0) return -errno;
  const std::string_view text = path;
  *key = {st.st_dev, st.st_ino, std::string(text.substr(text.rfind('/') + 1))};
  return 0;
}

// Saves every page that a shorter file loses, the one that is cut included.
int truncate_locked(record* r, int fd, u64 bytes) {
  int rc = 0;
  shadow_file* f = shadow_of(r, fd, &rc);
  if (f == nullptr) return rc;
  rc = save_data_pages(f, bytes / page_size * page_size);
  return rc == 0 && ::ftruncate(fd, static_cast<off_t>(bytes)) != 0 ? -errno : rc;
}

void restore_contents(const shadow_file& f) {
  for (const auto& [page, bytes] : f.pages) {
    const u64 start = page * page_size;
    if (start >= f.durable_bytes) break;
    const u64 n = std::min<u64>(page_size, f.durable_bytes - start);
    (void)host_pwrite(f.fd, bytes.data(), n, start);
  }
  (void)!::ftruncate(f.fd, static_cast<off_t>(f.durable_bytes));
}

bool same_file(const char* path, int fd) {
  struct stat a, b;
  return ::lstat(path, &a) == 0 && ::fstat(fd, &b) == 0 && a.st_dev == b.st_dev &&
         a.st_ino == b.st_ino;
}

// An unlinked file cannot be linked again, so its name comes back with a copy of it.
void restore_name(const shadow_name& n) {
  if (n.fd >= 0 && same_file(n.path.c_str(), n.fd)) return;
  (void)::unlink(n.path.c_str());
  if (n.fd < 0) return;
  struct stat st;
  if (::fstat(n.fd, &st) != 0) return;
  const int to = ::open(n.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 0777);
  if (to < 0) return;
  (void)!::ftruncate(to, st.st_size);
  off_t data = 0;
  while ((data = ::lseek(n.fd, data, SEEK_DATA)) >= 0) {
    page_bytes buffer(page_size);
    const s64 got = host_pread(n.fd, buffer.data(), buffer.size(), static_cast<u64>(data));
    if (got <= 0) break;
    (void)host_pwrite(to, buffer.data(), static_cast<std::size_t>(got), static_cast<u64>(data));
    data += got;
  }
  ::close(to);
}

}  // namespace

int unsynced_open(const char* path, int host_flags, u32 mode) {
  record& r = the_record();
  const std::scoped_lock guard(r.lock);
  struct stat st;
  const bool existed = ::stat(path, &st) == 0;
  // Truncation is made here, after its contents have been kept.
  const int fd = ::open(path, host_flags & ~O_TRUNC, mode);
  if (fd < 0) return -errno;
  int rc = 0;
  if (!existed) {
    name_key key;
    rc = name_key_of(path, &key);
    if (rc == 0) r.names.try_emplace(std::move(key), shadow_name{path, -1});
  } else if ((host_flags & O_TRUNC) != 0) {
    rc = truncate_locked(&r, fd, 0);
  }
  if (rc == 0) return fd;
  ::close(fd);
  return rc;
}

s64 unsynced_write(int fd, const void* buffer, std::size_t bytes, u64 offset, bool synced) {
  record& r = the_record();
  const std::scoped_lock guard(r.lock);
  int rc = 0;
  shadow_file* f = shadow_of(&r, fd, &rc);
  if (rc == 0 && f != nullptr && !synced) rc = save_pages(f, offset, bytes);
  if (rc != 0) return rc;
  const s64 n = host_pwrite(fd, buffer, bytes, offset);
  if (n > 0 && f != nullptr && synced) {
    update_pages(f, static_cast<const std::byte*>(buffer), offset, static_cast<u64>(n));
  }
  return n;
}

int unsynced_truncate(int fd, u64 bytes) {
  record& r = the_record();
  const std::scoped_lock guard(r.lock);
  return truncate_locked(&r, fd, bytes);
}

int unsynced_fsync(int fd) {
  record& r = the_record();
  const std::scoped_lock guard(r.lock);
  struct stat st;
  if (::fstat(fd, &st) != 0) return -errno;
  const auto it = r.files.find({st.st_dev, st.st_ino});
  if (it == r.files.end()) return 0;
  it->second.pages.clear();
  it->second.durable_bytes = static_cast<u64>(st.st_size);
  return 0;
}

int unsynced_unlink(const char* path) {
  record& r = the_record();
  const std::scoped_lock guard(r.lock);
  name_key key;
  if (const int rc = name_key_of(path, &key); rc != 0) return rc;
  if (r.names.contains(key)) return ::unlink(path) == 0 ? 0 : -errno;
  const int fd = ::open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -errno;
  if (::unlink(path) != 0) {
    const int rc = -errno;
    ::close(fd);
    return rc;
  }
  r.names.try_emplace(std::move(key), shadow_name{path, fd});
  return 0;
}

int unsynced_sync_directory(const char* directory) {
  record& r = the_record();
  const std::scoped_lock guard(r.lock);
  struct stat st;
  if (::stat(directory, &st) != 0) return -errno;
  std::erase_if(r.names, [&](auto& entry) {
    if (std::get<0>(entry.first) != st.st_dev || std::get<1>(entry.first) != st.st_ino) {
      return false;
    }
    if (entry.second.fd >= 0) ::close(entry.second.fd);
    return true;
  });
  return 0;
}

void fault_record_unsynced_begin() {
  record& r = the_record();
  const std::scoped_lock guard(r.lock);
  forget_all(&r);
  fs_recording.store(true, std::memory_order_relaxed);
}

void fault_power_cut() {
  record& r = the_record();
  const std::scoped_lock guard(r.lock);
  for (const auto& [key, f] : r.files) restore_contents(f);
  for (const auto& [key, n] : r.names) restore_name(n);
  forget_all(&r);
}

void fault_record_unsynced_end() {
  record& r = the_record();
  const std::scoped_lock guard(r.lock);
  fs_recording.store(false, std::memory_order_relaxed);
  forget_all(&r);
}

}  // namespace kernel
