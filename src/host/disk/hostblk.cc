// SPDX-License-Identifier: GPL-2.0-only
// Block devices of the host as disks. One is brought in when its number is first opened and goes
// away when the last opener closes it, so that the host holds it no longer than we use it.
//
// The host lets one holder have a device for itself: a mounted file system, a volume manager, swap,
// or us. Where another has it, the device is brought in all the same and says so, because the
// refusal, and its reason, are the driver's to give.
//
// A device may take its time over being opened and closed: nobody but who asks for that device
// waits.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <new>
#include <sstream>

#include "driver/core/types.h"
#include "host/disk/below.h"
#include "host/disk/disk.h"
#include "host/disk/engine.h"
#include "host/disk/identity.h"
#include "host/disk/in_use.h"
#include "kernel/claim.h"
#include "kernel/printk.h"
#include "kernel/uaccess.h"

namespace zorv {

using kernel::block_device;
using kernel::fmode_t;
using kernel::gendisk;

namespace {

// A layer that disks stand on, or a disk itself: nobody else's as long as one of them is here.
struct layer_claim {
  std::string user;  // as in struct layer
  kernel::file_claim claim;
};

enum class presence {
  coming,  // whoever brings it in works on it alone
  here,
  leaving,  // nobody opens it any more; whoever closes it works on it alone
};

struct host_disk {
  presence is = presence::coming;  // under the table's lock
  std::string path;
  devt dev = 0;
  int fd = -1;
  bool read_only = false;
  bool shared = false;  // somebody else holds it
  s32 openers = 0;      // under the table's lock
  bool added = false;
  std::vector<std::shared_ptr<layer_claim>> layers;
  std::unique_ptr<file_engine> engine;
  gendisk* disk = nullptr;

  void close();
};

// Held for a look or a change in memory only.
struct host_table {
  std::mutex lock;
  std::condition_variable settled;  // one has come or gone
  std::map<devt, std::unique_ptr<host_disk>> disks;
  std::map<std::pair<u64, u64>, std::weak_ptr<layer_claim>> layers;  // by file_id
};

host_table& table() {
  static host_table& t = *new host_table;  // outlives whoever still has a disk open at exit
  return t;
}

// One that is leaving goes.
void let_go(host_disk* h) {
  h->close();
  {
    const std::lock_guard guard(table().lock);
    table().disks.erase(h->dev);
  }
  table().settled.notify_all();
}

// The disk of that number when it is neither coming nor leaving, or null.
host_disk* wait_for(devt dev, std::unique_lock<std::mutex>& guard) {
  host_disk* found = nullptr;
  table().settled.wait(guard, [dev, &found] {
    const auto at = table().disks.find(dev);
    found = at != table().disks.end() ? at->second.get() : nullptr;
    return found == nullptr || found->is == presence::here;
  });
  return found;
}

int host_open(block_device* bdev, fmode_t mode) {
  std::unique_lock guard(table().lock);
  host_disk* h = wait_for(bdev->bd_dev, guard);
  // It may have gone away between the look-up and the opening, and another have come.
  if (h == nullptr || h->disk != bdev->bd_disk) return -ENXIO;
  if ((mode & kernel::FMODE_WRITE) == 0 || !h->read_only) {
    ++h->openers;
    return 0;
  }
  if (h->openers != 0) return -EROFS;
  h->is = presence::leaving;
  guard.unlock();
  let_go(h);
  return -EROFS;
}

// While somebody has the device open, it stays.
host_disk* opened(const gendisk* disk) { return static_cast<host_disk*>(disk->private_data); }
host_disk* opened(const block_device* bdev) { return opened(bdev->bd_disk); }

int host_release(gendisk* disk, fmode_t) {
  host_disk* h = opened(disk);
  {
    const std::lock_guard guard(table().lock);
    if (--h->openers != 0) return 0;
    h->is = presence::leaving;
  }
  let_go(h);
  return 0;
}

int host_result(int rc) { return rc == 0 ? 0 : -errno; }

// Asks the host for a value and hands it to the caller.
template <class T>
int get_value(int fd, u32 command, u64 argument) {
  T value{};
  if (::ioctl(fd, command, &value) != 0) return -errno;
  return kernel::copy_to_user(argument, &value, sizeof value) == 0 ? 0 : -EFAULT;
}

template <class T>
int set_value(int fd, u32 command, u64 argument) {
  T value{};
  if (kernel::copy_from_user(&value, argument, sizeof value) != 0) return -EFAULT;
  return host_result(::ioctl(fd, command, &value));
}

// Only commands whose argument is known here can be translated to our memory. The others would
// also change contents (discard, zero out) behind the back of the bitmaps.
int host_ioctl(block_device* bdev, fmode_t, u32 command, u64 argument) {
  const host_disk* h = opened(bdev);
  switch (command) {
    case BLKROSET:
      return set_value<int>(h->fd, command, argument);
    case BLKROGET:
    case BLKSSZGET:
      return get_value<int>(h->fd, command, argument);
    case BLKBSZGET:
      return get_value<int>(h->fd, BLKBSZGET, argument);
    case BLKBSZSET:
      return set_value<int>(h->fd, BLKBSZSET, argument);
    case BLKGETSIZE:
      return get_value<unsigned long>(h->fd, command, argument);
    case BLKRAGET:
      return get_value<long>(h->fd, command, argument);
    case BLKFLSBUF:
      return host_result(::ioctl(h->fd, BLKFLSBUF, 0));
    case BLKRASET:
      return host_result(::ioctl(h->fd, BLKRASET, argument));
    default:
      return -ENOTTY;
  }
}

int host_flush_cache(block_device* bdev) { return opened(bdev)->engine->sync(); }

int host_invalidate(block_device* bdev) {
  return -::posix_fadvise(opened(bdev)->fd, 0, 0, POSIX_FADV_DONTNEED);
}

// Whether a file system on the device is mounted where this process can see it.
int host_mounted(block_device* bdev) {
  char number[32];
  std::snprintf(number, sizeof number, "%u:%u", kernel::major_of(bdev->bd_dev),
                kernel::minor_of(bdev->bd_dev));
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    std::string id, parent, dev;
    if (fields >> id >> parent >> dev && dev == number) return 1;
  }
  return 0;
}

int host_identity(block_device* bdev, char* text, std::size_t bytes) {
  std::string found;
  const int rc = device_disk_identity(bdev->bd_dev, host_trees{}, &found);
  if (rc == 0) copy_text_n(text, bytes, found.c_str());
  return rc != 0 || found.size() < bytes ? rc : -ENAMETOOLONG;
}

const kernel::block_device_operations host_bdops = {
    .open = host_open,
    .release = host_release,
    .ioctl = host_ioctl,
    .flush_cache = host_flush_cache,
    .invalidate = host_invalidate,
    .mounted = host_mounted,
    .identity = host_identity,
};

void host_disk::close() {
  if (added) kernel::del_gendisk(disk);
  if (disk != nullptr) {
    if (disk->queue != nullptr) kernel::blk_cleanup_queue(disk->queue);
    kernel::put_disk(disk);
  }
  engine.reset();
  if (fd >= 0) ::close(fd);
}

// "/dev/sda1" of 8:1, by what the host says of the number; empty when it has no such device.
std::string node_of(devt dev) {
  char path[64];
  std::snprintf(path, sizeof path, "/sys/dev/block/%u:%u/uevent", kernel::major_of(dev),
                kernel::minor_of(dev));
  static constexpr std::string_view key = "DEVNAME=";
  std::ifstream uevent(path);
  std::string line;
  while (std::getline(uevent, line)) {
    if (line.rfind(key, 0) == 0) return "/dev/" + line.substr(key.size());
  }
  return "";
}

// Opens with the best access that there is: alone, then beside others; to write, then to read.
int open_node(host_disk* h) {
  static constexpr struct {
    int flags;
    bool read_only, shared;
  } ways[] = {
      {O_RDWR | O_EXCL, false, false},
      {O_RDONLY | O_EXCL, true, false},
      {O_RDWR, false, true},
      {O_RDONLY, true, true},
  };
  int error = 0;
  for (const auto& way : ways) {
    // Beside others only where that is what was in the way.
    if (way.shared && error != -EBUSY) break;
    h->fd = ::open(h->path.c_str(), way.flags | O_CLOEXEC);
    if (h->fd >= 0) {
      h->read_only = way.read_only;
      h->shared = way.shared;
      return 0;
    }
    error = -errno;
    if (error != -EBUSY && error != -EROFS && error != -EACCES && error != -EPERM) break;
  }
  return error;
}

// The number may have gone to another device since the name was found.
bool is_device(int fd, devt dev) {
  struct stat st {};
  return ::fstat(fd, &st) == 0 && S_ISBLK(st.st_mode) &&
         st.st_rdev == makedev(kernel::major_of(dev), kernel::minor_of(dev));
}

void take_limits(int fd, kernel::request_queue* q) {
  unsigned value = 0;
  int logical = 0;
  long read_ahead_sectors = 0;
  if (::ioctl(fd, BLKSSZGET, &logical) == 0) {
    q->limits.logical_block_bytes = static_cast<u32>(logical);
  }
  if (::ioctl(fd, BLKPBSZGET, &value) == 0) q->limits.physical_block_bytes = value;
  if (::ioctl(fd, BLKIOMIN, &value) == 0) q->limits.io_min_bytes = value;
  if (::ioctl(fd, BLKIOOPT, &value) == 0) q->limits.io_opt_bytes = value;
  if (::ioctl(fd, BLKRAGET, &read_ahead_sectors) == 0) {
    q->ra_pages = static_cast<u32>(read_ahead_sectors * kernel::sector_size / kernel::page_size);
  }
}

// What two of our disks have in common they share as partitions and volumes do, or one of them is
// the other by another name and its writes would pass the other's filter.
//   locks    the table's
//   returns  "" | whose the layer is
std::string take_layer(host_disk* h, const layer& l) {
  std::weak_ptr<layer_claim>& known = table().layers[{l.id.dev, l.id.ino}];
  std::shared_ptr<layer_claim> taken = known.lock();
  if (taken == nullptr || taken->user != l.user) {
    taken = std::make_shared<layer_claim>();
    taken->user = l.user;
    const std::string owner = l.id.dev == 0 ? "what is below " + h->path : l.user + "'s file";
    char whose[kernel::file_claim::owner_bytes] = {};
    if (kernel::claim_file(l.id, owner.c_str(), &taken->claim, &whose) != 0) return whose;
    known = taken;
  }
  h->layers.push_back(std::move(taken));
  return "";
}

// Whoever works on the device without having it alone.
std::string other_user(host_disk* h) {
  if (h->shared) return "an exclusive holder";
  std::vector<layer> layers = layers_below(h->dev);
  layers.push_back({device_as_file(h->dev), h->path});
  {
    const std::lock_guard guard(table().lock);
    std::erase_if(table().layers, [](const auto& known) { return known.second.expired(); });
    for (const layer& l : layers) {
      if (std::string who = take_layer(h, l); !who.empty()) return who;
    }
  }
  return writer_elsewhere(h->fd, h->path);
}

int add_host_disk(host_disk* h) {
  // A device that the host calls read-only may be opened for writing all the same.
  int read_only = 0;
  if (::ioctl(h->fd, BLKROGET, &read_only) == 0 && read_only != 0) h->read_only = true;
  u64 size_bytes = 0;
  if (::ioctl(h->fd, BLKGETSIZE64, &size_bytes) != 0) return -errno;
  if (size_bytes < kernel::sector_size) return -ENOMEDIUM;
  h->engine = file_engine::create(h->fd, engine_backing::block_device, h->path.c_str());
  if (h->engine == nullptr) return -ENOMEM;
  if ((h->disk = kernel::alloc_disk(1)) == nullptr) return -ENOMEM;
  if ((h->disk->queue = kernel::blk_alloc_queue(kernel::GFP_KERNEL)) == nullptr) return -ENOMEM;
  h->engine->attach(h->disk->queue);
  take_limits(h->fd, h->disk->queue);
  h->disk->major = kernel::major_of(h->dev);
  h->disk->first_minor = kernel::minor_of(h->dev);
  copy_text_n(h->disk->disk_name, sizeof h->disk->disk_name,
              h->path.substr(h->path.rfind('/') + 1).c_str());
  h->disk->fops = &host_bdops;
  h->disk->private_data = h;
  kernel::set_capacity(h->disk, size_bytes >> kernel::sector_shift);
  kernel::set_disk_ro(h->disk, h->read_only ? 1 : 0);
  kernel::add_disk(h->disk);
  if (const std::string who = other_user(h); !who.empty()) {
    kernel::printk("<6>zorvd: %s is in use by %s.\n", h->path.c_str(), who.c_str());
    h->disk->bdev->bd_other_openers.store(1);
  }
  h->added = true;
  return 0;
}

bool bring_in(host_disk* h) try {
  h->path = node_of(h->dev);
  if (h->path.empty()) return false;
  int rc = open_node(h);
  if (rc == 0 && !is_device(h->fd, h->dev)) rc = -ENXIO;
  if (rc == 0) rc = add_host_disk(h);
  if (rc == 0) return true;
  kernel::printk("<3>zorvd: %s cannot be used: %s\n", h->path.c_str(), std::strerror(-rc));
  return false;
} catch (const std::bad_alloc&) {
  return false;
}

// A place in the table, taken; null when the disk is there already or memory is short.
host_disk* take_place(devt dev, bool* there) try {
  auto fresh = std::make_unique<host_disk>();
  fresh->dev = dev;
  std::unique_lock guard(table().lock);
  *there = wait_for(dev, guard) != nullptr;
  return *there ? nullptr : table().disks.emplace(dev, std::move(fresh)).first->second.get();
} catch (const std::bad_alloc&) {
  return nullptr;
}

bool probe(devt dev) {
  bool there = false;
  host_disk* h = take_place(dev, &there);
  if (h == nullptr) return there;
  const bool usable = bring_in(h);
  {
    const std::lock_guard guard(table().lock);
    h->is = usable ? presence::here : presence::leaving;
  }
  if (usable) {
    table().settled.notify_all();
  } else {
    let_go(h);
  }
  return usable;
}

}  // namespace

void host_block_init() { kernel::blk_register_probe(probe); }

}  // namespace zorv
