// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/uaccess.h"

#include "kernel/fault.h"

namespace kernel {
namespace {

constexpr user_addr user_limit = user_addr{1} << 47;

}  // namespace

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
