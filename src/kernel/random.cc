// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/random.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace kernel {

void get_random_bytes(void* buffer, std::size_t bytes) {
  auto* at = static_cast<unsigned char*>(buffer);
  while (bytes > 0) {
    const ssize_t n = getrandom(at, bytes, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      std::perror("getrandom");
      std::abort();
    }
    at += n;
    bytes -= static_cast<std::size_t>(n);
  }
}

}  // namespace kernel
