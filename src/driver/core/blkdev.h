// SPDX-License-Identifier: GPL-2.0-only
// The device record of a node, and the table of minors.
//
// zorv_blkdev_rwlock guards the slots and the states of their records, nothing else: whoever uses a
// record pins it (node_ref) and lets go of the table. It is held for a look or a change in memory,
// never across file or block I/O, a wait, or a lock that somebody holds across these.
//
// A record is set up by its creator alone, is found while it is live, and once it is being removed
// stays until its last pin but the remover's has gone. A pinned snap keeps its filter as well.
#pragma once

#include <atomic>
#include <utility>

#include "driver/bitmap/companion.h"
#include "driver/bitmap/handout.h"
#include "driver/bitmap/marks.h"
#include "driver/core/lock.h"
#include "driver/core/types.h"
#include "driver/datablock/blkbmp.h"
#include "driver/io/aio.h"
#include "driver/snap/cowbmp.h"
#include "driver/snap/cowqueue.h"
#include "driver/snap/cowthread.h"
#include "driver/snap/record.h"
#include "driver/util/file.h"
#include "kernel/blkdev.h"
#include "zorv/abi.h"

namespace zorv {

struct zorv_blkdev;

constexpr u32 cowfile_seal_bytes = 4096;  // behind the contents of a COW file

// What the bitmap, request and COW-thread operations work on.
struct zorv_filter {
  devt hdd_dev = 0;
  char hdd_name[ZORV_PATH_LEN] = {};
  kernel::block_device* hdd_bdev = nullptr;  // open from creation to destruction
  bool hdd_is_node = false;                  // the HDD is a node of this driver
  u32 filter_minor = 0;
  std::atomic<bool> unsaved{false};  // the last save has failed: a STOP tries again
  u32 extent_size = 0;               // bytes per change-bitmap bit, a power of two
  u32 extent_shift = 0;
  u32 extent_cnt = 0;
  u64 dev_size = 0;  // bytes
  // Which disk this is, over restarts; empty when it has nothing stable to name it by. From
  // creation.
  char disk_identity[kernel::bdev_identity_bytes] = {};
  char bmp_dir[ZORV_PATH_LEN] = {};
  // Held for a walk over the snaps or a change of their list, never across file or block I/O; a
  // snap that is needed for longer is pinned. Inside the table's lock and snap_rwlock.
  mutable rzrwlock snaps_lock{order::snaps};
  // Oldest first: in the order of creation, and a snap that starts after one behind it had its
  // instant goes behind that.
  kernel::list_of<zorv_blkdev> snaps GUARDED_BY(snaps_lock);
  std::atomic<u32> nr_snaps{0};  // their number; also read without the lock

  rzmutex save_mutex{order::save};                   // one save or load at a time
  rzmutex bmp_mutex{order::bmp_files};               // bitmap file work
  mutable kernel::spinlock_t bmp_lock{order::bits};  // bits and dirty flags
  s32 incr_bmp_size = 0;                             // bytes
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
  zorv_hold holds[zorv_hold_kinds];  // by kind
  bool record_due = false;           // under bmp_lock: the record of the snaps has to be changed
  zorv_record record;
  zorv_mark_worker worker;                 // writes marks and the record
  zorv_mark_worker note_worker;            // notes what is overdue
  kernel::list_of<zorv_handout> handouts;  // under bmp_lock
  zorv_companion companion;
  // Writes under way, by the epoch in which they were marked; a save that relies on writes being on
  // the HDD begins a new one when it copies the bitmap. The epoch is under bmp_lock.
  kernel::bio_tally writes[2];
  u32 writes_epoch = 0;
  // Bit per kind: writes have to wait (bitmap/marks.h), or to fail. Written under bmp_lock.
  std::atomic<u32> marks_exposed{0};
  std::atomic<u32> marks_refused{0};

  zorv_cowthread cowthread;
  zorv_cowqueue cowqueue;
  rzrwlock snap_rwlock{order::routing};  // routing (read) against snap start and stop (write)
  std::atomic<u32> inflight{0};          // requests that entered since it was last cleared
  std::atomic<u32> cow_writing{0};       // tasks that write to COW data files
  std::atomic<u32> cow_left{0};          // copying tasks that hang in a file and were left behind
  // Snap starts and resumes under way; the filter is not stopped meanwhile. Raised under dev_mutex.
  std::atomic<u32> snaps_starting{0};
  std::atomic<u32> closes{0};  // of the device, that the save which one of them does has to cover
  zorv_aio aio;
};

struct zorv_snap {
  kernel::list_node<zorv_blkdev> snap_link;
  u32 snap_minor = 0;
  u32 chunk_size = 0;  // bytes, a power of two
  u32 chunk_shift = 0;
  u64 chunk_cnt = 0;
  zorv_blkdev* filter = nullptr;
  rzmutex start_mutex{
      order::snap_start};  // one start or resume at a time; outside the filter's dev_mutex
  char cow_data_fname[ZORV_PATH_LEN] = {};
  char cow_bmp_fname[ZORV_PATH_LEN] = {};
  // Read: the COW thread while it uses the files and the COW bitmap of a started snap (`started`
  // tested inside). Write: start, stop and resume while they set these up or take them away; the
  // snap is not started then, so a task that finds the lock taken need not wait.
  rzrwlock file_lock{order::file};
  // Whose the files are, from the first start or resume on, while the snap is stopped too. The
  // claims say which files they were.
  kernel::file_claim data_claim;
  kernel::file_claim bmp_claim;
  // What the start or resume under way has made and claimed: bits of a COW file's kind
  // (cowfiles.cc).
  u32 files_made = 0;
  u32 files_claimed = 0;
  u32 files_sealed = 0;            // of those that it has claims on: have been of a life of it
  u8 life_id[snap_id_bytes] = {};  // of the last start, from it or from the files; under dev_mutex
  // Tasks that copy for the snap, and those of them that were left behind: a stop waits for the
  // others, and leaves the files open for these.
  std::atomic<u32> in_copy{0};
  std::atomic<u32> left{0};
  rzmutex bits_lock{order::cow_bits};  // a byte of the bitmap file is written by one task at a time
  zorv_file* cow_data_file = nullptr;  // open while started
  zorv_file* cow_bmp_file = nullptr;
  zorv_cowbmp cowbmp;
  zorv_blkbmp datablock_bmp;
  u64 cow_data_size = 0;            // bytes
  u32 cow_bmp_size = 0;             // bytes
  std::atomic<u32> has_instant{0};  // has been started or resumed since it was created
  u64 instant =
      0;  // its number in the record, 0 while it is unknown; under the filter's snap_rwlock
  // Counts starts, resumes and stops: what was begun in another life is not carried on. Changed
  // under file_lock (write).
  std::atomic<u32> life{0};
  std::atomic<u32> snap_valid{0};
  std::atomic<u32> stop_pending{0};
  std::atomic<u32> stop_due{0};  // nothing postpones the stop any more but those that have it open
  std::atomic<u32> del_pending{0};
};

enum class node_state : u32 {
  setting_up,  // minor and name are taken, nobody finds it
  live,
  removing,  // nobody finds it any more
};

struct zorv_blkdev {
  // Changed under the table's write lock; to `removing`, and back, under dev_mutex as well.
  std::atomic<node_state> state{node_state::setting_up};
  std::atomic<u32> pins{0};
  u32 dev_type = 0;  // ZORV_DEV_FILTER | ZORV_DEV_SNAP
  kernel::gendisk* disk = nullptr;
  kernel::block_device* bdev = nullptr;  // while someone has the node open; under dev_mutex
  std::atomic<u32> started{0};
  std::atomic<u32> use_cnt{0};
  rzmutex dev_mutex;         // start, stop, open, release; a filter's before its snaps'
  bool left_behind = false;  // the unload has tried it
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
extern int zorv_datablock_maps;  // 0: no snap gets a datablock map
extern int zorv_blk_registered;  // 1 while the block major is ours

// The live record of a minor, or null. The minor is compared unsigned, so a negative one is too
// big.
zorv_blkdev* zorv_blkdev_find(u32 minor) REQUIRES_SHARED(zorv_blkdev_rwlock);

// ---- pins ----------------------------------------------------------------------------------
// A hold on a record: while it lives the record is not freed, and if it is a snap its filter is not
// either. It keeps nobody from starting, stopping or opening the node.
class [[nodiscard]] node_ref {
 public:
  node_ref() = default;
  node_ref(node_ref&& o) noexcept : dev_(std::exchange(o.dev_, nullptr)) {}
  node_ref& operator=(node_ref&& o) noexcept {
    std::swap(dev_, o.dev_);
    return *this;
  }
  ~node_ref();
  [[nodiscard]] node_ref another() const;  // one more pin, live or not
  void forget() { dev_ = nullptr; }        // the record is about to be freed
  [[nodiscard]] zorv_blkdev* get() const { return dev_; }
  zorv_blkdev* operator->() const { return dev_; }
  explicit operator bool() const { return dev_ != nullptr; }

 private:
  friend node_ref zorv_node_pin(zorv_blkdev* dev);
  explicit node_ref(zorv_blkdev* pinned) : dev_(pinned) {}
  zorv_blkdev* dev_ = nullptr;
};
// The live node of a minor, or empty.
node_ref zorv_node_get(u32 minor) EXCLUDES(zorv_blkdev_rwlock);
// Pins a record that cannot be freed at the moment (the table or its filter's list is held, or it
// is pinned already); empty when it is not live.
node_ref zorv_node_pin(zorv_blkdev* dev);

// ---- a record's place in the table ---------------------------------------------------------
// Takes a minor and a name for a record that is being set up.
//   caller   the operation's name, for its messages
//   minor    negative: the lowest free one, without a name the lowest whose default name is free
//            too; the one taken
//   name     empty: becomes "zorv%d" of the minor
//   returns  0 | -EINVAL (minor too big or taken) | -ENOSPC | -EEXIST (a node has the name)
[[nodiscard]] int zorv_blkdev_reserve(const char* caller, zorv_blkdev* dev, s32* minor,
                                      char (&name)[ZORV_NAME_LEN]) REQUIRES(zorv_blkdev_rwlock);
// The record is complete: from now on it is found.
void zorv_blkdev_publish(zorv_blkdev* dev) EXCLUDES(zorv_blkdev_rwlock);
// Gives minor and name back; the caller frees the record.
void zorv_blkdev_release(zorv_blkdev* dev) EXCLUDES(zorv_blkdev_rwlock);
// Takes the record out of everybody's sight; false when another task is removing it already.
//   locks  the record's dev_mutex
[[nodiscard]] bool zorv_blkdev_begin_removal(zorv_blkdev* dev) EXCLUDES(zorv_blkdev_rwlock);
void zorv_blkdev_undo_removal(zorv_blkdev* dev) EXCLUDES(zorv_blkdev_rwlock);
// Sleeps until own, the pin of the task that is removing the record, is the only one; false:
// another has been held for as long as anybody waits.
[[nodiscard]] bool zorv_blkdev_wait_unpinned(const node_ref& own);
// For waits of removals: whatever they may wait for says that it has changed.
extern kernel::wait_queue_head zorv_removal_wait;
extern std::atomic<u32> zorv_removals_waiting;
template <class Cond>
void zorv_blkdev_wait(Cond done) {
  zorv_removals_waiting.fetch_add(1);
  kernel::wait_event(&zorv_removal_wait, done);
  zorv_removals_waiting.fetch_sub(1);
}
void zorv_blkdev_changed();

// ---- a filter's snaps ----------------------------------------------------------------------
// A neighbour of a pinned snap, itself pinned; snaps that are not live are passed over. Empty at
// the end of the list.
node_ref zorv_snap_older(const zorv_filter& f, const zorv_blkdev* snap) EXCLUDES(f.snaps_lock);
node_ref zorv_snap_newer(const zorv_filter& f, const zorv_blkdev* snap) EXCLUDES(f.snaps_lock);
node_ref zorv_snap_oldest(const zorv_filter& f) EXCLUDES(f.snaps_lock);
// Takes the snap off its filter's list.
void zorv_snap_unlink(zorv_filter* f, zorv_blkdev* snap) EXCLUDES(f->snaps_lock);

// "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" of 16 random bytes, with its NUL.
void zorv_make_uuid(char (&uuid)[ZORV_UUID_LEN]);

// "/dev/zorv/%s" of the name; false when it does not fit the record's dev_name.
[[nodiscard]] bool zorv_node_path(const char* name, char (&path)[133]);

// ---- taking the table's lock ---------------------------------------------------------------
class [[nodiscard]] SCOPED_CAPABILITY table_write_guard {
 public:
  table_write_guard() ACQUIRE(zorv_blkdev_rwlock) { rzwrite_lock(&zorv_blkdev_rwlock); }
  ~table_write_guard() RELEASE() { rzwrite_unlock(&zorv_blkdev_rwlock); }
  table_write_guard(const table_write_guard&) = delete;
  table_write_guard& operator=(const table_write_guard&) = delete;
};
class [[nodiscard]] SCOPED_CAPABILITY table_read_guard {
 public:
  table_read_guard() ACQUIRE_SHARED(zorv_blkdev_rwlock) { rzread_lock(&zorv_blkdev_rwlock); }
  ~table_read_guard() RELEASE_GENERIC() { rzread_unlock(&zorv_blkdev_rwlock); }
  table_read_guard(const table_read_guard&) = delete;
  table_read_guard& operator=(const table_read_guard&) = delete;
};

}  // namespace zorv
