// SPDX-License-Identifier: GPL-2.0-only
#include "cli/cli.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <limits>
#include <string_view>

#include "cli/bitmap_file.h"
#include "cli/text.h"

namespace zorv::cli {
namespace {

constexpr char footer[] =
    "NODE is a node's name, or its minor as :MINOR or --minor N. Digits alone mean a minor\n"
    "only if no node has that name. SIZE is a number of bytes, or one with K, M, G or T\n"
    "behind it (powers of 1024).\n"
    "Exit status: 0 done, 1 refused, 2 wrong usage, 3 no daemon.";

// "EBUSY", or the number itself where it has no name.
std::string errno_name(int number) {
  const char* name = ::strerrorname_np(number);
  return name != nullptr ? name : std::to_string(number);
}

std::string dump(const json& document) {
  return document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

int report(const invocation& inv, const failure& e) {
  const std::string where = inv.command.empty() ? "" : inv.command + ": ";
  if (inv.as_json) {
    json error = {{"status", static_cast<int>(e.exit_status)}, {"message", e.what()}};
    if (!inv.command.empty()) error["command"] = inv.command;
    if (e.number != 0) {
      error["errno"] = e.number;
      error["errno_name"] = errno_name(e.number);
    }
    std::cout << dump({{"error", error}}) << std::flush;
  }
  if (!inv.as_json || !std::cout) {
    std::cerr << "zorvctl: " << where << printable(e.what());
    if (e.number != 0) std::cerr << " (" << errno_name(e.number) << ", " << e.number << ")";
    std::cerr << "\n";
  }
  return e.exit_status;
}

// Throws unless what was printed to standard output has arrived there, on disk if it must be.
void finish_output(bool durable, const std::function<std::string()>& undelivered) {
  std::cout << std::flush;
  int number = 0;
  if (!std::cout) {
    number = errno != 0 ? errno : EIO;
  } else if (durable) {
    number = sync_output(STDOUT_FILENO);
  }
  if (number == 0) return;
  std::cout.setstate(std::ios::badbit);  // the error goes elsewhere
  throw failure(status_refused, number,
                "cannot write to standard output" + (undelivered ? undelivered() : ""));
}

// Help goes to standard output whatever --json says: it is what was asked for.
int report_parse(const CLI::App& app, invocation inv, const CLI::ParseError& e, int argc,
                 const char* const* argv) {
  if (e.get_exit_code() == 0) {
    inv.as_json = false;
    errno = 0;
    app.exit(e);
    try {
      finish_output(false, {});
    } catch (const failure& unread) {
      return report(inv, unread);
    }
    return status_done;
  }
  for (int i = 1; i < argc; ++i) inv.as_json = inv.as_json || std::strcmp(argv[i], "--json") == 0;
  report(inv, failure(status_usage, 0, e.what()));
  if (!inv.as_json) std::cerr << "Try zorvctl --help.\n";
  return status_usage;
}

// What is wrong after the answer was printed is no second document.
int deliver(invocation inv, const answer& printed) {
  try {
    if (printed.delivered) printed.delivered();
    return printed.ends_with;
  } catch (const failure& e) {
    inv.as_json = false;
    return report(inv, e);
  }
}

int run_action(const invocation& inv) {
  try {
    session s(inv.socket, inv.limit_s * 1000);
    const answer result = inv.action(s);
    errno = 0;
    std::cout << (inv.as_json ? dump(result.document) : result.text);
    finish_output(result.delivered != nullptr, result.undelivered);
    return deliver(inv, result);
  } catch (const failure& e) {
    return report(inv, e);
  } catch (const std::exception& e) {
    return report(inv, failure(status_refused, 0, e.what()));
  }
}

}  // namespace

session::session(const std::string& socket, unsigned limit_ms) {
  char path[ZORV_PATH_LEN] = {};
  if (!socket.empty()) {
    socket.copy(path, sizeof path - 1);
  } else if (zorv_default_socket(path, sizeof path) != 0) {
    throw failure(status_no_daemon, errno, "the default socket's path is too long");
  }
  handle_.reset(zorv_open_within(path, limit_ms));
  if (handle_ == nullptr) {
    throw failure(status_no_daemon, errno, std::string("no zorvd answers on ") + path);
  }
}

void session::check(long result, const char* what) const {
  if (result >= 0) return;
  const int number = errno;
  if (number == ECONNRESET || number == ECONNREFUSED) {
    throw failure(status_no_daemon, number, "zorvd went away");
  }
  if (number == ETIMEDOUT && zorv_last_error(handle_.get())[0] == '\0') {
    throw failure(
        status_no_daemon, number,
        "zorvd is there but does not answer; whether the command is carried out is not known");
  }
  std::string text = zorv_last_error(handle_.get());
  if (text.empty()) text = std::string(what) + ": " + std::strerror(number);
  throw failure(status_refused, number, text);
}

CLI::App* add_command(CLI::App* parent, invocation* inv, const std::string& name,
                      const std::string& help, std::function<answer(session&)> action) {
  CLI::App* command = parent->add_subcommand(name, help);
  const std::string prefix = parent->get_parent() == nullptr ? "" : parent->get_name() + " ";
  command->callback([=, action = std::move(action)] {
    inv->command = prefix + name;
    inv->action = action;
  });
  return command;
}

// The arguments with ":N" where NODE belongs for each "--minor N" of a command on a node. Of the
// commands that make nodes it is an option. Behind "--" nothing is one.
std::vector<std::string> arguments(int argc, const char* const* argv) {
  std::vector<std::string> all(argv, argv + argc);
  const auto end = static_cast<std::size_t>(std::find(all.begin(), all.end(), "--") - all.begin());
  const auto word_from = [&all, end](std::size_t at) {
    for (; at < end && all[at].rfind('-', 0) == 0; ++at) {
      if (all[at] == "--socket" || all[at] == "--limit") ++at;
    }
    return std::min(at, end);
  };
  std::size_t place = word_from(1);
  if (place == end || all[place].rfind("add-", 0) == 0) return all;
  if (all[place] == "bmp" || all[place] == "datablock") place = word_from(place + 1);
  for (std::size_t i = place + 1; i < end; ++i) {
    static constexpr std::string_view option = "--minor=";
    const bool apart = all[i] == option.substr(0, option.size() - 1) && i + 1 < end;
    if (!apart && all[i].rfind(option, 0) != 0) continue;
    const std::string node = ":" + (apart ? all[i + 1] : all[i].substr(option.size()));
    all.erase(all.begin() + static_cast<long>(i),
              all.begin() + static_cast<long>(i + (apart ? 2 : 1)));
    all.insert(all.begin() + static_cast<long>(place) + 1, node);
    break;
  }
  return all;
}

int run(int argc, const char* const* argv) {
  std::signal(SIGPIPE, SIG_IGN);
  // What is closed must not become the daemon's socket: its number gets something that refuses.
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) < 0) (void)::open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY);
  }
  invocation inv;
  CLI::App app("Controls zorvd: disks, filter and snapshot nodes, change bitmaps.", "zorvctl");
  app.set_version_flag("--version", std::string("zorvctl ") + ZORV_VERSION);
  app.add_option("--socket", inv.socket, "the daemon's control socket")->type_name("PATH");
  app.add_option("--limit", inv.limit_s,
                 "seconds that a zorvd which does not answer is waited for, 0: without end")
      ->type_name("SECONDS")
      ->check(CLI::Range(0U, std::numeric_limits<unsigned>::max() / 1000))
      ->capture_default_str();
  app.add_flag("--json", inv.as_json, "answer with one JSON document, errors too");
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(footer);
  add_host_commands(&app, &inv);
  add_node_commands(&app, &inv);
  add_leave_commands(&app, &inv);
  add_show_commands(&app, &inv);
  add_bitmap_commands(&app, &inv);
  add_datablock_commands(&app, &inv);
  try {
    std::vector<std::string> given = arguments(argc, argv);
    std::reverse(given.begin() + 1, given.end());
    given.erase(given.begin());
    app.parse(std::move(given));
  } catch (const CLI::ParseError& e) {
    return report_parse(app, inv, e, argc, argv);
  }
  return run_action(inv);
}

}  // namespace zorv::cli
