// SPDX-License-Identifier: GPL-2.0-only
// The daemon's command line and configuration file.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace zorv {

struct disk_option {
  std::string image;
  std::string name;  // empty: chosen from the image's name
  bool read_only = false;
};

struct daemon_options {
  std::string run_dir;
  std::string state_dir;        // empty: none could be chosen
  unsigned stop_limit_s = 240;  // of the daemon's end, after which it ends as it is
  std::vector<disk_option> disks;
  std::vector<std::pair<std::string, std::string>> parameters;  // name, value
};

enum class parse_result { run, done, usage };

// Reads the command line. done: help or version was printed; usage: what is wrong was printed to
// standard error.
[[nodiscard]] parse_result parse_options(int argc, const char* const* argv, daemon_options* out);

// "IMAGE[,name=N][,read-only]": options are recognised at the end only, so an image's path may
// hold commas.
[[nodiscard]] disk_option parse_disk(const std::string& text);

}  // namespace zorv
