#pragma once
// A global allocator for test binaries that makes one chosen allocation fail:
// the throwing forms of operator new throw std::bad_alloc, the nothrow forms
// return null. It also counts live allocations, so that a run can show that
// what it allocated was given back. Link failing_allocator.cpp into a test
// executable of its own: it replaces operator new for the whole binary.

#include <cstddef>
#include <cstdint>

namespace orvix::test {

struct FailingAllocator {
  // Allocations made since Arm, counted from 1.
  static uint64_t Count() noexcept;
  // Allocations not yet given back, over the whole process.
  static int64_t Live() noexcept;
  // From now on, the `failAt`-th allocation fails (0: none fails, only count).
  static void Arm(uint64_t failAt) noexcept;
  // No allocation fails any more; the count goes on.
  static void Disarm() noexcept;
  // True once the armed allocation has failed.
  static bool Failed() noexcept;
};

// Arms the allocator for a scope and disarms it at the end.
class FailAllocation {
 public:
  explicit FailAllocation(uint64_t failAt) noexcept { FailingAllocator::Arm(failAt); }
  ~FailAllocation() { FailingAllocator::Disarm(); }
  FailAllocation(const FailAllocation&) = delete;
  FailAllocation& operator=(const FailAllocation&) = delete;
};

}  // namespace orvix::test
