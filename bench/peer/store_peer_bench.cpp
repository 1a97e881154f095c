// The node store beside a graph in an `absl::flat_hash_map` (see
// graph_jobs.h), on the same jobs and sizes, in one binary. Each benchmark
// runs both sides and reports the library's figure, the peer's and their
// ratio (library : peer) as counters; times are this thread's CPU time.
//
// The machine this runs on is shared and times wander, so the binary also
// runs a single job of one side for an instruction count:
//
//   orvix_peer_bench --count JOB SIDE N
//
// JOB is build, destroy, read, lookup, derived or text; SIDE is library or
// peer ("derived" compares the library with itself: library is the lookup
// in a derived system, peer the same lookup in its base). It prints the
// number of operations, and only the job runs with callgrind's collection
// on; scripts/peer-instructions.sh turns that into the table per operation.

#include <benchmark/benchmark.h>

#include "peer/callgrind_collect.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "bench_support.h"
#include "peer/counting_allocator.h"
#include "peer/graph_jobs.h"

namespace orvix::nodes::peer {
namespace {

using bench::ThreadNanoseconds;

// Reads per benchmark iteration and per counted run.
constexpr int64_t HELD = 1000;
constexpr int64_t READ_ROUNDS = 100;

int64_t Stride(const Inputs& in) {
  return in.count > HELD ? in.count / HELD : 1;
}

void Ratio(benchmark::State& state, const char* what, double library, double peer) {
  state.counters[std::string(what) + "_lib"] = library;
  state.counters[std::string(what) + "_peer"] = peer;
  state.counters[std::string(what) + "_ratio"] = peer > 0 ? library / peer : 0;
}

// Runs `library` and `peer` once per iteration and reports their CPU time
// per operation (`operations` per run) and the ratio under `what`.
template <typename Library, typename Peer>
void TimeBoth(benchmark::State& state, const char* what, double operations, Library&& library,
              Peer&& peer) {
  double time[2] = {};
  for (auto _ : state) {
    const double t0 = ThreadNanoseconds();
    benchmark::DoNotOptimize(library());
    const double t1 = ThreadNanoseconds();
    benchmark::DoNotOptimize(peer());
    time[0] += t1 - t0;
    time[1] += ThreadNanoseconds() - t1;
  }
  const double count = double(state.iterations()) * operations;
  Ratio(state, what, time[0] / count, time[1] / count);
}

// Build, memory and destruction, per node.
void BM_BuildKeepDestroy(benchmark::State& state) {
  const Inputs in(state.range(0));
  double build[2] = {}, bytes[2] = {}, destroy[2] = {};
  for (auto _ : state) {
    size_t before = LiveHeapBytes();
    double t0 = ThreadNanoseconds();
    Ref<NodeSystem> graph = BuildLibrary(in);
    double t1 = ThreadNanoseconds();
    if (!graph) {
      state.SkipWithError("the library's build failed");
      return;
    }
    bytes[0] += double(LiveHeapBytes() - before);
    build[0] += t1 - t0;
    t0 = ThreadNanoseconds();
    graph.Reset();
    destroy[0] += ThreadNanoseconds() - t0;

    before = LiveHeapBytes();
    auto* peer = new PeerGraph();
    t0 = ThreadNanoseconds();
    const bool built = BuildPeer(in, *peer);
    t1 = ThreadNanoseconds();
    if (!built) {
      state.SkipWithError("the peer's build failed");
      return;
    }
    bytes[1] += double(LiveHeapBytes() - before);
    build[1] += t1 - t0;
    t0 = ThreadNanoseconds();
    delete peer;
    destroy[1] += ThreadNanoseconds() - t0;
  }
  const double nodes = double(state.iterations()) * double(in.count);
  Ratio(state, "build_ns", build[0] / nodes, build[1] / nodes);
  Ratio(state, "bytes", bytes[0] / nodes, bytes[1] / nodes);
  Ratio(state, "destroy_ns", destroy[0] / nodes, destroy[1] / nodes);
}
BENCHMARK(BM_BuildKeepDestroy)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// A value read through a handle held since before the loop.
void BM_ReadThroughHeldHandle(benchmark::State& state) {
  const Inputs in(state.range(0));
  const Ref<NodeSystem> graph = BuildLibrary(in);
  PeerGraph peer;
  BuildPeer(in, peer);
  const std::vector<GNode> held = HoldLibrary(*graph, in, Stride(in));
  const std::vector<const PeerNode*> heldPeer = HoldPeer(peer, in, Stride(in));
  TimeBoth(
      state, "read_ns", double(held.size()),
      [&] { return ReadHeldLibrary(*graph, held, 1, in.valueId); },
      [&] { return ReadHeldPeer(heldPeer, 1); });
}
BENCHMARK(BM_ReadThroughHeldHandle)->Arg(1000)->Arg(10000)->Arg(100000);

// A lookup by path in a system derived from the graph, beside the same lookup
// in the graph itself (the "peer" here is the base).
void BM_LookupInDerivedVsBase(benchmark::State& state) {
  const Inputs in(state.range(0));
  const Ref<NodeSystem> graph = BuildLibrary(in);
  const Ref<NodeSystem> derived = DeriveLibrary(graph);
  TimeBoth(
      state, "derived_vs_base_ns", double(in.count),
      [&] { return LookupLibrary(*derived, in.inPaths); },
      [&] { return LookupLibrary(*graph, in.inPaths); });
}
BENCHMARK(BM_LookupInDerivedVsBase)->Arg(1000)->Arg(10000)->Arg(100000);

// A port found from its text: parsed and looked up.
void BM_LookupFromText(benchmark::State& state) {
  const Inputs in(state.range(0));
  const Ref<NodeSystem> graph = BuildLibrary(in);
  PeerGraph peer;
  BuildPeer(in, peer);
  TimeBoth(
      state, "text_ns", double(in.count), [&] { return LookupTextLibrary(*graph, in.inTexts); },
      [&] { return LookupTextPeer(peer, in.inTexts); });
}
BENCHMARK(BM_LookupFromText)->Arg(1000)->Arg(10000)->Arg(100000);

// --- One job of one side, for callgrind. Returns the number of operations,
// or -1 if the job or side is unknown or the job failed.
int64_t CountJob(std::string_view job, bool library, int64_t n) {
  const Inputs in(n);
  if (job == "build") {
    Ref<NodeSystem> graph;
    PeerGraph peer;
    bool ok = true;
    ORVIX_COLLECT_ON();
    if (library) {
      graph = BuildLibrary(in);
    } else {
      ok = BuildPeer(in, peer);
    }
    ORVIX_COLLECT_OFF();
    return (library ? bool(graph) : ok) ? n : -1;
  }
  if (job == "destroy") {
    Ref<NodeSystem> graph = library ? BuildLibrary(in) : Ref<NodeSystem>();
    auto* peer = new PeerGraph();
    if (!library) BuildPeer(in, *peer);
    ORVIX_COLLECT_ON();
    graph.Reset();
    delete peer;
    ORVIX_COLLECT_OFF();
    return n;
  }
  if (job == "read") {
    const Ref<NodeSystem> graph = BuildLibrary(in);
    PeerGraph peer;
    BuildPeer(in, peer);
    const std::vector<GNode> held = HoldLibrary(*graph, in, Stride(in));
    const std::vector<const PeerNode*> heldPeer = HoldPeer(peer, in, Stride(in));
    ORVIX_COLLECT_ON();
    const double sum = library ? ReadHeldLibrary(*graph, held, READ_ROUNDS, in.valueId)
                               : ReadHeldPeer(heldPeer, READ_ROUNDS);
    ORVIX_COLLECT_OFF();
    benchmark::DoNotOptimize(sum);
    return READ_ROUNDS * int64_t(held.size());
  }
  if (job == "derived") {
    const Ref<NodeSystem> graph = BuildLibrary(in);
    const Ref<NodeSystem> derived = DeriveLibrary(graph);
    ORVIX_COLLECT_ON();
    const int64_t found = LookupLibrary(library ? *derived : *graph, in.inPaths);
    ORVIX_COLLECT_OFF();
    return found == n ? n : -1;
  }
  if (job == "lookup" || job == "text") {
    const Ref<NodeSystem> graph = BuildLibrary(in);
    PeerGraph peer;
    BuildPeer(in, peer);
    ORVIX_COLLECT_ON();
    const int64_t found = library ? (job == "text" ? LookupTextLibrary(*graph, in.inTexts)
                                                   : LookupLibrary(*graph, in.inPaths))
                                  : LookupTextPeer(peer, in.inTexts);
    ORVIX_COLLECT_OFF();
    return found == n ? n : -1;
  }
  return -1;
}

}  // namespace
}  // namespace orvix::nodes::peer

int main(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], "--count") == 0) {
    const std::string_view side = argv[3];
    if (side != "library" && side != "peer") {
      std::fprintf(stderr, "side must be library or peer\n");
      return 2;
    }
    const int64_t ops =
        orvix::nodes::peer::CountJob(argv[2], side == "library", std::atoll(argv[4]));
    if (ops < 0) {
      std::fprintf(stderr, "unknown job or failed run: %s\n", argv[2]);
      return 1;
    }
    std::printf("%lld\n", static_cast<long long>(ops));
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
