#include "peer/counting_allocator.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace orvix::nodes::peer {
namespace {

std::atomic<size_t> g_live{0};

void* Allocate(size_t size, size_t alignment) {
  if (size == 0) size = 1;
  void* p = alignment > alignof(std::max_align_t)
                ? std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment)
                : std::malloc(size);
  if (p) g_live.fetch_add(malloc_usable_size(p), std::memory_order_relaxed);
  return p;
}

void Release(void* p) noexcept {
  if (!p) return;
  g_live.fetch_sub(malloc_usable_size(p), std::memory_order_relaxed);
  std::free(p);
}

void* AllocateOrThrow(size_t size, size_t alignment) {
  void* p = Allocate(size, alignment);
  if (!p) throw std::bad_alloc();
  return p;
}

}  // namespace

size_t LiveHeapBytes() noexcept {
  return g_live.load(std::memory_order_relaxed);
}

}  // namespace orvix::nodes::peer

using orvix::nodes::peer::Allocate;
using orvix::nodes::peer::AllocateOrThrow;
using orvix::nodes::peer::Release;

void* operator new(size_t size) {
  return AllocateOrThrow(size, 0);
}
void* operator new[](size_t size) {
  return AllocateOrThrow(size, 0);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, 0);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, 0);
}
void* operator new(size_t size, std::align_val_t a) {
  return AllocateOrThrow(size, size_t(a));
}
void* operator new[](size_t size, std::align_val_t a) {
  return AllocateOrThrow(size, size_t(a));
}
void* operator new(size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
  return Allocate(size, size_t(a));
}
void* operator new[](size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
  return Allocate(size, size_t(a));
}
void operator delete(void* p) noexcept {
  Release(p);
}
void operator delete[](void* p) noexcept {
  Release(p);
}
void operator delete(void* p, size_t) noexcept {
  Release(p);
}
void operator delete[](void* p, size_t) noexcept {
  Release(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
  Release(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
  Release(p);
}
void operator delete(void* p, size_t, std::align_val_t) noexcept {
  Release(p);
}
void operator delete[](void* p, size_t, std::align_val_t) noexcept {
  Release(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  Release(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  Release(p);
}
