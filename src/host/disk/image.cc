// SPDX-License-Identifier: GPL-2.0-only
// Image files as disks. An image belongs to one daemon at a time: a lock over the whole file, of
// the kind that virtual machine monitors respect too, is held from attach to detach.
//
// A file may take its time over being opened, looked at and closed; meanwhile its name and minor
// are taken, and nobody else waits.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "driver/util/file.h"
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
using kernel::s32;
using kernel::u32;
using kernel::u64;

namespace {

constexpr std::size_t max_name_bytes = 127;

// Under the table's lock.
enum class presence {
  coming,   // whoever attaches it works on it alone; name, path and minor do not change
  here,     // found and listed
  leaving,  // whoever detaches it works on it alone
};

struct image {
  presence is = presence::coming;
  attached_disk info{};
  std::string node;  // "/dev/image/NAME"
  int fd = -1;
  kernel::file_claim claim;
  u32 minor = 0;
  bool added = false;
  std::unique_ptr<file_engine> engine;
  gendisk* disk = nullptr;
  std::atomic<s32> openers{0};  // -1: being detached, nobody opens it any more

  void close();
};

struct image_table {
  std::mutex lock;  // held for a look or a change in memory only
  bool registered = false;
  std::vector<std::unique_ptr<image>> images;
};

image_table& table() {
  static image_table& t = *new image_table;  // outlives whoever still has a disk open at exit
  return t;
}

image* image_of(const block_device* bdev) {
  return static_cast<image*>(bdev->bd_disk->private_data);
}

int image_open(block_device* bdev, fmode_t mode) {
  image* i = image_of(bdev);
  if ((mode & kernel::FMODE_WRITE) != 0 && i->info.read_only) return -EROFS;
  s32 n = i->openers.load(std::memory_order_relaxed);
  do {
    if (n < 0) return -ENXIO;
  } while (!i->openers.compare_exchange_weak(n, n + 1, std::memory_order_acq_rel));
  return 0;
}

int image_release(gendisk* disk, fmode_t) {
  static_cast<image*>(disk->private_data)->openers.fetch_sub(1, std::memory_order_acq_rel);
  return 0;
}

template <class T>
int answer(u64 to, T value) {
  return kernel::copy_to_user(to, &value, sizeof value) == 0 ? 0 : -EFAULT;
}

int image_ioctl(block_device* bdev, fmode_t, u32 command, u64 argument) {
  const gendisk* disk = bdev->bd_disk;
  switch (command) {
    case 0x125e:  // BLKROGET
      return answer<s32>(argument, disk->read_only.load(std::memory_order_relaxed) ? 1 : 0);
    case 0x1260:  // BLKGETSIZE, sectors
      return answer<u64>(argument, disk->capacity_sectors.load(std::memory_order_relaxed));
    case 0x1261:  // BLKFLSBUF
      return kernel::fsync_bdev(bdev);
    case 0x1263:  // BLKRAGET, sectors
      return answer<u64>(argument, u64{disk->queue->ra_pages} * kernel::page_size >> 9);
    case 0x1268:  // BLKSSZGET
      return answer<s32>(argument, static_cast<s32>(disk->queue->limits.logical_block_bytes));
    case 0x80081270:  // BLKBSZGET; an int, whatever size its number says
      return answer<s32>(argument, static_cast<s32>(bdev->bd_block_bytes));
    default:
      return -ENOTTY;
  }
}

int image_flush_cache(block_device* bdev) { return image_of(bdev)->engine->sync(); }

int image_identity(block_device* bdev, char* text, std::size_t bytes) {
  const image* i = image_of(bdev);
  std::string found;
  const int rc = file_disk_identity(i->fd, i->info.path, &found);
  if (rc == 0) copy_text_n(text, bytes, found.c_str());
  return rc != 0 || found.size() < bytes ? rc : -ENAMETOOLONG;
}

// There is nothing to invalidate: the page cache of the file is the medium here, not a copy of it.
const kernel::block_device_operations image_bdops = {
    .open = image_open,
    .release = image_release,
    .ioctl = image_ioctl,
    .flush_cache = image_flush_cache,
    .invalidate = nullptr,
    .mounted = nullptr,
    .identity = image_identity,
};

void image::close() {
  if (added) {
    zorv_unlink(node.c_str());
    kernel::del_gendisk(disk);
  }
  if (disk != nullptr) {
    if (disk->queue != nullptr) kernel::blk_cleanup_queue(disk->queue);
    kernel::put_disk(disk);
  }
  engine.reset();
  if (fd >= 0) ::close(fd);  // gives the lock back
}

int fail(std::string* error, int code, std::string text) {
  if (error != nullptr) *error = std::move(text);
  return code;
}

std::string errno_text(int code) { return std::strerror(code < 0 ? -code : code); }

std::string default_name(const std::string& path) {
  std::string base = path.substr(path.rfind('/') + 1);
  if (const auto dot = base.rfind('.'); dot != std::string::npos && dot != 0) base.resize(dot);
  return base;
}

bool good_name(const std::string& name) {
  return !name.empty() && name.size() <= max_name_bytes && name != "." && name != ".." &&
         std::all_of(name.begin(), name.end(), [](char c) {
           return static_cast<unsigned char>(c) > ' ' && c != '/' && c != 0x7f;
         });
}

// Against everything else in this daemon that the file may be.
int claim(image* i, std::string* error) {
  kernel::file_id id;
  int rc = kernel::fd_identity(i->fd, &id);
  if (rc != 0) return fail(error, rc, i->info.path + ": " + errno_text(rc));
  char whose[kernel::file_claim::owner_bytes] = {};
  rc = kernel::claim_file(id, ("disk " + i->node).c_str(), &i->claim, &whose);
  if (rc == -EBUSY) {
    return fail(error, rc, i->info.path + " is in use here already, as " + whose + ".");
  }
  return rc == 0 ? 0 : fail(error, rc, i->info.path + ": " + errno_text(rc));
}

// Opens, claims and locks the file and learns its size.
int take_file(image* i, std::string* error) {
  const std::string& path = i->info.path;
  const bool ro = i->info.read_only;
  i->fd = ::open(path.c_str(), (ro ? O_RDONLY : O_RDWR) | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (i->fd < 0) return fail(error, -errno, path + ": " + errno_text(errno));
  struct stat st;
  if (::fstat(i->fd, &st) != 0) return fail(error, -errno, path + ": " + errno_text(errno));
  if (!S_ISREG(st.st_mode)) return fail(error, -EINVAL, path + " is not a regular file.");
  if (st.st_size < kernel::sector_size) {
    return fail(error, -EINVAL, path + " is shorter than one sector of 512 bytes.");
  }
  if (const int rc = claim(i, error); rc != 0) return rc;
  struct flock whole = {};
  whole.l_type = ro ? F_RDLCK : F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (::fcntl(i->fd, F_OFD_SETLK, &whole) != 0) {
    if (errno == EAGAIN || errno == EACCES) {
      return fail(error, -EBUSY, path + " is in use by another program that has locked it.");
    }
    return fail(error, -errno, path + " cannot be locked: " + errno_text(errno));
  }
  if (const std::string who = ro ? "" : writer_elsewhere(i->fd, path); !who.empty()) {
    return fail(error, -EBUSY, path + " is open for writing elsewhere: by " + who + ".");
  }
  i->info.size_bytes = static_cast<u64>(st.st_size) & ~u64{kernel::sector_size - 1};
  if (const auto tail = static_cast<u64>(st.st_size) - i->info.size_bytes; tail != 0) {
    kernel::printk("<6>zorvd: %s: the last %llu bytes are no whole sector and are not served.\n",
                   path.c_str(), static_cast<unsigned long long>(tail));
  }
  return 0;
}

u32 lowest_free_minor() {
  u32 minor = 0;
  while (std::any_of(table().images.begin(), table().images.end(),
                     [minor](const auto& i) { return i->minor == minor; })) {
    ++minor;
  }
  return minor;
}

int add_image_disk(image* i, std::string* error) {
  const auto no_memory = [&] { return fail(error, -ENOMEM, "Not enough memory for a disk."); };
  i->engine = file_engine::create(i->fd, engine_backing::regular_file, i->node.c_str());
  if (i->engine == nullptr) return no_memory();
  if ((i->disk = kernel::alloc_disk(1)) == nullptr) return no_memory();
  if ((i->disk->queue = kernel::blk_alloc_queue(kernel::GFP_KERNEL)) == nullptr) return no_memory();
  i->engine->attach(i->disk->queue);
  i->disk->major = image_major;
  i->disk->first_minor = i->minor;
  copy_text_n(i->disk->disk_name, sizeof i->disk->disk_name, i->info.name.c_str());
  i->disk->fops = &image_bdops;
  i->disk->private_data = i;
  kernel::set_capacity(i->disk, i->info.size_bytes >> kernel::sector_shift);
  kernel::set_disk_ro(i->disk, i->info.read_only ? 1 : 0);
  kernel::add_disk(i->disk);
  i->added = true;
  if (const int rc = zorv_mknod(i->node.c_str(), 1, image_major, i->minor); rc != 0) {
    return fail(error, rc, i->node + " cannot be made: " + errno_text(rc));
  }
  return 0;
}

// Takes a name and a minor for it.
//   locks    the table's
int take_place_locked(std::unique_ptr<image> i, std::string* error) {
  image_table& t = table();
  if (!t.registered) {
    const int rc = kernel::register_blkdev(image_major, "image");
    if (rc != 0) return fail(error, rc, "The images' device major is taken.");
    t.registered = true;
  }
  for (const auto& other : t.images) {
    if (other->info.name == i->info.name) {
      return fail(
          error, -EEXIST,
          "A disk named " + i->info.name + " is attached already (" + other->info.path + ").");
    }
  }
  i->minor = lowest_free_minor();
  t.images.push_back(std::move(i));
  return 0;
}

void set_presence(image* i, presence is) {
  const std::lock_guard guard(table().lock);
  i->is = is;
}

// One that is coming or leaving goes.
void let_go(image* i) {
  i->close();
  const std::lock_guard guard(table().lock);
  std::erase_if(table().images, [i](const auto& other) { return other.get() == i; });
}

//   name     empty: the file's
//   returns  the image in its place | null, and the code
image* take_place(const std::string& path, const std::string& name, access mode, int* rc,
                  std::string* error) {
  const std::unique_ptr<char, decltype(&::free)> full(::realpath(path.c_str(), nullptr), ::free);
  if (full == nullptr) {
    *rc = fail(error, -errno, path + ": " + errno_text(errno));
    return nullptr;
  }
  auto fresh = std::make_unique<image>();
  fresh->info.path = full.get();
  fresh->info.name = name.empty() ? default_name(fresh->info.path) : name;
  fresh->info.read_only = mode == access::read_only;
  fresh->node = "/dev/image/" + fresh->info.name;
  if (!good_name(fresh->info.name)) {
    *rc = fail(error, -EINVAL,
               "'" + fresh->info.name + "' is no good name for a disk: 1 to 127 bytes, no space, " +
                   "no '/'.");
    return nullptr;
  }
  image* i = fresh.get();
  const std::lock_guard guard(table().lock);
  *rc = take_place_locked(std::move(fresh), error);
  return *rc == 0 ? i : nullptr;
}

int fill_place(image* i, std::string* used_name, std::string* error) try {
  if (used_name != nullptr) *used_name = i->info.name;
  const int rc = take_file(i, error);
  return rc != 0 ? rc : add_image_disk(i, error);
} catch (const std::bad_alloc&) {
  return -ENOMEM;
}

bool claim_for_detach(image* i) {
  s32 free = 0;
  return i->openers.compare_exchange_strong(free, -1, std::memory_order_acq_rel);
}

// The first that is here, fits and is not open, leaving from now on; or null.
//   open  set when one fits but is open
template <class Fits>
image* begin_detach(Fits fits, bool* open) {
  const std::lock_guard guard(table().lock);
  for (const auto& i : table().images) {
    if (i->is != presence::here || !fits(*i)) continue;
    if (claim_for_detach(i.get())) {
      i->is = presence::leaving;
      return i.get();
    }
    *open = true;
  }
  return nullptr;
}

}  // namespace

int image_attach(const std::string& path, const std::string& name, access mode, std::string* error,
                 std::string* used_name) try {
  int rc = 0;
  image* i = take_place(path, name, mode, &rc, error);
  if (i == nullptr) return rc;
  rc = fill_place(i, used_name, error);
  if (rc != 0) {
    let_go(i);
    return rc;
  }
  set_presence(i, presence::here);
  return 0;
} catch (const std::bad_alloc&) {
  return -ENOMEM;
}

int image_detach(const std::string& name, std::string* error) {
  bool open = false;
  image* i = begin_detach([&name](const image& one) { return one.info.name == name; }, &open);
  if (open) return fail(error, -EBUSY, name + " is in use by a node or a client.");
  if (i == nullptr) return fail(error, -ENOENT, "No disk named " + name + " is attached.");
  let_go(i);
  return 0;
}

std::vector<attached_disk> image_list() {
  image_table& t = table();
  const std::lock_guard guard(t.lock);
  std::vector<attached_disk> list;
  for (const auto& i : t.images) {
    if (i->is != presence::here) continue;
    list.push_back(i->info);
    list.back().openers = i->openers.load(std::memory_order_relaxed);
  }
  return list;
}

void image_detach_all() {
  image_table& t = table();
  bool open = false;
  while (image* i = begin_detach([](const image&) { return true; }, &open)) let_go(i);
  const std::lock_guard guard(t.lock);
  if (t.images.empty() && t.registered) {
    kernel::unregister_blkdev(image_major, "image");
    t.registered = false;
  }
}

}  // namespace zorv
