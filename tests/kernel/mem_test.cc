// SPDX-License-Identifier: GPL-2.0-only
// Memory that can fail, and pools that wait.
#include "kernel/mem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "doubles/fault.h"
#include "kernel/module.h"
#include "support/driver_fixture.h"

using namespace kernel;
using zorv_test::eventually;

namespace {

struct mem_test : testing::Test {
  ~mem_test() override { fault_disarm_all(); }
};

struct pool_test : mem_test {
  kmem_cache* cache = kmem_cache_create("pool_test", 48, 8);
  mempool* pool = mempool_create(4, cache);
  ~pool_test() override {
    fault_disarm_all();
    mempool_destroy(pool);
    kmem_cache_destroy(cache);
    EXPECT_FALSE(kmem_cache_exists("pool_test"));
  }
};

}  // namespace

TEST_F(mem_test, blocks_are_aligned_and_zeroed_as_promised) {
  for (std::size_t bytes : {std::size_t{1}, std::size_t{page_size} + 1, std::size_t{8} << 20}) {
    vbuf<u8> v(static_cast<u8*>(vzalloc(bytes)));
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(v.get()) % page_size, 0U);
    EXPECT_EQ(v[0] | v[bytes / 2] | v[bytes - 1], 0);
    std::memset(v.get(), 0xff, bytes);
  }
  EXPECT_EQ(vmalloc(SIZE_MAX - 4), nullptr);
  page* p = alloc_page(GFP_KERNEL | GFP_ZERO);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % page_size, 0U);
  EXPECT_EQ(page_address(p)[page_size - 1], std::byte{0});
  free_page(p);
}

TEST_F(pool_test, the_reserve_lasts_when_memory_does_not) {
  EXPECT_TRUE(kmem_cache_exists("pool_test"));
  fault_arm(fault_site::alloc, 1, -1, ENOMEM);
  void* objects[4];
  for (void*& o : objects) ASSERT_NE(o = mempool_alloc(pool, GFP_ATOMIC), nullptr);
  EXPECT_EQ(mempool_alloc(pool, GFP_ATOMIC), nullptr) << "an atomic caller does not wait";
  EXPECT_EQ(mempool_create(4, cache), nullptr);

  std::atomic<bool> waiting{false};
  void* late = nullptr;
  std::thread waiter([&] {
    waiting.store(true);
    late = mempool_alloc(pool, GFP_NOIO);
  });
  ASSERT_TRUE(eventually([&] { return waiting.load(); }));
  mempool_free(pool, objects[0]);
  waiter.join();
  EXPECT_EQ(late, objects[0]);
  mempool_free(pool, late);
  for (int i = 1; i < 4; ++i) mempool_free(pool, objects[i]);
}

namespace {
int tested_value;
module_param tested_param("kernel_tests_value", &tested_value, 7, "for this test");
}  // namespace

TEST(module_param, takes_whole_decimal_numbers_only) {
  EXPECT_EQ(tested_value, 7);
  EXPECT_EQ(module_param_set("kernel_tests_value", "-12"), 0);
  EXPECT_EQ(tested_value, -12);
  for (const char* bad : {"", "1x", " 1", "0x10", "2147483648"}) {
    EXPECT_EQ(module_param_set("kernel_tests_value", bad), -EINVAL) << bad;
  }
  EXPECT_EQ(tested_value, -12);
  EXPECT_EQ(module_param_set("kernel_tests", "1"), -ENOENT);
  zorv_test::reset_parameters();
  EXPECT_EQ(tested_value, 7);
}
