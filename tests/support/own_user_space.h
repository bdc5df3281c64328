// SPDX-License-Identifier: GPL-2.0-only
// A caller whose memory is this process's own: commands of tests and benchmarks.
#pragma once

#include <sys/uio.h>
#include <unistd.h>

#include "kernel/uaccess.h"

namespace zorv_test {

// The kernel makes the copies, so that a wild address is an error number and not a fault.
inline kernel::user_space* own_user_space() {
  struct own_space final : kernel::user_space {
    bool read(void* to, kernel::user_addr from, std::size_t n) override {
      const iovec local{to, n}, remote{reinterpret_cast<void*>(from), n};
      return ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(n);
    }
    bool write(kernel::user_addr to, const void* from, std::size_t n) override {
      const iovec local{const_cast<void*>(from), n}, remote{reinterpret_cast<void*>(to), n};
      return ::process_vm_writev(::getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(n);
    }
  };
  static own_space space;
  return &space;
}

}  // namespace zorv_test
