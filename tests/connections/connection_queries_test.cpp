// The effective connections of a port beyond what the random graphs compare:
// a pair wired both ways, the published form, shortcut records, induced
// dependencies, connection values, the touches of connected ports and the
// messages of the check of both ends.

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

#include "connection_test_support.h"
#include "node_system_probe.h"
#include "orvix/host/diagnostics.h"
#include "orvix/nodes/config_variables.h"
#include "orvix/nodes/derivation_handler.h"

namespace orvix::nodes::test {
namespace {

constexpr uint64_t ALL = ALL_WIRES_MASK;
constexpr uint64_t ALL_IMPLICIT = ALL_WIRES_IMPLICIT_MASK;
using MODE = GET_CONNECTIONS_MODE;

std::string Line(const char* direction, const NodePath& other, Wires wires) {
  std::ostringstream out;
  out << direction << other.ToString() << " 0x" << std::hex << wires.GetValue();
  return out.str();
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : ", ") + line;
  return text;
}

// The reports of a query in their order, "from" a source, "to" a target; or
// the query's error.
std::string Query(const NodeSystemImpl& s, std::string_view port, uint64_t mask, GCF flags) {
  std::vector<std::string> lines;
  ConnectionQuery query;
  query.port = s.FindByPath(P(port));
  query.callback = [&](ConnectionQuery& q) -> Result<bool> {
    const bool target = q.direction == CONNECTION_DIRECTION::TARGET;
    lines.push_back(Line(target ? "to " : "from ", q.other.path, q.wires));
    return true;
  };
  Result<bool> r = s.GetConnections(mask, flags, query, UNLIMITED_DEPTH);
  return r ? Joined(lines) : Message(r);
}

// The reports of the published form, sorted; or its error.
std::string Published(const NodeSystemImpl& s, std::string_view port, PORT_DIR direction,
                      MODE mode) {
  std::vector<std::string> lines;
  Result<bool> r = s.GetConnections(
      s.FindByPath(P(port)), direction, Wires(ALL), mode,
      [&](const GNode& other, Wires wires, const Ref<ConnectionAttributes>&) -> Result<bool> {
        lines.push_back(Line("", other.path, wires));
        return true;
      });
  std::sort(lines.begin(), lines.end());
  return r ? Joined(lines) : Message(r);
}

// Root ports <r (with x), <s, >q (with x); nodes n1 and n2 (adders) and n3
// (a gate); the wires given. Finished.
Ref<NodeSystemImpl> Graph(
    std::initializer_list<std::tuple<std::string_view, std::string_view, uint64_t>> wires) {
  static const Ref<NodeSystemImpl> adder = MakeOperator(Adder());
  static const Ref<NodeSystemImpl> gate = MakeOperator(Gate());
  Ref<NodeSystemImpl> s = Open();
  AddPorts(*s, {"<r", "<r/x", "<s", ">q", ">q/x"});
  for (const auto& [id, content] : {std::pair{"n1", adder}, {"n2", adder}, {"n3", gate}}) {
    EXPECT_TRUE(s->AddChild(id, content, nullptr));
  }
  for (const auto& [from, to, w] : wires) Wire(*s, from, to, w);
  Finish(*s);
  return s;
}

NodeInfo* Writable(NodeSystemImpl& s, std::string_view path) {
  GNode handle = s.MakeHandle(P(path));
  return Must(s.GetMutable(handle, NODE_KIND::NONE));
}

void SetShortcut(NodeSystemImpl& s, std::string_view port, std::string_view other,
                 CONNECTION_DIRECTION direction, uint64_t wires) {
  ConnectionTable* table = NodeSystemImpl::ConnectionTableOf(Writable(s, port));
  ASSERT_TRUE(table->Set(ConnectionKey::Make(P(other), CONNECTION_TYPE::SHORTCUT, direction),
                         ConnectionData{Wires(wires), nullptr}));
}

// The random graphs never wire a pair both ways. Such a pair is a loop
// through ports, which validation refuses; the store holds it meanwhile, and
// the queries read it as it is.
TEST(ConnectionQueries, AnOtherEndThatIsSourceAndTargetIsReportedOnce) {
  Ref<NodeSystemImpl> g = Open();
  AddPorts(*g, {"<a", ">b"});
  Wire(*g, "<a", ">b", 0x10);
  Wire(*g, ">b", "<a", 0x2000);
  EXPECT_EQ(Query(*g, "<a", ALL, GCF::SOURCES), "from >b 0x2000");
  EXPECT_EQ(Query(*g, "<a", ALL, GCF::TARGETS), "to >b 0x10");
  EXPECT_THAT(Query(*g, "<a", ALL, GCF::SOURCES | GCF::TARGETS),
              testing::AnyOf("from >b 0x2000", "to >b 0x10"));
  EXPECT_EQ(Message(g->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)),
            "The ports [>b, <a] form a cycle.");
}

TEST(ConnectionQueries, ThePublishedFormMapsDirectionAndModes) {
  // One of the wires with the inhibit channel.
  Ref<NodeSystemImpl> g = Graph({{"n1>sum", "n2<a", 0x10}, {"n1>sum", "n3<i", 0x100000000010}});
  const std::string all = "n1<c 0x10000000, n2<a 0x10, n3<i 0x100000000010";
  const char* inducedAlone = "INDUCED_DEPENDENCIES can only be used in conjunction with SHORTCUTS.";
  const struct {
    PORT_DIR direction;
    MODE mode;
    std::string expected;
  } rows[] = {
      {PORT_DIR::OUTPUT, MODE::CONNECTIONS, all},
      {PORT_DIR::OUTPUT, MODE::NONE, all},
      {PORT_DIR::OUTPUT, MODE::WITH_IMPLICIT_FLAG, all},
      {PORT_DIR::OUTPUT, MODE::EXTERNAL_CONNECTIONS, "n2<a 0x10, n3<i 0x100000000010"},
      {PORT_DIR::OUTPUT, MODE::WITHOUT_INHIBITED, "n1<c 0x10000000, n2<a 0x10"},
      {PORT_DIR::OUTPUT, MODE::EXTERNAL_CONNECTIONS | MODE::WITHOUT_INHIBITED, "n2<a 0x10"},
      {PORT_DIR::INPUT, MODE::CONNECTIONS, "n1<b 0x10"},
      {PORT_DIR::END, MODE::CONNECTIONS, "n1<b 0x10"},
      {PORT_DIR::OUTPUT, MODE::SHORTCUTS, ""},
      {PORT_DIR::OUTPUT, MODE::SHORTCUTS | MODE::INDUCED_DEPENDENCIES, ""},
      {PORT_DIR::OUTPUT, MODE::INDUCED_DEPENDENCIES, inducedAlone},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Published(*g, "n1>sum", row.direction, row.mode), row.expected)
        << "mode 0x" << ToBits(row.mode);
  }
  EXPECT_EQ(Query(*g, "n1>sum", ALL, GCF::TARGETS | GCF::INDUCED_DEPENDENCIES), inducedAlone);

  // A callback that stops ends the walk after one report; none is refused.
  const GNode sum = g->FindByPath(P("n1>sum"));
  int calls = 0;
  auto stop = [&](const GNode&, Wires, const Ref<ConnectionAttributes>&) -> Result<bool> {
    ++calls;
    return false;
  };
  EXPECT_FALSE(Must(g->GetConnections(sum, PORT_DIR::OUTPUT, Wires(ALL), MODE::NONE, stop)));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(Message(g->GetConnections(sum, PORT_DIR::OUTPUT, Wires(ALL), MODE::NONE, {})),
            "Illegal argument: Condition callback not fulfilled. ");
}

TEST(ConnectionQueries, InducedDependenciesAreReportedOnceAndLast) {
  Ref<NodeSystemImpl> g = Open();
  AddPorts(*g, {"<r", "<s", "<s/x", ">q"});
  Finish(*g);
  Writable(*g, ">q")->flags |= GFI::HAS_SOURCE_SHORTCUTS;
  SetShortcut(*g, ">q", "<r", CONNECTION_DIRECTION::SOURCE, 0x10);
  NodeSystemTestProbe::LoopTablesForWriting(*g)._inducedSources[P(">q")].paths = {P("<s/x"),
                                                                                  P("<r")};
  const GCF induced = GCF::SOURCES | GCF::SHORTCUTS | GCF::INDUCED_DEPENDENCIES;

  EXPECT_EQ(Query(*g, ">q", ALL, GCF::SOURCES | GCF::SHORTCUTS), "from <r 0x10");
  // The record that coincides carries the induced wire as well; the other
  // comes after every record.
  EXPECT_EQ(Query(*g, ">q", ALL, induced), "from <r 0x80010, from <s/x 0x80000");
  // Cut to top-level ports, two induced paths that meet are reported once.
  NodeSystemTestProbe::LoopTablesForWriting(*g)._inducedSources[P(">q")].paths.insert(P("<s"));
  EXPECT_EQ(Query(*g, ">q", ALL, induced | GCF::TOP_LEVEL_PORTS),
            "from <r 0x80010, from <s 0x80000");

  // Induced targets count only at a port whose loopdependencytarget is true.
  NodeSystemTestProbe::LoopTablesForWriting(*g)._inducedTargets[P(">q")] = {P("<s")};
  const GCF targets = GCF::TARGETS | GCF::SHORTCUTS | GCF::INDUCED_DEPENDENCIES;
  EXPECT_EQ(Query(*g, ">q", ALL, targets), "");
  NodeInfo* q = Writable(*g, ">q");
  q->attributes = MakeRef<AttributeTable>();
  q->attributes->records.FindOrInsert(InternedId::Get("loopdependencytarget")).value = Data(true);
  EXPECT_THAT(Query(*g, ">q", ALL, targets), testing::EndsWith("<s 0x80000"));

  NodeSystemTestProbe::LoopTablesForWriting(*g)._inducedSources[P(">q")].paths = {P("<gone")};
  EXPECT_EQ(Query(*g, ">q", ALL, induced), "The path <gone doesn't exist in this node system.");
}

// A stored shortcut from <a to >z: the target's record of type 2, the
// source's of type 3, in a system of its own.
Ref<NodeSystemImpl> ShortcutSystem() {
  Ref<NodeSystemImpl> b = Open();
  AddPorts(*b, {"<a", "<b", ">z"});
  Wire(*b, "<b", ">z", 0x10);
  Finish(*b);
  Writable(*b, ">z")->flags |= GFI::HAS_SOURCE_SHORTCUTS | GFI::SHORTCUT_STOP;
  SetShortcut(*b, ">z", "<a", CONNECTION_DIRECTION::SOURCE, 0x20);
  SetShortcut(*b, "<a", ">z", CONNECTION_DIRECTION::TARGET, 0x20);
  return b;
}

TEST(ConnectionQueries, ShortcutRecordsAndTheirValidityInADerivedSystem) {
  Ref<NodeSystemImpl> b = ShortcutSystem();
  const GCF sources = GCF::SOURCES | GCF::SHORTCUTS, targets = GCF::TARGETS | GCF::SHORTCUTS;
  EXPECT_EQ(Query(*b, ">z", ALL_IMPLICIT, sources), "from <a 0x20");
  EXPECT_EQ(Query(*b, ">z", ALL_IMPLICIT, GCF::SOURCES), "from <b 0x10");
  EXPECT_EQ(Query(*b, "<a", ALL_IMPLICIT, targets), "to >z 0x20");

  // The target's nearest shortcut table is the one the record came from.
  Ref<NodeSystemImpl> d = Must(NodeSystemImpl::CreateDerived(b));
  EXPECT_EQ(Query(*d, "<a", ALL, targets), "to >z 0x20");
  // A record of >z here has no shortcut table of its own: the source query
  // passes over it to the base's, which still confirms the target record.
  NodeInfo* z = Writable(*d, ">z");
  EXPECT_FALSE(z->HasFlags(GFI::HAS_SOURCE_SHORTCUTS));
  EXPECT_EQ(Query(*d, ">z", ALL, sources), "from <a 0x20");
  EXPECT_EQ(Query(*d, "<a", ALL, targets), "to >z 0x20");
  // With an (empty) table here, that table is the nearest: no sources, and no
  // confirmation of the base's target record.
  z->flags |= GFI::HAS_SOURCE_SHORTCUTS;
  EXPECT_EQ(Query(*d, ">z", ALL, sources), "");
  EXPECT_EQ(Query(*d, "<a", ALL, targets), "");
  // The port needs a record here as well, and the table the record back to it.
  Writable(*d, "<a");
  EXPECT_EQ(Query(*d, "<a", ALL, targets), "");
  SetShortcut(*d, ">z", "<a", CONNECTION_DIRECTION::SOURCE, 0x8);
  EXPECT_EQ(Query(*d, "<a", ALL, targets), "to >z 0x20");
  SetShortcut(*d, ">z", "<a", CONNECTION_DIRECTION::SOURCE, 0);
  EXPECT_EQ(Query(*d, "<a", ALL, targets), "Assertion failed: Condition w->wires not fulfilled. ");
  // A target that no longer stops shortcuts confirms nothing.
  SetShortcut(*d, ">z", "<a", CONNECTION_DIRECTION::SOURCE, 0x8);
  Writable(*d, ">z")->flags &= ~GFI::SHORTCUT_STOP_MASK;
  EXPECT_EQ(Query(*d, "<a", ALL, targets), "");
}

// A handler that notes each pair it is asked about and keeps it or not.
class FilteringHandler : public NodeSystemDerivationHandlerBase {
 public:
  mutable std::vector<std::string> asked;
  bool keep = false;
  bool FilterShortcut(const GNode& source, const GNode& target) const override {
    asked.push_back(source.path.ToString() + "|" + target.path.ToString());
    return keep;
  }
};

TEST(ConnectionQueries, FilterShortcutsAskTheHandlerWithSourceFirst) {
  Ref<FilteringHandler> handler = MakeRef<FilteringHandler>();
  Ref<NodeSystemImpl> b = ShortcutSystem();
  ASSERT_TRUE(b->SetDerivationHandler(handler));
  Writable(*b, "<a")->flags |= GFI::FILTER_SHORTCUT_SOURCE;
  Writable(*b, ">z")->flags |= GFI::FILTER_SHORTCUT_TARGET;
  const GCF filtered = GCF::SHORTCUTS | GCF::FILTER_SHORTCUTS;

  EXPECT_EQ(Query(*b, "<a", ALL, GCF::TARGETS | GCF::SHORTCUTS), "to >z 0x20");
  EXPECT_TRUE(handler->asked.empty());
  EXPECT_EQ(Query(*b, "<a", ALL, GCF::TARGETS | filtered), "");
  EXPECT_EQ(Query(*b, ">z", ALL, GCF::SOURCES | filtered), "");
  // The published form with SHORTCUTS always asks.
  EXPECT_EQ(Published(*b, "<a", PORT_DIR::OUTPUT, MODE::SHORTCUTS), "");
  EXPECT_EQ(handler->asked, (std::vector<std::string>(3, "<a|>z")));
  handler->keep = true;
  EXPECT_EQ(Query(*b, ">z", ALL, GCF::SOURCES | filtered), "from <a 0x20");
  // Only a pair of a filter source and a filter target is asked about.
  Writable(*b, "<a")->flags &= ~GFI::FILTER_SHORTCUT_SOURCE;
  handler->keep = false;
  EXPECT_EQ(Query(*b, "<a", ALL, GCF::TARGETS | filtered), "to >z 0x20");
  EXPECT_EQ(handler->asked.size(), 4u);
}

TEST(ConnectionQueries, ConnectionValuesAndTheDefaultOfIoNodes) {
  Ref<NodeSystemImpl> g = Graph({{"n1>sum", "n2<a", 0x10}, {"<r", "n1<a", 0x10}});
  const InternedId ioNodes = InternedId::Get("net.orvix.node.ionodes");
  auto value = [&](std::string_view from, std::string_view to, uint32_t kind, InternedId id) {
    return Must(g->GetConnectionValue(g->FindByPath(P(from)), g->FindByPath(P(to)), kind, id));
  };
  const Data out(DataArray::Of<InternedId>({InternedId::Get("out")}));
  const Data in(DataArray::Of<InternedId>({InternedId::Get("in")}));
  // Kind 0 reads the source end, kind 2 the target end; an input as source is "in".
  EXPECT_EQ(value("n1>sum", "n2<a", 0, ioNodes), out);
  EXPECT_EQ(value("n1>sum", "n2<a", 2, ioNodes), in);
  EXPECT_EQ(value("<r", "n1<a", 0, ioNodes), in);
  EXPECT_TRUE(value("n1>sum", "n2<a", 1, ioNodes).IsEmpty());

  // A stored value wins; it is shared with a derived system.
  ASSERT_TRUE(g->BeginModification());
  ASSERT_TRUE(g->SetConnectionValue(g->FindByPath(P("n1>sum")), g->FindByPath(P("n2<a")), 0,
                                    ioNodes, Data(true), nullptr));
  Finish(*g);
  EXPECT_EQ(value("n1>sum", "n2<a", 0, ioNodes), Data(true));
  EXPECT_EQ(value("n1>sum", "n2<a", 2, ioNodes), in);
  Ref<NodeSystemImpl> d = Must(NodeSystemImpl::CreateDerived(g));
  std::vector<std::pair<CONNECTION_ATTRIBUTE_KIND, InternedId>> listed;
  EXPECT_TRUE(
      d->GetConnectionValues(d->FindByPath(P("n1>sum")), d->FindByPath(P("n2<a")),
                             [&](CONNECTION_ATTRIBUTE_KIND kind, InternedId id, const Data& v) {
                               EXPECT_EQ(v, Data(true));
                               listed.emplace_back(kind, id);
                               return true;
                             }));
  EXPECT_EQ(listed, (decltype(listed){{CONNECTION_ATTRIBUTE_KIND::SOURCE, ioNodes}}));
}

TEST(ConnectionQueries, TouchingMarksSourcesAndTargetsOfAPortOrASubtree) {
  Ref<NodeSystemImpl> g = Graph({{"<r", "n1<a", 0x10}, {"n1>sum", "n2<a", 0x10}});
  const GFI S = GFI::MODIFIED_SOURCES, T = GFI::MODIFIED_TARGETS, NONE = GFI::NONE;
  const struct {
    const char* touched;
    bool subtree;
    std::vector<std::pair<const char*, GFI>> marks;
  } cases[] = {
      // n1<c by the content's feedback.
      {"n1>sum", false, {{"n2<a", S}, {"n1<c", S}, {"n1<b", T}, {"<r", NONE}}},
      // A nested port reaches the nested port at the far end of its parent's wire.
      {"<r/x", false, {{"n1<a/x", S}, {"n1<a/y", NONE}}},
      // A subtree: everything connected from outside, nothing inside.
      {"n1", true, {{"<r", T}, {"<r/x", T}, {"n2<a", S}, {"n2<a/x", S}, {"n1<a/x", NONE}}},
      {"n1", true, {{"n1<a", NONE}, {"n1<b", NONE}, {"n1>sum", NONE}, {"n1>sum/x", NONE}}},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(g->BeginModification());
    const GNode node = g->FindByPath(P(c.touched));
    ASSERT_TRUE(c.subtree ? g->TouchConnectedPortsRecursive(node) : g->TouchConnectedPorts(node));
    for (const auto& [path, marks] : c.marks) {
      EXPECT_EQ(g->FindNode(P(path)).info->flags & (S | T), marks) << c.touched << ": " << path;
    }
    Finish(*g);
  }
}

TEST(ConnectionQueries, TheCheckOfBothEndsNamesTheSourceFirst) {
  const std::string inconsistent = "Inconsistent result for wires from n1>sum to n2<a: ";
  const std::string full = Wires(0x3f).ToString(), part = Wires(0x3).ToString();
  const std::string missing = "Reverse connection from n1>sum to n2<a not found.";
  const struct {
    const char* port;  // whose record is changed
    bool derived;      // the wire is taken away in a derived system first
    bool erase;        // erased, or set to 0x3
    std::string expected;
  } cases[] = {
      {"n2<a", false, false, inconsistent + full + " and " + part},
      {"n1>sum", false, false, inconsistent + part + " and " + full},
      {"n2<a", false, true, missing},
      {"n1>sum", false, true, missing},
      // Without the derived system's record of 0 wires, that end sees the base's.
      {"n2<a", true, true, missing},
      {"n1>sum", true, true, missing},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.port) + (c.derived ? " derived" : "") + (c.erase ? " erased" : ""));
    Ref<NodeSystemImpl> s =
        Graph({{"n1>sum", "n2<a", 0x3f}, {"<r", "n1<a", 0x10}, {"<s", "n1<a/x", 0x10}});
    if (c.derived) {
      s = Open(s);
      Wire(*s, "n1>sum", "n2<a", 0x3e);
      Finish(*s);
    }
    EXPECT_EQ(Message(s->CheckConnectionConsistency()), "(ok)");
    const bool atTarget = std::string_view(c.port) == "n2<a";
    const ConnectionKey key =
        ConnectionKey::Make(P(atTarget ? "n1>sum" : "n2<a"), CONNECTION_TYPE::NORMAL,
                            atTarget ? CONNECTION_DIRECTION::SOURCE : CONNECTION_DIRECTION::TARGET);
    ConnectionTable* table = NodeSystemImpl::ConnectionTableOf(Writable(*s, c.port));
    ASSERT_TRUE(c.erase ? table->Erase(key) : bool(table->Set(key, {Wires(0x3), nullptr})));
    EXPECT_EQ(Message(s->CheckConnectionConsistency()), c.expected);
  }
}

// Nested ports added below the ports of nodes are elements that their content
// never had. The content's wire <i -> >o reaches n3<i/y as an implicit wire
// from both ends. The one <b -> >sum names n1<b/z/y as the source of
// n1>sum/z/y, two levels below anything that exists: skipped without an
// internal-error line.
TEST(ConnectionQueries, NestedPortsBelowANodesPortShareItsContentsWires) {
  Ref<NodeSystemImpl> g = Graph({});
  ASSERT_TRUE(g->BeginModification());
  AddPorts(*g, {"n3<i/y", "n1>sum/z", "n1>sum/z/y"});
  Finish(*g);
  CapturedOutput output;
  EXPECT_EQ(Query(*g, "n3<i/y", ALL_IMPLICIT, GCF::TARGETS), "to n3>o/y 0x500000000050");
  EXPECT_EQ(Query(*g, "n3>o/y", ALL_IMPLICIT, GCF::SOURCES), "from n3<i/y 0x500000000050");
  EXPECT_EQ(Query(*g, "n1>sum/z/y", ALL_IMPLICIT, GCF::SOURCES), "");
  EXPECT_EQ(Message(g->CheckConnectionConsistency()), "(ok)");
  EXPECT_EQ(output.Texts(OUTPUT_LEVEL::CRITICAL), std::vector<std::string>{});
}

// A derived system that removes a port of its base and adds the same path
// again has a new port without a base and without wires; the port at the
// other end must not read its base record naming the old one either.
TEST(ConnectionQueries, APortRemovedAndAddedAgainInADerivedSystemKeepsNoHalfWires) {
  Ref<NodeSystemImpl> g = Open();
  AddPorts(*g, {"<a", "<a/x", ">b", ">b/x"});
  Wire(*g, "<a/x", ">b/x", 0x10);
  Finish(*g);
  Ref<NodeSystemImpl> d = Open(g);
  ASSERT_TRUE(d->Remove(d->FindByPath(P("<a/x")), nullptr));
  AddPorts(*d, {"<a/x"});
  Finish(*d);
  EXPECT_EQ(Query(*d, "<a/x", ALL, GCF::TARGETS), "");
  EXPECT_EQ(Query(*d, ">b/x", ALL, GCF::SOURCES), "");
  EXPECT_EQ(Message(d->CheckConnectionConsistency()), "(ok)");
}

// Switches the check of both ends on for one test, whatever the environment
// says, and puts back what was there.
class ConsistencyCheckOn {
 public:
  ConsistencyCheckOn() : _was(g_testGetConnections.Get()) { g_testGetConnections.Set(true); }
  ~ConsistencyCheckOn() { g_testGetConnections.Set(_was); }

 private:
  bool _was;
};

// Node m on an operator with the nested input <a/p/q, and the root inputs <u
// and <w shaped alike: wires between them can meet at every level. Ended
// with the check of both ends; the end's message, "(ok)" if it went through.
Ref<NodeSystemImpl> Aligned(
    std::initializer_list<std::tuple<std::string_view, std::string_view, uint64_t>> wires,
    std::string& ended) {
  static const Ref<NodeSystemImpl> op = MakeOperator({{"<a", "<a/p", "<a/p/q"}, {}});
  Ref<NodeSystemImpl> s = Open();
  EXPECT_TRUE(s->AddChild("m", op, nullptr));
  AddPorts(*s, {"<u", "<u/p", "<u/p/q", "<w", "<w/p", "<w/p/q"});
  for (const auto& [from, to, w] : wires) Wire(*s, from, to, w);
  const ConsistencyCheckOn check;
  ended = Message(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  return s;
}

// A nested port's own source wire hides the same channel of an ancestor's
// wire even where its end at the port was reported already, from a nearer
// level: <u/p -> m<a/p on channel 1 keeps <w -> m<a on channel 1 from
// m<a/p/q, whose source <u/p/q came first through a wire of its own.
TEST(ConnectionQueries, ASourceWireHidesItsChannelsAlsoWhereItsEndCameFromANearerLevel) {
  std::string ended;
  Ref<NodeSystemImpl> g = Aligned(
      {{"<u/p/q", "m<a/p/q", 0x10}, {"<u/p", "m<a/p", 0x1000}, {"<w", "m<a", 0x1000}}, ended);
  EXPECT_EQ(ended, "(ok)");
  EXPECT_EQ(Query(*g, "m<a/p/q", ALL_IMPLICIT, GCF::SOURCES), "from <u/p/q 0x10");
  EXPECT_EQ(Query(*g, "<w/p/q", ALL_IMPLICIT, GCF::TARGETS), "");
  EXPECT_EQ(Query(*g, "m<a/p", ALL_IMPLICIT, GCF::SOURCES), "from <u/p 0x1000");
  EXPECT_EQ(Query(*g, "<w/p", ALL_IMPLICIT, GCF::TARGETS), "");
  // With a channel that the nearer wires don't use, the ancestor's wire goes
  // through, with all its channels.
  Ref<NodeSystemImpl> h = Aligned(
      {{"<u/p/q", "m<a/p/q", 0x10}, {"<u/p", "m<a/p", 0x1000}, {"<w", "m<a", 0x101000}}, ended);
  EXPECT_EQ(ended, "(ok)");
  EXPECT_EQ(Query(*h, "m<a/p/q", ALL_IMPLICIT, GCF::SOURCES),
            "from <u/p/q 0x10, from <w/p/q 0x505000");
  EXPECT_EQ(Query(*h, "<w/p/q", ALL_IMPLICIT, GCF::TARGETS), "to m<a/p/q 0x505000");
}

// A source wire of an ancestor port hides its channels from the nested ports
// below even where the nested port at its own end doesn't exist: <u -> m<a/p
// names <u/q for m<a/p/q, and there is none, yet the intermediate port m<a/p
// has that source and keeps the wire <u -> m<a from m<a/p/q on channel 1, as
// seen from <u/p/q too.
TEST(ConnectionQueries, ASourceWireHidesItsChannelsAlsoWhereItsNestedEndIsMissing) {
  std::string ended;
  Ref<NodeSystemImpl> g = Aligned({{"<u", "m<a", 0x1000}, {"<u", "m<a/p", 0x1000}}, ended);
  EXPECT_EQ(ended, "(ok)");
  EXPECT_EQ(Query(*g, "m<a/p/q", ALL_IMPLICIT, GCF::SOURCES), "");
  EXPECT_EQ(Query(*g, "<u/p/q", ALL_IMPLICIT, GCF::TARGETS), "");
  EXPECT_EQ(Query(*g, "m<a/p", ALL_IMPLICIT, GCF::SOURCES), "from <u 0x1000");
}

// In a derived system what hides an ancestor's wire is the nested port's
// wire as this system has it: a base's record that a newer one replaces at
// the same level hides nothing, whether the wire was changed or taken away,
// nor does a record whose end this system removed; a record whose end is
// there while the nested port at that end was removed still does.
TEST(ConnectionQueries, OnlyTheEffectiveSourceWiresOfANestedPortHideAnAncestorsWire) {
  std::string ended;
  const Ref<NodeSystemImpl> base =
      Aligned({{"<u/p", "m<a/p", 0x1000}, {"<w", "m<a", 0x1000}}, ended);
  ASSERT_EQ(ended, "(ok)");
  EXPECT_EQ(Query(*base, "m<a/p/q", ALL_IMPLICIT, GCF::SOURCES), "from <u/p/q 0x5000");
  const struct {
    const char* edit;
    std::string atPort;  // the sources of m<a/p/q
    std::string atEnd;   // the targets of <w/p/q
  } cases[] = {
      // m<a/p's wire moves from channel 1 to channel 0.
      {"changed", "from <u/p/q 0x50, from <w/p/q 0x5000", "to m<a/p/q 0x5000"},
      // m<a/p's wire is taken away by a record of no wires.
      {"cleared", "from <w/p/q 0x5000", "to m<a/p/q 0x5000"},
      // <u/p is gone, and with it m<a/p's source.
      {"end removed", "from <w/p/q 0x5000", "to m<a/p/q 0x5000"},
      // <u/p/q is gone; m<a/p keeps its source <u/p.
      {"nested end removed", "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.edit);
    Ref<NodeSystemImpl> d = Open(base);
    const std::string_view edit = c.edit;
    if (edit == "changed") Wire(*d, "<u/p", "m<a/p", 0x3e10);
    if (edit == "cleared") Wire(*d, "<u/p", "m<a/p", 0x3e00);
    if (edit.ends_with("removed")) {
      const char* gone = edit == "end removed" ? "<u/p" : "<u/p/q";
      ASSERT_TRUE(d->Remove(d->FindByPath(P(gone)), nullptr));
    }
    const ConsistencyCheckOn check;
    EXPECT_EQ(Message(d->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)), "(ok)");
    EXPECT_EQ(Query(*d, "m<a/p/q", ALL_IMPLICIT, GCF::SOURCES), c.atPort);
    EXPECT_EQ(Query(*d, "<w/p/q", ALL_IMPLICIT, GCF::TARGETS), c.atEnd);
  }
  // The base keeps its own view.
  EXPECT_EQ(Query(*base, "<w/p/q", ALL_IMPLICIT, GCF::TARGETS), "");
}

}  // namespace
}  // namespace orvix::nodes::test
