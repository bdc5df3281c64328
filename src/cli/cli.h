// SPDX-License-Identifier: GPL-2.0-only
// What the commands of zorvctl share: the connection, the way to answer, the way to fail.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "zorv/client.h"

namespace CLI {
class App;
}

namespace zorv::cli {

using json = nlohmann::ordered_json;

enum status { status_done = 0, status_refused = 1, status_usage = 2, status_no_daemon = 3 };

// Ends the command. The error is a positive errno, 0 when none applies.
class failure : public std::runtime_error {
 public:
  failure(status ends_with, int error, const std::string& text)
      : std::runtime_error(text), exit_status(ends_with), number(error) {}
  status exit_status;
  int number;
};

// A connection to the daemon. Failing calls throw.
class session {
 public:
  // socket    empty: the default one
  // limit_ms  how long the daemon may say nothing, 0: as long as it likes
  session(const std::string& socket, unsigned limit_ms);

  template <class Record>
  void command(std::uint32_t number, Record* record) {
    check(zorv_ioctl(handle_.get(), number, record), zorv_command_name(number));
  }
  // The same for who has something to do before failing: 0 or a positive errno.
  template <class Record>
  [[nodiscard]] int try_command(std::uint32_t number, Record* record) {
    return zorv_ioctl(handle_.get(), number, record) == 0 ? 0 : errno;
  }
  // What went wrong although the last command succeeded, or "".
  [[nodiscard]] std::string remark() const { return zorv_last_remark(handle_.get()); }
  // Throws for a negative result, with the daemon's reason.
  void check(long result, const char* what) const;
  [[nodiscard]] zorv_handle* handle() const { return handle_.get(); }

 private:
  struct closer {
    void operator()(zorv_handle* handle) const { zorv_close(handle); }
  };
  std::unique_ptr<zorv_handle, closer> handle_;
};

// What a command hands back: one JSON document and a text for people, of which one is printed.
struct answer {
  json document = json::object();
  std::string text;
  status ends_with = status_done;
  // What is left to do when it is printed, or cannot be: the latter's sentence is part of the
  // reason.
  std::function<void()> delivered = {};
  std::function<std::string()> undelivered = {};
};

struct invocation {
  bool as_json = false;
  std::string socket;
  unsigned limit_s = 10;
  std::string command;                     // "bmp show", for messages
  std::function<answer(session&)> action;  // set by the chosen command
};

// Each adds its commands to the application.
void add_node_commands(CLI::App* app, invocation* inv);
void add_leave_commands(CLI::App* app, invocation* inv);
void add_show_commands(CLI::App* app, invocation* inv);
void add_bitmap_commands(CLI::App* app, invocation* inv);
void add_datablock_commands(CLI::App* app, invocation* inv);
void add_host_commands(CLI::App* app, invocation* inv);

// A subcommand whose parsing chooses action.
CLI::App* add_command(CLI::App* parent, invocation* inv, const std::string& name,
                      const std::string& help, std::function<answer(session&)> action);

// Runs one command line; returns the exit status.
int run(int argc, const char* const* argv);

}  // namespace zorv::cli
