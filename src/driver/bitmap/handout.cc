// SPDX-License-Identifier: GPL-2.0-only
#include "driver/bitmap/handout.h"

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "kernel/mem.h"

namespace zorv {

namespace {

// A number is a count with the node's minor below it, so that no list of all hand-outs is needed.
constexpr u32 minor_bits = 20;
std::atomic<u64> handouts{0};
thread_local u64 last_handout = 0;

zorv_handout* find_locked(zorv_filter* f, u64 id) REQUIRES(f->bmp_lock) {
  for (zorv_handout& h : f->handouts) {
    if (h.id == id) return &h;
  }
  return nullptr;
}

zorv_handout* find(zorv_filter* f, u64 id) {
  kernel::spin_guard guard(&f->bmp_lock);
  return find_locked(f, id);
}

void forget(zorv_filter* f, zorv_handout* h) {
  {
    kernel::spin_guard guard(&f->bmp_lock);
    h->link.unlink();
  }
  kernel::kdelete(h);
}

template <class Settle>
void on_node_of(u64 id, Settle settle) {
  if (id == 0) return;
  const node_ref dev = zorv_node_get(static_cast<u32>(id & ((1U << minor_bits) - 1)));
  if (dev && dev->dev_type == ZORV_DEV_FILTER) settle(&dev->f);
}

}  // namespace

zorv_handout::~zorv_handout() { kernel::vfree(bits); }

u64 zorv_handout_last() { return last_handout; }
void zorv_handout_forget_last() { last_handout = 0; }

void zorv_handout_add(zorv_filter* f, zorv_handout* h) {
  h->id = (handouts.fetch_add(1) + 1) << minor_bits | f->filter_minor;
  f->handouts.push_back(&h->link);
}

void zorv_handout_publish(u64 id) { last_handout = id; }

void zorv_handout_confirm(u64 id) {
  on_node_of(id, [id](zorv_filter* f) {
    zorv_handout* h = find(f, id);
    if (h == nullptr) return;
    const u32 type = h->type;
    forget(f, h);
    // The file still shows them as changed, which loses nothing: a failure of this save may stay.
    (void)zorv_block_save_bmp(f, type);
  });
}

void zorv_handout_return(u64 id) {
  on_node_of(id, [id](zorv_filter* f) { zorv_handout_merge_back(f, id); });
}

// In the bitmap before they are off the list: a save in between writes them twice, not never.
void zorv_handout_merge_back(zorv_filter* f, u64 id) {
  zorv_handout* h = find(f, id);
  if (h == nullptr) return;
  zorv_bmp_merge(f, h->type, h->bits);
  forget(f, h);
  (void)zorv_block_save_dirty_bmps(f);
}

void zorv_handout_forget(zorv_filter* f, u64 id) {
  zorv_handout* h = find(f, id);
  if (h == nullptr) return;
  const u32 type = h->type;
  forget(f, h);
  marks_guard guard(f);
  zorv_bmp_of(f, type).dirty->store(1);
}

void zorv_handout_drop_all(zorv_filter* f) {
  while (zorv_handout* h = f->handouts.front()) forget(f, h);
}

}  // namespace zorv
