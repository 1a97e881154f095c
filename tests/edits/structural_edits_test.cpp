// The structural edits on a small graph: nodes made from finished systems,
// ports, wires and their removal.

#include <gtest/gtest.h>

#include "orvix/nodes/modification.h"
#include "store/node_system_impl.h"

namespace orvix::nodes::test {
namespace {

NodePath P(std::string_view text) {
  return NodePath::Parse(text).Value();
}

std::string Message(const Result<void>& r) {
  return r ? std::string("(ok)") : r.GetError().GetMessage();
}

// A finished system with the given input and output ports.
Ref<NodeSystem> MakeOperator(std::initializer_list<std::string_view> inputs,
                             std::initializer_list<std::string_view> outputs) {
  Ref<NodeSystemClass> cls = CreateDefaultNodeSystemClass().Value();
  MutableRoot root = cls->CreateNodeSystem().Value();
  NodeSystem& s = *root._system;
  GNode in = s.GetPortList(root._root, PORT_DIR::INPUT).Value();
  GNode out = s.GetPortList(root._root, PORT_DIR::OUTPUT).Value();
  for (std::string_view id : inputs) EXPECT_TRUE(s.AddPort(in, id, GNODE_FLAGS::NONE, nullptr));
  for (std::string_view id : outputs) EXPECT_TRUE(s.AddPort(out, id, GNODE_FLAGS::NONE, nullptr));
  return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
}

TEST(StructuralEdits, SmallGraph) {
  Ref<NodeSystem> add = MakeOperator({"a", "b"}, {"sum"});
  Ref<NodeSystemClass> cls = CreateDefaultNodeSystemClass().Value();
  MutableRoot root = cls->CreateNodeSystem().Value();
  NodeSystem& g = *root._system;
  GNode n1 = g.AddChild("n1", add, nullptr).Value();
  GNode n2 = g.AddChild("n2", add, nullptr).Value();
  GNode out = g.FindByPath(P("n1>sum"));
  GNode in = g.FindByPath(P("n2<a"));
  ASSERT_TRUE(out);
  ASSERT_TRUE(in);
  ASSERT_TRUE(g.Connect(out, in, Wires(0x10), nullptr));
  EXPECT_EQ(g.GetConnection(out, in).Value(), Wires(0x10));
  EXPECT_EQ(Message(g.Connect(in, out, Wires(0x10), nullptr)), "");
  Ref<NodeSystem> done = root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
  EXPECT_TRUE(done->IsFinalized());
  EXPECT_EQ(done->GetConnection(out, in).Value(), Wires(0x10));

  // A copy: remove n2 there; the original keeps it.
  Ref<NodeSystem> copy = done;
  MutableRoot edit = BeginModification(copy, false).Value();
  EXPECT_TRUE(edit._system->Remove(edit._system->FindByPath(P("n2")), nullptr));
  EXPECT_FALSE(edit._system->FindByPath(P("n2<a")));
  Ref<NodeSystem> edited = edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
  EXPECT_TRUE(done->FindByPath(P("n2<a")));
  EXPECT_EQ(done->GetConnection(done->FindByPath(P("n1>sum")), done->FindByPath(P("n2<a"))).Value(),
            Wires(0x10));
  int targets = 0;
  EXPECT_TRUE(edited->GetConnections(edited->FindByPath(P("n1>sum")), PORT_DIR::OUTPUT,
                                     Wires(0x3f3f3f3f3f3f3f3f), GET_CONNECTIONS_MODE::CONNECTIONS,
                                     [&](const GNode&, Wires, const Ref<ConnectionAttributes>&) -> Result<bool> {
                                       ++targets;
                                       return true;
                                     }));
  EXPECT_EQ(targets, 0);
  (void)n1;
  (void)n2;
}

}  // namespace
}  // namespace orvix::nodes::test
