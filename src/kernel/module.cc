// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/module.h"

#include <atomic>
#include <cerrno>
#include <charconv>

namespace kernel {
namespace {

// Filled by constructors of static objects, before any thread runs.
constinit module_param* first = nullptr;
constinit module_param** tail = &first;
constinit std::atomic<int> references{0};

}  // namespace

module_param::module_param(const char* name_, int* value_, int default_value_,
                           const char* description_)
    : name(name_),
      value(value_),
      default_value(default_value_),
      description(description_),
      next(nullptr) {
  *value = default_value;
  *tail = this;
  tail = &next;
}

module_param* module_params() { return first; }

int module_param_set(std::string_view name, std::string_view text) {
  for (module_param* p = first; p != nullptr; p = p->next) {
    if (name != p->name) continue;
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return -EINVAL;
    *p->value = number;
    return 0;
  }
  return -ENOENT;
}

void module_get() { references.fetch_add(1); }
void module_put() { references.fetch_sub(1); }
int module_refcount() { return references.load(); }

}  // namespace kernel
