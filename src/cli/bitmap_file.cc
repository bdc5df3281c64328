// SPDX-License-Identifier: GPL-2.0-only
#include "cli/bitmap_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

}  // namespace

bitmap_sink::bitmap_sink(const std::string& path) : path_(path) {
  if (path_.empty()) {
    if (::isatty(STDOUT_FILENO) != 0) {
      throw failure(status_usage, 0, "a raw bitmap is not written to a terminal; give -o FILE");
    }
    fd_ = STDOUT_FILENO;
    return;
  }
  struct stat st {};
  const bool exists = ::stat(path_.c_str(), &st) == 0;
  if (exists && !S_ISREG(st.st_mode)) {
    // A pipe or a device cannot be replaced by a new file.
    fd_ = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd_ < 0) fail("cannot write " + path_, errno);
    return;
  }
  temporary_ = path_ + ".XXXXXX";
  fd_ = ::mkostemp(temporary_.data(), O_CLOEXEC);
  if (fd_ < 0) fail("cannot write beside " + path_, errno);
  (void)::fchmod(fd_, exists ? st.st_mode & 07777 : mode_of_new_files());
}

bitmap_sink::~bitmap_sink() {
  if (fd_ >= 0 && fd_ != STDOUT_FILENO) ::close(fd_);
  if (!temporary_.empty()) ::unlink(temporary_.c_str());
}

void bitmap_sink::write(std::span<const unsigned char> bytes) {
  write_all(fd_, bytes, path_.empty() ? "standard output" : path_);
  if (temporary_.empty()) return;
  if (::fsync(fd_) != 0) fail("cannot sync " + path_, errno);
  if (::rename(temporary_.c_str(), path_.c_str()) != 0) fail("cannot name " + path_, errno);
  temporary_.clear();
  sync_directory_of(path_);
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
