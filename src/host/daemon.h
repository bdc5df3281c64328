// SPDX-License-Identifier: GPL-2.0-only
// The life of the daemon: load, serve, unload.
#pragma once

#include "host/options.h"

namespace zorv {

// Runs until SIGTERM, SIGINT, SIGHUP or SIGQUIT. To be called before any thread is started: the
// signals are blocked for all of them.
//   returns  the exit status: 0 | 1 (could not serve, or could not unload everything)
int run_daemon(const daemon_options& options);

}  // namespace zorv
