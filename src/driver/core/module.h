// SPDX-License-Identifier: GPL-2.0-only
// Load and unload.
#pragma once

namespace zorv {

// 0, or the failing step's negative errno with every earlier step undone.
[[nodiscard]] int zorv_init();
[[nodiscard]] int zorv_block_init();
// Unload. A step that fails is logged and the later ones are still carried out.
//   returns  0 | the first failure
int zorv_cleanup();

}  // namespace zorv
