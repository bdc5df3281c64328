// SPDX-License-Identifier: GPL-2.0-only
// The C library's calls by which disks are served, in whose place the program's own stand.
#include "host/held_file.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>

namespace zorv_test {
namespace {

struct hold {
  std::atomic<bool> on{false};
  std::mutex lock;
  std::condition_variable changed;
  dev_t dev = 0;
  ino_t ino = 0;
  unsigned waiting = 0;
};

hold& the_hold() {
  static hold h;
  return h;
}

bool is_held(int fd) {
  struct stat st;
  return the_hold().on.load() && ::fstat(fd, &st) == 0 && st.st_dev == the_hold().dev &&
         st.st_ino == the_hold().ino;
}

void wait_while_held() {
  hold& h = the_hold();
  std::unique_lock guard(h.lock);
  ++h.waiting;
  h.changed.wait(guard, [&h] { return !h.on.load(); });
  --h.waiting;
}

}  // namespace

held_file::held_file(const std::string& path) {
  struct stat st = {};
  (void)!::stat(path.c_str(), &st);
  the_hold().dev = st.st_dev;
  the_hold().ino = st.st_ino;
  the_hold().on.store(true);
}

void held_file::release() {
  const std::lock_guard guard(the_hold().lock);
  the_hold().on.store(false);
  the_hold().changed.notify_all();
}

unsigned held_file::waiting() {
  const std::lock_guard guard(the_hold().lock);
  return the_hold().waiting;
}

}  // namespace zorv_test

extern "C" {

int fdatasync(int fd) {
  if (zorv_test::is_held(fd)) zorv_test::wait_while_held();
  return static_cast<int>(::syscall(SYS_fdatasync, fd));
}

ssize_t preadv2(int fd, const iovec* iov, int count, off_t at, int flags) {
  if (zorv_test::is_held(fd)) {
    if ((flags & RWF_NOWAIT) != 0) {
      errno = EAGAIN;
      return -1;
    }
    zorv_test::wait_while_held();
  }
  return ::syscall(SYS_preadv2, fd, iov, count, at, 0L, flags);
}

ssize_t pwritev2(int fd, const iovec* iov, int count, off_t at, int flags) {
  if (zorv_test::is_held(fd)) zorv_test::wait_while_held();
  return ::syscall(SYS_pwritev2, fd, iov, count, at, 0L, flags);
}
}
