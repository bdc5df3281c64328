// SPDX-License-Identifier: GPL-2.0-only
// The dispatcher: what is refused before a handler sees it, and what reaches the caller.
#include "driver/control/chardev.h"

#include "driver/core/log.h"
#include "kernel/fs.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct chardev_test : driver_test {
  memory_disk disk{"c0", 16 << 20};
  // As large as the largest record, so that every command finds its record readable.
  zorv_info_req any{};
};

}  // namespace

TEST_F(chardev_test, unknown_commands_are_refused_by_their_type) {
  zorv_debug = 2;
  EXPECT_EQ(raw_command(0x4004c301, &any), -ENOTTY);
  EXPECT_TRUE(log.has("zorv_char_ioctl(): cmd=0x4004c301 (UNKNOWN)"));
  EXPECT_EQ(log.errors(), "");
  EXPECT_EQ(raw_command(0x40044320, &any), -ENOTTY);
  EXPECT_EQ(log.errors(), "<3>ERROR: zorv_char_ioctl(): Inappropriate ioctl cmd=1074021152\n");
  log.clear();
  EXPECT_EQ(raw_command(ZORV_GET_BMP + (1U << 16), &any), -ENOTTY) << "another record size";
  // A wild address comes before the number, but not before a foreign type.
  void* wild = reinterpret_cast<void*>(~0UL - 16);
  log.clear();
  EXPECT_EQ(raw_command(0x4004c301, wild), -ENOTTY);
  EXPECT_EQ(raw_command(0x40044320, wild), -EFAULT);
  EXPECT_EQ(raw_command(ZORV_GET_INFO, wild), -EFAULT);
  EXPECT_EQ(log.errors(), "");
}

TEST_F(chardev_test, commands_on_a_node_check_its_minor) {
  for (const u32 number :
       {ZORV_GET_INFO, ZORV_LOAD_BMP, ZORV_SAVE_BMP, ZORV_CLR_BMP, ZORV_SET_BMP, ZORV_MERGE_BMP,
        ZORV_GET_BMP, ZORV_GET_AND_CLR_BMP, ZORV_GET_DATABLOCK_BMP}) {
    for (const u32 minor : {0U, 255U, 256U, 0xffffffffU}) {
      log.clear();
      any.minor = minor;
      EXPECT_EQ(raw_command(number, &any), -EINVAL);
      EXPECT_EQ(log.errors(), "<3>ERROR: zorv_char_ioctl(): Invalid ZORV minor=" +
                                  std::to_string(static_cast<s32>(minor)) + "\n");
    }
  }
  { const table_write_guard free_again; }
}

TEST_F(chardev_test, failed_copies_and_allocations_are_bad_addresses) {
  add_filter(disk.path());
  const std::string failed = "<3>ERROR: zorv_char_ioctl(): copy_from_user() failed.\n";
  const struct {
    kernel::fault_site site;
    u64 nth;
    std::string message;
  } table[] = {
      {kernel::fault_site::alloc, 1, "<3>ERROR: zorv_char_ioctl(): Memory allocation failed.\n"},
      {kernel::fault_site::user_copy, 1, failed},
      {kernel::fault_site::user_copy, 2, failed},
  };
  for (const auto& t : table) {
    log.clear();
    zorv_info_req req{};
    kernel::fault_arm(t.site, t.nth, 1, ENOMEM);
    EXPECT_EQ(command(ZORV_GET_INFO, &req), -EFAULT);
    kernel::fault_disarm_all();
    EXPECT_EQ(log.errors(), t.message);
    EXPECT_EQ(req.dev_size, 0U);
  }
  EXPECT_EQ(raw_command(ZORV_GET_INFO, nullptr), -EFAULT);
}

TEST_F(chardev_test, texts_without_an_end_are_cut_to_their_field) {
  zorv_add_filter_req req;
  std::memset(&req, 'a', sizeof req);
  req.name[10] = '\0';
  // The disk is fine, the other texts have no end.
  copy_text_n(req.hdd_name, sizeof req.hdd_name, disk.path().c_str());
  req.minor = -1;
  req.extent_size = 65536;
  EXPECT_EQ(command(ZORV_ADD_FILTER_NODE, &req), -ENAMETOOLONG) << "both files would be one";
  copy_text_n(req.bmp_dir, sizeof req.bmp_dir, dir.path().c_str());
  EXPECT_EQ(command(ZORV_ADD_FILTER_NODE, &req), 0) << log.errors();
  EXPECT_EQ(req.minor, 0);
  EXPECT_EQ(std::string(req.uuid), std::string(38, 'a'));
  EXPECT_EQ(std::string(info(0).name), std::string(10, 'a'));
}

TEST_F(chardev_test, the_device_has_no_data_stream) {
  u32 major = 0;
  const kernel::file_operations* fops = kernel::chrdev_find("zorv", &major);
  ASSERT_NE(fops, nullptr);
  EXPECT_EQ(major, 100U);
  kernel::s64 pos = 0;
  EXPECT_EQ(fops->read(nullptr, 0, 10, &pos), 0);
  EXPECT_EQ(fops->write(nullptr, 0, 10, &pos), 0);
  EXPECT_EQ(pos, 0);
}
