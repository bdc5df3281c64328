// SPDX-License-Identifier: GPL-2.0-only
// One pass over the COW queue, from its head to its tail: what can be served or sent on is, and
// the chunks that held writes wait for are collected into a group.
//
// The thread is the queue's only consumer, so a request stays where it is while the thread works
// on it without the queue's lock. Whatever is appended meanwhile and overlaps it stands behind it.
//
// Progress: the head of the queue overlaps nothing earlier, so it is settled or puts a chunk into
// the group; a group that is copied sets its bits or invalidates its snap.
#include "driver/core/log.h"
#include "driver/io/aio.h"
#include "driver/snap/cowwork.h"

namespace zorv {

namespace {

constexpr const char* op = "cow_worker";

enum class verdict {
  keep,      // stays for a later pass
  end_pass,  // stays, and so does everything behind it
  sent,      // its clone ends the bio
  ended,     // the bio ends with the code
};

struct decision {
  verdict what;
  int rc = 0;
};

struct chunk_range {
  u64 first, last;
};
chunk_range chunks_of(const cow_request* r, u32 chunk_shift) {
  const u32 shift = chunk_shift - kernel::sector_shift;
  return {r->first_sector >> shift, r->last_sector >> shift};
}

decision forward(zorv_filter* f, const cow_request* r) {
  kernel::bio* clone = zorv_aio_clone(&f->aio, r->bio, 1, kernel::GFP_NOIO);
  if (clone == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to clone BIO", op);
    return {verdict::ended, -EIO};
  }
  clone->bi_bdev = f->hdd_bdev;
  kernel::generic_make_request(clone);
  return {verdict::sent};
}

// The first chunk of the write that the snap still needs; -1: none.
s32 first_missing(zorv_blkdev* snap, const cow_request* r) {
  if (!snap_usable(snap)) return -1;
  rzread_guard files(&snap->s.file_lock);
  if (!snap_usable(snap)) return -1;  // stopped meanwhile
  const chunk_range range = chunks_of(r, snap->s.chunk_shift);
  for (u64 c = range.first; c <= range.last; ++c) {
    if (zorv_cowbmp_test_bit(&snap->s.cowbmp, static_cast<s32>(c)) == 0) {
      return static_cast<s32>(c);
    }
  }
  return -1;
}

struct missing_chunk {
  zorv_blkdev* snap;  // null: nothing is missing
  s32 chunk;
};

// What has to be copied before the write may go: for the snap it was queued for, and for the
// newest one, which may have started after the write was queued by a submitter that no freeze
// holds back. What the newest has serves all older ones.
missing_chunk next_missing(const zorv_filter* f, const cow_request* r, s32 snap_minor)
    REQUIRES_SHARED(zorv_blkdev_rwlock) {
  zorv_blkdev* target = snap_minor < 0 ? nullptr : cow_find_snap(f, snap_minor);
  if (target != nullptr) {
    const s32 chunk = first_missing(target, r);
    if (chunk >= 0) return {target, chunk};
  }
  zorv_blkdev* newest = f->snaps.back();
  while (newest != nullptr && newest->started.load() == 0) {
    newest = f->snaps.prev_of(newest->s.snap_link);
  }
  if (newest != nullptr && newest != target) {
    const s32 chunk = first_missing(newest, r);
    if (chunk >= 0) return {newest, chunk};
  }
  return {nullptr, -1};
}

decision decide_filter(cow_worker* w, const cow_request* r, s32 snap_minor)
    REQUIRES_SHARED(zorv_blkdev_rwlock) {
  if (!r->is_write) return forward(w->filter, r);
  const missing_chunk m = next_missing(w->filter, r, snap_minor);
  if (m.snap == nullptr) return forward(w->filter, r);
  cow_group& g = w->group;
  if (g.count != 0 && g.snap != m.snap) return {verdict::end_pass};
  g.add(m.snap, m.chunk);
  return {g.full() ? verdict::end_pass : verdict::keep};
}

bool any_copied(const zorv_filter* f, zorv_blkdev* snap, const cow_request* r) {
  const chunk_range range = chunks_of(r, snap->s.chunk_shift);
  for (zorv_blkdev* t = snap; t != nullptr; t = f->snaps.next_of(t->s.snap_link)) {
    if (!snap_usable(t)) continue;
    for (u64 c = range.first; c <= range.last; ++c) {
      if (snap_has_chunk(t, static_cast<s32>(c))) return true;
    }
  }
  return false;
}

decision decide_snap(cow_worker* w, const cow_request* r, zorv_blkdev* snap)
    REQUIRES_SHARED(zorv_blkdev_rwlock) {
  if (!any_copied(w->filter, snap, r)) return forward(w->filter, r);
  return {verdict::ended, cow_serve_read(w, snap, r->bio)};
}

//   overlaps_earlier  a request before it in the queue touches its sectors
decision decide(cow_worker* w, const cow_request* r, s32 snap_minor, bool overlaps_earlier)
    REQUIRES_SHARED(zorv_blkdev_rwlock) {
  zorv_filter* f = w->filter;
  if (kernel::major_of(r->dev) != static_cast<u32>(zorv_blk_major)) {
    zorv_log(LOG_ERROR, "%s(): Request to unknown block device in COW request queue", op);
    return {verdict::ended, -EIO};
  }
  const u32 minor = kernel::minor_of(r->dev);
  zorv_blkdev* snap = nullptr;
  if (minor != f->filter_minor) {
    snap = cow_find_snap(f, static_cast<s32>(minor));
    if (snap == nullptr) {
      zorv_log(LOG_ERROR, "%s(): Request to unknown zorv(%d, %d) in zorv(%d, %d) queue", op,
               zorv_blk_major, minor, zorv_blk_major, f->filter_minor);
      return {verdict::ended, -EIO};
    }
    if (!snap_usable(snap) || snap->s.stop_pending.load() != 0) return {verdict::ended, -EIO};
  }
  if (overlaps_earlier) return {verdict::keep};
  return snap == nullptr ? decide_filter(w, r, snap_minor) : decide_snap(w, r, snap);
}

}  // namespace

void cow_group::reset() {
  snap = nullptr;
  capacity = 0;
  count = 0;
  std::memset(seen, 0xff, sizeof(seen));
}

void cow_group::add(zorv_blkdev* target, s32 chunk) {
  if (count == 0) {
    snap = target;
    // A chunk larger than a group is a group of its own, copied piece by piece.
    const u32 fits = group_bytes >> target->s.chunk_shift;
    capacity = fits != 0 ? fits : 1;
  }
  constexpr u32 slots = 2 * group_max_chunks;
  u32 at = static_cast<u32>(chunk) * 2654435761U % slots;
  while (seen[at] != -1) {
    if (seen[at] == chunk) return;
    at = (at + 1) % slots;
  }
  seen[at] = chunk;
  chunks[count++] = chunk;
}

zorv_blkdev* cow_find_snap(const zorv_filter* f, s32 minor) {
  zorv_blkdev* dev = zorv_blkdev_find(static_cast<u32>(minor));
  const bool ours = dev != nullptr && dev->dev_type == ZORV_DEV_SNAP && dev->s.filter != nullptr &&
                    &dev->s.filter->f == f;
  return ours ? dev : nullptr;
}

void cow_pass(cow_worker* w) {
  zorv_cowqueue& q = w->filter->cowqueue;
  w->group.reset();
  kernel::spin_lock(&q.lock);
  cow_request* r = q.reqs.front();
  while (r != nullptr) {
    const s32 snap_minor = r->snap_minor;
    const bool overlaps_earlier = zorv_cowqueue_overlaps_earlier(&q, r);
    kernel::spin_unlock(&q.lock);

    const decision d = decide(w, r, snap_minor, overlaps_earlier);
    if (d.what == verdict::ended) kernel::bio_endio(r->bio, d.rc);

    kernel::spin_lock(&q.lock);
    if (d.what == verdict::end_pass) break;
    cow_request* next = q.reqs.next_of(r->queue_link);
    if (d.what != verdict::keep) zorv_cowqueue_remove(&q, r);
    r = next;
  }
  kernel::spin_unlock(&q.lock);
}

}  // namespace zorv
