// SPDX-License-Identifier: GPL-2.0-only
#include "host/disk/engine.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "host/disk/pool.h"
#include "kernel/fault.h"
#include "kernel/printk.h"

namespace zorv {

using kernel::bio;
using kernel::u32;
using kernel::u64;

namespace {

u64 bio_offset(const bio* b) { return b->bi_sector << kernel::sector_shift; }

bool lives_in_memory(int fd) {
  struct statfs fs;
  if (::fstatfs(fd, &fs) != 0) return false;
  return fs.f_type == TMPFS_MAGIC || fs.f_type == RAMFS_MAGIC;
}

}  // namespace

// Bios of one direction that follow each other on the disk, served by one vectored call. Memory
// that follows on as well shares an iovec, so a stretch of a client's buffer is one entry.
struct file_engine::run {
  static constexpr u32 max_iovecs = kernel::bio_max_segments;
  static constexpr u64 max_bytes = 1U << 20;

  bio* first = nullptr;
  bio* last = nullptr;
  u64 offset = 0;
  u64 bytes = 0;
  u32 iovecs = 0;
  iovec iov[max_iovecs];

  // Takes the bio if it continues the run and fits; the first one always does.
  bool add(bio* b) {
    if (first == nullptr) {
      first = b;
      offset = bio_offset(b);
    } else if (bio_is_write(b) != bio_is_write(first) || bio_offset(b) != offset + bytes ||
               bytes + b->bi_size > max_bytes || iovecs + (b->bi_vcnt - b->bi_idx) > max_iovecs) {
      return false;
    }
    last = b;
    bytes += b->bi_size;
    for (u32 i = b->bi_idx; i < b->bi_vcnt; ++i) {
      const kernel::bio_vec& v = b->bi_io_vec[i];
      std::byte* at = kernel::page_address(v.bv_page) + v.bv_offset;
      iovec* tail = iovecs == 0 ? nullptr : &iov[iovecs - 1];
      if (tail != nullptr && static_cast<std::byte*>(tail->iov_base) + tail->iov_len == at) {
        tail->iov_len += v.bv_len;
      } else {
        iov[iovecs++] = {at, v.bv_len};
      }
    }
    return true;
  }

  // Hands the bios that lie wholly within the first `moved` bytes to `done` and the others to
  // `rest`, in order. A bio may be gone then.
  template <class Done, class Rest>
  void finish(u64 moved, Done done, Rest rest) {
    u64 end = 0;
    bio* next = first;
    do {
      bio* b = next;
      next = b == last ? nullptr : b->bi_next;
      b->bi_next = nullptr;
      end += b->bi_size;
      if (end <= moved) {
        done(b);
      } else {
        rest(b);
      }
    } while (next != nullptr);
  }
};

struct file_engine::moved {
  u64 bytes;
  int error;  // why it stopped before the run's end, or 0
};

std::unique_ptr<file_engine> file_engine::create(int fd, engine_backing backing,
                                                 const char* label) {
  std::unique_ptr<file_engine> e(new (std::nothrow) file_engine(fd, backing, label));
  if (e == nullptr || (e->pool_ = io_pool::create(e.get())) == nullptr) return nullptr;
  return e;
}

file_engine::file_engine(int fd, engine_backing backing, const char* label)
    : fd_(fd), backing_(backing), in_memory_(lives_in_memory(fd)) {
  std::snprintf(label_, sizeof label_, "%s", label);
}

file_engine::~file_engine() = default;

void file_engine::attach(kernel::request_queue* q) {
  q->queuedata = this;
  q->unplug = unplug;
  q->unplug_late = hand_over;
  kernel::blk_queue_make_request(q, make_request);
}

int file_engine::make_request(kernel::request_queue* q, bio* b) {
  auto* e = static_cast<file_engine*>(q->queuedata);
  if ((b->bi_rw & kernel::REQ_FLUSH) != 0) {
    e->pool_->push(b, lane::stable);
    return 0;
  }
  const auto site = bio_is_write(b) ? kernel::fault_site::bio_write : kernel::fault_site::bio_read;
  if (const int error = kernel::fault_check(site); error != 0 || b->bi_size == 0) {
    bio_endio(b, error);
  } else {
    kernel::blk_plug_bio(q, b);
  }
  return 0;
}

void file_engine::unplug(kernel::request_queue* q) {
  if (bio* list = kernel::blk_take_plugged(q); list != nullptr) {
    static_cast<file_engine*>(q->queuedata)->serve(list);
  }
}

// For the unplug timer, which is every disk's and must not wait for this one.
void file_engine::hand_over(kernel::request_queue* q) {
  auto* e = static_cast<file_engine*>(q->queuedata);
  for (bio* b = kernel::blk_take_plugged(q); b != nullptr;) {
    bio* next = b->bi_next;
    e->pool_->push(b, lane::data);
    b = next;
  }
}

void file_engine::serve(bio* list) {
  while (list != nullptr) {
    run r;
    while (list != nullptr && r.add(list)) list = list->bi_next;
    if (bio_is_write(r.first)) {
      write_run(&r);
    } else {
      read_cached(&r);
    }
  }
}

// Moves the run's bytes, as many as the host lets it.
file_engine::moved file_engine::transfer(run* r, int flags) const {
  const bool write = bio_is_write(r->first);
  moved m{0, 0};
  iovec* iov = r->iov;
  auto left = static_cast<int>(r->iovecs);
  while (m.bytes < r->bytes) {
    const auto at = static_cast<off_t>(r->offset + m.bytes);
    const ssize_t n =
        write ? ::pwritev2(fd_, iov, left, at, flags) : ::preadv2(fd_, iov, left, at, flags);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {  // a read of 0: the file ends before the disk does
      m.error = n < 0 ? -errno : -EIO;
      break;
    }
    m.bytes += static_cast<u64>(n);
    for (auto skip = static_cast<std::size_t>(n); skip != 0;) {
      const std::size_t step = skip < iov->iov_len ? skip : iov->iov_len;
      iov->iov_base = static_cast<std::byte*>(iov->iov_base) + step;
      iov->iov_len -= step;
      skip -= step;
      if (iov->iov_len == 0) ++iov, --left;
    }
  }
  return m;
}

void file_engine::read_cached(run* r) {
  ssize_t n = -1;
  const auto at = static_cast<off_t>(r->offset);
  const auto count = static_cast<int>(r->iovecs);
  if (nowait_works_.load(std::memory_order_relaxed)) {
    n = ::preadv2(fd_, r->iov, count, at, RWF_NOWAIT);
    if (n < 0 && errno == EOPNOTSUPP) nowait_works_.store(false, std::memory_order_relaxed);
  } else if (in_memory_) {
    n = ::preadv(fd_, r->iov, count, at);
  }
  // A short count may be the end of the cache or of the file; a thread finds out which.
  r->finish(
      n > 0 ? static_cast<u64>(n) : 0, [](bio* b) { bio_endio(b, 0); },
      [this](bio* b) { pool_->push(b, lane::data); });
}

// A write past the present end of an image would bring back a length that someone has taken away,
// so it is refused. The host has no call that writes but never extends; the window between the
// look and the write is as short as it can be made.
int file_engine::check_end(u64 end_bytes) const {
  if (backing_ != engine_backing::regular_file) return 0;
  const off_t end = ::lseek(fd_, 0, SEEK_END);  // a third of what fstat costs
  if (end < 0) return -errno;
  return end_bytes <= static_cast<u64>(end) ? 0 : -EIO;
}

void file_engine::write_run(run* r) {
  const auto defer = [this](bio* b) { pool_->push(b, lane::data); };
  // Past the end of the file: those that end before it are still good, and are taken singly.
  if (backing_ == engine_backing::block_device || check_end(r->offset + r->bytes) != 0) {
    r->finish(0, defer, defer);
    return;
  }
  const moved m = transfer(r, 0);
  r->finish(
      m.bytes, [this](bio* b) { done(b, 0); }, [&m](bio* b) { bio_endio(b, m.error); });
}

// The bio's data has been moved, or not.
void file_engine::done(bio* b, int error) {
  if (error == 0 && bio_is_write(b) && (b->bi_rw & kernel::REQ_FUA) != 0) {
    pool_->push(b, lane::stable);
  } else {
    bio_endio(b, error);
  }
}

void file_engine::serve_data(bio* b) {
  run r;
  r.add(b);
  int error = bio_is_write(b) ? check_end(r.offset + r.bytes) : 0;
  if (error == 0) error = transfer(&r, 0).error;
  done(b, error);
}

void file_engine::serve_stable(bio* list) {
  const int error = sync();
  while (list != nullptr) {
    bio* b = list;
    list = b->bi_next;
    b->bi_next = nullptr;
    if (error == 0 && (b->bi_rw & kernel::REQ_FLUSH) != 0 && b->bi_size != 0) {
      b->bi_rw &= ~kernel::REQ_FLUSH;  // what was to be stable before it is
      pool_->push(b, lane::data);
    } else {
      bio_endio(b, error);
    }
  }
}

int file_engine::sync() {
  const std::lock_guard guard(sync_lock_);
  if (sync_failed_) return -EIO;
  int error = kernel::fault_check(kernel::fault_site::bio_flush);
  while (error == 0 && ::fdatasync(fd_) != 0) {
    if (errno != EINTR) error = -errno;
  }
  if (error != 0) {
    sync_failed_ = true;
    kernel::printk(
        "<3>ERROR: %s: a sync failed with error %d; flushes fail from here on, because data that "
        "was acknowledged may be lost.\n",
        label_, error);
  }
  return error;
}

}  // namespace zorv
