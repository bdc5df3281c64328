// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/chrdev.h"

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/fault.h"
#include "kernel/fs.h"
#include "kernel/task.h"

namespace kernel {
namespace {

constexpr u32 max_major = 4095;
constexpr u32 first_dynamic_major = 254;  // free ones are handed out downwards from here

struct region {
  u32 major, base, count;
  std::string name;
  const file_operations* fops;
};

struct region_table {
  std::mutex lock;
  std::vector<region> regions;

  bool taken(u32 major, u32 base, u32 count) const {
    for (const region& r : regions) {
      if (r.major == major && base < r.base + r.count && r.base < base + count) return true;
    }
    return false;
  }
};

region_table& the_table() {
  static region_table& table = *new region_table;
  return table;
}

}  // namespace

int register_chrdev_region(u32 major, u32 base, u32 count, const char* name,
                           const file_operations* fops) {
  if (const int rc = fault_check(fault_site::chrdev_register); rc != 0) return rc;
  if (major > max_major) return -EINVAL;
  auto& table = the_table();
  const std::scoped_lock guard(table.lock);
  u32 chosen = major;
  if (major == 0) {
    chosen = first_dynamic_major;
    while (chosen > 0 && table.taken(chosen, base, count)) chosen--;
    if (chosen == 0) return -EBUSY;
  } else if (table.taken(major, base, count)) {
    return -EBUSY;
  }
  table.regions.push_back({chosen, base, count, name, fops});
  return major == 0 ? static_cast<int>(chosen) : 0;
}

void unregister_chrdev_region(u32 major, u32 base, u32 count, const char* name) {
  auto& table = the_table();
  const std::scoped_lock guard(table.lock);
  std::erase_if(table.regions, [&](const region& r) {
    return r.major == major && r.base == base && r.count == count && r.name == name;
  });
}

const file_operations* chrdev_find(const char* name, u32* major) {
  auto& table = the_table();
  const std::scoped_lock guard(table.lock);
  for (const region& r : table.regions) {
    if (r.name != name) continue;
    if (major != nullptr) *major = r.major;
    return r.fops;
  }
  return nullptr;
}

int chrdev_ioctl(const char* name, u32 command, user_addr argument) {
  might_sleep("chrdev_ioctl");
  u32 major = 0;
  const file_operations* fops = chrdev_find(name, &major);
  if (fops == nullptr) return -ENODEV;
  inode node;
  node.i_mode = S_IFCHR_ | 0600;
  node.i_rdev = mkdev(major, 0);
  if (fops->open != nullptr) {
    if (const int rc = fops->open(&node, nullptr); rc != 0) return rc;
  }
  const int rc = fops->ioctl != nullptr ? fops->ioctl(&node, nullptr, command, argument) : -ENOTTY;
  if (fops->release != nullptr) fops->release(&node, nullptr);
  return rc;
}

}  // namespace kernel
