// SPDX-License-Identifier: GPL-2.0-only
// The C library's calls by which disks are served, in whose place the program's own stand.
#include "host/held_file.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace zorv_test {
namespace {

std::atomic<bool> on{false};
std::atomic<unsigned> waiting_calls{0};
struct stat held = {};

bool is_held(int fd) {
  struct stat st;
  return on && ::fstat(fd, &st) == 0 && st.st_dev == held.st_dev && st.st_ino == held.st_ino;
}
void wait_while_held(int fd) {
  if (!is_held(fd)) return;
  ++waiting_calls;
  on.wait(true);
  --waiting_calls;
}

}  // namespace

held_file::held_file(const std::string& path) {
  (void)!::stat(path.c_str(), &held);
  on = true;
}
void held_file::release() {
  on = false;
  on.notify_all();
}
unsigned held_file::waiting() { return waiting_calls; }

}  // namespace zorv_test

extern "C" {

int fdatasync(int fd) {
  zorv_test::wait_while_held(fd);
  return static_cast<int>(::syscall(SYS_fdatasync, fd));
}

ssize_t preadv2(int fd, const iovec* iov, int count, off_t at, int flags) {
  if ((flags & RWF_NOWAIT) != 0 && zorv_test::is_held(fd)) {
    errno = EAGAIN;
    return -1;
  }
  zorv_test::wait_while_held(fd);
  return ::syscall(SYS_preadv2, fd, iov, count, at, 0L, flags);
}

ssize_t pwritev2(int fd, const iovec* iov, int count, off_t at, int flags) {
  zorv_test::wait_while_held(fd);
  return ::syscall(SYS_pwritev2, fd, iov, count, at, 0L, flags);
}
}
