// SPDX-License-Identifier: GPL-2.0-only
#include "driver/core/blkdev.h"

#include "driver/core/log.h"
#include "kernel/random.h"

namespace zorv {

rzrwlock zorv_blkdev_rwlock{order::table};
zorv_blkdev** zorv_blkdev_arr = nullptr;

kernel::wait_queue_head zorv_removal_wait;
std::atomic<u32> zorv_removals_waiting{0};

namespace {

const zorv_blkdev* named(const char* name) REQUIRES(zorv_blkdev_rwlock) {
  for (s32 m = 0; m <= zorv_max_blk_minor; ++m) {
    const zorv_blkdev* dev = zorv_blkdev_arr[m];
    if (dev != nullptr && std::strcmp(dev->name, name) == 0) return dev;
  }
  return nullptr;
}

void default_name(s32 minor, char (&name)[ZORV_NAME_LEN]) {
  std::snprintf(name, sizeof(name), "zorv%d", minor);
}

// Without a name of its own a node gets its minor's, which another may have as its own.
bool is_free(s32 minor, const char* name) REQUIRES(zorv_blkdev_rwlock) {
  if (zorv_blkdev_arr[minor] != nullptr) return false;
  char its_own[ZORV_NAME_LEN];
  default_name(minor, its_own);
  return name[0] != '\0' || named(its_own) == nullptr;
}

//   returns  the minor (>= 0) | -EINVAL (too big, taken) | -ENOSPC
int choose_minor(const char* caller, s32 requested, const char* name) REQUIRES(zorv_blkdev_rwlock) {
  if (requested > zorv_max_blk_minor) {
    zorv_log(LOG_ERROR, "%s(): Minor number %d is too big: max=%d", caller, requested,
             zorv_max_blk_minor);
    return -EINVAL;
  }
  if (requested < 0) {
    for (s32 m = 0; m <= zorv_max_blk_minor; ++m) {
      if (is_free(m, name)) return m;
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

// Clients open a node by its name: with two of one name they would get none, or another's disk.
int refuse_taken_name(const char* caller, const char* name) REQUIRES(zorv_blkdev_rwlock) {
  const zorv_blkdev* other = named(name);
  if (other == nullptr) return 0;
  zorv_log(LOG_ERROR, "%s(): Node name %s is already taken by zorv(%d, %d)", caller, name,
           zorv_blk_major, static_cast<int>(other->minor));
  return -EEXIST;
}

void set_state(zorv_blkdev* dev, node_state state) EXCLUDES(zorv_blkdev_rwlock) {
  table_write_guard table;
  dev->state.store(state);
}

enum class towards { older, newer };

// The first live snap from s on.
node_ref pin_from(const zorv_filter& f, zorv_blkdev* s, towards where)
    REQUIRES_SHARED(f.snaps_lock) {
  while (s != nullptr) {
    node_ref ref = zorv_node_pin(s);
    if (ref) return ref;
    s = where == towards::older ? f.snaps.prev_of(s->s.snap_link) : f.snaps.next_of(s->s.snap_link);
  }
  return {};
}

}  // namespace

zorv_blkdev* zorv_blkdev_find(u32 minor) {
  if (zorv_blkdev_arr == nullptr || minor > static_cast<u32>(zorv_max_blk_minor)) return nullptr;
  zorv_blkdev* dev = zorv_blkdev_arr[minor];
  return dev != nullptr && dev->state.load() == node_state::live ? dev : nullptr;
}

node_ref zorv_node_get(u32 minor) {
  table_read_guard table;
  zorv_blkdev* dev = zorv_blkdev_find(minor);
  return dev != nullptr ? zorv_node_pin(dev) : node_ref();
}

node_ref zorv_node_pin(zorv_blkdev* dev) {
  // Either this sees the removal, or the removal sees this pin and waits for it.
  dev->pins.fetch_add(1);
  node_ref ref(dev);
  return dev->state.load() == node_state::live ? std::move(ref) : node_ref();
}

node_ref::~node_ref() {
  if (dev_ == nullptr) return;
  dev_->pins.fetch_sub(1);
  zorv_blkdev_changed();  // the record may have gone by now
}

node_ref node_ref::another() const {
  if (dev_ != nullptr) dev_->pins.fetch_add(1);
  return node_ref(dev_);
}

int zorv_blkdev_reserve(const char* caller, zorv_blkdev* dev, s32* minor,
                        char (&name)[ZORV_NAME_LEN]) {
  const int chosen = choose_minor(caller, *minor, name);
  if (chosen < 0) return chosen;
  char wanted[ZORV_NAME_LEN];
  copy_text(wanted, name);
  if (wanted[0] == '\0') default_name(chosen, wanted);
  const int rc = refuse_taken_name(caller, wanted);
  if (rc != 0) return rc;
  *minor = chosen;
  copy_text(name, wanted);
  dev->minor = static_cast<u32>(chosen);
  copy_text(dev->name, wanted);
  zorv_blkdev_arr[chosen] = dev;
  return 0;
}

void zorv_blkdev_publish(zorv_blkdev* dev) { set_state(dev, node_state::live); }

void zorv_blkdev_release(zorv_blkdev* dev) {
  table_write_guard table;
  zorv_blkdev_arr[dev->minor] = nullptr;
}

bool zorv_blkdev_begin_removal(zorv_blkdev* dev) {
  table_write_guard table;
  if (dev->state.load() != node_state::live) return false;
  dev->state.store(node_state::removing);
  return true;
}

void zorv_blkdev_undo_removal(zorv_blkdev* dev) { set_state(dev, node_state::live); }

void zorv_blkdev_changed() {
  if (zorv_removals_waiting.load() != 0) kernel::wake_up_all(&zorv_removal_wait);
}

bool zorv_blkdev_wait_unpinned(const node_ref& own) {
  zorv_removals_waiting.fetch_add(1);
  const bool alone = kernel::wait_event_timeout(
      &zorv_removal_wait, [&own] { return own->pins.load() == 1; }, file_limit_jiffies);
  zorv_removals_waiting.fetch_sub(1);
  return alone;
}

node_ref zorv_snap_older(const zorv_filter& f, const zorv_blkdev* snap) {
  rzread_guard walk(&f.snaps_lock);
  return pin_from(f, f.snaps.prev_of(snap->s.snap_link), towards::older);
}

node_ref zorv_snap_newer(const zorv_filter& f, const zorv_blkdev* snap) {
  rzread_guard walk(&f.snaps_lock);
  return pin_from(f, f.snaps.next_of(snap->s.snap_link), towards::newer);
}

node_ref zorv_snap_oldest(const zorv_filter& f) {
  rzread_guard walk(&f.snaps_lock);
  return pin_from(f, f.snaps.front(), towards::newer);
}

void zorv_snap_unlink(zorv_filter* f, zorv_blkdev* snap) {
  {
    rzwrite_guard guard(&f->snaps_lock);
    snap->s.snap_link.unlink();
    f->nr_snaps.fetch_sub(1);
  }
  zorv_blkdev_changed();
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

}  // namespace zorv
