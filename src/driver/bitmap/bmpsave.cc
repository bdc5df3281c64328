// SPDX-License-Identifier: GPL-2.0-only
// Saving a change bitmap.
//
// The file says "stale" from the first step to the last one, so whatever fails and whenever the
// power goes, no old or half-written file looks current. What makes it current is one byte, written
// when everything else is on disk and only if the bitmap has not changed since it was copied. If
// bits were taken away since the last save, the writes that they stood for have to be on the HDD
// first: else a power cut takes the data and the file says that nothing has changed.
#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/bmpfile.h"
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "kernel/mem.h"
#include "kernel/state.h"

namespace zorv {

namespace {

constexpr const char* op = "zorv_block_save_bmp";

void put_le32(u8* to, u32 v) {
  for (int i = 0; i < 4; ++i) to[i] = static_cast<u8>(v >> 8 * i);
}

// One save on its way.
struct save {
  zorv_filter* f;
  u32 type;
  zorv_bmp_view bmp;
  u8* copy;
  u64 exchanges = 0;      // as they were when the copy was made
  bool sync_hdd = false;  // bits have gone since the last time
  u32 epoch = 0;          // the writes to wait for then
  kernel::file_id file;   // what the contents were written to
  zorv_state_key note{};  // empty: no note can be about the file
};

bool wait_for_writes(zorv_filter* f, u32 epoch) {
  kernel::bio_tally& writes = f->writes[epoch];
  writes.awaiting.fetch_add(1);
  const bool ended = kernel::wait_event_timeout(
      &writes.zero, [&writes] { return writes.under_way.load() == 0; }, mark_wait_limit_jiffies);
  writes.awaiting.fetch_sub(1);
  if (!ended) {
    zorv_log(LOG_ERROR, "%s(): Writes to zorv(%d, %d) do not end. Its bitmap stays unsaved.", op,
             zorv_blk_major, f->filter_minor);
  }
  return ended;
}

bool bits_have_gone(const zorv_filter* f, u32 type) REQUIRES(f->bmp_lock) {
  return f->marks[type].exchanges != f->marks[type].exchanges_stable;
}

// The other epoch's writes, left over from a save that has waited in vain, have ended before a new
// epoch begins.
int prepare(save* s) {
  zorv_filter* f = s->f;
  u32 epoch = 0;
  {
    kernel::spin_guard guard(&f->bmp_lock);
    s->sync_hdd = bits_have_gone(f, s->type);
    epoch = f->writes_epoch;
  }
  if (!s->sync_hdd) return 0;
  return wait_for_writes(f, epoch ^ 1) ? 0 : -EIO;
}

// Before a companion says anything new, no file beside it can be believed.
int renew_companion(zorv_filter* f) {
  if (f->companion.ours) return 0;
  for (u32 type = 0; type < 2; ++type) {
    int rc = bmpfile::follow_name(f, type, bmpfile::missing::fail);
    if (rc == 0) rc = bmpfile::write_stale(f, type);
    // None, or none that is ever opened or believed.
    if (rc != 0 && rc != -ENOENT && rc != -EINVAL && rc != -EEXIST) return rc;
  }
  return zorv_companion_renew(f);
}

//   returns  0 | -EAGAIN (bits have gone since the save began: what they stood for comes first)
int copy_bits(save* s) {
  zorv_filter* f = s->f;
  {
    marks_guard guard(f);
    if (!s->sync_hdd && bits_have_gone(f, s->type)) return -EAGAIN;
    s->bmp.dirty->store(0);
    f->holds[s->type].noted = false;
    s->exchanges = f->marks[s->type].exchanges;
    s->epoch = f->writes_epoch;
    if (s->sync_hdd) f->writes_epoch ^= 1;
  }
  zorv_bmp_copy_to_save(f, s->type, s->copy);
  return 0;
}

// The stale file, and the copy.
int begin(save* s) {
  zorv_filter* f = s->f;
  if (bmpfile::lives_on_node(s->bmp.fname)) {
    zorv_log(LOG_ERROR,
             "%s(): Can't save bitmap to %s. The file must be moved to a different partition.", op,
             s->bmp.fname);
    return -EINVAL;
  }
  int rc = renew_companion(f);
  if (rc == 0) rc = bmpfile::follow_name(f, s->type, bmpfile::missing::create);
  if (rc == 0) rc = bmpfile::write_stale(f, s->type);
  if (rc == -ENOENT) {
    zorv_log(LOG_ERROR, "%s(): Failed to make %s: its folder is missing", op, s->bmp.fname);
    rc = -EIO;
  }
  if (rc == 0) rc = copy_bits(s);
  s->file = f->marks[s->type].claim.id();
  return rc;
}

// Everything but the byte that makes the file current.
int write_contents(save* s) {
  zorv_filter* f = s->f;
  u8 numbers[bmpfile::bits_offset - bmpfile::size_offset];
  put_le32(numbers, s->bmp.size);
  put_le32(numbers + 4, bmpfile::crc_of(s->copy, s->bmp.size));
  zorv_file* file = f->marks[s->type].file;
  int rc = zorv_fwrite(file, bmpfile::size_offset, numbers, sizeof numbers);
  if (rc >= 0) rc = zorv_fwrite(file, bmpfile::bits_offset, s->copy, static_cast<int>(s->bmp.size));
  return rc < 0 ? rc : bmpfile::sync(f, s->type);
}

// What the bits that are gone stood for.
int settle_hdd(save* s) {
  if (!s->sync_hdd) return 0;
  if (!wait_for_writes(s->f, s->epoch)) return -EIO;
  rzmutex_got_on(&s->f->save_mutex);
  const int rc = kernel::fsync_bdev(s->f->hdd_bdev);
  if (rc != 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to sync %s: rc=%d. The bitmap of zorv(%d, %d) stays unsaved.",
             op, s->f->hdd_name, rc, zorv_blk_major, s->f->filter_minor);
    return rc;
  }
  kernel::spin_guard guard(&s->f->bmp_lock);
  s->f->marks[s->type].exchanges_stable = s->exchanges;
  return 0;
}

// Whether the copy is still all there is; from then on the file counts as current, and the next new
// bit waits for its mark.
bool still_the_same(save* s) {
  marks_guard guard(s->f);
  if (s->bmp.dirty->load() != 0) return false;
  s->f->marks[s->type].maybe_current = true;
  return true;
}

// The file on disk is current: what the state folder says of an earlier one goes. With neither of
// the file's mutexes held: where the state folder hangs the file can be marked all the same.
void forget_note(save* s) {
  zorv_filter* f = s->f;
  zorv_mark_state& m = f->marks[s->type];
  rzmutex_guard notes(&f->companion.note_mutex);  // a new one is not made before the old has gone
  {
    marks_guard guard(f);
    if (!m.excused || s->bmp.dirty->load() != 0) return;
    m.excused = false;  // from here on a new bit waits for its mark again
  }
  zorv_log(2, "%s(): Taking back the note about %s", op, s->bmp.fname);
  if (s->note.text[0] == '\0') return;
  if (const int rc = kernel::state_forget(s->note.text); rc != 0) {
    zorv_log(LOG_ERROR, "%s(): The note about %s can't be taken back: rc=%d", op, s->bmp.fname, rc);
  }
}

// A new file is there after a power cut only if its directory is synced too. Once per file is
// enough; a failure costs the file in a power cut, which then reads as "everything changed".
void sync_name(save* s) {
  zorv_mark_state& m = s->f->marks[s->type];
  if (m.name_synced) return;
  const int rc = kernel::fs_sync_parent(s->bmp.fname);
  m.name_synced = rc == 0;
  if (rc != 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to sync the directory of %s: rc=%d", op, s->bmp.fname, rc);
  }
}

int make_current(save* s) {
  zorv_filter* f = s->f;
  zorv_mark_state& m = f->marks[s->type];
  int rc = bmpfile::follow_name(f, s->type, bmpfile::missing::fail);
  if (rc != 0 || !(m.claim.id() == s->file)) {
    zorv_log(LOG_ERROR, "%s(): %s has been replaced while it was written", op, s->bmp.fname);
    return -EIO;
  }
  const u64 bytes = bmpfile::bits_offset + s->bmp.size;
  if (!still_the_same(s)) {
    (void)kernel::vfs_truncate(m.file->filp, bmpfile::size_offset);
    return 0;
  }
  const u8 current = 0;
  rc = 0;
  if (kernel::file_size(m.file->filp) != bytes) rc = kernel::vfs_truncate(m.file->filp, bytes);
  if (rc >= 0) rc = zorv_fwrite(m.file, bmpfile::dirty_offset, &current, 1);
  if (rc >= 0) rc = bmpfile::sync(f, s->type);
  if (rc < 0) return rc;
  sync_name(s);
  if (!bmpfile::note_key(f, s->type, &s->note)) s->note = {};
  return 0;
}

int run(save* s) {
  int rc = -EAGAIN;
  while (rc == -EAGAIN) {
    rc = prepare(s);
    if (rc != 0) return rc;
    rzmutex_got_on(&s->f->save_mutex);
    const rzmutex_hold alone(&s->f->marks[s->type].file_mutex, file_limit_jiffies, op);
    if (!alone) return -EIO;
    {
      const rzmutex_hold files(&s->f->bmp_mutex, file_limit_jiffies, op);
      if (!files) return -EIO;
      (void)zorv_kill_dirty_requests(s->f, s->type);
      rc = begin(s);
    }
    if (rc == 0) rc = write_contents(s);
  }
  if (rc == 0) rc = settle_hdd(s);
  if (rc != 0) return rc;
  {
    const rzmutex_hold files(&s->f->bmp_mutex, file_limit_jiffies, op);
    if (!files) return -EIO;
    rc = make_current(s);
  }
  if (rc == 0) forget_note(s);
  return rc;
}

}  // namespace

int zorv_block_save_bmp(zorv_filter* f, u32 type) {
  zorv_log(2, "%s(): Saving %s bitmap of zorv(%d, %d)", __func__, zorv_bmp_type_name(type),
           zorv_blk_major, f->filter_minor);
  const zorv_bmp_view bmp = zorv_bmp_of(f, type);
  const kernel::vbuf<u8> copy(static_cast<u8*>(kernel::vmalloc(bmp.size)));
  if (copy == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Failed to allocate %d bytes.", __func__, bmp.size);
    return -ENOMEM;
  }
  const rzmutex_hold one_at_a_time(&f->save_mutex, file_limit_jiffies, op);
  if (!one_at_a_time) return -EIO;
  rzmutex_got_on(&f->save_mutex);
  save s{f, type, bmp, copy.get()};
  const int rc = run(&s);
  {
    marks_guard guard(f);
    if (rc != 0) bmp.dirty->store(1);
    if (rc != 0) f->unsaved.store(true);
    f->holds[type].retrying = false;  // what failed before this save waits for no later try
  }
  // Marks that were cancelled for this save are queued anew if the file lacks their bits.
  zorv_marks_settle(f);
  return rc;
}

int zorv_block_await_writes(zorv_filter* f) {
  const rzmutex_hold one_at_a_time(&f->save_mutex, file_limit_jiffies, __func__);
  if (!one_at_a_time) return -EIO;
  u32 epoch = 0;
  {
    kernel::spin_guard guard(&f->bmp_lock);
    epoch = f->writes_epoch;
  }
  if (!wait_for_writes(f, epoch ^ 1)) return -EIO;
  rzmutex_got_on(&f->save_mutex);
  {
    kernel::spin_guard guard(&f->bmp_lock);
    f->writes_epoch ^= 1;
  }
  return wait_for_writes(f, epoch) ? 0 : -EIO;
}

int zorv_block_save_dirty_bmps(zorv_filter* f) {
  zorv_log(1, "%s(): Saving dirty incr/diff bitmaps to disk", __func__);
  const rzmutex_hold one_at_a_time(&f->save_mutex, file_limit_jiffies, __func__);
  f->unsaved.store(true);
  if (!one_at_a_time) return -EIO;
  int incr_rc = 0;
  int diff_rc = 0;
  if (f->incr_bmp_dirty.load() != 0) incr_rc = zorv_block_save_bmp(f, ZORV_BMP_INCREMENTAL);
  if (f->diff_bmp_dirty.load() != 0) diff_rc = zorv_block_save_bmp(f, ZORV_BMP_DIFFERENTIAL);
  const int rc = incr_rc != 0 ? incr_rc : diff_rc;
  f->unsaved.store(rc != 0);
  return rc;
}

}  // namespace zorv
