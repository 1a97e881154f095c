// Attribute values: a read through 0, 1 and 3 bases, which follows record
// pointers and allocates nothing, and a write that changes its table in place
// against one that first has to retire the table, because a value of it was
// handed out during the modification.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_support.h"
#include "node_system_probe.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {
namespace {

using bench::Name;
using bench::Path;

// A system under modification whose input port <x holds "gain" and
// `extra` further values.
MutableRoot OpenWithValues(int64_t extra) {
  MutableRoot root = CreateDefaultNodeSystemClass().Value()->CreateNodeSystem().Value();
  NodeSystem& s = *root._system;
  const GNode x =
      s.AddPort(s.GetPortList(root._root, PORT_DIR::INPUT).Value(), "x", GNODE_FLAGS::NONE, nullptr)
          .Value();
  (void)s.SetValue(x, InternedId::Get("gain"), Data(int64_t{0}), nullptr);
  for (int64_t i = 0; i < extra; ++i) {
    (void)s.SetValue(x, InternedId::Get(Name("v", i)), Data(i), nullptr);
  }
  return root;
}

// A chain of `depth` systems above a base that holds "gain" at <x. Every
// level stores a value of its own at <x, so that a read of "gain" from the
// top passes one record per level before it reaches the base's.
Ref<NodeSystem> MakeChain(int64_t depth) {
  MutableRoot root = OpenWithValues(4);
  Ref<NodeSystem> system = root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
  for (int64_t level = 1; level <= depth; ++level) {
    Ref<NodeSystem> derived = NodeSystemImpl::CreateDerived(
                                  Ref<NodeSystemImpl>(static_cast<NodeSystemImpl*>(system.Get())))
                                  .Value();
    system.Reset();
    MutableRoot edit = BeginModification(derived, false).Value();
    (void)edit._system->SetValue(edit._system->FindByPath(Path("<x")), InternedId::Get("level"),
                                 Data(level), nullptr);
    system = edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
  }
  return system;
}

void BM_ReadThroughBases(benchmark::State& state) {
  const Ref<NodeSystem> system = MakeChain(state.range(0));
  const GNode x = system->FindByPath(Path("<x"));
  const InternedId gain = InternedId::Get("gain");
  int64_t prefix = -2;
  const Result<const Data*> first = system->GetValue(x, gain, &prefix, true);
  // The value must come from the base, and the handle be the top's own record.
  if (!first || !(**first == Data(int64_t{0})) || (state.range(0) > 0 && prefix != 0) ||
      x.system != system.Get()) {
    state.SkipWithError("the chain doesn't hold the value where it should");
    return;
  }
  for (auto _ : state) {
    Result<const Data*> value = system->GetValue(x, gain);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_ReadThroughBases)->Arg(0)->Arg(1)->Arg(3);

// Writes of `gain` with a new value each time; with `handOut` each write
// follows a read of the value, as a caller holding it would, so that the
// write has to put a copy of the table in place. The argument is the number
// of further values in the table, which the copy carries along.
void RunWrites(benchmark::State& state, bool handOut) {
  MutableRoot root = OpenWithValues(state.range(0));
  NodeSystemImpl& s = static_cast<NodeSystemImpl&>(*root._system);
  const GNode x = s.FindByPath(Path("<x"));
  const InternedId gain = InternedId::Get("gain");
  int64_t i = 0;
  size_t retired = 0;
  for (auto _ : state) {
    if (handOut) benchmark::DoNotOptimize(s.GetValue(x, gain));
    const Result<bool> done = s.SetValue(x, gain, Data(++i), nullptr);
    if (!done || !*done) {
      state.SkipWithError("the write stored nothing");
      break;
    }
    // Retired tables live until the modification ends: end it now and then,
    // outside the timing, so that memory stays bounded.
    if (i % 4096 == 0) {
      state.PauseTiming();
      retired += NodeSystemTestProbe::Attributes(s)._retiredTables.size();
      if (!s.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP) || !s.BeginModification()) {
        state.SkipWithError("the modification could not be restarted");
      }
      state.ResumeTiming();
    }
  }
  retired += NodeSystemTestProbe::Attributes(s)._retiredTables.size();
  state.counters["retired_per_write"] =
      double(retired) / double(std::max<int64_t>(1, int64_t(state.iterations())));
}

void BM_WriteInPlace(benchmark::State& state) {
  RunWrites(state, false);
}
BENCHMARK(BM_WriteInPlace)->Arg(0)->Arg(16);

void BM_WriteRetiringTable(benchmark::State& state) {
  RunWrites(state, true);
}
BENCHMARK(BM_WriteRetiringTable)->Arg(0)->Arg(16);

}  // namespace
}  // namespace orvix::nodes
