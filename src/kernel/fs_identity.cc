// SPDX-License-Identifier: GPL-2.0-only
// Which file of the host a handle or a name stands for, and what is done only as long as it does.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "kernel/fault.h"
#include "kernel/fs_internal.h"
#include "kernel/task.h"

namespace kernel {

namespace {

//   at, path, flags  as for statx
int identify(int at, const char* path, int flags, file_id* id) {
  struct statx st;
  if (::statx(at, path, flags | AT_STATX_SYNC_AS_STAT, STATX_TYPE | STATX_INO | STATX_BTIME, &st) !=
      0) {
    return -errno;
  }
  id->dev = makedev(st.stx_dev_major, st.stx_dev_minor);
  id->ino = st.stx_ino;
  id->birth_ns = 0;
  if ((st.stx_mask & STATX_BTIME) != 0) {
    id->birth_ns = st.stx_btime.tv_sec * 1000000000LL + st.stx_btime.tv_nsec;
  } else if ((flags & AT_EMPTY_PATH) != 0 && S_ISREG(st.stx_mode)) {
    long generation = 0;  // the host writes an int
    if (::ioctl(at, FS_IOC_GETVERSION, &generation) == 0) {
      id->birth_ns = -1 - static_cast<s64>(static_cast<u32>(generation));
    }
  }
  return 0;
}

}  // namespace

bool file_is_regular(file* f) {
  struct stat st;
  return ::fstat(f->fd, &st) == 0 && S_ISREG(st.st_mode);
}

devt file_device(file* f) {
  might_sleep("file_device");
  return fs_device_of_open(f->fd);
}

int fd_identity(int fd, file_id* id) { return identify(fd, "", AT_EMPTY_PATH, id); }

int file_identity(file* f, file_id* id) { return fd_identity(f->fd, id); }

int path_identity(const char* path, file_id* id) {
  might_sleep("path_identity");
  return identify(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, id);
}

int vfs_lock(file* f) {
  might_sleep("vfs_lock");
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (::fcntl(f->fd, F_OFD_SETLK, &whole) == 0) return 0;
  return errno == EAGAIN || errno == EACCES ? -EBUSY : -errno;
}

int fs_unlink_file(const char* path, const file_id& id) {
  might_sleep("fs_unlink_file");
  if (const int rc = fault_check(fault_site::file_unlink); rc != 0) return rc;
  file_id there;
  if (const int rc = path_identity(path, &there); rc != 0) return rc;
  if (!(there == id)) return -ESTALE;
  if (fs_is_recording()) return unsynced_unlink(path);
  return ::unlink(path) == 0 ? 0 : -errno;
}

}  // namespace kernel
