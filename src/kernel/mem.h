// SPDX-License-Identifier: GPL-2.0-only
// Allocation that can fail with null, slab caches, and memory pools with a reserve.
//
// Every allocation passes the switch fault_site::alloc (kernel/fault.h), so that a test can
// fail the n-th one. Nothing here throws.
#pragma once

#include <memory>
#include <new>
#include <utility>

#include "kernel/types.h"

namespace kernel {

// Values as callers of the request path know them.
constexpr gfp_t GFP_NOIO = 0x10;    // may wait (for a pool's reserve), starts no I/O
constexpr gfp_t GFP_ATOMIC = 0x20;  // never waits
constexpr gfp_t GFP_KERNEL = 0xd0;  // may sleep
constexpr gfp_t GFP_ZERO = 0x8000;  // zero-filled

[[nodiscard]] void* kmalloc(std::size_t bytes, gfp_t flags);
[[nodiscard]] inline void* kzalloc(std::size_t bytes, gfp_t flags) {
  return kmalloc(bytes, flags | GFP_ZERO);
}
void kfree(const void* p);                       // null is accepted
[[nodiscard]] void* vmalloc(std::size_t bytes);  // may sleep; page-aligned, not zeroed
[[nodiscard]] void* vzalloc(std::size_t bytes);  // zero-filled, pages untouched until used
void vfree(const void* p);                       // null is accepted

// A page is a handle to at most 4096 bytes. alloc_page's are aligned; one that page_at() makes
// over a caller's memory need not be and is never freed here.
struct page;
[[nodiscard]] page* alloc_page(gfp_t flags);
void free_page(page* p);
inline std::byte* page_address(page* p) { return reinterpret_cast<std::byte*>(p); }
inline page* page_at(void* memory) { return static_cast<page*>(memory); }

// Typed objects: null when memory is short; T's constructor must not throw.
template <class T, class... Args>
[[nodiscard]] T* knew(gfp_t flags, Args&&... args) {
  void* p = kzalloc(sizeof(T), flags);
  return p == nullptr ? nullptr : new (p) T(std::forward<Args>(args)...);
}
template <class T>
void kdelete(T* p) {
  if (p == nullptr) return;
  p->~T();
  kfree(p);
}
// Owners.
struct kfree_deleter {
  void operator()(void* p) const { kfree(p); }
};
struct vfree_deleter {
  void operator()(void* p) const { vfree(p); }
};
template <class T>
using kbuf = std::unique_ptr<T[], kfree_deleter>;
template <class T>
using vbuf = std::unique_ptr<T[], vfree_deleter>;

struct kmem_cache;
[[nodiscard]] kmem_cache* kmem_cache_create(const char* name, std::size_t bytes, std::size_t align);
void kmem_cache_destroy(kmem_cache* cache);  // null is accepted; no object may be live
[[nodiscard]] void* kmem_cache_alloc(kmem_cache* cache, gfp_t flags);
void kmem_cache_free(kmem_cache* cache, void* object);
// For tests: whether a cache of that name exists.
[[nodiscard]] bool kmem_cache_exists(const char* name);

// A pool keeps min_nr objects in reserve. An allocation asks the cache first and the reserve
// second; with both empty a GFP_ATOMIC caller gets null and any other caller waits until an
// object comes back (so it never fails, and must not hold what the others need to finish).
struct mempool;
[[nodiscard]] mempool* mempool_create(u32 min_nr, kmem_cache* cache);
void mempool_destroy(mempool* pool);  // null is accepted; no object may be live
[[nodiscard]] void* mempool_alloc(mempool* pool, gfp_t flags);
void mempool_free(mempool* pool, void* object);

}  // namespace kernel
