// The validation driver: the order of the stages and how a failed one runs
// again, queue order, the port passes and how work spreads along wires, and
// garbage.

#include "node_system_probe.h"
#include "validation/validation_queue.h"
#include "validation_test_support.h"

namespace orvix::nodes::test {
namespace {

// A chain a>o -> b<i, b>o -> c<i of nodes without bases, whose ports are
// sorted one by one; b's inner wire b<i -> b>o puts b<i before b>o. Every
// step of the end is logged (a run of steps of one stage as one entry), the
// step named by `failing` fails, and the port stage records its steps and
// marks what `onStep` asks of a step ("b<i-": synthesized, "b<i+": inherited).
class Driver : public ::testing::Test {
 protected:
  void SetUp() override {
    stages.validatePort = [this](NodeSystemImpl& sys, GNode& port, GFI direction) {
      const bool inheriting = direction == DERIVED_PORT_INHERITED;
      const std::string name = port.path.ToString();
      (inheriting ? inherited : synthesized).push_back(name);
      auto it = onStep.find(name + (inheriting ? "+" : "-"));
      if (it != onStep.end()) Mark(sys, it->second.first, it->second.second);
      return Step("port");
    };
    stages.validateAttributes = [this](NodeSystemImpl& sys, ChangeList*) -> Result<void> {
      ORVIX_TRY(Step("attributes"));
      sys.ClearModified(MODIFIED_AV_ALL | MODIFIED_SAV_ALL);
      return Ok();
    };
    s = NewSystem(&stages);
    ASSERT_TRUE(s->BeginModification());
    Add(*s, {"a", "a>", "a>o", "b", "b<", "b<i", "b>", "b>o", "c", "c<", "c<i"});
    Connect(*s, "a>o", "b<i");
    Connect(*s, "b<i", "b>o");
    Connect(*s, "b>o", "c<i");
    ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
    // The end validated all seven adds; the passes ran in order.
    EXPECT_EQ(synthesized, (Strings{"c<i", "b>o", "b<i", "a>o"}));
    EXPECT_EQ(inherited, (Strings{"a>o", "b<i", "b>o", "c<i"}));
    synthesized.clear();
    inherited.clear();
    log.clear();
    ASSERT_TRUE(s->BeginModification());
  }
  Result<void> Step(const std::string& name) {
    if (log.empty() || log.back() != name) log.push_back(name);
    if (name == failing) return Error(ERROR_CLASS::ILLEGAL_STATE, name + " failed");
    return Ok();
  }

  ValidationStages stages;
  std::string failing;
  Strings log, synthesized, inherited;
  std::map<std::string, std::pair<std::string, GFI>> onStep;  // step -> (port, bits)
  Ref<NodeSystemImpl> s;
};

// Each step in turn fails once: the end reports its error and keeps the
// system mutable with the failed step's bits; the next end runs again from
// that step on.
TEST_F(Driver, TheEndRunsItsStepsInOrderAndAFailedOneAgainAtTheNextEnd) {
  const GFI bits = MODIFIED_TOPOLOGY | MODIFIED_PV_CHILDREN | MODIFIED_AV_ATTRIBUTES;
  const struct {
    std::string failing;
    GFI kept;
    Strings log;
  } rows[] = {
      {"port", MODIFIED_PV_CHILDREN | MODIFIED_AV_ATTRIBUTES, {"port", "|", "port", "attributes"}},
      {"attributes", MODIFIED_AV_ATTRIBUTES, {"port", "attributes", "|", "attributes"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.failing);
    Mark(*s, "c<i", bits);
    failing = row.failing;
    EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)),
              row.failing + " failed");
    EXPECT_TRUE(NodeSystemTestProbe::IsMutable(*s));
    EXPECT_EQ(NodeSystemTestProbe::Validation(*s)._portValidation, nullptr);
    EXPECT_EQ(ModifiedOf(*s, "c<i") & bits, row.kept);
    log.push_back("|");
    failing.clear();
    ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
    EXPECT_TRUE(s->IsFinalized());
    EXPECT_EQ(log, row.log);
    log.clear();
    ASSERT_TRUE(s->BeginModification());
  }
}

// A loop through ports fails the topology stage: the later stages don't
// run, the topology bits stay, and the next end sorts again.
TEST_F(Driver, ALoopThroughPortsStopsTheEndBeforeThePortStage) {
  Add(*s, {"<r", ">s"});
  Connect(*s, "<r", ">s");
  Connect(*s, ">s", "<r");
  EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)),
            "The ports [>s, <r] form a cycle.");
  EXPECT_TRUE(NodeSystemTestProbe::IsMutable(*s));
  EXPECT_TRUE(HasAll(NodeSystemTestProbe::Validation(*s)._systemFlags, MODIFIED_TOPOLOGY));
  EXPECT_EQ(log, Strings{});
  ASSERT_TRUE(s->Remove(s->FindByPath(P(">s")), nullptr));
  ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  EXPECT_EQ(log, (Strings{"port", "attributes"}));
}

TEST_F(Driver, LateQueueEntriesRunRightAfterTheCurrentPort) {
  for (const bool descending : {false, true}) {
    SCOPED_TRACE(descending ? "descending" : "ascending");
    ValidationQueue queue(*s, descending, 10);
    // Relative keys whichever the direction.
    auto put = [&](uint64_t key, const std::string& port) {
      EXPECT_TRUE(queue.PutAt(descending ? 9 - key : key, GNode(P("<" + port))));
    };
    for (uint64_t key : {8, 2, 5}) put(key, "k" + std::to_string(key));
    Strings order;
    ASSERT_TRUE(queue.Process([&](GNode& port) -> Result<void> {
      order.push_back(port.path.ToString());
      if (order.back() == "<k5") {
        put(1, "late1");   // behind the sweep
        put(5, "again5");  // at it
        put(7, "ahead7");  // ahead: main entries
      }
      if (order.back() == "<late1") put(0, "late0");
      return Ok();
    }));
    EXPECT_EQ(order, (Strings{"<k2", "<k5", "<late1", "<late0", "<again5", "<ahead7", "<k8"}));
    EXPECT_FALSE(queue.IsProcessing());
  }
}

TEST_F(Driver, NewChildrenSpreadAgainstTheSweepOnlyWhenTheBitIsNew) {
  Mark(*s, "c<i", MODIFIED_PV_CHILDREN);
  // In the synthesized pass a step that gives b<i new children would reach
  // a>o, against the sweep; b>o is a target of b<i, not a source, so it isn't
  // reached.
  onStep["b<i-"] = {"b<i", MODIFIED_PV_CHILDREN};
  ASSERT_TRUE(s->ValidatePorts(nullptr));
  EXPECT_EQ(synthesized, (Strings{"c<i", "b>o"}));
  // The inherited pass starts from the list (c<i) and spreads to targets only.
  EXPECT_EQ(inherited, (Strings{"c<i"}));
}

TEST_F(Driver, ASpreadingStepQueuesItsTargetsAheadOfTheSweep) {
  Mark(*s, "a>o", MODIFIED_PV_SOURCES);
  onStep["a>o+"] = {"a>o", MODIFIED_PV_SHORTCUT};  // new in this pass: spreads
  onStep["b<i+"] = {"b<i", MODIFIED_PV_SOURCES};   // doesn't spread
  ASSERT_TRUE(s->ValidatePorts(nullptr));
  EXPECT_EQ(synthesized, Strings{});  // nothing of the first pass's mask
  EXPECT_EQ(inherited, (Strings{"a>o", "b<i"}));
}

TEST_F(Driver, AContextParameterOutputWithNewTargetsIsMarkedForAttributes) {
  // The inherited pass looks at ports with bits of its own mask.
  Mark(*s, "a>o", MODIFIED_PV_TARGETS | MODIFIED_PV_SOURCES);
  GNode h = s->MakeHandle(P("a>o"));
  Must(s->GetMutable(h, NODE_KIND::OUTPORT))->flags |= CONTEXT_PARAMETER_PORT;
  ASSERT_TRUE(s->ValidatePorts(nullptr));
  EXPECT_TRUE(HasAll(ModifiedOf(*s, "a>o"), MODIFIED_ATTRIBUTES));
}

TEST_F(Driver, GarbageIsSkippedByTheStagesAndFreedAtTheEnd) {
  Mark(*s, "b<i", MODIFIED_PV_SOURCES);
  Mark(*s, "c<i", MODIFIED_PV_SOURCES);
  ASSERT_TRUE(s->RemoveEntry(P("c<i")));
  GNode c = s->MakeHandle(P("c"));
  Must(s->GetMutable(c, NODE_KIND::NODE))->children.Erase(InternedId::Get("c"));
  ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  EXPECT_EQ(inherited, Strings{"b<i"});
  EXPECT_EQ(NodeSystemTestProbe::Validation(*s)._firstModified, g_modifiedListEnd);
  EXPECT_TRUE(s->IsFinalized());
}

// While attributes are derived, new attribute bits of a port queue its
// neighbours in both directions, and the port itself for the direction not
// being derived.
TEST_F(Driver, NewAttributeBitsQueueTheNeighboursAndTheOtherDirection) {
  auto drain = [](ValidationQueue& queue) {
    Strings ports;
    EXPECT_TRUE(queue.Process([&](GNode& port) -> Result<void> {
      ports.push_back(port.path.ToString());
      return Ok();
    }));
    return ports;
  };
  const uint64_t count = NodeSystemTestProbe::Validation(*s)._topology->GetIndexCount();
  ValidationQueue inherited(*s, false, count), synthesized(*s, true, count);
  AttributeSetup setup{&inherited, &synthesized, DERIVATION_DIRECTION::SYNTHESIZED};
  NodeSystemTestProbe::SetAttributeSetup(*s, &setup);
  NodeSystemTestProbe::SetValidationMask(*s, ToBits(MODIFIED_AV_ALL));
  Mark(*s, "b<i", MODIFIED_AV_ATTRIBUTES);
  Mark(*s, "b<i", MODIFIED_AV_ATTRIBUTES | MODIFIED_SAV_ATTRIBUTES);  // nothing new in the mask
  EXPECT_EQ(drain(inherited), (Strings{"b<i", "b>o"}));               // b<i and its target
  EXPECT_EQ(drain(synthesized), Strings{"a>o"});
  // With induced dependencies in the mask every touch counts, even one that adds no bit.
  ValidationQueue inducedInherited(*s, false, count), inducedSynthesized(*s, true, count);
  setup = {&inducedInherited, &inducedSynthesized, DERIVATION_DIRECTION::NONE};
  NodeSystemTestProbe::SetValidationMask(*s, ToBits(MODIFIED_SAV_ALL | INDUCED_DEPENDENCIES));
  Mark(*s, "b<i", MODIFIED_SAV_ATTRIBUTES);
  EXPECT_EQ(drain(inducedInherited), Strings{"b>o"});
  EXPECT_EQ(drain(inducedSynthesized), Strings{"a>o"});
  NodeSystemTestProbe::SetAttributeSetup(*s, nullptr);
}

}  // namespace
}  // namespace orvix::nodes::test
