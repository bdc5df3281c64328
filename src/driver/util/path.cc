// SPDX-License-Identifier: GPL-2.0-only
// Names: looking them up, the device they live on, making and removing them.
#include <cassert>

#include "driver/core/blkdev.h"
#include "driver/core/log.h"
#include "driver/util/file.h"
#include "kernel/mem.h"

namespace zorv {
namespace {

// The parent of a name that is about to change, its mutex held, with the name's entry.
class [[nodiscard]] locked_name {
 public:
  // caller: the operation's name, for its messages.
  locked_name(const char* caller, const char* path) {
    rc_ = kernel::path_lookup(path, kernel::LOOKUP_PARENT, &nd_);
    if (rc_ != 0) {
      zorv_log(LOG_ERROR, "%s(): Failed to lookup parent of %s: rc=%d", caller, path, rc_);
      return;
    }
    locked_ = true;
    kernel::dentry* entry = zorv_lookup_create(&nd_);
    if (kernel::is_err(entry)) {
      rc_ = kernel::ptr_err(entry);
      zorv_log(LOG_ERROR, "%s(): Failed to lookup %s: rc=%d", caller, path, rc_);
      return;
    }
    entry_ = entry;
  }
  ~locked_name() {
    if (entry_ != nullptr) kernel::dput(entry_);
    if (!locked_) return;
    kernel::dir_unlock(nd_.path);
    kernel::path_put(&nd_);
  }
  locked_name(const locked_name&) = delete;
  locked_name& operator=(const locked_name&) = delete;

  [[nodiscard]] int rc() const { return rc_; }
  [[nodiscard]] kernel::dentry* dir() const { return nd_.path; }
  [[nodiscard]] kernel::dentry* entry() const { return entry_; }

 private:
  kernel::nameidata nd_;
  kernel::dentry* entry_ = nullptr;
  int rc_ = 0;
  bool locked_ = false;
};

}  // namespace

kernel::dentry* zorv_get_file_dentry(const char* path, int follow) {
  assert(path != nullptr);
  if (path[0] != '/') {
    zorv_log(LOG_ERROR, "%s(): Can't lookup %s: must be an absolute path.", __func__, path);
    return kernel::err_ptr<kernel::dentry>(-EINVAL);
  }
  kernel::nameidata nd;
  const int rc = kernel::path_lookup(path, follow != 0 ? kernel::LOOKUP_FOLLOW : 0, &nd);
  if (rc == -ENOENT) return nullptr;
  if (rc != 0) return kernel::err_ptr<kernel::dentry>(rc);
  kernel::dentry* entry = nullptr;
  if (const kernel::inode* node = nd.path->d_inode(); node != nullptr) {
    entry = kernel::dget(nd.path);
    zorv_log(2, "%s(): %s: dentry=(%p, %s), inode=(%p, %d)", __func__, path,
             static_cast<const void*>(entry), entry->d_name.c_str(), static_cast<const void*>(node),
             static_cast<int>(node->i_ino));
  }
  kernel::path_put(&nd);
  return entry;
}

devt zorv_get_file_devt(const char* path) {
  assert(path != nullptr);
  const std::size_t bytes = std::strlen(path) + 1;
  const kernel::kbuf<char> copy(static_cast<char*>(kernel::kmalloc(bytes, kernel::GFP_KERNEL)));
  if (copy == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
    return 0;
  }
  std::memcpy(copy.get(), path, bytes);
  while (copy[0] != '\0') {
    kernel::dentry* entry = zorv_get_file_dentry(copy.get(), 0);
    if (entry != nullptr && !kernel::is_err(entry)) {
      const devt dev = entry->d_fs_dev;
      kernel::dput(entry);
      return dev;
    }
    char* slash = std::strrchr(copy.get(), '/');
    if (slash == nullptr) break;
    // The ancestor of "/name" is the root; what is left of "/" itself is nothing.
    const bool below_root = slash == copy.get() && slash[1] != '\0';
    slash[below_root ? 1 : 0] = '\0';
  }
  return 0;
}

bool zorv_is_own_dev(devt dev) { return kernel::major_of(dev) == static_cast<u32>(zorv_blk_major); }

kernel::dentry* zorv_lookup_create(kernel::nameidata* nd) {
  kernel::dir_lock(nd->path);
  if (nd->type != kernel::LAST_NORM) return kernel::err_ptr<kernel::dentry>(-EEXIST);
  nd->flags &= ~kernel::LOOKUP_PARENT;
  kernel::dentry* entry = kernel::lookup_one_len(nd->last.c_str(), nd->path, nd->last.size());
  if (kernel::is_err(entry)) return entry;
  if (nd->trailing && entry->d_inode() == nullptr) {
    kernel::dput(entry);
    return kernel::err_ptr<kernel::dentry>(-ENOENT);
  }
  return entry;
}

int zorv_mknod(const char* path, int is_block, u32 major, u32 minor) {
  zorv_log(3, "%s(): fname=%s, block=%d, dev=(%d, %d)", __func__, path, is_block,
           static_cast<int>(major), static_cast<int>(minor));
  const locked_name name(__func__, path);
  if (name.rc() != 0) return name.rc();
  const u32 type = is_block == 1 ? kernel::S_IFBLK_ : kernel::S_IFCHR_;
  const int rc =
      kernel::vfs_mknod(name.dir(), name.entry(), type | 0600, kernel::mkdev(major, minor));
  if (rc != 0) zorv_log(LOG_ERROR, "%s(): Failed to mknod %s: rc=%d", __func__, path, rc);
  return rc;
}

int zorv_unlink(const char* path) {
  zorv_log(3, "%s(): fname=%s", __func__, path);
  const locked_name name(__func__, path);
  if (name.rc() != 0) return name.rc();
  const int rc = kernel::vfs_unlink(name.dir(), name.entry());
  if (rc != 0 && rc != -ENOENT) {
    zorv_log(LOG_ERROR, "%s(): Failed to unlink %s: rc=%d", __func__, path, rc);
  }
  return rc;
}

}  // namespace zorv
