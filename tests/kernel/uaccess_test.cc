// SPDX-License-Identifier: GPL-2.0-only
// Copies to and from a caller: a bad address fails the copy and nothing else.
#include "kernel/uaccess.h"

#include <sys/mman.h>

#include "kernel/chrdev.h"
#include "kernel/fault.h"
#include "support/driver_fixture.h"

using namespace kernel;

namespace {

user_addr address(const void* p) { return reinterpret_cast<user_addr>(p); }

}  // namespace

TEST(uaccess, copies_the_callers_bytes_or_none) {
  // Two pages, of which the second cannot be touched.
  auto* pages = static_cast<char*>(
      ::mmap(nullptr, 2 * page_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(pages, MAP_FAILED);
  ASSERT_EQ(::mprotect(pages + page_size, page_size, PROT_NONE), 0);
  std::vector<char> text(3 * page_size, 'x'), back(3 * page_size);
  const struct {
    user_addr at;
    std::size_t n;
    bool good;
  } table[] = {
      {address(pages), page_size, true},
      {address(pages) + page_size - 4, 4, true},
      {address(pages) + page_size - 4, 5, false},
      {address(pages) + page_size, 1, false},
      {0, 1, false},
      {8, 4096, false},
      {~user_addr{0} - 3, 8, false},
      {(user_addr{1} << 47) - 1, 2, false},
      {0, 0, true},
  };
  const user_space_scope scope(own_user_space());
  for (const auto& t : table) {
    EXPECT_EQ(copy_to_user(t.at, text.data(), t.n), t.good ? 0 : t.n) << t.at;
    EXPECT_EQ(copy_from_user(back.data(), t.at, t.n), t.good ? 0 : t.n) << t.at;
    if (t.good)
      EXPECT_EQ(std::count(back.begin(), back.begin() + static_cast<long>(t.n), 'x'),
                static_cast<long>(t.n));
    std::fill(back.begin(), back.end(), 0);
  }
  ::munmap(pages, 2 * page_size);
}

TEST(uaccess, without_a_caller_nothing_is_copied) {
  char a = 1, b = 2;
  EXPECT_EQ(copy_from_user(&a, address(&b), 1), 1U);
  const user_space_scope scope(own_user_space());
  fault_arm(fault_site::user_copy, 2, 1, EFAULT);
  EXPECT_EQ(copy_from_user(&a, address(&b), 1), 0U);
  EXPECT_EQ(copy_to_user(address(&b), &a, 1), 1U);
  fault_disarm_all();
  // The test that a command makes before it copies: no wrap, nothing above the limit.
  EXPECT_TRUE(access_ok((user_addr{1} << 47) - 8, 8));
  EXPECT_FALSE(access_ok((user_addr{1} << 47) - 8, 9));
  EXPECT_FALSE(access_ok(4, ~std::size_t{0}));
}
