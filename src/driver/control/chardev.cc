// SPDX-License-Identifier: GPL-2.0-only
// The control device and its dispatcher: look the command up, move its record, check the node,
// call the handler. What a command does is its handler's.
#include "driver/control/chardev.h"

#include <type_traits>

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/handout.h"
#include "driver/block/block.h"
#include "driver/core/blkdev.h"
#include "driver/core/log.h"
#include "kernel/mem.h"

namespace zorv {
namespace {

using kernel::user_addr;

constexpr u32 first_minor = 0;
constexpr u32 minor_count = 256;
constexpr const char* device_name = "zorv";

constexpr u32 command_in = 1U << 30;   // the caller passes data in
constexpr u32 command_out = 1U << 31;  // data comes back
constexpr u32 command_type(u32 command) { return command >> 8 & 0xffU; }
constexpr u32 command_bytes(u32 command) { return command >> 16 & 0x3fffU; }

int registered = 0;

// A caller may fill a text field to its last byte. Handlers read texts to their NUL, so every
// field of the driver's copy gets one; a text is cut by that only where it has no end at all.
struct texts {
  static void close(zorv_add_filter_req* r) {
    end(r->hdd_name);
    end(r->bmp_dir);
    end(r->uuid);
    end(r->name);
  }
  static void close(zorv_add_snap_req* r) {
    end(r->cow_bmp_fname);
    end(r->cow_data_fname);
    end(r->uuid);
    end(r->name);
  }
  static void close(zorv_test_datablock_req* r) { end(r->hdd_name); }
  static void close(void*) {}  // texts go out only, or there are none

 private:
  template <std::size_t N>
  static void end(char (&field)[N]) {
    field[N - 1] = '\0';
  }
};

// A handler under one signature for the table, whatever its record is called.
template <auto handler>
struct entry_of;
template <class R, int (*handler)(R*)>
struct entry_of<handler> {
  using record = std::remove_const_t<R>;
  static int call(zorv_blkdev* /*dev*/, void* raw) {
    auto* r = static_cast<record*>(raw);
    texts::close(r);
    return handler(r);
  }
};
template <class R, int (*handler)(zorv_blkdev*, R*)>
struct entry_of<handler> {
  using record = R;
  static int call(zorv_blkdev* dev, void* raw) { return handler(dev, static_cast<R*>(raw)); }
};

enum class names_node { no, yes };  // yes: the record's first word is a minor, checked here

struct command_row {
  u32 number;
  const char* name;
  names_node node;
  int (*handler)(zorv_blkdev* dev, void* record);
};

template <auto handler>
constexpr command_row row(u32 number, const char* name, names_node node) {
  static_assert(sizeof(typename entry_of<handler>::record) != 0);
  return {number, name, node, entry_of<handler>::call};
}

constexpr command_row commands[] = {
    row<zorv_ioctl_add_filter_node>(ZORV_ADD_FILTER_NODE, "ZORV_ADD_FILTER_NODE", names_node::no),
    row<zorv_ioctl_add_snap_node>(ZORV_ADD_SNAP_NODE, "ZORV_ADD_SNAP_NODE", names_node::no),
    row<zorv_ioctl_del_node>(ZORV_DEL_NODE, "ZORV_DEL_NODE", names_node::no),
    row<zorv_ioctl_start_node>(ZORV_START_NODE, "ZORV_START_NODE", names_node::no),
    row<zorv_ioctl_stop_node>(ZORV_STOP_NODE, "ZORV_STOP_NODE", names_node::no),
    row<zorv_ioctl_get_device_list>(ZORV_GET_DEVICE_LIST, "ZORV_GET_DEVICE_LIST", names_node::no),
    row<zorv_ioctl_get_info>(ZORV_GET_INFO, "ZORV_GET_INFO", names_node::yes),
    row<zorv_ioctl_load_bmp>(ZORV_LOAD_BMP, "ZORV_LOAD_BMP", names_node::yes),
    row<zorv_ioctl_save_bmp>(ZORV_SAVE_BMP, "ZORV_SAVE_BMP", names_node::yes),
    row<zorv_ioctl_clr_bmp>(ZORV_CLR_BMP, "ZORV_CLR_BMP", names_node::yes),
    row<zorv_ioctl_set_bmp>(ZORV_SET_BMP, "ZORV_SET_BMP", names_node::yes),
    row<zorv_ioctl_merge_bmp>(ZORV_MERGE_BMP, "ZORV_MERGE_BMP", names_node::yes),
    row<zorv_ioctl_get_bmp>(ZORV_GET_BMP, "ZORV_GET_BMP", names_node::yes),
    row<zorv_ioctl_get_and_clr_bmp>(ZORV_GET_AND_CLR_BMP, "ZORV_GET_AND_CLR_BMP", names_node::yes),
    row<zorv_ioctl_get_datablock_bmp>(ZORV_GET_DATABLOCK_BMP, "ZORV_GET_DATABLOCK_BMP",
                                      names_node::yes),
    row<zorv_ioctl_test_datablock>(ZORV_TEST_DATABLOCK, "ZORV_TEST_DATABLOCK", names_node::no),
    row<zorv_ioctl_resume_snap>(ZORV_RESUME_SNAP, "ZORV_RESUME_SNAP", names_node::no),
};

const command_row* find_command(u32 number) {
  for (const command_row& c : commands) {
    if (c.number == number) return &c;
  }
  return nullptr;
}

// The handler on the node that the record's first word names, which is pinned meanwhile.
int call_on_node(const char* caller, const command_row& c, void* record) {
  u32 minor = 0;
  std::memcpy(&minor, record, sizeof minor);
  const node_ref dev = zorv_node_get(minor);
  if (!dev) {
    zorv_log(LOG_ERROR, "%s(): Invalid ZORV minor=%d", caller, static_cast<int>(minor));
    return -EINVAL;
  }
  return c.handler(dev.get(), record);
}

s64 zorv_char_read(kernel::file*, user_addr, std::size_t, s64*) { return 0; }
s64 zorv_char_write(kernel::file*, user_addr, std::size_t, s64*) { return 0; }
int zorv_char_open(kernel::inode*, kernel::file*) { return 0; }
int zorv_char_release(kernel::inode*, kernel::file*) { return 0; }

constexpr kernel::file_operations fops = {
    .read = zorv_char_read,
    .write = zorv_char_write,
    .open = zorv_char_open,
    .release = zorv_char_release,
    .ioctl = zorv_char_ioctl,
};

}  // namespace

int zorv_char_init() {
  zorv_log(2, "%s(): Initializing character device", __func__);
  const int rc = kernel::register_chrdev_region(static_cast<u32>(zorv_chr_major), first_minor,
                                                minor_count, device_name, &fops);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to register character device: rc=%d.", __func__, rc);
    return rc;
  }
  if (zorv_chr_major == 0) zorv_chr_major = rc;
  zorv_log(2, "%s(): zorv_chr_major=%d", __func__, zorv_chr_major);
  registered = 1;
  return 0;
}

int zorv_char_destroy() {
  if (registered != 0) {
    zorv_log(2, "%s(): Unregistering character device driver", __func__);
    kernel::unregister_chrdev_region(static_cast<u32>(zorv_chr_major), first_minor, minor_count,
                                     device_name);
    registered = 0;
  }
  return 0;
}

int zorv_char_ioctl(kernel::inode* /*inode*/, kernel::file* /*file*/, u32 command,
                    user_addr argument) {
  zorv_handout_forget_last();
  const command_row* c = find_command(command);
  zorv_log(2, "%s(): cmd=0x%02x (%s)", __func__, command, c != nullptr ? c->name : "UNKNOWN");
  if (c == nullptr && command_type(command) != 'C') return -ENOTTY;

  const std::size_t bytes = command_bytes(command);
  if ((command & command_out) != 0 && !kernel::access_ok(argument, bytes)) return -EFAULT;
  if ((command & command_in) != 0 && !kernel::access_ok(argument, bytes)) return -EFAULT;
  if (c == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Inappropriate ioctl cmd=%d", __func__, static_cast<int>(command));
    return -ENOTTY;
  }

  const kernel::kbuf<std::byte> record(
      static_cast<std::byte*>(kernel::kmalloc(bytes, kernel::GFP_KERNEL)));
  if (record == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
    return -EFAULT;
  }
  if (kernel::copy_from_user(record.get(), argument, bytes) != 0) {
    zorv_log(LOG_ERROR, "%s(): copy_from_user() failed.", __func__);
    return -EFAULT;
  }
  const int rc = c->node == names_node::yes ? call_on_node(__func__, *c, record.get())
                                            : c->handler(nullptr, record.get());
  if (rc != 0) return rc;
  if ((command & command_out) != 0 && kernel::copy_to_user(argument, record.get(), bytes) != 0) {
    // Both directions have the one text: whoever reads the log looks for it.
    zorv_log(LOG_ERROR, "%s(): copy_from_user() failed.", __func__);
    return -EFAULT;
  }
  return 0;
}

}  // namespace zorv
