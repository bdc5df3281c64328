// SPDX-License-Identifier: GPL-2.0-only
// Open files by path, with positioned I/O.
#include "driver/util/file.h"

#include <cassert>

#include "driver/core/log.h"
#include "kernel/mem.h"

namespace zorv {
namespace {

const char* access_word(u32 flags) {
  switch (flags & 3U) {
    case kernel::FO_RDONLY:
      return "reading";
    case kernel::FO_WRONLY:
      return "writing";
    default:
      return "reading and writing";
  }
}

char* copy_of(const char* text) {
  const std::size_t bytes = std::strlen(text) + 1;
  auto* copy = static_cast<char*>(kernel::kmalloc(bytes, kernel::GFP_KERNEL));
  if (copy != nullptr) std::memcpy(copy, text, bytes);
  return copy;
}

void free_handle(zorv_file* file) {
  kernel::kfree(file->fname);
  kernel::kdelete(file);
}

bool unusable(const zorv_file* file) {
  return file == nullptr || file->filp == nullptr || kernel::is_err(file->filp);
}

//   returns  0 | -ENOMEM (logged) | the open's error (not logged)
int open_file(const char* path, u32 flags, u32 mode, zorv_file** out) {
  auto* file = kernel::knew<zorv_file>(kernel::GFP_KERNEL);
  if (file != nullptr) file->fname = copy_of(path);
  if (file == nullptr || file->fname == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", "zorv_fopen");
    if (file != nullptr) free_handle(file);
    return -ENOMEM;
  }
  file->filp = kernel::filp_open(path, flags, mode);
  if (kernel::is_err(file->filp)) {
    const int rc = kernel::ptr_err(file->filp);
    free_handle(file);
    return rc;
  }
  *out = file;
  return 0;
}

}  // namespace

zorv_file* zorv_fopen(const char* path, u32 flags, u32 mode) {
  assert(path != nullptr);
  zorv_file* file = nullptr;
  const int rc = open_file(path, flags, mode, &file);
  if (rc != 0 && rc != -ENOMEM) {
    zorv_log(LOG_ERROR, "%s(): Failed to open file %s for %s: errno=%d", __func__, path,
             access_word(flags), rc);
  }
  return file;
}

namespace {

int check_own(zorv_file* file, const char* owner, file_lock lock, kernel::file_claim* claim) {
  if (!kernel::file_is_regular(file->filp)) {
    zorv_log(LOG_ERROR, "%s(): %s is no regular file", "zorv_fopen_own", file->fname);
    return -EINVAL;
  }
  if (const devt dev = kernel::file_device(file->filp); zorv_is_own_dev(dev)) {
    zorv_log(LOG_ERROR, "%s(): %s can't be %s: it lies on zorv(%d, %d)", "zorv_fopen_own",
             file->fname, owner, kernel::major_of(dev), kernel::minor_of(dev));
    return -EINVAL;
  }
  kernel::file_id id;
  int rc = kernel::file_identity(file->filp, &id);
  if (rc != 0) {
    zorv_log(LOG_ERROR, "%s(): Can't tell which file %s is: rc=%d", "zorv_fopen_own", file->fname,
             rc);
    return rc;
  }
  kernel::file_claim fresh;
  char whose[kernel::file_claim::owner_bytes] = {};
  const bool held = claim->held() && claim->id() == id;
  if (!held && (rc = kernel::claim_file(id, owner, &fresh, &whose)) != 0) {
    zorv_log(LOG_ERROR, "%s(): %s can't be %s: it is %s", "zorv_fopen_own", file->fname, owner,
             whose);
    return rc;
  }
  if (lock == file_lock::exclusive && (rc = kernel::vfs_lock(file->filp)) != 0) {
    zorv_log(LOG_ERROR, "%s(): %s can't be %s: %s: rc=%d", "zorv_fopen_own", file->fname, owner,
             rc == -EBUSY ? "another program has locked it" : "it can't be locked", rc);
    return rc;
  }
  if (!held) *claim = std::move(fresh);
  return 0;
}

}  // namespace

int zorv_fopen_own(const char* path, u32 flags, const char* owner, file_lock lock,
                   kernel::file_claim* claim, zorv_file** out) {
  assert((flags & kernel::FO_TRUNC) == 0);
  zorv_file* opened = nullptr;
  int rc = open_file(path, flags | kernel::FO_NOFOLLOW, 0600, &opened);
  if (rc != 0) {
    if (rc == -ENOENT) return rc;
    zorv_log(LOG_ERROR, "%s(): Failed to open file %s for %s: errno=%d%s", __func__, path,
             access_word(flags), rc, rc == -ELOOP ? " (a symbolic link)" : "");
    return rc == -ELOOP ? -EINVAL : rc;
  }
  zorv_file_ptr file(opened);
  rc = check_own(file.get(), owner, lock, claim);
  if (rc == 0) *out = file.release();
  return rc;
}

int zorv_fclose(zorv_file* file) {
  assert(file != nullptr);
  const int rc = unusable(file) ? 0 : kernel::filp_close(file->filp);
  free_handle(file);
  return rc;
}

int zorv_fwrite(zorv_file* file, u64 offset, const void* buffer, int length) {
  if (unusable(file)) {
    zorv_log(LOG_ERROR, "%s(): NULL or invalid file pointer passed as input!", __func__);
    return -EINVAL;
  }
  auto pos = static_cast<s64>(offset);
  const auto* from = static_cast<const std::byte*>(buffer);
  int written = 0;
  while (written < length) {
    const int remaining = length - written;
    const s64 rc =
        kernel::vfs_write(file->filp, from + written, static_cast<std::size_t>(remaining), &pos);
    if (rc < 0) {
      zorv_log(LOG_ERROR, "%s(): Failed to write %d bytes into %s: rc=%d", __func__, remaining,
               file->fname, static_cast<int>(rc));
      return static_cast<int>(rc);
    }
    if (rc == 0) {
      zorv_log(LOG_ERROR, "%s(): Short write into %s: wrote %d instead of %d", __func__,
               file->fname, written, length);
      return -EIO;
    }
    written += static_cast<int>(rc);
  }
  return written;
}

void zorv_fwrite_begin(kernel::file_writes* writes, zorv_file* file, u64 offset, const void* buffer,
                       int length) {
  if (unusable(file)) return;  // zorv_fwrite_end says so
  kernel::vfs_begin_write(writes, file->filp, buffer, static_cast<std::size_t>(length), offset);
}

int zorv_fwrite_end(kernel::file_writes* writes, zorv_file* file) {
  if (unusable(file)) {
    zorv_log(LOG_ERROR, "%s(): NULL or invalid file pointer passed as input!", "zorv_fwrite");
    return -EINVAL;
  }
  std::size_t failed_bytes = 0;
  const int rc = kernel::vfs_end_writes(writes, file->filp, &failed_bytes);
  if (rc != 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to write %d bytes into %s: rc=%d", "zorv_fwrite",
             static_cast<int>(failed_bytes), file->fname, rc);
  }
  return rc;
}

int zorv_fread(zorv_file* file, u64 offset, void* buffer, int length) {
  if (unusable(file)) {
    zorv_log(LOG_ERROR, "%s(): NULL or invalid file pointer passed as input!", __func__);
    return -EINVAL;
  }
  auto pos = static_cast<s64>(offset);
  auto* to = static_cast<std::byte*>(buffer);
  int got = 0;
  while (got < length) {
    const int remaining = length - got;
    const s64 rc =
        kernel::vfs_read(file->filp, to + got, static_cast<std::size_t>(remaining), &pos);
    if (rc < 0) {
      zorv_log(LOG_ERROR, "%s(): Failed to read %d bytes from %s: rc=%d", __func__, remaining,
               file->fname, static_cast<int>(rc));
      return static_cast<int>(rc);
    }
    if (rc == 0) {
      zorv_log(LOG_ERROR, "%s(): Unexpected EOF while trying to read %d bytes from %s", __func__,
               remaining, file->fname);
      return got;
    }
    got += static_cast<int>(rc);
  }
  return got;
}

int zorv_fread_at_hand(zorv_file* file, u64 offset, void* buffer, int length) {
  if (unusable(file)) return 0;  // zorv_fread says so
  const s64 rc =
      kernel::vfs_read_at_hand(file->filp, buffer, static_cast<std::size_t>(length), offset);
  if (rc >= 0 || rc == -EAGAIN) return rc < 0 ? 0 : static_cast<int>(rc);
  zorv_log(LOG_ERROR, "%s(): Failed to read %d bytes from %s: rc=%d", "zorv_fread", length,
           file->fname, static_cast<int>(rc));
  return static_cast<int>(rc);
}

int zorv_fsync(zorv_file* file) { return unusable(file) ? 0 : kernel::vfs_fsync(file->filp); }

int zorv_fempty(zorv_file* file) {
  const int rc = unusable(file) ? -EINVAL : kernel::vfs_empty(file->filp);
  if (rc != 0) zorv_log(LOG_ERROR, "%s(): Failed to empty a file: rc=%d", __func__, rc);
  return rc;
}

bool zorv_fis_foreign(zorv_file* file, u64 offset, const char* magic, int bytes) {
  char found[16];
  assert(bytes <= static_cast<int>(sizeof found));
  const u64 size = kernel::file_size(file->filp);
  if (size <= offset) return false;
  if (size - offset < static_cast<u64>(bytes)) bytes = static_cast<int>(size - offset);
  if (zorv_fread(file, offset, found, bytes) != bytes) return false;  // not known to be anything
  const char zero[sizeof found] = {};
  const auto is = [&](const char* what) {
    return std::memcmp(found, what, static_cast<std::size_t>(bytes)) == 0;
  };
  if (is(magic) || is(zero)) return false;
  zorv_log(LOG_ERROR, "%s(): %s holds something that is not ours. It stays as it is: move it away.",
           "zorv_fopen_own", file->fname);
  return true;
}

int zorv_ftruncate(const char* path) {
  zorv_file* file =
      zorv_fopen(path, kernel::FO_RDWR | kernel::FO_TRUNC | kernel::FO_LARGEFILE, 0600);
  if (file != nullptr) zorv_fclose(file);
  return 0;
}

}  // namespace zorv
