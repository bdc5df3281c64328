// SPDX-License-Identifier: GPL-2.0-only
// Reads of a snap whose data lies, wholly or partly, in COW data files.
//
// A read is cut at chunk borders; each piece comes from the first snap, from the one that is read
// towards the newest, that has the chunk, else from the HDD. Neighbouring pieces of one source are
// read together: from the HDD in one bio, from a file as far as their memory adjoins.
#include "driver/core/log.h"
#include "driver/io/aio.h"
#include "driver/snap/cowwork.h"

namespace zorv {

namespace {

struct wait_state {
  kernel::completion done;
};

void read_from_hdd_complete(kernel::bio* bio, int) {
  kernel::complete(&static_cast<wait_state*>(bio->bi_private)->done);
}

// Adjacent pieces from one source.
struct piece_run {
  zorv_blkdev* source = nullptr;  // null: the HDD
  sector_t sector = 0;
  u32 bytes = 0;             // 0: nothing collected
  std::byte* end = nullptr;  // where the memory of a file's run goes on
  std::byte* to = nullptr;   // a file's run
};

int read_run_from_hdd(cow_worker* w, const piece_run& run) {
  zorv_filter* f = w->filter;
  w->read_bio.bi_sector = run.sector;
  w->read_bio.bi_bdev = f->hdd_bdev;
  if (cow_read_and_wait(f, &w->read_bio) == 0) return 0;
  zorv_log(LOG_ERROR, "%s(): Failed to read %d bytes starting from sector %d from device (%d, %d)",
           "read_from_hdd", run.bytes, static_cast<s32>(run.sector), kernel::major_of(f->hdd_dev),
           kernel::minor_of(f->hdd_dev));
  return -EIO;
}

int read_run_from_file(const piece_run& run) {
  zorv_snap& s = run.source->s;
  rzread_guard files(&s.file_lock);
  // Gone since the chunk was looked up: the snap has been stopped or has become invalid.
  if (!snap_usable(run.source) || s.cow_data_file == nullptr) return -EIO;
  const int bytes = static_cast<int>(run.bytes);
  const int rc = zorv_fread(s.cow_data_file, run.sector << kernel::sector_shift, run.to, bytes);
  return rc == bytes ? 0 : -EIO;
}

int flush(cow_worker* w, piece_run* run) {
  if (run->bytes == 0) return 0;
  const int rc = run->source == nullptr ? read_run_from_hdd(w, *run) : read_run_from_file(*run);
  run->bytes = 0;
  return rc;
}

// Appends the piece to the run, reading what was collected where it does not go on.
int collect(cow_worker* w, piece_run* run, zorv_blkdev* source, sector_t sector,
            const kernel::bio_vec& seg, u32 offset, u32 length) {
  std::byte* memory = kernel::page_address(seg.bv_page) + seg.bv_offset + offset;
  if (run->bytes != 0) {
    bool goes_on = run->source == source;
    if (goes_on && source == nullptr) goes_on = w->read_bio.bi_vcnt < kernel::bio_max_segments;
    if (goes_on && source != nullptr) goes_on = run->end == memory;
    if (!goes_on) {
      const int rc = flush(w, run);
      if (rc != 0) return rc;
    }
  }
  if (run->bytes == 0) {
    run->source = source;
    run->sector = sector;
    run->to = memory;
    if (source == nullptr) kernel::bio_init(&w->read_bio, w->read_vecs, kernel::bio_max_segments);
  }
  if (source == nullptr) {
    (void)kernel::bio_add_page(&w->read_bio, seg.bv_page, length, seg.bv_offset + offset);
  }
  run->bytes += length;
  run->end = memory + length;
  return 0;
}

zorv_blkdev* source_of(const zorv_filter* f, zorv_blkdev* snap, s32 chunk) {
  for (zorv_blkdev* t = snap; t != nullptr; t = f->snaps.next_of(t->s.snap_link)) {
    if (snap_has_chunk(t, chunk)) return t;
  }
  return nullptr;
}

}  // namespace

int cow_read_and_wait(zorv_filter* f, kernel::bio* bio) {
  wait_state state;
  kernel::init_completion(&state.done);
  bio->bi_private = &state;
  bio->bi_end_io = read_from_hdd_complete;
  kernel::bio* clone = zorv_aio_clone(&f->aio, bio, 1, kernel::GFP_NOIO);
  kernel::submit_bio(kernel::READ, clone != nullptr ? clone : bio);
  kernel::blk_unplug(kernel::bdev_get_queue(f->hdd_bdev));
  kernel::wait_for_completion(&state.done);
  return bio->bi_uptodate.load() ? 0 : -EIO;
}

int cow_serve_read(cow_worker* w, zorv_blkdev* snap, kernel::bio* bio) {
  const u32 shift = snap->s.chunk_shift - kernel::sector_shift;
  sector_t sector = bio->bi_sector;
  piece_run run;
  s32 chunk = -1;
  zorv_blkdev* source = nullptr;
  for (; bio->bi_idx < bio->bi_vcnt; ++bio->bi_idx) {
    const kernel::bio_vec& seg = bio->bi_io_vec[bio->bi_idx];
    for (u32 offset = 0; offset < seg.bv_len;) {
      const u64 piece_chunk = sector >> shift;
      if (static_cast<s32>(piece_chunk) != chunk) {
        chunk = static_cast<s32>(piece_chunk);
        source = source_of(w->filter, snap, chunk);
      }
      const u64 to_border = (((piece_chunk + 1) << shift) - sector) << kernel::sector_shift;
      const u32 rest = seg.bv_len - offset;
      const u32 length = to_border < rest ? static_cast<u32>(to_border) : rest;
      const int rc = collect(w, &run, source, sector, seg, offset, length);
      if (rc != 0) return rc;
      offset += length;
      sector += length >> kernel::sector_shift;
    }
  }
  return flush(w, &run);
}

}  // namespace zorv
