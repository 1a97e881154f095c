// The modification bracket: states, the reference test, the copy-on-write
// entry, and the messages of each misuse.

#include "node_system_probe.h"
#include "orvix/nodes/config_variables.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system_class.h"
#include "orvix/nodes/node_template.h"
#include "validation_test_support.h"

namespace orvix::nodes::test {
namespace {

// The state in four letters: Initialized, Mutable, Validated, Finalized, or
// '-' where one doesn't hold.
std::string StateOf(const NodeSystemImpl& s) {
  return std::string(s.IsInitialized() ? "I" : "-") +
         (NodeSystemTestProbe::IsMutable(s) ? "M" : "-") + (s.IsValidated() ? "V" : "-") +
         (s.IsFinalized() ? "F" : "-");
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

TEST(LifeCycle, StatesAlongTheBracketAndWhatASuccessfulEndClears) {
  Ref<NodeSystemImpl> s = NewSystem();
  ASSERT_TRUE(s->BeginModification());
  EXPECT_EQ(StateOf(*s), "IMVF");  // nothing pending yet
  Add(*s, {"a", "a<in", "a<in/x", "a>out"});
  Mark(*s, "a", MODIFIED_AV_ATTRIBUTES | MODIFIED_PV_CHILDREN);
  Mark(*s, "a<in/x", MODIFIED_AV_SOURCES);
  EXPECT_EQ(StateOf(*s), "IM--");
  ASSERT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  EXPECT_EQ(StateOf(*s), "I-VF");
  EXPECT_EQ(Listed(NodeSystemTestProbe::Validation(*s)._firstModified), Strings{});
  for (const char* path : {"a", "a<in", "a<in/x", "a>out"}) {
    EXPECT_EQ(ModifiedOf(*s, path), GFI::NONE) << path;
  }
}

TEST(LifeCycle, MessagesOfMisuse) {
  const std::string outside =
      "Node system modification not within BeginModification()/EndModification().";
  const std::string notMutable = "Illegal state: Condition _mutable not fulfilled. ";
  const std::string already =
      "BeginModification() called while there already is an active modification.";
  const std::string init =
      "Illegal argument: Condition !IsInitialized() && !_mutable && cls not fulfilled. ";
  EXPECT_EQ(Message(MakeRef<NodeSystemImpl>()->Init(nullptr)), init);
  Ref<NodeSystemImpl> s = NewSystem();
  EXPECT_EQ(Message(s->Init(Must(CreateDefaultNodeSystemClass()))), init);
  EXPECT_EQ(Message(s->CheckModification(true)), outside);
  EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)), notMutable);
  ASSERT_TRUE(s->BeginModification());
  EXPECT_EQ(Message(s->BeginModification()), already);
  EXPECT_TRUE(NodeSystemTestProbe::IsMutable(*s));  // the first modification runs on
  GNode root = s->GetRoot();
  EXPECT_EQ(Message(s->AddChildRecord(root, NODE_KIND::NODE, InternedId(), GNode(), GFI::NONE)),
            "You have to provide a valid id for the node if no base data is given.");
  // NONE requires that nothing is pending, and keeps the bracket open.
  Add(*s, {"a"});
  EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::NONE)),
            "Illegal state: Condition IsValidated() not fulfilled. ");
  EXPECT_TRUE(NodeSystemTestProbe::IsMutable(*s));
  ASSERT_TRUE(s->Validate(nullptr));
  EXPECT_TRUE(s->EndModification(nullptr, FINALIZE_FLAGS::NONE));
  EXPECT_EQ(Message(s->EndModification(nullptr, FINALIZE_FLAGS::NONE)), notMutable);

  // The public entry copies a shared system; a copy of a system in
  // modification is in modification too, so it can't begin again, and the
  // caller gets its old object back.
  ASSERT_TRUE(s->BeginModification());
  Ref<NodeSystem> system(s);
  EXPECT_EQ(Message(BeginModification(system)), already);
  EXPECT_EQ(system.Get(), static_cast<NodeSystem*>(s.Get()));
  Ref<NodeSystem> none;
  EXPECT_EQ(BeginModification(none).GetError().GetClass(), ERROR_CLASS::NULL_OBJECT);
  EXPECT_EQ(Message(MutableRoot().EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)),
            "Illegal state: Condition _system not fulfilled. ");
}

TEST(LifeCycle, ASharedSystemIsRefusedByTheImplementationAndCopiedByThePublicEntry) {
  Ref<NodeSystemImpl> impl = NewSystem();
  ASSERT_TRUE(impl->BeginModification());
  ASSERT_TRUE(impl->SetTemplate(MakeRef<NamingTemplate>().Get(), nullptr, nullptr));
  ASSERT_TRUE(impl->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  Ref<NodeSystem> shared(impl);
  EXPECT_EQ(Message(impl->BeginModification()),
            "More than one reference to node system net.orvix.test.naming.");
  Result<MutableRoot> root = BeginModification(shared, true);
  ASSERT_TRUE(root) << Message(root);
  EXPECT_NE(root->_system.Get(), static_cast<NodeSystem*>(impl.Get()));
  EXPECT_FALSE(NodeSystemTestProbe::IsMutable(*impl));
}

// The obvious code is the fast code: a successful end hands the system over
// and leaves the MutableRoot empty, so that the next begin edits in place; a
// failed end leaves it there, still open, for the caller to repair.
TEST(LifeCycle, AnEndHandsTheSystemOverAndAFailedEndKeepsItOpen) {
  MutableRoot root = Must(Must(CreateDefaultNodeSystemClass())->CreateNodeSystem());
  NodeSystem& s = *root._system;
  const GNode inputs = Must(s.GetPortList(root._root, PORT_DIR::INPUT));
  ASSERT_TRUE(s.AddPort(inputs, "a", GNODE_FLAGS::NONE, nullptr));
  EXPECT_FALSE(s.IsValidated());
  EXPECT_EQ(Message(root.EndModification(nullptr, FINALIZE_FLAGS::NONE)),
            "Illegal state: Condition IsValidated() not fulfilled. ");
  ASSERT_EQ(root._system.Get(), &s);
  EXPECT_TRUE(s.HasSingleOwner());
  ASSERT_TRUE(s.AddPort(inputs, "b", GNODE_FLAGS::NONE, nullptr));
  ASSERT_TRUE(s.Validate(nullptr));
  EXPECT_TRUE(s.IsValidated());

  Result<Ref<NodeSystem>> ended = root.EndModification(nullptr, FINALIZE_FLAGS::NONE);
  ASSERT_TRUE(ended) << Message(ended);
  Ref<NodeSystem> system = Must(std::move(ended));
  EXPECT_EQ(system.Get(), &s);
  EXPECT_FALSE(root._system || root._root);
  EXPECT_TRUE(system->HasSingleOwner());
  EXPECT_TRUE(system->FindByPath(P("<a")) && system->FindByPath(P("<b")));
  EXPECT_EQ(Message(root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)),
            "Illegal state: Condition _system not fulfilled. ");
  MutableRoot again = Must(BeginModification(system));
  EXPECT_EQ(again._system.Get(), &s);
}

// The messages of the check are the connection suite's; here it only matters
// that the end runs it, after the bracket is closed.
// The end of a modification whose wire a>out -> b<in is known to b<in no
// more: only a>out still lists it.
Result<void> EndWithAOneSidedWire() {
  Ref<NodeSystemImpl> s = NewSystem();
  ORVIX_TRY(s->BeginModification());
  Add(*s, {"a", "a>out", "b", "b<in"});
  Connect(*s, "a>out", "b<in");
  GNode in = s->MakeHandle(P("b<in"));
  ORVIX_TRY_ASSIGN(NodeInfo * info, s->GetMutable(in, NODE_KIND::INPORT));
  EXPECT_TRUE(NodeSystemImpl::ConnectionTableOf(info)->Erase(
      ConnectionKey::Make(P("a>out"), CONNECTION_TYPE::NORMAL, CONNECTION_DIRECTION::SOURCE)));
  Result<void> ended = s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  EXPECT_FALSE(NodeSystemTestProbe::IsMutable(*s));
  return ended;
}

TEST(LifeCycle, TheConnectionTestRunsAtTheEndWhenSwitchedOnAndAlwaysInADebugBuild) {
  g_testGetConnections.Set(true);
  EXPECT_EQ(Message(EndWithAOneSidedWire()), "Reverse connection from a>out to b<in not found.");
  g_testGetConnections.Set(false);
#ifndef NDEBUG
  EXPECT_EQ(Message(EndWithAOneSidedWire()), "Reverse connection from a>out to b<in not found.");
#else
  EXPECT_EQ(Message(EndWithAOneSidedWire()), "(ok)");
#endif
  g_testGetConnections.Reset();
}

}  // namespace
}  // namespace orvix::nodes::test
