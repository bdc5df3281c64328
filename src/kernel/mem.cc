// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/mem.h"

#include <atomic>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "kernel/fault.h"
#include "kernel/list.h"
#include "kernel/lock.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZORV_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZORV_ASAN 1
#endif
#endif

namespace kernel {
namespace {

constexpr gfp_t gfp_wait = 0x10;  // the bit that GFP_NOIO and GFP_KERNEL share

constexpr std::size_t max_align = alignof(std::max_align_t);

// vmalloc's blocks: the block that malloc gave is named in the word before the aligned address.
void* page_aligned(std::size_t bytes, bool zeroed) {
  constexpr std::size_t extra = page_size + sizeof(void*);
  if (bytes > SIZE_MAX - extra || fault_check(fault_site::alloc) != 0) return nullptr;
  void* raw = zeroed ? std::calloc(1, bytes + extra) : std::malloc(bytes + extra);
  if (raw == nullptr) return nullptr;
  const auto first = reinterpret_cast<std::uintptr_t>(raw) + sizeof(void*);
  auto* p = reinterpret_cast<void**>((first + page_size - 1) & ~std::uintptr_t{page_size - 1});
  p[-1] = raw;
  return p;
}

}  // namespace

void* kmalloc(std::size_t bytes, gfp_t flags) {
  if (fault_check(fault_site::alloc) != 0) return nullptr;
  if (bytes == 0) bytes = 1;
  return (flags & GFP_ZERO) != 0 ? std::calloc(1, bytes) : std::malloc(bytes);
}

void kfree(const void* p) { std::free(const_cast<void*>(p)); }

void* vmalloc(std::size_t bytes) { return page_aligned(bytes, false); }
void* vzalloc(std::size_t bytes) { return page_aligned(bytes, true); }

void vfree(const void* p) {
  if (p != nullptr) std::free(static_cast<void* const*>(p)[-1]);
}

page* alloc_page(gfp_t flags) {
  if (fault_check(fault_site::alloc) != 0) return nullptr;
  void* p = std::aligned_alloc(page_size, page_size);
  if (p != nullptr && (flags & GFP_ZERO) != 0) std::memset(p, 0, page_size);
  return static_cast<page*>(p);
}

void free_page(page* p) { std::free(p); }

// ---- slab caches ---------------------------------------------------------------------------

// Small objects come from malloc, which keeps free ones per thread. Larger ones it does not keep,
// so the cache holds a short list of its own; not with the address sanitizer, which is to see
// every use after free.
struct kmem_cache {
  char name[32] = {};
  std::size_t bytes = 0;
  std::size_t align = 0;
  u32 keep = 0;  // free objects to keep at most
  list_node<kmem_cache> link{this};

  struct free_object {
    free_object* next;
  };
  spinlock_t lock;
  free_object* kept GUARDED_BY(lock) = nullptr;
  u32 nr_kept GUARDED_BY(lock) = 0;
#ifndef NDEBUG
  std::atomic<s64> live{0};
#endif
};

namespace {

#ifdef ZORV_ASAN
constexpr std::size_t kept_from_bytes = SIZE_MAX;
#else
constexpr std::size_t kept_from_bytes = 1024;
#endif
constexpr std::size_t kept_bytes_per_cache = 256 * 1024;

struct cache_registry {
  std::mutex lock;
  list_of<kmem_cache> all;
};

// Never destroyed: caches of the layer itself live until the process ends.
cache_registry& caches() {
  static auto* registry = new cache_registry;
  return *registry;
}

void* take_kept(kmem_cache* cache) {
  spin_guard lock(&cache->lock);
  kmem_cache::free_object* object = cache->kept;
  if (object == nullptr) return nullptr;
  cache->kept = object->next;
  --cache->nr_kept;
  return object;
}

bool keep(kmem_cache* cache, void* object) {
  spin_guard lock(&cache->lock);
  if (cache->nr_kept == cache->keep) return false;
  cache->kept = new (object) kmem_cache::free_object{cache->kept};
  ++cache->nr_kept;
  return true;
}

}  // namespace

kmem_cache* kmem_cache_create(const char* name, std::size_t bytes, std::size_t align) {
  auto* cache = knew<kmem_cache>(GFP_KERNEL);
  if (cache == nullptr) return nullptr;
  std::memcpy(cache->name, name, strnlen(name, sizeof(cache->name) - 1));
  cache->align = align > max_align ? align : 0;
  cache->bytes = align > 1 ? (bytes + align - 1) / align * align : bytes;
  if (cache->bytes >= kept_from_bytes) {
    cache->keep = static_cast<u32>(kept_bytes_per_cache / cache->bytes);
  }
  std::lock_guard lock(caches().lock);
  caches().all.push_back(&cache->link);
  return cache;
}

void kmem_cache_destroy(kmem_cache* cache) {
  if (cache == nullptr) return;
#ifndef NDEBUG
  assert(cache->live.load() == 0);
#endif
  {
    std::lock_guard lock(caches().lock);
    cache->link.unlink();
  }
  while (void* object = take_kept(cache)) std::free(object);
  kdelete(cache);
}

void* kmem_cache_alloc(kmem_cache* cache, gfp_t flags) {
  if (fault_check(fault_site::alloc) != 0) return nullptr;
  void* object = cache->keep != 0 ? take_kept(cache) : nullptr;
  if (object == nullptr) {
    object = cache->align != 0 ? std::aligned_alloc(cache->align, cache->bytes)
                               : std::malloc(cache->bytes);
    if (object == nullptr) return nullptr;
  }
#ifndef NDEBUG
  cache->live.fetch_add(1, std::memory_order_relaxed);
#endif
  if ((flags & GFP_ZERO) != 0) std::memset(object, 0, cache->bytes);
  return object;
}

void kmem_cache_free(kmem_cache* cache, void* object) {
#ifndef NDEBUG
  cache->live.fetch_sub(1, std::memory_order_relaxed);
#endif
  if (cache->keep == 0 || !keep(cache, object)) std::free(object);
}

bool kmem_cache_exists(const char* name) {
  std::lock_guard lock(caches().lock);
  for (const kmem_cache& cache : caches().all) {
    if (std::strcmp(cache.name, name) == 0) return true;
  }
  return false;
}

// ---- memory pools --------------------------------------------------------------------------

struct mempool {
  kmem_cache* cache = nullptr;
  u32 min_nr = 0;
  spinlock_t lock;
  kbuf<void*> reserve;     // entries below nr under lock
  std::atomic<u32> nr{0};  // objects in reserve; changed under lock
  wait_queue_head wait;
};

namespace {

void* take_reserved(mempool* pool) {
  spin_guard lock(&pool->lock);
  const u32 nr = pool->nr.load(std::memory_order_relaxed);
  if (nr == 0) return nullptr;
  pool->nr.store(nr - 1);
  return pool->reserve[nr - 1];
}

bool put_reserved(mempool* pool, void* object) {
  spin_guard lock(&pool->lock);
  const u32 nr = pool->nr.load(std::memory_order_relaxed);
  if (nr == pool->min_nr) return false;
  pool->reserve[nr] = object;
  pool->nr.store(nr + 1);
  return true;
}

}  // namespace

mempool* mempool_create(u32 min_nr, kmem_cache* cache) {
  auto* pool = knew<mempool>(GFP_KERNEL);
  if (pool == nullptr) return nullptr;
  pool->cache = cache;
  pool->min_nr = min_nr;
  pool->reserve.reset(static_cast<void**>(kmalloc(min_nr * sizeof(void*), GFP_KERNEL)));
  for (u32 i = 0; pool->reserve != nullptr && i < min_nr; ++i) {
    void* object = kmem_cache_alloc(cache, GFP_KERNEL);
    if (object == nullptr) break;
    pool->reserve[i] = object;
    pool->nr.store(i + 1);
  }
  if (pool->nr.load() == min_nr && pool->reserve != nullptr) return pool;
  mempool_destroy(pool);
  return nullptr;
}

void mempool_destroy(mempool* pool) {
  if (pool == nullptr) return;
  while (void* object = take_reserved(pool)) kmem_cache_free(pool->cache, object);
  kdelete(pool);
}

void* mempool_alloc(mempool* pool, gfp_t flags) {
  // Memory may become free elsewhere without anything coming back to this pool.
  constexpr s64 retry_jiffies = 50;
  for (;;) {
    void* object = kmem_cache_alloc(pool->cache, flags);
    if (object != nullptr) return object;
    object = take_reserved(pool);
    if (object != nullptr) {
      if ((flags & GFP_ZERO) != 0) std::memset(object, 0, pool->cache->bytes);
      return object;
    }
    if ((flags & gfp_wait) == 0) return nullptr;
    might_sleep("mempool_alloc");
    wait_queue_entry e;
    e.exclusive = true;
    prepare_to_wait(&pool->wait, &e, TASK_UNINTERRUPTIBLE);
    if (pool->nr.load() == 0) schedule_timeout(retry_jiffies);
    finish_wait(&pool->wait, &e);
  }
}

// The unlocked look at nr can only be stale towards "full" for a caller whose object had been
// taken before the reserve ran low. Whoever waits does so because objects were taken after that,
// and those come back here later.
void mempool_free(mempool* pool, void* object) {
  if (pool->nr.load() < pool->min_nr && put_reserved(pool, object)) {
    wake_up(&pool->wait);
    return;
  }
  kmem_cache_free(pool->cache, object);
}

}  // namespace kernel
