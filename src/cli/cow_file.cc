// SPDX-License-Identifier: GPL-2.0-only
#include "cli/cow_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zorv::cli {

namespace {

constexpr char seal_magic[8] = {'Z', 'O', 'R', 'V', 'C', 'O', 'W', 0};
constexpr off_t seal_bytes = 4096;  // at the file's end

}  // namespace

cow_file look_at_cow_file(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return cow_file::absent;
  if (!S_ISREG(st.st_mode)) return cow_file::foreign;
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return cow_file::absent;
  char magic[sizeof seal_magic] = {};
  const bool sealed = ::pread(fd, magic, sizeof magic, st.st_size - seal_bytes) == sizeof magic &&
                      std::memcmp(magic, seal_magic, sizeof magic) == 0;
  const bool empty = ::lseek(fd, 0, SEEK_DATA) < 0 && errno == ENXIO;
  ::close(fd);
  return sealed ? cow_file::sealed : empty ? cow_file::empty : cow_file::foreign;
}

}  // namespace zorv::cli
