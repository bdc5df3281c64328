// SPDX-License-Identifier: GPL-2.0-only
// The status tree. An entry holds no pointer to what it shows: a read takes the node's minor from
// its directory's name and pins the record for as long as it prints, so an entry may outlive its
// node and then shows nothing.
#include "driver/proc/proc.h"

#include <cstdarg>

#include "driver/bitmap/bitmap.h"
#include "driver/core/log.h"
#include "kernel/mem.h"
#include "kernel/state.h"

namespace zorv {
namespace {

constexpr u32 mode_ro = 0444;
constexpr u32 mode_rw = 0644;
constexpr const char* tree_name = "zorv";
constexpr std::size_t tree_name_len = 4;
constexpr std::size_t work_bytes = 1024;  // of a write

// Read by handlers while load and unload change it.
std::atomic<kernel::proc_dir_entry*> zorv_proc_root{nullptr};
// Held while entries are made or removed: nodes come and go beside each other.
rzmutex tree_mutex{order::status_tree};

// The reader's page. A value that does not fit is left out whole, so that no line comes in half.
class page_text {
 public:
  explicit page_text(char* page) : page_(page) { page_[0] = '\0'; }

  __attribute__((format(printf, 2, 3))) void add(const char* format, ...) {
    const std::size_t room = kernel::page_size - used_;
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(page_ + used_, room, format, args);
    va_end(args);
    if (n >= 0 && static_cast<std::size_t>(n) < room) used_ += static_cast<std::size_t>(n);
    page_[used_] = '\0';
  }
  void add_number(u64 value) { add("%d\n", static_cast<s32>(value)); }
  void add_long(s64 value) { add("%lld\n", static_cast<long long>(value)); }
  void add_text(const char* value) { add("%s\n", value); }
  [[nodiscard]] int length() const { return static_cast<int>(used_); }

 private:
  char* page_;
  std::size_t used_ = 0;
};

// One entry of a node's directory.
struct field {
  const char* name;
  void (*print)(const zorv_blkdev& dev, page_text* out);
};

template <class T>
T now(const std::atomic<T>& value) {
  return value.load(std::memory_order_relaxed);
}

void print_minor(const zorv_blkdev& d, page_text* out) { out->add_number(d.minor); }
void print_uuid(const zorv_blkdev& d, page_text* out) { out->add_text(d.uuid); }
void print_name(const zorv_blkdev& d, page_text* out) { out->add_text(d.name); }
void print_dev_name(const zorv_blkdev& d, page_text* out) { out->add_text(d.dev_name); }
void print_started(const zorv_blkdev& d, page_text* out) { out->add_number(now(d.started)); }
void print_use_cnt(const zorv_blkdev& d, page_text* out) { out->add_number(now(d.use_cnt)); }
void print_hdd_major(const zorv_blkdev& d, page_text* out) {
  out->add_number(kernel::major_of(d.f.hdd_dev));
}
void print_hdd_minor(const zorv_blkdev& d, page_text* out) {
  out->add_number(kernel::minor_of(d.f.hdd_dev));
}
void print_hdd_name(const zorv_blkdev& d, page_text* out) { out->add_text(d.f.hdd_name); }
void print_snaps(const zorv_blkdev& d, page_text* out) {
  rzread_guard walk(&d.f.snaps_lock);
  const auto& snaps = d.f.snaps;
  for (const zorv_blkdev* snap = snaps.front(); snap != nullptr;
       snap = snaps.next_of(snap->s.snap_link)) {
    if (snap->state.load() == node_state::live) out->add_number(snap->minor);
  }
}

// What is wrong with the files of the bitmaps and the record, or was when the node was made: a line
// each.
void print_trouble(const zorv_blkdev& d, page_text* out) {
  const zorv_filter& f = d.f;
  if (const char* why = f.companion.why.load(); why != nullptr) {
    out->add("everything counted as changed: %s: %s\n", f.companion.fname, why);
  }
  const char* const files[] = {f.diff_bmp_fname, f.incr_bmp_fname, f.record.fname};
  for (u32 kind = 0; kind < zorv_hold_kinds; ++kind) {
    if (kernel::state_stands(files[kind])) {
      out->add("outdated, cannot be marked, noted in the state folder: %s\n", files[kind]);
    }
    if ((now(f.marks_refused) >> kind & 1) != 0) {
      out->add("outdated, cannot be marked or noted, writes are refused: %s\n", files[kind]);
    }
  }
}

// Extents with their bit set. Reads the whole bitmap, so it is nothing for who asks often.
template <u32 type>
void print_changed(const zorv_blkdev& d, page_text* out) {
  out->add_long(zorv_bmp_count(&d.f, type));
}

constexpr field filter_fields[] = {
    {"dev_type", [](const zorv_blkdev&, page_text* out) { out->add_text("filter"); }},
    {"minor", print_minor},
    {"uuid", print_uuid},
    {"name", print_name},
    {"dev_name", print_dev_name},
    {"started", print_started},
    {"use_cnt", print_use_cnt},
    {"hdd_major", print_hdd_major},
    {"hdd_minor", print_hdd_minor},
    {"hdd_name", print_hdd_name},
    {"snap_minor", print_snaps},
    {"extent_size", [](const zorv_blkdev& d, page_text* out) { out->add_number(d.f.extent_size); }},
    {"extent_cnt", [](const zorv_blkdev& d, page_text* out) { out->add_number(d.f.extent_cnt); }},
    {"dev_size",
     [](const zorv_blkdev& d, page_text* out) { out->add_long(static_cast<s64>(d.f.dev_size)); }},
    {"bmp_dir", [](const zorv_blkdev& d, page_text* out) { out->add_text(d.f.bmp_dir); }},
    {"incr_bmp_size",
     [](const zorv_blkdev& d, page_text* out) { out->add("%d\n", d.f.incr_bmp_size); }},
    {"incr_bmp_dirty",
     [](const zorv_blkdev& d, page_text* out) { out->add_number(now(d.f.incr_bmp_dirty)); }},
    {"diff_bmp_size",
     [](const zorv_blkdev& d, page_text* out) { out->add("%d\n", d.f.diff_bmp_size); }},
    {"diff_bmp_dirty",
     [](const zorv_blkdev& d, page_text* out) { out->add_number(now(d.f.diff_bmp_dirty)); }},
    {"incr_bmp_changed", print_changed<ZORV_BMP_INCREMENTAL>},
    {"diff_bmp_changed", print_changed<ZORV_BMP_DIFFERENTIAL>},
    {"bmp_trouble", print_trouble},
    {"cowqueue_len",
     [](const zorv_blkdev& d, page_text* out) { out->add("%d\n", now(d.f.cowqueue.cnt)); }},
    {"snaps", print_snaps},
};

// A snap shows its filter's value, or nothing while it has no filter.
template <void (*print)(const zorv_blkdev&, page_text*)>
void of_filter(const zorv_blkdev& d, page_text* out) {
  if (d.s.filter != nullptr) print(*d.s.filter, out);
}

// Chunks that a snap has copied, or nothing while it has not been started or resumed.
void print_copied(const zorv_blkdev& d, page_text* out, u64 unit) {
  const s64 chunks = d.s.cowbmp.copied.load(std::memory_order_relaxed);
  if (chunks >= 0) out->add_long(chunks * static_cast<s64>(unit));
}

constexpr field snap_fields[] = {
    {"dev_type", [](const zorv_blkdev&, page_text* out) { out->add_text("snap"); }},
    {"minor", print_minor},
    {"uuid", print_uuid},
    {"name", print_name},
    {"dev_name", print_dev_name},
    {"started", print_started},
    {"stop_pending",
     [](const zorv_blkdev& d, page_text* out) { out->add_number(now(d.s.stop_pending)); }},
    {"del_pending",
     [](const zorv_blkdev& d, page_text* out) { out->add_number(now(d.s.del_pending)); }},
    {"use_cnt", print_use_cnt},
    {"filter_minor", of_filter<print_minor>},
    {"hdd_major", of_filter<print_hdd_major>},
    {"hdd_minor", of_filter<print_hdd_minor>},
    {"hdd_name", of_filter<print_hdd_name>},
    {"chunk_size", [](const zorv_blkdev& d, page_text* out) { out->add_number(d.s.chunk_size); }},
    {"cow_bmp_fname",
     [](const zorv_blkdev& d, page_text* out) { out->add_text(d.s.cow_bmp_fname); }},
    {"cow_data_fname",
     [](const zorv_blkdev& d, page_text* out) { out->add_text(d.s.cow_data_fname); }},
    {"cow_bmp_size", [](const zorv_blkdev& d,
                        page_text* out) { out->add_long(static_cast<s32>(d.s.cow_bmp_size)); }},
    {"cow_data_size", [](const zorv_blkdev& d,
                         page_text* out) { out->add_long(static_cast<s64>(d.s.cow_data_size)); }},
    {"snap_valid",
     [](const zorv_blkdev& d, page_text* out) { out->add_number(now(d.s.snap_valid)); }},
    {"copied_chunks", [](const zorv_blkdev& d, page_text* out) { print_copied(d, out, 1); }},
    {"copied_bytes",
     [](const zorv_blkdev& d, page_text* out) { print_copied(d, out, d.s.chunk_size); }},
};

struct field_list {
  const field* begin_;
  const field* end_;
  [[nodiscard]] const field* begin() const { return begin_; }
  [[nodiscard]] const field* end() const { return end_; }
};

field_list fields_of(const zorv_blkdev& dev) {
  if (dev.dev_type == ZORV_DEV_FILTER) return {std::begin(filter_fields), std::end(filter_fields)};
  return {std::begin(snap_fields), std::end(snap_fields)};
}

void print_global(const char* name, page_text* out) {
  if (std::strcmp(name, "chr_major") == 0) {
    out->add("%d\n", zorv_chr_major);
  } else if (std::strcmp(name, "blk_major") == 0) {
    out->add("%d\n", zorv_blk_major);
  } else if (std::strcmp(name, "debug") == 0) {
    out->add("%d\n", now(zorv_debug));
  }
}

void print_of_node(const char* directory, const char* name, page_text* out) {
  if (std::strlen(directory) <= tree_name_len ||
      std::strncmp(directory, tree_name, tree_name_len) != 0 || directory[tree_name_len] < '0' ||
      directory[tree_name_len] > '9') {
    return;
  }
  const s64 minor = kernel::simple_strtol(directory + tree_name_len, nullptr, 10);
  if (minor < 0 || minor > zorv_max_blk_minor) return;
  const node_ref dev = zorv_node_get(static_cast<u32>(minor));
  if (!dev) return;
  for (const field& f : fields_of(*dev.get())) {
    if (std::strcmp(f.name, name) == 0) {
      f.print(*dev.get(), out);
      return;
    }
  }
}

int zorv_read_proc(char* page, char** /*start*/, s64 /*offset*/, int /*count*/, int* eof,
                   void* data) {
  if (page == nullptr || eof == nullptr || data == nullptr) return -EINVAL;
  const auto* entry = static_cast<const kernel::proc_dir_entry*>(data);
  page_text out(page);
  if (entry->parent == zorv_proc_root.load(std::memory_order_acquire)) {
    print_global(entry->name.c_str(), &out);
  } else if (entry->parent != nullptr) {
    print_of_node(entry->parent->name.c_str(), entry->name.c_str(), &out);
  }
  *eof = 1;
  zorv_log(2, "%s(): %s=%s", __func__, entry->name.c_str(), page);
  return out.length();
}

int zorv_write_proc(kernel::file* /*file*/, kernel::user_addr buffer, u64 count, void* data) {
  if (data == nullptr || buffer == 0 || count == 0) return -EINVAL;
  const kernel::kbuf<char> text(
      static_cast<char*>(kernel::kmalloc(work_bytes, kernel::GFP_KERNEL)));
  if (text == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
    return -ENOMEM;
  }
  if (count > work_bytes) return -EINVAL;
  if (kernel::copy_from_user(text.get(), buffer, count) != 0) return -EFAULT;
  text[count < work_bytes ? count : work_bytes - 1] = '\0';

  const auto* entry = static_cast<const kernel::proc_dir_entry*>(data);
  if (entry->name != "debug") return static_cast<int>(count);
  const char* end = nullptr;
  const s64 value = kernel::simple_strtol(text.get(), &end, 10);
  if (*end != '\0' && *end != ' ' && *end != '\n') return -EINVAL;
  const auto level = static_cast<s32>(value);
  zorv_debug.store(level, std::memory_order_relaxed);
  zorv_log(2, "%s(): zorv_debug=%d", __func__, level);
  return static_cast<int>(count);
}

bool add_entry(const char* name, u32 mode, kernel::proc_dir_entry* parent) {
  kernel::proc_dir_entry* entry = kernel::create_proc_entry(name, mode, parent);
  if (entry == nullptr) return false;
  entry->data = entry;
  entry->read_proc = zorv_read_proc;
  if (mode == mode_rw) entry->write_proc = zorv_write_proc;
  return true;
}

struct dir_name {
  char text[32];
  explicit dir_name(u32 minor) {
    (void)std::snprintf(text, sizeof text, "zorv%d", static_cast<int>(minor));
  }
};

}  // namespace

int zorv_create_proc() {
  zorv_log(2, "%s(): Creating /proc/zorv filesystem", __func__);
  kernel::proc_dir_entry* root = kernel::proc_mkdir(tree_name, nullptr);
  if (root == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to create /proc/zorv directory.", __func__);
    return -EINVAL;
  }
  zorv_proc_root.store(root, std::memory_order_release);
  const struct {
    const char* name;
    u32 mode;
  } entries[] = {{"chr_major", mode_ro}, {"blk_major", mode_ro}, {"debug", mode_rw}};
  for (const auto& e : entries) {
    if (!add_entry(e.name, e.mode, root)) {
      zorv_log(LOG_ERROR, "%s(): Failed to create /proc/zorv/%s.", __func__, e.name);
      return -EINVAL;
    }
  }
  return 0;
}

int zorv_proc_add_device(zorv_blkdev* dev) {
  rzmutex_guard tree(&tree_mutex);
  const dir_name name(dev->minor);
  char path[64];
  (void)std::snprintf(path, sizeof path, "/proc/zorv/%s", name.text);
  zorv_log(2, "%s(): Creating %s entry for zorv(%d, %d)", __func__, path, zorv_blk_major,
           static_cast<int>(dev->minor));
  // Without the tree the directory would be made beside it.
  kernel::proc_dir_entry* root = zorv_proc_root.load(std::memory_order_acquire);
  kernel::proc_dir_entry* dir = root == nullptr ? nullptr : kernel::proc_mkdir(name.text, root);
  if (dir == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to create %s directory.", __func__, path);
    return -EINVAL;
  }
  for (const field& f : fields_of(*dev)) {
    if (!add_entry(f.name, mode_ro, dir)) {
      zorv_log(LOG_ERROR, "%s(): Failed to create %s/%s.", __func__, path, f.name);
      zorv_remove_proc_entry(dir);
      return -EINVAL;
    }
  }
  return 0;
}

void zorv_remove_proc_entry(kernel::proc_dir_entry* entry) {
  if (entry == nullptr) return;
  for (kernel::proc_dir_entry* child : kernel::proc_children(entry)) zorv_remove_proc_entry(child);
  zorv_log(2, "Removing %s...", entry->name.c_str());
  kernel::remove_proc_entry(entry->name.c_str(), entry->parent);
}

int zorv_proc_del_device(zorv_blkdev* dev) {
  rzmutex_guard tree(&tree_mutex);
  zorv_log(2, "%s(): Removing /proc entry for zorv(%d, %d)", __func__, zorv_blk_major,
           static_cast<int>(dev->minor));
  kernel::proc_dir_entry* root = zorv_proc_root.load(std::memory_order_acquire);
  if (root == nullptr) return 0;
  const dir_name name(dev->minor);
  for (kernel::proc_dir_entry* child : kernel::proc_children(root)) {
    if (child->name != name.text) continue;
    zorv_remove_proc_entry(child);
    break;
  }
  return 0;
}

int zorv_remove_proc() {
  zorv_log(1, "zorv_remove_proc(): Removing /proc/zorv tree.");
  rzmutex_guard tree(&tree_mutex);
  zorv_remove_proc_entry(zorv_proc_root.exchange(nullptr));
  return 0;
}

}  // namespace zorv
