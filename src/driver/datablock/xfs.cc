// SPDX-License-Identifier: GPL-2.0-only
// The XFS reader (file systems without checksums).
//
// Every allocation group keeps its free extents in a B+tree keyed by block number, whose leaves are
// linked from left to right. A read lets every chunk count as allocated and then clears those that
// one free extent covers entirely, so that whatever is not proven free stays set.
//
// What keeps a damaged tree from misleading or holding us: a pointer must stay in its group, each
// step down must lose exactly one level, and extents must come in ascending order without overlap
// and end inside the group, so that no chain of leaves can close into a circle. Before anything
// is believed all trees are added up and compared with the free counts of the groups' headers.
#include "driver/datablock/xfs.h"

#include <algorithm>

#include "driver/core/log.h"
#include "driver/util/file.h"
#include "kernel/task.h"

namespace zorv {

namespace {

constexpr u32 xfs_magic = 0x58465342;   // "XFSB"
constexpr u32 agf_magic = 0x58414746;   // "XAGF"
constexpr u32 abtb_magic = 0x41425442;  // "ABTB"
constexpr u32 null_block = 0xffffffff;
constexpr u32 node_header_bytes = 16;
constexpr u32 max_levels = 9;
constexpr u32 min_ag_blocks = 64;
constexpr u32 max_block_bytes = 65536;
constexpr u32 first_buffer_bytes = 4096;

u32 node_level(const u8* node) { return get_be16(node + 4); }
u32 node_records(const u8* node) { return get_be16(node + 6); }
u32 right_sibling(const u8* node) { return get_be32(node + 12); }

u64 group_start_of(const xfs_reader& r, u32 group) {
  return static_cast<u64>(group) * r.ag_blocks();
}

// Brings a tree block into block_buf and checks everything that can be said of it alone.
int read_node(const char* caller, xfs_reader* r, u64 group_start, u32 node) {
  const u64 group = group_start / r->ag_blocks();
  const s64 block = static_cast<s64>(group_start + node);
  if (group >= r->ag_count() || node >= r->ag_lengths[group]) {
    zorv_log(LOG_ERROR, "%s(): B+tree block %u lies outside AG %d", caller, node,
             static_cast<s32>(group));
    return -EINVAL;
  }
  u8* buf = r->block_buf.get();
  const int rc = zorv_bread(r->hdd, buf, r->block_size(), block, 1);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to read AGF node from block %lld: rc=%d", caller,
             static_cast<long long>(block), rc);
    return rc;
  }
  if (get_be32(buf) != abtb_magic) {
    zorv_log(LOG_ERROR, "%s(): Invalid B+tree node block magic: 0x%08x instead of 0x%08x", caller,
             get_be32(buf), abtb_magic);
    return -EINVAL;
  }
  const u32 entry_bytes = node_level(buf) == 0 ? 8 : 12;
  if (node_level(buf) >= max_levels ||
      node_records(buf) > (r->block_size() - node_header_bytes) / entry_bytes) {
    zorv_log(LOG_ERROR, "%s(): B+tree block %lld cannot have level %d and %d records", caller,
             static_cast<long long>(block), node_level(buf), node_records(buf));
    return -EINVAL;
  }
  return 0;
}

// Calls fn(start, end) for the group's free extents in ascending order, group-relative, from the
// leaf that covers the key on, until it returns false.
template <class F>
int for_free_extents(xfs_reader* r, u32 group, u32 key, F fn) {
  constexpr const char* caller = "xfs_reader_read";
  const u64 group_start = group_start_of(*r, group);
  int rc = xfs_find_leaf(r, key, group_start, r->bno_roots[group]);
  if (rc < 0) return rc;
  const u8* leaf = r->block_buf.get();
  u64 last_end = 0;
  for (;;) {
    const u32 records = node_records(leaf);
    for (u32 i = 0; i < records; ++i) {
      const u8* record = leaf + node_header_bytes + i * 8ULL;
      const u64 start = get_be32(record);
      const u64 end = start + get_be32(record + 4);
      if (start < last_end || end <= start || end > r->ag_lengths[group]) {
        zorv_log(LOG_ERROR, "%s(): Free extent (%lld, %lld) is out of place in AG %d", caller,
                 static_cast<long long>(start), static_cast<long long>(end - start), group);
        return -EINVAL;
      }
      last_end = end;
      if (!fn(start, end)) return 0;
    }
    if (records == 0 || right_sibling(leaf) == null_block) return 0;
    rc = read_node(caller, r, group_start, right_sibling(leaf));
    if (rc < 0) return rc;
    if (node_level(leaf) != 0) {
      zorv_log(LOG_ERROR, "%s(): A leaf's sibling in AG %d has level %d", caller, group,
               node_level(leaf));
      return -EINVAL;
    }
  }
}

// Adds every group's tree up, once. A group that contradicts itself says that something else has
// been written over the file system: then no group can be believed.
int examine_groups(xfs_reader* r) {
  for (u32 group = 0; group < r->ag_count(); ++group) {
    if (kernel::signal_pending()) return -EINTR;
    u64 sum = 0;
    const int rc = for_free_extents(r, group, 0, [&sum](u64 start, u64 end) {
      sum += end - start;
      return true;
    });
    if (rc < 0) return rc;
    if (sum != r->free_blocks[group]) {
      zorv_log(LOG_ERROR,
               "%s(): Number of free blocks (%u) in AG %d is inconsistent with its B+tree (%llu).",
               "xfs_reader_read", r->free_blocks[group], group,
               static_cast<unsigned long long>(sum));
      fs_reader_log_doubt("xfs_reader_read", "XFS", r->hdd->bd_dev,
                          "has an allocation group that contradicts itself");
      r->in_doubt = true;
      return 0;
    }
    kernel::cond_resched();
  }
  r->examined = true;
  return 0;
}

// Why the geometry cannot be right, or null. What passes bounds everything that is read later.
const char* doubt_of_geometry(const xfs_reader& r) {
  if (r.in_progress()) return "was not made to its end";
  if (r.ag_blocks() < min_ag_blocks) return "has an impossible size of allocation groups";
  if (r.blocks() > r.hdd->bd_size_bytes / r.block_size()) return "is larger than the device";
  if (r.ag_count() == 0 || (r.blocks() + r.ag_blocks() - 1) / r.ag_blocks() != r.ag_count()) {
    return "has counts that contradict each other";
  }
  return nullptr;
}

bool allocate_group_arrays(xfs_reader* r) {
  const size_t n = r->ag_count();
  for (kernel::vbuf<u32>* array :
       {&r->bno_roots, &r->ag_lengths, &r->bno_levels, &r->free_blocks}) {
    array->reset(static_cast<u32*>(kernel::vmalloc(n * sizeof(u32))));
  }
  if (r->bno_roots != nullptr && r->ag_lengths != nullptr && r->bno_levels != nullptr &&
      r->free_blocks != nullptr) {
    return true;
  }
  zorv_log(LOG_ERROR, "%s(): Memory allocation failed.", "xfs_reader_init");
  return false;
}

// Checks the group's superblock copy and takes over its free-space header; false (logged) when the
// file system cannot be used. A header of another group or length puts the file system in doubt.
bool load_group(xfs_reader* r, u32 group) {
  constexpr const char* caller = "xfs_reader_init";
  const u32 major = kernel::major_of(r->hdd->bd_dev);
  const u32 minor = kernel::minor_of(r->hdd->bd_dev);
  const s64 sector =
      static_cast<s64>(group_start_of(*r, group) * r->block_size() / kernel::sector_size);
  u8* buf = r->block_buf.get();
  int rc = zorv_bread(r->hdd, buf, kernel::sector_size, sector, 1);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to read Super Block of AG %d of hdd(%d, %d): rc=%d", caller,
             group, major, minor, rc);
    return false;
  }
  if (get_be32(buf) != r->magic()) {
    zorv_log(LOG_ERROR,
             "%s(): AG %d of hdd(%d, %d) has incorrect SB magic number: 0x%08x instead of 0x%08x.",
             caller, group, major, minor, get_be32(buf), r->magic());
    return false;
  }
  rc = zorv_bread(r->hdd, buf, kernel::sector_size, sector + 1, 1);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to read AGF of AG %d of hdd(%d, %d): rc=%d", caller, group,
             major, minor, rc);
    return false;
  }
  if (get_be32(buf) != agf_magic) {
    zorv_log(LOG_ERROR,
             "%s(): Incorrect AGF magic of AG %d of hdd(%d, %d): 0x%08x instead of 0x%08x", caller,
             group, major, minor, get_be32(buf), agf_magic);
    return false;
  }
  r->ag_lengths[group] = get_be32(buf + 12);
  r->bno_roots[group] = get_be32(buf + 16);
  r->bno_levels[group] = get_be32(buf + 28);
  r->free_blocks[group] = get_be32(buf + 52);
  zorv_log(2, "      AGF[%d]: roots=(%d, %d), levels=(%d, %d), freeblks=%d, length=%d", group,
           r->bno_roots[group], get_be32(buf + 20), r->bno_levels[group], get_be32(buf + 32),
           r->free_blocks[group], r->ag_lengths[group]);
  const u64 length = std::min<u64>(r->ag_blocks(), r->blocks() - group_start_of(*r, group));
  if (!r->in_doubt && (get_be32(buf + 8) != group || r->ag_lengths[group] != length)) {
    fs_reader_log_doubt(caller, "XFS", r->hdd->bd_dev, "has counts that contradict each other");
    r->in_doubt = true;
  }
  return true;
}

// Reads every group's headers and decides how far they can be trusted; false when not at all.
bool load_groups(xfs_reader* r) {
  const char* why = doubt_of_geometry(*r);
  if (why == nullptr) why = fs_reader_rival(r->hdd, fs_kind::xfs, r->blocks() * r->block_size());
  if (why == nullptr) {
    if (!allocate_group_arrays(r)) return false;
    for (u32 a = 0; a < r->ag_count(); ++a) {
      if (!load_group(r, a)) return false;
    }
    if (!r->in_doubt && !xfs_log_is_clean(r)) {
      why = "was not cleanly unmounted (its log does not end in an unmount record)";
    }
  }
  if (why != nullptr) {
    fs_reader_log_doubt("xfs_reader_init", "XFS", r->hdd->bd_dev, why);
    r->in_doubt = true;
  }
  return true;
}

}  // namespace

void* xfs_reader_init(kernel::block_device* hdd, u32* fs_block_size) {
  const u32 major = kernel::major_of(hdd->bd_dev);
  const u32 minor = kernel::minor_of(hdd->bd_dev);
  auto* r = fs_reader_context(__func__, hdd, &xfs_reader::block_buf, first_buffer_bytes);
  if (r == nullptr) return nullptr;
  scope_exit fail([r] { kernel::kdelete(r); });
  const int rc = zorv_bread(hdd, r->block_buf.get(), kernel::sector_size, 0, 1);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", __func__, major,
             minor, rc);
    return nullptr;
  }
  std::memcpy(r->sb, r->block_buf.get(), xfs_superblock_bytes);
  if (r->magic() != xfs_magic) {
    zorv_log(3, "%s(): hdd(%d, %d) doesn't have XFS.", __func__, major, minor);
    return nullptr;
  }
  const u32 block_size = r->block_size();
  if (fs_block_size != nullptr) *fs_block_size = block_size;
  if (!is_power_of_2(block_size) || block_size < kernel::sector_size ||
      block_size > max_block_bytes || r->ag_blocks() == 0) {
    zorv_log(LOG_ERROR, "%s(): Superblock of hdd(%d, %d) is corrupt.", __func__, major, minor);
    return nullptr;
  }
  if (block_size != first_buffer_bytes && !fs_reader_buffer(__func__, &r->block_buf, block_size)) {
    return nullptr;
  }
  zorv_log(2, "%s(): Detected XFS on hdd(%d, %d)", __func__, major, minor);
  zorv_log(2, "   magic=0x%08x", r->magic());
  zorv_log(2, "   blocksize=%d", block_size);
  zorv_log(2, "   sectsize=%d", r->sector_bytes());
  zorv_log(2, "   AG size=%d blocks", r->ag_blocks());
  zorv_log(2, "   AG count=%d", r->ag_count());
  if (!load_groups(r)) return nullptr;
  fail.cancel();
  return r;
}

int xfs_find_leaf(xfs_reader* r, u32 key, u64 group_start, u32 node) {
  u32 level = 0;  // of the node to come, once the first one has been read
  for (bool first = true;; first = false) {
    const int rc = read_node(__func__, r, group_start, node);
    if (rc < 0) return rc;
    const u8* buf = r->block_buf.get();
    const u32 expected = first ? r->bno_levels[group_start / r->ag_blocks()] - 1 : level;
    if (node_level(buf) != expected) {
      zorv_log(LOG_ERROR, "%s(): B+tree block %u has level %d instead of %d", __func__, node,
               node_level(buf), expected);
      return -EINVAL;
    }
    if (node_level(buf) == 0) return 0;
    level = node_level(buf) - 1;
    // The last entry whose key is not greater, or the first one.
    u32 i = 0;
    const u32 records = node_records(buf);
    while (i + 1 < records && get_be32(buf + node_header_bytes + (i + 1) * 8ULL) <= key) ++i;
    const u32 max_entries = (r->block_size() - node_header_bytes) / 12;
    node = get_be32(buf + node_header_bytes + max_entries * 8ULL + i * 4ULL);
  }
}

int xfs_reader_read(void* context, s64 start_chunk, u32 chunk_size, u8* bits, s32 count) {
  auto* r = static_cast<xfs_reader*>(context);
  int rc = fs_reader_check(__func__, r, r == nullptr ? 0 : r->block_size(), chunk_size);
  if (rc < 0) return rc;
  if (!r->examined && !r->in_doubt) {
    rc = examine_groups(r);
    if (rc < 0) return rc;
  }
  const chunk_window w = open_window(start_chunk, chunk_size, r->block_size(), bits, count);
  w.mark_all();  // what lies behind the last group, too
  if (r->in_doubt) return 0;
  for (u64 group = w.first_block() / r->ag_blocks();
       group < r->ag_count() && group_start_of(*r, static_cast<u32>(group)) < w.end_block();
       ++group) {
    const u32 a = static_cast<u32>(group);
    const u64 start = group_start_of(*r, a);
    const u64 key = w.first_block() > start ? w.first_block() - start : 0;
    rc = for_free_extents(r, a, static_cast<u32>(key), [&w, start](u64 from, u64 end) {
      const u64 blocks_per_chunk = 1ULL << w.shift;
      const u64 first = std::max((start + from + blocks_per_chunk - 1) >> w.shift, w.first);
      const u64 last = std::min((start + end) >> w.shift, w.first + w.count);
      if (first < last) clear_bits(w.bits, first - w.first, last - w.first);
      return start + end < w.end_block();
    });
    if (rc < 0) return rc;
  }
  return 0;
}

int xfs_reader_destroy(void* context) {
  kernel::kdelete(static_cast<xfs_reader*>(context));
  return 0;
}

}  // namespace zorv
