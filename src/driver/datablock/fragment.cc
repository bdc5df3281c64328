// SPDX-License-Identifier: GPL-2.0-only
// A volume is mostly long runs of free and of allocated chunks. Cutting a fragment into pieces and
// keeping one all-zero and one all-ones piece for all of their kind shrinks the runs to two bytes
// of index per piece; small pieces find more runs, large ones need less index. The best size
// depends on the data, so every power of two is measured and the smallest total wins.
#include "driver/datablock/fragment.h"

#include <algorithm>

#include "driver/core/log.h"
#include "driver/datablock/bits.h"
#include "kernel/mem.h"

namespace zorv {

namespace {

enum class piece_kind { zero, ones, mixed };

piece_kind kind_of(const u8* piece, u32 bytes) {
  if (piece[0] != 0x00 && piece[0] != 0xff) return piece_kind::mixed;
  if (std::memcmp(piece, piece + 1, bytes - 1) != 0) return piece_kind::mixed;
  return piece[0] == 0 ? piece_kind::zero : piece_kind::ones;
}

struct piece_counts {
  u32 zero = 0;  // stored all-zero pieces: 0 or 1, as for ones
  u32 ones = 0;
  u32 mixed = 0;
  [[nodiscard]] u32 stored() const { return zero + ones + mixed; }
};

piece_counts count_pieces(const u8* data, u32 piece_cnt, u32 piece_size) {
  piece_counts c;
  for (u32 i = 0; i < piece_cnt; ++i) {
    switch (kind_of(data + static_cast<u64>(i) * piece_size, piece_size)) {
      case piece_kind::zero:
        c.zero = 1;
        break;
      case piece_kind::ones:
        c.ones = 1;
        break;
      case piece_kind::mixed:
        ++c.mixed;
        break;
    }
  }
  return c;
}

struct form {
  s32 piece_cnt, piece_size, size;
};

// The form with the smallest total; of equals the one with fewer pieces. At most -ENOMEM in size.
form smallest_form(sa* fragment, u8* staging, s32 bytes) {
  form best{fragment_bytes, 1, 0x80000};
  for (s32 n = 1; n <= 65536; n *= 2) {
    s32 p = (bytes + n - 1) / n;
    if (p == 0) break;
    p = static_cast<s32>(std::bit_ceil(static_cast<u32>(p)));
    if (p < 4) break;
    // Padding that joins an all-ones piece costs nothing.
    if (p * n > bytes) std::memset(staging + bytes, 0xff, static_cast<size_t>(p * n - bytes));
    const s32 size = create_sa(fragment, n, p, staging, sa_run::measure);
    zorv_log(4, "%d x %d (%d bytes) will take %d bytes", n, p, bytes, size);
    if (size < 0) return {n, p, size};
    if (size < best.size) best = {n, p, size};
  }
  return best;
}

}  // namespace

int create_sa(sa* f, s32 piece_cnt, s32 piece_size, const u8* data, sa_run run) {
  const u32 n = static_cast<u32>(piece_cnt);
  const u32 p = static_cast<u32>(piece_size);
  const piece_counts counts = count_pieces(data, n, p);
  const s32 size = static_cast<s32>(counts.stored() * p + 2 * n);
  if (run == sa_run::measure) return size;

  f->index = static_cast<u16*>(kernel::vmalloc(2 * static_cast<size_t>(n)));
  if (f->index != nullptr) {
    f->pool = static_cast<u8*>(kernel::vmalloc(static_cast<size_t>(counts.stored()) * p));
  }
  if (f->index == nullptr || f->pool == nullptr) {
    zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", __func__);
    return -ENOMEM;
  }
  // Numbers of stored pieces: all-zero, all-ones, then the mixed ones as they come.
  if (counts.zero != 0) std::memset(f->pool, 0x00, p);
  if (counts.ones != 0) std::memset(f->pool + static_cast<size_t>(counts.zero) * p, 0xff, p);
  u32 next = counts.zero + counts.ones;
  for (u32 i = 0; i < n; ++i) {
    const u8* piece = data + static_cast<u64>(i) * p;
    switch (kind_of(piece, p)) {
      case piece_kind::zero:
        f->index[i] = 0;
        break;
      case piece_kind::ones:
        f->index[i] = static_cast<u16>(counts.zero);
        break;
      case piece_kind::mixed:
        std::memcpy(f->pool + static_cast<u64>(next) * p, piece, p);
        f->index[i] = static_cast<u16>(next++);
        break;
    }
  }
  f->piece_cnt = n;
  f->piece_size = p;
  f->piece_shift = log2_u32(p);
  f->index_shift = f->piece_shift + 3;
  f->bit_mask = p * 8 - 1;
  return size;
}

int fragment_build(sa* fragment, u8* staging, s32 bytes) {
  const form best = smallest_form(fragment, staging, bytes);
  if (best.size < 0) return best.size;
  zorv_log(3, "Block Bitmap Fragment: %dB => %dB (%d x %d) (%02d%%)", bytes, best.size,
           best.piece_cnt, best.piece_size, 100 - best.size * 100 / bytes);
  // A trial pads from `bytes` to its own end only; what lies behind it in the form that was chosen
  // is never looked up, but is read once more here.
  const s32 covered = best.piece_cnt * best.piece_size;
  if (covered > bytes) std::memset(staging + bytes, 0xff, static_cast<size_t>(covered - bytes));
  return create_sa(fragment, best.piece_cnt, best.piece_size, staging, sa_run::build);
}

void fragment_free(sa* fragment) {
  kernel::vfree(fragment->index);
  kernel::vfree(fragment->pool);
  *fragment = {};
}

u32 fragment_find_set(const sa* f, u32 from, u32 end) {
  while (from < end) {
    const u32 piece_start = from & ~f->bit_mask;
    const u32 piece_end = std::min(piece_start + f->bit_mask + 1, end);
    const u8* piece =
        f->pool + (static_cast<u64>(f->index[from >> f->index_shift]) << f->piece_shift);
    const u64 found = find_set_bit(piece, from - piece_start, piece_end - piece_start);
    if (piece_start + found < piece_end) return piece_start + static_cast<u32>(found);
    from = piece_end;
  }
  return end;
}

}  // namespace zorv
