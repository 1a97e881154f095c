#include "failing_allocator.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace orvix::test {
namespace {
std::atomic<uint64_t> g_count{0};
std::atomic<uint64_t> g_failAt{0};
std::atomic<int64_t> g_live{0};
std::atomic<bool> g_failed{false};

// Null when this allocation is the one that must fail.
void* Allocate(std::size_t size) noexcept {
  const uint64_t n = g_count.fetch_add(1, std::memory_order_relaxed) + 1;
  const uint64_t failAt = g_failAt.load(std::memory_order_relaxed);
  if (failAt != 0 && n == failAt) {
    g_failed.store(true, std::memory_order_relaxed);
    return nullptr;
  }
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p) g_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}

void* AllocateAligned(std::size_t size, std::align_val_t align) noexcept {
  const uint64_t n = g_count.fetch_add(1, std::memory_order_relaxed) + 1;
  const uint64_t failAt = g_failAt.load(std::memory_order_relaxed);
  if (failAt != 0 && n == failAt) {
    g_failed.store(true, std::memory_order_relaxed);
    return nullptr;
  }
  const std::size_t a = static_cast<std::size_t>(align);
  void* p = std::aligned_alloc(a, (size + a - 1) / a * a);
  if (p) g_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}

void Release(void* p) noexcept {
  if (!p) return;
  g_live.fetch_sub(1, std::memory_order_relaxed);
  std::free(p);
}
}  // namespace

uint64_t FailingAllocator::Count() noexcept {
  return g_count.load(std::memory_order_relaxed);
}
int64_t FailingAllocator::Live() noexcept {
  return g_live.load(std::memory_order_relaxed);
}
void FailingAllocator::Arm(uint64_t failAt) noexcept {
  g_failed.store(false, std::memory_order_relaxed);
  g_count.store(0, std::memory_order_relaxed);
  g_failAt.store(failAt, std::memory_order_relaxed);
}
void FailingAllocator::Disarm() noexcept {
  g_failAt.store(0, std::memory_order_relaxed);
}
bool FailingAllocator::Failed() noexcept {
  return g_failed.load(std::memory_order_relaxed);
}

}  // namespace orvix::test

using orvix::test::Allocate;
using orvix::test::AllocateAligned;
using orvix::test::Release;

void* operator new(std::size_t size) {
  if (void* p = Allocate(size)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  if (void* p = Allocate(size)) return p;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void* operator new(std::size_t size, std::align_val_t align) {
  if (void* p = AllocateAligned(size, align)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size, std::align_val_t align) {
  if (void* p = AllocateAligned(size, align)) return p;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
  return AllocateAligned(size, align);
}
void* operator new[](std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
  return AllocateAligned(size, align);
}
void operator delete(void* p) noexcept {
  Release(p);
}
void operator delete[](void* p) noexcept {
  Release(p);
}
void operator delete(void* p, std::size_t) noexcept {
  Release(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  Release(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
  Release(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
  Release(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
  Release(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
  Release(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  Release(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  Release(p);
}
