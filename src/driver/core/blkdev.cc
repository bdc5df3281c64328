// SPDX-License-Identifier: GPL-2.0-only
#include "driver/core/blkdev.h"

#include "driver/core/log.h"
#include "kernel/random.h"

namespace zorv {

rzrwlock zorv_blkdev_rwlock;
zorv_blkdev** zorv_blkdev_arr = nullptr;

namespace {

std::atomic<s32> table_writers{0};  // tasks that wait for the table's lock to write
std::atomic<u64> table_writer_since{0};
kernel::wait_queue_head table_turn;  // woken when a writer has got in

constexpr u64 aside_period = 250;  // jiffies
constexpr u64 aside_request = 50;
constexpr u64 aside_cow_thread = 300;

}  // namespace

zorv_blkdev* zorv_blkdev_find(u32 minor) {
  if (zorv_blkdev_arr == nullptr || minor > static_cast<u32>(zorv_max_blk_minor)) return nullptr;
  return zorv_blkdev_arr[minor];
}

int zorv_blkdev_choose_minor(const char* caller, s32 requested) {
  if (requested > zorv_max_blk_minor) {
    zorv_log(LOG_ERROR, "%s(): Minor number %d is too big: max=%d", caller, requested,
             zorv_max_blk_minor);
    return -EINVAL;
  }
  if (requested < 0) {
    for (s32 m = 0; m <= zorv_max_blk_minor; ++m) {
      if (zorv_blkdev_arr[m] == nullptr) return m;
    }
    zorv_log(LOG_ERROR, "%s(): All %d of ZORV minor nodes have already been used up.", caller,
             zorv_max_blk_minor + 1);
    return -ENOSPC;
  }
  if (zorv_blkdev_arr[requested] != nullptr) {
    zorv_log(LOG_ERROR, "%s(): Device minor number %d is already taken", caller, requested);
    return -EINVAL;
  }
  return requested;
}

void zorv_make_uuid(char (&uuid)[ZORV_UUID_LEN]) {
  u8 b[16];
  kernel::get_random_bytes(b, sizeof(b));
  std::snprintf(uuid, sizeof(uuid),
                "{%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x}", b[0],
                b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
                b[14], b[15]);
}

bool zorv_node_path(const char* name, char (&path)[133]) {
  const int len = std::snprintf(path, sizeof(path), "/dev/zorv/%s", name);
  return len > 0 && static_cast<std::size_t>(len) < sizeof(path);
}

table_write_guard::table_write_guard() {
  if (table_writers.fetch_add(1) == 0) table_writer_since.store(kernel::jiffies());
  rzwrite_lock(&zorv_blkdev_rwlock);
  if (table_writers.fetch_sub(1) == 1) kernel::wake_up_all(&table_turn);
}
table_write_guard::~table_write_guard() { rzwrite_unlock(&zorv_blkdev_rwlock); }

table_read_guard::table_read_guard() {
  rzread_lock(&zorv_blkdev_rwlock);
  ++kernel::current()->table_reads;
}
table_read_guard::~table_read_guard() {
  --kernel::current()->table_reads;
  rzread_unlock(&zorv_blkdev_rwlock);
}

void zorv_table_stand_aside(stand_aside who) {
  if (table_writers.load(std::memory_order_relaxed) == 0) return;
  if (kernel::current()->table_reads != 0) return;
  u64 limit = aside_cow_thread;
  if (who == stand_aside::request) {
    // A command that reads the table for long would otherwise slow every request down for as
    // long as the writer behind it waits.
    const u64 into = (kernel::jiffies() - table_writer_since.load()) % aside_period;
    if (into >= aside_request) return;
    limit = aside_request - into;
  }
  (void)kernel::wait_event_timeout(
      &table_turn, [] { return table_writers.load() == 0; }, limit);
}

}  // namespace zorv
