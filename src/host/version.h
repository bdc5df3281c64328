// SPDX-License-Identifier: GPL-2.0-only
#pragma once

namespace zorv {

#ifdef ZORV_VERSION
constexpr char version_text[] = ZORV_VERSION;
#else
constexpr char version_text[] = "unknown";
#endif

}  // namespace zorv
