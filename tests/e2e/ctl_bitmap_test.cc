// SPDX-License-Identifier: GPL-2.0-only
// Change bitmaps through zorvctl: raw, as ranges, and never lost on the way out.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "host/unix_socket.h"
#include "support/daemon.h"

using namespace zorv_test;
using nlohmann::json;

namespace {

bytes bytes_of(const std::string& text) { return {text.begin(), text.end()}; }

struct ctl_bitmap : with_daemon {
  void SetUp() override {
    make_image(dir / "disk.img", 10 * 65536 + 512);
    serve(dir / "disk.img");
    add_filter("disk");
  }

  bytes incr() {
    d->must({"bmp", "get", "zorv0", "incr", "-o", dir / "now"});
    return read_file(dir / "now");
  }
  void set_incr(const bytes& to) {
    write_file(dir / "set", to);
    d->must({"bmp", "set", "zorv0", "incr", dir / "set"});
  }
};

}  // namespace

TEST_F(ctl_bitmap, set_merge_clear_save_and_load) {
  EXPECT_EQ(incr(), (bytes{0xff, 0xff})) << "no file: everything counts as changed";
  set_incr({0x03, 0x00});
  EXPECT_EQ(incr(), (bytes{0x03, 0x00}));
  write_file(dir / "more", {0x00, 0x04});
  d->must({"bmp", "merge", "zorv0", "incr", dir / "more"});
  EXPECT_EQ(incr(), (bytes{0x03, 0x04}));
  EXPECT_EQ(d->ctl({"bmp", "merge", "0", "incr", "-"},
                   "\x08"
                   "\x01")
                .status,
            0);
  EXPECT_EQ(incr(), (bytes{0x0b, 0x05}));
  d->must({"bmp", "save", "0", "incr"});
  d->must({"bmp", "load", "0", "incr"});
  EXPECT_EQ(incr(), (bytes{0x0b, 0x05}));
  d->must({"bmp", "clear", "0", "incr"});
  EXPECT_EQ(incr(), (bytes{0, 0}));
  d->must({"bmp", "set", "0", "incr"});
  EXPECT_EQ(incr(), (bytes{0xff, 0xff}));
  const json raw = d->ctl_json({"bmp", "get", "0", "incr"});
  EXPECT_EQ(raw.at("data"), "//8=");
  EXPECT_EQ(raw.at("size"), 2);
  for (const char* length : {"\x01", "\x01\x02\x03"}) {
    EXPECT_EQ(d->ctl({"bmp", "set", "0", "incr", "-"}, length).status, 1);
  }
  EXPECT_EQ(incr(), (bytes{0xff, 0xff}));
}

TEST_F(ctl_bitmap, what_went_wrong_in_the_file_is_said) {
  d->must({"start", "zorv0"});
  const std::string file = dir / "zorv0.incr";
  write_file(file, bytes_of("ZORVBMP\x01"));
  const program_result stale = d->ctl({"bmp", "load", "zorv0", "incr"});
  EXPECT_EQ(stale.status, 1);
  EXPECT_NE(stale.err.find(file + " is dirty."), std::string::npos) << stale.err;
  ::unlink(file.c_str());
  ASSERT_EQ(::mkdir(file.c_str(), 0700), 0);
  EXPECT_NE(d->must({"bmp", "clear", "zorv0", "incr"}).find("cleared incr of zorv0, but "),
            std::string::npos);
  const program_result unsaved = d->ctl({"stop", "zorv0"});
  EXPECT_EQ(unsaved.status, 1);
  EXPECT_NE(unsaved.err.find("stopped zorv0, but "), std::string::npos) << unsaved.err;
  ::rmdir(file.c_str());
  d->must({"start", "zorv0"});
  EXPECT_EQ(d->must({"stop", "zorv0"}), "stopped zorv0\n");
}

TEST_F(ctl_bitmap, ranges_end_with_the_disk) {
  set_incr({0x0b, 0xfe});  // behind the last extent's bit nothing counts
  EXPECT_NE(d->must({"info", "zorv0"}).find("5 of 11 extents changed (45.45 %)"),
            std::string::npos);
  EXPECT_EQ(d->ctl_json({"info", "zorv0"}).at("incr_bmp_changed"), 5);
  EXPECT_EQ(d->must({"bmp", "show", "zorv0", "incr"}),
            "0 131072\n196608 65536\n589824 66048\ntotal 262656 of 655872 bytes in 3 ranges\n");
  const json shown = d->ctl_json({"bmp", "show", "zorv0", "incr"});
  EXPECT_EQ(shown.at("total"), 262656);
  EXPECT_EQ(shown.at("ranges").at(2), json({{"offset", 589824}, {"length", 66048}}));
}

TEST_F(ctl_bitmap, what_is_taken_arrives_or_is_put_back) {
  const bytes bits = {0x21, 0x01};
  write_file(dir / "kept", {1, 2, 3});
  ASSERT_EQ(::chmod((dir / "kept").c_str(), 0640), 0);
  const std::string link = dir / "link";
  ASSERT_EQ(::symlink("kept", link.c_str()), 0);
  ASSERT_EQ(::symlink("/proc/self/fd/1", (dir / "stdout").c_str()), 0);
  // In the folder, with syncs of files named "synced" failing.
  write_file(dir / "rules", bytes_of("fail synced 5\n"));
  const auto take = [&](const std::string& how) {
    set_incr(bits);
    return run_program({"sh", "-c",
                        "cd " + dir.path() + "; export LD_PRELOAD=" SYNCS_PATH " ZORV_SYNCS=" +
                            (dir / "rules") + "; exec " ZORVCTL_PATH " --socket " + d->control() +
                            " bmp get-clear zorv0 incr " + how});
  };
  for (const char* none : {"-o none/x", "-o disk.img"}) {
    SCOPED_TRACE(none);
    EXPECT_EQ(take(none).status, 1);
    EXPECT_EQ(incr(), bits) << "nothing is taken that cannot be put anywhere";
  }
  EXPECT_EQ(read_file(dir / "kept"), (bytes{1, 2, 3}));
  for (const char* full : {"-o /dev/full", "--json >/dev/full", "--json >&-", ">synced",
                           "--json >synced", "-o synced.link"}) {
    SCOPED_TRACE(full);
    ::symlink("synced", (dir / "synced.link").c_str());
    const program_result r = take(full);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("merged back"), std::string::npos) << r.err;
    EXPECT_EQ(incr(), bits);
  }
  const struct {
    const char* how;
    const char* file;
  } outputs[] = {{">out", "out"},
                 {"-o - >out2", "out2"},
                 {"-o stdout >out3", "out3"},
                 {"-o link", "kept"},
                 {"-o kept", "kept"}};
  for (const auto& to : outputs) {
    SCOPED_TRACE(to.how);
    EXPECT_EQ(take(to.how).status, 0);
    EXPECT_EQ(read_file(dir / to.file), bits);
    EXPECT_EQ(incr(), (bytes{0, 0}));
  }
  struct stat st {};
  ASSERT_EQ(::lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(::stat((dir / "kept").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640U) << "replaced whole, with its mode";
  set_incr(bits);
  EXPECT_EQ(d->ctl_json({"bmp", "get-clear", "zorv0", "incr"}).at("data"), "IQE=");
  EXPECT_EQ(incr(), (bytes{0, 0}));
}

TEST_F(ctl_bitmap, a_reader_that_does_not_read_holds_nobody) {
  make_image(dir / "large.img", 8ULL << 30);
  d->must({"attach", dir / "large.img"});
  d->must({"add-filter", "large", "--extent-size", "4K", "--bmp-dir", dir.path()});
  const std::string pipe = dir / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const zorv::unique_fd reader(::open(pipe.c_str(), O_RDWR | O_NONBLOCK));
  program_result ended{};
  std::thread taker([&] {
    ended = run_program({"sh", "-c",
                         "echo $$ >" + (dir / "pid") + "; exec " ZORVCTL_PATH " --socket " +
                             d->control() + " bmp get-clear zorv1 incr -o " + pipe});
  });
  int arrived = 0;
  EXPECT_TRUE(eventually([&] { return ::ioctl(reader.get(), FIONREAD, &arrived), arrived > 0; }));
  std::ifstream(dir / "pid") >> arrived;
  ::kill(arrived, SIGTERM);
  taker.join();
  EXPECT_EQ(ended.status, 128 + SIGTERM);
  EXPECT_TRUE(eventually([&] { return d->ctl_json({"info", "zorv1"}).at("incr_bmp_full") == 1; }));
}
