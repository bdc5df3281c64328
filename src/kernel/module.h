// SPDX-License-Identifier: GPL-2.0-only
// Module parameters and the module's reference count.
#pragma once

#include <string_view>

namespace kernel {

// One integer parameter. Registered by the driver as static objects; the host sets them by name
// before load and shows them.
struct module_param {
  module_param(const char* name, int* value, int default_value, const char* description);
  const char* name;
  int* value;
  int default_value;
  const char* description;
  module_param* next;
};
module_param* module_params();  // the first of all registered ones, linked by next

// Parses a decimal integer into the parameter.
//   returns  0 | -ENOENT (no such parameter) | -EINVAL (not a 32-bit decimal number)
[[nodiscard]] int module_param_set(std::string_view name, std::string_view text);

// Every open node holds a reference; the host does not unload while there is one.
void module_get();
void module_put();
[[nodiscard]] int module_refcount();

}  // namespace kernel
