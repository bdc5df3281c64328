// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/claim.h"

#include <cstdio>
#include <cstring>

#include "kernel/lock.h"

namespace kernel {

namespace {

spinlock_t claims_lock;
list_of<file_claim> claims GUARDED_BY(claims_lock);

}  // namespace

void file_claim::reset() {
  spin_guard guard(&claims_lock);
  link_.unlink();
  id_ = {};
}

void file_claim::take(file_claim* from) {
  spin_guard guard(&claims_lock);
  if (!from->held()) return;
  link_.insert_after(&from->link_);
  from->link_.unlink();
  id_ = from->id_;
  std::memcpy(owner_, from->owner_, sizeof owner_);
  from->id_ = {};
}

int claim_file(const file_id& id, const char* owner, file_claim* out,
               char (*whose)[file_claim::owner_bytes]) {
  spin_guard guard(&claims_lock);
  for (const file_claim& c : claims) {
    if (&c == out || !(c.id_ == id)) continue;
    if (whose != nullptr) std::memcpy(*whose, c.owner_, sizeof c.owner_);
    return -EBUSY;
  }
  if (!out->link_.linked()) claims.push_back(&out->link_);
  out->id_ = id;
  std::snprintf(out->owner_, sizeof out->owner_, "%s", owner);
  return 0;
}

}  // namespace kernel
