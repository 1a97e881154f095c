// Structural edits at scale, through the published operations: adding ports
// and wiring them, and removing a node whose ports carry many wires. The
// figures are per operation, so that a cost that grows with the size of the
// system (rather than with the edit) shows as a rising number across sizes.

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "orvix/graph/wires.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system.h"
#include "orvix/nodes/node_system_class.h"

namespace orvix::nodes {
namespace {

using bench::Name;
using bench::Path;
using bench::ThreadNanoseconds;

// A finished system whose only content is `inputs` input ports "i0", "i1",
// ... and one output "out": the base of a child node.
Ref<NodeSystem> MakeOperator(NodeSystemClass& cls, int64_t inputs) {
  MutableRoot root = cls.CreateNodeSystem().Value();
  NodeSystem& s = *root._system;
  GNode in = s.GetPortList(root._root, PORT_DIR::INPUT).Value();
  GNode out = s.GetPortList(root._root, PORT_DIR::OUTPUT).Value();
  for (int64_t i = 0; i < inputs; ++i)
    (void)s.AddPort(in, Name("i", i), GNODE_FLAGS::NONE, nullptr);
  (void)s.AddPort(out, "out", GNODE_FLAGS::NONE, nullptr);
  return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
}

// Per iteration, in a new system with one child node "n": N top-level input
// ports "<p<k>" and N nested ports "n<i0/<k>" below the child's input, and
// the N wires <p<k> -> n<i0/<k>. The counters split the CPU time by operation;
// the end of the modification (no validation stages installed: the
// modified-list bookkeeping and the garbage pass) is reported apart.
void BM_AddPortsAndWires(benchmark::State& state) {
  const int64_t count = state.range(0);
  Ref<NodeSystemClass> cls = CreateDefaultNodeSystemClass().Value();
  Ref<NodeSystem> op = MakeOperator(*cls, 1);
  // The ids exist before the first iteration: interning a new id is the
  // pool's cost, paid once per process, not the edit's.
  std::vector<std::string> sourceIds, targetIds;
  for (int64_t k = 0; k < count; ++k) {
    sourceIds.push_back(Name("p", k));
    targetIds.push_back(Name("", k));
    (void)InternedId::Get(sourceIds.back());
    (void)InternedId::Get(targetIds.back());
  }
  double addPort = 0, connect = 0, end = 0;
  for (auto _ : state) {
    state.PauseTiming();
    MutableRoot root = cls->CreateNodeSystem().Value();
    NodeSystem& s = *root._system;
    (void)s.AddChild("n", op, nullptr);
    GNode inputs = s.GetPortList(root._root, PORT_DIR::INPUT).Value();
    GNode nestedParent = s.FindByPath(Path("n<i0"));
    std::vector<GNode> sources, targets;
    sources.reserve(size_t(count));
    targets.reserve(size_t(count));
    state.ResumeTiming();

    const double t0 = ThreadNanoseconds();
    for (int64_t k = 0; k < count; ++k) {
      Result<GNode> source = s.AddPort(inputs, sourceIds[size_t(k)], GNODE_FLAGS::NONE, nullptr);
      Result<GNode> target =
          s.AddPort(nestedParent, targetIds[size_t(k)], GNODE_FLAGS::NONE, nullptr);
      if (!source || !target) {
        state.SkipWithError("AddPort failed");
        return;
      }
      sources.push_back(std::move(source).Value());
      targets.push_back(std::move(target).Value());
    }
    const double t1 = ThreadNanoseconds();
    for (int64_t k = 0; k < count; ++k) {
      const Result<void> done =
          s.Connect(sources[size_t(k)], targets[size_t(k)], Wires(0x10), nullptr);
      if (!done) {
        state.SkipWithError(done.GetError().GetMessage().c_str());
        return;
      }
    }
    const double t2 = ThreadNanoseconds();
    Ref<NodeSystem> finished = root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
    const double t3 = ThreadNanoseconds();
    addPort += t1 - t0;
    connect += t2 - t1;
    end += t3 - t2;

    state.PauseTiming();
    finished.Reset();
    sources.clear();
    targets.clear();
    state.ResumeTiming();
  }
  const double n = double(state.iterations()) * double(count);
  state.SetItemsProcessed(int64_t(state.iterations()) * count * 3);
  state.counters["AddPort_ns"] = addPort / (2 * n);
  state.counters["Connect_ns"] = connect / n;
  state.counters["End_ns_per_wire"] = end / n;
}
BENCHMARK(BM_AddPortsAndWires)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// A finished graph with the child "hub" whose `ports` inputs are each wired
// from a top-level input of the root. Each iteration edits a copy of it (the
// copy-on-write BeginModification, as an editor does) and removes the hub:
// every wire is taken away at both ends and every root port is marked.
void BM_RemoveNodeWithConnectedPorts(benchmark::State& state) {
  const int64_t ports = state.range(0);
  Ref<NodeSystemClass> cls = CreateDefaultNodeSystemClass().Value();
  Ref<NodeSystem> op = MakeOperator(*cls, ports);
  MutableRoot build = cls->CreateNodeSystem().Value();
  NodeSystem& b = *build._system;
  (void)b.AddChild("hub", op, nullptr);
  GNode inputs = b.GetPortList(build._root, PORT_DIR::INPUT).Value();
  for (int64_t k = 0; k < ports; ++k) {
    GNode source = b.AddPort(inputs, Name("p", k), GNODE_FLAGS::NONE, nullptr).Value();
    GNode target = b.FindByPath(Path(Name("hub<i", k)));
    (void)b.Connect(source, target, Wires(0x10), nullptr);
  }
  const Ref<NodeSystem> graph = build.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
  const NodePath hub = Path("hub");

  for (auto _ : state) {
    state.PauseTiming();
    Ref<NodeSystem> shared = graph;
    MutableRoot edit = BeginModification(shared).Value();
    GNode node = edit._system->FindByPath(hub);
    state.ResumeTiming();
    const Result<void> removed = edit._system->Remove(node, nullptr);
    if (!removed) state.SkipWithError(removed.GetError().GetMessage().c_str());
    state.PauseTiming();
    edit._system.Reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * ports);
  state.counters["ports"] = double(ports);
}
BENCHMARK(BM_RemoveNodeWithConnectedPorts)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace orvix::nodes
