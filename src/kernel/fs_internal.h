// SPDX-License-Identifier: GPL-2.0-only
// What the pieces of the file layer share. For them only.
#pragma once

#include <atomic>
#include <string>
#include <string_view>

#include "kernel/fs.h"

namespace kernel {

struct file {
  int fd = -1;
  bool sync = false;             // every write is on stable storage when it returns
  std::atomic<int> direct = -1;  // a descriptor that goes past the page cache; -1: not asked for
};

// The absolute path without "//", "." and ".." (taken by their spelling, not through the host).
std::string fs_normalise(std::string_view path);
// Whether a normalised path names the device namespace: one of its directories or below.
bool fs_in_namespace(std::string_view normalised);
// "/a/b" -> "/a", "/a" -> "/", "a" -> "."
std::string fs_parent_of(std::string_view path);

// Block device under the host file system that holds the path, 0 when there is none.
devt fs_device_of(const char* path, bool follow);
devt fs_device_of_open(int fd);

#ifdef ZORV_FAULTS
// The record of what is not on stable storage yet (tests/doubles/fault.h). While it is on, changes
// go through these, which make the change and remember what it replaced in one step.
extern std::atomic<bool> fs_recording;
inline bool fs_is_recording() { return fs_recording.load(std::memory_order_relaxed); }
int unsynced_open(const char* path, int host_flags, u32 mode);  // a descriptor | negative errno
s64 unsynced_write(int fd, const void* buffer, std::size_t bytes, u64 offset, bool synced);
int unsynced_fsync(int fd);
int unsynced_truncate(int fd, u64 bytes);
int unsynced_unlink(const char* path);
int unsynced_sync_directory(const char* directory);
#else
constexpr bool fs_is_recording() { return false; }
constexpr int unsynced_open(const char*, int, u32) { return -ENOSYS; }
constexpr s64 unsynced_write(int, const void*, std::size_t, u64, bool) { return -ENOSYS; }
constexpr int unsynced_fsync(int) { return -ENOSYS; }
constexpr int unsynced_truncate(int, u64) { return -ENOSYS; }
constexpr int unsynced_unlink(const char*) { return -ENOSYS; }
constexpr int unsynced_sync_directory(const char*) { return -ENOSYS; }
#endif

// A write at an offset, recorded when that is on: a count, short ones as the host gives them, or a
// negative errno.
s64 file_pwrite(file* f, const void* buffer, std::size_t bytes, u64 offset);
// The plain calls with EINTR retried: a result, or a negative errno.
s64 host_pread(int fd, void* buffer, std::size_t bytes, u64 offset);
s64 host_pwrite(int fd, const void* buffer, std::size_t bytes, u64 offset);
int host_fsync(int fd);
int host_sync_directory(const char* directory);

}  // namespace kernel
