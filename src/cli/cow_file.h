// SPDX-License-Identifier: GPL-2.0-only
// What stands at a COW file's path before the daemon makes it its own.
#pragma once

#include <string>

namespace zorv::cli {

enum class cow_file {
  absent,   // or out of reach from here
  empty,    // nothing but holes: what an invalidation or an interrupted start leaves
  sealed,   // a snapshot's, which a resume may believe
  foreign,  // somebody's data, or no ordinary file
};

// Opens the file, so this can take as long as its folder does.
[[nodiscard]] cow_file look_at_cow_file(const std::string& path);

}  // namespace zorv::cli
