// SPDX-License-Identifier: GPL-2.0-only
// The record of the snaps that have missed no write. While a filter's record_due is set
// (driver/core/blkdev.h, under bmp_lock) its writes wait until the record has been changed.
#pragma once

namespace zorv {

struct zorv_filter;

// Brings the record on disk up to date and takes record_due back.
//   context  the filter's mark thread, or kdirtyd; may sleep; no lock held
//   returns  0 (also when the state folder stands in for it) | negative errno: it is tried again
int zorv_record_write(zorv_filter* f);
// The same without the record, which makes no progress: by the state folder alone.
//   context  a waiting write
//   returns  0 | negative errno: the writes that wait end with -EIO
int zorv_record_excuse(zorv_filter* f);

}  // namespace zorv
