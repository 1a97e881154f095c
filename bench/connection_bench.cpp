// Connection queries on a port with many wires: the filtered read of one
// connection (GetConnection: one key lookup per layer) against the walk over
// all of them (GetConnections), in the system that made the wires and in
// systems derived from it, with and without an edit of the port at each
// level. The filtered read should stay flat as the wires grow; the walk pays
// per wire, and per base for every other end it has to resolve.

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>
#include <vector>

#include "bench_support.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {
namespace {

using bench::Name;
using bench::Path;

// A finished system in which the root input "<x" is passed through to
// `wires` root outputs ">o<k>".
Ref<NodeSystemImpl> MakeFanOut(int64_t wires) {
  Ref<NodeSystemClass> cls = CreateDefaultNodeSystemClass().Value();
  MutableRoot root = cls->CreateNodeSystem().Value();
  NodeSystem& s = *root._system;
  GNode in = s.GetPortList(root._root, PORT_DIR::INPUT).Value();
  GNode out = s.GetPortList(root._root, PORT_DIR::OUTPUT).Value();
  GNode x = s.AddPort(in, "x", GNODE_FLAGS::NONE, nullptr).Value();
  for (int64_t k = 0; k < wires; ++k) {
    GNode o = s.AddPort(out, Name("o", k), GNODE_FLAGS::NONE, nullptr).Value();
    (void)s.Connect(x, o, Wires(0x10), nullptr);
  }
  Ref<NodeSystem> done = root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
  return StaticRefCast<NodeSystemImpl>(done);
}

// `bases` systems derived one from the next, starting at a fan-out of
// `wires`. With `edit`, each derived system changes the mode of one wire of
// "<x", so that the port has a record, with a one-entry table, at every
// level; without, a lookup falls through to the first system.
struct Chain {
  std::vector<Ref<NodeSystemImpl>> systems;  // the first is the fan-out
  const NodeSystemImpl& Top() const { return *systems.back(); }
};

Chain MakeChain(int64_t wires, int64_t bases, bool edit) {
  Chain chain;
  chain.systems.push_back(MakeFanOut(wires));
  for (int64_t level = 0; level < bases; ++level) {
    Ref<NodeSystemImpl> derived = NodeSystemImpl::CreateDerived(chain.systems.back()).Value();
    if (edit) {
      (void)derived->BeginModification();
      GNode x = derived->FindByPath(Path("<x"));
      GNode o = derived->FindByPath(Path(Name(">o", level)));
      (void)derived->Connect(x, o, Wires(0x20), nullptr);
      (void)derived->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
    }
    chain.systems.push_back(std::move(derived));
  }
  return chain;
}

void SetLabels(benchmark::State& state) {
  state.counters["wires"] = double(state.range(0));
  state.counters["bases"] = double(state.range(1));
  state.counters["edited"] = double(state.range(2));
}

// One connection, looked up by its other end: a wire in the middle.
void BM_GetConnection(benchmark::State& state) {
  const Chain chain = MakeChain(state.range(0), state.range(1), state.range(2) != 0);
  const NodeSystem& s = chain.Top();
  const GNode x = s.FindByPath(Path("<x"));
  const GNode o = s.FindByPath(Path(Name(">o", state.range(0) / 2)));
  for (auto _ : state) {
    Result<Wires> w = s.GetConnection(x, o);
    if (!w || w->IsEmpty()) state.SkipWithError("the wire is missing");
    benchmark::DoNotOptimize(w);
  }
  SetLabels(state);
}

// The same connection found by walking every target of "<x": what a reader
// without the filter pays. The walk runs to its end, as a reader of all the
// targets does.
void BM_GetConnectionsWalk(benchmark::State& state) {
  const Chain chain = MakeChain(state.range(0), state.range(1), state.range(2) != 0);
  const NodeSystem& s = chain.Top();
  const GNode x = s.FindByPath(Path("<x"));
  const NodePath wanted = Path(Name(">o", state.range(0) / 2));
  int64_t reports = 0;
  for (auto _ : state) {
    Wires found;
    reports = 0;
    Result<bool> ran = s.GetConnections(
        x, PORT_DIR::OUTPUT, WIRES_FILTER_ALL_EXPLICIT, GET_CONNECTIONS_MODE::CONNECTIONS,
        [&](const GNode& other, Wires w, const Ref<ConnectionAttributes>&) -> Result<bool> {
          ++reports;
          if (other.path == wanted) found = w;
          return true;
        });
    if (!ran || found.IsEmpty()) state.SkipWithError("the wire is missing");
    benchmark::DoNotOptimize(found);
  }
  SetLabels(state);
  state.counters["reports"] = double(reports);
  state.SetItemsProcessed(int64_t(state.iterations()) * reports);
}

// {wires, bases, edited}: growth in wires at no base, then depth at 1k wires.
void Shapes(benchmark::internal::Benchmark* b) {
  b->Args({100, 0, 0})->Args({1000, 0, 0})->Args({10000, 0, 0});
  b->Args({1000, 1, 0})->Args({1000, 3, 0})->Args({1000, 1, 1})->Args({1000, 3, 1});
}
BENCHMARK(BM_GetConnection)->Apply(Shapes);
BENCHMARK(BM_GetConnectionsWalk)->Apply(Shapes)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace orvix::nodes
