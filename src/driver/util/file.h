// SPDX-License-Identifier: GPL-2.0-only
// Files, device nodes and raw blocks from inside the driver. Every helper logs its own failure,
// so callers only pass results on. All of them sleep.
#pragma once

#include <memory>

#include "driver/core/types.h"
#include "kernel/claim.h"
#include "kernel/fs.h"

namespace zorv {

struct zorv_file {
  char* fname = nullptr;  // owned copy of the path, for messages
  kernel::file* filp = nullptr;
};

// The handle, or null (logged). Flags are kernel::FO_*; files are created with mode 0600.
[[nodiscard]] zorv_file* zorv_fopen(const char* path, u32 flags, u32 mode);
// Opens a file that is to be this caller's alone, without changing it: not through a link at the
// path's end, regular files only, claimed in this process, and locked against other processes on
// request. Only then may the caller truncate or write it.
//   flags    FO_CREAT makes a missing file; FO_TRUNC is not for this
//   owner    what the claim says to others: "zorv(100, 3)'s COW data file"
//   claim    gets the claim; one that it holds on the very file stays
//   returns  0 | -ENOENT | -EINVAL (a link, no regular file, on one of our nodes) | -EBUSY
//   (somebody's) | an errno; logged
//            except -ENOENT; *out is set and the claim taken only with 0
enum class file_lock { none, exclusive };
[[nodiscard]] int zorv_fopen_own(const char* path, u32 flags, const char* owner, file_lock lock,
                                 kernel::file_claim* claim, zorv_file** out);
int zorv_fclose(zorv_file* file);  // frees the handle; the close's result
// Bytes moved or a negative errno. A write moves all or fails (-EIO on a short write); a read
// returns fewer bytes at the end of the file (logged, no error).
[[nodiscard]] int zorv_fwrite(zorv_file* file, u64 offset, const void* buffer, int length);
// Writes that go on after the call, as kernel::vfs_begin_write makes them.
void zorv_fwrite_begin(kernel::file_writes* writes, zorv_file* file, u64 offset, const void* buffer,
                       int length);
[[nodiscard]] int zorv_fwrite_end(kernel::file_writes* writes, zorv_file* file);  // 0 | errno
[[nodiscard]] int zorv_fread(zorv_file* file, u64 offset, void* buffer, int length);
// The beginning of that, as far as the host need not wait for a device: 0 where it need.
[[nodiscard]] int zorv_fread_at_hand(zorv_file* file, u64 offset, void* buffer, int length);
[[nodiscard]] int zorv_fsync(zorv_file* file);
[[nodiscard]] int zorv_fempty(zorv_file* file);  // 0 | negative errno (logged)
int zorv_ftruncate(const char* path);  // empties the file; always 0, an open failure is logged

// Whether what stands at the offset is neither the magic nor zero nor the file's end: somebody
// else's file. A power cut leaves one of ours with its length, but without its contents.
[[nodiscard]] bool zorv_fis_foreign(zorv_file* file, u64 offset, const char* magic, int bytes);

struct zorv_file_closer {
  void operator()(zorv_file* f) const { zorv_fclose(f); }
};
using zorv_file_ptr = std::unique_ptr<zorv_file, zorv_file_closer>;

// A referenced entry (kernel::dput), null (nothing there) or an error value (-EINVAL: no absolute
// path, logged).
[[nodiscard]] kernel::dentry* zorv_get_file_dentry(const char* path, int follow);
// Device number of the block device under the file system that holds the path or would hold it
// (nearest existing ancestor); 0 when there is none.
[[nodiscard]] devt zorv_get_file_devt(const char* path);
// Whether that is a node of this driver. Files that requests wait for cannot be there: writing them
// takes requests that may wait for the same.
[[nodiscard]] bool zorv_is_own_dev(devt dev);

// The entry of the parent look-up's last component, possibly negative, or an error value (-EEXIST:
// no ordinary name, -ENOENT: a trailing '/' behind a name that does not exist).
//   locks    takes the parent directory's and leaves it held on every return
[[nodiscard]] kernel::dentry* zorv_lookup_create(kernel::nameidata* nd);
int zorv_mknod(const char* path, int is_block, u32 major, u32 minor);  // 0 | negative errno
int zorv_unlink(const char* path);  // 0 | -ENOENT (silent) | negative errno

[[nodiscard]] kernel::block_device* zorv_open_bdev(devt dev, u32 mode);  // or null
void zorv_close_bdev(kernel::block_device* bdev);
[[nodiscard]] int zorv_is_mounted(kernel::block_device* bdev);  // 1 | 0

// Reads count blocks of block_size bytes (at most 4096), one after the other.
//   returns  0 | -EINVAL (block size) | -ENOMEM | -EIO
[[nodiscard]] int zorv_bread(kernel::block_device* bdev, void* buffer, u32 block_size,
                             s64 first_block, s32 count);
void zorv_bio_complete(kernel::bio* bio, int error);

}  // namespace zorv
