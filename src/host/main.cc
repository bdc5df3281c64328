// SPDX-License-Identifier: GPL-2.0-only
#include <exception>

#include "host/daemon.h"
#include "host/log.h"

int main(int argc, char** argv) {
  try {
    zorv::daemon_options options;
    switch (zorv::parse_options(argc, argv, &options)) {
      case zorv::parse_result::done:
        return 0;
      case zorv::parse_result::usage:
        return 2;
      case zorv::parse_result::run:
        break;
    }
    return zorv::run_daemon(options);
  } catch (const std::exception& e) {
    zorv::host_log(zorv::log_level::error, e.what());
    return 1;
  }
}
