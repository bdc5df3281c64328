// SPDX-License-Identifier: GPL-2.0-only
// zorvd as a service: how it starts, refuses to start, and ends.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/daemon.h"
#include "zorv/client.h"

using namespace zorv_test;

namespace {

unsigned mode_of(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777U : 0;
}

// Started and expected not to serve.
void expect_refused(const std::vector<std::string>& args, int status, const std::string& reason,
                    const std::string& run_dir = "") {
  SCOPED_TRACE(reason);
  daemon_process d(args, run_dir);
  EXPECT_FALSE(d.serving());
  EXPECT_EQ(d.wait(), status);
  EXPECT_NE(d.log().find(reason), std::string::npos) << d.log();
  if (run_dir.empty()) {
    EXPECT_EQ(mode_of(d.control()), 0U);
  }
}

struct ctl_daemon : testing::Test {
  temp_dir dir;
  std::string image = dir / "disk.img";
  void SetUp() override { make_image(image, 16 << 20); }

  void add_data(daemon_process* d) const {
    d->must(
        {"add-filter", "disk", "--extent-size", "64K", "--bmp-dir", dir.path(), "--name", "data"});
    d->must({"start", "data"});
  }
  static std::string changed(daemon_process* d, const char* type) {
    return d->must({"bmp", "show", "data", type});
  }
};

}  // namespace

TEST_F(ctl_daemon, serves_its_owner_alone_and_leaves_nothing_behind) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGXCPU}) {
    daemon_process d({"--disk", image});
    ASSERT_TRUE(d.serving()) << d.log();
    EXPECT_EQ(mode_of(d.run_dir()), 0700U);
    EXPECT_EQ(mode_of(d.control()), 0600U);
    EXPECT_EQ(mode_of(d.run_dir() + "/nbd.sock"), 0600U);
    zorv_handle* idle = zorv_open(d.control().c_str());
    EXPECT_NE(idle, nullptr);
    for (const int harmless : {SIGUSR1, SIGUSR2, SIGALRM, SIGRTMIN, SIGRTMAX}) d.signal(harmless);
    d.must({"list"});
    d.signal(number);
    EXPECT_EQ(d.end(number), 0) << d.log();
    EXPECT_EQ(mode_of(d.control()), 0U);
    EXPECT_EQ(mode_of(d.run_dir() + "/nbd.sock"), 0U);
    zorv_close(idle);
  }
}

TEST_F(ctl_daemon, one_daemon_per_directory_and_per_image) {
  daemon_process first({"--disk", image});
  ASSERT_TRUE(first.serving()) << first.log();
  expect_refused({}, 1, "another zorvd (process " + std::to_string(first.pid()), first.run_dir());
  expect_refused({"--disk", image}, 1, "cannot attach " + image);
  EXPECT_NE(first.must({"disks"}).find(image), std::string::npos);
  // A killed daemon's sockets are in nobody's way.
  first.end(SIGKILL);
  EXPECT_EQ(mode_of(first.control()), 0600U);
  daemon_process second({"--disk", image}, first.run_dir());
  EXPECT_TRUE(second.serving()) << second.log();
}

TEST_F(ctl_daemon, what_it_cannot_do_is_said) {
  expect_refused({"--nonsense"}, 2, "--nonsense");
  expect_refused({"nonsense"}, 2, "nonsense is no NAME=VALUE");
  expect_refused({"--disk", ""}, 2, "--disk needs the path");
  expect_refused({"zorv_nothing=1"}, 1, "no parameter zorv_nothing");
  expect_refused({"zorv_debug=2x"}, 1, "parameter zorv_debug");
  expect_refused({"zorv_max_blk_minor=-1"}, 1, "parameter zorv_max_blk_minor");
  expect_refused({"zorv_blk_major=70000"}, 1, "does not load");
  expect_refused({"--disk", dir / "none"}, 1, "cannot attach");
  expect_refused({"--config", dir / "none"}, 2, "none");
  const std::string unknown = "zorv_debgu=2\n";
  write_file(dir / "conf", bytes(unknown.begin(), unknown.end()));
  expect_refused({"--config", dir / "conf"}, 2, "zorv_debgu");
  expect_refused({}, 1, "too long", dir / std::string(150, 'x'));
  write_file(dir / "file", {});
  expect_refused({}, 1, "run directory", dir / "file");
}

TEST_F(ctl_daemon, what_others_put_into_its_directory_stays) {
  const std::string run = dir / "run";
  const std::string kept = dir / "kept";
  const bytes content = {1, 2, 3};
  ASSERT_EQ(::mkdir(run.c_str(), 0700), 0);
  write_file(kept, content);
  for (const char* name : {"zorvd.lock", "nbd.sock", "control.sock"}) {
    const std::string path = run + "/" + name;
    ASSERT_EQ(::link(kept.c_str(), path.c_str()), 0);
    expect_refused({}, 1, path + " is in the way", run);
    EXPECT_EQ(read_file(path), content);
    ::unlink(path.c_str());
  }
  ASSERT_EQ(::chmod(run.c_str(), 01777), 0);
  expect_refused({}, 1, "others may write to the run directory", run);
  ASSERT_EQ(::chmod(run.c_str(), 0700), 0);
  daemon_process d({}, run);
  ASSERT_TRUE(d.serving()) << d.log();
  ::unlink(d.control().c_str());
  write_file(d.control(), content);
  EXPECT_EQ(d.end(SIGTERM), 0);
  EXPECT_EQ(read_file(d.control()), content);
}

TEST_F(ctl_daemon, a_closed_log_is_no_disk) {
  const std::string small = dir / "small.img";
  const std::string run = dir / "run";
  write_file(small, bytes(512));
  const program_result r =
      run_program({"sh", "-c",
                   std::string(ZORVD_PATH) + " --run-dir " + run + " --disk " + small +
                       " zorv_debug=4 <&- 2>&- & until [ -S " + run +
                       "/control.sock ]; do sleep 0.01; done; kill $! && wait $!"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(read_file(small), bytes(512));
}

TEST_F(ctl_daemon, one_that_does_not_answer_is_told_from_one_that_is_busy) {
  daemon_process d;
  ASSERT_TRUE(d.serving()) << d.log();
  d.signal(SIGSTOP);
  const program_result r = d.ctl({"--limit", "1", "list"});
  EXPECT_EQ(r.status, 3);
  EXPECT_NE(r.err.find("zorvd is there but does not answer"), std::string::npos) << r.err;
  std::vector<zorv_handle*> waiting;  // until nobody can connect any more
  do {
    waiting.push_back(zorv_open_within(d.control().c_str(), 50));
  } while (waiting.back() != nullptr);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(d.ctl({"--limit", "1", "list"}).status, 3);
  for (zorv_handle* z : waiting) zorv_close(z);
  d.signal(SIGCONT);
  // Those that have gone may have every place for a moment.
  EXPECT_TRUE(eventually([&d] { return d.ctl({"list"}).out == "no nodes\n"; }));
}

TEST_F(ctl_daemon, a_file_may_hold_what_the_command_line_may) {
  const std::string text = "disk=[\"" + image + ",name=one,read-only\"]\nzorv_max_blk_minor=15\n" +
                           "zorv_debug=3\nzorv_chr_major=0\n";
  write_file(dir / "conf", bytes(text.begin(), text.end()));
  daemon_process d({"--config", dir / "conf", "zorv_debug=2"});
  ASSERT_TRUE(d.serving()) << d.log();
  EXPECT_EQ(d.must({"proc", "cat", "debug"}), "2\n") << "the command line wins";
  EXPECT_NE(d.must({"proc", "cat", "chr_major"}), "0\n");
  EXPECT_TRUE(d.ctl_json({"disks"}).at(0).at("read_only"));
  d.ctl_json(
      {"add-filter", "one", "--extent-size", "64K", "--bmp-dir", dir.path(), "--minor", "16"}, 1);
}

TEST_F(ctl_daemon, bitmaps_outlive_a_clean_end_and_not_a_crash) {
  const std::string one = "65536 65536\ntotal 65536 of 16777216 bytes in 1 range\n";
  const std::string all = "0 16777216\ntotal 16777216 of 16777216 bytes in 1 range\n";
  {
    daemon_process d({"--disk", image});
    add_data(&d);
    EXPECT_EQ(changed(&d, "incr"), all) << "nothing is known at first";
    d.must({"bmp", "clear", "data", "incr"});
    d.must({"bmp", "clear", "data", "diff"});
    node_client client(d, "data");
    EXPECT_EQ(client.write(65536, bytes(512, 1)), 0U);
    EXPECT_EQ(changed(&d, "incr"), one);
    EXPECT_EQ(d.end(SIGTERM), 0) << "with a client connected: " << d.log();
  }
  {
    daemon_process d({"--disk", image});
    add_data(&d);
    EXPECT_EQ(changed(&d, "incr"), one);
    EXPECT_EQ(changed(&d, "diff"), one);
    // With the node open nothing saves the bitmaps, and no old save may count.
    node_client client(d, "data");
    EXPECT_EQ(client.write(1 << 20, bytes(512, 1)), 0U);
    d.end(SIGKILL);
  }
  daemon_process d({"--disk", image});
  add_data(&d);
  EXPECT_EQ(changed(&d, "incr"), all);
  EXPECT_EQ(changed(&d, "diff"), all);
}
