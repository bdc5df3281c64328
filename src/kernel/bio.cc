// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/bio.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "kernel/blkdev.h"
#include "kernel/printk.h"
#include "kernel/task.h"

namespace kernel {
namespace {

// A bio and its segments are one block of memory, of one of these sizes.
constexpr u16 class_vecs[] = {4, 16, 64, bio_max_segments};
constexpr u32 nr_classes = sizeof(class_vecs) / sizeof(class_vecs[0]);
constexpr u32 reserve_per_class = 16;

static_assert(std::is_trivially_destructible_v<bio>);
static_assert(sizeof(bio) % alignof(bio_vec) == 0);

// Made before main() and never destroyed, so that no allocation failure can meet the first bio.
struct bio_pools {
  mempool* pools[nr_classes];
  bio_pools() {
    for (u32 i = 0; i < nr_classes; ++i) {
      char name[32];
      std::snprintf(name, sizeof(name), "bio-%u", class_vecs[i]);
      kmem_cache* cache =
          kmem_cache_create(name, sizeof(bio) + class_vecs[i] * sizeof(bio_vec), alignof(bio));
      pools[i] = cache == nullptr ? nullptr : mempool_create(reserve_per_class, cache);
      if (pools[i] == nullptr) {
        std::fprintf(stderr, "no memory for the reserve of block requests\n");
        std::abort();
      }
    }
  }
};
const bio_pools all_pools;

mempool* pool_for(u32 nr) {
  for (u32 i = 0; i < nr_classes; ++i) {
    if (nr <= class_vecs[i]) return all_pools.pools[i];
  }
  return nullptr;
}

bool within_device(const bio* b, u64 capacity_sectors) {
  const u64 sectors = bio_sectors(b);
  return sectors <= capacity_sectors && b->bi_sector <= capacity_sectors - sectors;
}

void refuse(bio* b, const gendisk* disk) {
  printk("<6>attempt to access beyond end of device\n");
  printk("<6>%s: rw=%u, want=%llu, limit=%llu\n", disk->disk_name, b->bi_rw,
         static_cast<unsigned long long>(b->bi_sector + bio_sectors(b)),
         static_cast<unsigned long long>(disk->capacity_sectors.load()));
  bio_endio(b, -EIO);
}

}  // namespace

bio* bio_alloc(gfp_t flags, u32 nr) {
  mempool* pool = pool_for(nr);
  if (pool == nullptr) return nullptr;
  void* memory = mempool_alloc(pool, flags & ~GFP_ZERO);
  if (memory == nullptr) return nullptr;
  bio* b = new (memory) bio;
  b->bi_io_vec = reinterpret_cast<bio_vec*>(b + 1);
  b->bi_max_vecs = static_cast<u16>(nr);
  b->bi_destructor = bio_free;
  b->bi_pooled = true;
  return b;
}

void bio_free(bio* b) {
  if (b->bi_pooled) mempool_free(pool_for(b->bi_max_vecs), b);
}

void bio_init(bio* b, bio_vec* vecs, u16 nr) {
  new (b) bio;
  b->bi_io_vec = vecs;
  b->bi_max_vecs = nr;
}

bio* bio_clone(const bio* b, gfp_t flags) {
  bio* clone = bio_alloc(flags, b->bi_vcnt);
  if (clone == nullptr) return nullptr;
  if (b->bi_vcnt != 0) std::memcpy(clone->bi_io_vec, b->bi_io_vec, b->bi_vcnt * sizeof(bio_vec));
  clone->bi_sector = b->bi_sector;
  clone->bi_size = b->bi_size;
  clone->bi_rw = b->bi_rw;
  clone->bi_bdev = b->bi_bdev;
  clone->bi_vcnt = b->bi_vcnt;
  clone->bi_idx = b->bi_idx;
  return clone;
}

u32 bio_add_page(bio* b, page* p, u32 len, u32 offset) {
  if (b->bi_vcnt == b->bi_max_vecs || offset > page_size || len > page_size - offset) return 0;
  b->bi_io_vec[b->bi_vcnt++] = bio_vec{p, len, offset};
  b->bi_size += len;
  return len;
}

void bio_put(bio* b) {
  if (b->bi_cnt.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  if (b->bi_destructor != nullptr) b->bi_destructor(b);
}

void bio_endio(bio* b, int error) {
  task_struct* self = current();
  if (self->spin_depth != 0) [[unlikely]] {
    std::fprintf(stderr, "BUG: bio_endio called by %s/%d with %u spin locks held\n", self->comm,
                 self->pid, self->spin_depth);
    std::abort();
  }
  if (error != 0) {
    b->bi_uptodate.store(false, std::memory_order_release);
  } else if (!b->bi_uptodate.load(std::memory_order_acquire)) {
    error = -EIO;
  }
  // Before its submitter hears of it: then what the tally belongs to may go.
  if (bio_tally* tally = b->bi_tally; tally != nullptr) {
    b->bi_tally = nullptr;
    if (tally->under_way.fetch_sub(1) == 1 && tally->awaiting.load() != 0)
      wake_up_all(&tally->zero);
  }
  if (b->bi_end_io == nullptr) return;
  ++self->irq_depth;
  b->bi_end_io(b, error);
  --self->irq_depth;
}

void generic_make_request(bio* b) {
  might_sleep("generic_make_request");
  block_device* bdev = b->bi_bdev;
  if (bdev == nullptr || !blkdev_begin_submit(bdev)) {
    printk("<3>generic_make_request: Trying to access nonexistent block-device %s (%llu)\n",
           bdev == nullptr ? "?" : bdev->bd_disk->disk_name,
           static_cast<unsigned long long>(b->bi_sector));
    bio_endio(b, -EIO);
    return;
  }
  gendisk* disk = bdev->bd_disk;
  const bool flush_only = b->bi_size == 0 && (b->bi_rw & REQ_FLUSH) != 0;
  if (!flush_only && !within_device(b, disk->capacity_sectors.load(std::memory_order_relaxed))) {
    refuse(b, disk);
  } else {
    disk->queue->make_request(disk->queue, b);
  }
  blkdev_end_submit(bdev);
}

void submit_bio(u32 rw, bio* b) {
  b->bi_rw |= rw;
  generic_make_request(b);
}

}  // namespace kernel
