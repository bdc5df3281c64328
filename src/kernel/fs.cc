// SPDX-License-Identifier: GPL-2.0-only
// Open files of the host.
#include "kernel/fs.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "kernel/fault.h"
#include "kernel/fs_internal.h"
#include "kernel/mem.h"
#include "kernel/task.h"

namespace kernel {

namespace {

int host_open_flags(u32 flags) {
  int host = O_CLOEXEC | O_NOCTTY;
  switch (flags & 3U) {
    case FO_RDONLY:
      host |= O_RDONLY;
      break;
    case FO_WRONLY:
      host |= O_WRONLY;
      break;
    default:
      host |= O_RDWR;
      break;
  }
  if ((flags & FO_CREAT) != 0) host |= O_CREAT;
  if ((flags & FO_TRUNC) != 0) host |= O_TRUNC;
  if ((flags & FO_EXCL) != 0) host |= O_EXCL;
  if ((flags & FO_NOFOLLOW) != 0) host |= O_NOFOLLOW;
  // A FIFO put where a file is expected must not hold the caller; regular files ignore the flag.
  return host | O_NONBLOCK;
}

int host_open(const char* path, int host_flags, u32 mode) {
  for (;;) {
    const int fd = ::open(path, host_flags, mode);
    if (fd >= 0) return fd;
    if (errno != EINTR) return -errno;
  }
}

}  // namespace

s64 host_pread(int fd, void* buffer, std::size_t bytes, u64 offset) {
  for (;;) {
    const ssize_t n = ::pread(fd, buffer, bytes, static_cast<off_t>(offset));
    if (n >= 0) return n;
    if (errno != EINTR) return -errno;
  }
}

s64 host_pwrite(int fd, const void* buffer, std::size_t bytes, u64 offset) {
  for (;;) {
    const ssize_t n = ::pwrite(fd, buffer, bytes, static_cast<off_t>(offset));
    if (n >= 0) return n;
    if (errno != EINTR) return -errno;
  }
}

namespace {

int host_sync(int fd, int (*sync)(int)) {
  for (;;) {
    if (sync(fd) == 0) return 0;
    // What cannot be synced at all (a character device, some directories) has nothing to lose.
    if (errno == EINVAL) return 0;
    if (errno != EINTR) return -errno;
  }
}

}  // namespace

// Contents, length and whatever else is needed to find them again; the times may lag, which spares
// a commit of the host's journal for every change in place.
int host_fsync(int fd) { return host_sync(fd, ::fdatasync); }

int host_sync_directory(const char* directory) {
  const int fd = host_open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (fd < 0) return fd;
  const int rc = host_sync(fd, ::fsync);
  ::close(fd);
  return rc;
}

file* filp_open(const char* path, u32 flags, u32 mode) {
  might_sleep("filp_open");
  if (const int rc = fault_check(fault_site::file_open); rc != 0) return err_ptr<file>(rc);
  if (fs_in_namespace(fs_normalise(path))) return err_ptr<file>(-ENXIO);

  file* f = knew<file>(GFP_KERNEL);
  if (f == nullptr) return err_ptr<file>(-ENOMEM);
  const int host = host_open_flags(flags);
  int fd = fs_is_recording() ? unsynced_open(path, host, mode) : host_open(path, host, mode);
  struct stat st;
  if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode)) {
    ::close(fd);
    fd = -ENXIO;
  }
  if (fd < 0) {
    kdelete(f);
    return err_ptr<file>(fd);
  }
  f->fd = fd;
  f->sync = (flags & FO_SYNC) != 0;
  return f;
}

int filp_close(file* f) {
  might_sleep("filp_close");
  if (const int direct = f->direct.load(); direct >= 0) ::close(direct);
  // The descriptor is gone whatever close() says, EINTR included.
  const int rc = ::close(f->fd) == 0 || errno == EINTR ? 0 : -errno;
  kdelete(f);
  return rc;
}

s64 vfs_read(file* f, void* buffer, std::size_t bytes, s64* pos) {
  might_sleep("vfs_read");
  if (const int rc = fault_check(fault_site::file_read); rc != 0) return rc;
  const s64 n = host_pread(f->fd, buffer, bytes, static_cast<u64>(*pos));
  if (n > 0) *pos += n;
  return n;
}

s64 vfs_read_at_hand(file* f, void* buffer, std::size_t bytes, u64 offset) {
  const iovec to{buffer, bytes};
  const ssize_t n = ::preadv2(f->fd, &to, 1, static_cast<off_t>(offset), RWF_NOWAIT);
  if (n <= 0) return -EAGAIN;
  const int rc = fault_check(fault_site::file_read);
  return rc != 0 ? rc : n;
}

s64 file_pwrite(file* f, const void* buffer, std::size_t bytes, u64 offset) {
  // What a failed sync was for is in the page cache all the same.
  const int fault = f->sync ? fault_check(fault_site::file_sync) : 0;
  const bool sync = f->sync && fault == 0;
  s64 n = 0;
  if (fs_is_recording()) {
    n = unsynced_write(f->fd, buffer, bytes, offset, sync);
  } else {
    n = host_pwrite(f->fd, buffer, bytes, offset);
    if (const int rc = n > 0 && sync ? host_fsync(f->fd) : 0; rc != 0) return rc;
  }
  return n > 0 && fault != 0 ? fault : n;
}

s64 vfs_write(file* f, const void* buffer, std::size_t bytes, s64* pos) {
  might_sleep("vfs_write");
  if (const int rc = fault_check(fault_site::file_write); rc != 0) return rc;
  const s64 n = file_pwrite(f, buffer, bytes, static_cast<u64>(*pos));
  if (n > 0) *pos += n;
  return n;
}

int vfs_fsync(file* f) {
  might_sleep("vfs_fsync");
  if (const int rc = fault_check(fault_site::file_sync); rc != 0) return rc;
  return fs_is_recording() ? unsynced_fsync(f->fd) : host_fsync(f->fd);
}

int vfs_truncate(file* f, u64 bytes) {
  might_sleep("vfs_truncate");
  if (const int rc = fault_check(fault_site::file_write); rc != 0) return rc;
  if (fs_is_recording()) return unsynced_truncate(f->fd, bytes);
  return ::ftruncate(f->fd, static_cast<off_t>(bytes)) == 0 ? 0 : -errno;
}

int vfs_empty(file* f) { return vfs_truncate(f, 0); }

u64 file_size(file* f) {
  struct stat st;
  if (::fstat(f->fd, &st) != 0) return 0;
  if (S_ISBLK(st.st_mode)) {
    u64 bytes = 0;
    return ::ioctl(f->fd, BLKGETSIZE64, &bytes) == 0 ? bytes : 0;
  }
  return static_cast<u64>(st.st_size);
}

bool file_linked(file* f) {
  struct stat st;
  return ::fstat(f->fd, &st) == 0 && st.st_nlink > 0;
}

int fs_sync_parent(const char* path) {
  might_sleep("fs_sync_parent");
  if (const int rc = fault_check(fault_site::file_sync); rc != 0) return rc;
  if (fs_in_namespace(fs_normalise(path))) return 0;
  const std::string parent = fs_parent_of(path);
  return fs_is_recording() ? unsynced_sync_directory(parent.c_str())
                           : host_sync_directory(parent.c_str());
}

}  // namespace kernel
