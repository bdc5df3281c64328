// SPDX-License-Identifier: GPL-2.0-only
// Both the id and the notes are symbolic links that lead nowhere: made and read by name alone, in
// one step each, and durable with their folder.
#include "kernel/state.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>

#include "kernel/fault.h"
#include "kernel/random.h"
#include "kernel/task.h"
#include "kernel/text.h"

namespace kernel {

namespace {

constexpr const char* id_name = "id";
constexpr std::size_t id_digits = state_id_bytes * 2;

struct folder {
  std::mutex lock;  // of what is below; never held across a change of the folder
  int fd = -1;
  u8 id[state_id_bytes] = {};
  std::map<std::string, std::string> standing;  // the texts of notes, by key
  bool more_stand = false;                      // than there was memory for
};

folder& the_folder() {
  static folder& f = *new folder;  // outlives every thread
  return f;
}

int dir_fd() {
  folder& f = the_folder();
  const std::scoped_lock guard(f.lock);
  return f.fd;
}

void stands(const char* key, std::string_view text) {
  folder& f = the_folder();
  const std::scoped_lock guard(f.lock);
  try {
    f.standing.insert_or_assign(key, std::string(text));
  } catch (const std::bad_alloc&) {
    f.more_stand = true;
  }
}

void stands_no_more(const char* key) {
  folder& f = the_folder();
  const std::scoped_lock guard(f.lock);
  f.standing.erase(key);
}

// Whether the name is free or one of the folder's own links; what else stands there is not changed.
//   returns  0 | -EEXIST | negative errno
int check_own(int fd, const std::string& name) {
  struct stat st;
  if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? 0 : -errno;
  }
  return S_ISLNK(st.st_mode) ? 0 : -EEXIST;
}

int sync_fd(int fd) {
  for (;;) {
    if (::fsync(fd) == 0) return 0;
    if (errno != EINTR) return -errno;
  }
}

int make_directories(const std::string& path) {
  for (std::size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    const std::string part = path.substr(0, at);
    if (::mkdir(part.c_str(), 0700) == 0) {
      const std::size_t slash = part.rfind('/');
      const std::string parent = slash == 0 ? "/" : part.substr(0, slash);
      const int fd = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      const int rc = fd < 0 ? -errno : sync_fd(fd);
      if (fd >= 0) ::close(fd);
      if (rc != 0) return rc;
    } else if (errno != EEXIST) {
      return -errno;
    }
    if (at == std::string::npos) return 0;
  }
}

bool parse_id(const char* digits, u8 (&id)[state_id_bytes]) {
  for (std::size_t i = 0; i < state_id_bytes; ++i) {
    unsigned value = 0;
    if (std::sscanf(digits + 2 * i, "%2x", &value) != 1) return false;
    id[i] = static_cast<u8>(value);
  }
  return true;
}

int read_or_make_id(int fd, u8 (&id)[state_id_bytes]) {
  for (int attempt = 0;; ++attempt) {
    char digits[id_digits + 1] = {};
    const ssize_t n = ::readlinkat(fd, id_name, digits, sizeof digits);
    if (n >= 0) return n == id_digits && parse_id(digits, id) ? 0 : -EINVAL;
    if (errno != ENOENT || attempt != 0) return -errno;
    u8 fresh[state_id_bytes];
    get_random_bytes(fresh, sizeof fresh);
    // Another daemon's may come first; then that one is read.
    if (::symlinkat(hex_text(fresh).text, fd, id_name) != 0 && errno != EEXIST) return -errno;
  }
}

// Of a copy of the folder nobody knows from when it is: its link is another file, made at another
// time. Where the file system keeps no times of birth, the link's last change is as good.
int bind_id(int fd, u8 (&id)[state_id_bytes]) {
  struct statx st;
  if (::statx(fd, id_name, AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME | STATX_CTIME, &st) != 0) {
    return -errno;
  }
  const auto& made = (st.stx_mask & STATX_BTIME) != 0 ? st.stx_btime : st.stx_ctime;
  const u64 mine[] = {st.stx_ino, static_cast<u64>(made.tv_sec) * 1000000000U + made.tv_nsec};
  static_assert(sizeof mine == state_id_bytes);
  u8 bytes[sizeof mine];
  std::memcpy(bytes, mine, sizeof mine);
  for (std::size_t i = 0; i < sizeof bytes; ++i) id[i] ^= bytes[i];
  return 0;
}

int open_folder(const std::string& dir, int* out, u8 (&id)[state_id_bytes]) {
  int rc = make_directories(dir);
  if (rc != 0) return rc;
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -errno;
  rc = read_or_make_id(fd, id);
  if (rc == 0) rc = bind_id(fd, id);
  if (rc == 0) rc = sync_fd(fd);
  if (rc != 0) {
    ::close(fd);
    return rc;
  }
  *out = fd;
  return 0;
}

}  // namespace

int state_set_dir(const char* dir) {
  might_sleep("state_set_dir");
  int fd = -1;
  u8 id[state_id_bytes] = {};
  int rc = 0;
  if (dir != nullptr && dir[0] != '\0') {
    std::string path(dir);
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    rc = path[0] == '/' ? open_folder(path, &fd, id) : -EINVAL;
  }
  if (rc != 0) std::memset(id, 0, sizeof id);
  folder& f = the_folder();
  const std::scoped_lock guard(f.lock);
  if (f.fd >= 0) ::close(f.fd);
  f.fd = fd;
  std::memcpy(f.id, id, sizeof id);
  f.standing.clear();
  f.more_stand = false;
  return rc;
}

void state_id(u8 (&id)[state_id_bytes]) {
  folder& f = the_folder();
  const std::scoped_lock guard(f.lock);
  std::memcpy(id, f.id, sizeof id);
}

int state_note(const char* key, const char* text) {
  might_sleep("state_note");
  if (const int rc = fault_check(fault_site::state_write); rc != 0) return rc;
  const int fd = dir_fd();
  if (fd < 0) return -ENOENT;
  int rc = check_own(fd, key);
  if (rc != 0) return rc;
  if (::symlinkat(text, fd, key) != 0 && errno != EEXIST) return -errno;
  rc = sync_fd(fd);
  // The host may take the next sync for good although this one has lost the note: it is made anew.
  if (rc != 0) ::unlinkat(fd, key, 0);
  if (rc == 0) stands(key, text);
  return rc;
}

int state_noted(const char* key) {
  might_sleep("state_noted");
  const int fd = dir_fd();
  if (fd < 0) return -ENOENT;
  // Another process may have made it and not come to its sync.
  if (const int rc = sync_fd(fd); rc != 0) return rc;
  char text[PATH_MAX];
  const ssize_t n = ::readlinkat(fd, key, text, sizeof text);
  if (n < 0) return errno == ENOENT ? 0 : -errno;
  stands(key, {text, static_cast<std::size_t>(n)});
  return 1;
}

int state_forget(const char* key, const char* outdated) {
  might_sleep("state_forget");
  if (const int rc = fault_check(fault_site::state_write); rc != 0) return rc;
  const int fd = dir_fd();
  if (fd < 0) return -ENOENT;
  int rc = check_own(fd, key);
  if (rc != 0) return rc;
  if (::unlinkat(fd, key, 0) != 0 && errno != ENOENT) return -errno;
  rc = sync_fd(fd);
  if (rc != 0) return rc;
  if (outdated != nullptr) {
    stands(key, outdated);
  } else {
    stands_no_more(key);
  }
  return 0;
}

int state_forget_all(const char* prefix, const char* ending) {
  might_sleep("state_forget_all");
  if (const int rc = fault_check(fault_site::state_write); rc != 0) return rc;
  const int fd = dir_fd();
  if (fd < 0) return -ENOENT;
  const int list_fd = ::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* list = list_fd < 0 ? nullptr : ::fdopendir(list_fd);
  if (list == nullptr) {
    const int rc = -errno;
    if (list_fd >= 0) ::close(list_fd);
    return rc;
  }
  int rc = 0;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(list);
    if (entry == nullptr) {
      rc = -errno;
      break;
    }
    char value[PATH_MAX];
    if (!std::string_view(entry->d_name).starts_with(prefix)) continue;
    const ssize_t n = ::readlinkat(fd, entry->d_name, value, sizeof value);
    if (n < 0 || !std::string_view(value, static_cast<std::size_t>(n)).ends_with(ending)) continue;
    if (::unlinkat(fd, entry->d_name, 0) == 0 || errno == ENOENT) continue;
    rc = -errno;
    break;
  }
  ::closedir(list);
  return rc != 0 ? rc : sync_fd(fd);
}

bool state_stands(const char* text) {
  folder& f = the_folder();
  const std::scoped_lock guard(f.lock);
  return std::any_of(f.standing.begin(), f.standing.end(),
                     [text](const auto& note) { return note.second == text; });
}

std::size_t state_standing() {
  folder& f = the_folder();
  const std::scoped_lock guard(f.lock);
  return f.standing.size() + (f.more_stand ? 1 : 0);
}

int state_put(const char* key, const char* value) {
  might_sleep("state_put");
  if (const int rc = fault_check(fault_site::state_write); rc != 0) return rc;
  const int fd = dir_fd();
  if (fd < 0) return -ENOENT;
  const std::string fresh = std::string(key) + ".new";
  int rc = check_own(fd, fresh);
  if (rc == 0) rc = check_own(fd, key);
  if (rc != 0) return rc;
  if (::unlinkat(fd, fresh.c_str(), 0) != 0 && errno != ENOENT) return -errno;
  if (::symlinkat(value, fd, fresh.c_str()) != 0) return -errno;
  if (::renameat(fd, fresh.c_str(), fd, key) != 0) return -errno;
  rc = sync_fd(fd);
  if (rc == 0) stands_no_more(key);
  return rc;
}

int state_get(const char* key, char* value, std::size_t bytes) {
  might_sleep("state_get");
  const int fd = dir_fd();
  if (fd < 0) return -ENOENT;
  // Another process may have changed it and not come to its sync.
  if (const int rc = sync_fd(fd); rc != 0) return rc;
  const ssize_t n = ::readlinkat(fd, key, value, bytes);
  if (n < 0) return errno == ENOENT ? 0 : -errno;
  if (static_cast<std::size_t>(n) >= bytes) return -EOVERFLOW;
  value[n] = '\0';
  return static_cast<int>(n);
}

}  // namespace kernel
