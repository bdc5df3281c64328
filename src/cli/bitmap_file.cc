// SPDX-License-Identifier: GPL-2.0-only
#include "cli/bitmap_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "cli/cli.h"

namespace zorv::cli {
namespace {

[[noreturn]] void fail(const std::string& what, int number) {
  throw failure(status_refused, number, what + ": " + std::strerror(number));
}

void write_all(int fd, std::span<const unsigned char> bytes, const std::string& name) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) fail("cannot write " + name, n < 0 ? errno : EIO);
    bytes = bytes.subspan(static_cast<std::size_t>(n));
  }
}

void sync_directory_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  (void)::fsync(fd);
  ::close(fd);
}

mode_t mode_of_new_files() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

// A disk's image, a bitmap or a COW file that somebody works with would be lost to him.
void refuse_locked(int fd, const std::string& path) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  if (::fcntl(fd, F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK) {
    throw failure(status_refused, EBUSY, path + " is in use: somebody has locked it");
  }
}

bool is_standard_output(const std::string& path) {
  struct stat named {};
  struct stat ours {};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(STDOUT_FILENO, &ours) == 0 &&
         named.st_dev == ours.st_dev && named.st_ino == ours.st_ino;
}

// What a signal that ends this process takes along.
const char* volatile temporary_name = nullptr;

void end_without_temporary(int number) {
  const char* name = temporary_name;
  if (name != nullptr) ::unlink(name);
  std::signal(number, SIG_DFL);
  ::raise(number);
}

void take_along(const char* name) {
  temporary_name = name;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    if (std::signal(number, end_without_temporary) == SIG_IGN) std::signal(number, SIG_IGN);
  }
}

}  // namespace

int sync_output(int fd) {
  struct stat st {};
  const bool regular = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (::fsync(fd) != 0) return !regular && (errno == EINVAL || errno == EROFS) ? 0 : errno;
  if (!regular) return 0;
  char path[PATH_MAX];
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = ::readlink(self.c_str(), path, sizeof path);
  if (length > 0) sync_directory_of(std::string(path, static_cast<std::size_t>(length)));
  return 0;
}

bitmap_sink::bitmap_sink(const std::string& path) : path_(path) {
  struct stat st {};
  const bool exists = !path_.empty() && ::lstat(path_.c_str(), &st) == 0;
  const bool link = exists && S_ISLNK(st.st_mode);
  if (path_.empty() || (link && is_standard_output(path_))) {
    if (::isatty(STDOUT_FILENO) != 0) {
      throw failure(status_usage, 0, "a raw bitmap is not written to a terminal; give -o FILE");
    }
    fd_ = STDOUT_FILENO;
  } else if (exists && !S_ISREG(st.st_mode)) {
    open_through(link ? O_CREAT : 0);
  } else {
    open_beside(exists ? st.st_mode & 07777 : mode_of_new_files(), exists);
  }
}

// A pipe or a device cannot be replaced by a new file, and a link leads to what its maker meant.
void bitmap_sink::open_through(int flags) {
  fd_ = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC | flags, 0666);
  if (fd_ < 0) fail("cannot write " + path_, errno);
  refuse_locked(fd_, path_);
}

void bitmap_sink::open_beside(mode_t mode, bool replaces) {
  if (replaces) {
    int before = ::open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (before < 0) before = ::open(path_.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
    if (before < 0) fail("cannot replace " + path_, errno);
    const std::unique_ptr<const int, void (*)(const int*)> closer(
        &before, [](const int* open_fd) { ::close(*open_fd); });
    refuse_locked(before, path_);
  }
  temporary_ = path_ + ".XXXXXX";
  fd_ = ::mkostemp(temporary_.data(), O_CLOEXEC);
  if (fd_ < 0) fail("cannot write beside " + path_, errno);
  take_along(temporary_.c_str());
  (void)::fchmod(fd_, mode);
}

bitmap_sink::~bitmap_sink() {
  if (fd_ >= 0 && fd_ != STDOUT_FILENO) ::close(fd_);
  if (temporary_.empty()) return;
  ::unlink(temporary_.c_str());
  temporary_name = nullptr;
}

void bitmap_sink::write(std::span<const unsigned char> bytes) {
  const std::string name = path_.empty() ? "standard output" : path_;
  struct stat st {};
  const bool whole = fd_ != STDOUT_FILENO && ::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode);
  if (whole && ::ftruncate(fd_, 0) != 0) fail("cannot write " + name, errno);
  write_all(fd_, bytes, name);
  if (const int number = sync_output(fd_); number != 0) fail("cannot sync " + name, number);
  if (temporary_.empty()) return;
  if (::rename(temporary_.c_str(), path_.c_str()) != 0) fail("cannot name " + path_, errno);
  temporary_name = nullptr;
  temporary_.clear();
  sync_directory_of(path_);
}

void add_output_option(CLI::App* command, std::string* file) {
  command
      ->add_option("-o,--output", *file,
                   "write to FILE, - or nothing: to standard output; a file is replaced")
      ->type_name("FILE")
      ->transform([](const std::string& given) { return given == "-" ? "" : given; });
}

std::vector<unsigned char> read_bitmap(const std::string& path, std::size_t bytes) {
  const bool from_stdin = path == "-";
  const int fd = from_stdin ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail("cannot read " + path, errno);
  const std::unique_ptr<const int, void (*)(const int*)> closer(
      from_stdin ? nullptr : &fd, [](const int* open_fd) { ::close(*open_fd); });
  std::vector<unsigned char> content(bytes + 1);
  std::size_t have = 0;
  while (have < content.size()) {
    const ssize_t n = ::read(fd, content.data() + have, content.size() - have);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) fail("cannot read " + path, errno);
    if (n == 0) break;
    have += static_cast<std::size_t>(n);
  }
  if (have != bytes) {
    throw failure(status_refused, EINVAL,
                  path + (have > bytes ? " is longer" : " is shorter") + " than the bitmap's " +
                      std::to_string(bytes) + " bytes");
  }
  content.resize(bytes);
  return content;
}

std::string base64(std::span<const unsigned char> bytes) {
  static constexpr char digits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
    unsigned group = 0;
    for (std::size_t k = 0; k < 3; ++k) group = group << 8 | (k < n ? bytes[i + k] : 0U);
    for (std::size_t k = 0; k < 4; ++k) {
      out += k <= n ? digits[group >> (18 - 6 * k) & 63] : '=';
    }
  }
  return out;
}

}  // namespace zorv::cli
