// SPDX-License-Identifier: GPL-2.0-only
// Reads of a snap whose data lies, wholly or partly, in COW data files.
//
// A read is cut at chunk borders; each piece comes from the first snap, from the one that is read
// towards the newest, that has the chunk, else from the HDD. Neighbouring pieces of one source are
// read together: from the HDD in one bio, from a file as far as their memory adjoins.
#include <algorithm>

#include "driver/core/log.h"
#include "driver/io/aio.h"
#include "driver/snap/cowfiles.h"
#include "driver/snap/cowwork.h"

namespace zorv {

namespace {

struct wait_state {
  kernel::completion done;
};

void read_from_hdd_complete(kernel::bio* bio, int) {
  kernel::complete(&static_cast<wait_state*>(bio->bi_private)->done);
}

// A tracked clone of the bio, or the bio itself where there is none; its end completes the state.
kernel::bio* track(zorv_filter* f, kernel::bio* bio, wait_state* state) {
  kernel::init_completion(&state->done);
  bio->bi_private = state;
  bio->bi_end_io = read_from_hdd_complete;
  kernel::bio* clone = zorv_aio_clone(&f->aio, bio, 1, kernel::GFP_NOIO);
  return clone != nullptr ? clone : bio;
}

void send_and_wait(zorv_filter* f, kernel::bio* bio, wait_state* state) {
  kernel::submit_bio(kernel::READ, bio);
  kernel::blk_unplug(kernel::bdev_get_queue(f->hdd_bdev));
  kernel::wait_for_completion(&state->done);
}

zorv_blkdev* source_locked(const zorv_filter* f, zorv_blkdev* snap, s32 chunk)
    REQUIRES_SHARED(f->snaps_lock) {
  for (zorv_blkdev* t = snap; t != nullptr; t = f->snaps.next_of(t->s.snap_link)) {
    if (snap_has_chunk(t, chunk)) return t;
  }
  return nullptr;
}

// The snap that has the chunk as the given one shows it; empty: the HDD has it.
node_ref source_of(const zorv_filter* f, zorv_blkdev* snap, s32 chunk) {
  rzread_guard walk(&f->snaps_lock);
  for (;;) {
    zorv_blkdev* source = source_locked(f, snap, chunk);
    if (source == nullptr) return {};
    node_ref ref = zorv_node_pin(source);
    if (ref) return ref;  // else it has been stopped since, and has nothing any more
  }
}
bool on_hdd(const zorv_filter* f, zorv_blkdev* snap, s32 chunk) {
  rzread_guard walk(&f->snaps_lock);
  return source_locked(f, snap, chunk) == nullptr;
}

// Adjacent pieces from one source.
struct piece_run {
  node_ref source;  // empty: the HDD
  sector_t sector = 0;
  u32 bytes = 0;             // 0: nothing collected
  std::byte* to = nullptr;   // a file's run: its memory
  std::byte* end = nullptr;  // and where that would go on
};

// A read under way.
struct snap_read {
  cow_reader* reader;
  zorv_blkdev* snap;
  piece_run run;
};

//   returns  0 | -EIO | -EAGAIN (some of it has been copied since it was looked up)
int read_run_from_hdd(const snap_read& r) {
  zorv_filter* f = r.reader->worker->filter;
  kernel::bio* bio = &r.reader->bio;
  wait_state state;
  bio->bi_sector = r.run.sector;
  bio->bi_bdev = f->hdd_bdev;
  kernel::bio* clone = track(f, bio, &state);
  // The range is ours now: what is still not copied is still there.
  const u32 shift = r.snap->s.chunk_shift - kernel::sector_shift;
  const u64 last = (r.run.sector + kernel::bio_sectors(bio) - 1) >> shift;
  for (u64 c = r.run.sector >> shift; c <= last; ++c) {
    if (on_hdd(f, r.snap, static_cast<s32>(c))) continue;
    if (clone != bio) kernel::bio_put(clone);
    return -EAGAIN;
  }
  send_and_wait(f, clone, &state);
  if (bio->bi_uptodate.load()) return 0;
  zorv_log(LOG_ERROR, "%s(): Failed to read %d bytes starting from sector %d from device (%d, %d)",
           "read_from_hdd", r.run.bytes, static_cast<s32>(r.run.sector),
           kernel::major_of(f->hdd_dev), kernel::minor_of(f->hdd_dev));
  return -EIO;
}

constexpr int left_behind = -ESTALE;

// Does something that may hang in the source's files and touches nothing of the request.
//   returns  0 | left_behind: the request is not ours any more
template <class Work>
int at_files(cow_reader* r, zorv_blkdev* source, Work work) {
  {
    kernel::spin_guard guard(&r->hand);
    r->source = source;
    r->file_since = kernel::jiffies() | 1;
  }
  work();
  kernel::spin_guard guard(&r->hand);
  r->file_since = 0;
  r->source = nullptr;
  if (!r->left.load()) return 0;
  r->left.store(false);
  r->worker->reading.fetch_add(1);
  r->worker->filter->cow_left.fetch_sub(1);
  source->s.left.fetch_sub(1);
  return left_behind;
}

//   returns  0 | -EIO | left_behind
int read_pieces(cow_reader* r, const piece_run& run) {
  zorv_blkdev* source = run.source.get();
  u64 offset = run.sector << kernel::sector_shift;
  for (u32 done = 0; done < run.bytes;) {
    const auto want = static_cast<int>(std::min(run.bytes - done, bounce_bytes));
    int n = zorv_fread_at_hand(source->s.cow_data_file, offset, run.to + done, want);
    if (n < 0) return -EIO;
    if (n == 0) {
      const int rc = at_files(
          r, source, [&] { n = zorv_fread(source->s.cow_data_file, offset, r->bounce, want); });
      if (rc != 0) return rc;
      if (n != want) return -EIO;
      std::memcpy(run.to + done, r->bounce, static_cast<std::size_t>(n));
    }
    done += static_cast<u32>(n);
    offset += static_cast<u32>(n);
  }
  return 0;
}

int read_run_from_file(cow_reader* r, const piece_run& run) {
  zorv_blkdev* source = run.source.get();
  zorv_snap& s = source->s;
  // A stop that finds the reader left behind leaves the files open, and asks for no lock.
  s.in_copy.fetch_add(1);
  scope_exit out([&s] { s.in_copy.fetch_sub(1); });
  bool whole = false;
  int rc;
  {
    const rzread_try files(&s.file_lock);
    // Gone since the chunk was looked up: the snap has been stopped or has become invalid.
    if (!files || !snap_usable(source) || s.cow_data_file == nullptr) return -EIO;
    rc = read_pieces(r, run);
    if (rc == left_behind) return rc;
    if (at_files(r, source, [&] { whole = zorv_cowfiles_whole(s); }) != 0) return left_behind;
  }
  // A snap that became invalid meanwhile may have been emptied under the read.
  if (!snap_usable(source)) return -EIO;
  if (!whole) {  // somebody has cut a file
    const int after = at_files(r, source, [&] { zorv_snap_invalidate(source, "read_cowed_page"); });
    return after != 0 ? after : -EIO;
  }
  return rc;
}

int flush(snap_read* r) {
  if (r->run.bytes == 0) return 0;
  const int rc = r->run.source ? read_run_from_file(r->reader, r->run) : read_run_from_hdd(*r);
  r->run.bytes = 0;
  return rc;
}

// Whether the piece continues the run.
bool goes_on(const snap_read& r, const node_ref& source, const std::byte* memory) {
  if (r.run.source.get() != source.get()) return false;
  return source ? r.run.end == memory : r.reader->bio.bi_vcnt < kernel::bio_max_segments;
}

// Appends the piece to the run, reading what was collected where it does not go on.
int collect(snap_read* r, const node_ref& source, sector_t sector, const kernel::bio_vec& seg,
            u32 offset, u32 length) {
  std::byte* memory = kernel::page_address(seg.bv_page) + seg.bv_offset + offset;
  if (r->run.bytes != 0 && !goes_on(*r, source, memory)) {
    const int rc = flush(r);
    if (rc != 0) return rc;
  }
  kernel::bio* bio = &r->reader->bio;
  if (r->run.bytes == 0) {
    r->run.source = source.another();
    r->run.sector = sector;
    r->run.to = memory;
    if (!source) kernel::bio_init(bio, r->reader->vecs, kernel::bio_max_segments);
  }
  if (!source) {
    (void)kernel::bio_add_page(bio, seg.bv_page, length, seg.bv_offset + offset);
  }
  r->run.bytes += length;
  r->run.end = memory + length;
  return 0;
}

// One try; -EAGAIN as above.
int serve_once(cow_reader* reader, zorv_blkdev* snap, kernel::bio* bio) {
  const u32 shift = snap->s.chunk_shift - kernel::sector_shift;
  sector_t sector = bio->bi_sector;
  snap_read r{reader, snap, {}};
  s32 chunk = -1;
  node_ref source;
  for (; bio->bi_idx < bio->bi_vcnt; ++bio->bi_idx) {
    const kernel::bio_vec& seg = bio->bi_io_vec[bio->bi_idx];
    for (u32 offset = 0; offset < seg.bv_len;) {
      const u64 piece_chunk = sector >> shift;
      if (static_cast<s32>(piece_chunk) != chunk) {
        chunk = static_cast<s32>(piece_chunk);
        source = source_of(reader->worker->filter, snap, chunk);
      }
      const u64 to_border = (((piece_chunk + 1) << shift) - sector) << kernel::sector_shift;
      const u32 rest = seg.bv_len - offset;
      const u32 length = to_border < rest ? static_cast<u32>(to_border) : rest;
      const int rc = collect(&r, source, sector, seg, offset, length);
      if (rc != 0) return rc;
      offset += length;
      sector += length >> kernel::sector_shift;
    }
  }
  return flush(&r);
}

}  // namespace

int cow_read_and_wait(zorv_filter* f, kernel::bio* bio) {
  wait_state state;
  send_and_wait(f, track(f, bio, &state), &state);
  return bio->bi_uptodate.load() ? 0 : -EIO;
}

namespace {

//   returns  0 | -EIO
int serve(cow_reader* reader, const cow_request* r) {
  const auto minor = static_cast<s32>(kernel::minor_of(r->dev));
  const node_ref snap = cow_find_snap(reader->worker->filter, minor);
  if (!snap || !snap_readable(snap.get())) return -EIO;  // stopped since it was picked out
  const u16 first_segment = r->bio->bi_idx;
  int rc;
  do {  // every repetition has seen another chunk copied
    r->bio->bi_idx = first_segment;
    rc = serve_once(reader, snap.get(), r->bio);
  } while (rc == -EAGAIN);
  // What a newer snap has lost since then was taken from the disk, too late perhaps.
  return rc == 0 && !snap_readable(snap.get()) ? -EIO : rc;
}

}  // namespace

cow_request* cow_take_read(cow_worker* w) {
  kernel::spin_guard guard(&w->filter->cowqueue.lock);
  cow_request* r = w->reads.front();
  if (r == nullptr) return nullptr;
  r->read_link.unlink();
  w->nr_reads.fetch_sub(1);
  return r;
}

void cow_serve_read(cow_reader* reader) {
  cow_request* r = cow_take_read(reader->worker);
  if (r == nullptr) return;
  {
    kernel::spin_guard guard(&reader->hand);
    reader->serving = r;
  }
  reader->worker->reading.fetch_add(1);
  const int rc = serve(reader, r);
  reader->worker->reading.fetch_sub(1);
  if (rc == left_behind) return;
  cow_end_read(reader->worker, r, rc);
}

void cow_end_read(cow_worker* w, cow_request* r, int rc) {
  zorv_cowqueue& q = w->filter->cowqueue;
  kernel::bio_endio(r->bio, rc);
  bool wake;
  {
    kernel::spin_guard guard(&q.lock);
    wake = zorv_cowqueue_overlaps_other(&q, r);
    zorv_cowqueue_remove(&q, r);
  }
  if (wake) {
    q.events.fetch_add(1);
    kernel::wake_up_all(&q.wait);
  } else if (q.cnt.load() == 0) {
    kernel::wake_up_all(&q.wait);  // whoever waits for the drain
  }
}

}  // namespace zorv
