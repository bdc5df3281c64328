// SPDX-License-Identifier: GPL-2.0-only
#include "driver/snap/cowfiles.h"

#include "driver/bitmap/bitmap.h"
#include "driver/core/log.h"
#include "kernel/mem.h"
#include "kernel/random.h"

namespace zorv {

namespace {

constexpr const char* start_op = "zorv_block_start_device";

constexpr char seal_magic[8] = {'Z', 'O', 'R', 'V', 'C', 'O', 'W', 0};
constexpr u32 seal_version = 1;
enum seal_of : u32 { seal_of_data = 1, seal_of_bits = 2 };

// Little-endian, packed.
struct seal_disk {
  char magic[8];
  u32 version;
  u32 which;  // seal_of
  u8 life_id[snap_id_bytes];
  u64 dev_size;  // bytes
  u32 chunk_size;
  u8 reserved[20];
  char disk[kernel::bdev_identity_bytes];  // NUL-padded
  u64 ino;                                 // of the file itself: a copy of it is another file
  s64 birth_ns;                            // 0 where the host's file system keeps none
  u8 unused[2988];
  u32 crc;  // of everything before it, as in a bitmap file
};
static_assert(sizeof(seal_disk) == cowfile_seal_bytes && offsetof(seal_disk, disk) == 64);
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

u32 crc_of(const seal_disk& seal) {
  u32 crc = 0xFFFFFFFF;
  zorv_crc32(&seal, offsetof(seal_disk, crc), &crc);
  return crc;
}

zorv_file* file_of(const zorv_snap& s, u32 which) {
  return which == seal_of_data ? s.cow_data_file : s.cow_bmp_file;
}

bool is_seal(const seal_disk& s) {
  return std::memcmp(s.magic, seal_magic, sizeof seal_magic) == 0 && s.version == seal_version &&
         s.crc == crc_of(s);
}

// Whether nothing is lost with the file but a snapshot: it is empty, or has a seal.
bool is_cow_file(zorv_file* file) {
  const u64 bytes = kernel::file_size(file->filp);
  if (bytes == 0) return true;
  if (bytes < sizeof(seal_disk)) return false;
  const kernel::kbuf<seal_disk> seal(
      static_cast<seal_disk*>(kernel::kmalloc(sizeof(seal_disk), kernel::GFP_KERNEL)));
  constexpr int seal_bytes = sizeof(seal_disk);
  return seal != nullptr &&
         zorv_fread(file, bytes - seal_bytes, seal.get(), seal_bytes) == seal_bytes &&
         is_seal(*seal.get());
}

// Everything of the seal but the life's id.
//   returns  0 | negative errno
int describe(const zorv_snap& s, u32 which, seal_disk* seal) {
  std::memset(seal, 0, sizeof *seal);
  std::memcpy(seal->magic, seal_magic, sizeof seal_magic);
  seal->version = seal_version;
  seal->which = which;
  seal->dev_size = s.filter->f.dev_size;
  seal->chunk_size = s.chunk_size;
  copy_text(seal->disk, s.filter->f.disk_identity);
  kernel::file_id id;
  const int rc = kernel::file_identity(file_of(s, which)->filp, &id);
  seal->ino = id.ino;
  seal->birth_ns = id.birth_ns;
  return rc;
}

u64 contents_bytes(const zorv_snap& s, u32 which) {
  return which == seal_of_data ? s.cow_data_size : s.cow_bmp_size;
}

enum class when_missing { fail, make };

struct cow_name {
  u32 which;
  const char* what;
  const char* path;
  kernel::file_claim* claim;
  zorv_file** file;
};
cow_name data_of(zorv_snap& s) {
  return {seal_of_data, "COW data", s.cow_data_fname, &s.data_claim, &s.cow_data_file};
}
cow_name bits_of(zorv_snap& s) {
  return {seal_of_bits, "COW bitmap", s.cow_bmp_fname, &s.bmp_claim, &s.cow_bmp_file};
}

int open_claimed(const zorv_blkdev* snap, const cow_name& n, u32 flags, kernel::file_claim* claim,
                 zorv_file** out) {
  char owner[kernel::file_claim::owner_bytes];
  std::snprintf(owner, sizeof owner, "zorv(%d, %u)'s %s file", zorv_blk_major, snap->minor, n.what);
  return zorv_fopen_own(n.path, flags | kernel::FO_RDWR | kernel::FO_LARGEFILE, owner,
                        file_lock::exclusive, claim, out);
}

// Opens one of the files as the snap's own. A claim from an earlier life stays on the file that it
// was made for until another has been had.
int open_own(zorv_blkdev* snap, const cow_name& n, when_missing missing) {
  kernel::file_claim fresh;
  kernel::file_id there;
  const bool known =
      n.claim->held() && kernel::path_identity(n.path, &there) == 0 && there == n.claim->id();
  int rc = open_claimed(snap, n, 0, known ? n.claim : &fresh, n.file);
  if (rc == -ENOENT && missing == when_missing::make) {
    rc = open_claimed(snap, n, kernel::FO_CREAT | kernel::FO_EXCL, &fresh, n.file);
    if (rc == 0) snap->s.files_made |= n.which;
  }
  if (rc == 0 && fresh.held()) {
    *n.claim = std::move(fresh);
    snap->s.files_claimed |= n.which;
    snap->s.files_sealed &= ~n.which;
  }
  if (rc == -ENOENT) zorv_log(LOG_ERROR, "%s(): There is no file %s", "zorv_fopen_own", n.path);
  return rc == 0 || rc == -EINVAL || rc == -EBUSY || rc == -ENOMEM ? rc : -EIO;
}

int open_both(zorv_blkdev* snap, when_missing missing) {
  snap->s.files_made = snap->s.files_claimed = 0;
  const int rc = open_own(snap, data_of(snap->s), missing);
  return rc != 0 ? rc : open_own(snap, bits_of(snap->s), missing);
}

bool same_path(const char (&a)[ZORV_PATH_LEN], const char (&b)[ZORV_PATH_LEN]) {
  return std::strncmp(a, b, ZORV_PATH_LEN) == 0;
}

int failed(const zorv_file* file, const char* what, int rc) {
  zorv_log(LOG_ERROR, "%s(): Failed to %s %s: rc=%d", start_op, what, file->fname, rc);
  return -EIO;
}

// Both files emptied, the data file first, each durably before anything else is done.
int make_void(const zorv_snap& s) {
  for (const u32 which : {seal_of_data, seal_of_bits}) {
    zorv_file* file = file_of(s, which);
    int rc = kernel::vfs_empty(file->filp);
    if (rc != 0) return failed(file, "empty", rc);
    rc = zorv_fsync(file);
    if (rc != 0) return failed(file, "sync", rc);
  }
  return 0;
}

// The file's length and its seal, which ends it. All before the seal reads as zero.
int make_one(const zorv_snap& s, u32 which, seal_disk* seal) {
  zorv_file* file = file_of(s, which);
  int rc = kernel::vfs_truncate(file->filp, contents_bytes(s, which));
  if (rc != 0) return failed(file, "extend", rc);
  rc = describe(s, which, seal);
  if (rc != 0) return failed(file, "identify", rc);
  std::memcpy(seal->life_id, s.life_id, snap_id_bytes);
  seal->crc = crc_of(*seal);
  rc = zorv_fwrite(file, contents_bytes(s, which), seal, sizeof *seal);
  if (rc >= 0) rc = zorv_fsync(file);
  if (rc == 0) rc = kernel::fs_sync_parent(file->fname);
  return rc == 0 ? 0 : failed(file, "seal", rc);
}

// What a resume reads of a file.
const char* check_one(const zorv_snap& s, u32 which, seal_disk* found, seal_disk* wanted) {
  zorv_file* file = file_of(s, which);
  if (kernel::file_size(file->filp) != contents_bytes(s, which) + cowfile_seal_bytes) {
    return "are not as long as they were made";
  }
  const int rc = zorv_fread(file, contents_bytes(s, which), found, sizeof *found);
  if (rc != static_cast<int>(sizeof *found)) return "cannot be read";
  if (!is_seal(*found)) return "have no seal";
  if (describe(s, which, wanted) != 0) return "cannot be told apart";
  if (wanted->birth_ns == 0) return "are on a file system that does not tell a copy from them";
  if (found->ino != wanted->ino || found->birth_ns != wanted->birth_ns) {
    return "are copies: others than they were made in";
  }
  if (std::memcmp(found->disk, wanted->disk, sizeof found->disk) != 0) {
    return "are about another disk";
  }
  if (found->dev_size != wanted->dev_size || found->chunk_size != wanted->chunk_size) {
    return "are about another size of disk or chunk";
  }
  return found->which == which ? nullptr : "are no pair";
}

// What a start has written survives a power cut. What a killed program has left may not yet.
int sync_one(zorv_file* file) {
  const int rc = zorv_fsync(file);
  return rc != 0 ? rc : kernel::fs_sync_parent(file->fname);
}

// Another daemon may have made a stopped snap's files its own by now; then they are locked.
void unlink_one(zorv_blkdev* snap, const cow_name& n) {
  zorv_file* opened = nullptr;
  kernel::file_id there;
  if (!n.claim->held() || (kernel::path_identity(n.path, &there) == 0 && there == n.claim->id())) {
    if (open_claimed(snap, n, 0, n.claim, &opened) != 0) {
      n.claim->reset();
      return;  // not there, or somebody else's, which has been logged
    }
  }
  const zorv_file_ptr file(opened);  // locked until the name has gone
  if (opened != nullptr && (snap->s.files_sealed & n.which) == 0 && !is_cow_file(opened)) {
    zorv_log(LOG_ERROR, "%s(): %s is no COW file: it stays", "zorv_unlink", n.path);
    n.claim->reset();
    return;
  }
  const int rc = kernel::fs_unlink_file(n.path, n.claim->id());
  n.claim->reset();
  if (rc == 0 || rc == -ENOENT) return;
  zorv_log(LOG_ERROR, "%s(): Failed to unlink %s: rc=%d%s", "zorv_unlink", n.path, rc,
           rc == -ESTALE ? " (it is another file now)" : "");
}

}  // namespace

int zorv_cowfiles_open_new(zorv_blkdev* snap) {
  if (same_path(snap->s.cow_bmp_fname, snap->s.cow_data_fname)) {
    zorv_log(LOG_ERROR, "%s(): zorv(%d, %d) can't keep its COW bitmap and its COW data in one file",
             start_op, zorv_blk_major, snap->minor);
    return -EINVAL;
  }
  return open_both(snap, when_missing::make);
}

int zorv_cowfiles_make(zorv_blkdev* snap) {
  zorv_snap& s = snap->s;
  const kernel::kbuf<seal_disk> seal(
      static_cast<seal_disk*>(kernel::kmalloc(sizeof(seal_disk), kernel::GFP_KERNEL)));
  if (seal == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failure", start_op);
    return -ENOMEM;
  }
  int rc = make_void(s);
  if (rc != 0) return rc;
  kernel::get_random_bytes(s.life_id, snap_id_bytes);
  for (const u32 which : {seal_of_data, seal_of_bits}) {
    rc = make_one(s, which, seal.get());
    if (rc != 0) return rc;
    s.files_sealed |= which;
  }
  return 0;
}

int zorv_cowfiles_open_old(zorv_blkdev* snap) { return open_both(snap, when_missing::fail); }

void zorv_cowfiles_undo(zorv_blkdev* snap) {
  zorv_snap& s = snap->s;
  for (const cow_name& n : {data_of(s), bits_of(s)}) {
    if ((s.files_made & n.which) != 0) {
      unlink_one(snap, n);
    } else if ((s.files_claimed & n.which) != 0) {
      n.claim->reset();
    }
  }
  s.files_made = s.files_claimed = 0;
}

const char* zorv_cowfiles_check(zorv_blkdev* snap) {
  zorv_snap& s = snap->s;
  const kernel::kbuf<seal_disk> seals(
      static_cast<seal_disk*>(kernel::kmalloc(3 * sizeof(seal_disk), kernel::GFP_KERNEL)));
  if (seals == nullptr) return "cannot be checked for want of memory";
  const seal_disk& data = seals[0];
  const seal_disk& bits = seals[1];
  const char* why = check_one(s, seal_of_data, &seals[0], &seals[2]);
  if (why == nullptr) why = check_one(s, seal_of_bits, &seals[1], &seals[2]);
  if (why != nullptr) return why;
  if (std::memcmp(data.life_id, bits.life_id, snap_id_bytes) != 0) return "are not of one life";
  if (sync_one(s.cow_data_file) != 0 || sync_one(s.cow_bmp_file) != 0) return "cannot be synced";
  std::memcpy(s.life_id, data.life_id, snap_id_bytes);
  s.files_sealed = seal_of_data | seal_of_bits;
  return nullptr;
}

// Cut short and grown again, a file has the length but not the seal that ended it.
bool zorv_cowfiles_whole(const zorv_snap& s) {
  constexpr int head_bytes = offsetof(seal_disk, life_id) + snap_id_bytes;
  for (const u32 which : {seal_of_data, seal_of_bits}) {
    zorv_file* file = file_of(s, which);
    const u64 end = contents_bytes(s, which);
    u8 head[head_bytes];
    if (kernel::file_size(file->filp) == end + cowfile_seal_bytes &&
        zorv_fread(file, end, head, head_bytes) == head_bytes &&
        std::memcmp(head, seal_magic, sizeof seal_magic) == 0 &&
        std::memcmp(head + offsetof(seal_disk, life_id), s.life_id, snap_id_bytes) == 0) {
      continue;
    }
    zorv_log(LOG_ERROR, "%s(): %s does not end as it was made any more", "cow_worker", file->fname);
    return false;
  }
  return true;
}

void zorv_cowfiles_unlink(zorv_blkdev* snap) {
  unlink_one(snap, data_of(snap->s));
  unlink_one(snap, bits_of(snap->s));
}

}  // namespace zorv
