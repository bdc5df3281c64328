// SPDX-License-Identifier: GPL-2.0-only
#include "driver/snap/cowbmp.h"

#include <bit>
#include <utility>

#include "driver/core/log.h"
#include "kernel/mem.h"

namespace zorv {

namespace {

constexpr u32 page_shift = 15;  // bits to pages
constexpr u32 page_bits = 1U << page_shift;
constexpr u64 max_bits = 1ULL << 31;         // chunk numbers are signed 32-bit
constexpr u32 marks_at = kernel::page_size;  // in a page's memory, behind the bits
constexpr u32 page_memory = 2 * kernel::page_size;

s32 pages_for(u64 nbits) {
  return nbits == 0 ? 0 : static_cast<s32>(((nbits - 1) >> page_shift) + 1);
}

// One slot more than none, so that an empty bitmap has a table too.
u8** alloc_table(s32 npages) {
  const std::size_t slots = npages > 0 ? static_cast<std::size_t>(npages) : 1;
  return static_cast<u8**>(kernel::vzalloc(slots * sizeof(u8*)));
}

std::atomic_ref<u8> byte_of(u8* page, s32 bit) {
  return std::atomic_ref<u8>(page[(static_cast<u32>(bit) & (page_bits - 1)) >> 3]);
}
std::atomic_ref<u8> mark_byte_of(u8* page, s32 bit) { return byte_of(page + marks_at, bit); }
u8 mask_of(s32 bit) { return static_cast<u8>(1U << (static_cast<u32>(bit) & 7)); }

bool covers_locked(const zorv_cowbmp* b, s32 bit) REQUIRES_SHARED(b->lock) {
  return bit >= 0 && static_cast<u64>(bit) < b->nbits;
}

int uninitialized(const char* op) {
  zorv_log(LOG_ERROR, "%s(): Uninitialized COW bitmap.", op);
  return -EINVAL;
}

int out_of_range(const char* op, s32 bit) {
  zorv_log(LOG_ERROR, "%s(): COW bitmap has no chunk %d.", op, bit);
  return -EINVAL;
}

s64 set_bits(const u8* p, int bytes) {
  s64 bits = 0;
  for (int i = 0; i < bytes; ++i) bits += std::popcount(p[i]);
  return bits;
}

// The pages of a bitmap, before they are anybody's.
struct page_table {
  s32 npages = 0;
  u8** pages = nullptr;
  s64 bits = 0;  // set
  page_table() = default;
  explicit page_table(u64 nbits) : npages(pages_for(nbits)), pages(alloc_table(npages)) {}
  ~page_table() {
    for (s32 i = 0; pages != nullptr && i < npages; ++i) kernel::kfree(pages[i]);
    kernel::vfree(pages);
  }
  page_table(const page_table&) = delete;
  page_table& operator=(const page_table&) = delete;
};

int no_memory(const char* op) {
  zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", op);
  return -ENOMEM;
}

// Fills the slots from the file; pages that hold no bit stay absent.
int read_pages(page_table* t, zorv_file* file, u64 size_bytes) {
  kernel::kbuf<u8> spare;
  for (s32 i = 0; i < t->npages; ++i) {
    if (spare == nullptr) {
      spare.reset(static_cast<u8*>(kernel::kzalloc(page_memory, kernel::GFP_KERNEL)));
      if (spare == nullptr) return no_memory("zorv_cowbmp_load");
    }
    const u64 offset = static_cast<u64>(i) * kernel::page_size;
    const u64 rest = size_bytes - offset;
    const int length = rest < kernel::page_size ? static_cast<int>(rest) : kernel::page_size;
    const int rc = zorv_fread(file, offset, spare.get(), length);
    if (rc != length) {
      zorv_log(LOG_ERROR, "%s(): Failed to read %d bytes from %s: rc=%d", "zorv_cowbmp_load",
               length, file->fname, rc);
      return -EIO;
    }
    const s64 bits = set_bits(spare.get(), length);
    if (bits != 0) t->pages[i] = spare.release();
    t->bits += bits;
  }
  return 0;
}

// The table takes the place of what the bitmap had, and has that afterwards.
void put_locked(zorv_cowbmp* b, page_table* t, u64 nbits) REQUIRES(b->lock) {
  std::swap(b->pages, t->pages);
  std::swap(b->npages, t->npages);
  b->nbits = nbits;
}

}  // namespace

int zorv_cowbmp_init(zorv_cowbmp* b, u64 nbits) {
  zorv_log(2, "%s(): Allocating COW bitmap for %lld chunks", __func__,
           static_cast<long long>(nbits));
  (void)zorv_cowbmp_destroy(b);
  page_table fresh(nbits);
  if (fresh.pages == nullptr) return no_memory(__func__);
  rzwrite_guard guard(&b->lock);
  put_locked(b, &fresh, nbits);
  b->copied.store(0);
  return 0;
}

int zorv_cowbmp_load(zorv_cowbmp* b, zorv_file* file, u64 size_bytes) {
  if (file == nullptr || b == nullptr || size_bytes > max_bits / 8) {
    zorv_log(LOG_ERROR, "%s(): Internal error: invalid params.", __func__);
    return -EINVAL;
  }
  zorv_log(2, "%s(): Loading COW bitmap from %s", __func__, file->fname);
  (void)zorv_cowbmp_destroy(b);
  page_table fresh(size_bytes * 8);
  const int rc =
      fresh.pages == nullptr ? no_memory(__func__) : read_pages(&fresh, file, size_bytes);
  if (rc != 0) return rc;
  rzwrite_guard guard(&b->lock);
  put_locked(b, &fresh, size_bytes * 8);
  b->copied.store(fresh.bits);
  return 0;
}

namespace {

// The page of a bit, made if it is absent, with the lock held for reading while use() runs on it.
template <class Use>
int with_page(zorv_cowbmp* b, s32 bit, gfp_t flags, const char* op, Use use) {
  if (b == nullptr) return uninitialized(op);
  for (;;) {
    {
      rzread_guard guard(&b->lock);
      if (b->pages == nullptr) return uninitialized(op);
      if (!covers_locked(b, bit)) return out_of_range(op, bit);
      if (u8* page = b->pages[bit >> page_shift]) return use(page);
    }
    kernel::kbuf<u8> fresh(static_cast<u8*>(kernel::kzalloc(page_memory, flags)));
    if (fresh == nullptr) {
      zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", op);
      return -ENOMEM;
    }
    rzwrite_guard guard(&b->lock);
    if (b->pages == nullptr || !covers_locked(b, bit)) continue;  // destroyed meanwhile
    u8*& slot = b->pages[bit >> page_shift];
    if (slot == nullptr) slot = fresh.release();
  }
}

// What is known of a bit.
struct look {
  int rc;       // 1 | 0 | -ENODATA (not initialised) | -ERANGE
  bool marked;  // on its way
};
look look_at(zorv_cowbmp* b, s32 bit) {
  if (b == nullptr) return {-ENODATA, false};
  rzread_guard guard(&b->lock);
  if (b->pages == nullptr) return {-ENODATA, false};
  if (!covers_locked(b, bit)) return {-ERANGE, false};
  u8* page = b->pages[bit >> page_shift];
  if (page == nullptr) return {0, false};
  // The bit first: whoever sees it set sees the mark that was set before it.
  const bool set = (byte_of(page, bit).load() & mask_of(bit)) != 0;
  const bool marked = (mark_byte_of(page, bit).load() & mask_of(bit)) != 0;
  return {set ? 1 : 0, marked};
}

int test(zorv_cowbmp* b, s32 bit, const char* op, bool stable_only) {
  const look l = look_at(b, bit);
  if (l.rc == -ENODATA) return uninitialized(op);
  if (l.rc == -ERANGE) return out_of_range(op, bit);
  return stable_only && l.marked ? 0 : l.rc;
}

}  // namespace

int zorv_cowbmp_test_bit(zorv_cowbmp* b, s32 bit) { return test(b, bit, __func__, false); }
int zorv_cowbmp_test_stable(zorv_cowbmp* b, s32 bit) { return test(b, bit, __func__, true); }

chunk_state zorv_cowbmp_state(zorv_cowbmp* b, s32 bit) {
  const look l = look_at(b, bit);
  if (l.marked) return chunk_state::on_its_way;
  return l.rc == 1 ? chunk_state::copied : chunk_state::missing;
}

int zorv_cowbmp_set_bit(zorv_cowbmp* b, s32 bit, gfp_t flags, zorv_file* file) {
  int fresh = -1;
  const int rc = with_page(b, bit, flags, __func__, [bit, &fresh](u8* page) {
    const u8 mask = mask_of(bit);
    const u8 before = byte_of(page, bit).fetch_or(mask);
    if ((before & mask) == 0) fresh = before | mask;
    return 0;
  });
  if (rc != 0 || fresh < 0) return rc;
  b->copied.fetch_add(1, std::memory_order_relaxed);
  // Without the lock, which kcowd needs while the file hangs. The whole byte as it stands, so that
  // the file keeps the bits set before it.
  const u8 byte = static_cast<u8>(fresh);
  if (zorv_fwrite(file, static_cast<u64>(bit) >> 3, &byte, 1) == 1) return 0;
  zorv_log(LOG_ERROR, "%s(): Failed to update changed byte in file.", __func__);
  return -EIO;
}

int zorv_cowbmp_begin_copy(zorv_cowbmp* b, s32 bit, gfp_t flags) {
  return with_page(b, bit, flags, __func__, [bit](u8* page) {
    mark_byte_of(page, bit).fetch_or(mask_of(bit));
    return 0;
  });
}

void zorv_cowbmp_end_copy(zorv_cowbmp* b, s32 bit) {
  rzread_guard guard(&b->lock);
  if (b->pages == nullptr || !covers_locked(b, bit)) return;
  if (u8* page = b->pages[bit >> page_shift]) {
    mark_byte_of(page, bit).fetch_and(static_cast<u8>(~mask_of(bit)));
  }
}

int zorv_cowbmp_destroy(zorv_cowbmp* b) {
  if (b == nullptr) return 0;
  page_table none;
  rzwrite_guard guard(&b->lock);
  put_locked(b, &none, 0);
  return 0;
}

}  // namespace zorv
