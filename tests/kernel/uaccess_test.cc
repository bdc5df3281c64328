// SPDX-License-Identifier: GPL-2.0-only
// Copies to and from a caller: a bad address fails the copy and nothing else.
#include "kernel/uaccess.h"

#include "support/driver_fixture.h"
#include "support/own_user_space.h"

using namespace kernel;

namespace {

user_addr address(const void* p) { return reinterpret_cast<user_addr>(p); }

}  // namespace

TEST(uaccess, copies_the_callers_bytes_or_none) {
  char text[16] = "x", back[16] = {};
  EXPECT_EQ(copy_from_user(back, address(text), 1), 1U) << "nobody calls";
  const user_space_scope scope(zorv_test::own_user_space());
  const struct {
    user_addr at;
    std::size_t n;
    bool good;
  } table[] = {{address(back), 16, true},
               {0, 1, false},
               {~user_addr{0} - 3, 8, false},
               {(user_addr{1} << 47) - 1, 2, false},
               {0, 0, true}};
  for (const auto& t : table) {
    EXPECT_EQ(copy_to_user(t.at, text, t.n), t.good ? 0 : t.n) << t.at;
    EXPECT_EQ(copy_from_user(text, t.at, t.n), t.good ? 0 : t.n) << t.at;
  }
  EXPECT_STREQ(back, "x");
  // The test that a command makes before it copies: no wrap, nothing above the limit.
  EXPECT_TRUE(access_ok((user_addr{1} << 47) - 8, 8));
  EXPECT_FALSE(access_ok((user_addr{1} << 47) - 8, 9));
  EXPECT_FALSE(access_ok(4, ~std::size_t{0}));
}
