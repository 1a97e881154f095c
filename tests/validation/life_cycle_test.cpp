// The modification bracket: states, the reference test, the copy-on-write
// entry, the order of the end and its failures.

#include <functional>

#include "orvix/host/diagnostics.h"
#include "orvix/nodes/config_variables.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system_class_impl.h"
#include "validation_test_support.h"

namespace orvix::nodes::test {
namespace {

struct SystemState {
  bool initialized;
  bool isMutable;
  bool validated;
  bool finalized;
  friend bool operator==(const SystemState&, const SystemState&) = default;
};

SystemState StateOf(const NodeSystemImpl& s) {
  return {s.IsInitialized(), s._mutable, s.IsValidated(), s.IsFinalized()};
}

void PrintTo(const SystemState& s, std::ostream* os) {
  *os << "{init " << s.initialized << ", mutable " << s.isMutable << ", validated " << s.validated
      << ", finalized " << s.finalized << "}";
}

// A topology stage that fails while `*failing` is set.
ValidationStages FailingTopology(const bool* failing) {
  ValidationStages stages;
  stages.validateTopology = [failing](NodeSystemImpl&) -> Result<void> {
    if (*failing) return Error(ERROR_CLASS::ILLEGAL_STATE, "The ports <a form a cycle.");
    return Ok();
  };
  return stages;
}

TEST(LifeCycle, StatesAlongTheBracket) {
  EXPECT_EQ(StateOf(*MakeRef<NodeSystemImpl>()), (SystemState{false, false, true, true}));
  Ref<NodeSystemImpl> s = NewSystem();
  EXPECT_EQ(StateOf(*s), (SystemState{true, false, true, true}));
  ASSERT_TRUE(s->BeginModification());
  EXPECT_EQ(StateOf(*s), (SystemState{true, true, true, true}));  // nothing pending yet
  // A copy takes the modification over.
  Ref<NodeSystemImpl> copy = MakeRef<NodeSystemImpl>();
  ASSERT_TRUE(copy->CopyFrom(*s));
  EXPECT_EQ(StateOf(*copy), (SystemState{true, true, true, true}));
  Add(*s, "a");
  EXPECT_EQ(StateOf(*s), (SystemState{true, true, false, false}));
  Add(*s, "a<in");
  ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  EXPECT_EQ(StateOf(*s), (SystemState{true, false, true, true}));
}

TEST(LifeCycle, InitRefusesTheWrongStateAndANullClass) {
  const std::string message =
      "Illegal argument: Condition !IsInitialized() && !_mutable && cls not fulfilled. ";
  Ref<NodeSystemImpl> fresh = MakeRef<NodeSystemImpl>();
  Result<GNode> noClass = fresh->Init(nullptr);
  ASSERT_FALSE(noClass);
  EXPECT_EQ(noClass.GetError().GetMessage(), message);
  EXPECT_FALSE(fresh->IsInitialized());

  Ref<NodeSystemImpl> done = NewSystem();
  Result<GNode> again = done->Init(CreateDefaultNodeSystemClass().Value());
  ASSERT_FALSE(again);
  EXPECT_EQ(again.GetError().GetMessage(), message);
}

TEST(LifeCycle, BracketMessages) {
  Ref<NodeSystemImpl> s = NewSystem();
  // An edit outside the bracket.
  EXPECT_EQ(Message(s->CheckModification(true)),
            "Node system modification not within BeginModification()/EndModification().");
  EXPECT_EQ(Message(s->Validate(nullptr)),
            "Node system modification not within BeginModification()/EndModification().");
  EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)),
            "Illegal state: Condition _mutable not fulfilled. ");

  ASSERT_TRUE(s->BeginModification());
  EXPECT_EQ(Message(s->BeginModification()),
            "BeginModification() called while there already is an active modification.");
  EXPECT_TRUE(s->_mutable);  // the first modification runs on

  // NONE requires that nothing is pending, and keeps the bracket open.
  Add(*s, "a");
  EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::NONE)),
            "Illegal state: Condition IsValidated() not fulfilled. ");
  EXPECT_TRUE(s->_mutable);
  ASSERT_TRUE(s->Validate(nullptr));
  EXPECT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::NONE));
  EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::NONE)),
            "Illegal state: Condition _mutable not fulfilled. ");
}

// A template that never instantiates; it only names systems.
class NamingTemplate : public NodeTemplateBase {
 public:
  NamingTemplate() : NodeTemplateBase("net.orvix.test.naming", "1") {}
  Result<Ref<NodeSystem>> InstantiateImpl(const InstantiationContext&,
                                          const Ref<TemplateArguments>&) const override {
    return Error(ERROR_CLASS::FUNCTION_NOT_IMPLEMENTED, "not here");
  }
};

TEST(LifeCycle, BeginDropsTheTemplateAndTakesTheBeginStamp) {
  Ref<NodeSystemImpl> s = NewSystem();
  s->_template = MakeRef<NamingTemplate>();
  s->_templateArguments = MakeRef<TemplateArguments>();
  const uint64_t before = s->GetModificationStamp();
  ASSERT_TRUE(s->BeginModification());
  EXPECT_FALSE(s->_template);
  EXPECT_FALSE(s->_templateArguments);
  EXPECT_EQ(s->_beginStamp, s->_modificationStamp);
  ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  // An empty bracket changes nothing that readers see.
  EXPECT_EQ(s->GetModifications(before), MODIFIED::NONE);
}

TEST(LifeCycle, TwoReferencesCopyAtThePublicLevelAndFailAtTheImplementation) {
  Ref<NodeSystemImpl> impl = NewSystem();
  Ref<NodeSystem> shared(impl);
  EXPECT_EQ(Message(impl->BeginModification()), "More than one reference to node system .");
  EXPECT_FALSE(impl->_mutable);

  Ref<NodeSystem> mine = shared;
  Result<MutableRoot> root = BeginModification(mine, true);
  ASSERT_TRUE(root) << root.GetError().GetMessage();
  EXPECT_FALSE(mine);  // the root is the one owner now
  NodeSystemImpl* copy = static_cast<NodeSystemImpl*>(root->_system.Get());
  EXPECT_NE(copy, impl.Get());
  EXPECT_TRUE(copy->HasSingleOwner());
  EXPECT_EQ(copy->_nodes.Get(), impl->_nodes.Get());  // nothing written yet: the map is shared
  EXPECT_FALSE(impl->_mutable);
  // That the old object keeps its state through the copy's edits is checked
  // by the random edits, which keep such copies.
}

TEST(LifeCycle, PublicBeginOnASingleReferenceWorksInPlace) {
  Ref<NodeSystemImpl> impl = NewSystem();
  NodeSystemImpl* raw = impl.Get();
  Ref<NodeSystem> system(std::move(impl));
  Result<MutableRoot> root = BeginModification(system);
  ASSERT_TRUE(root);
  EXPECT_EQ(root->_system.Get(), raw);
  EXPECT_TRUE(raw->_mutable);
  EXPECT_EQ(root->_root.path.GetCount(), 0u);
}

TEST(LifeCycle, PublicBeginPutsTheOldReferenceBackOnFailure) {
  Ref<NodeSystemImpl> impl = NewSystem();
  ASSERT_TRUE(impl->BeginModification());
  // A copy of a system in modification is in modification too, so beginning
  // on it fails, and the caller gets its old object back.
  Ref<NodeSystem> other(impl);
  Ref<NodeSystem> system(impl);
  Result<MutableRoot> root = BeginModification(system);
  ASSERT_FALSE(root);
  EXPECT_EQ(root.GetError().GetMessage(),
            "BeginModification() called while there already is an active modification.");
  EXPECT_EQ(system.Get(), static_cast<NodeSystem*>(impl.Get()));

  Ref<NodeSystem> none;
  Result<MutableRoot> null = BeginModification(none);
  ASSERT_FALSE(null);
  EXPECT_EQ(null.GetError().GetClass(), ERROR_CLASS::NULL_OBJECT);
  EXPECT_EQ(Message(MutableRoot().EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)),
            "Illegal state: Condition _system not fulfilled. ");
}

// A class whose finishing step fails while `failing` is set, and counts calls.
class RefusingClass : public NodeSystemClassImpl {
 public:
  bool failing = true;
  int calls = 0;
  uint64_t seenBeginStamp = 0;
  FINALIZE_FLAGS seenFlags = FINALIZE_FLAGS::NONE;
  std::string_view GetClassId() const override { return "net.orvix.test.refusingclass"; }
  Result<MutableRoot> CreateNodeSystem() override {
    return Error(ERROR_CLASS::FUNCTION_NOT_IMPLEMENTED, "not here");
  }
  Result<void> FinalizeModification(const GNode& root, uint64_t beginStamp, FINALIZE_FLAGS flags,
                                    ChangeList*) override {
    ++calls;
    seenBeginStamp = beginStamp;
    seenFlags = flags;
    EXPECT_EQ(root.path.GetCount(), 0u);
    if (failing) return Error(ERROR_CLASS::ILLEGAL_STATE, "refused");
    return Ok();
  }
  Result<Ref<NodeSystem>> CopyNodeSystem(const NodeSystem&) override {
    return Error(ERROR_CLASS::FUNCTION_NOT_IMPLEMENTED, "not here");
  }
};

TEST(LifeCycle, AFailedEndLeavesTheSystemMutableAndALaterOneSucceeds) {
  Ref<NodeSystemImpl> s = NewSystem();
  Ref<RefusingClass> cls = MakeRef<RefusingClass>();
  s->_class = cls;
  ASSERT_TRUE(s->BeginModification());
  const uint64_t begin = s->_beginStamp;
  Add(*s, "a");
  EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::FOR_GROUP)), "refused");
  EXPECT_TRUE(s->_mutable);
  EXPECT_FALSE(s->IsValidated());
  EXPECT_EQ(cls->seenBeginStamp, begin);
  EXPECT_EQ(cls->seenFlags, FINALIZE_FLAGS::FOR_GROUP);

  cls->failing = false;
  EXPECT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  EXPECT_TRUE(s->IsFinalized());
  EXPECT_FALSE(s->_mutable);
  // NONE neither asks the class nor validates.
  ASSERT_TRUE(s->BeginModification());
  EXPECT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::NONE));
  EXPECT_EQ(cls->calls, 2);
}

TEST(LifeCycle, AFailedValidationKeepsItsBitsAndTheNextEndRepeatsIt) {
  bool failing = true;
  const ValidationStages stages = FailingTopology(&failing);
  Ref<NodeSystemImpl> s = NewSystem(&stages);
  ASSERT_TRUE(s->BeginModification());
  Add(*s, "<in");
  EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)),
            "The ports <a form a cycle.");
  EXPECT_EQ(StateOf(*s), (SystemState{true, true, false, false}));
  EXPECT_TRUE(HasAny(s->_systemFlags, GFI::MODIFIED_TOPOLOGY));
  EXPECT_TRUE(HasAny(FlagsOf(*s, "<in"), GFI::MODIFIED_TOPOLOGY));
  failing = false;
  EXPECT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  EXPECT_TRUE(s->IsFinalized());
  EXPECT_EQ(s->_firstModified, g_modifiedListEnd);
}

// The messages of the check are the connection suite's; here it only matters
// that the end runs it, after the bracket is closed.
TEST(LifeCycle, TheConnectionTestRunsAtTheEndWhenSwitchedOn) {
  struct Switch {
    Switch() { g_testGetConnections.Set(true); }
    ~Switch() { g_testGetConnections.Reset(); }
  } on;
  Ref<NodeSystemImpl> s = NewSystem();
  ASSERT_TRUE(s->BeginModification());
  for (const char* p : {"a", "a>out", "b", "b<in"}) Add(*s, p);
  Connect(*s, "a>out", "b<in", 0x3f);
  ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));

  ASSERT_TRUE(s->BeginModification());
  GNode in = s->MakeHandle(P("b<in"));
  NodeInfo* inInfo = s->GetMutable(in, NODE_KIND::INPORT).Value();
  ASSERT_TRUE(NodeSystemImpl::ConnectionTableOf(inInfo)->Erase(
      ConnectionKey::Make(P("a>out"), CONNECTION_TYPE::NORMAL, CONNECTION_DIRECTION::SOURCE)));
  EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)),
            "Reverse connection from a>out to b<in not found.");
  EXPECT_FALSE(s->_mutable);
}

}  // namespace
}  // namespace orvix::nodes::test
