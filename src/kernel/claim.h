// SPDX-License-Identifier: GPL-2.0-only
// Which files of the host are somebody's in this process: attached images, bitmap files and what
// stands beside them, COW files (those of stopped snaps too), dumps. Whoever is about to change a
// file claims it first, by what was opened and never by a name.
#pragma once

#include "kernel/fs.h"
#include "kernel/list.h"

namespace kernel {

// A claim lives as long as this object; movable, so that it can be handed to a record.
class [[nodiscard]] file_claim {
 public:
  static constexpr std::size_t owner_bytes = 96;

  file_claim() = default;
  ~file_claim() { reset(); }
  file_claim(file_claim&& o) noexcept { take(&o); }
  file_claim& operator=(file_claim&& o) noexcept {
    reset();
    take(&o);
    return *this;
  }
  void reset();
  [[nodiscard]] bool held() const { return id_.valid(); }
  [[nodiscard]] const file_id& id() const { return id_; }

 private:
  friend int claim_file(const file_id&, const char*, file_claim*, char (*)[owner_bytes]);
  void take(file_claim* from);

  list_node<file_claim> link_{this};  // among all claims
  file_id id_;
  char owner_[owner_bytes] = {};
};

// Claims the file; what `out` held before is given back. A claim of the same file that `out` holds
// already stays.
//   owner    for the message of whoever comes second: "zorv(100, 3)'s COW data file"
//   whose    filled with the holder's text when -EBUSY is returned; may be null
//   returns  0 | -EBUSY (claimed already; out is unchanged)
//   context  any; takes a spin lock of its own
[[nodiscard]] int claim_file(const file_id& id, const char* owner, file_claim* out,
                             char (*whose)[file_claim::owner_bytes] = nullptr);

}  // namespace kernel
