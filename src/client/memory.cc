// SPDX-License-Identifier: MIT
#include "client/memory.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace zorv {
namespace {

constexpr std::size_t page_bytes = 4096;
constexpr std::size_t batch = 256;  // pages looked at per call

// Asks for one byte of each of n pages. false: one of them is out of reach.
bool probe(std::array<iovec, batch>& pages, std::size_t n, reach how) {
  std::array<unsigned char, batch> bytes;
  const iovec local = {bytes.data(), n};
  const auto want = static_cast<ssize_t>(n);
  const ssize_t got = process_vm_readv(getpid(), &local, 1, pages.data(), n, 0);
  if (got < 0 && errno != EFAULT) return true;
  if (got != want) return false;
  if (how == reach::readable) return true;
  return process_vm_writev(getpid(), &local, 1, pages.data(), n, 0) == want;
}

}  // namespace

bool memory_reaches(std::uint64_t addr, std::size_t bytes, reach how) {
  if (bytes == 0) return true;
  if (addr == 0 || addr + bytes < addr) return false;
  const std::uint64_t end = addr + bytes;
  std::array<iovec, batch> pages;
  std::size_t n = 0;
  for (std::uint64_t at = addr; at < end; at = (at / page_bytes + 1) * page_bytes) {
    pages[n++] = {reinterpret_cast<void*>(at), 1};
    if (n < batch) continue;
    if (!probe(pages, n, how)) return false;
    n = 0;
  }
  return n == 0 || probe(pages, n, how);
}

}  // namespace zorv
