// SPDX-License-Identifier: GPL-2.0-only
// Stopping and deleting. Both can be postponed: a snapshot goes on serving the older ones until
// they have stopped. And a deletion takes files with it, which has to be said before and after.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "cli/cli.h"
#include "cli/nodes.h"
#include "cli/text.h"

namespace zorv::cli {
namespace {

struct leave_args {
  std::string node;
  bool wait = false;
  bool yes = false;
};

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + printable(word);
  return text;
}

// Snaps of a filter, oldest instant first.
std::vector<zorv_info_req> snaps_of(session& s, std::uint32_t filter_minor) {
  std::vector<zorv_info_req> snaps;
  const zorv_info_req filter = node_info(s, filter_minor);
  for (std::uint32_t i = 0; i < std::min<std::uint32_t>(filter.snap_cnt, ZORV_LIST_LEN); ++i) {
    snaps.push_back(node_info(s, filter.snap_minors[i]));
  }
  return snaps;
}

// The older snaps that have to stop before this one stops, or go before it goes by itself.
std::vector<std::string> awaited(session& s, const zorv_info_req& snap) {
  std::vector<std::string> names;
  const auto filter = filter_of(s, snap.minor);
  if (!filter) return names;
  for (const zorv_info_req& other : snaps_of(s, *filter)) {
    if (other.minor == snap.minor) break;
    if (other.started != 0 || snap.del_pending != 0) names.push_back(field(other.name));
  }
  return names;
}

bool exists(const std::string& file) {
  struct stat st {};
  return ::lstat(file.c_str(), &st) == 0;
}

// What a filter keeps in its bitmap directory; of a snap nothing.
std::vector<std::string> bitmap_files(const zorv_info_req& node) {
  const std::string incr = field(node.incr_bmp_fname);
  if (node.dev_type != ZORV_DEV_FILTER) return {};
  const std::string stem = incr.substr(0, incr.rfind('.'));
  return {incr, field(node.diff_bmp_fname), stem + ".disk", stem + ".snaps"};
}

// The COW files that go with a node: its own, a filter's snaps'. Those that are there; a snap that
// was started has them, so that a folder in which everything hangs is not looked at.
std::vector<std::string> cow_files(session& s, const zorv_info_req& node) {
  const bool filter = node.dev_type == ZORV_DEV_FILTER;
  std::vector<std::string> files;
  for (const zorv_info_req& snap :
       filter ? snaps_of(s, node.minor) : std::vector<zorv_info_req>{node}) {
    const bool there = copied_bytes(s, snap.minor).has_value();
    for (const std::string& file : {field(snap.cow_bmp_fname), field(snap.cow_data_fname)}) {
      if (there || exists(file)) files.push_back(file);
    }
  }
  return files;
}

// A node whose bitmaps cannot be saved is stopped all the same, which the error does not say.
void carry_out(session& s, const zorv_info_req& node, std::uint32_t number) {
  zorv_node_req req{node.minor};
  try {
    s.command(number, &req);
  } catch (const failure& e) {
    const auto now = e.exit_status == status_refused ? still(s, node) : std::nullopt;
    if (!now || node.started == 0 || now->started != 0) throw;
    throw failure(e.exit_status, e.number, "stopped " + field(node.name) + ", but " + e.what());
  }
}

// Carries out the command and, if that was asked for, waits until it is done should it be
// postponed. A postponed deletion can be had as soon as the snap has stopped.
//   text  empty when it is done
answer leave(session& s, const leave_args& args, const zorv_info_req& node, std::uint32_t number) {
  carry_out(s, node, number);
  const bool del = number == ZORV_DEL_NODE;
  std::optional<zorv_info_req> now = still(s, node);
  const auto done = [&] { return !now || (!del && now->started == 0); };
  while (args.wait && !done()) {
    if (now->started == 0) {
      zorv_node_req req{node.minor};
      const int error = s.try_command(number, &req);
      if (error != 0 && error != EINVAL) s.check(-1, zorv_command_name(number));  // EINVAL: gone
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    now = still(s, node);
  }
  answer result{{{"minor", node.minor}, {"postponed", !done()}}, ""};
  if (done()) return result;
  const std::vector<std::string> awaits = awaited(s, *now);
  result.document["awaits"] = awaits;
  result.text =
      field(node.name) + " still serves older snaps; it is " +
      (del ? "deleted when these have been deleted: " : "stopped when these have stopped: ") +
      joined(awaits) + "\n";
  return result;
}

answer stop(session& s, const leave_args& args) {
  const zorv_info_req node = node_info(s, args.node);
  answer result = leave(s, args, node, ZORV_STOP_NODE);
  if (result.text.empty()) result.text = "stopped " + field(node.name) + "\n";
  return result;
}

std::string question(const zorv_info_req& node, const std::vector<std::string>& files) {
  const bool filter = node.dev_type == ZORV_DEV_FILTER;
  return std::string("Delete the ") + (filter ? "filter " : "snap ") + field(node.name) +
         " (minor " + std::to_string(node.minor) + ")" +
         (filter && node.snap_cnt != 0 ? ", all its snaps" : "") +
         (files.empty() ? "" : " and the COW files " + joined(files)) + "?";
}

answer del(session& s, const leave_args& args) {
  const zorv_info_req node = node_info(s, args.node);
  const std::vector<std::string> files = cow_files(s, node);
  if (!args.yes) ask(s, node, question(node, files), "nothing was deleted");
  answer result = leave(s, args, node, ZORV_DEL_NODE);
  if (!result.text.empty()) return result;
  std::vector<std::string> kept;
  std::vector<std::string> deleted;
  for (const std::string& file : files) {
    (exists(file) ? kept : deleted).push_back(file);
  }
  for (const std::string& file : bitmap_files(node)) {
    if (exists(file)) kept.push_back(file);
  }
  result.document["deleted_files"] = deleted;
  result.document["kept_files"] = kept;
  result.text = "deleted " + field(node.name) + "\n";
  if (!deleted.empty()) result.text += "files deleted: " + joined(deleted) + "\n";
  if (!kept.empty()) result.text += "files that stay: " + joined(kept) + "\n";
  return result;
}

}  // namespace

void add_leave_commands(CLI::App* app, invocation* inv) {
  const auto add = [&](const char* name, const char* help,
                       answer (*run)(session&, const leave_args&)) {
    auto args = std::make_shared<leave_args>();
    CLI::App* command =
        add_command(app, inv, name, help, [args, run](session& s) { return run(s, *args); });
    command->add_option("NODE", args->node, node_help)->required();
    command->add_flag("--wait", args->wait, "wait until it is done, should it be postponed");
    return std::pair(command, args);
  };
  add("stop", "stop a node that nobody has open", stop);
  const auto [command, args] =
      add("del", "remove a node; COW files are deleted with their snaps, bitmap files stay", del);
  command->add_flag("-y,--yes", args->yes, "do not ask at a terminal");
}

}  // namespace zorv::cli
