// SPDX-License-Identifier: GPL-2.0-only
#include "driver/snap/record.h"

#include "driver/bitmap/dirty.h"

namespace zorv {

int zorv_record_write(zorv_filter* f) {
  marks_guard guard(f);
  f->record_due = false;
  return 0;
}

int zorv_record_excuse(zorv_filter* f) { return zorv_record_write(f); }

}  // namespace zorv
