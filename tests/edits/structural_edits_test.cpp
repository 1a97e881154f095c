// The structural edits on a small graph: their failures with the exact
// messages, the marks they leave for validation, and how a derived system
// stores its differences to the base's wires and children.

#include <functional>
#include <map>
#include <string>

#include "edits_test_support.h"
#include "orvix/host/diagnostics.h"
#include "orvix/nodes/node_system_class_impl.h"

namespace orvix::nodes::test {
namespace {

class StructuralEdits : public WireCheckedTest {};

constexpr GFI NEW_NODE_PORT = GFI(0x4008000000);

template <typename T>
Result<void> Drop(Result<T> r) {
  if (!r) return std::move(r).GetError();
  return Ok();
}

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
  Ref<NodeSystem> group = Finish(inner);

  MutableRoot root = OpenEmpty();
  NodeSystemImpl& g = Impl(root);
  EXPECT_TRUE(g.AddChild("n1", AddOperator(), nullptr));
  EXPECT_TRUE(g.AddChild("n2", AddOperator(), nullptr));
  EXPECT_TRUE(g.AddChild("g", group, nullptr));
  GNode r = g.AddPort(g.FindByPath(P("<")), "r", GNODE_FLAGS::NONE, nullptr).Value();
  EXPECT_TRUE(g.AddPort(g.FindByPath(P(">")), "s", GNODE_FLAGS::NONE, nullptr));
  EXPECT_TRUE(g.AddPort(r, "x", GNODE_FLAGS::NONE, nullptr));
  EXPECT_TRUE(g.AddPort(g.FindByPath(P("n1<a")), "x", GNODE_FLAGS::NONE, nullptr));
  for (auto [s, t] : {std::pair{"<r", "n1<a"}, {"n1>o", "n2<a"}, {"n2>o", ">s"}}) {
    EXPECT_TRUE(g.Connect(g.FindByPath(P(s)), g.FindByPath(P(t)), Wires(0x10), nullptr));
  }
  return Finish(root);
}

Result<void> Connect(NodeSystemImpl& s, std::string_view from, std::string_view to, uint64_t w) {
  return s.Connect(s.FindByPath(P(from)), s.FindByPath(P(to)), Wires(w), nullptr);
}
Wires WiresOf(const NodeSystemImpl& s, std::string_view from, std::string_view to) {
  return s.GetConnection(s.FindByPath(P(from)), s.FindByPath(P(to))).Value();
}

// The effective targets of a port, with their wires; `mask` 0x7f per channel
// takes the wires of the port's ancestors in.
std::map<std::string, uint64_t> Targets(const NodeSystemImpl& s, std::string_view port,
                                        uint64_t mask = 0x3f3f3f3f3f3f3f3f) {
  std::map<std::string, uint64_t> targets;
  EXPECT_TRUE(s.GetConnections(
      s.FindByPath(P(port)), PORT_DIR::OUTPUT, Wires(mask), GET_CONNECTIONS_MODE::CONNECTIONS,
      [&](const GNode& other, Wires w, const Ref<ConnectionAttributes>&) -> Result<bool> {
        targets[other.path.ToString()] = w.GetValue();
        return true;
      }));
  return targets;
}

TEST_F(StructuralEdits, FailedEditsGiveTheirMessageAndChangeNothing) {
  const Ref<NodeSystem> graph = MakeGraph();
  MutableRoot root = Open(graph);
  NodeSystemImpl& s = Impl(root);
  GNode stale = s.AddChild("n9", AddOperator(), nullptr).Value();
  const GNode staleIn = s.FindByPath(P("n9<a"));
  ASSERT_TRUE(s.Remove(stale, nullptr));

  MutableRoot foreignRoot = MakeRef<OtherClass>()->CreateNodeSystem().Value();
  const Ref<NodeSystem> foreign = Finish(foreignRoot);

  auto at = [&](std::string_view path) { return s.FindByPath(P(path)); };
  auto port = [&](std::string_view list, std::string_view id) {
    return Drop(s.AddPort(at(list), id, GNODE_FLAGS::NONE, nullptr));
  };
  MutableRoot unfinished = Open(AddOperator());
  ASSERT_TRUE(Impl(unfinished)
                  .AddPort(Impl(unfinished).FindByPath(P(">")), "p", GNODE_FLAGS::NONE, nullptr));

  // The random edits check the messages of taken ids, ports on the wrong
  // parent, illegal removals, the connect rules and illegal modes; these are
  // the edges they don't reach: nested systems, foreign content, stale handles.
  const std::string noPath = " cannot be removed. This is not a valid path of a node or port.";
  const struct {
    const char* what;
    std::function<Result<void>()> edit;
    std::string message;
  } cases[] = {
      {"unfinished content", [&] { return Drop(s.AddChild("n5", unfinished._system, nullptr)); },
       "Node system to add hasn't been validated."},
      {"foreign class", [&] { return Drop(s.AddChild("n5", foreign, nullptr)); },
       "Node system to add has node system class test.otherclass, expected "
       "net.orvix.node.nodesystemclass."},
      {"nested id taken", [&] { return port("n1<a", "x"); },
       "There already exists a node with id x in n1<a."},
      {"port on the root", [&] { return port("", "z"); },
       "You can't add a port directly to node ."},
      {"remove root", [&] { return s.Remove(at(""), nullptr); }, noPath},
      {"remove child's port list", [&] { return s.Remove(at("n1>"), nullptr); }, "n1>" + noPath},
      {"remove nested node", [&] { return s.Remove(at("g/m"), nullptr); },
       "Node g/m cannot be removed. Only children of the node system's root can be removed."},
      {"connect a node", [&] { return Connect(s, "n1", "n2<a", 0x10); }, "n1 is not a port."},
      {"connect to a list", [&] { return Connect(s, "n1>o", "n2<", 0x10); }, "n2< is not a port."},
      {"same top-level port", [&] { return Connect(s, "<r", "<r/x", 0x10); },
       "Can't connect ports <r, <r/x because they are within the same top-level port."},
      {"into a grandchild", [&] { return Connect(s, "<r", "g/m<a", 0x10); }, ""},
      {"out of a grandchild", [&] { return Connect(s, "g/m>o", "n1<b", 0x10); }, ""},
      {"rules before modes", [&] { return Connect(s, "n1<b", "n2<b", 0xff); }, ""},
      {"stale handle", [&] { return s.Connect(staleIn, at("n2<b"), Wires(0x10), nullptr); },
       "Node with path n9<a doesn't exist any longer."},
      {"stale parent", [&] { return s.ResetChild(stale, Id("<"), nullptr); },
       "Node with path n9 doesn't exist any longer."},
      {"stale removal", [&] { return s.Remove(stale, nullptr); },
       "Node with path n9 doesn't exist any longer."},
      {"no handle", [&] { return s.Connect(GNode(), at("n2<b"), Wires(0x10), nullptr); },
       "Nullptr node"},
      {"no parent", [&] { return port("n9<", "z"); }, "Nullptr node"},
      {"value without a wire",
       [&] {
         return Drop(s.SetConnectionValue(at("n1>o"), at("n2<b"), 1, Id("k"), Data(1), nullptr));
       },
       "There is no connection from n1>o to n2<b."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Snapshot before = Take(s);
    const Result<void> result = c.edit();
    ASSERT_FALSE(result);
    EXPECT_EQ(result.GetError().GetMessage(), c.message);
    if (c.message.empty()) {
      EXPECT_EQ(result.GetError().GetClass(), ERROR_CLASS::ILLEGAL_ARGUMENT);
    }
    EXPECT_TRUE(Take(s) == before);
  }
  EXPECT_TRUE(Finish(root));
}

TEST_F(StructuralEdits, EditsNeedTheSoleOwnerInsideTheBracket) {
  Ref<NodeSystem> graph = MakeGraph();
  NodeSystemImpl& done = const_cast<NodeSystemImpl&>(Impl(graph));
  EXPECT_EQ(Message(Connect(done, "<r", "n2<b", 0x10)),
            "Node system modification not within BeginModification()/EndModification().");
  MutableRoot root = Open(std::move(graph));
  const Ref<NodeSystem> second = root._system;
  EXPECT_EQ(Message(Impl(root).Remove(Impl(root).FindByPath(P("n1")), nullptr)),
            "More than one reference to node system .");
  EXPECT_TRUE(Impl(root).FindByPath(P("n1")));
}

TEST_F(StructuralEdits, EachEditMarksWhatItTouched) {
  const Ref<NodeSystem> graph = MakeGraph();
  auto open = [&] { return Open(graph); };  // a fresh copy with nothing marked
  auto has = [](const NodeSystemImpl& s, std::string_view path, GFI bits) {
    return HasAll(OwnFlags(s, path), bits) && HasAll(s._systemFlags, bits);
  };
  {
    // The bits of new elements and of wire ends are checked by the random
    // edits; not what a new element carries besides.
    MutableRoot root = open();
    NodeSystemImpl& s = Impl(root);
    ASSERT_TRUE(s.AddPort(s.FindByPath(P("<")), "q", GNODE_FLAGS::NONE, nullptr));
    EXPECT_TRUE(HasAll(OwnFlags(s, "<q"), GFI::DIRECT_PORT));
    ASSERT_TRUE(s.AddChild("n3", AddOperator(), nullptr));
    for (const char* p : {"n3<a", "n3<b", "n3>o"}) EXPECT_TRUE(has(s, p, NEW_NODE_PORT)) << p;
    const AttributeRecord* unique =
        OwnRecord(s, "n3")->attributes->records.Find(Id("checkuniquenumber"));
    ASSERT_TRUE(unique);
    EXPECT_EQ(unique->value, Data(int64_t{-2}));
  }
  {
    // A node goes with its ports, a port with its nested ports: the ports
    // wired to them lose a target or a source.
    MutableRoot root = open();
    NodeSystemImpl& s = Impl(root);
    ASSERT_TRUE(s.Remove(s.FindByPath(P("n2")), nullptr));
    EXPECT_TRUE(has(s, "n1>o", GFI::MODIFIED_TARGETS));
    EXPECT_TRUE(has(s, ">s", GFI::MODIFIED_SOURCES));
    ASSERT_TRUE(s.Remove(s.FindByPath(P("<r")), nullptr));
    EXPECT_TRUE(has(s, "n1<a", GFI::MODIFIED_SOURCES));
    EXPECT_TRUE(has(s, "n1<a/x", GFI::MODIFIED_SOURCES));
    EXPECT_TRUE(Finish(root));
  }
  {
    // The implicit wire <r/x -> n1<a/x counts: its other end is marked.
    MutableRoot root = open();
    NodeSystemImpl& s = Impl(root);
    ASSERT_TRUE(s.Remove(s.FindByPath(P("n1<a/x")), nullptr));
    EXPECT_TRUE(has(s, "n1<a", GFI::MODIFIED_PV_CHILDREN));
    EXPECT_FALSE(HasAny(OwnFlags(s, "n1<a"), GFI::MODIFIED_TOPOLOGY));
    EXPECT_TRUE(has(s, "<r/x", GFI::MODIFIED_TARGETS));
    EXPECT_FALSE(HasAny(OwnFlags(s, "n1<a"), GFI::MODIFIED_TARGETS | GFI::MODIFIED_SOURCES));
  }
  {
    // A port made and removed in one bracket sits on the modified list: it
    // is garbage until the end frees it.
    MutableRoot root = open();
    NodeSystemImpl& s = Impl(root);
    ASSERT_TRUE(s.AddPort(s.FindByPath(P(">")), "t", GNODE_FLAGS::NONE, nullptr));
    ASSERT_TRUE(s.Remove(s.FindByPath(P(">t")), nullptr));
    EXPECT_TRUE(HasAny(s._systemFlags, GFI::MODIFIED_G_GARBAGE));
    EXPECT_FALSE(s.FindByPath(P(">")).info->children.Find(Id("t")));
    EXPECT_TRUE(Finish(root));
  }
}

// The random edits follow every mode on the base's wires; this follows one
// wire across an end and the attributes that ride on an inherited wire.
TEST_F(StructuralEdits, DerivedWiresStoreOnlyTheirDifferenceAtBothEnds) {
  const Ref<NodeSystem> base = MakeGraph();
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl* d = &Impl(root);
  auto stored = [&](std::string_view s, std::string_view t) {
    const auto atSource = StoredAt(*d, s);
    const auto atTarget = StoredAt(*d, t);
    const auto it = atSource.find(std::string(t) + ">");
    const auto back = atTarget.find(std::string(s) + "<");
    EXPECT_EQ(it == atSource.end(), back == atTarget.end());
    if (it == atSource.end()) return uint64_t{0xdead};
    EXPECT_TRUE(it->second == back->second);
    return it->second.wires.GetValue();
  };
  constexpr uint64_t NONE_STORED = 0xdead;

  // REMOVE on the base's wire hides it with 0-wire entries; the base keeps it.
  ASSERT_TRUE(Connect(*d, "n1>o", "n2<a", 0x3e));
  EXPECT_EQ(stored("n1>o", "n2<a"), 0u);
  EXPECT_EQ(WiresOf(Impl(base), "n1>o", "n2<a"), Wires(0x10));
  Ref<NodeSystem> done = Finish(root);
  EXPECT_EQ(WiresOf(Impl(done), "n1>o", "n2<a"), Wires(0));
  root = Open(std::move(done));
  d = &Impl(root);
  // INHERIT takes the base's wire back, and the entries go.
  ASSERT_TRUE(Connect(*d, "n1>o", "n2<a", 0x8080808080808080));
  EXPECT_EQ(stored("n1>o", "n2<a"), NONE_STORED);
  EXPECT_EQ(WiresOf(*d, "n1>o", "n2<a"), Wires(0x10));

  // Set on an inherited wire, attributes are stored with it at both ends;
  // erased, they leave nothing.
  const GNode s = d->FindByPath(P("n2>o"));
  const GNode t = d->FindByPath(P(">s"));
  EXPECT_TRUE(d->SetConnectionValue(s, t, 1, Id("label"), Data(7), nullptr).Value());
  EXPECT_FALSE(d->SetConnectionValue(s, t, 1, Id("label"), Data(7), nullptr).Value());
  EXPECT_EQ(stored("n2>o", ">s"), 0x90u);
  EXPECT_EQ(d->GetConnectionValue(s, t, 1, Id("label")).Value(), Data(7));
  const NodeSystemImpl& b = Impl(base);
  EXPECT_TRUE(b.GetConnectionValue(b.FindByPath(P("n2>o")), b.FindByPath(P(">s")), 1, Id("label"))
                  .Value()
                  .IsEmpty());
  EXPECT_TRUE(d->SetConnectionValue(s, t, 1, Id("label"), Data(), nullptr).Value());
  EXPECT_EQ(stored("n2>o", ">s"), NONE_STORED);
  EXPECT_TRUE(Finish(root));
}

// The child records of removals, adds and resets are the random edits'
// business; this checks what else comes back with a reset child.
TEST_F(StructuralEdits, DerivedChildrenAreHiddenAddedAgainAndReset) {
  const Ref<NodeSystem> base = MakeGraph();
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl* d = &Impl(root);
  ASSERT_TRUE(d->Remove(d->FindByPath(P("n2")), nullptr));
  EXPECT_FALSE(d->FindByPath(P("n2<a")));
  EXPECT_TRUE(Impl(base).FindByPath(P("n2<a")));
  EXPECT_EQ(Targets(Impl(base), "n1>o").size(), 1u);
  // Added again, the child has the new content and none of the old wires.
  ASSERT_TRUE(d->AddChild("n2", MakeOperator({"u"}, {"v"}), nullptr));
  EXPECT_TRUE(d->FindByPath(P("n2<u")));
  EXPECT_FALSE(d->FindByPath(P("n2<a")));
  EXPECT_TRUE(Targets(*d, "n1>o").empty());
  root = Open(Finish(root));
  d = &Impl(root);

  // Reset, the base's child is back with its wires, and marked with them.
  ASSERT_TRUE(d->ResetChild(d->GetRoot(), Id("n2"), nullptr));
  EXPECT_FALSE(d->GetRoot().info->children.Find(Id("n2")));
  EXPECT_TRUE(d->FindByPath(P("n2<a")));
  EXPECT_EQ(WiresOf(*d, "n1>o", "n2<a"), Wires(0x10));
  EXPECT_TRUE(HasAll(d->_systemFlags, GFI::MODIFIED_PV_CHILDREN | GFI::MODIFIED_TOPOLOGY));
  EXPECT_TRUE(HasAll(OwnFlags(*d, "n2"), GFI::MODIFIED_TOPOLOGY));
  EXPECT_TRUE(HasAll(OwnFlags(*d, "n1>o"), GFI::MODIFIED_TARGETS));
  EXPECT_TRUE(HasAll(OwnFlags(*d, ">s"), GFI::MODIFIED_SOURCES));
  EXPECT_TRUE(Finish(root));
}

TEST_F(StructuralEdits, ADerivedPortIsRemovedOnlyByTheDerivedVariant) {
  MutableRoot b = OpenEmpty();
  GNode made = Impl(b).AddPort(Impl(b).FindByPath(P("<")), "d", GNODE_FLAGS::NONE, nullptr).Value();
  // What port derivation would have made: no direct port.
  made.info->flags = (made.info->flags & ~GFI::DIRECT_PORT) | GFI::DERIVED_PORT_SYNTHESIZED;
  const Ref<NodeSystem> base = Finish(b);
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl& d = Impl(root);
  const Snapshot before = Take(d);
  EXPECT_EQ(Message(d.Remove(d.FindByPath(P("<d")), nullptr)),
            "<d is a derived port, therefore it cannot be removed directly.");
  EXPECT_TRUE(Take(d) == before);
  ASSERT_TRUE(d.RemoveDerived(d.FindByPath(P("<d")), nullptr));
  EXPECT_FALSE(d.FindByPath(P("<d")));
  EXPECT_EQ(d.FindByPath(P("<")).info->children.Find(Id("d"))->flags, CHILD_FLAGS::SYNTHETIC);
  EXPECT_TRUE(Finish(root));
}

// A base's element removed and added again is a new element: nothing the
// base had below it or wired to it shows through it, from either end.
TEST_F(StructuralEdits, AnElementAddedAgainHidesWhatTheBaseHadBelowAndWiredToIt) {
  MutableRoot b = Open(MakeGraph());
  ASSERT_TRUE(Impl(b).AddPort(Impl(b).FindByPath(P("<r/x")), "y", GNODE_FLAGS::NONE, nullptr));
  const Ref<NodeSystem> base = Finish(b);
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl& d = Impl(root);
  for (const char* path : {"<r", "n2"}) ASSERT_TRUE(d.Remove(d.FindByPath(P(path)), nullptr));
  ASSERT_TRUE(d.AddPort(d.FindByPath(P("<")), "r", GNODE_FLAGS::NONE, nullptr));
  ASSERT_TRUE(d.AddChild("n2", AddOperator(), nullptr));
  EXPECT_FALSE(d.FindByPath(P("<r/x")));
  EXPECT_FALSE(d.FindByPath(P("<r/x/y")));
  // Below the new port, the base has nothing to hide or to give back.
  const GNode r = d.FindByPath(P("<r"));
  ASSERT_EQ(Message(d.AddPort(r, "x", GNODE_FLAGS::NONE, nullptr)), "(ok)");
  ASSERT_TRUE(d.Remove(d.FindByPath(P("<r/x")), nullptr));
  EXPECT_FALSE(d.FindByPath(P("<r")).info->children.Find(Id("x")));
  ASSERT_TRUE(d.AddPort(r, "x", GNODE_FLAGS::NONE, nullptr));
  ASSERT_TRUE(d.ResetChild(r, Id("x"), nullptr));
  EXPECT_FALSE(d.FindByPath(P("<r/x")));
  EXPECT_TRUE(Targets(d, "<r").empty());
  EXPECT_TRUE(Targets(d, "n1>o").empty());
  EXPECT_TRUE(Targets(d, "n2>o").empty());
  EXPECT_EQ(WiresOf(d, "n1>o", "n2<a"), Wires(0));
  EXPECT_TRUE(Finish(root));
}

// Removing a base's child that was added again in its place keeps the child
// record, without ADDED, so that the base's child stays hidden.
TEST_F(StructuralEdits, RemovingAChildAddedAgainKeepsTheBasesChildHidden) {
  const Ref<NodeSystem> base = MakeGraph();
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl& d = Impl(root);
  ASSERT_TRUE(d.Remove(d.FindByPath(P(">s")), nullptr));
  ASSERT_TRUE(d.AddPort(d.FindByPath(P(">")), "s", GNODE_FLAGS::NONE, nullptr));
  ASSERT_TRUE(d.Remove(d.FindByPath(P(">s")), nullptr));
  EXPECT_FALSE(d.FindByPath(P(">s")));
  const ChildRecord* record = d.FindByPath(P(">")).info->children.Find(Id("s"));
  ASSERT_TRUE(record);
  EXPECT_EQ(record->flags, CHILD_FLAGS::NONE);
}

// A base's wire into a nested port that the derived system removes hides
// nothing: the implicit wire of the port's ancestor reaches the nested port,
// seen alike from both ends.
TEST_F(StructuralEdits, AnOverriddenBaseWireHidesNoImplicitWire) {
  MutableRoot b = Open(MakeGraph());
  ASSERT_TRUE(Connect(Impl(b), "n2>o", "n1<a/x", 0x10));
  const Ref<NodeSystem> base = Finish(b);
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl& d = Impl(root);
  ASSERT_TRUE(Connect(d, "n2>o", "n1<a/x", 0x3e));
  std::map<std::string, uint64_t> sources;
  ASSERT_TRUE(d.GetConnections(
      d.FindByPath(P("n1<a/x")), PORT_DIR::INPUT, Wires(0x7f7f7f7f7f7f7f7f),
      GET_CONNECTIONS_MODE::CONNECTIONS,
      [&](const GNode& other, Wires w, const Ref<ConnectionAttributes>&) -> Result<bool> {
        sources[other.path.ToString()] = w.GetValue();
        return true;
      }));
  EXPECT_EQ(sources, (std::map<std::string, uint64_t>{{"<r/x", 0x50}}));
  EXPECT_EQ(Message(d.CheckConnectionConsistency()), "(ok)");
}

// A base's wire read at a port nested two levels deep whose counterpart at
// the other end doesn't exist is no wire, and no broken store either.
TEST_F(StructuralEdits, AWireToAMissingNestedPortIsNoInternalError) {
  const Ref<NodeSystem> base = MakeGraph();
  MutableRoot root = OpenDerived(base);
  NodeSystemImpl& d = Impl(root);
  ASSERT_TRUE(d.AddPort(d.FindByPath(P("n1>o")), "x", GNODE_FLAGS::NONE, nullptr));
  ASSERT_TRUE(d.AddPort(d.FindByPath(P("n1>o/x")), "y", GNODE_FLAGS::NONE, nullptr));
  CapturedOutput output;
  EXPECT_TRUE(Targets(d, "n1>o/x/y", 0x7f7f7f7f7f7f7f7f).empty());
  EXPECT_FALSE(output.Contains(INTERNAL_ERROR_TEXT));
}

// A node removed with its wires moves the connection stamps of the ports
// at the other ends, so that a reader comparing stamps sees the lost wire.
TEST_F(StructuralEdits, RemovingANodeMovesTheConnectionStampsOfTheOtherEnds) {
  MutableRoot root = Open(MakeGraph());
  NodeSystemImpl& s = Impl(root);
  const GNode out = s.FindByPath(P("n1>o"));
  const GNode in = s.FindByPath(P("<r"));
  const uint64_t before = s.GetModificationStamp();
  ASSERT_TRUE(s.Connect(in, s.FindByPath(P("n2<a")), Wires(0x10), nullptr));
  const uint64_t connected = s.GetModificationStamp();
  ASSERT_TRUE(s.Remove(s.FindByPath(P("n2")), nullptr));
  EXPECT_GT(s.GetConnectionStamp(out, PORT_DIR::OUTPUT).Value(), connected);
  EXPECT_GT(s.GetConnectionStamp(in, PORT_DIR::OUTPUT).Value(), connected);
  EXPECT_TRUE(HasAny(s.GetModifications(before), MODIFIED::CONNECTION_MASK));
}

// A walk over children goes on across edits: it finds its place again after
// the child reported last, even when that child is gone, and reads no freed
// record (this runs under the address sanitizer too).
TEST(ChildWalk, GoesOnAfterEditsBetweenSteps) {
  Ref<NodeSystemClass> cls = CreateDefaultNodeSystemClass().Value();
  MutableRoot root = cls->CreateNodeSystem().Value();
  NodeSystem& s = *root._system;
  const GNode inputs = s.GetPortList(root._root, PORT_DIR::INPUT).Value();
  for (std::string_view id : {"a", "b", "c", "d", "e"}) {
    ASSERT_TRUE(s.AddPort(inputs, id, GNODE_FLAGS::NONE, nullptr));
  }
  ChildIterator it;
  std::vector<std::string> seen;
  for (GNode child = s.GetFirstChild(inputs, it).Value(); child;
       child = s.GetNextChild(it).Value()) {
    seen.push_back(child.path.ToString());
    if (seen.size() == 2) {
      ASSERT_TRUE(s.Remove(s.FindByPath(NodePath::Parse("<b").Value()), nullptr));
      ASSERT_TRUE(s.Remove(s.FindByPath(NodePath::Parse("<d").Value()), nullptr));
      ASSERT_TRUE(s.AddPort(inputs, "f", GNODE_FLAGS::NONE, nullptr));
    }
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"<a", "<b", "<c", "<e", "<f"}));
}

}  // namespace
}  // namespace orvix::nodes::test
