// SPDX-License-Identifier: GPL-2.0-only
// Copying a batch of chunks from the HDD into a snap's COW data file.
//
// The order is what a power cut may not break: data, sync, bits, sync. Only then do the chunks stop
// being on their way, and writes to them find them copied. Whatever fails makes the snap and the
// older ones invalid; the writes then go without them.
//
// The last chunk may reach beyond the end of the HDD. What the HDD does not have is not read; the
// file is as long as all chunks and reads as zero there.
#include <algorithm>

#include "driver/core/log.h"
#include "driver/io/aio.h"
#include "driver/snap/cowfiles.h"
#include "driver/snap/cowwork.h"
#include "driver/snap/snap.h"

namespace zorv {

namespace {

constexpr u32 page_sectors = kernel::page_size >> kernel::sector_shift;

// Finds out where pages [first, first + count) of the batch lie; count at most group_pages.
void locate_pages(cow_copier* c, const zorv_snap& snap, u64 first, u32 count) {
  const u64 pages_per_chunk = snap.chunk_size / kernel::page_size;
  const u64 end = c->worker->filter->dev_size >> kernel::sector_shift;
  for (u32 k = 0; k < count; ++k) {
    const u64 page = first + k;
    const auto chunk = static_cast<u64>(c->batch.chunks[page / pages_per_chunk]);
    const u64 sector = (chunk << (snap.chunk_shift - kernel::sector_shift)) +
                       page_sectors * (page % pages_per_chunk);
    const u64 there = sector < end ? std::min<u64>(end - sector, page_sectors) : 0;
    c->sectors[k] = sector;
    c->lengths[k] = static_cast<u32>(there << kernel::sector_shift);
  }
}

// Pages from k on that lie behind each other on the HDD, as far as one bio carries them.
u32 run_length(const cow_copier* c, u32 k, u32 count) {
  if (c->lengths[k] == 0) return 1;
  u32 n = 1;
  while (k + n < count && n < kernel::bio_max_segments && c->lengths[k + n] != 0 &&
         c->sectors[k + n] == c->sectors[k] + u64{n} * page_sectors) {
    ++n;
  }
  return n;
}

void fill_bio(cow_copier* c, u32 k, u32 pages) {
  kernel::bio* b = &c->bios[k];
  kernel::bio_init(b, &c->vecs[k], static_cast<u16>(pages));
  b->bi_sector = c->sectors[k];
  b->bi_bdev = c->worker->filter->hdd_bdev;
  b->bi_uptodate.store(true);
  for (u32 i = k; i < k + pages; ++i) {
    (void)kernel::bio_add_page(b, kernel::page_at(c->pages + u64{i} * kernel::page_size),
                               c->lengths[i], 0);
  }
}

void log_bad_block(const zorv_filter* f, sector_t sector) {
  zorv_log(LOG_ERROR, "%s(): Failed to read %d-byte block #%d from %s", "cow_chunks",
           kernel::page_size, static_cast<s32>(sector / page_sectors), f->hdd_name);
}

// Names the first block of a run that could not be read as one, or the run's first when all of it
// can be read now. The run is halved: what a bad disk takes its time over is read eight times, not
// once for every block.
void report_bad_run(cow_copier* c, u32 k, u32 pages) {
  while (pages > 1) {
    const u32 half = pages / 2;
    fill_bio(c, k, half);
    if (cow_read_and_wait(c->worker->filter, &c->bios[k]) == 0) {
      k += half;
      pages -= half;
    } else {
      pages = half;
    }
  }
  log_bad_block(c->worker->filter, c->sectors[k]);
}

// Pages that are read and written together, small enough for the second copy to find them in the
// processor's cache.
struct piece {
  u32 first = 0;
  u32 end = 0;
  std::atomic<u32> left{1};  // bios in flight, and their submitter
  kernel::completion done;
};
constexpr u32 piece_pages = 64;
constexpr u32 max_pieces = group_pages / piece_pages;

void zorv_end_cow_read_sync(kernel::bio* bio, int) {
  auto* p = static_cast<piece*>(bio->bi_private);
  if (p->left.fetch_sub(1) == 1) kernel::complete(&p->done);
}

// Sends the reads of a piece.
//   returns  true when all of them have ended already
bool begin_reads(cow_copier* c, piece* p) {
  zorv_filter* f = c->worker->filter;
  kernel::init_completion(&p->done);
  for (u32 k = p->first, n; k < p->end; k += n) {
    n = run_length(c, k, p->end);
    if (c->lengths[k] == 0) continue;
    fill_bio(c, k, n);
    c->bios[k].bi_private = p;
    c->bios[k].bi_end_io = zorv_end_cow_read_sync;
    p->left.fetch_add(1);
    kernel::bio* clone = zorv_aio_clone(&f->aio, &c->bios[k], 1, kernel::GFP_NOIO);
    kernel::submit_bio(kernel::READ, clone != nullptr ? clone : &c->bios[k]);
  }
  kernel::blk_unplug(kernel::bdev_get_queue(f->hdd_bdev));
  return p->left.fetch_sub(1) == 1;
}

//   returns  0 | -EIO (logged)
int check_reads(cow_copier* c, const piece& p) {
  int rc = 0;
  for (u32 k = p.first, n; k < p.end; k += n) {
    n = run_length(c, k, p.end);
    if (c->lengths[k] == 0 || c->bios[k].bi_uptodate.load()) continue;
    report_bad_run(c, k, n);
    rc = -EIO;
  }
  return rc;
}

// While one lives the task is at a file, which may hang.
class file_work {
 public:
  explicit file_work(cow_copier* c) : c_(c) { c->file_since.store(kernel::jiffies() | 1); }
  ~file_work() { c_->file_since.store(0); }
  file_work(const file_work&) = delete;
  file_work& operator=(const file_work&) = delete;

 private:
  cow_copier* c_;
};

void give_up(cow_copier* c, zorv_blkdev* t, const char* op) {
  const file_work at_files(c);
  if (snap_usable(t)) zorv_snap_invalidate(t, op);
}

// Begins to write the pages to where they lie on the HDD, adjacent ones at once.
void begin_writes(cow_copier* c, zorv_blkdev* t, const piece& p) {
  const file_work at_files(c);
  for (u32 k = p.first, n; k < p.end && snap_usable(t); k += n) {
    n = run_length(c, k, p.end);
    u32 bytes = 0;
    for (u32 i = k; i < k + n; ++i) bytes += c->lengths[i];
    if (bytes == 0) continue;
    zorv_fwrite_begin(c->writes, t->s.cow_data_file, c->sectors[k] << kernel::sector_shift,
                      c->pages + u64{k} * kernel::page_size, static_cast<int>(bytes));
  }
}

// Copies located pages. What the host has cached is on its way to the file as soon as it is read;
// the rest is read all at once.
void copy_slice(cow_copier* c, zorv_blkdev* t, u32 count) {
  // An invalidation that this task does not see now waits for it before it empties the file.
  std::atomic<u32>& writing = c->worker->filter->cow_writing;
  writing.fetch_add(1);
  scope_exit written([&writing] { writing.fetch_sub(1); });
  if (!snap_usable(t)) return;
  piece pieces[max_pieces];
  piece* in_flight[max_pieces];
  u32 nr_in_flight = 0;
  int read_rc = 0;
  const auto finish = [&](const piece& p) {
    if (check_reads(c, p) != 0) read_rc = -EIO;
    if (read_rc == 0) begin_writes(c, t, p);
  };
  for (u32 i = 0, first = 0; first < count && read_rc == 0; ++i, first += piece_pages) {
    piece* p = &pieces[i];
    p->first = first;
    p->end = std::min(first + piece_pages, count);
    if (begin_reads(c, p)) {
      finish(*p);
    } else {
      in_flight[nr_in_flight++] = p;
    }
  }
  for (u32 i = 0; i < nr_in_flight; ++i) {
    kernel::wait_for_completion(&in_flight[i]->done);
    finish(*in_flight[i]);
  }
  int write_rc;
  {
    const file_work at_files(c);
    write_rc = zorv_fwrite_end(c->writes, t->s.cow_data_file);
  }
  written.cancel();
  writing.fetch_sub(1);
  if (read_rc != 0) give_up(c, t, "cow_chunks");
  if (write_rc != 0) give_up(c, t, "write_cowed_page");
}

// A sync that fails may have lost what it was for. So has one of a file that was deleted, with its
// directory perhaps: nobody finds it after a restart.
int sync_file(cow_copier* c, zorv_file* file) {
  if (file == nullptr) return 0;
  const file_work at_files(c);
  const int rc = kernel::file_linked(file->filp) ? zorv_fsync(file) : -ENOENT;
  if (rc != 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to sync %s: rc=%d", "cow_chunks", file->fname, rc);
  }
  return rc;
}

bool files_whole(cow_copier* c, const zorv_snap& s) {
  const file_work at_files(c);
  return zorv_cowfiles_whole(s);
}

int mark_chunks_cowed(cow_copier* c, zorv_blkdev* t, const cow_batch& b) {
  const file_work at_files(c);
  rzmutex_guard one_at_a_time(&t->s.bits_lock);
  for (u32 i = 0; i < b.count && snap_usable(t); ++i) {
    const int rc =
        zorv_cowbmp_set_bit(&t->s.cowbmp, b.chunks[i], kernel::GFP_NOIO, t->s.cow_bmp_file);
    if (rc != 0) return rc;
  }
  return 0;
}

}  // namespace

namespace {

void disown(zorv_blkdev* snap) {
  if (snap->started.load() == 0) return;
  const rzread_try files(&snap->s.file_lock);
  if (files) zorv_snap_disown_files(snap);
}

}  // namespace

void zorv_snap_abandon(zorv_blkdev* snap, const char* op) {
  zorv_filter& f = snap->s.filter->f;
  // First: a write that finds the snap invalid waits until the record on disk says so too.
  (void)zorv_record_lost(&f, snap->s.life_id);
  {
    // The oldest first: a read that takes a newer snap for one without the chunk, because that is
    // invalid, finds its own snap invalid when it looks again before it ends.
    rzread_guard walk(&f.snaps_lock);
    for (zorv_blkdev* s = f.snaps.front(); s != nullptr; s = f.snaps.next_of(s->s.snap_link)) {
      if (s->started.load() != 0) {
        zorv_log(1, "%s(): Invalidating snap device zorv(%d, %d)", op, zorv_blk_major,
                 s->s.snap_minor);
        s->s.snap_valid.store(0);
      }
      if (s == snap) break;
    }
  }
}

void zorv_snap_invalidate(zorv_blkdev* snap, const char* op) {
  zorv_snap_abandon(snap, op);
  zorv_snap_drop_copies(snap);
}

void zorv_snap_drop_copies(zorv_blkdev* snap) {
  zorv_filter& f = snap->s.filter->f;
  // What is being written would make an emptied file long again.
  while (f.cow_writing.load() != 0 && f.cow_left.load() == 0) kernel::yield();
  if (f.cow_left.load() != 0) return;
  disown(snap);
  for (node_ref s = zorv_snap_older(f, snap); s; s = zorv_snap_older(f, s.get())) disown(s.get());
}

namespace {

// Reads and writes all pages of the batch.
void copy_pages(cow_copier* c, zorv_blkdev* t) {
  const u64 pages = u64{c->batch.count} * (t->s.chunk_size / kernel::page_size);
  for (u64 first = 0; first < pages && snap_usable(t); first += group_pages) {
    const auto count = static_cast<u32>(std::min<u64>(pages - first, group_pages));
    locate_pages(c, t->s, first, count);
    copy_slice(c, t, count);
  }
}

void log_groups(const cow_copier* c, const zorv_snap& s) {
  const cow_batch& b = c->batch;
  for (u32 g = 0, start = 0; g < b.groups; start = b.group_end[g++]) {
    const u32 chunks = b.group_end[g] - start;
    zorv_log(2, "%s(): COWing %d chunks (%d pages), snap_minor=%d, queue_cnt=%d", "cow_chunks",
             chunks, static_cast<s32>(u64{chunks} * (s.chunk_size / kernel::page_size)),
             s.snap_minor, c->worker->filter->cowqueue.cnt.load());
  }
}

}  // namespace

namespace {

void copy_batch(cow_copier* c, zorv_blkdev* t) {
  cow_batch& b = c->batch;
  // Its files stay open; a stop waits here. Taken, it has been stopped, and who does may hang.
  const rzread_try files(&t->s.file_lock);
  if (!files || !snap_usable(t) || t->s.life.load() != b.life) return;
  log_groups(c, t->s);
  std::sort(b.chunks, b.chunks + b.count);

  copy_pages(c, t);
  if (!snap_usable(t)) return;
  if (sync_file(c, t->s.cow_data_file) != 0 || !files_whole(c, t->s)) {
    give_up(c, t, "cow_chunks");
    return;
  }
  if (mark_chunks_cowed(c, t, b) != 0) give_up(c, t, "mark_chunk_cowed");
  if (snap_usable(t) && sync_file(c, t->s.cow_bmp_file) != 0) give_up(c, t, "cow_chunks");
  if (!snap_usable(t)) return;
  for (u32 i = 0; i < b.count; ++i) zorv_cowbmp_end_copy(&t->s.cowbmp, b.chunks[i]);
}

}  // namespace

void cow_chunks(cow_copier* c) {
  zorv_blkdev* t = c->batch.snap.get();
  if (!c->batch.lost && !snap_usable(t)) return;
  t->s.in_copy.fetch_add(1);
  if (c->batch.lost) {
    const file_work at_files(c);
    zorv_snap_drop_copies(t);
  } else {
    copy_batch(c, t);
  }
  t->s.in_copy.fetch_sub(1);
}

}  // namespace zorv
