// SPDX-License-Identifier: GPL-2.0-only
// Nodes, disks and the status tree as zorvctl shows them, to people and to scripts.
#include <gmock/gmock.h>

#include <filesystem>

#include "support/daemon.h"
#include "zorv/client.h"

using namespace zorv_test;
using nlohmann::json;
using testing::HasSubstr;

namespace {

struct ctl_node : with_daemon {
  std::string image = dir / "disk.img";

  void SetUp() override {
    make_image(image, 1000000);
    serve(image);
  }
  json add(const std::string& name, const std::string& device = "disk") {
    return add_filter(device, {"--name", name});
  }
};

}  // namespace

TEST_F(ctl_node, a_filter_lives_and_goes) {
  const json made = add("my data");
  EXPECT_EQ(made.at("minor"), 0);
  EXPECT_EQ(made.at("uuid").get<std::string>().size(), 38U);
  EXPECT_EQ(made.at("extent_size"), 65536);
  EXPECT_EQ(made.at("bmp_dir"), dir.path());
  EXPECT_THAT(d->must({"list"}), HasSubstr("my data  filter  stopped  976K   64K"));
  d->must({"start", "my data"});
  const json info = d->ctl_json({"info", "0"});
  EXPECT_EQ(info.at("name"), "my data");
  EXPECT_EQ(info.at("started"), 1);
  EXPECT_EQ(info.at("dev_size"), 999936) << "whole sectors";
  EXPECT_EQ(info.at("extent_cnt"), 16);
  EXPECT_EQ(info.at("hdd_name"), "/dev/image/disk");
  EXPECT_EQ(info.at("snap_minors"), json::array());
  EXPECT_EQ(info.at("uri"), "nbd+unix:///my%20data?socket=" + d->run_dir() + "/nbd.sock");
  EXPECT_THAT(d->must({"info", "my data"}), HasSubstr("everything changed"));
  EXPECT_EQ(d->must({"uri", "0"}), info.at("uri").get<std::string>() + "\n");
  EXPECT_EQ(d->ctl_json({"list", "filter"}).size(), 1U);
  EXPECT_EQ(d->ctl_json({"list", "snap"}), json::array());
  d->must({"stop", "my data"});
  d->must({"del", "0"});
  EXPECT_EQ(d->must({"list"}), "no nodes\n");
}

TEST_F(ctl_node, refusals_have_a_reason_and_a_status) {
  add("data");
  const struct {
    std::vector<std::string> args;
    int status;
    int number;  // errno, 0: none
    const char* reason;
  } cases[] = {
      {{"start", "7"}, 1, EINVAL, "Nothing is known about zorv(100, 7)"},
      {{"start", "nobody"}, 1, ENOENT, "no node named nobody"},
      {{"info", "99999999999"}, 2, 0, "too large"},
      {{"add-filter", "disk", "--extent-size", "64K", "--bmp-dir", "/"}, 1, EINVAL, "duplicate"},
      {{"add-filter", "none", "--extent-size", "64K", "--bmp-dir", "/"}, 1, ENOENT, "lookup"},
      {{"add-filter", image, "--extent-size", "64K", "--bmp-dir", "/"},
       1,
       EINVAL,
       "is not a block device"},
      {{"add-filter", "disk", "--extent-size", "64X", "--bmp-dir", "/"}, 2, 0, "64X is no size"},
      {{"add-filter", "disk", "--extent-size", "4G", "--bmp-dir", "/"}, 2, 0, "too large"},
      {{"add-filter", "disk", "--bmp-dir", "/"}, 2, 0, "--extent-size"},
      {{"add-filter", "disk", "--extent-size", "4K", "--bmp-dir", "/", "--name",
        std::string(128, 'n')},
       2,
       0,
       "--name is too long"},
      {{"add-snap", "data", "--chunk-size", "64K"}, 2, 0, "give --cow-dir"},
      {{"add-snap", "data", "--chunk-size", "64K", "--cow-dir", "/", "--cow-bmp", "x"},
       2,
       0,
       "cow"},
      {{"resume", "data", "--valid", "2"}, 2, 0, "--valid"},
      {{"resume", "data"}, 1, EINVAL, "is not a snap device"},
      {{"datablock", "show", "data", "--extent-size", "64K"}, 1, EINVAL, "is not a snap device"},
      {{"bmp", "show", "data", "both"}, 2, 0, "both"},
      {{"info", "--minor10"}, 2, 0, "NODE is required"},
      {{"info", "--", "--minor=0"}, 1, ENOENT, "no node named --minor=0"},
      {{"--limit", "4294968", "list"}, 2, 0, "--limit"},
      {{"detach", "disk"}, 1, EBUSY, "in use"},
      {{"detach", "none"}, 1, ENOENT, "none"},
      {{"attach", image, "--name", "again"}, 1, EBUSY, "in use here already, as disk /dev/image/"},
      {{"attach", dir.path()}, 1, EISDIR, "Is a directory"},
      {{"proc", "cat", "none"}, 1, ENOENT, "none"},
      {{"proc", "cat", "zorv0"}, 1, EISDIR, "zorv0"},
      {{"proc", "ls", "debug"}, 1, ENOTDIR, "debug"},
      {{"proc", "write", "debug", "x"}, 1, EINVAL, "debug"},
      {{"proc", "write", "zorv0/uuid", "x"}, 1, EACCES, "zorv0/uuid"},
      {{"frobnicate"}, 2, 0, ""},
      {{}, 2, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    const json error = d->ctl_json(c.args, c.status).at("error");
    EXPECT_THAT(error.at("message").get<std::string>(), HasSubstr(c.reason));
    EXPECT_EQ(error.at("status"), c.status);
    EXPECT_EQ(error.value("errno", 0), c.number);
    const program_result text = d->ctl(c.args);
    EXPECT_EQ(text.status, c.status);
    EXPECT_EQ(text.out, "");
    EXPECT_THAT(text.err, HasSubstr(c.reason));
  }
  EXPECT_THAT(d->ctl({"detach", "disk"}).err, HasSubstr("(EBUSY, 16)"));
  const auto gone = run_program({ZORVCTL_PATH, "--socket", dir / "none", "--json", "list"});
  EXPECT_EQ(gone.status, 3);
  EXPECT_EQ(json::parse(gone.out).at("error").at("errno"), ENOENT);
}

TEST_F(ctl_node, digits_are_a_minor_only_if_no_node_has_that_name) {
  make_image(dir / "b.img", 1 << 20);
  d->must({"attach", dir / "b.img"});
  add("1");
  EXPECT_EQ(d->ctl_json({"info", "1"}).at("minor"), 0) << "nothing else could be meant";
  EXPECT_EQ(d->ctl_json({"info", "0"}).at("name"), "1");
  add("b", "b");
  for (const char* command : {"del", "start", "info"}) {
    EXPECT_THAT(d->ctl_json({command, "1"}, 1).at("error").at("message").get<std::string>(),
                HasSubstr("1 is the name of minor 0 and the minor of b; give :0 or :1"));
  }
  EXPECT_EQ(d->ctl_json({"info", ":1"}).at("name"), "b");
  EXPECT_EQ(d->ctl_json({"info", "--minor", "1"}).at("name"), "b");
  EXPECT_EQ(d->ctl_json({"bmp", "show", "incr", "--minor=1"}).at("minor"), 1);
  EXPECT_EQ(d->must({"del", ":1"}), "deleted b\nfiles that stay: " + (dir / "zorv1.disk") + "\n");
  EXPECT_EQ(d->ctl_json({"info", "1"}).at("minor"), 0);
}

TEST_F(ctl_node, more_nodes_than_one_list_of_the_driver_holds) {
  EXPECT_EQ(d->end(SIGTERM), 0);
  make_image(image + "2", 1000000);
  d = std::make_unique<daemon_process>(std::vector<std::string>{
      "--disk", image + ",name=disk", "--disk", image + "2,name=b", "zorv_max_blk_minor=300"});
  add("data");
  add("other", "b");
  zorv_handle* z = zorv_open(d->control().c_str());
  for (std::uint32_t i = 0; i < 260; ++i) {
    zorv_add_snap_req req{.filter_minor = i % 2, .snap_minor = -1, .chunk_size = 65536};
    const std::string file = dir / "cow" + std::to_string(i);
    (file + "b").copy(req.cow_bmp_fname, sizeof req.cow_bmp_fname);
    (file + "d").copy(req.cow_data_fname, sizeof req.cow_data_fname);
    if (i == 259) req.name[0] = '1';
    ASSERT_EQ(zorv_ioctl(z, ZORV_ADD_SNAP_NODE, &req), 0) << zorv_last_error(z);
  }
  zorv_close(z);
  EXPECT_EQ(d->ctl_json({"list", "snap"}).size(), 260U);
  EXPECT_THAT(d->ctl({"del", "1"}).err,
              HasSubstr("1 is the name of minor 261 and the minor of other"));
}

TEST_F(ctl_node, a_completed_name_is_not_carried_out) {
  const std::string name = "$(touch '" + (dir / "carried_out") + "')";
  add(name);
  const auto complete = [&](const std::string& words, const std::string& word) {
    return run_program({"bash", "-c",
                        "source " COMPLETION_PATH "; COMP_WORDS=(" ZORVCTL_PATH " --socket '" +
                            d->control() + "' " + words + " '" + word +
                            "'); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zorvctl; "
                            "eval printf '%s\\\\n' \"${COMPREPLY[@]}\""});
  };
  EXPECT_EQ(complete("del", "").out, name + "\n");
  EXPECT_EQ(complete("info", "\\$\\(").out, name + "\n");
  EXPECT_EQ(complete("start", "x").out, "\n");
  EXPECT_EQ(complete("bmp", "get").out, "get\nget-clear\n");
  EXPECT_FALSE(std::filesystem::exists(dir / "carried_out"));
}

TEST_F(ctl_node, disks_come_and_go) {
  const std::string path = dir / "b.\n\x1b[31mraw";
  make_image(path, 1 << 20);
  EXPECT_EQ(d->must({"attach", path, "--read-only"}), "/dev/image/b\n");
  EXPECT_THAT(d->must({"disks"}), HasSubstr("b.\\x0a\\x1b[31mraw\n"));
  const json disks = d->ctl_json({"disks"});
  ASSERT_EQ(disks.size(), 2U);
  EXPECT_EQ(
      disks[1],
      json(
          {{"name", "b"}, {"path", path}, {"size", 1 << 20}, {"read_only", true}, {"openers", 0}}));
  d->ctl_json({"add-filter", "b", "--extent-size", "64K", "--bmp-dir", dir.path()}, 1);
  EXPECT_EQ(d->must({"detach", "/dev/image/b"}), "detached b\n");
  EXPECT_EQ(d->ctl_json({"disks"}).size(), 1U);
}

TEST_F(ctl_node, the_status_tree) {
  add("data");
  EXPECT_EQ(d->must({"proc", "ls"}), "chr_major\nblk_major\ndebug\nzorv0/\n");
  for (const char* path : {"/proc/zorv/zorv0/name", "zorv/zorv0/name", "zorv0/name"}) {
    EXPECT_EQ(d->must({"proc", "cat", path}), "data\n");
  }
  EXPECT_EQ(d->ctl_json({"proc", "ls", "/proc/zorv"}).at(2),
            json({{"name", "debug"}, {"mode", "0644"}, {"directory", false}}));
  d->must({"proc", "write", "debug", "2"});
  EXPECT_EQ(d->must({"proc", "cat", "debug"}), "2\n");
}

TEST_F(ctl_node, every_command_has_help) {
  const program_result all = d->ctl({"--help"});
  EXPECT_EQ(all.status, 0);
  for (const char* command :
       {"attach", "detach", "disks", "add-filter", "add-snap", "start", "stop", "del", "resume",
        "list", "info", "uri", "bmp", "datablock", "proc"}) {
    EXPECT_THAT(all.out, HasSubstr(command));
    const program_result one = d->ctl({command, "--help"});
    EXPECT_EQ(one.status, 0);
    EXPECT_THAT(one.out, HasSubstr(std::string("Usage: zorvctl ") + command));
  }
  EXPECT_EQ(run_program({"sh", "-c", ZORVCTL_PATH " --help >/dev/full"}).status, 1);
}

TEST_F(ctl_node, a_client_that_is_leaving_another_node_holds_up_no_stop) {
  make_image(dir / "other.img", 64 << 20);
  d->must({"attach", dir / "other.img", "--name", "other"});
  add("data");
  add("other", "other");
  for (const char* node : {"data", "other"}) d->must({"start", node});
  raw_client leaving(d->run_dir() + "/nbd.sock");
  ASSERT_TRUE(leaving.enter("other"));
  for (int i = 0; i < 40; ++i) leaving.ask(wire::cmd_read, 0, 2 << 20);
  leaving.send_no_more();
  const auto begin = std::chrono::steady_clock::now();
  d->must({"stop", "data"});
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_LT(took, std::chrono::milliseconds(1500)) << "the limit of such a wait is two seconds";
  EXPECT_EQ(d->ctl({"stop", "other"}).status, 1) << "it is in use";
}
