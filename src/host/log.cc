// SPDX-License-Identifier: GPL-2.0-only
#include "host/log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "kernel/text.h"

namespace zorv {
namespace {

using clock = std::chrono::steady_clock;

constexpr std::size_t queue_bytes = 256 << 10;
constexpr std::size_t write_bytes = 4096;  // a pipe that can be written to takes so much at once
constexpr std::string_view error_mark = "<3>ERROR: ";

thread_local error_capture* capture = nullptr;

void write_stderr(std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = ::write(STDERR_FILENO, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      pollfd p{STDERR_FILENO, POLLOUT, 0};
      ::poll(&p, 1, -1);
      continue;
    }
    if (n <= 0) return;  // nowhere left to complain to
    text.remove_prefix(static_cast<std::size_t>(n));
  }
}

// A message is one line, and what names hold does nothing to the terminal that shows it.
void blot_out_controls(char* text, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < bytes ? text[i + 1] : 0);
    if (c == 0xc2 && next >= 0x80 && next < 0xa0) text[i] = text[i + 1] = '?';
    if (c < 0x20 || c == 0x7f) text[i] = '?';
  }
}

// Errors that differ in numbers alone.
class repetition {
 public:
  // Whether a message of this kind may be written now.
  bool admit(std::uint64_t kind, std::string_view text, clock::time_point now) {
    if (kind != kind_) {
      kind_ = kind;
      begin_ = now;
      written_ = 0;
      sample_ = text.size() < sizeof sample_text_ ? text.size() : sizeof sample_text_;
      text.copy(sample_text_, sample_);
    }
    if (++written_ <= limit) return true;
    ++held_back_;
    return false;
  }
  [[nodiscard]] bool is(std::uint64_t kind) const { return kind == kind_; }
  [[nodiscard]] bool over(clock::time_point now) const {
    return written_ > 0 && now - begin_ >= window;
  }
  // How many were held back and what they were like; forgets them.
  unsigned long close(std::string_view* like) {
    *like = {sample_text_, sample_};
    kind_ = written_ = 0;
    return std::exchange(held_back_, 0UL);
  }
  static constexpr auto window = std::chrono::seconds(10);

 private:
  static constexpr unsigned long limit = 50;
  std::uint64_t kind_ = 0;
  clock::time_point begin_;
  unsigned long written_ = 0;
  unsigned long held_back_ = 0;
  char sample_text_[160];
  std::size_t sample_ = 0;
};

// Of what is no digit.
std::uint64_t kind_of(std::string_view text) {
  std::uint64_t hash = kernel::fnv1a_seed;
  for (const char c : text) {
    if (c < '0' || c > '9') hash = kernel::fnv1a(hash, c);
  }
  return hash;
}

// Lives as long as the process: its thread may be held up by the log's reader when that ends.
class writer {
 public:
  // Nothing is allocated once it runs. Throws when there is no memory or no thread.
  void start() {
    queue_.reserve(queue_bytes);
    batch_.reserve(queue_bytes);
    std::thread([this] { run(); }).detach();
    const std::lock_guard guard(mutex_);
    running_ = true;
  }

  void add(std::string_view text) {
    std::unique_lock guard(mutex_);
    const bool limited = text.substr(0, error_mark.size()) == error_mark;
    if (limited && !admit_locked(text)) return;
    if (!running_) {
      guard.unlock();
      write_line(text);
      return;
    }
    append_locked(text);
    wake_.notify_one();
  }

  void flush(std::chrono::milliseconds limit) {
    std::unique_lock guard(mutex_);
    for (repetition& r : repeated_) close_locked(&r);
    close_locked(&others_);
    wake_.notify_one();
    written_.wait_for(guard, limit, [this] { return !running_ || (queue_.empty() && idle_); });
  }

 private:
  bool admit_locked(std::string_view text) {
    const std::uint64_t kind = kind_of(text);
    const clock::time_point now = clock::now();
    const auto of_kind = [kind](const repetition& r) { return r.is(kind); };
    const auto free = [](const repetition& r) { return r.is(0); };
    auto r = std::find_if(repeated_.begin(), repeated_.end(), of_kind);
    if (r != repeated_.end() && r->over(now)) close_locked(r);
    if (r == repeated_.end()) {
      for (repetition& other : repeated_) {
        if (other.over(now)) close_locked(&other);
      }
      r = std::find_if(repeated_.begin(), repeated_.end(), free);
    }
    // More kinds than are told apart count as one.
    return r != repeated_.end() ? r->admit(kind, text, now) : others_.admit(1, text, now);
  }

  void close_locked(repetition* r) {
    std::string_view like;
    const unsigned long n = r->close(&like);
    if (n == 0) return;
    char line[256];
    const int length = std::snprintf(line, sizeof line,
                                     "<3>zorvd: %lu more messages held back that were like: %.*s",
                                     n, static_cast<int>(like.size()), like.data());
    const std::string_view text(
        line, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof line - 1));
    if (running_) {
      append_locked(text);
    } else {
      write_line(text);
    }
  }

  static void write_line(std::string_view text) {
    while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    std::string line(text);
    blot_out_controls(line.data(), line.size());
    write_stderr(line + "\n");
  }

  void append_locked(std::string_view text) {
    if (queue_.size() + text.size() + 1 > queue_bytes) {
      ++lost_;
      return;
    }
    while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    queue_.append(text);
    blot_out_controls(queue_.data() + queue_.size() - text.size(), text.size());
    queue_.push_back('\n');
  }

  void run() {
    std::unique_lock guard(mutex_);
    for (;;) {
      idle_ = true;
      written_.notify_all();
      wake_.wait_for(guard, repetition::window, [this] { return !queue_.empty(); });
      idle_ = false;
      const clock::time_point now = clock::now();
      for (repetition& r : repeated_) {
        if (r.over(now)) close_locked(&r);
      }
      if (others_.over(now)) close_locked(&others_);
      batch_.swap(queue_);
      const unsigned long lost = std::exchange(lost_, 0UL);
      guard.unlock();
      write_batch(lost);
      guard.lock();
    }
  }

  // Whole messages, as many at a time as go in one piece.
  void write_batch(unsigned long lost) {
    std::string_view rest = batch_;
    while (!rest.empty()) {
      std::size_t n = rest.substr(0, write_bytes).rfind('\n');
      if (n == std::string_view::npos) n = rest.find('\n');
      write_stderr(rest.substr(0, n + 1));
      rest.remove_prefix(n + 1);
    }
    batch_.clear();
    if (lost == 0) return;
    char line[96];
    std::snprintf(line, sizeof line, "<3>zorvd: %lu messages lost: nobody took them in time\n",
                  lost);
    write_stderr(line);
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable written_;
  bool running_ = false;
  bool idle_ = true;  // the thread has written all that it took
  std::string queue_;
  std::string batch_;  // the thread's
  unsigned long lost_ = 0;
  std::array<repetition, 64> repeated_;
  repetition others_;  // errors of further kinds
};

writer* the_writer() {
  static auto* const w = new writer;
  return w;
}

}  // namespace

error_capture::error_capture() : outer_(capture) { capture = this; }
error_capture::~error_capture() { capture = outer_; }

void host_log_sink(const char* text) {
  const std::string_view all(text);
  if (capture != nullptr && all.substr(0, error_mark.size()) == error_mark) {
    std::string_view body = all.substr(error_mark.size());
    while (!body.empty() && body.back() == '\n') body.remove_suffix(1);
    const std::size_t n = body.copy(capture->text_, sizeof capture->text_ - 1);
    capture->text_[n] = '\0';
  }
  the_writer()->add(all);
}

void host_log(log_level level, const std::string& text) {
  the_writer()->add((level == log_level::error ? "<3>zorvd: " : "<6>zorvd: ") + text + "\n");
}

void host_log_start() {
  try {
    the_writer()->start();
  } catch (const std::exception& e) {
    host_log(log_level::error, std::string("no thread for the log: ") + e.what());
  }
}

void host_log_flush(unsigned limit_ms) { the_writer()->flush(std::chrono::milliseconds(limit_ms)); }

}  // namespace zorv
