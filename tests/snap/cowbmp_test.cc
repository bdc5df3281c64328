// SPDX-License-Identifier: GPL-2.0-only
// The COW bitmap and its file.
#include "driver/snap/cowbmp.h"

#include "kernel/mem.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct cowbmp_test : testing::Test {
  void open(u64 nbits) {
    write_file(path, bytes((nbits + 7) / 8));
    ASSERT_EQ(zorv_cowbmp_init(&map, nbits), 0);
    file.reset(zorv_fopen(path.c_str(), kernel::FO_RDWR, 0600));
  }
  void TearDown() override {
    kernel::fault_disarm_all();
    zorv_cowbmp_destroy(&map);
  }
  int set(s32 bit) { return zorv_cowbmp_set_bit(&map, bit, kernel::GFP_NOIO, file.get()); }
  int test(s32 bit) { return zorv_cowbmp_test_bit(&map, bit); }
  int load(const std::string& from) {
    zorv_file_ptr f(zorv_fopen(from.c_str(), kernel::FO_RDONLY, 0600));
    return zorv_cowbmp_load(&map, f.get(), f != nullptr ? kernel::file_size(f->filp) : 0);
  }
  s32 pages() NO_THREAD_SAFETY_ANALYSIS { return map.npages; }
  bool present(s32 i) NO_THREAD_SAFETY_ANALYSIS { return map.pages[i] != nullptr; }

  temp_dir dir;
  log_capture log;
  std::string path = dir / "bits";
  zorv_cowbmp map;
  zorv_file_ptr file;
};

}  // namespace

TEST_F(cowbmp_test, pages_come_with_their_first_bit_and_every_new_bit_is_in_the_file) {
  for (auto [nbits, slots] : {std::pair<u64, s32>{1, 1}, {32768, 1}, {32769, 2}}) {
    open(nbits);
    EXPECT_EQ(pages(), slots);
  }
  open(100000);
  EXPECT_FALSE(present(0) || present(1) || present(2) || present(3));
  EXPECT_EQ(set(0), 0);
  EXPECT_TRUE(present(0));
  EXPECT_EQ(set(9), 0);
  EXPECT_EQ(set(32768), 0);
  EXPECT_TRUE(present(1) && !present(2));
  EXPECT_EQ(set(3), 0);  // the byte keeps what it had
  bytes want(12500);
  want[0] = 0x09, want[1] = 0x02, want[4096] = 0x01;
  EXPECT_EQ(read_file(path), want);
  for (s32 bit : {0, 3, 9, 32768}) EXPECT_EQ(test(bit), 1) << bit;
  EXPECT_EQ(map.copied, 4);
  for (s32 bit : {1, 8, 32767, 32769, 99999}) EXPECT_EQ(test(bit), 0) << bit;

  kernel::fault_arm(kernel::fault_site::file_write, 1, -1, EIO);
  EXPECT_EQ(set(9), 0) << "set already: nothing is written";
  EXPECT_EQ(set(10), -EIO);
  EXPECT_TRUE(log.has("zorv_cowbmp_set_bit(): Failed to update changed byte in file."));
  kernel::fault_disarm_all();
  kernel::fault_arm(kernel::fault_site::alloc, 1, 1, ENOMEM);
  EXPECT_EQ(set(70000), -ENOMEM);
  EXPECT_EQ(set(70000), 0);
}

TEST_F(cowbmp_test, load_takes_length_and_bits_from_the_file) {
  bytes content(5000);
  content[0] = 0x80, content[4999] = 0x01;
  write_file(path, content);
  ASSERT_EQ(zorv_cowbmp_init(&map, 8), 0);
  ASSERT_EQ(load(path), 0) << log.errors();
  EXPECT_EQ(pages(), 2);
  EXPECT_EQ(test(7), 1);
  EXPECT_EQ(test(39992), 1);
  EXPECT_EQ(test(39991), 0);
  EXPECT_EQ(map.copied, 2);
  EXPECT_EQ(test(40000), -EINVAL);
  content.assign(5000, 0);
  content[4097] = 1;
  write_file(path, content);
  ASSERT_EQ(load(path), 0);
  EXPECT_TRUE(!present(0) && present(1)) << "a page without a bit is not kept";
  EXPECT_EQ(test(7), 0);

  for (int variant = 0; variant < 3; ++variant) {
    ASSERT_EQ(zorv_cowbmp_init(&map, 8), 0);
    int want = -EIO;
    std::string from = path;
    if (variant == 0) from = dir / "missing", want = -EINVAL;
    if (variant == 1) kernel::fault_arm(kernel::fault_site::file_read, 2, 1, EIO);
    if (variant == 2) kernel::fault_arm(kernel::fault_site::alloc, 5, 1, want = -ENOMEM);
    EXPECT_EQ(load(from), want) << variant;
    kernel::fault_disarm_all();
    if (variant != 0) EXPECT_EQ(test(0), -EINVAL) << "not initialised after a failure";
  }
}
