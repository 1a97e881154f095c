// The structural edits on a small graph where the random edits don't reach:
// failures with their exact messages, the marks edits leave for validation,
// and what a derived system stores and shows of the base's wires and children.

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "edits_test_support.h"
#include "orvix/host/diagnostics.h"
#include "orvix/nodes/node_system_class_impl.h"

namespace orvix::nodes::test {
namespace {

constexpr uint64_t WITH_ANCESTORS = 0x7f7f7f7f7f7f7f7fULL;

// A class of another id, for the class check of AddChild.
class OtherClass final : public NodeSystemClassImpl {
 public:
  std::string_view GetClassId() const override { return "test.otherclass"; }
};

const Ref<NodeSystem>& AddOperator() {
  static const Ref<NodeSystem> op = MakeOperator({"a", "b"}, {"o"});
  return op;
}

// The graph the tests edit:
//   <r -> n1<a,  n1>o -> n2<a,  n2>o -> >s   (all 0x10 on channel 0)
// with the nested ports <r/x and n1<a/x, and the node g whose content holds
// the node m.
Ref<NodeSystem> MakeGraph() {
  MutableRoot inner = OpenEmpty();
  EXPECT_TRUE(Impl(inner).AddChild("m", AddOperator(), nullptr));
  const Ref<NodeSystem> group = Finish(inner);
  MutableRoot root = OpenEmpty();
  NodeSystemImpl& g = Impl(root);
  for (const char* id : {"n1", "n2"}) EXPECT_TRUE(g.AddChild(id, AddOperator(), nullptr));
  EXPECT_TRUE(g.AddChild("g", group, nullptr));
  for (auto [parent, id] : {std::pair{"<", "r"}, {">", "s"}, {"<r", "x"}, {"n1<a", "x"}}) {
    EXPECT_TRUE(AddPortAt(g, parent, id));
  }
  for (auto [s, t] : {std::pair{"<r", "n1<a"}, {"n1>o", "n2<a"}, {"n2>o", ">s"}}) {
    EXPECT_TRUE(ConnectAt(g, s, t, 0x10));
  }
  return Finish(root);
}

Wires WiresOf(const NodeSystemImpl& s, std::string_view from, std::string_view to) {
  return Must(s.GetConnection(s.FindByPath(P(from)), s.FindByPath(P(to))));
}

TEST(StructuralEdits, FailedEditsGiveTheirMessageAndChangeNothing) {
  // The edits run on a derived system whose base has a port that derivation
  // would have made, not a direct one.
  MutableRoot b = Open(MakeGraph());
  GNode made = Must(AddPortAt(Impl(b), "<", "d"));
  made.info->flags = (made.info->flags & ~GFI::DIRECT_PORT) | GFI::DERIVED_PORT_SYNTHESIZED;
  const Ref<NodeSystem> base = Finish(b);
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl& s = Impl(root);
  const GNode stale = Must(s.AddChild("n9", AddOperator(), nullptr));
  const GNode staleIn = s.FindByPath(P("n9<a"));
  ASSERT_TRUE(s.Remove(stale, nullptr));
  MutableRoot foreignRoot = Must(MakeRef<OtherClass>()->CreateNodeSystem());
  const Ref<NodeSystem> foreign = Finish(foreignRoot);
  MutableRoot unfinished = Open(AddOperator());
  ASSERT_TRUE(AddPortAt(*unfinished._system, ">", "p"));
  MutableRoot opened = Open(AddOperator());
  auto at = [&](std::string_view path) { return s.FindByPath(P(path)); };

  // The random edits check taken ids, ports on the wrong parent, illegal
  // removals, the connect rules and illegal modes; these are the edges they
  // don't reach: nested systems, foreign content, stale handles, sharing.
  const struct {
    const char* what;
    std::function<std::string()> edit;
    std::string message;
  } cases[] = {
      {"unfinished content", [&] { return Message(s.AddChild("n5", unfinished._system, nullptr)); },
       "Node system to add hasn't been validated."},
      {"content opened, not edited",
       [&] { return Message(s.AddChild("n5", opened._system, nullptr)); },
       "Node system to add hasn't been validated."},
      {"foreign class", [&] { return Message(s.AddChild("n5", foreign, nullptr)); },
       "Node system to add has node system class test.otherclass, expected "
       "net.orvix.node.nodesystemclass."},
      {"remove nested node", [&] { return Message(RemoveAt(s, "g/m")); },
       "Node g/m cannot be removed. Only children of the node system's root can be removed."},
      {"remove derived port", [&] { return Message(RemoveAt(s, "<d")); },
       "<d is a derived port, therefore it cannot be removed directly."},
      {"connect a node", [&] { return Message(ConnectAt(s, "n1", "n2<a", 0x10)); },
       "n1 is not a port."},
      {"connect to a list", [&] { return Message(ConnectAt(s, "n1>o", "n2<", 0x10)); },
       "n2< is not a port."},
      {"into a grandchild", [&] { return Message(ConnectAt(s, "<r", "g/m<a", 0x10)); }, ""},
      {"out of a grandchild", [&] { return Message(ConnectAt(s, "g/m>o", "n1<b", 0x10)); }, ""},
      {"stale handle",
       [&] { return Message(s.Connect(staleIn, at("n2<b"), Wires(0x10), nullptr)); },
       "Node with path n9<a doesn't exist any longer."},
      {"no handle", [&] { return Message(s.Connect(GNode(), at("n2<b"), Wires(0x10), nullptr)); },
       "Nullptr node"},
      {"value without a wire",
       [&] {
         return Message(s.SetConnectionValue(at("n1>o"), at("n2<b"), 1, Id("k"), Data(1), nullptr));
       },
       "There is no connection from n1>o to n2<b."},
      {"shared system",
       [&] {
         const Ref<NodeSystem> other = root._system;
         return Message(RemoveAt(s, "n1"));
       },
       "More than one reference to node system ."},
      {"finished system",
       [&] { return Message(ConnectAt(const_cast<NodeSystem&>(*AddOperator()), "<a", ">o", 1)); },
       "Node system modification not within BeginModification()/EndModification()."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Snapshot before = Take(s);
    EXPECT_EQ(c.edit(), c.message);
    EXPECT_TRUE(Take(s) == before);
  }
  // The derived variant removes the derived port and leaves a synthetic record.
  ASSERT_TRUE(s.RemoveDerived(at("<d"), nullptr));
  EXPECT_FALSE(at("<d"));
  EXPECT_EQ(at("<").info->children.Find(Id("d"))->flags, CHILD_FLAGS::SYNTHETIC);
  EXPECT_TRUE(Finish(root));
}

// The random edits check the bits of new elements, wire ends and parents;
// not the garbage of a port made and removed in one bracket, nor the ends of
// implicit wires.
TEST(StructuralEdits, GarbageAndTheEndsOfImplicitWiresAreMarked) {
  const Ref<NodeSystem> graph = MakeGraph();
  MutableRoot root = Open(graph);
  ASSERT_TRUE(AddPortAt(Impl(root), ">", "t"));
  ASSERT_TRUE(RemoveAt(Impl(root), ">t"));
  EXPECT_TRUE(HasAny(SystemMarks(*root._system), GFI::MODIFIED_G_GARBAGE));
  EXPECT_FALSE(Impl(root).FindByPath(P(">")).info->children.Find(Id("t")));
  EXPECT_TRUE(Finish(root));
  // The implicit wire <r/x -> n1<a/x, through <r -> n1<a: either end removed
  // marks the other, and the parent only for a lost child.
  for (auto [gone, parent, other, bits] :
       {std::tuple{"n1<a/x", "n1<a", "<r/x", GFI::MODIFIED_TARGETS},
        {"<r/x", "<r", "n1<a/x", GFI::MODIFIED_SOURCES}}) {
    root = Open(graph);
    NodeSystemImpl& s = Impl(root);
    ASSERT_TRUE(RemoveAt(s, gone));
    EXPECT_TRUE(HasAll(MarksAt(s, other), bits) && HasAll(SystemMarks(s), bits)) << gone;
    EXPECT_FALSE(HasAny(MarksAt(s, parent),
                        GFI::MODIFIED_TOPOLOGY | GFI::MODIFIED_TARGETS | GFI::MODIFIED_SOURCES));
  }
}

// Attributes set on an inherited wire are stored with it at both ends, and
// not in the base; erased, they leave nothing.
TEST(StructuralEdits, AttributesOnAnInheritedWireAreItsOnlyDifference) {
  const Ref<NodeSystem> base = MakeGraph();
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl& d = Impl(root);
  const GNode s = d.FindByPath(P("n2>o")), t = d.FindByPath(P(">s"));
  EXPECT_TRUE(Must(d.SetConnectionValue(s, t, 1, Id("label"), Data(7), nullptr)));
  EXPECT_FALSE(Must(d.SetConnectionValue(s, t, 1, Id("label"), Data(7), nullptr)));
  const auto there = StoredAt(d, "n2>o"), back = StoredAt(d, ">s");
  ASSERT_EQ(there.count(">s>") + back.count("n2>o<"), 2u);
  EXPECT_TRUE(there.at(">s>") == back.at("n2>o<"));
  EXPECT_EQ(there.at(">s>").wires, Wires(0x90));
  EXPECT_EQ(Must(d.GetConnectionValue(s, t, 1, Id("label"))), Data(7));
  const NodeSystemImpl& b = Impl(base);
  EXPECT_TRUE(
      Must(b.GetConnectionValue(b.FindByPath(P("n2>o")), b.FindByPath(P(">s")), 1, Id("label")))
          .IsEmpty());
  EXPECT_TRUE(Must(d.SetConnectionValue(s, t, 1, Id("label"), Data(), nullptr)));
  EXPECT_TRUE(StoredAt(d, "n2>o").empty() && StoredAt(d, ">s").empty());
  EXPECT_TRUE(Finish(root));
}

// The child records of resets are the random edits' business; this checks
// what else comes back with a reset child: the base's wires, with their ends
// marked.
TEST(StructuralEdits, AResetChildBringsBackTheBasesWires) {
  MutableRoot root = OpenDerived(MakeGraph());
  ASSERT_TRUE(RemoveAt(Impl(root), "n2"));
  ASSERT_TRUE(Impl(root).AddChild("n2", MakeOperator({"u"}, {"v"}), nullptr));
  root = Open(Finish(root));
  NodeSystemImpl& d = Impl(root);
  ASSERT_TRUE(d.ResetChild(d.GetRoot(), Id("n2"), nullptr));
  EXPECT_EQ(WiresOf(d, "n1>o", "n2<a"), Wires(0x10));
  EXPECT_TRUE(HasAll(SystemMarks(d), GFI::MODIFIED_PV_CHILDREN | GFI::MODIFIED_TOPOLOGY));
  EXPECT_TRUE(HasAll(MarksAt(d, "n2"), GFI::MODIFIED_TOPOLOGY));
  EXPECT_TRUE(HasAll(MarksAt(d, "n1>o"), GFI::MODIFIED_TARGETS));
  EXPECT_TRUE(HasAll(MarksAt(d, ">s"), GFI::MODIFIED_SOURCES));
  EXPECT_TRUE(Finish(root));
}

// A base's element removed and added again is a new element: nothing the
// base had below it or wired to it shows through it, from either end.
TEST(StructuralEdits, AnElementAddedAgainHidesWhatTheBaseHadBelowAndWiredToIt) {
  MutableRoot b = Open(MakeGraph());
  ASSERT_TRUE(AddPortAt(Impl(b), "<r/x", "y"));
  const Ref<NodeSystem> base = Finish(b);
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl& d = Impl(root);
  for (const char* path : {"<r", "n2"}) ASSERT_TRUE(RemoveAt(d, path));
  ASSERT_TRUE(AddPortAt(d, "<", "r"));
  ASSERT_TRUE(d.AddChild("n2", AddOperator(), nullptr));
  EXPECT_FALSE(d.FindByPath(P("<r/x")));
  EXPECT_FALSE(d.FindByPath(P("<r/x/y")));
  // Below the new port, the base has nothing to hide or to give back.
  const GNode r = d.FindByPath(P("<r"));
  ASSERT_TRUE(d.AddPort(r, "x", GNODE_FLAGS::NONE, nullptr));
  ASSERT_TRUE(RemoveAt(d, "<r/x"));
  EXPECT_FALSE(d.FindByPath(P("<r")).info->children.Find(Id("x")));
  ASSERT_TRUE(d.AddPort(r, "x", GNODE_FLAGS::NONE, nullptr));
  ASSERT_TRUE(d.ResetChild(r, Id("x"), nullptr));
  EXPECT_FALSE(d.FindByPath(P("<r/x")));
  for (const char* p : {"<r", "n1>o", "n2>o"}) EXPECT_TRUE(Ends(d, p, PORT_DIR::OUTPUT).empty());
  EXPECT_EQ(WiresOf(d, "n1>o", "n2<a"), Wires(0));
  EXPECT_TRUE(Finish(root));
}

// A node taken back with content that stands on the system's own base shows
// that content: the base reached through the new node is not the old node.
TEST(StructuralEdits, ANodeTakenBackWithContentOnTheSameBaseShowsItsContent) {
  MutableRoot b = OpenEmpty();
  ASSERT_TRUE(AddPortAt(*b._system, "<", "p"));
  ASSERT_TRUE(b._system->AddChild("n0", AddOperator(), nullptr));
  const Ref<NodeSystem> base = Finish(b);
  MutableRoot c = OpenDerived(base);
  const Ref<NodeSystem> content = Finish(c);
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl& d = Impl(root);
  CapturedOutput output;
  ASSERT_TRUE(RemoveAt(d, "n0"));
  ASSERT_TRUE(d.AddChild("n0", content, nullptr));
  for (const char* path : {"n0<", "n0>", "n0<p"}) EXPECT_TRUE(d.FindByPath(P(path))) << path;
  EXPECT_FALSE(d.FindByPath(P("n0<a")));  // the old node's port
  EXPECT_EQ(Tree(d).count("n0<p"), 1u);
  EXPECT_TRUE(Finish(root));
  EXPECT_FALSE(output.Contains("Internal error"));
}

// A base's wire into a nested port that the derived system removes hides
// nothing: the implicit wire of the port's ancestor reaches the nested port,
// seen alike from both ends. A base's wire read at a port nested two levels
// deep whose counterpart at the other end doesn't exist is no wire, and no
// broken store either.
TEST(StructuralEdits, BaseWiresAtNestedPortsHideNoImplicitWireAndMissNoEnd) {
  MutableRoot b = Open(MakeGraph());
  ASSERT_TRUE(ConnectAt(Impl(b), "n2>o", "n1<a/x", 0x10));
  const Ref<NodeSystem> base = Finish(b);
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl& d = Impl(root);
  ASSERT_TRUE(ConnectAt(d, "n2>o", "n1<a/x", 0x3e));
  EXPECT_EQ(Ends(d, "n1<a/x", PORT_DIR::INPUT, WITH_ANCESTORS),
            (std::map<std::string, uint64_t>{{"<r/x", 0x50}}));
  EXPECT_EQ(Message(d.CheckConnectionConsistency()), "(ok)");
  ASSERT_TRUE(AddPortAt(d, "n1>o", "x"));
  ASSERT_TRUE(AddPortAt(d, "n1>o/x", "y"));
  CapturedOutput output;
  EXPECT_TRUE(Ends(d, "n1>o/x/y", PORT_DIR::OUTPUT, WITH_ANCESTORS).empty());
  EXPECT_FALSE(output.Contains(INTERNAL_ERROR_TEXT));
}

// Regression: the other ends of a removed port were collected in one walk,
// which reports an end once, so an end wired both ways got one mark; none
// when the first entry was a derived system's hiding a base's wire.
TEST(StructuralEdits, AnEndWiredBothWaysToARemovedPortIsMarkedForBoth) {
  // A pair wired both ways is a loop through ports, which validation refuses:
  // the removal comes in the modification that made the pair, after the
  // marks of the wiring are cleared as a validation would clear them.
  MutableRoot root = Open(MakeGraph());
  ASSERT_TRUE(ConnectAt(Impl(root), ">s", "<r", 0x10));
  ASSERT_TRUE(ConnectAt(Impl(root), "<r", ">s", 0x10));
  Impl(root).ClearModified(GFI::MODIFIED_SOURCES | GFI::MODIFIED_TARGETS);
  ASSERT_FALSE(HasAny(MarksAt(*root._system, ">s"), GFI::MODIFIED_SOURCES | GFI::MODIFIED_TARGETS));
  ASSERT_TRUE(RemoveAt(Impl(root), "<r"));
  EXPECT_TRUE(HasAll(MarksAt(*root._system, ">s"), GFI::MODIFIED_SOURCES | GFI::MODIFIED_TARGETS));
  EXPECT_TRUE(root._system->Validate(nullptr));
}

// Regression: a removal in a derived system took the base's wires without
// moving the connection stamps of their other ends or the system's.
TEST(StructuralEdits, ARemovalOfInheritedWiresMovesTheStampsOfTheOtherEnds) {
  MutableRoot root = OpenDerived(MakeGraph());
  NodeSystemImpl& d = Impl(root);
  const uint64_t before = d.GetModificationStamp();
  ASSERT_TRUE(RemoveAt(d, "n2"));
  EXPECT_GT(Must(d.GetConnectionStamp(d.FindByPath(P("n1>o")), PORT_DIR::OUTPUT)), before);
  EXPECT_GT(Must(d.GetConnectionStamp(d.FindByPath(P(">s")), PORT_DIR::INPUT)), before);
  EXPECT_TRUE(HasAny(d.GetModifications(before), MODIFIED::CONNECTION_MASK));
}

// A walk over children goes on across edits: it finds its place again after
// the child reported last, even when that child is gone, and reads no freed
// record (this runs under the address sanitizer too).
TEST(ChildWalk, GoesOnAfterEditsBetweenSteps) {
  MutableRoot root = OpenEmpty();
  NodeSystem& s = *root._system;
  const GNode inputs = s.FindByPath(P("<"));
  for (const char* id : {"a", "b", "c", "d", "e"}) {
    ASSERT_TRUE(s.AddPort(inputs, id, GNODE_FLAGS::NONE, nullptr));
  }
  ChildIterator it;
  std::vector<std::string> seen;
  for (GNode child = Must(s.GetFirstChild(inputs, it)); child; child = Must(s.GetNextChild(it))) {
    seen.push_back(child.path.ToString());
    if (seen.size() != 2) continue;
    for (const char* p : {"<b", "<d"}) ASSERT_TRUE(RemoveAt(s, p));
    ASSERT_TRUE(s.AddPort(inputs, "f", GNODE_FLAGS::NONE, nullptr));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"<a", "<b", "<c", "<e", "<f"}));
}

}  // namespace
}  // namespace orvix::nodes::test
