// SPDX-License-Identifier: GPL-2.0-only
#include "support/daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

extern char** environ;

namespace zorv_test {
namespace {

pid_t spawn(const std::vector<std::string>& argv, const std::string& in, const std::string& out,
            const std::string& err) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, args[0], &files, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  EXPECT_EQ(rc, 0) << argv[0];
  return rc == 0 ? pid : -1;
}

std::string text_of(const std::string& path) {
  const bytes content = read_file(path);
  return {content.begin(), content.end()};
}

// What each thread of a process is doing: its name, its state, where in the host's kernel it waits.
std::string threads_of(pid_t pid) {
  std::string all;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
    const std::string stat = text_of(task.path() / "stat");
    const std::size_t name_end = std::min(stat.rfind(')'), stat.size());
    all += "  " + stat.substr(0, name_end + 3) + " " + text_of(task.path() / "wchan") + "\n";
  }
  return all;
}

// Waits for the end; kills what does not end.
int wait_for(pid_t pid, int limit_ms) {
  if (pid < 0) return -1;
  int status = 0;
  if (!eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, limit_ms)) {
    ADD_FAILURE() << "process " << pid << " does not end:\n" << threads_of(pid);
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

program_result run_program(const std::vector<std::string>& argv, const std::string& input) {
  const temp_dir dir;
  write_file(dir / "in", bytes(input.begin(), input.end()));
  const pid_t pid = spawn(argv, dir / "in", dir / "out", dir / "err");
  program_result result{};
  result.status = wait_for(pid, 20000);
  result.out = text_of(dir / "out");
  result.err = text_of(dir / "err");
  return result;
}

daemon_process::daemon_process(std::vector<std::string> args, std::string run_dir)
    : run_dir_(run_dir.empty() ? dir_ / "run" : std::move(run_dir)) {
  static const temp_dir state;  // outlives every daemon of the test
  args.insert(args.begin(), {ZORVD_PATH, "--run-dir", run_dir_, "--state-dir", state.path()});
  pid_ = spawn(args, "/dev/null", dir_ / "out", dir_ / "err");
  const bool known = eventually([&] {
    siginfo_t ended{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT);
    if (ended.si_pid != 0) return true;
    return serving_ = log().find("zorvd: serving ") != std::string::npos;
  });
  EXPECT_TRUE(known) << "zorvd neither serves nor ends";
}

daemon_process::~daemon_process() {
  if (pid_ < 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

// A process that has ended has no number any more, and -1 would be everybody.
void daemon_process::signal(int number) const {
  ASSERT_GT(pid_, 0);
  ::kill(pid_, number);
}

int daemon_process::wait() {
  if (pid_ <= 0) return -1;
  const int status = wait_for(pid_, 20000);
  pid_ = -1;
  return status;
}

std::string daemon_process::log() const { return text_of(dir_ / "err"); }

program_result daemon_process::ctl(std::vector<std::string> args, const std::string& input) {
  args.insert(args.begin(), {ZORVCTL_PATH, "--socket", control()});
  return run_program(args, input);
}

nlohmann::json daemon_process::ctl_json(std::vector<std::string> args, int status) {
  args.insert(args.begin(), "--json");
  const program_result r = ctl(args);
  EXPECT_EQ(r.status, status) << r.out << r.err;
  auto document = nlohmann::json::parse(r.out, nullptr, /*allow_exceptions=*/false);
  EXPECT_FALSE(document.is_discarded()) << r.out;
  return document;
}

std::string daemon_process::must(std::vector<std::string> args) {
  const program_result r = ctl(std::move(args));
  EXPECT_EQ(r.status, 0) << r.err;
  return r.out;
}

void with_daemon::serve(const std::string& image) {
  std::vector<std::string> args;
  if (!image.empty()) args = {"--disk", image + ",name=disk"};
  d = std::make_unique<daemon_process>(args, dir / "run");
  ASSERT_TRUE(d->serving()) << d->log();
}
nlohmann::json with_daemon::add_filter(const std::string& disk, std::vector<std::string> more) {
  more.insert(more.begin(), {"add-filter", disk, "--extent-size", "64K", "--bmp-dir", dir.path()});
  return d->ctl_json(more);
}
void with_daemon::add_started(const std::string& disk, const std::string& name) {
  add_filter(disk, {"--name", name});
  d->must({"start", name});
}
void with_daemon::TearDown() {
  if (d != nullptr && d->pid() > 0) EXPECT_EQ(d->end(SIGTERM), 0) << d->log();
}

void make_image(const std::string& path, u64 size_bytes) {
  write_file(path, {});
  EXPECT_EQ(::truncate(path.c_str(), static_cast<off_t>(size_bytes)), 0);
}

}  // namespace zorv_test
