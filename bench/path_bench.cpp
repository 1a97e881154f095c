// Paths are the keys of every lookup in a node system: these measure what a
// lookup pays (hash of a block, equality, order) and what making a path costs
// (parse, string form), for paths of 1 to 16 parts, and the interning of part
// names from two threads at once.

#include <benchmark/benchmark.h>

#include <atomic>
#include <string>
#include <vector>

#include "orvix/graph/node_path.h"

namespace orvix {
namespace {

// "node_0/node_1/.../node_<n-1>", with a last part that can be varied.
std::string PathText(int parts, std::string_view last = "") {
  std::string text;
  for (int i = 0; i < parts; ++i) {
    if (i) text += '/';
    text += (i + 1 == parts && !last.empty()) ? std::string(last) : "node_" + std::to_string(i);
  }
  return text;
}

NodePath MustParse(const std::string& text) {
  return NodePath::Parse(text).Value();
}

void PathSizes(benchmark::internal::Benchmark* b) {
  for (int parts : {1, 2, 4, 8, 16}) b->Arg(parts);
}

void BM_PathParse(benchmark::State& state) {
  const std::string text = PathText(int(state.range(0)));
  for (auto _ : state) {
    Result<NodePath> path = NodePath::Parse(text);
    benchmark::DoNotOptimize(path);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}
BENCHMARK(BM_PathParse)->Apply(PathSizes);

void BM_PathParsePort(benchmark::State& state) {
  // Half node parts, a port list, half port parts: "a/b<c/d".
  const int n = int(state.range(0));
  std::string text = PathText(n / 2 > 0 ? n / 2 : 1) + "<" + PathText(n - n / 2);
  for (auto _ : state) {
    Result<NodePath> path = NodePath::Parse(text);
    benchmark::DoNotOptimize(path);
  }
}
BENCHMARK(BM_PathParsePort)->Apply(PathSizes);

void BM_PathToString(benchmark::State& state) {
  const NodePath path = MustParse(PathText(int(state.range(0))));
  for (auto _ : state) {
    std::string text = path.ToString();
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_PathToString)->Apply(PathSizes);

void BM_PathHashBlock(benchmark::State& state) {
  const NodePath path = MustParse(PathText(int(state.range(0))));
  const NodePath::Block block = path.ToBlock();
  for (auto _ : state) {
    benchmark::DoNotOptimize(block);
    uint64_t hash = NodePath::HashBlock(block);
    benchmark::DoNotOptimize(hash);
  }
}
BENCHMARK(BM_PathHashBlock)->Apply(PathSizes);

// Two objects with equal parts: the hash matches, so every part is compared.
void BM_PathEqualsEqual(benchmark::State& state) {
  const NodePath a = MustParse(PathText(int(state.range(0))));
  const NodePath b = MustParse(PathText(int(state.range(0))));
  for (auto _ : state) {
    benchmark::DoNotOptimize(a);
    bool equal = a == b;
    benchmark::DoNotOptimize(equal);
  }
}
BENCHMARK(BM_PathEqualsEqual)->Apply(PathSizes);

// Paths that differ in the last part: the hash tells them apart at once.
void BM_PathEqualsDifferent(benchmark::State& state) {
  const NodePath a = MustParse(PathText(int(state.range(0))));
  const NodePath b = MustParse(PathText(int(state.range(0)), "other"));
  for (auto _ : state) {
    benchmark::DoNotOptimize(a);
    bool equal = a == b;
    benchmark::DoNotOptimize(equal);
  }
}
BENCHMARK(BM_PathEqualsDifferent)->Apply(PathSizes);

// Order of paths that differ in the last part: pointer tests up to it, then
// one string comparison.
void BM_PathCompare(benchmark::State& state) {
  const NodePath a = MustParse(PathText(int(state.range(0))));
  const NodePath b = MustParse(PathText(int(state.range(0)), "zzz"));
  for (auto _ : state) {
    benchmark::DoNotOptimize(a);
    int order = a.Compare(b);
    benchmark::DoNotOptimize(order);
  }
}
BENCHMARK(BM_PathCompare)->Apply(PathSizes);

// Copying a handle: one atomic increment and one decrement.
void BM_PathCopy(benchmark::State& state) {
  const NodePath path = MustParse(PathText(4));
  for (auto _ : state) {
    NodePath copy = path;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_PathCopy)->Threads(1)->Threads(2);

// Interning a name that the pool doesn't hold yet. The names are made before
// the timed loop; each run uses names of its own.
constexpr int64_t FRESH_PER_THREAD = 200000;
std::atomic<int> g_freshRun{0};

void BM_InternFresh(benchmark::State& state) {
  const int run = g_freshRun.fetch_add(1);
  std::vector<std::string> names;
  names.reserve(FRESH_PER_THREAD);
  for (int64_t i = 0; i < FRESH_PER_THREAD; ++i) {
    names.push_back("fresh_" + std::to_string(run) + "_" + std::to_string(i));
  }
  size_t next = 0;
  for (auto _ : state) {
    InternedId id = InternedId::Get(names[next++]);
    benchmark::DoNotOptimize(id);
  }
}
BENCHMARK(BM_InternFresh)->Threads(2)->Iterations(FRESH_PER_THREAD);

// Interning a name that the pool already holds: one hash and a probe of the
// shard's table, without a lock; two threads must not slow each other down.
void BM_InternExisting(benchmark::State& state) {
  std::vector<std::string> names;
  for (int i = 0; i < 1024; ++i) names.push_back("existing_" + std::to_string(i));
  for (const auto& n : names) InternedId::Get(n);
  size_t next = size_t(state.thread_index()) * 512;
  for (auto _ : state) {
    InternedId id = InternedId::Get(names[next++ & 1023]);
    benchmark::DoNotOptimize(id);
  }
}
BENCHMARK(BM_InternExisting)->Threads(1)->Threads(2);

// The order of two ids as sorted tables ask for it. With 0, the ids part in
// their first eight bytes and the order keys decide; with 1, they share them
// and the texts are compared.
void BM_InternedCompareText(benchmark::State& state) {
  const bool shared = state.range(0) != 0;
  const InternedId a = InternedId::Get(shared ? "parameter_gain" : "gain");
  const InternedId b = InternedId::Get(shared ? "parameter_bias" : "bias");
  for (auto _ : state) {
    benchmark::DoNotOptimize(a);
    int order = InternedId::CompareText(a, b);
    benchmark::DoNotOptimize(order);
  }
}
BENCHMARK(BM_InternedCompareText)->Arg(0)->Arg(1);

}  // namespace
}  // namespace orvix
