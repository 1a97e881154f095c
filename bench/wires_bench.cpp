// The bytewise operations of Wires on whole words against the same operations
// done one byte at a time, and the hash of connection keys.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "orvix/graph/connection.h"
#include "orvix/graph/node_path.h"
#include "orvix/graph/wires.h"

namespace orvix {
namespace {

// --- The byte loop: what the word arithmetic replaces.

template <typename ByteOp>
inline uint64_t ByteLoop(uint64_t a, uint64_t b, ByteOp op) {
  uint64_t out = 0;
  for (int shift = 0; shift < 64; shift += 8) {
    const uint8_t x = uint8_t(a >> shift);
    const uint8_t y = uint8_t(b >> shift);
    out |= uint64_t(op(x, y)) << shift;
  }
  return out;
}

struct LoopConcat {
  uint64_t operator()(uint64_t a, uint64_t b) const {
    return ByteLoop(a, b, [](uint8_t x, uint8_t y) { return x < y ? x : y; });
  }
};
struct LoopCombine {
  uint64_t operator()(uint64_t a, uint64_t b) const {
    return ByteLoop(a, b, [](uint8_t x, uint8_t y) { return x < y ? y : x; });
  }
};
struct LoopMaskByPriority {
  uint64_t operator()(uint64_t a, uint64_t b) const {
    return ByteLoop(a, b, [](uint8_t x, uint8_t y) { return x >= y ? x : uint8_t(0); });
  }
};
struct LoopToMask {
  uint64_t operator()(uint64_t a, uint64_t) const {
    return ByteLoop(a, 0, [](uint8_t x, uint8_t) { return x != 0 ? uint8_t(0xff) : uint8_t(0); });
  }
};

struct SwarConcat {
  uint64_t operator()(uint64_t a, uint64_t b) const { return Wires(a).Concat(Wires(b)).GetValue(); }
};
struct SwarCombine {
  uint64_t operator()(uint64_t a, uint64_t b) const {
    return Wires(a).Combine(Wires(b)).GetValue();
  }
};
struct SwarMaskByPriority {
  uint64_t operator()(uint64_t a, uint64_t b) const {
    return Wires(a).MaskByPriority(Wires(b)).GetValue();
  }
};
struct SwarToMask {
  uint64_t operator()(uint64_t a, uint64_t) const { return Wires(a).ToMask().GetValue(); }
};

// Words shaped like stored wires: most bytes 0 or a plain mode, some with
// IMPLICIT or INHERIT, so that the byte loop's branches aren't all predictable.
std::vector<uint64_t> RandomWords(size_t count, uint64_t seed) {
  static constexpr uint8_t BYTES[] = {0x00, 0x00, 0x00, 0x08, 0x10, 0x11, 0x20,
                                      0x28, 0x30, 0x3f, 0x50, 0x7f, 0x80, 0x90};
  std::mt19937_64 rng(seed);
  std::vector<uint64_t> words(count);
  for (uint64_t& w : words) {
    w = 0;
    for (int i = 0; i < 8; ++i) w |= uint64_t(BYTES[rng() % sizeof(BYTES)]) << (8 * i);
  }
  return words;
}

// out[i] = op(a[i], b[i]) over arrays of `state.range(0)` words.
template <typename Op>
void BM_Elementwise(benchmark::State& state) {
  const size_t n = size_t(state.range(0));
  const std::vector<uint64_t> a = RandomWords(n, 1);
  const std::vector<uint64_t> b = RandomWords(n, 2);
  std::vector<uint64_t> out(n);
  const Op op;
  for (auto _ : state) {
    for (size_t i = 0; i < n; ++i) out[i] = op(a[i], b[i]);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(n));
}

// A chain folded link by link, each step waiting for the one before: the
// latency of one operation rather than its throughput.
template <typename Op>
void BM_Chain(benchmark::State& state) {
  const size_t n = size_t(state.range(0));
  const std::vector<uint64_t> a = RandomWords(n, 3);
  const Op op;
  for (auto _ : state) {
    uint64_t acc = ~uint64_t(0);
    for (size_t i = 0; i < n; ++i) acc = op(acc, a[i] | 0x0101010101010101ULL);
    benchmark::DoNotOptimize(acc);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(n));
}

#define ORVIX_WIRES_BENCH(OP)                                            \
  BENCHMARK_TEMPLATE(BM_Elementwise, Swar##OP)->Range(1 << 10, 1 << 17); \
  BENCHMARK_TEMPLATE(BM_Elementwise, Loop##OP)->Range(1 << 10, 1 << 17)

ORVIX_WIRES_BENCH(Concat);
ORVIX_WIRES_BENCH(Combine);
ORVIX_WIRES_BENCH(MaskByPriority);
ORVIX_WIRES_BENCH(ToMask);
BENCHMARK_TEMPLATE(BM_Chain, SwarConcat)->Range(1 << 10, 1 << 17);
BENCHMARK_TEMPLATE(BM_Chain, LoopConcat)->Range(1 << 10, 1 << 17);

// --- Hash of connection keys, as a connection table computes it per lookup.

std::vector<ConnectionKey> RandomKeys(size_t count) {
  std::mt19937_64 rng(4);
  std::vector<ConnectionKey> keys;
  keys.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const std::string text = "node" + std::to_string(rng() % 512) + (rng() % 2 ? "<in" : ">out") +
                             std::to_string(rng() % 16);
    keys.push_back(ConnectionKey{
        NodePath::Parse(text).Value(),
        ConnectionKey::MakeSelector(CONNECTION_TYPE(rng() % 2), CONNECTION_DIRECTION(rng() % 2))});
  }
  return keys;
}

void BM_ConnectionKeyHash(benchmark::State& state) {
  const std::vector<ConnectionKey> keys = RandomKeys(size_t(state.range(0)));
  for (auto _ : state) {
    uint64_t sum = 0;
    for (const ConnectionKey& key : keys) sum += key.GetHashCode();
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ConnectionKeyHash)->Range(1 << 10, 1 << 17);

// Equal keys made from two separately parsed paths: the slow side of equality.
void BM_ConnectionKeyEquals(benchmark::State& state) {
  const std::vector<ConnectionKey> a = RandomKeys(size_t(state.range(0)));
  const std::vector<ConnectionKey> b = RandomKeys(size_t(state.range(0)));
  for (auto _ : state) {
    size_t equal = 0;
    for (size_t i = 0; i < a.size(); ++i) equal += a[i] == b[i];
    benchmark::DoNotOptimize(equal);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ConnectionKeyEquals)->Range(1 << 10, 1 << 17);

}  // namespace
}  // namespace orvix
