// SPDX-License-Identifier: GPL-2.0-only
// Files of the host, and path look-up in which zorvd's own device namespace stands before the
// host's.
//
// "/dev/zorv/" and "/dev/image/" belong to the namespace: a directory each, holding device nodes
// in memory, nothing else; they are there from the start. Every other path is the host's.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kernel/blkdev.h"
#include "kernel/types.h"

namespace kernel {

constexpr u32 S_IFMT_ = 0xf000, S_IFBLK_ = 0x6000, S_IFCHR_ = 0x2000, S_IFDIR_ = 0x4000,
              S_IFREG_ = 0x8000, S_IFLNK_ = 0xa000;
constexpr bool s_isblk(u32 mode) { return (mode & S_IFMT_) == S_IFBLK_; }
constexpr bool s_islnk(u32 mode) { return (mode & S_IFMT_) == S_IFLNK_; }

constexpr u32 FO_RDONLY = 0, FO_WRONLY = 1, FO_RDWR = 2, FO_CREAT = 0x40, FO_TRUNC = 0x200,
              FO_SYNC = 0x1000, FO_LARGEFILE = 0x8000;
constexpr u32 FO_EXCL = 0x80;         // with FO_CREAT: -EEXIST when the name is taken
constexpr u32 FO_NOFOLLOW = 0x20000;  // -ELOOP when the last component is a symbolic link

struct inode {
  u32 i_mode = 0;
  devt i_rdev = 0;  // block and character nodes
  u64 i_ino = 0;
  u64 i_size = 0;  // at look-up time
};

// One look-up's view of a name; reference-counted, never shared with the host.
struct dentry {
  std::string d_name;       // last component
  std::string d_path;       // absolute path it was found under
  bool d_negative = false;  // no inode behind the name
  inode d_node;
  devt d_fs_dev = 0;         // block device under its file system, 0 when there is none
  bool d_namespace = false;  // lives in zorvd's device namespace
  u32 d_count = 1;
  [[nodiscard]] inode* d_inode() { return d_negative ? nullptr : &d_node; }
};
dentry* dget(dentry* d);
void dput(dentry* d);

constexpr u32 LOOKUP_FOLLOW = 1;
constexpr u32 LOOKUP_PARENT = 16;
enum last_type { LAST_NORM, LAST_ROOT, LAST_DOT, LAST_DOTDOT };

struct nameidata {
  dentry* path = nullptr;  // the entry, or (LOOKUP_PARENT) the parent directory; one reference
  std::string last;        // LOOKUP_PARENT: the last component
  last_type type = LAST_NORM;
  bool trailing = false;  // LOOKUP_PARENT: a '/' followed it
  u32 flags = 0;
};

// Block device nodes of the host are told by their own device numbers.
//   returns  0 (release with path_put) | -ENOENT, -ENOTDIR, -EACCES, -ENAMETOOLONG, -ELOOP |
//            -ENXIO (a block device of the host whose number is registered here)
[[nodiscard]] int path_lookup(const char* path, u32 flags, nameidata* nd);
void path_put(nameidata* nd);
// The directory's own mutex; held across look-up and change of a name in it.
void dir_lock(dentry* dir);
void dir_unlock(dentry* dir);
// The entry of that name in the directory, negative when there is none; or an error value.
[[nodiscard]] dentry* lookup_one_len(const char* name, dentry* dir, std::size_t len);
// Device nodes are made in the namespace only.
//   returns  0 | -EEXIST | -EPERM (a host directory)
[[nodiscard]] int vfs_mknod(dentry* dir, dentry* entry, u32 mode, devt dev);
[[nodiscard]] int vfs_unlink(dentry* dir, dentry* entry);  // 0 | -ENOENT | the host's error

struct file;
// An open host file, or an error value. A namespace path and a FIFO give -ENXIO.
[[nodiscard]] file* filp_open(const char* path, u32 flags, u32 mode);
int filp_close(file* f);
// Positioned; *pos advances. Short counts as the host gives them; EINTR is retried.
[[nodiscard]] s64 vfs_read(file* f, void* buffer, std::size_t bytes, s64* pos);
// The same as far as the host need not wait for a device: what it has cached.
//   returns  a count | -EAGAIN (nothing) | negative errno
[[nodiscard]] s64 vfs_read_at_hand(file* f, void* buffer, std::size_t bytes, u64 offset);
[[nodiscard]] s64 vfs_write(file* f, const void* buffer, std::size_t bytes, s64* pos);
// Writes that go on after the call that began them, beside each other: for data that is written
// once, synced soon and read late if ever. Where the host can do it, whole pages go past its page
// cache. One task's, for one file at a time; several tasks may write one file so. Writes under way
// do not overlap, and their memory stays as it is until vfs_end_writes.
class file_writes;
[[nodiscard]] file_writes* file_writes_alloc();  // or null
void file_writes_free(file_writes* w);           // nothing under way; null is fine
void vfs_begin_write(file_writes* w, file* f, const void* buffer, std::size_t bytes, u64 offset);
// Waits for all of them.
//   returns  0 | the negative errno of a write that failed, of as many bytes as *failed_bytes says
[[nodiscard]] int vfs_end_writes(file_writes* w, file* f, std::size_t* failed_bytes);
[[nodiscard]] int vfs_fsync(file* f);
[[nodiscard]] int vfs_empty(file* f);  // its length becomes 0
[[nodiscard]] u64 file_size(file* f);  // bytes, from its inode
// Whether a name leads to the file still: what is written to one without goes with its last handle.
[[nodiscard]] bool file_linked(file* f);
[[nodiscard]] bool file_is_regular(file* f);
[[nodiscard]] devt file_device(file* f);  // that its file system lives on, 0 when there is none
[[nodiscard]] int vfs_truncate(file* f, u64 bytes);  // its length; 0 | negative errno

// Which file of the host this is, whatever names lead to it. The time of birth tells it from a
// later file that got its inode number; where the host's file system keeps none, the inode's
// generation does (negative, of open files alone); 0 where there is neither.
struct file_id {
  u64 dev = 0;
  u64 ino = 0;
  s64 birth_ns = 0;
  [[nodiscard]] bool valid() const { return ino != 0; }
  // Births are compared where both are known.
  bool operator==(const file_id& o) const {
    return dev == o.dev && ino == o.ino &&
           (birth_ns == o.birth_ns || birth_ns == 0 || o.birth_ns == 0);
  }
};
[[nodiscard]] int file_identity(file* f, file_id* id);  // of an open file: 0 | negative errno
[[nodiscard]] int fd_identity(int fd, file_id* id);     // the same of a host's descriptor
// Of what the name leads to now; a symbolic link at its end is the link itself.
//   returns  0 | -ENOENT | the look-up's error
[[nodiscard]] int path_identity(const char* path, file_id* id);
// Locks the whole file against every other open of it, of this process or another, until the handle
// is closed. Does not wait.
//   returns  0 | -EBUSY (somebody has it) | negative errno
[[nodiscard]] int vfs_lock(file* f);
// Removes the name as long as it leads to that very file; a link at its end is not followed.
//   returns  0 | -ENOENT | -ESTALE (it leads to another file) | negative errno
[[nodiscard]] int fs_unlink_file(const char* path, const file_id& id);
// Syncs the directory that holds the path, so that a new name in it survives a power cut.
[[nodiscard]] int fs_sync_parent(const char* path);

// Lets the host say which device a file system on a given host device really lives on (a loop
// device over one of our node files counts as that node). Major 0 stands for the file system of a
// FUSE server, the minor for its number. Returns 0 for "no opinion".
using fs_device_resolver = devt (*)(u32 host_major, u32 host_minor);
void set_fs_device_resolver(fs_device_resolver fn);

}  // namespace kernel
