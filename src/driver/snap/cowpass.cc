// SPDX-License-Identifier: GPL-2.0-only
// One pass over the COW queue, from its head to its tail: what can be served or sent on is, and
// the chunks that held writes wait for are collected into a group.
//
// The task is the queue's only consumer but for the reads that it has picked out, so a request
// stays where it is while the task works on it without the queue's lock. Whatever is appended
// meanwhile and overlaps it stands behind it.
//
// Progress: the head of the queue overlaps nothing earlier, so it is settled, or waits for a chunk
// that is on its way or becomes so as soon as the copying task is idle; a batch that is copied sets
// its bits or invalidates its snap.
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "driver/io/aio.h"
#include "driver/snap/cowwork.h"

namespace zorv {

namespace {

constexpr const char* op = "cow_worker";

enum class verdict {
  keep,        // stays for a later pass
  end_pass,    // stays, and so does everything behind it
  read_files,  // stays until the reading task has served it
  sent,        // its clone ends the bio
  ended,       // the bio ends with the code
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

kernel::bio* tracked_clone(zorv_filter* f, const cow_request* r) {
  kernel::bio* clone = zorv_aio_clone(&f->aio, r->bio, 1, kernel::GFP_NOIO);
  if (clone == nullptr) zorv_log(LOG_ERROR, "%s(): Failed to clone BIO", op);
  return clone;
}

decision send(zorv_filter* f, kernel::bio* clone) {
  clone->bi_bdev = f->hdd_bdev;
  kernel::generic_make_request(clone);
  return {verdict::sent};
}

decision forward(zorv_filter* f, const cow_request* r) {
  kernel::bio* clone = tracked_clone(f, r);
  return clone != nullptr ? send(f, clone) : decision{verdict::ended, -EIO};
}

// What has to happen before a write may go.
struct need {
  node_ref snap;       // empty: nothing
  u32 life = 0;        // of it
  s32 chunk = -1;      // the first chunk that is missing; -1: all are on their way
  bool more = false;   // that is not the only one
  bool later = false;  // it cannot be seen at the moment
};

need needs_of(node_ref ref, const cow_request* r) {
  need n;
  zorv_blkdev* snap = ref.get();
  if (snap == nullptr || !snap_usable(snap)) return n;
  // Who has the lock may hang in the files; this task waits for nothing that does.
  const rzread_try files(&snap->s.file_lock);
  if (!snap_usable(snap)) return n;  // stopped meanwhile
  n.later = !files;
  if (n.later) return n;
  const chunk_range range = chunks_of(r, snap->s.chunk_shift);
  bool missing = false;
  for (u64 c = range.first; c <= range.last && !n.more; ++c) {
    const chunk_state state = zorv_cowbmp_state(&snap->s.cowbmp, static_cast<s32>(c));
    if (state == chunk_state::copied) continue;
    missing = true;
    n.life = snap->s.life.load();
    if (state == chunk_state::on_its_way) continue;
    if (n.chunk >= 0) {
      n.more = true;
    } else {
      n.chunk = static_cast<s32>(c);
    }
  }
  if (missing) n.snap = std::move(ref);
  return n;
}

node_ref newest_started(const zorv_filter& f) {
  rzread_guard walk(&f.snaps_lock);
  zorv_blkdev* s = f.snaps.back();
  while (s != nullptr && s->started.load() == 0) s = f.snaps.prev_of(s->s.snap_link);
  return s != nullptr ? zorv_node_pin(s) : node_ref();
}

// What has to be copied before the write may go: for the snap it was queued for, and for the
// newest one, which may have started after the write was queued by a submitter that no freeze
// holds back. What the newest has serves all older ones.
need next_need(const zorv_filter* f, const cow_request* r, s32 snap_minor) {
  need n;
  if (snap_minor >= 0) n = needs_of(cow_find_snap(f, snap_minor), r);
  if (n.snap || n.later) return n;
  node_ref newest = newest_started(*f);
  if (newest && static_cast<s32>(newest->minor) != snap_minor) n = needs_of(std::move(newest), r);
  return n;
}

// A pass under way.
struct pass {
  cow_worker* w;
  cow_batch* batch;  // null: nothing is collected
  u32 copies;        // as of its start
  pass_result result;
};

// Puts the chunk on its way, in the life in which it was found missing.
//   returns  0 | -ESTALE (that life has ended) | -EAGAIN (its files are being closed) |
//            begin_copy's failure
int begin_copy(const need& n) {
  const rzread_try files(&n.snap->s.file_lock);
  if (!files) return -EAGAIN;
  if (n.snap->s.life.load() != n.life) return -ESTALE;
  return zorv_cowbmp_begin_copy(&n.snap->s.cowbmp, n.chunk, kernel::GFP_NOIO);
}

// Adds the chunk to the group, or invalidates its snap.
decision add_to_group(pass* p, const need& n) {
  cow_batch& b = *p->batch;
  if (b.count == 0) {
    b.life = n.life;
    // A chunk larger than a group is a group of its own, copied piece by piece.
    const u32 fits = group_bytes >> n.snap->s.chunk_shift;
    b.capacity = fits != 0 ? fits : 1;
  } else if (b.snap.get() != n.snap.get() || b.life != n.life) {
    return {verdict::end_pass};
  }
  const int rc = begin_copy(n);
  if (rc == -EAGAIN) {
    p->w->looks_again = true;
    return {verdict::keep};
  }
  if (rc != 0) p->w->filter->cowqueue.events.fetch_add(1);  // another pass looks anew
  if (rc == -ESTALE) return {verdict::keep};
  if (rc != 0) {
    // Its files are a copying task's business.
    zorv_snap_abandon(n.snap.get(), op);
    b.lost = true;
    if (b.count == 0) b.snap = n.snap.another();
    return {verdict::end_pass};
  }
  if (b.count == 0) b.snap = n.snap.another();
  b.chunks[b.count++] = n.chunk;
  if (n.more) ++p->result.more;
  return {b.count >= b.capacity ? verdict::end_pass : verdict::keep};
}

// Whether what goes without a copy has to wait for the record.
bool record_awaited(const zorv_filter* f) {
  return f->record.stale.load() || (f->marks_exposed.load() >> zorv_hold_record & 1) != 0;
}

// A snap has been stopped or lost since the write came, and would miss it. As in routing, there is
// an end to the wait.
decision await_record(cow_worker* w, cow_request* r) {
  zorv_filter* f = w->filter;
  zorv_record_wanted(f);
  const u64 now = kernel::jiffies();
  if (r->record_since == 0) r->record_since = now | 1;
  const u64 overdue = r->record_since + mark_wait_limit_jiffies;
  if (kernel::time_after_eq(now, overdue + mark_wait_limit_jiffies)) {
    zorv_marks_refuse(f);
    return {verdict::ended, -EIO};
  }
  if (kernel::time_after_eq(now, overdue)) zorv_marks_overdue(f);
  if ((f->marks_refused.load() >> zorv_hold_record & 1) != 0) return {verdict::ended, -EIO};
  w->looks_again = true;  // how long it has been
  return {verdict::keep};
}

decision decide_filter(pass* p, cow_request* r, s32 snap_minor) {
  zorv_filter* f = p->w->filter;
  if (!r->is_write) return forward(f, r);
  // First: a resume may end between this and the look at the snaps, which then finds it running.
  const bool stale = record_awaited(f);
  const need n = next_need(f, r, snap_minor);
  if (n.later) {
    p->w->looks_again = true;
    return {verdict::keep};
  }
  const bool free = !n.snap;
  if (free && (stale || record_awaited(f))) return await_record(p->w, r);
  if (free) return forward(f, r);
  if (p->batch == nullptr) {
    r->waits_since = p->copies;
    return {verdict::keep};
  }
  return n.chunk < 0 ? decision{verdict::keep} : add_to_group(p, n);
}

bool any_copied(const zorv_filter* f, zorv_blkdev* snap, const cow_request* r) {
  const chunk_range range = chunks_of(r, snap->s.chunk_shift);
  rzread_guard walk(&f->snaps_lock);
  for (zorv_blkdev* t = snap; t != nullptr; t = f->snaps.next_of(t->s.snap_link)) {
    if (!snap_usable(t)) continue;
    for (u64 c = range.first; c <= range.last; ++c) {
      if (snap_has_chunk(t, static_cast<s32>(c))) return true;
    }
  }
  return false;
}

decision decide_snap(zorv_filter* f, const cow_request* r, zorv_blkdev* snap) {
  if (!any_copied(f, snap, r)) {
    kernel::bio* clone = tracked_clone(f, r);
    if (clone == nullptr) return {verdict::ended, -EIO};
    // From here on no write to the range reaches the HDD before the read, so what is not copied
    // now is still there.
    const bool on_disk = !any_copied(f, snap, r);
    const bool valid = snap_readable(snap);  // after the look: it may have passed over a lost copy
    if (on_disk && valid) return send(f, clone);
    kernel::bio_put(clone);
    if (!valid) return {verdict::ended, -EIO};
  }
  return {verdict::read_files};
}

//   overlaps_earlier  a request before it in the queue touches its sectors
decision decide(pass* p, cow_request* r, s32 snap_minor, bool overlaps_earlier) {
  const zorv_filter* f = p->w->filter;
  if (kernel::major_of(r->dev) != static_cast<u32>(zorv_blk_major)) {
    zorv_log(LOG_ERROR, "%s(): Request to unknown block device in COW request queue", op);
    return {verdict::ended, -EIO};
  }
  const u32 minor = kernel::minor_of(r->dev);
  node_ref snap;
  if (minor != f->filter_minor) {
    snap = cow_find_snap(f, static_cast<s32>(minor));
    if (!snap) {
      zorv_log(LOG_ERROR, "%s(): Request to unknown zorv(%d, %d) in zorv(%d, %d) queue", op,
               zorv_blk_major, minor, zorv_blk_major, f->filter_minor);
      return {verdict::ended, -EIO};
    }
    if (!snap_readable(snap.get())) return {verdict::ended, -EIO};
  }
  if (overlaps_earlier) return {verdict::keep};
  return snap ? decide_snap(p->w->filter, r, snap.get()) : decide_filter(p, r, snap_minor);
}

}  // namespace

node_ref cow_find_snap(const zorv_filter* f, s32 minor) {
  node_ref dev = zorv_node_get(static_cast<u32>(minor));
  const bool ours =
      dev && dev->dev_type == ZORV_DEV_SNAP && dev->s.filter != nullptr && &dev->s.filter->f == f;
  return ours ? std::move(dev) : node_ref();
}

pass_result cow_pass(cow_worker* w, cow_batch* batch) {
  zorv_cowqueue& q = w->filter->cowqueue;
  pass p{w, batch, w->copies.load(), {}};
  bool wake_readers = false;
  const u32 group_start = batch != nullptr ? batch->count : 0;
  kernel::spin_lock(&q.lock);
  cow_request* r = q.reqs.front();
  while (r != nullptr) {
    const bool waits = batch == nullptr && r->waits_since == p.copies;
    if (waits || r->picked_out) {
      r = q.reqs.next_of(r->queue_link);
      continue;
    }
    const s32 snap_minor = r->snap_minor;
    const bool overlaps_earlier = zorv_cowqueue_overlaps_earlier(&q, r);
    kernel::spin_unlock(&q.lock);

    const decision d = decide(&p, r, snap_minor, overlaps_earlier);
    if (d.what == verdict::ended) kernel::bio_endio(r->bio, d.rc);
    if (d.what == verdict::sent) p.result.sent = true;

    kernel::spin_lock(&q.lock);
    if (d.what == verdict::end_pass) {
      p.result.ended_early = true;
      break;
    }
    cow_request* next = q.reqs.next_of(r->queue_link);
    if (d.what == verdict::read_files) {
      r->picked_out = true;
      w->reads.push_back(&r->read_link);
      w->nr_reads.fetch_add(1);
      wake_readers = true;
    } else if (d.what != verdict::keep) {
      zorv_cowqueue_remove(&q, r);
    }
    r = next;
  }
  kernel::spin_unlock(&q.lock);
  if (wake_readers) kernel::wake_up_all(&w->reads_wait);
  if (batch != nullptr && batch->count > group_start) {
    batch->group_end[batch->groups++] = batch->count;
  }
  return p.result;
}

}  // namespace zorv
