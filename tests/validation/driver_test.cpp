// The validation driver: queue order, the port passes and how work spreads
// along wires, garbage, quick exits and the timing lines.

#include "orvix/host/diagnostics.h"
#include "orvix/nodes/config_variables.h"
#include "validation/validation_queue.h"
#include "validation_test_support.h"

namespace orvix::nodes::test {
namespace {

TEST(ValidationQueue, LateEntriesRunRightAfterTheCurrentPort) {
  Ref<NodeSystemImpl> s = NewSystem();
  for (const bool descending : {false, true}) {
    SCOPED_TRACE(descending ? "descending" : "ascending");
    ValidationQueue queue(*s, descending, 10);
    // Relative keys 2, 5, 8 whichever the direction.
    for (uint64_t key : {8, 2, 5}) {
      EXPECT_TRUE(queue.PutAt(descending ? 9 - key : key, GNode(P("<k" + std::to_string(key)))));
    }
    std::vector<std::string> order;
    auto key = [&](uint64_t k) { return descending ? 9 - k : k; };
    ASSERT_TRUE(queue.Process([&](GNode& port) -> Result<void> {
      const std::string name = port.path.ToString();
      order.push_back(name);
      if (name == "<k5") {
        EXPECT_TRUE(queue.PutAt(key(1), GNode(P("<late1"))));   // behind the sweep
        EXPECT_TRUE(queue.PutAt(key(5), GNode(P("<again5"))));  // at it
        EXPECT_TRUE(queue.PutAt(key(7), GNode(P("<ahead7"))));  // ahead: main entries
      }
      if (name == "<late1") {
        EXPECT_TRUE(queue.PutAt(key(0), GNode(P("<late0"))));
      }
      return Ok();
    }));
    EXPECT_EQ(order, (std::vector<std::string>{"<k2", "<k5", "<late1", "<late0", "<again5",
                                               "<ahead7", "<k8"}));
    EXPECT_FALSE(queue.IsProcessing());
  }
}

TEST(ValidationQueue, AStepErrorEndsProcessingAndDropsTheLateEntries) {
  Ref<NodeSystemImpl> s = NewSystem();
  ValidationQueue queue(*s, false, 4);
  EXPECT_TRUE(queue.PutAt(0, GNode(P("<a"))));
  EXPECT_TRUE(queue.PutAt(3, GNode(P("<b"))));
  int steps = 0;
  Result<void> r = queue.Process([&](GNode&) -> Result<void> {
    ++steps;
    EXPECT_TRUE(queue.PutAt(0, GNode(P("<c"))));
    return Error(ERROR_CLASS::UNEXPECTED, "stop");
  });
  EXPECT_EQ(Message(r), "stop");
  EXPECT_EQ(steps, 1);
  EXPECT_FALSE(queue.IsProcessing());
}

TEST(ValidationQueue, APortWithoutAnIndexIsAnInternalError) {
  Ref<NodeSystemImpl> s = NewSystem();
  ASSERT_TRUE(s->BeginModification());
  Add(*s, "<p");
  ValidationQueue queue(*s, false, 1);
  CapturedOutput out;
  EXPECT_FALSE(queue.Put(s->MakeHandle(P("<p"))));
  EXPECT_TRUE(out.Contains(INTERNAL_ERROR_TEXT));
}

// A chain a>o -> b<i, b>o -> c<i with the ports in topological order, and a
// port stage that records its steps.
class PortPasses : public ::testing::Test {
 protected:
  void SetUp() override {
    stages.validateTopology = NumberPorts({"a>o", "b<i", "b>o", "c<i"});
    stages.validatePort = [this](NodeSystemImpl& sys, GNode& port, GFI direction) {
      const std::string name = port.path.ToString();
      (direction == GFI::DERIVED_PORT_SYNTHESIZED ? synthesized : inherited).push_back(name);
      EXPECT_TRUE(sys._portValidation);
      auto it = onStep.find(name + (direction == GFI::DERIVED_PORT_INHERITED ? "+" : "-"));
      return it == onStep.end() ? Result<void>(Ok()) : it->second(sys);
    };
    s = NewSystem(&stages);
    ASSERT_TRUE(s->BeginModification());
    for (const char* p : {"a", "a>o", "b", "b<i", "b>o", "c", "c<i"}) Add(*s, p);
    Connect(*s, "a>o", "b<i");
    Connect(*s, "b>o", "c<i");
    ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
    firstRun = {synthesized, inherited};
    synthesized.clear();
    inherited.clear();
    ASSERT_TRUE(s->BeginModification());
  }
  void Mark(NodeSystemImpl& sys, std::string_view path, GFI bits) {
    GNode h = sys.MakeHandle(P(path));
    ASSERT_TRUE(sys.SetModified(h, bits));
  }

  ValidationStages stages;
  std::map<std::string, std::function<Result<void>(NodeSystemImpl&)>> onStep;
  Ref<NodeSystemImpl> s;
  std::vector<std::string> synthesized, inherited;
  std::pair<std::vector<std::string>, std::vector<std::string>> firstRun;
};

TEST_F(PortPasses, FirstRunValidatesEveryNewPortInBothDirections) {
  // The set-up's end validated all seven adds; the passes ran in order.
  EXPECT_EQ(firstRun.first, (std::vector<std::string>{"c<i", "b>o", "b<i", "a>o"}));
  EXPECT_EQ(firstRun.second, (std::vector<std::string>{"a>o", "b<i", "b>o", "c<i"}));
}

TEST_F(PortPasses, NewChildrenSpreadAgainstTheSweepOnlyWhenTheBitIsNew) {
  Mark(*s, "c<i", GFI::MODIFIED_PV_CHILDREN);
  // In the synthesized pass a step that gives b<i new children reaches a>o,
  // a step that gives b>o nothing new stops there.
  onStep["b<i-"] = [this](NodeSystemImpl& sys) -> Result<void> {
    Mark(sys, "b<i", GFI::MODIFIED_PV_CHILDREN);
    return Ok();
  };
  ASSERT_TRUE(s->ValidatePorts(nullptr));
  // c<i's sources are b>o; b>o isn't wired to b<i (that is inside b), so
  // nothing reaches b<i and a>o in this pass.
  EXPECT_EQ(synthesized, (std::vector<std::string>{"c<i", "b>o"}));
  // The inherited pass starts from the list (c<i) and spreads to targets only.
  EXPECT_EQ(inherited, (std::vector<std::string>{"c<i"}));
  EXPECT_TRUE(s->IsValidated());
}

TEST_F(PortPasses, ASpreadingStepQueuesItsTargetsAheadOfTheSweep) {
  Mark(*s, "a>o", GFI::MODIFIED_PV_SOURCES);
  onStep["a>o+"] = [this](NodeSystemImpl& sys) -> Result<void> {
    Mark(sys, "a>o", GFI::MODIFIED_PV_SHORTCUT);  // new in this pass: spreads
    return Ok();
  };
  onStep["b<i+"] = [this](NodeSystemImpl& sys) -> Result<void> {
    Mark(sys, "b<i", GFI::MODIFIED_PV_SOURCES);  // doesn't spread
    return Ok();
  };
  ASSERT_TRUE(s->ValidatePorts(nullptr));
  EXPECT_EQ(synthesized, std::vector<std::string>{});  // nothing of the first pass's mask
  EXPECT_EQ(inherited, (std::vector<std::string>{"a>o", "b<i"}));
  EXPECT_FALSE(HasAny(FlagsOf(*s, "b<i"), GFI::MODIFIED_PV_ALL));
  EXPECT_EQ(s->_portValidation, nullptr);
}

TEST_F(PortPasses, AContextParameterOutputWithNewTargetsIsMarkedForAttributes) {
  // The inherited pass looks at ports with bits of its own mask.
  Mark(*s, "a>o", GFI::MODIFIED_PV_TARGETS | GFI::MODIFIED_PV_SOURCES);
  GNode h = s->MakeHandle(P("a>o"));
  s->GetMutable(h, NODE_KIND::OUTPORT).Value()->flags |= GFI::CONTEXT_PARAMETER_PORT;
  s->ClearModified(GFI::MODIFIED_AV_ALL | GFI::MODIFIED_SAV_ALL);
  ASSERT_TRUE(s->ValidatePorts(nullptr));
  EXPECT_TRUE(HasAll(FlagsOf(*s, "a>o"), GFI::MODIFIED_ATTRIBUTES));
}

TEST_F(PortPasses, AFailedStepKeepsThePortBitsAndClearsThePassPointer) {
  Mark(*s, "b>o", GFI::MODIFIED_PV_TARGETS);
  onStep["b>o-"] = [](NodeSystemImpl&) -> Result<void> {
    return Error(ERROR_CLASS::ILLEGAL_STATE, "step failed");
  };
  EXPECT_EQ(Message(s->Validate(nullptr)), "step failed");
  EXPECT_EQ(s->_portValidation, nullptr);
  EXPECT_TRUE(HasAny(s->_systemFlags, GFI::MODIFIED_PV_TARGETS));
  onStep.clear();
  ASSERT_TRUE(s->Validate(nullptr));
  EXPECT_EQ(synthesized, (std::vector<std::string>{"b>o", "b>o"}));
}

TEST_F(PortPasses, GarbageIsSkippedByTheStagesAndFreedAtTheEnd) {
  Mark(*s, "b<i", GFI::MODIFIED_PV_SOURCES);
  Mark(*s, "c<i", GFI::MODIFIED_PV_SOURCES);
  ASSERT_TRUE(s->RemoveEntry(P("c<i")));
  GNode c = s->MakeHandle(P("c"));
  s->GetMutable(c, NODE_KIND::NODE).Value()->children.Erase(InternedId::Get("c"));
  ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  EXPECT_EQ(inherited, std::vector<std::string>{"b<i"});
  EXPECT_EQ(s->_firstModified, g_modifiedListEnd);
  EXPECT_TRUE(s->IsFinalized());
}

TEST(AttributeSpreading, NewAttributeBitsQueueBothDirectionsAndTheOtherQueue) {
  ValidationStages stages;
  stages.validateTopology = NumberPorts({"a>o", "b<i", "b>o", "c<i"});
  std::vector<std::string> inheritedQueue, synthesizedQueue;
  std::pair<size_t, size_t> inducedCounts{9, 9};
  stages.validateAttributes = [&](NodeSystemImpl& sys, ChangeList*) -> Result<void> {
    if (!sys.FindByPath(P("b<i"))) {
      sys.ClearModified(GFI::MODIFIED_AV_ALL | GFI::MODIFIED_SAV_ALL);
      return Ok();
    }
    // Start from ports whose attribute bits were cleared by an earlier stage.
    sys.ClearModified(GFI::MODIFIED_AV_ALL | GFI::MODIFIED_SAV_ALL);
    const uint64_t count = sys._topology->GetIndexCount();
    ValidationQueue inh(sys, false, count), syn(sys, true, count);
    AttributeSetup setup{&inh, &syn, DERIVATION_DIRECTION::SYNTHESIZED};
    sys._attribSetup = &setup;
    sys._validationMask = ToBits(GFI::MODIFIED_AV_ALL);
    GNode b = sys.MakeHandle(P("b<i"));
    ORVIX_TRY(sys.SetModified(b, GFI::MODIFIED_AV_ATTRIBUTES));
    ORVIX_TRY(sys.SetModified(b, GFI::MODIFIED_AV_ATTRIBUTES));  // nothing new
    ORVIX_TRY(inh.Process([&](GNode& p) -> Result<void> {
      inheritedQueue.push_back(p.path.ToString());
      return Ok();
    }));
    ORVIX_TRY(syn.Process([&](GNode& p) -> Result<void> {
      synthesizedQueue.push_back(p.path.ToString());
      return Ok();
    }));
    // With induced dependencies in the mask every touch counts, even one
    // that adds no bit.
    ORVIX_TRY(sys.SetModified(b, GFI::MODIFIED_SAV_ATTRIBUTES));
    ValidationQueue inh2(sys, false, count), syn2(sys, true, count);
    setup = AttributeSetup{&inh2, &syn2, DERIVATION_DIRECTION::NONE};
    sys._validationMask = ToBits(GFI::MODIFIED_SAV_ALL | GFI::INDUCED_DEPENDENCIES);
    ORVIX_TRY(sys.SetModified(b, GFI::MODIFIED_SAV_ATTRIBUTES));
    inducedCounts = {inh2.GetCount(), syn2.GetCount()};
    sys.ClearModified(GFI::MODIFIED_AV_ALL | GFI::MODIFIED_SAV_ALL);
    return Ok();
  };
  Ref<NodeSystemImpl> s = NewSystem(&stages);
  ASSERT_TRUE(s->BeginModification());
  for (const char* p : {"a", "a>o", "b", "b<i", "c", "c<i"}) Add(*s, p);
  Connect(*s, "a>o", "b<i");
  Connect(*s, "a>o", "c<i");
  ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  // b<i itself goes to the inherited queue while a synthesized attribute is
  // derived; its source a>o to the synthesized queue. It has no targets.
  EXPECT_EQ(inheritedQueue, std::vector<std::string>{"b<i"});
  EXPECT_EQ(synthesizedQueue, std::vector<std::string>{"a>o"});
  EXPECT_EQ(inducedCounts, (std::pair<size_t, size_t>{0, 1}));
  EXPECT_EQ(s->_attribSetup, nullptr);
}

TEST(DriverExits, NothingToDoPrintsNoTimeAndEachStagePrintsItsLine) {
  struct Switch {
    Switch() { g_showValidationTime.Set(true); }
    ~Switch() { g_showValidationTime.Reset(); }
  } on;
  Ref<NodeSystemImpl> s = NewSystem();
  ASSERT_TRUE(s->BeginModification());
  {
    CapturedOutput out;
    ASSERT_TRUE(s->Validate(nullptr));
    EXPECT_TRUE(out.Lines().empty());
  }
  Add(*s, "<p");
  CapturedOutput out;
  ASSERT_TRUE(s->Validate(nullptr));
  const std::vector<std::string> lines = out.Texts(OUTPUT_LEVEL::DIAGNOSTIC);
  ASSERT_EQ(lines.size(), 3u);
  const char* prefixes[] = {"Time for topology validation: ", "Time for port validation: ",
                            "Time for attribute validation: "};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(lines[i].rfind(prefixes[i], 0), 0u) << lines[i];
    EXPECT_EQ(lines[i].substr(lines[i].size() - 3), " ms") << lines[i];
  }
  EXPECT_TRUE(s->IsValidated());
}

TEST(DriverExits, TheAttributeStageAloneLeavesOtherStagesAlone) {
  Ref<NodeSystemImpl> s = NewSystem();
  ASSERT_TRUE(s->BeginModification());
  Add(*s, "<p");
  ASSERT_TRUE(s->ValidateAttributes(nullptr));
  EXPECT_FALSE(HasAny(s->_systemFlags, GFI::MODIFIED_AV_ALL | GFI::MODIFIED_SAV_ALL));
  EXPECT_TRUE(HasAll(s->_systemFlags, GFI::MODIFIED_TOPOLOGY | GFI::MODIFIED_PV_CHILDREN));
  ASSERT_TRUE(s->ValidateTopology());
  EXPECT_FALSE(HasAny(s->_systemFlags, GFI::MODIFIED_TOPOLOGY));
  EXPECT_TRUE(HasAny(s->_systemFlags, GFI::MODIFIED_PV_CHILDREN));
}

}  // namespace
}  // namespace orvix::nodes::test
