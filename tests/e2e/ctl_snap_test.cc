// SPDX-License-Identifier: GPL-2.0-only
// Snapshots as zorvctl takes, shows and resumes them.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <thread>

#include "support/daemon.h"

using namespace zorv_test;
using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

struct ctl_snap : with_daemon {
  void SetUp() override {
    make_image(dir / "disk.img", 8 << 20);
    ASSERT_EQ(::mkdir((dir / "cow").c_str(), 0700), 0);
  }
  void serve() {
    with_daemon::serve(dir / "disk.img");
    add_started("disk", "data");
  }
  json add(const std::string& name) {
    std::vector<std::string> args = {"add-snap", "data",      "--chunk-size",
                                     "64K",      "--cow-dir", dir / "cow"};
    if (!name.empty()) args.insert(args.end(), {"--name", name});
    return d->ctl_json(args);
  }
  void write(const std::string& what) {
    const auto r = run_program({"qemu-io", "-f", "raw", "-c", "write -q " + what, d->uri("data")});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
  }
  // Whether every byte of the node's range has the value.
  void expect_bytes(const std::string& node, const std::string& value_offset_length) {
    const auto r = run_program(
        {"qemu-io", "-r", "-f", "raw", "-c", "read -q -P " + value_offset_length, d->uri(node)});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "");
  }
};

}  // namespace

TEST_F(ctl_snap, is_taken_shown_and_resumed_after_a_restart) {
  serve();
  write("-P 1 1M 64k");
  const json made = add("old");
  EXPECT_EQ(made.at("filter_minor"), 0);
  EXPECT_EQ(made.at("snap_minor"), 1);
  EXPECT_EQ(made.at("cow_bmp_fname"), dir / "cow/old.cowbmp");
  EXPECT_EQ(made.at("cow_data_fname"), dir / "cow/old.cowdata");
  EXPECT_EQ(d->ctl_json({"info", "old"}).at("started"), 0);
  d->must({"start", "old"});
  write("-P 2 1M 64k");
  write("-P 2 3M 128k");
  expect_bytes("old", "1 1M 64k");
  expect_bytes("data", "2 1M 64k");
  // What the files hold is told without a look at them: their folder may be what hangs.
  ASSERT_EQ(::rename((dir / "cow").c_str(), (dir / "away").c_str()), 0);
  const json info = d->ctl_json({"info", "old"});
  EXPECT_EQ(info.at("snap_valid"), 1);
  EXPECT_EQ(info.at("copied_bytes"), 3 * 65536);
  EXPECT_EQ(d->ctl_json({"info", "data"}).at("snap_minors"), json::array({1}));
  EXPECT_THAT(d->must({"list", "snap"}), HasSubstr("old   snap  valid    8M   64K     0    192K"));
  ASSERT_EQ(::rename((dir / "away").c_str(), (dir / "cow").c_str()), 0);

  EXPECT_EQ(d->end(SIGTERM), 0) << d->log();
  serve();
  EXPECT_EQ(add("old").at("cow_data_fname"), dir / "cow/old.cowdata") << "the same names again";
  EXPECT_EQ(d->ctl_json({"resume", "old"}).at("snap_valid"), 1);
  expect_bytes("old", "1 1M 64k");
  d->must({"stop", "old"});
  d->must({"resume", "old", "--valid", "0"});
  EXPECT_THAT(d->must({"info", "old"}), HasSubstr("INVALID"));
  d->must({"stop", "old"});
  write("-P 3 1M 64k");
  const program_result late = d->ctl({"resume", "old"});
  EXPECT_EQ(late.status, 1);
  EXPECT_THAT(late.out, testing::ContainsRegex("resumed old, but it is INVALID: .* missed writes"));
  d->must({"stop", "old"});
  EXPECT_EQ(d->ctl_json({"resume", "old"}, 1).at("snap_valid"), 0);
}

TEST_F(ctl_snap, a_stop_that_has_to_wait_is_shown) {
  serve();
  EXPECT_EQ(add("older").at("snap_minor"), 1);
  const std::string unnamed = add("").at("cow_bmp_fname");
  EXPECT_THAT(unnamed, HasSubstr(dir / "cow/data-"));
  EXPECT_THAT(unnamed, EndsWith(".cowbmp"));
  EXPECT_THAT(add("").at("cow_bmp_fname"), testing::Ne(unnamed));
  const json error = d->ctl_json({"add-snap", "data", "--chunk-size", "64K", "--cow-bmp", dir / "x",
                                  "--cow-data", dir / "cow/older.cowdata"},
                                 1);
  EXPECT_EQ(error.at("error").at("errno"), EEXIST) << "nobody shares a snapshot's files";
  write_file(dir / "thesis", bytes(10, 'x'));
  EXPECT_THAT(d->ctl({"add-snap", "data", "--chunk-size", "64K", "--cow-bmp", dir / "x",
                      "--cow-data", dir / "thesis"})
                  .err,
              HasSubstr("thesis is there already and is no COW file"));
  d->must({"start", "older"});
  d->must({"start", "zorv2"});
  EXPECT_EQ(d->must({"stop", "zorv2"}),
            "zorv2 still serves older snaps; it is stopped when these have stopped: older\n");
  EXPECT_EQ(d->ctl_json({"info", "zorv2"}).at("stop_pending"), 1);
  EXPECT_THAT(d->must({"list"}), HasSubstr("stop pending"));
  EXPECT_EQ(d->ctl_json({"del", "zorv2"}).at("awaits"), json::array({"older"}));
  program_result waited{};
  std::thread waiter([&] { waited = d->ctl({"del", "--wait", "zorv2"}); });
  EXPECT_TRUE(eventually([&] {
    const std::string log = d->log();
    const std::size_t first = log.find("Postponing delete");
    return log.find("Postponing delete", first + 1) != std::string::npos;
  }));
  EXPECT_EQ(d->must({"stop", "older"}), "stopped older\n");
  waiter.join();
  EXPECT_EQ(waited.status, 0) << waited.err;
  EXPECT_THAT(d->must({"list"}), testing::Not(HasSubstr("zorv2")));
}

TEST_F(ctl_snap, what_is_deleted_is_said_and_asked) {
  serve();
  const json snap = add("old");
  d->must({"start", "old"});
  d->must({"stop", "old"});
  const std::string files = snap.at("cow_bmp_fname").get<std::string>() + ", " +
                            snap.at("cow_data_fname").get<std::string>();
  const auto at_terminal = [&](const std::string& input, const std::string& command = "del") {
    return run_program(
        {"script", "-qec", ZORVCTL_PATH " --socket " + d->control() + " " + command + " old",
         "/dev/null"},
        input);
  };
  EXPECT_THAT(at_terminal("n\n", "start").out, HasSubstr("old hold a snapshot, which resume"));
  d->must({"resume", "old"});
  d->must({"stop", "old"});
  EXPECT_THAT(d->must({"start", "old"}), HasSubstr("in place of the snapshot"));
  d->must({"stop", "old"});
  const program_result no = at_terminal("n\n");
  EXPECT_EQ(no.status, 1);
  EXPECT_THAT(no.out, HasSubstr("Delete the snap old (minor 1) and the COW files " + files + "?"));
  EXPECT_EQ(d->ctl_json({"info", "old"}).at("started"), 0) << "it is still there";
  // Another node of its name by the time that the answer comes.
  const std::string ctl = ZORVCTL_PATH " --socket " + d->control() + " ";
  const program_result late = run_program(
      {"sh", "-c",
       "cd " + dir.path() +
           "; (for i in $(seq 400); do grep -q y/N said && break; sleep .02; done; " + ctl +
           "del -y old >&2; " + ctl +
           "add-snap data --chunk-size 64K --cow-dir cow --name old >&2; echo y) | script -qefc '" +
           ctl + "del old' said"});
  EXPECT_EQ(late.status, 1);
  EXPECT_THAT(late.out, HasSubstr("old has gone; nothing was deleted"));
  d->must({"start", "old"});
  d->must({"stop", "old"});
  const program_result yes = at_terminal("y\n");
  EXPECT_EQ(yes.status, 0) << yes.out;
  EXPECT_THAT(yes.out, HasSubstr("files deleted: " + files));
}

TEST_F(ctl_snap, which_parts_hold_data) {
  ASSERT_EQ(run_program({"mke2fs", "-q", "-F", "-b", "1024", dir / "disk.img"}).status, 0);
  serve();
  d->must({"datablock", "test", "disk"});
  add("old");
  EXPECT_THAT(d->ctl({"datablock", "show", "old", "--extent-size", "64K"}).err,
              HasSubstr("has not been started yet"));
  d->must({"start", "old"});
  const json shown = d->ctl_json({"datablock", "show", "old", "--extent-size", "128K"});
  EXPECT_EQ(shown.at("ranges").at(0).at("offset"), 0) << "the super block";
  EXPECT_LT(shown.at("total"), 4 << 20) << "an empty file system is mostly free";
  d->must({"datablock", "get", "old", "--extent-size", "128K", "-o", dir / "map"});
  EXPECT_EQ(read_file(dir / "map").size(), 8U);
  for (const char* bad : {"3", "32K"}) {
    d->ctl_json({"datablock", "get", "old", "--extent-size", bad, "-o", dir / "map"}, 1);
  }
}
