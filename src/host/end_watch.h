// SPDX-License-Identifier: GPL-2.0-only
// Sees to it that the daemon ends. A file or a disk that makes no progress may hold up its end for
// as long as it likes; what is left then is what a crash leaves, and that is safe.
#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

namespace zorv {

class end_watch {
 public:
  // From now on the process ends with status 1, and says what it waited for, at the limit or when
  // one of the signals comes again (not within the first two seconds: service managers and
  // terminals send several at once).
  //   signals  blocked in every thread
  end_watch(const sigset_t& signals, std::chrono::seconds limit);
  // The end has come by itself.
  ~end_watch();
  end_watch(const end_watch&) = delete;
  end_watch& operator=(const end_watch&) = delete;

  // What is being done now, as "closing NBD connections".
  void step(const char* what) { step_.store(what); }

 private:
  void watch();
  [[noreturn]] void give_up(const char* why);

  const sigset_t signals_;
  const std::chrono::seconds limit_;
  std::atomic<const char*> step_{"beginning"};
  std::atomic<bool> ended_{false};
  std::thread thread_;  // none where it could not be had: then nobody watches
};

}  // namespace zorv
