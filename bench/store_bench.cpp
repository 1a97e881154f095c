// The node store: the cost of a copy against the size of the system, lookups
// through a current handle, by path and through a chain of bases, compaction
// per entry, and the bytes of a record.

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>
#include <vector>

#include "bench_support.h"
#include "node_system_probe.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {
namespace {

using bench::Name;
using bench::Path;

// A finished system of about `count` records: nodes below the root, each with
// its input port list and one input port, all listed in child tables.
Ref<NodeSystemImpl> MakeSystem(int64_t count) {
  Ref<NodeSystemImpl> system = NodeSystemImpl::CreateEmpty().Value();
  GNode root = system->GetRoot();
  NodeInfo* rootInfo = system->GetMutable(root, NODE_KIND::NODE).Value();
  const InternedId in = InternedId::Get("in");
  for (int64_t i = 0; i < count / 3; ++i) {
    const std::string name = Name("n", i);
    (void)system->SetChildRecord(rootInfo, InternedId::Get(name), CHILD_FLAGS::ADDED);
    GNode node(Path(name));
    NodeInfo* nodeInfo = system->GetMutable(node, NODE_KIND::NODE).Value();
    (void)system->SetChildRecord(nodeInfo, NodePath::GetInputsId(),
                                 CHILD_FLAGS::ADDED | CHILD_FLAGS::SYNTHETIC);
    GNode list(Path(Name("n", i, "<")));
    NodeInfo* listInfo = system->GetMutable(list, NODE_KIND::INPUTS).Value();
    (void)system->SetChildRecord(listInfo, in, CHILD_FLAGS::ADDED);
    GNode port(Path(Name("n", i, "<in")));
    (void)system->GetMutable(port, NODE_KIND::INPORT);
  }
  return system;
}

Ref<NodeSystemImpl> CopyOf(const NodeSystemImpl& source) {
  Ref<NodeSystemImpl> copy = MakeRef<NodeSystemImpl>();
  (void)copy->CopyFrom(source);
  return copy;
}

void BM_CopyOfFinishedSystem(benchmark::State& state) {
  Ref<NodeSystemImpl> system = MakeSystem(state.range(0));
  for (auto _ : state) {
    Ref<NodeSystemImpl> copy = CopyOf(*system);
    benchmark::DoNotOptimize(copy.Get());
  }
}
BENCHMARK(BM_CopyOfFinishedSystem)->Arg(1000)->Arg(10000)->Arg(100000);

void BM_DerivedSystem(benchmark::State& state) {
  Ref<NodeSystemImpl> system = MakeSystem(state.range(0));
  for (auto _ : state) {
    Ref<NodeSystemImpl> derived = NodeSystemImpl::CreateDerived(system).Value();
    benchmark::DoNotOptimize(derived.Get());
  }
}
BENCHMARK(BM_DerivedSystem)->Arg(1000)->Arg(100000);

void BM_LookupCurrentHandle(benchmark::State& state) {
  Ref<NodeSystemImpl> system = MakeSystem(state.range(0));
  GNode handle = system->FindByPath(Path("n7<in"));
  for (auto _ : state) {
    system->Refresh(handle);
    benchmark::DoNotOptimize(handle.info->flags);
  }
}
BENCHMARK(BM_LookupCurrentHandle)->Arg(1000)->Arg(100000);

void BM_LookupByPath(benchmark::State& state) {
  Ref<NodeSystemImpl> system = MakeSystem(state.range(0));
  const NodePath path = Path("n7<in");
  for (auto _ : state) {
    FoundNode found = system->FindNode(path);
    benchmark::DoNotOptimize(found.info);
  }
}
BENCHMARK(BM_LookupByPath)->Arg(1000)->Arg(100000);

void BM_LookupThroughFiveBases(benchmark::State& state) {
  std::vector<Ref<NodeSystemImpl>> chain{MakeSystem(state.range(0))};
  for (int i = 0; i < 5; ++i) chain.push_back(NodeSystemImpl::CreateDerived(chain.back()).Value());
  const NodePath path = Path("n7<in");
  for (auto _ : state) {
    FoundNode found = chain.back()->FindNode(path);
    benchmark::DoNotOptimize(found.info);
  }
}
BENCHMARK(BM_LookupThroughFiveBases)->Arg(1000)->Arg(100000);

void BM_LookupStaleHandle(benchmark::State& state) {
  Ref<NodeSystemImpl> system = MakeSystem(state.range(0));
  const GNode stale = system->FindByPath(Path("n7<in"));
  GNode moved(Path("n8"));
  (void)system->GetMutable(moved, NODE_KIND::NODE);
  (void)system->RemoveEntry(Path("n9"));  // records may have moved since `stale`
  for (auto _ : state) {
    GNode handle = stale;
    system->Refresh(handle);
    benchmark::DoNotOptimize(handle.info);
  }
}
BENCHMARK(BM_LookupStaleHandle)->Arg(1000);

// Compaction of a map of six layers; each iteration compacts a fresh copy.
void BM_CompactPerEntry(benchmark::State& state) {
  const int64_t count = state.range(0);
  Ref<NodeSystemImpl> system = MakeSystem(count);
  std::vector<Ref<NodeSystemImpl>> keep;
  for (int layer = 0; layer < 6; ++layer) {
    keep.push_back(CopyOf(*system));
    for (int64_t i = layer; i < count / 3; i += 6) {
      GNode node(Path(Name("n", i)));
      (void)system->GetMutable(node, NODE_KIND::NODE);
    }
  }
  const size_t entries = system->GetEntryCount();
  for (auto _ : state) {
    state.PauseTiming();
    Ref<NodeSystemImpl> copy = CopyOf(*system);
    state.ResumeTiming();
    (void)copy->Compact();
    benchmark::DoNotOptimize(NodeSystemTestProbe::Store(*copy)._nodes.Get());
    state.PauseTiming();
    copy.Reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(entries));
  state.counters["entries"] = double(entries);
}
BENCHMARK(BM_CompactPerEntry)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Bytes per record, with its map entry and its share of the bucket array.
void BM_RecordBytes(benchmark::State& state) {
  Ref<NodeSystemImpl> system = MakeSystem(100000);
  const NodeMap& map = *NodeSystemTestProbe::Store(*system)._nodes;
  const double perEntry = double(map.GetLayerBytes()) / double(map.GetCount());
  for (auto _ : state) benchmark::DoNotOptimize(perEntry);
  state.counters["node_bytes"] = double(NodeInfo::GetRecordSize(NODE_KIND::NODE)) + perEntry;
  state.counters["port_bytes"] = double(NodeInfo::GetRecordSize(NODE_KIND::INPORT)) + perEntry;
  state.counters["portlist_bytes"] = double(NodeInfo::GetRecordSize(NODE_KIND::INPUTS)) + perEntry;
  state.counters["entry_bytes"] = perEntry;
}
BENCHMARK(BM_RecordBytes)->Iterations(1);

}  // namespace
}  // namespace orvix::nodes
