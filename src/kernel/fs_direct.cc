// SPDX-License-Identifier: GPL-2.0-only
// Several writes of a file at once, past the host's page cache.
//
// They go through a second descriptor of the same file, opened with O_DIRECT, by the host's
// asynchronous I/O. Whatever the host will not do that way is written the plain way: a file system
// without O_DIRECT, a range that is no whole pages, a write that failed or came up short. So the
// plain write decides which error a caller sees. Reads of the file stay plain; the host drops what
// its cache holds of a range that is written past it, and fails the next sync if it could not.
#include <fcntl.h>
#include <libaio.h>
#include <unistd.h>

#include <array>

#include "kernel/fault.h"
#include "kernel/fs_internal.h"
#include "kernel/mem.h"
#include "kernel/task.h"

namespace kernel {

namespace {

constexpr int no_direct = -2;

// The file's descriptor for such writes, or no_direct.
int direct_fd(file* f) {
  int fd = f->direct.load();
  if (fd != -1) return fd;
  const int access = ::fcntl(f->fd, F_GETFL);
  if (access >= 0 && (access & O_ACCMODE) != O_RDONLY) {
    const std::string self = "/proc/self/fd/" + std::to_string(f->fd);
    fd = ::open(self.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC);
    // What is read ahead of a reader would be dropped again by the writes.
    if (fd >= 0) (void)::posix_fadvise(f->fd, 0, 0, POSIX_FADV_RANDOM);
  }
  if (fd < 0) fd = no_direct;
  int before = -1;
  if (f->direct.compare_exchange_strong(before, fd)) return fd;
  if (fd >= 0) ::close(fd);
  return before;
}

}  // namespace

class file_writes {
 public:
  file_writes() {
    for (u32 i = 0; i < depth; ++i) idle_[i] = &requests_[i];
    if (::io_setup(depth, &context_) != 0) context_ = nullptr;
  }
  ~file_writes() {
    if (context_ != nullptr) ::io_destroy(context_);  // waits for what is under way
  }
  file_writes(const file_writes&) = delete;
  file_writes& operator=(const file_writes&) = delete;

  void fail(int rc, std::size_t bytes) {
    if (rc_ != 0) return;
    rc_ = rc;
    failed_bytes_ = bytes;
  }

  void begin(file* f, const std::byte* from, std::size_t bytes, u64 offset) {
    const u64 all = reinterpret_cast<std::uintptr_t>(from) | bytes | offset;
    const bool whole_pages = (all & (page_size - 1)) == 0;
    if (whole_pages && !fs_is_recording() && submit(f, from, bytes, offset)) return;
    write_plainly(f, from, bytes, offset);
  }

  int end(file* f, std::size_t* failed_bytes) {
    const bool any_direct = direct_;
    while (idle_count_ < depth) reap(f);
    direct_ = false;
    // What went past the cache is on stable storage after a sync only.
    if (any_direct && f->sync) {
      if (const int rc = vfs_fsync(f); rc != 0) fail(rc, 0);
    }
    *failed_bytes = failed_bytes_;
    const int rc = rc_;
    rc_ = 0;
    failed_bytes_ = 0;
    return rc;
  }

 private:
  static constexpr u32 depth = 64;

  bool submit(file* f, const std::byte* from, std::size_t bytes, u64 offset) {
    const int fd = direct_fd(f);
    if (fd < 0 || context_ == nullptr) return false;
    if (idle_count_ == 0) reap(f);
    if (context_ == nullptr) return false;
    iocb* request = idle_[idle_count_ - 1];
    ::io_prep_pwrite(request, fd, const_cast<std::byte*>(from), bytes,
                     static_cast<long long>(offset));
    if (::io_submit(context_, 1, &request) != 1) return false;
    --idle_count_;
    direct_ = true;
    return true;
  }

  // Takes what has ended, one write at least.
  void reap(file* f) {
    std::array<io_event, depth> events;
    int n;
    do {
      n = ::io_getevents(context_, 1, depth, events.data(), nullptr);
    } while (n == -EINTR);
    if (n < 0) {  // no way is left to learn how they ended
      ::io_destroy(context_);
      context_ = nullptr;
      for (u32 i = 0; i < depth; ++i) idle_[i] = &requests_[i];
      idle_count_ = depth;
      fail(n, 0);
      return;
    }
    for (int i = 0; i < n; ++i) finish(f, events[static_cast<u32>(i)]);
  }

  void finish(file* f, const io_event& event) {
    iocb* request = event.obj;
    const auto& range = request->u.c;
    const auto rc = static_cast<long>(event.res);
    const std::size_t moved = rc > 0 ? static_cast<std::size_t>(rc) : 0;
    write_plainly(f, static_cast<const std::byte*>(range.buf) + moved, range.nbytes - moved,
                  static_cast<u64>(range.offset) + moved);
    idle_[idle_count_++] = request;
  }

  void write_plainly(file* f, const std::byte* from, std::size_t bytes, u64 offset) {
    while (bytes != 0) {
      const s64 n = file_pwrite(f, from, bytes, offset);
      if (n <= 0) {
        fail(n < 0 ? static_cast<int>(n) : -EIO, bytes);
        return;
      }
      from += n;
      offset += static_cast<u64>(n);
      bytes -= static_cast<std::size_t>(n);
    }
  }

  io_context_t context_ = nullptr;  // null: the host has none for us
  iocb requests_[depth];
  iocb* idle_[depth];
  u32 idle_count_ = depth;
  bool direct_ = false;  // since the last end
  int rc_ = 0;           // of the first that failed since then
  std::size_t failed_bytes_ = 0;
};

file_writes* file_writes_alloc() { return knew<file_writes>(GFP_KERNEL); }
void file_writes_free(file_writes* w) { kdelete(w); }

void vfs_begin_write(file_writes* w, file* f, const void* buffer, std::size_t bytes, u64 offset) {
  might_sleep("vfs_begin_write");
  if (const int rc = fault_check(fault_site::file_write); rc != 0) {
    w->fail(rc, bytes);
  } else {
    w->begin(f, static_cast<const std::byte*>(buffer), bytes, offset);
  }
}

int vfs_end_writes(file_writes* w, file* f, std::size_t* failed_bytes) {
  might_sleep("vfs_end_writes");
  return w->end(f, failed_bytes);
}

}  // namespace kernel
