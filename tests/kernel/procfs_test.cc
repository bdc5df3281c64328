// SPDX-License-Identifier: GPL-2.0-only
// The entry tree: what the host sees of it, and entries that go while a handler runs.
#include "kernel/procfs.h"

#include "doubles/fault.h"
#include "support/driver_fixture.h"

using namespace kernel;

namespace {

int show_name(char* page, char**, s64, int, int* eof, void* data) {
  const auto* e = static_cast<proc_dir_entry*>(data);
  *eof = 1;
  return std::snprintf(page, page_size, "%s/%s\n", e->parent->name.c_str(), e->name.c_str());
}

proc_dir_entry* add(const char* name, u32 mode, proc_dir_entry* dir) {
  proc_dir_entry* e = create_proc_entry(name, mode, dir);
  if (e == nullptr) return nullptr;
  e->data = e;
  e->read_proc = show_name;
  return e;
}

struct procfs_test : ::testing::Test {
  proc_dir_entry* root = proc_mkdir("t", nullptr);
  ~procfs_test() override { remove_proc_entry("t", nullptr); }
};

}  // namespace

TEST_F(procfs_test, a_name_is_taken_once_and_only_below_a_live_directory) {
  proc_dir_entry* dir = proc_mkdir("d", root);
  EXPECT_EQ(proc_mkdir("d", root), nullptr);
  EXPECT_EQ(add("d", 0444, root), nullptr);
  EXPECT_EQ(add("a/b", 0444, root), nullptr);
  remove_proc_entry("d", root);
  EXPECT_EQ(add("e", 0444, dir), nullptr) << "the directory is gone";
  EXPECT_TRUE(proc_children(root).empty());
  remove_proc_entry("d", root);  // nothing there: nothing happens
  fault_arm(fault_site::proc_create, 1, 1, ENOMEM);
  EXPECT_EQ(proc_mkdir("d", root), nullptr);
  fault_disarm_all();
}

TEST_F(procfs_test, removal_does_not_wait_and_a_running_handler_keeps_its_entry) {
  static std::atomic<int> inside;
  static std::atomic<bool> go_on;
  inside = 0;
  go_on = false;
  proc_dir_entry* dir = proc_mkdir("d", root);
  proc_dir_entry* e = add("slow", 0444, dir);
  e->read_proc = [](char* page, char** start, s64 offset, int count, int* eof, void* data) {
    inside = 1;
    while (!go_on) std::this_thread::yield();
    return show_name(page, start, offset, count, eof, data);
  };
  std::string text;
  std::thread reader([&] { EXPECT_EQ(proc_read("t/d/slow", &text), 0); });
  const bool entered = zorv_test::eventually([] { return inside != 0; });
  remove_proc_entry("t", nullptr);
  EXPECT_EQ(proc_read("t/d/slow", &text), -ENOENT);
  go_on = true;
  reader.join();
  EXPECT_TRUE(entered);
  EXPECT_EQ(text, "d/slow\n");
}
