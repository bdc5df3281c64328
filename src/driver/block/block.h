// SPDX-License-Identifier: GPL-2.0-only
// A node's life after creation, its block device operations, and the two queries.
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

extern const kernel::block_device_operations zorv_bdops;

int zorv_block_open(kernel::block_device* bdev, kernel::fmode_t mode);
int zorv_block_release(kernel::gendisk* disk, kernel::fmode_t mode);
int zorv_block_ioctl(kernel::block_device* bdev, kernel::fmode_t mode, u32 command, u64 argument);
// A filter's disk's. No lock: the caller has the node open, and so the record and its disk stay.
int zorv_block_flush(kernel::block_device* bdev);
int zorv_block_identity(kernel::block_device* bdev, char* text, std::size_t bytes);

// On a pinned record, with no lock held but, of a snap's, its filter's dev_mutex; they take the
// record's dev_mutex themselves.
int zorv_block_start_device(zorv_blkdev* dev) EXCLUDES(zorv_blkdev_rwlock);
int zorv_block_stop_device(zorv_blkdev* dev) EXCLUDES(zorv_blkdev_rwlock);
// Frees the record, with the caller's pin on it, unless it fails or postpones. Waits until
// everybody else has let go of the node.
//   remove_files  1 also deletes a snap's COW files
//   locks         none
int zorv_block_destroy_device(node_ref dev, int remove_files) EXCLUDES(zorv_blkdev_rwlock);
// Unload: stops and destroys every node, frees the table, unregisters the major, ends kdirtyd. A
// node that stands on another goes before it; a failure keeps nobody else's node.
//   returns  0 | the first failure (the table and what is left in it stay)
int zorv_block_destroy();

// "Nothing is known about ..." and -EINVAL.
int zorv_block_unknown_node(const char* op, u32 minor);

// The whole disk and queue of a new node, added and writable; null (logged) when memory is short.
//   hdd     its limits and read-ahead size are taken over
//   caller  the operation's name, for its message
kernel::gendisk* zorv_block_add_disk(zorv_blkdev* dev, u64 dev_size, kernel::block_device* hdd,
                                     kernel::unplug_fn unplug, const char* caller);
// Whether a node may have the name: printable UTF-8, no ':' in front, and its device node's path
// can be kept; logged when not.
[[nodiscard]] bool zorv_block_node_name_fits(const char* name, const char* caller);
// Removes whatever stands at the node's path and makes its device node; fills dev_name on success.
void zorv_block_make_node(zorv_blkdev* dev);

// Command handlers. A node that is passed in is pinned by the caller; no lock is held.
int zorv_ioctl_add_filter_node(zorv_add_filter_req* req);
int zorv_ioctl_add_snap_node(zorv_add_snap_req* req);
int zorv_ioctl_start_node(const zorv_node_req* req);
int zorv_ioctl_stop_node(const zorv_node_req* req);
int zorv_ioctl_del_node(const zorv_node_req* req);
int zorv_ioctl_resume_snap(const zorv_resume_snap_req* req);
int zorv_ioctl_get_device_list(zorv_device_list_req* req);
int zorv_ioctl_get_info(zorv_blkdev* dev, zorv_info_req* req);
int zorv_ioctl_test_datablock(zorv_test_datablock_req* req);
int zorv_ioctl_get_datablock_bmp(zorv_blkdev* dev, zorv_bmp_range_req* req);

}  // namespace zorv
