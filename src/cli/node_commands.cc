// SPDX-License-Identifier: GPL-2.0-only
// Making nodes, and taking them through their life.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <limits>
#include <random>

#include "cli/cli.h"
#include "cli/cow_file.h"
#include "cli/nodes.h"
#include "cli/text.h"

namespace zorv::cli {
namespace {

constexpr std::uint64_t max_u32 = std::numeric_limits<std::uint32_t>::max();

struct new_node {
  std::string device;  // a filter's disk, a snap's filter
  std::string unit_size;
  std::string bmp_dir;
  std::string cow_dir, cow_bmp, cow_data;
  std::int32_t minor = -1;
  std::string name;
  std::string uuid;
};

answer added(const char* kind, std::uint32_t minor, const std::string& name,
             const std::string& uuid, json document) {
  document["name"] = name;
  document["uuid"] = uuid;
  return {std::move(document), std::string("added ") + kind + " " + name + ", minor " +
                                   std::to_string(minor) + ", uuid " + uuid + "\n"};
}

answer add_filter(session& s, const new_node& given) {
  zorv_add_filter_req req{};
  // A word without a slash is an attached image.
  const bool image = given.device.find('/') == std::string::npos;
  fill(req.hdd_name, image ? "/dev/image/" + given.device : absolute_path(given.device), "DEVICE");
  req.minor = given.minor;
  req.extent_size = static_cast<std::uint32_t>(parse_size(given.unit_size, max_u32));
  fill(req.bmp_dir, absolute_path(given.bmp_dir), "--bmp-dir");
  fill(req.uuid, given.uuid, "--uuid");
  fill(req.name, given.name, "--name");
  s.command(ZORV_ADD_FILTER_NODE, &req);
  const auto minor = static_cast<std::uint32_t>(req.minor);
  const std::string trouble = bitmap_trouble(s, minor);
  json document = {{"minor", req.minor},
                   {"hdd_name", field(req.hdd_name)},
                   {"extent_size", req.extent_size},
                   {"bmp_dir", field(req.bmp_dir)}};
  if (!trouble.empty()) document["bmp_trouble"] = trouble;
  answer result = added("filter", minor, field(req.name), field(req.uuid), std::move(document));
  result.text += trouble;
  return result;
}

// A name for the COW files of a snap that was given none: its filter's, the time, and a number
// that no other snap of the same second has.
std::string snap_file_stem(std::string filter) {
  std::replace(filter.begin(), filter.end(), '/', '_');
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm utc{};
  ::gmtime_r(&now, &utc);
  char time[32];
  std::strftime(time, sizeof time, "%Y%m%dT%H%M%SZ", &utc);
  char number[16];
  std::snprintf(number, sizeof number, "-%08x", std::random_device{}());
  return filter + "-" + time + number;
}

// Two snaps that wrote to the same files would destroy each other, and a start empties whatever is
// there.
void refuse_shared_files(session& s, const zorv_add_snap_req& req) {
  const std::string wanted[] = {field(req.cow_bmp_fname), field(req.cow_data_fname)};
  if (wanted[0] == wanted[1]) throw failure(status_usage, 0, "the COW files must be two files");
  for (const std::string& file : wanted) {
    if (look_at_cow_file(file) == cow_file::foreign) {
      throw failure(status_refused, EEXIST, file + " is there already and is no COW file");
    }
  }
  for (const zorv_info_req& other : all_nodes(s, ZORV_DEV_SNAP)) {
    for (const std::string& file : wanted) {
      if (file == field(other.cow_bmp_fname) || file == field(other.cow_data_fname)) {
        throw failure(status_refused, EEXIST,
                      file + " belongs to the snap " + field(other.name) + " already");
      }
    }
  }
}

answer add_snap(session& s, const new_node& given) {
  const zorv_info_req filter = node_info(s, given.device);
  zorv_add_snap_req req{};
  req.filter_minor = filter.minor;
  req.snap_minor = given.minor;
  req.chunk_size = static_cast<std::uint32_t>(parse_size(given.unit_size, max_u32));
  if (given.cow_dir.empty()) {
    fill(req.cow_bmp_fname, absolute_path(given.cow_bmp), "--cow-bmp");
    fill(req.cow_data_fname, absolute_path(given.cow_data), "--cow-data");
  } else {
    // A name that the user chose is taken as it is, so that the same files are found again after a
    // restart.
    const std::string base = absolute_path(given.cow_dir) + "/" +
                             (given.name.empty() ? snap_file_stem(field(filter.name)) : given.name);
    fill(req.cow_bmp_fname, base + ".cowbmp", "the COW bitmap file's path");
    fill(req.cow_data_fname, base + ".cowdata", "the COW data file's path");
  }
  fill(req.uuid, given.uuid, "--uuid");
  fill(req.name, given.name, "--name");
  refuse_shared_files(s, req);
  s.command(ZORV_ADD_SNAP_NODE, &req);
  return added("snap", static_cast<std::uint32_t>(req.snap_minor), field(req.name), field(req.uuid),
               {{"filter_minor", req.filter_minor},
                {"snap_minor", req.snap_minor},
                {"chunk_size", req.chunk_size},
                {"cow_bmp_fname", field(req.cow_bmp_fname)},
                {"cow_data_fname", field(req.cow_data_fname)}});
}

// A snapshot can be running and show nothing; the command that brought it there succeeds.
//   expected  whether it is to be valid
answer running(session& s, std::uint32_t minor, bool expected, std::string text, json document) {
  const std::string why = s.remark();
  const zorv_info_req now = node_info(s, minor);
  answer result{std::move(document), std::move(text)};
  if (now.dev_type == ZORV_DEV_SNAP) {
    result.document["snap_valid"] = now.snap_valid;
    result.document["stop_pending"] = now.stop_pending;
    result.document["del_pending"] = now.del_pending;
    if (expected && now.snap_valid == 0) {
      result.text += ", but it is INVALID: " + (why.empty() ? "see the log" : why);
      result.ends_with = status_refused;
    }
  }
  if (!why.empty()) result.document["remark"] = why;
  result.text += "\n";
  return result;
}

struct start_args {
  std::string node;
  bool yes = false;
};

// Whether a start would put an end to a snapshot that a resume may bring back.
bool holds_snapshot(const zorv_info_req& node) {
  return node.dev_type == ZORV_DEV_SNAP && node.started == 0 &&
         look_at_cow_file(field(node.cow_bmp_fname)) == cow_file::sealed &&
         look_at_cow_file(field(node.cow_data_fname)) == cow_file::sealed;
}

answer start(session& s, const start_args& args) {
  zorv_info_req node{};
  node.minor = find_node(s, args.node);
  const bool replaces = s.try_command(ZORV_GET_INFO, &node) == 0 && holds_snapshot(node);
  if (replaces && !args.yes) {
    ask(s, node,
        "The COW files of " + field(node.name) +
            " hold a snapshot, which resume brings back. Take a new one in its place?",
        "nothing was started");
  }
  zorv_node_req req{node.minor};
  s.command(ZORV_START_NODE, &req);
  json document = {{"minor", req.minor}};
  if (replaces) document["replaced"] = true;
  return running(s, req.minor, true,
                 "started " + args.node +
                     (replaces ? " in place of the snapshot that its COW files held" : ""),
                 std::move(document));
}

struct resume_values {
  std::string node;
  std::uint32_t valid = 1, stop_pending = 0, del_pending = 0;
};

answer resume(session& s, const resume_values& given) {
  zorv_resume_snap_req req{};
  req.snap_minor = find_node(s, given.node);
  req.snap_valid = given.valid;
  req.stop_pending = given.stop_pending;
  req.del_pending = given.del_pending;
  s.command(ZORV_RESUME_SNAP, &req);
  return running(s, req.snap_minor, given.valid != 0, "resumed " + given.node,
                 {{"snap_minor", req.snap_minor}});
}

void add_common_options(CLI::App* command, const std::shared_ptr<new_node>& node) {
  command->add_option("--minor", node->minor, "minor of the new node; default: the lowest free one")
      ->type_name("N")
      ->check(CLI::NonNegativeNumber);
  command->add_option("--name", node->name, "name of the new node; default: zorvN of its minor")
      ->type_name("NAME");
  command->add_option("--uuid", node->uuid, "identifier of the new node; default: a random one")
      ->type_name("UUID");
}

void add_add_filter(CLI::App* app, invocation* inv) {
  auto node = std::make_shared<new_node>();
  CLI::App* command = add_command(app, inv, "add-filter", "put a filter node over a disk",
                                  [node](session& s) { return add_filter(s, *node); });
  command
      ->add_option("DEVICE", node->device,
                   "an attached image (its name, or /dev/image/NAME) or a host block device's path")
      ->required();
  command->add_option("--extent-size", node->unit_size, "bytes per bit of the change bitmaps")
      ->type_name("SIZE")
      ->required();
  command->add_option("--bmp-dir", node->bmp_dir, "directory of the bitmap files")
      ->type_name("DIR")
      ->check([](const std::string& dir) { return dir.empty() ? "needs a name" : ""; })
      ->required();
  add_common_options(command, node);
}

void add_add_snap(CLI::App* app, invocation* inv) {
  auto node = std::make_shared<new_node>();
  CLI::App* command =
      add_command(app, inv, "add-snap", "make a snapshot node of a filter", [node](session& s) {
        if (node->cow_dir.empty() && node->cow_bmp.empty()) {
          throw failure(status_usage, 0, "give --cow-dir, or --cow-bmp and --cow-data");
        }
        return add_snap(s, *node);
      });
  command->add_option("FILTER", node->device, "the filter node")->required();
  command->add_option("--chunk-size", node->unit_size, "bytes that are copied at once")
      ->type_name("SIZE")
      ->required();
  CLI::Option* dir =
      command
          ->add_option("--cow-dir", node->cow_dir,
                       "directory for both COW files; they are named after --name, or after the "
                       "filter and the time")
          ->type_name("DIR");
  CLI::Option* bmp = command->add_option("--cow-bmp", node->cow_bmp, "the COW bitmap file")
                         ->type_name("FILE")
                         ->excludes(dir);
  CLI::Option* data = command->add_option("--cow-data", node->cow_data, "the COW data file")
                          ->type_name("FILE")
                          ->excludes(dir);
  bmp->needs(data);
  data->needs(bmp);
  add_common_options(command, node);
}

void add_resume(CLI::App* app, invocation* inv) {
  auto values = std::make_shared<resume_values>();
  CLI::App* command =
      add_command(app, inv, "resume", "start a stopped snap on its existing COW files",
                  [values](session& s) { return resume(s, *values); });
  command->add_option("SNAP", values->node, std::string("the snap node: ") + node_help)->required();
  const auto flag = [&](const char* name, std::uint32_t* to, const char* help) {
    command->add_option(name, *to, help)
        ->type_name("0|1")
        ->check(CLI::Range(0U, 1U))
        ->capture_default_str();
  };
  flag("--valid", &values->valid, "whether the snapshot is whole");
  flag("--stop-pending", &values->stop_pending, "whether a stop was postponed");
  flag("--del-pending", &values->del_pending, "whether a deletion was postponed");
}

}  // namespace

void add_node_commands(CLI::App* app, invocation* inv) {
  add_add_filter(app, inv);
  add_add_snap(app, inv);
  auto args = std::make_shared<start_args>();
  CLI::App* command =
      add_command(app, inv, "start", "start a node: a filter is served, a snapshot is taken",
                  [args](session& s) { return start(s, *args); });
  command->add_option("NODE", args->node, node_help)->required();
  command->add_flag("-y,--yes", args->yes, "do not ask at a terminal");
  add_resume(app, inv);
}

}  // namespace zorv::cli
