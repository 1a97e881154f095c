#pragma once
// 64-bit hash mixing shared by the host's hashed types.

#include <cstdint>

namespace orvix {

// A bijective finaliser: every input bit reaches every output bit.
constexpr uint64_t MixHash(uint64_t x) noexcept {
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebULL;
  x ^= x >> 31;
  return x;
}

// Folds `value` into `seed`; the order of folding matters.
constexpr uint64_t CombineHash(uint64_t seed, uint64_t value) noexcept {
  return MixHash(seed ^ (value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2)));
}

}  // namespace orvix
