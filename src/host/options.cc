// SPDX-License-Identifier: GPL-2.0-only
#include "host/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <list>

#include "host/version.h"
#include "kernel/module.h"

namespace zorv {
namespace {

std::string default_run_dir() {
  const char* dir = std::getenv("XDG_RUNTIME_DIR");
  if (::geteuid() != 0 && dir != nullptr && *dir != '\0') return std::string(dir) + "/zorv";
  return "/run/zorv";
}

std::string default_state_dir() {
  if (::geteuid() == 0) return "/var/lib/zorv";
  const char* dir = std::getenv("XDG_STATE_HOME");
  if (dir != nullptr && *dir == '/') return std::string(dir) + "/zorv";
  const char* home = std::getenv("HOME");
  return home != nullptr && *home == '/' ? std::string(home) + "/.local/state/zorv" : "";
}

constexpr char description[] =
    "Serves disks through filter nodes that record every write, and snapshots of them.\n"
    "Nodes are made with zorvctl and opened as NBD exports on RUN-DIR/nbd.sock.";
constexpr char parameters_text[] = "parameters by name, e.g. zorv_debug=2";

// A parameter as NAME=VALUE.
bool split_parameter(const std::string& text, std::pair<std::string, std::string>* out) {
  const std::size_t at = text.find('=');
  if (at == std::string::npos || at == 0) return false;
  *out = {text.substr(0, at), text.substr(at + 1)};
  return true;
}

}  // namespace

disk_option parse_disk(const std::string& text) {
  static constexpr std::string_view read_only = "read-only";
  static constexpr std::string_view name = "name=";
  disk_option disk;
  disk.image = text;
  for (;;) {
    const std::size_t comma = disk.image.rfind(',');
    if (comma == std::string::npos) return disk;
    const std::string last = disk.image.substr(comma + 1);
    if (last == read_only) {
      disk.read_only = true;
    } else if (last.rfind(name, 0) == 0) {
      disk.name = last.substr(name.size());
    } else {
      return disk;
    }
    disk.image.resize(comma);
  }
}

parse_result parse_options(int argc, const char* const* argv, daemon_options* out) {
  CLI::App app(description, "zorvd");
  app.set_version_flag("--version", std::string("zorvd ") + version_text);
  app.set_config("--config", "", "read options from FILE (NAME=VALUE lines)")->type_name("FILE");
  app.allow_config_extras(CLI::config_extras_mode::error);
  out->run_dir = default_run_dir();
  app.add_option("--run-dir", out->run_dir, "directory of the sockets")
      ->type_name("DIR")
      ->capture_default_str();
  out->state_dir = default_state_dir();
  app.add_option("--state-dir", out->state_dir, "directory of what must outlive a reboot")
      ->type_name("DIR")
      ->capture_default_str();
  app.add_option("--stop-limit", out->stop_limit_s,
                 "seconds after which an end that hangs in a file or a disk is cut short")
      ->type_name("SECONDS")
      ->check(CLI::Range(1U, 1000000U))
      ->capture_default_str();
  std::vector<std::string> disks;
  app.add_option("--disk", disks, "attach an image file as /dev/image/NAME; may be repeated")
      ->type_name("IMAGE[,name=N][,read-only]")
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  // Parameters are words of their own on the command line, and plain keys in the file.
  std::list<std::pair<std::string, std::string>> from_file;
  for (const kernel::module_param* p = kernel::module_params(); p != nullptr; p = p->next) {
    from_file.emplace_back(p->name, "");
    app.add_option(std::string("--") + p->name, from_file.back().second, p->description)
        ->type_name("INT")
        ->default_str(std::to_string(p->default_value))
        ->group("Parameters");
  }
  std::vector<std::string> words;
  app.add_option("parameter", words, parameters_text)->type_name("NAME=VALUE");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? parse_result::done : parse_result::usage;
  }
  for (const std::string& disk : disks) {
    out->disks.push_back(parse_disk(disk));
    if (!out->disks.back().image.empty()) continue;
    std::cerr << "zorvd: --disk needs the path of an image or of a block device\n";
    return parse_result::usage;
  }
  for (const auto& p : from_file) {
    if (!p.second.empty()) out->parameters.push_back(p);
  }
  for (const std::string& word : words) {
    std::pair<std::string, std::string> p;
    if (!split_parameter(word, &p)) {
      std::cerr << "zorvd: " << word << " is no NAME=VALUE\n";
      return parse_result::usage;
    }
    out->parameters.push_back(p);
  }
  return parse_result::run;
}

}  // namespace zorv
