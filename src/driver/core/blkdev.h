// SPDX-License-Identifier: GPL-2.0-only
// The device record of a node, and the table of minors.
//
// zorv_blkdev_rwlock guards the slots and the lifetime of every record: looking a record up and
// using it needs it held for reading for as long as the record is used; filling a slot, clearing
// it and destroying a record need it for writing. It is the outermost lock.
#pragma once

#include <atomic>

#include "driver/bitmap/handout.h"
#include "driver/bitmap/marks.h"
#include "driver/core/lock.h"
#include "driver/core/types.h"
#include "driver/datablock/blkbmp.h"
#include "driver/io/aio.h"
#include "driver/snap/cowbmp.h"
#include "driver/snap/cowqueue.h"
#include "driver/snap/cowthread.h"
#include "driver/util/file.h"
#include "kernel/blkdev.h"
#include "zorv/abi.h"

namespace zorv {

struct zorv_blkdev;

constexpr u32 snap_id_bytes = 16;         // random
constexpr u32 cowfile_seal_bytes = 4096;  // behind the contents of a COW file

// What the bitmap, request and COW-thread operations work on.
struct zorv_filter {
  devt hdd_dev = 0;
  char hdd_name[ZORV_PATH_LEN] = {};
  kernel::block_device* hdd_bdev = nullptr;  // open from creation to destruction
  u32 filter_minor = 0;
  u32 extent_size = 0;  // bytes per change-bitmap bit, a power of two
  u32 extent_shift = 0;
  u32 extent_cnt = 0;
  u64 dev_size = 0;  // bytes
  // Which disk this is, over restarts; empty when it has nothing stable to name it by. From
  // creation.
  char disk_identity[kernel::bdev_identity_bytes] = {};
  char bmp_dir[ZORV_PATH_LEN] = {};
  // Oldest first: in the order of creation, and a snap that starts after one behind it had its
  // instant goes behind that. Changed under the table's write lock.
  kernel::list_of<zorv_blkdev> snaps;

  rzmutex bmp_mutex;            // bitmap file work
  kernel::spinlock_t bmp_lock;  // bits and dirty flags
  s32 incr_bmp_size = 0;        // bytes
  s32 diff_bmp_size = 0;
  u8* incr_bmp = nullptr;
  u8* diff_bmp = nullptr;
  char incr_bmp_fname[ZORV_PATH_LEN] = {};
  char diff_bmp_fname[ZORV_PATH_LEN] = {};
  // 1: the bitmap holds changes that its file does not. Written under bmp_lock, also read without.
  std::atomic<u32> incr_bmp_dirty{0};
  std::atomic<u32> diff_bmp_dirty{0};
  // By bitmap type code, under bmp_lock: the order of writes behind the stale mark.
  zorv_mark_state marks[2];
  kernel::list_of<zorv_handout> handouts;  // under bmp_lock
  // Bit per type code: writes have to wait (bitmap/marks.h). Written under bmp_lock.
  std::atomic<u32> marks_exposed{0};

  zorv_cowthread cowthread;
  zorv_cowqueue cowqueue;
  rzrwlock snap_rwlock;             // routing (read) against snap start and stop (write)
  std::atomic<u32> inflight{0};     // requests that entered since it was last cleared
  std::atomic<u32> cow_writing{0};  // tasks that write to COW data files
  // Invalidations under way: what waits for a copy goes without it only after they have ended.
  std::atomic<u32> invalidating{0};
  // Snap starts and resumes under way; the filter is not stopped meanwhile. Raised under dev_mutex.
  std::atomic<u32> snaps_starting{0};
  zorv_aio aio;
};

struct zorv_snap {
  kernel::list_node<zorv_blkdev> snap_link;
  u32 snap_minor = 0;
  u32 chunk_size = 0;  // bytes, a power of two
  u32 chunk_shift = 0;
  u64 chunk_cnt = 0;
  zorv_blkdev* filter = nullptr;
  char cow_data_fname[ZORV_PATH_LEN] = {};
  char cow_bmp_fname[ZORV_PATH_LEN] = {};
  // Read: the COW thread while it uses the files and the COW bitmap of a started snap (`started`
  // tested inside). Write: start, stop and resume while they set these up or take them away.
  rzrwlock file_lock;
  // Whose the files are, from the first start or resume on, while the snap is stopped too. The
  // claims say which files they were.
  kernel::file_claim data_claim;
  kernel::file_claim bmp_claim;
  u8 life_id[snap_id_bytes] = {};  // of the last start, from it or from the files; under dev_mutex
  zorv_file* cow_data_file = nullptr;  // open while started
  zorv_file* cow_bmp_file = nullptr;
  zorv_cowbmp cowbmp;
  zorv_blkbmp datablock_bmp;
  u64 cow_data_size = 0;            // bytes
  u32 cow_bmp_size = 0;             // bytes
  std::atomic<u32> has_instant{0};  // has been started or resumed since it was created
  // Counts starts, resumes and stops: what was begun in another life is not carried on. Changed
  // under file_lock (write).
  std::atomic<u32> life{0};
  std::atomic<u32> snap_valid{0};
  std::atomic<u32> stop_pending{0};
  std::atomic<u32> del_pending{0};
};

struct zorv_blkdev {
  u32 dev_type = 0;  // ZORV_DEV_FILTER | ZORV_DEV_SNAP
  kernel::gendisk* disk = nullptr;
  kernel::block_device* bdev = nullptr;  // while someone has the node open; under dev_mutex
  std::atomic<u32> started{0};
  std::atomic<u32> use_cnt{0};
  rzmutex dev_mutex;  // start, stop, open, release; a filter's before its snaps'
  u32 minor = 0;
  char uuid[ZORV_UUID_LEN] = {};
  char name[ZORV_NAME_LEN] = {};
  char dev_name[133] = {};

  zorv_filter f;  // dev_type FILTER
  zorv_snap s;    // dev_type SNAP

  zorv_blkdev() { s.snap_link.owner = this; }
};

extern rzrwlock zorv_blkdev_rwlock;
extern zorv_blkdev** zorv_blkdev_arr;  // zorv_max_blk_minor + 1 slots; null before load

// Module parameters (core/module.cc).
extern int zorv_chr_major;
extern int zorv_blk_major;
extern int zorv_max_blk_minor;
extern int zorv_blk_registered;  // 1 while the block major is ours

// The record of a minor, or null. The minor is compared unsigned, so a negative one is too big.
zorv_blkdev* zorv_blkdev_find(u32 minor) REQUIRES_SHARED(zorv_blkdev_rwlock);

// Chooses the minor for a new node; a negative request takes the lowest free one.
//   caller   the operation's name, for its messages
//   returns  the minor (>= 0) | -EINVAL (too big, taken) | -ENOSPC
[[nodiscard]] int zorv_blkdev_choose_minor(const char* caller, s32 requested)
    REQUIRES(zorv_blkdev_rwlock);

// "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" of 16 random bytes, with its NUL.
void zorv_make_uuid(char (&uuid)[ZORV_UUID_LEN]);

// "/dev/zorv/%s" of the name; false when it does not fit the record's dev_name.
[[nodiscard]] bool zorv_node_path(const char* name, char (&path)[133]);

// ---- taking the table's lock ---------------------------------------------------------------
// Readers come and go all the time while clients keep a node busy, and the lock lets a new one in
// whenever no writer holds it. So that a command that needs the table for writing gets its turn,
// a request stands aside for a moment, before it asks for the lock, while a writer waits; the
// lock itself favours nobody.
class [[nodiscard]] SCOPED_CAPABILITY table_write_guard {
 public:
  table_write_guard() ACQUIRE(zorv_blkdev_rwlock);
  ~table_write_guard() RELEASE();
  table_write_guard(const table_write_guard&) = delete;
  table_write_guard& operator=(const table_write_guard&) = delete;
};
class [[nodiscard]] SCOPED_CAPABILITY table_read_guard {
 public:
  table_read_guard() ACQUIRE_SHARED(zorv_blkdev_rwlock);
  ~table_read_guard() RELEASE_GENERIC();
  table_read_guard(const table_read_guard&) = delete;
  table_read_guard& operator=(const table_read_guard&) = delete;
};
// Called before taking the lock for reading. A request waits only in the first 50 ms of every 250
// ms that a writer has been waiting, a COW thread between two passes at most 300 ms; nobody waits
// when no writer does or when this task already reads the table.
enum class stand_aside { request, cow_thread };
void zorv_table_stand_aside(stand_aside who);

}  // namespace zorv
