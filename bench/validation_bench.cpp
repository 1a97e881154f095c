// The validation driver: one touched port plus Validate, against the size of
// the system. The driver's work follows the change, so 1k and 100k elements
// should cost the same.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>

#include "bench_support.h"
#include "node_system_probe.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"
#include "validation/validation_stages.h"

namespace orvix::nodes {
namespace {

using bench::Name;
using bench::Path;

// Port steps only count themselves: the figure is the driver's own cost.
int64_t g_portSteps = 0;

const ValidationStages& BenchStages() {
  static const ValidationStages stages = [] {
    ValidationStages s;
    s.validatePort = [](NodeSystemImpl&, GNode&, GNODE_FLAGS_IMPL) -> Result<void> {
      ++g_portSteps;
      return Ok();
    };
    return s;
  }();
  return stages;
}

// A validated system of about `count` elements under modification: a chain
// of nodes, each with an input and an output port, wired one to the next.
Ref<NodeSystemImpl> MakeChain(int64_t count) {
  Ref<NodeSystemImpl> system = MakeRef<NodeSystemImpl>();
  NodeSystemTestProbe::InstallStages(*system, &BenchStages());
  (void)system->Init(CreateDefaultNodeSystemClass().Value());
  (void)system->BeginModification();
  GNode root = system->GetRoot();
  for (int64_t i = 0; i < count / 5; ++i) {
    GNode node = system
                     ->AddChildRecord(root, NODE_KIND::NODE, InternedId::Get(Name("n", i)), GNode(),
                                      GNODE_FLAGS_IMPL::NONE)
                     .Value();
    for (const bool input : {true, false}) {
      const InternedId listId = input ? NodePath::GetInputsId() : NodePath::GetOutputsId();
      GNode list = system
                       ->AddChildRecord(node, input ? NODE_KIND::INPUTS : NODE_KIND::OUTPUTS,
                                        listId, GNode(), GNODE_FLAGS_IMPL::NONE)
                       .Value();
      GNode port = system
                       ->AddChildRecord(list, input ? NODE_KIND::INPORT : NODE_KIND::OUTPORT,
                                        InternedId::Get(input ? "in" : "out"), GNode(),
                                        GNODE_FLAGS_IMPL::DIRECT_PORT)
                       .Value();
      (void)system->SetModified(port, GNODE_FLAGS_IMPL::MODIFIED_TOPOLOGY);
    }
    if (i > 0) {
      GNode source = system->MakeHandle(Path(Name("n", i - 1, ">out")));
      GNode target = system->MakeHandle(Path(Name("n", i, "<in")));
      const ConnectionData data{Wires(0x3f), nullptr};
      (void)NodeSystemImpl::ConnectionTableOf(source.info)
          ->Set(ConnectionKey::Make(target.path, CONNECTION_TYPE::NORMAL,
                                    CONNECTION_DIRECTION::TARGET),
                data);
      (void)NodeSystemImpl::ConnectionTableOf(target.info)
          ->Set(ConnectionKey::Make(source.path, CONNECTION_TYPE::NORMAL,
                                    CONNECTION_DIRECTION::SOURCE),
                data);
    }
  }
  (void)system->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  (void)system->BeginModification();
  return system;
}

void BM_TouchOnePortAndValidate(benchmark::State& state) {
  Ref<NodeSystemImpl> system = MakeChain(state.range(0));
  GNode port = system->MakeHandle(Path(Name("n", state.range(0) / 10, "<in")));
  g_portSteps = 0;
  for (auto _ : state) {
    // New children spread along the wire in both passes; attributes too.
    (void)system->SetModified(
        port, GNODE_FLAGS_IMPL::MODIFIED_PV_CHILDREN | GNODE_FLAGS_IMPL::MODIFIED_AV_ATTRIBUTES);
    const Result<void> done = system->Validate(nullptr);
    if (!done) state.SkipWithError(done.GetError().GetMessage().c_str());
  }
  // The touched port in both passes, and its source in the synthesized one.
  state.counters["port_steps_per_iteration"] =
      double(g_portSteps) / double(std::max<int64_t>(1, int64_t(state.iterations())));
}
BENCHMARK(BM_TouchOnePortAndValidate)->Arg(1000)->Arg(100000);

}  // namespace
}  // namespace orvix::nodes
