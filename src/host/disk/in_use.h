// SPDX-License-Identifier: GPL-2.0-only
// Who else works on a file or device without having locked it.
#pragma once

#include <string>

namespace zorv {

// Whether a loop device, or another process that this one may look at, has it open for writing:
// what they write would pass nobody who records it. Readers do no harm. Of what processes have open
// the names are compared, so that no other file system is asked anything; who opened it by another
// name is not seen.
//   fd       it, open
//   path     absolute, links resolved
//   returns  "" | who: "process 77 (dd)", "/dev/loop3"
[[nodiscard]] std::string writer_elsewhere(int fd, const std::string& path);

}  // namespace zorv
