// SPDX-License-Identifier: GPL-2.0-only
// Start: run directory and its lock, parameters, driver, images, NBD server, control socket. The
// control socket comes last: when it is there, everything is. The end is the same in reverse.
#include "host/daemon.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

#include "driver/core/blkdev.h"
#include "driver/core/module.h"
#include "host/control/server.h"
#include "host/disk/disk.h"
#include "host/end_watch.h"
#include "host/fs_stack.h"
#include "host/log.h"
#include "host/nbd/server.h"
#include "host/unix_socket.h"
#include "kernel/claim.h"
#include "kernel/module.h"
#include "kernel/printk.h"
#include "kernel/state.h"
#include "kernel/task.h"

namespace zorv {
namespace {

bool fail(const std::string& text) {
  host_log(log_level::error, text);
  return false;
}

// The signals that end the daemon, blocked everywhere and waited for in one place. A peer that
// hangs up and a file at its size limit are errors of one call, not of the process; of the others
// that somebody may send, none ends it without a save but KILL and those that say that it is broken
// (ABRT, BUS, FPE, ILL, SEGV, SYS, TRAP).
sigset_t take_signals() {
  for (const int number : {SIGPIPE, SIGXFSZ, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGIO,
                           SIGPWR, SIGSTKFLT}) {
    std::signal(number, SIG_IGN);
  }
  for (int number = SIGRTMIN; number <= SIGRTMAX; ++number) std::signal(number, SIG_IGN);
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGXCPU}) sigaddset(&set, number);
  // Who starts it under nohup(1) wants it to outlive the terminal.
  struct sigaction hangup {};
  if (::sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler == SIG_IGN) {
    sigdelset(&set, SIGHUP);
  }
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return set;
}

// Whoever may change the directory could put his own sockets in the place of ours.
bool check_run_dir(const std::string& dir) {
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0) {
    return fail("cannot use the run directory " + dir + ": " + std::strerror(errno));
  }
  if (st.st_uid != ::geteuid() && st.st_uid != 0) {
    return fail("the run directory " + dir + " belongs to somebody else");
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return fail("others may write to the run directory " + dir + ": chmod go-w it");
  }
  return true;
}

// The lock file, which is ours and nobody else's by another name, or nothing.
unique_fd open_lock(const std::string& path) {
  unique_fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
  struct stat st {};
  if (!fd) {
    fail("cannot open " + path + ": " + std::strerror(errno));
  } else if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 ||
             st.st_uid != ::geteuid()) {
    fail(path + " is in the way: it is no lock file of this user");
    fd.reset();
  }
  return fd;
}

// The run directory, ours alone: one daemon per directory, told apart by a lock that dies with
// its holder.
bool claim_run_dir(const std::string& dir, unique_fd* lock) {
  std::error_code error;
  std::filesystem::create_directories(dir, error);
  if (error) return fail("cannot make the run directory " + dir + ": " + error.message());
  if (!check_run_dir(dir)) return false;
  const std::string path = dir + "/zorvd.lock";
  *lock = open_lock(path);
  if (!*lock) return false;
  if (::flock(lock->get(), LOCK_EX | LOCK_NB) != 0) {
    char pid[32] = {};
    std::string holder = "another zorvd";
    if (::pread(lock->get(), pid, sizeof pid - 1, 0) > 0) {
      holder.append(" (process ").append(pid).append(")");
    }
    return fail(holder + " serves the run directory " + dir);
  }
  const std::string pid = std::to_string(::getpid());
  if (::ftruncate(lock->get(), 0) != 0 ||
      ::pwrite(lock->get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    return fail("cannot write " + path + ": " + std::strerror(errno));
  }
  return true;
}

// What the daemon itself writes to is no disk, bitmap or COW file.
struct own_files {
  kernel::file_claim lock, output, log;
};
void claim_own(int fd, const char* what, kernel::file_claim* claim) {
  struct stat st {};
  kernel::file_id id;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || kernel::fd_identity(fd, &id) != 0) return;
  (void)kernel::claim_file(id, what, claim);  // output and log may be one
}

// Bitmap files and disks stay open, so there may be many; the system's limit is the limit.
void raise_file_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

bool open_state_dir(const std::string& given) {
  if (given.empty()) return fail("no state directory: name one with --state-dir");
  std::error_code ignored;
  const std::string dir = std::filesystem::absolute(given, ignored).lexically_normal().string();
  const int rc = kernel::state_set_dir(dir.c_str());
  return rc == 0 || fail("cannot use the state directory " + dir + ": " + std::strerror(-rc));
}

bool set_parameters(const daemon_options& options) {
  for (const auto& [name, value] : options.parameters) {
    const int rc = kernel::module_param_set(name, value);
    if (rc == -ENOENT) return fail("there is no parameter " + name);
    if (rc == 0) continue;
    std::string text = "parameter ";
    return fail(text.append(name).append(" takes a 32-bit decimal number, not ").append(value));
  }
  if (zorv_max_blk_minor < 0 || static_cast<kernel::u32>(zorv_max_blk_minor) > kernel::minor_mask) {
    return fail("parameter zorv_max_blk_minor: " + std::to_string(zorv_max_blk_minor) +
                " is not within 0 to " + std::to_string(kernel::minor_mask));
  }
  return true;
}

bool attach_disks(const daemon_options& options) {
  for (const disk_option& disk : options.disks) {
    std::string error;
    std::string name;
    const int rc =
        image_attach(std::filesystem::absolute(disk.image).string(), disk.name,
                     disk.read_only ? access::read_only : access::read_write, &error, &name);
    if (rc != 0) return fail("cannot attach " + disk.image + ": " + error);
    host_log(log_level::info, "attached " + disk.image + " as /dev/image/" + name);
  }
  return true;
}

// Whether an export's device is the node, or a snap of it, which is stopped and deleted with it.
bool goes_with(kernel::devt device, kernel::u32 minor) {
  if (kernel::minor_of(device) == minor) return true;
  const node_ref node = zorv_node_get(kernel::minor_of(device));
  return node && node->dev_type == ZORV_DEV_SNAP && node->s.filter->minor == minor;
}

// What is up, taken down in reverse. The front ends go first, so that no node is open and no
// command runs when the driver unloads.
class services {
 public:
  bool start(const daemon_options& options);
  // 0, or the error of the step that could not be completed.
  //   watch  is told of each step; null when none of it has served anybody yet
  [[nodiscard]] int stop(end_watch* watch);

 private:
  bool loaded_ = false;
  nbd_server nbd_;
  control_server control_;
};

bool services::start(const daemon_options& options) {
  host_block_init();
  int rc = zorv_init();
  if (rc != 0) return fail(std::string("the driver does not load: ") + std::strerror(-rc));
  loaded_ = true;
  if (!attach_disks(options)) return false;
  std::string error;
  nbd_options nbd;
  nbd.socket_path = options.run_dir + "/nbd.sock";
  rc = nbd_.start(nbd, &error);
  if (rc != 0) return fail("the NBD server does not start: " + error);
  watch_fs_stack([this] { return nbd_.clients(); });
  control_options control;
  control.socket_path = options.run_dir + "/control.sock";
  control.run_dir = options.run_dir;
  control.nbd_socket_path = nbd.socket_path;
  control.settle_clients = [this](std::uint32_t minor) {
    nbd_.settle([minor](kernel::devt node) { return goes_with(node, minor); });
  };
  rc = control_.start(control, &error);
  if (rc != 0) return fail("the control socket does not start: " + error);
  return true;
}

int services::stop(end_watch* watch) {
  const auto step = [watch](const char* what) {
    if (watch != nullptr) watch->step(what);
  };
  control_.announce_stop();
  step("closing NBD connections");
  nbd_.stop();
  step("ending commands");
  control_.stop();
  int rc = 0;
  if (loaded_) {
    step("saving and removing nodes");
    if (kernel::module_refcount() != 0) host_log(log_level::error, "a node is still open");
    rc = zorv_cleanup();
    watch_fs_stack(nullptr);
    if (rc != 0) host_log(log_level::error, std::string("unload: ") + std::strerror(-rc));
  }
  if (const std::size_t notes = kernel::state_standing(); notes != 0) {
    host_log(log_level::error, "files that are outdated and could not be marked: " +
                                   std::to_string(notes) + ", noted in the state folder");
    if (rc == 0) rc = -EIO;
  }
  step("detaching disks");
  image_detach_all();
  for (const attached_disk& disk : image_list()) {
    host_log(log_level::error, "/dev/image/" + disk.name + " is still open");
    if (rc == 0) rc = -EBUSY;
  }
  kernel::join_exited_threads();
  return rc;
}

int serve(const daemon_options& given, const sigset_t& signals) {
  // What the driver writes holds disk contents: nobody else's to read.
  ::umask(0077);
  daemon_options options = given;
  std::error_code ignored;
  options.run_dir = std::filesystem::absolute(given.run_dir, ignored).lexically_normal().string();
  while (options.run_dir.size() > 1 && options.run_dir.back() == '/') options.run_dir.pop_back();
  unique_fd lock;
  if (!claim_run_dir(options.run_dir, &lock) || !set_parameters(options)) return 1;
  own_files own;
  claim_own(lock.get(), "zorvd's lock", &own.lock);
  claim_own(STDOUT_FILENO, "zorvd's output", &own.output);
  claim_own(STDERR_FILENO, "zorvd's log", &own.log);
  raise_file_limit();
  if (!open_state_dir(options.state_dir)) return 1;
  services all;
  if (!all.start(options)) {
    (void)all.stop(nullptr);
    return 1;
  }
  host_log(log_level::info, "serving " + options.run_dir);
  int signal = 0;
  while (sigwait(&signals, &signal) != 0) {
  }
  host_log(log_level::info, std::string("SIG") + ::sigabbrev_np(signal) + ": stopping");
  end_watch watch(signals, std::chrono::seconds(options.stop_limit_s));
  const int rc = all.stop(&watch);
  if (rc == 0) host_log(log_level::info, "stopped");
  return rc == 0 ? 0 : 1;
}

}  // namespace

int run_daemon(const daemon_options& given) {
  // What is closed must not become a disk that the log is written to.
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) != fd) return 1;
  }
  const sigset_t signals = take_signals();
  host_log_start();
  kernel::set_printk_sink(host_log_sink);
  const int status = serve(given, signals);
  // A log that nobody reads does not keep the process.
  constexpr unsigned log_limit_ms = 2000;
  host_log_flush(log_limit_ms);
  return status;
}

}  // namespace zorv
