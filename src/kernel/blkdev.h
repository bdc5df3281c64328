// SPDX-License-Identifier: GPL-2.0-only
// Block devices: disks, their request queues, opening, plugging, and freezing.
#pragma once

#include <atomic>
#include <cstddef>

#include "kernel/bio.h"
#include "kernel/lock.h"
#include "kernel/types.h"

namespace kernel {

struct block_device;
struct gendisk;
struct request_queue;

using fmode_t = u32;
constexpr fmode_t FMODE_READ = 1;
constexpr fmode_t FMODE_WRITE = 2;

struct queue_limits {
  u32 logical_block_bytes = 512;
  u32 physical_block_bytes = 4096;
  u32 io_min_bytes = 4096;
  u32 io_opt_bytes = 0;
};

using make_request_fn = int (*)(request_queue*, bio*);
using unplug_fn = void (*)(request_queue*);

// A queue's own list of plugged bios is for disks that collect (blk_plug_bio); a node has none.
struct request_queue {
  make_request_fn make_request = nullptr;
  std::atomic<unplug_fn> unplug{nullptr};  // none after blk_cleanup_queue
  unplug_fn unplug_late =
      nullptr;  // if set, what the 3 ms timer calls instead; never waits for I/O
  void* queuedata = nullptr;
  queue_limits limits;
  u32 ra_pages = 32;
  spinlock_t plug_lock;
  bio* plug_head GUARDED_BY(plug_lock) = nullptr;
  bio* plug_tail GUARDED_BY(plug_lock) = nullptr;
  bool plug_timer GUARDED_BY(plug_lock) = false;  // the 3 ms unplug is due for this queue
  std::atomic<u32> plug_users{0};                 // unplug timers running on this queue
  list_node<request_queue> plug_link{this};       // place among the queues with a timer
  u64 plug_due_ns = 0;                            // with plug_link, under the timer's lock
  std::atomic<u32> refs{1};  // the owner's, and one of a disk that was added with it
};

struct block_device_operations {
  int (*open)(block_device*, fmode_t);
  int (*release)(gendisk*, fmode_t);
  int (*ioctl)(block_device*, fmode_t, u32 command, u64 argument);
  int (*flush_cache)(block_device*);  // fsync_bdev: 0 or a negative errno; may be null
  int (*invalidate)(block_device*);   // invalidate_bdev; may be null
  int (*mounted)(block_device*);      // get_super: 1 when a file system on it is mounted
  int (*identity)(block_device*, char* text, std::size_t bytes);  // bdev_identity; may be null
};

struct gendisk {
  u32 major = 0;
  u32 first_minor = 0;
  u32 minors = 1;
  char disk_name[32] = {};
  const block_device_operations* fops = nullptr;
  request_queue* queue = nullptr;
  void* private_data = nullptr;
  u32 flags = 0;
  std::atomic<u64> capacity_sectors{0};
  u64 size_bytes = 0;  // exact size when it is no multiple of 512, else 0
  std::atomic<bool> read_only{false};
  block_device* bdev = nullptr;  // the device while the disk is added
  // The owner, every opener, every request being submitted. The device is freed with its disk.
  std::atomic<u32> refs{1};
  bool has_queue_ref = false;
  list_node<gendisk> link{this};  // place in the device table
};

// Whoever has a device open sends it requests between blkdev_enter and blkdev_exit (below).
struct super_block {};
struct block_device {
  devt bd_dev = 0;
  gendisk* bd_disk = nullptr;
  std::atomic<s32> bd_openers{0};
  std::atomic<s32> bd_other_openers{0};  // openers outside this process, as far as they can be told
  u32 bd_block_bytes = page_size;        // soft block size
  u64 bd_size_bytes = 0;
  bool bd_claimed = false;
  // Admission.
  spinlock_t bd_gate_lock;
  u32 bd_admitted GUARDED_BY(bd_gate_lock) = 0;
  u32 bd_frozen GUARDED_BY(bd_gate_lock) = 0;
  wait_queue_head bd_gate_wait;
  super_block bd_super;  // what get_super and freeze_bdev hand out
  // Requests being submitted, and whether the disk is still added: see blkdev_begin_submit.
  std::atomic<bool> bd_live{false};
  std::atomic<u32> bd_submitting{0};
};

// 0 | -ENOMEM -> null.
[[nodiscard]] gendisk* alloc_disk(u32 minors);
[[nodiscard]] request_queue* blk_alloc_queue(gfp_t flags);
void blk_queue_make_request(request_queue* q, make_request_fn fn);
void set_capacity(gendisk* disk, sector_t sectors);
void set_disk_ro(gendisk* disk, int read_only);
// Makes the disk known under its device number; its name, number, operations, queue and capacity
// are set by now. The disk's soft block size is the largest power of two from 512 to 4096 that
// divides its size.
void add_disk(gendisk* disk);
// Takes it away: later opens and requests fail. Waits up to 50 ms for requests being submitted; not
// without a limit, because one may wait for a lock that the caller holds. What such a request still
// uses (disk, device, queue) lives until it is through.
void del_gendisk(gendisk* disk);
// After del_gendisk: waits, without a limit, until no request is being submitted any more.
void blk_wait_submitted(gendisk* disk);
// The same as del_gendisk, unless somebody has the disk open or is opening it: then false and
// nothing is changed.
[[nodiscard]] bool del_gendisk_unused(gendisk* disk);
// Waits for the queue's unplug timer; plugged bios nobody has unplugged end with -EIO.
void blk_cleanup_queue(request_queue* q);
void put_disk(gendisk* disk);
// Drops one reference of the queue; for blk_cleanup_queue.
void blk_release_queue(request_queue* q);

// major 0 asks for a free one, which is returned; else 0. A free one is beyond what the host gives
// to its own drivers, now or later.
//   returns  -EBUSY (taken, here or by a driver of the host) | -EINVAL (> 4095)
[[nodiscard]] int register_blkdev(u32 major, const char* name);
// Whether somebody here has it. A device node of the host that bears such a number is none of ours.
[[nodiscard]] bool blkdev_registered(u32 major);
void unregister_blkdev(u32 major, const char* name);

// Asked, in order of registration, for a device number that no disk has: a host block device is
// brought in this way. Returns true when a disk of that number has been added.
using blk_probe_fn = bool (*)(devt dev);
void blk_register_probe(blk_probe_fn fn);

// Opens by number: counts the opener, then runs the disk's open entry.
//   returns  the device | error value: -ENXIO (no such disk), the entry's error (not counted)
[[nodiscard]] block_device* open_by_devnum(devt dev, fmode_t mode);
// Runs the disk's release entry and drops the opener. Blocks of a node go back before it returns.
void blkdev_put(block_device* bdev, fmode_t mode);

// A text that says which disk this is: the same for the same disk over restarts and reboots,
// another for another, whatever number or name the host gives it today. The caller has the device
// open.
//   text     NUL-terminated; empty after an error
//   context  may sleep: reads the host's files
//   returns  0 | -ENODATA (nothing stable to name it by) | -ENAMETOOLONG (bytes are too few)
constexpr std::size_t bdev_identity_bytes = 1024;  // room that every identity fits in
[[nodiscard]] int bdev_identity(block_device* bdev, char* text, std::size_t bytes);

int fsync_bdev(block_device* bdev);
int invalidate_bdev(block_device* bdev);
// A mounted file system of the device, or null.
[[nodiscard]] super_block* get_super(block_device* bdev);
void drop_super(super_block* sb);

// ---- admission -----------------------------------------------------------------------------
// An opener brackets every request with enter and exit. enter sleeps while the device is frozen;
// exit may be called in completion context.
void blkdev_enter(block_device* bdev);
// The same without sleeping: false while frozen.
[[nodiscard]] bool blkdev_try_enter(block_device* bdev);
void blkdev_exit(block_device* bdev);

// Stops admission at every opener of the device and waits until the admitted requests have ended,
// held ones too. Nests.
//   returns  an opaque token for thaw_bdev, never null | -ETIMEDOUT as an error value: they have
//   not
//            by then, and admission goes on
//   locks    none that a release of the device or the serving of its requests needs
[[nodiscard]] super_block* freeze_bdev(block_device* bdev, u64 deadline_jiffies);
void thaw_bdev(block_device* bdev, super_block* sb);

// ---- plugging ------------------------------------------------------------------------------
// A disk's make-request function may put a bio here instead of serving it. It is served by the
// queue's unplug function, called by the submitter, by anyone who waits, or 3 ms later.
void blk_plug_bio(request_queue* q, bio* b);
// Takes all plugged bios, linked by bi_next in order of arrival. For unplug functions.
[[nodiscard]] bio* blk_take_plugged(request_queue* q);
// Calls the queue's unplug function if it has one.
void blk_unplug(request_queue* q);
// For generic_make_request: keeps the device, its disk and its queue alive until end. False when
// the disk is not (or no longer) added; nothing is to be undone then.
[[nodiscard]] bool blkdev_begin_submit(block_device* bdev);
void blkdev_end_submit(block_device* bdev);
inline request_queue* bdev_get_queue(block_device* bdev) { return bdev->bd_disk->queue; }

}  // namespace kernel
