// SPDX-License-Identifier: GPL-2.0-only
// Requests to the host: what is zorvd's and not the driver's.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "host/control/server.h"

namespace zorv {

// Carries out ZORV_HOST_* `what`.
//   answer  what goes back on success
//   error   one sentence for a person on failure
//   returns 0 or more | -EBADMSG (arguments that are none), -ENOTTY (no such request), the
//           request's own errors
[[nodiscard]] int host_request(std::uint32_t what, std::string_view arguments,
                               const control_options& options, std::string* answer,
                               std::string* error);

}  // namespace zorv
