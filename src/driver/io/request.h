// SPDX-License-Identifier: GPL-2.0-only
// The make-request function of every node.
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

// Routes one bio: passed on to the HDD, held in the filter's COW queue, or ended with an error.
//   context  may sleep; the submitting task
//   returns  0 always
int zorv_make_request(kernel::request_queue* q, kernel::bio* bio);

// Appends the bio to the filter's COW queue for its newest started snap.
[[nodiscard]] int queue_req(zorv_filter* f, kernel::bio* bio, gfp_t flags);

void zorv_unplug_filter(kernel::request_queue* q);
void zorv_unplug_snap(kernel::request_queue* q);

}  // namespace zorv
