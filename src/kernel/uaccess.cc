// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/uaccess.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

#include "kernel/fault.h"

namespace kernel {
namespace {

constexpr user_addr user_limit = user_addr{1} << 47;

void* as_pointer(user_addr addr) { return reinterpret_cast<void*>(addr); }

// The way that works where a sandbox refuses process_vm_readv: a pipe takes bytes from, and puts
// them to, any address and answers EFAULT for a bad one. A page always fits into an empty pipe.
bool copy_through_pipe(std::byte* to, const std::byte* from, std::size_t n) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  bool ok = true;
  while (ok && n > 0) {
    const std::size_t piece = std::min<std::size_t>(n, page_size);
    const auto expected = static_cast<ssize_t>(piece);
    ok = ::write(ends[1], from, piece) == expected && ::read(ends[0], to, piece) == expected;
    from += piece;
    to += piece;
    n -= piece;
  }
  ::close(ends[0]);
  ::close(ends[1]);
  return ok;
}

// The kernel makes the copy, so that a wild address is an error number and not a fault.
class own_space final : public user_space {
 public:
  bool read(void* to, user_addr from, std::size_t n) override {
    iovec local{to, n}, remote{as_pointer(from), n};
    const ssize_t got = ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0);
    if (got < 0 && refused(errno)) {
      return copy_through_pipe(static_cast<std::byte*>(to),
                               static_cast<const std::byte*>(remote.iov_base), n);
    }
    return got == static_cast<ssize_t>(n);
  }

  bool write(user_addr to, const void* from, std::size_t n) override {
    iovec local{const_cast<void*>(from), n}, remote{as_pointer(to), n};
    const ssize_t put = ::process_vm_writev(::getpid(), &local, 1, &remote, 1, 0);
    if (put < 0 && refused(errno)) {
      return copy_through_pipe(static_cast<std::byte*>(remote.iov_base),
                               static_cast<const std::byte*>(from), n);
    }
    return put == static_cast<ssize_t>(n);
  }

 private:
  static bool refused(int error) { return error == EPERM || error == ENOSYS; }
};

}  // namespace

user_space* own_user_space() {
  static own_space space;
  return &space;
}

bool access_ok(user_addr addr, std::size_t n) { return n <= user_limit && addr <= user_limit - n; }

std::size_t copy_from_user(void* to, user_addr from, std::size_t n) {
  might_sleep("copy_from_user");
  if (n == 0) return 0;
  if (fault_check(fault_site::user_copy) != 0) return n;
  user_space* mm = current()->mm;
  return mm != nullptr && access_ok(from, n) && mm->read(to, from, n) ? 0 : n;
}

std::size_t copy_to_user(user_addr to, const void* from, std::size_t n) {
  might_sleep("copy_to_user");
  if (n == 0) return 0;
  if (fault_check(fault_site::user_copy) != 0) return n;
  user_space* mm = current()->mm;
  return mm != nullptr && access_ok(to, n) && mm->write(to, from, n) ? 0 : n;
}

}  // namespace kernel
