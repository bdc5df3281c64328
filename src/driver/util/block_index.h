// SPDX-License-Identifier: GPL-2.0-only
// Requests found by the 4 KiB blocks that they cover.
//
// A T has the members first_sector, last_sector (inclusive) and blocks, its entries in ascending
// order. It comes from block_pools with an entry for every block, and a block_index links these.
#pragma once

#include <new>

#include "driver/core/lock.h"
#include "driver/core/log.h"
#include "kernel/bio.h"
#include "kernel/list.h"
#include "kernel/mem.h"

namespace zorv {

// One block of one T.
template <class T>
struct block_entry {
  kernel::list_node<block_entry> link{this};  // on T::blocks
  kernel::list_node<block_entry> bucket_link{this};
  T* owner = nullptr;
};

namespace block_index_detail {
constexpr u32 block_shift = 3;  // sectors to 4 KiB blocks
}

template <class T>
bool overlaps(const T& r, sector_t first, sector_t last) {
  return r.first_sector <= last && first <= r.last_sector;
}

// Where the Ts of all indexes come from: made by the first user, given back by the last.
template <class T>
class block_pools {
 public:
  // The texts live as long as the pools.
  //   reserve   of Ts, and of entries
  //   farewell  logged when the last user has gone
  constexpr block_pools(const char* name, const char* block_name, u32 reserve, const char* farewell)
      : name_(name), block_name_(block_name), farewell_(farewell), reserve_(reserve) {}

  // One more user, to be dropped whatever comes of it.
  //   returns  false: no memory
  [[nodiscard]] bool take() {
    rzmutex_guard guard(&mutex_);
    ++users_;
    return items_.make(name_, sizeof(T), reserve_) &&
           blocks_.make(block_name_, sizeof(block_entry<T>), reserve_);
  }
  void drop() {
    rzmutex_guard guard(&mutex_);
    if (--users_ != 0) return;
    zorv_log(2, "%s", farewell_);
    items_.destroy();
    blocks_.destroy();
  }

  // A T for the sectors of the bio, in no index yet, or null. May wait as the flags say.
  [[nodiscard]] T* make(const kernel::bio* bio, gfp_t flags) {
    void* memory = kernel::mempool_alloc(items_.pool, flags);
    if (memory == nullptr) return nullptr;
    T* r = new (memory) T;
    r->first_sector = bio->bi_sector;
    r->last_sector = bio->bi_sector + kernel::bio_sectors(bio) - 1;
    constexpr u32 shift = block_index_detail::block_shift;
    for (u64 n = (r->last_sector >> shift) - (r->first_sector >> shift) + 1; n != 0; --n) {
      memory = kernel::mempool_alloc(blocks_.pool, flags);
      if (memory == nullptr) {
        free(r);
        return nullptr;
      }
      auto* entry = new (memory) block_entry<T>;
      entry->owner = r;
      r->blocks.push_back(&entry->link);
    }
    return r;
  }
  void free(T* r) {
    for (block_entry<T>& entry : r->blocks) {
      entry.link.unlink();
      kernel::mempool_free(blocks_.pool, &entry);
    }
    kernel::mempool_free(items_.pool, r);
  }

 private:
  struct reserve {
    kernel::kmem_cache* cache = nullptr;
    kernel::mempool* pool = nullptr;

    bool make(const char* cache_name, std::size_t bytes, u32 count) {
      if (cache == nullptr) cache = kernel::kmem_cache_create(cache_name, bytes, 8);
      if (pool == nullptr && cache != nullptr) pool = kernel::mempool_create(count, cache);
      return pool != nullptr;
    }
    void destroy() {
      kernel::mempool_destroy(pool);
      kernel::kmem_cache_destroy(cache);
      pool = nullptr;
      cache = nullptr;
    }
  };

  const char* name_;
  const char* block_name_;
  const char* farewell_;
  u32 reserve_;
  rzmutex mutex_{order::allocators};
  s32 users_ GUARDED_BY(mutex_) = 0;
  // Made and destroyed under the mutex; stable for whoever is a user.
  reserve items_;
  reserve blocks_;
};

// Its owner's lock is held around every call but init and release. A bucket holds its entries
// newest first.
template <class T>
class block_index {
 public:
  //   buckets  a power of two
  //   returns  0 | -ENOMEM
  [[nodiscard]] int init(u32 buckets) {
    using list = kernel::list_of<block_entry<T>>;
    buckets_ = static_cast<list*>(kernel::vmalloc(buckets * sizeof(list)));
    if (buckets_ == nullptr) return -ENOMEM;
    for (u32 i = 0; i < buckets; ++i) new (&buckets_[i]) list;
    mask_ = buckets - 1;
    return 0;
  }
  void release() {
    kernel::vfree(buckets_);
    buckets_ = nullptr;
  }
  [[nodiscard]] bool ready() const { return buckets_ != nullptr; }

  void add(T* r) {
    u64 block = r->first_sector >> block_index_detail::block_shift;
    for (block_entry<T>& entry : r->blocks) bucket(block++)->push_front(&entry.bucket_link);
  }
  static void remove(T* r) {
    for (block_entry<T>& entry : r->blocks) entry.bucket_link.unlink();
  }

  // Whether one that overlaps the sectors counts. Entries of other blocks in the same bucket fall
  // out through the test of the sectors.
  template <class Counts>
  [[nodiscard]] bool any_overlap(sector_t first, sector_t last, Counts counts) const {
    constexpr u32 shift = block_index_detail::block_shift;
    for (u64 block = first >> shift; block <= last >> shift; ++block) {
      for (const block_entry<T>& entry : *bucket(block)) {
        if (overlaps(*entry.owner, first, last) && counts(*entry.owner)) return true;
      }
    }
    return false;
  }
  // Whether one that was added before r, which is in the index, overlaps it.
  [[nodiscard]] bool overlaps_earlier(T* r) const {
    u64 block = r->first_sector >> block_index_detail::block_shift;
    for (const block_entry<T>& entry : r->blocks) {
      const auto* chain = bucket(block++);
      for (const block_entry<T>* older = chain->next_of(entry.bucket_link); older != nullptr;
           older = chain->next_of(older->bucket_link)) {
        if (overlaps(*older->owner, r->first_sector, r->last_sector)) return true;
      }
    }
    return false;
  }

 private:
  kernel::list_of<block_entry<T>>* bucket(u64 block) const { return &buckets_[block & mask_]; }

  kernel::list_of<block_entry<T>>* buckets_ = nullptr;
  u64 mask_ = 0;
};

}  // namespace zorv
