// SPDX-License-Identifier: GPL-2.0-only
// The table of disks, and the life of a disk.
//
// A gendisk and its block_device are one object. It is counted: the owner holds one reference
// from alloc_disk() to put_disk(), so does every opener, and so does every request while it is
// being submitted. The queue is counted by its owner and by the disk. So del_gendisk() never has
// to wait for memory's sake.
#include "kernel/blkdev.h"

#include <cassert>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "kernel/fault.h"
#include "kernel/mem.h"
#include "kernel/printk.h"

namespace kernel {
namespace {

struct disk_object {
  gendisk disk;
  block_device bdev;
};

struct disk_table {
  spinlock_t lock;
  list_of<gendisk> disks GUARDED_BY(lock);
};

// Never destroyed: front ends may hold a disk until the process ends.
disk_table& table() {
  static auto* t = new disk_table;
  return *t;
}

// The object starts with its disk.
disk_object* object_of(gendisk* disk) { return reinterpret_cast<disk_object*>(disk); }
static_assert(offsetof(disk_object, disk) == 0);

void queue_put(request_queue* q) {
  if (q->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) kdelete(q);
}

gendisk* find_locked(devt dev) REQUIRES(table().lock) {
  for (gendisk& disk : table().disks) {
    if (disk.major != major_of(dev)) continue;
    const u32 minor = minor_of(dev);
    if (minor >= disk.first_minor && minor - disk.first_minor < disk.minors) return &disk;
  }
  return nullptr;
}

// Finds the disk and counts one more opener of it, or null.
gendisk* find_and_count(devt dev) {
  spin_guard lock(&table().lock);
  gendisk* disk = find_locked(dev);
  if (disk == nullptr) return nullptr;
  disk->refs.fetch_add(1, std::memory_order_relaxed);
  disk->bdev->bd_openers.fetch_add(1);
  return disk;
}

void wait_for_submissions(block_device* bdev) {
  constexpr u64 limit_jiffies = 50;
  const u64 deadline = jiffies() + limit_jiffies;
  while (bdev->bd_submitting.load() != 0 && !time_after(jiffies(), deadline)) yield();
}

void take_away_locked(gendisk* disk) REQUIRES(table().lock) {
  disk->link.unlink();
  disk->bdev->bd_live.store(false);
}

constexpr u32 max_probes = 8;
constexpr u32 max_majors = 4096;

struct major_table {
  spinlock_t lock;
  char names[max_majors][16] GUARDED_BY(lock);
};
constinit major_table majors{};

constinit std::atomic<blk_probe_fn> probes[max_probes]{};

}  // namespace

gendisk* alloc_disk(u32 minors) {
  auto* object = knew<disk_object>(GFP_KERNEL);
  if (object == nullptr) return nullptr;
  object->disk.minors = minors;
  object->bdev.bd_disk = &object->disk;
  return &object->disk;
}

void put_disk(gendisk* disk) {
  if (disk->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  if (disk->has_queue_ref) queue_put(disk->queue);
  kdelete(object_of(disk));
}

request_queue* blk_alloc_queue(gfp_t flags) { return knew<request_queue>(flags); }

void blk_release_queue(request_queue* q) { queue_put(q); }

void blk_queue_make_request(request_queue* q, make_request_fn fn) { q->make_request = fn; }

void set_capacity(gendisk* disk, sector_t sectors) { disk->capacity_sectors.store(sectors); }

void set_disk_ro(gendisk* disk, int read_only) { disk->read_only.store(read_only != 0); }

void add_disk(gendisk* disk) {
  block_device* bdev = &object_of(disk)->bdev;
  bdev->bd_dev = mkdev(disk->major, disk->first_minor);
  bdev->bd_size_bytes =
      disk->size_bytes != 0 ? disk->size_bytes : disk->capacity_sectors.load() << sector_shift;
  bdev->bd_block_bytes = sector_size;
  while (bdev->bd_block_bytes < page_size && (bdev->bd_size_bytes & bdev->bd_block_bytes) == 0) {
    bdev->bd_block_bytes <<= 1;
  }
  if (!disk->has_queue_ref) {
    disk->queue->refs.fetch_add(1, std::memory_order_relaxed);
    disk->has_queue_ref = true;
  }
  spin_guard lock(&table().lock);
  assert(find_locked(bdev->bd_dev) == nullptr);
  disk->bdev = bdev;
  bdev->bd_live.store(true);
  table().disks.push_back(&disk->link);
}

void del_gendisk(gendisk* disk) {
  might_sleep("del_gendisk");
  {
    spin_guard lock(&table().lock);
    if (disk->bdev == nullptr) return;
    take_away_locked(disk);
  }
  wait_for_submissions(disk->bdev);
}

void blk_wait_submitted(gendisk* disk) {
  might_sleep("blk_wait_submitted");
  if (disk->bdev == nullptr) return;
  while (disk->bdev->bd_submitting.load() != 0) yield();
}

bool del_gendisk_unused(gendisk* disk) {
  might_sleep("del_gendisk_unused");
  {
    spin_guard lock(&table().lock);
    if (disk->bdev == nullptr || disk->bdev->bd_openers.load() != 0) return false;
    take_away_locked(disk);
  }
  wait_for_submissions(disk->bdev);
  return true;
}

bool blkdev_begin_submit(block_device* bdev) {
  // Either this sees the disk gone, or del_gendisk() sees this submission.
  bdev->bd_disk->refs.fetch_add(1, std::memory_order_relaxed);
  bdev->bd_submitting.fetch_add(1);
  if (bdev->bd_live.load()) return true;
  blkdev_end_submit(bdev);
  return false;
}

void blkdev_end_submit(block_device* bdev) {
  bdev->bd_submitting.fetch_sub(1);
  put_disk(bdev->bd_disk);
}

// ---- majors and opening --------------------------------------------------------------------

// The host's driver of that major, or "".
static std::string host_driver_of(u32 major) {
  std::ifstream devices("/proc/devices");
  std::string line;
  while (std::getline(devices, line) && line != "Block devices:") {
  }
  u32 number = 0;
  while (devices >> number >> line) {
    if (number == major) return line;
  }
  return "";
}

int register_blkdev(u32 major, const char* name) {
  might_sleep("register_blkdev");
  if (const int error = fault_check(fault_site::blkdev_register)) return error;
  if (major >= max_majors) return -EINVAL;
  if (const std::string driver = host_driver_of(major); major != 0 && !driver.empty()) {
    printk("<3>register_blkdev: major %u is taken by the host's driver %s\n", major,
           driver.c_str());
    return -EBUSY;
  }
  constexpr u32 lowest_dynamic_major = 512, highest_dynamic_major = 3839;
  spin_guard lock(&majors.lock);
  u32 chosen = major;
  if (major == 0) {
    chosen = highest_dynamic_major;
    while (chosen >= lowest_dynamic_major && majors.names[chosen][0] != 0) --chosen;
    if (chosen < lowest_dynamic_major) return -EBUSY;
  }
  if (majors.names[chosen][0] != 0) return -EBUSY;
  std::snprintf(majors.names[chosen], sizeof(majors.names[chosen]), "%s",
                name[0] != 0 ? name : "?");
  return major == 0 ? static_cast<int>(chosen) : 0;
}

void unregister_blkdev(u32 major, const char* name) {
  if (major >= max_majors) return;
  spin_guard lock(&majors.lock);
  if (std::strncmp(majors.names[major], name, sizeof(majors.names[major]) - 1) == 0) {
    majors.names[major][0] = 0;
  }
}

bool blkdev_registered(u32 major) {
  spin_guard lock(&majors.lock);
  return major < max_majors && majors.names[major][0] != 0;
}

void blk_register_probe(blk_probe_fn fn) {
  for (auto& slot : probes) {
    blk_probe_fn expected = nullptr;
    if (slot.compare_exchange_strong(expected, fn) || expected == fn) return;
  }
  assert(!"too many probes");
}

block_device* open_by_devnum(devt dev, fmode_t mode) {
  might_sleep("open_by_devnum");
  gendisk* disk = find_and_count(dev);
  for (u32 i = 0; disk == nullptr && i < max_probes; ++i) {
    const blk_probe_fn probe = probes[i].load();
    if (probe != nullptr && probe(dev)) disk = find_and_count(dev);
  }
  if (disk == nullptr) return err_ptr<block_device>(-ENXIO);
  block_device* bdev = disk->bdev;
  const int error =
      disk->fops != nullptr && disk->fops->open != nullptr ? disk->fops->open(bdev, mode) : 0;
  if (error != 0) {
    bdev->bd_openers.fetch_sub(1);
    put_disk(disk);
    return err_ptr<block_device>(error);
  }
  return bdev;
}

void blkdev_put(block_device* bdev, fmode_t mode) {
  might_sleep("blkdev_put");
  gendisk* disk = bdev->bd_disk;
  if (disk->fops != nullptr && disk->fops->release != nullptr) disk->fops->release(disk, mode);
  bdev->bd_openers.fetch_sub(1);
  put_disk(disk);
}

int bdev_identity(block_device* bdev, char* text, std::size_t bytes) {
  might_sleep("bdev_identity");
  text[0] = 0;
  const block_device_operations* ops = bdev->bd_disk->fops;
  if (ops == nullptr || ops->identity == nullptr) return -ENODATA;
  const int error = ops->identity(bdev, text, bytes);
  if (error != 0) text[0] = 0;
  return error;
}

int fsync_bdev(block_device* bdev) {
  might_sleep("fsync_bdev");
  const block_device_operations* ops = bdev->bd_disk->fops;
  return ops != nullptr && ops->flush_cache != nullptr ? ops->flush_cache(bdev) : 0;
}

int invalidate_bdev(block_device* bdev) {
  might_sleep("invalidate_bdev");
  const block_device_operations* ops = bdev->bd_disk->fops;
  return ops != nullptr && ops->invalidate != nullptr ? ops->invalidate(bdev) : 0;
}

super_block* get_super(block_device* bdev) {
  might_sleep("get_super");
  const block_device_operations* ops = bdev->bd_disk->fops;
  const bool mounted = ops != nullptr && ops->mounted != nullptr && ops->mounted(bdev) != 0;
  return mounted ? &bdev->bd_super : nullptr;
}

void drop_super(super_block* sb) { (void)sb; }

}  // namespace kernel
