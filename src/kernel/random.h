// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <cstddef>

namespace kernel {

// Fills the buffer from the host's entropy source; does not fail.
void get_random_bytes(void* buffer, std::size_t bytes);

}  // namespace kernel
