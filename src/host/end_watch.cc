// SPDX-License-Identifier: GPL-2.0-only
#include "host/end_watch.h"

#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <system_error>

#include "host/log.h"
#include "kernel/task.h"

namespace zorv {

namespace {

constexpr auto deaf_time = std::chrono::seconds(2);
constexpr unsigned log_limit_ms = 2000;

// The names of the threads that are left.
std::string threads() {
  std::multiset<std::string> names;
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
    std::string name;
    if (std::getline(std::ifstream(task.path() / "comm"), name)) names.insert(name);
  }
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

}  // namespace

end_watch::end_watch(const sigset_t& signals, std::chrono::seconds limit)
    : signals_(signals), limit_(limit) {
  try {
    thread_ = std::thread([this] { watch(); });
  } catch (const std::system_error& e) {
    host_log(log_level::error, std::string("nobody watches the end: no thread: ") + e.what());
  }
}

end_watch::~end_watch() {
  ended_.store(true);
  if (thread_.joinable()) thread_.join();
}

void end_watch::watch() {
  kernel::daemonize("zorv-end-watch");
  const auto begin = std::chrono::steady_clock::now();
  constexpr timespec tick{0, 50'000'000};
  while (!ended_.load()) {
    const int number = ::sigtimedwait(&signals_, nullptr, &tick);
    const bool again = number > 0 && number != SIGXCPU;  // which the host repeats
    const auto past = std::chrono::steady_clock::now() - begin;
    if (past >= limit_) give_up("it takes too long");
    if (again && past >= deaf_time) give_up("asked to end at once");
  }
}

void end_watch::give_up(const char* why) {
  host_log(log_level::error, std::string(why) + ": ended while " + step_.load() +
                                 "; what was not saved counts as changed at the next start. "
                                 "Threads left: " +
                                 threads());
  host_log_flush(log_limit_ms);
  ::_exit(1);
}

}  // namespace zorv
