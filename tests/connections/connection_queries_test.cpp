// The effective connections of a port: the order of reports over levels and
// layers, the published forms, shortcut records, induced dependencies, the
// touches of connected ports and the check of both ends.

#include <algorithm>
#include <sstream>

#include "connection_test_support.h"
#include "orvix/host/diagnostics.h"

namespace orvix::nodes::test {
namespace {

constexpr uint64_t ALL = ALL_WIRES_MASK;
constexpr uint64_t ALL_IMPLICIT = ALL_WIRES_IMPLICIT_MASK;

std::string Line(const NodePath& other, Wires wires, const char* direction = "") {
  std::ostringstream out;
  out << direction << other.ToString() << " 0x" << std::hex << wires.GetValue();
  return out.str();
}

// The reports of a query in their order: "from " a source, "to " a target.
std::vector<std::string> Query(const NodeSystemImpl& s, std::string_view port, uint64_t mask,
                               GCF flags, std::string_view filter = "") {
  std::vector<std::string> lines;
  ConnectionQuery query;
  query.port = s.FindByPath(P(port));
  if (!filter.empty()) query.filterPath = P(filter);
  query.callback = [&](ConnectionQuery& q) -> Result<bool> {
    lines.push_back(
        Line(q.other.path, q.wires, q.direction == CONNECTION_DIRECTION::TARGET ? "to " : "from "));
    return true;
  };
  Result<bool> r = s.GetConnections(mask, flags, query, UNLIMITED_DEPTH);
  EXPECT_TRUE(r) << port << ": " << Message(r);
  return lines;
}

std::string QueryError(const NodeSystemImpl& s, std::string_view port, GCF flags) {
  ConnectionQuery query;
  query.port = s.FindByPath(P(port));
  query.callback = [](ConnectionQuery&) -> Result<bool> { return true; };
  return Message(s.GetConnections(ALL_IMPLICIT, flags, query, UNLIMITED_DEPTH));
}

std::vector<std::string> Sorted(std::vector<std::string> lines) {
  std::sort(lines.begin(), lines.end());
  return lines;
}

// Root ports <r (with x), <s, >q (with x); nodes n1 and n2 (adders) and n3
// (a gate). The system is left under modification.
Ref<NodeSystemImpl> Graph() {
  static const Ref<NodeSystemImpl> adder = MakeOperator(Adder());
  static const Ref<NodeSystemImpl> gate = MakeOperator(Gate());
  Ref<NodeSystemImpl> s = NewSystem();
  EXPECT_TRUE(s->BeginModification());
  AddPorts(*s, {"<r", "<r/x", "<s", ">q", ">q/x"});
  AddNode(*s, "n1", adder);
  AddNode(*s, "n2", adder);
  AddNode(*s, "n3", gate);
  return s;
}

NodeInfo* Writable(NodeSystemImpl& s, std::string_view path) {
  GNode handle = s.MakeHandle(P(path));
  return s.GetMutable(handle, NODE_KIND::NONE).Value();
}

void SetRecord(NodeSystemImpl& s, std::string_view port, std::string_view other,
               CONNECTION_TYPE type, CONNECTION_DIRECTION direction, uint64_t wires) {
  ConnectionTable* table = NodeSystemImpl::ConnectionTableOf(Writable(s, port));
  ASSERT_TRUE(table->Set(ConnectionKey::Make(P(other), type, direction),
                         ConnectionData{Wires(wires), nullptr}));
}

// The random graphs compare the reports as sets; their order is checked here.
TEST(ConnectionQueries, NearerLevelsComeFirstAndNewerLayersHideOlderOnes) {
  Ref<NodeSystemImpl> g = Graph();
  Wire(*g, "<r", "n1<a", 0x1010);
  Wire(*g, "<r/x", "n2<a/x", 0x10);
  Wire(*g, "<s", "n1<a/x", 0x10);  // n1<a/x has a source of its own on channel 0
  Finish(*g);
  // The parent's wire reaches n1<a/x on channel 1 only; the report keeps the
  // record's channels, marked implicit.
  EXPECT_EQ(Query(*g, "<r/x", ALL_IMPLICIT, GCF::TARGETS),
            (std::vector<std::string>{"to n2<a/x 0x10", "to n1<a/x 0x5050"}));
  // The other direction: the own source first, then the parent's sources, the
  // system's record before the one in the node's content.
  EXPECT_EQ(
      Query(*g, "n1<a/x", ALL_IMPLICIT, GCF::SOURCES),
      (std::vector<std::string>{"from <s 0x10", "from <r/x 0x5050", "from n1>sum/x 0x50000000"}));
  // A derived system's record of a wire is reported once, in place of the base's.
  Ref<NodeSystemImpl> d = NodeSystemImpl::CreateDerived(g).Value();
  ASSERT_TRUE(d->BeginModification());
  Wire(*d, "<r/x", "n2<a/x", 0x20);
  Finish(*d);
  EXPECT_EQ(Query(*d, "<r/x", ALL_IMPLICIT, GCF::TARGETS),
            (std::vector<std::string>{"to n2<a/x 0x20", "to n1<a/x 0x5050"}));
}

TEST(ConnectionQueries, AnOtherEndThatIsSourceAndTargetIsReportedOnce) {
  Ref<NodeSystemImpl> g = NewSystem();
  ASSERT_TRUE(g->BeginModification());
  AddPorts(*g, {"<a", ">b"});
  Wire(*g, "<a", ">b", 0x10);
  Wire(*g, ">b", "<a", 0x2000);
  Finish(*g);
  EXPECT_EQ(Query(*g, "<a", ALL, GCF::SOURCES), (std::vector<std::string>{"from >b 0x2000"}));
  EXPECT_EQ(Query(*g, "<a", ALL, GCF::TARGETS), (std::vector<std::string>{"to >b 0x10"}));
  const std::vector<std::string> both = Query(*g, "<a", ALL, GCF::SOURCES | GCF::TARGETS);
  ASSERT_EQ(both.size(), 1u);
  EXPECT_TRUE(both[0] == "from >b 0x2000" || both[0] == "to >b 0x10") << both[0];
}

TEST(ConnectionQueries, ThePublishedFormMapsDirectionAndModes) {
  Ref<NodeSystemImpl> g = Graph();
  Wire(*g, "n1>sum", "n2<a", 0x10);
  Wire(*g, "n1>sum", "n3<i", 0x100000000010);  // with a wire on the inhibit channel
  Finish(*g);
  const GNode sum = g->FindByPath(P("n1>sum"));
  auto published = [&](PORT_DIR direction, GET_CONNECTIONS_MODE mode) {
    std::vector<std::string> lines;
    Result<bool> r = g->GetConnections(
        sum, direction, Wires(ALL), mode,
        [&](const GNode& other, Wires wires, const Ref<ConnectionAttributes>&) -> Result<bool> {
          lines.push_back(Line(other.path, wires));
          return true;
        });
    EXPECT_TRUE(r && *r) << Message(r);
    return Sorted(lines);
  };
  using MODE = GET_CONNECTIONS_MODE;
  using Lines = std::vector<std::string>;
  const Lines all{"n1<a 0x10000000", "n2<a 0x10", "n3<i 0x100000000010"};
  const struct {
    PORT_DIR direction;
    MODE mode;
    Lines expected;
  } rows[] = {
      {PORT_DIR::OUTPUT, MODE::CONNECTIONS, all},
      {PORT_DIR::OUTPUT, MODE::NONE, all},
      {PORT_DIR::OUTPUT, MODE::WITH_IMPLICIT_FLAG, all},
      {PORT_DIR::OUTPUT, MODE::EXTERNAL_CONNECTIONS, {"n2<a 0x10", "n3<i 0x100000000010"}},
      {PORT_DIR::OUTPUT, MODE::WITHOUT_INHIBITED, {"n1<a 0x10000000", "n2<a 0x10"}},
      {PORT_DIR::OUTPUT, MODE::EXTERNAL_CONNECTIONS | MODE::WITHOUT_INHIBITED, {"n2<a 0x10"}},
      {PORT_DIR::INPUT, MODE::CONNECTIONS, {"n1<b 0x10"}},
      {PORT_DIR::END, MODE::CONNECTIONS, {"n1<b 0x10"}},
      {PORT_DIR::OUTPUT, MODE::SHORTCUTS, {}},
      {PORT_DIR::OUTPUT, MODE::SHORTCUTS | MODE::INDUCED_DEPENDENCIES, {}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(published(row.direction, row.mode), row.expected) << "mode 0x" << ToBits(row.mode);
  }

  const char* inducedAlone = "INDUCED_DEPENDENCIES can only be used in conjunction with SHORTCUTS.";
  int calls = 0;
  auto stop = [&](const GNode&, Wires, const Ref<ConnectionAttributes>&) -> Result<bool> {
    ++calls;
    return false;
  };
  EXPECT_EQ(Message(g->GetConnections(sum, PORT_DIR::OUTPUT, Wires(ALL), MODE::INDUCED_DEPENDENCIES,
                                      stop)),
            inducedAlone);
  EXPECT_EQ(QueryError(*g, "n1>sum", GCF::TARGETS | GCF::INDUCED_DEPENDENCIES), inducedAlone);
  EXPECT_EQ(Message(g->GetConnections(sum, PORT_DIR::OUTPUT, Wires(ALL), MODE::CONNECTIONS,
                                      ConnectionCallback())),
            "Illegal argument: Condition callback not fulfilled. ");
  // Not a port: false, nothing reported. A callback that stops: false after
  // one report. One that fails: its error.
  EXPECT_FALSE(g->GetConnections(g->FindByPath(P("n1")), PORT_DIR::OUTPUT, Wires(ALL),
                                 MODE::CONNECTIONS, stop)
                   .Value());
  EXPECT_EQ(calls, 0);
  EXPECT_FALSE(
      g->GetConnections(sum, PORT_DIR::OUTPUT, Wires(ALL), MODE::CONNECTIONS, stop).Value());
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(Message(g->GetConnections(
                sum, PORT_DIR::OUTPUT, Wires(ALL), MODE::CONNECTIONS,
                [](const GNode&, Wires, const Ref<ConnectionAttributes>&) -> Result<bool> {
                  return Error(ERROR_CLASS::ILLEGAL_STATE, "stop here");
                })),
            "stop here");
}

TEST(ConnectionQueries, InducedDependenciesAreReportedOnceAndLast) {
  Ref<NodeSystemImpl> g = NewSystem();
  ASSERT_TRUE(g->BeginModification());
  AddPorts(*g, {"<r", "<s", "<s/x", ">q"});
  Finish(*g);
  Writable(*g, ">q")->flags |= GFI::HAS_SOURCE_SHORTCUTS;
  SetRecord(*g, ">q", "<r", CONNECTION_TYPE::SHORTCUT, CONNECTION_DIRECTION::SOURCE, 0x10);
  g->_inducedSources[P(">q")].paths = {P("<s/x"), P("<r")};
  const GCF induced = GCF::SOURCES | GCF::SHORTCUTS | GCF::INDUCED_DEPENDENCIES;

  EXPECT_EQ(Query(*g, ">q", ALL, GCF::SOURCES | GCF::SHORTCUTS),
            (std::vector<std::string>{"from <r 0x10"}));
  // The record that coincides carries the induced wire as well; the other
  // comes after every record.
  EXPECT_EQ(Query(*g, ">q", ALL, induced),
            (std::vector<std::string>{"from <r 0x80010", "from <s/x 0x80000"}));
  // Cut to top-level ports, two induced paths that meet are reported once.
  g->_inducedSources[P(">q")].paths.insert(P("<s"));
  EXPECT_EQ(Query(*g, ">q", ALL, induced | GCF::TOP_LEVEL_PORTS),
            (std::vector<std::string>{"from <r 0x80010", "from <s 0x80000"}));

  // Induced targets count only at a port whose loopdependencytarget is true.
  g->_inducedTargets[P(">q")] = {P("<s")};
  const GCF targets = GCF::TARGETS | GCF::SHORTCUTS | GCF::INDUCED_DEPENDENCIES;
  EXPECT_EQ(Query(*g, ">q", ALL, targets), std::vector<std::string>{});
  NodeInfo* q = Writable(*g, ">q");
  q->attributes = MakeRef<AttributeTable>();
  q->attributes->records.FindOrInsert(InternedId::Get("loopdependencytarget")).value = Data(true);
  const std::vector<std::string> lines = Query(*g, ">q", ALL, targets);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].ends_with("<s 0x80000")) << lines[0];

  g->_inducedSources[P(">q")].paths = {P("<gone")};
  EXPECT_EQ(QueryError(*g, ">q", induced), "The path <gone doesn't exist in this node system.");
}

// A stored shortcut from <a to >z: the target's record of type 2, the
// source's of type 3, in a system of its own.
Ref<NodeSystemImpl> ShortcutSystem() {
  Ref<NodeSystemImpl> b = NewSystem();
  EXPECT_TRUE(b->BeginModification());
  AddPorts(*b, {"<a", "<b", ">z"});
  Wire(*b, "<b", ">z", 0x10);
  Finish(*b);
  Writable(*b, ">z")->flags |= GFI::HAS_SOURCE_SHORTCUTS | GFI::SHORTCUT_STOP;
  SetRecord(*b, ">z", "<a", CONNECTION_TYPE::SHORTCUT, CONNECTION_DIRECTION::SOURCE, 0x20);
  SetRecord(*b, "<a", ">z", CONNECTION_TYPE::SHORTCUT, CONNECTION_DIRECTION::TARGET, 0x20);
  return b;
}

TEST(ConnectionQueries, ShortcutRecordsAndTheirValidityInADerivedSystem) {
  Ref<NodeSystemImpl> b = ShortcutSystem();
  EXPECT_EQ(Query(*b, ">z", ALL_IMPLICIT, GCF::SOURCES | GCF::SHORTCUTS),
            (std::vector<std::string>{"from <a 0x20"}));
  EXPECT_EQ(Query(*b, ">z", ALL_IMPLICIT, GCF::SOURCES),
            (std::vector<std::string>{"from <b 0x10"}));
  EXPECT_EQ(Query(*b, "<a", ALL_IMPLICIT, GCF::TARGETS | GCF::SHORTCUTS),
            (std::vector<std::string>{"to >z 0x20"}));

  Ref<NodeSystemImpl> d = NodeSystemImpl::CreateDerived(b).Value();
  const GCF targets = GCF::TARGETS | GCF::SHORTCUTS;
  // The target's nearest shortcut table is the one the record came from.
  EXPECT_EQ(Query(*d, "<a", ALL, targets), (std::vector<std::string>{"to >z 0x20"}));
  // A record of >z here has no shortcut table of its own: the source query
  // passes over it to the base's, which still confirms the target record.
  NodeInfo* z = Writable(*d, ">z");
  EXPECT_FALSE(z->HasFlags(GFI::HAS_SOURCE_SHORTCUTS));
  EXPECT_EQ(Query(*d, ">z", ALL, GCF::SOURCES | GCF::SHORTCUTS),
            (std::vector<std::string>{"from <a 0x20"}));
  EXPECT_EQ(Query(*d, "<a", ALL, targets), (std::vector<std::string>{"to >z 0x20"}));
  // With an (empty) table here, that table is the nearest: no sources, and no
  // confirmation of the base's target record.
  z->flags |= GFI::HAS_SOURCE_SHORTCUTS;
  EXPECT_EQ(Query(*d, ">z", ALL, GCF::SOURCES | GCF::SHORTCUTS), std::vector<std::string>{});
  EXPECT_EQ(Query(*d, "<a", ALL, targets), std::vector<std::string>{});
  // The port needs a record here as well, and the table the record back to it.
  Writable(*d, "<a");
  EXPECT_EQ(Query(*d, "<a", ALL, targets), std::vector<std::string>{});
  SetRecord(*d, ">z", "<a", CONNECTION_TYPE::SHORTCUT, CONNECTION_DIRECTION::SOURCE, 0x8);
  EXPECT_EQ(Query(*d, "<a", ALL, targets), (std::vector<std::string>{"to >z 0x20"}));
  SetRecord(*d, ">z", "<a", CONNECTION_TYPE::SHORTCUT, CONNECTION_DIRECTION::SOURCE, 0);
  EXPECT_EQ(QueryError(*d, "<a", targets), "Assertion failed: Condition w->wires not fulfilled. ");
  // A target that no longer stops shortcuts confirms nothing.
  SetRecord(*d, ">z", "<a", CONNECTION_TYPE::SHORTCUT, CONNECTION_DIRECTION::SOURCE, 0x8);
  Writable(*d, ">z")->flags &= ~GFI::SHORTCUT_STOP_MASK;
  EXPECT_EQ(Query(*d, "<a", ALL, targets), std::vector<std::string>{});
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
  bool& keep = handler->keep;
  std::vector<std::string>& asked = handler->asked;
  Ref<NodeSystemImpl> b = ShortcutSystem();
  ASSERT_TRUE(b->SetDerivationHandler(handler));
  Writable(*b, "<a")->flags |= GFI::FILTER_SHORTCUT_SOURCE;
  Writable(*b, ">z")->flags |= GFI::FILTER_SHORTCUT_TARGET;
  const GCF filtered = GCF::SHORTCUTS | GCF::FILTER_SHORTCUTS;

  EXPECT_EQ(Query(*b, "<a", ALL, GCF::TARGETS | GCF::SHORTCUTS),
            (std::vector<std::string>{"to >z 0x20"}));
  EXPECT_TRUE(asked.empty());
  EXPECT_EQ(Query(*b, "<a", ALL, GCF::TARGETS | filtered), std::vector<std::string>{});
  EXPECT_EQ(Query(*b, ">z", ALL, GCF::SOURCES | filtered), std::vector<std::string>{});
  EXPECT_EQ(asked, (std::vector<std::string>{"<a|>z", "<a|>z"}));
  // The published form with SHORTCUTS always asks.
  int reports = 0;
  EXPECT_TRUE(b->GetConnections(
      b->FindByPath(P("<a")), PORT_DIR::OUTPUT, Wires(ALL), GET_CONNECTIONS_MODE::SHORTCUTS,
      [&](const GNode&, Wires, const Ref<ConnectionAttributes>&) -> Result<bool> {
        ++reports;
        return true;
      }));
  EXPECT_EQ(reports, 0);
  EXPECT_EQ(asked.size(), 3u);
  keep = true;
  EXPECT_EQ(Query(*b, ">z", ALL, GCF::SOURCES | filtered),
            (std::vector<std::string>{"from <a 0x20"}));
  // Only a pair of a filter source and a filter target is asked about.
  Writable(*b, "<a")->flags &= ~GFI::FILTER_SHORTCUT_SOURCE;
  keep = false;
  EXPECT_EQ(Query(*b, "<a", ALL, GCF::TARGETS | filtered),
            (std::vector<std::string>{"to >z 0x20"}));
  EXPECT_EQ(asked.size(), 4u);
}

TEST(ConnectionQueries, ConnectionValuesAndTheDefaultOfIoNodes) {
  Ref<NodeSystemImpl> g = Graph();
  Wire(*g, "n1>sum", "n2<a", 0x10);
  Wire(*g, "<r", "n1<a", 0x10);
  Finish(*g);
  const InternedId ioNodes = InternedId::Get("net.orvix.node.ionodes");
  auto value = [&](std::string_view from, std::string_view to, uint32_t kind, InternedId id) {
    return g->GetConnectionValue(g->FindByPath(P(from)), g->FindByPath(P(to)), kind, id).Value();
  };
  EXPECT_EQ(IoNodesDefault(true), Data(DataArray::Of<InternedId>({InternedId::Get("out")})));
  EXPECT_EQ(IoNodesDefault(false), Data(DataArray::Of<InternedId>({InternedId::Get("in")})));
  // Kind 0 reads the source end, kind 2 the target end; an input as source is "in".
  EXPECT_EQ(value("n1>sum", "n2<a", 0, ioNodes), IoNodesDefault(true));
  EXPECT_EQ(value("n1>sum", "n2<a", 2, ioNodes), IoNodesDefault(false));
  EXPECT_EQ(value("<r", "n1<a", 0, ioNodes), IoNodesDefault(false));
  EXPECT_EQ(value("n1>sum", "n2<b", 2, ioNodes), IoNodesDefault(false));
  EXPECT_TRUE(value("n1>sum", "n2<a", 1, ioNodes).IsEmpty());
  EXPECT_TRUE(value("n1>sum", "n2<a", 0, InternedId::Get("other")).IsEmpty());

  // A stored value wins; it is shared with a derived system.
  ASSERT_TRUE(g->BeginModification());
  ASSERT_TRUE(g->SetConnectionValue(g->FindByPath(P("n1>sum")), g->FindByPath(P("n2<a")), 0,
                                    ioNodes, Data(true), nullptr));
  Finish(*g);
  EXPECT_EQ(value("n1>sum", "n2<a", 0, ioNodes), Data(true));
  EXPECT_EQ(value("n1>sum", "n2<a", 2, ioNodes), IoNodesDefault(false));
  Ref<NodeSystemImpl> d = NodeSystemImpl::CreateDerived(g).Value();
  std::vector<std::pair<CONNECTION_ATTRIBUTE_KIND, InternedId>> listed;
  EXPECT_TRUE(
      d->GetConnectionValues(d->FindByPath(P("n1>sum")), d->FindByPath(P("n2<a")),
                             [&](CONNECTION_ATTRIBUTE_KIND kind, InternedId id, const Data& v) {
                               EXPECT_EQ(v, Data(true));
                               listed.emplace_back(kind, id);
                               return true;
                             }));
  EXPECT_EQ(listed, (std::vector<std::pair<CONNECTION_ATTRIBUTE_KIND, InternedId>>{
                        {CONNECTION_ATTRIBUTE_KIND::SOURCE, ioNodes}}));
}

// The modified bits of `path` that tell of changed sources and targets.
GFI Touched(const NodeSystemImpl& s, std::string_view path) {
  return s.FindNode(P(path)).info->flags & (GFI::MODIFIED_SOURCES | GFI::MODIFIED_TARGETS);
}

TEST(ConnectionQueries, TouchingMarksSourcesAndTargetsOfAPortOrASubtree) {
  Ref<NodeSystemImpl> g = Graph();
  Wire(*g, "<r", "n1<a", 0x10);
  Wire(*g, "n1>sum", "n2<a", 0x10);
  Finish(*g);

  ASSERT_TRUE(g->BeginModification());
  ASSERT_TRUE(g->TouchConnectedPorts(g->FindByPath(P("n1>sum"))));
  EXPECT_EQ(Touched(*g, "n2<a"), GFI::MODIFIED_SOURCES);
  EXPECT_EQ(Touched(*g, "n1<a"), GFI::MODIFIED_SOURCES);  // the content's feedback
  EXPECT_EQ(Touched(*g, "n1<b"), GFI::MODIFIED_TARGETS);
  EXPECT_EQ(Touched(*g, "<r"), GFI::NONE);
  Finish(*g);

  // A nested port reaches the nested port at the far end of its parent's wire.
  ASSERT_TRUE(g->BeginModification());
  ASSERT_TRUE(g->TouchConnectedPorts(g->FindByPath(P("<r/x"))));
  EXPECT_EQ(Touched(*g, "n1<a/x"), GFI::MODIFIED_SOURCES);
  EXPECT_EQ(Touched(*g, "n1<a/y"), GFI::NONE);
  Finish(*g);

  // A subtree: everything connected from outside, nothing inside.
  ASSERT_TRUE(g->BeginModification());
  ASSERT_TRUE(g->TouchConnectedPortsRecursive(g->FindByPath(P("n1"))));
  EXPECT_EQ(Touched(*g, "<r"), GFI::MODIFIED_TARGETS);
  EXPECT_EQ(Touched(*g, "<r/x"), GFI::MODIFIED_TARGETS);
  EXPECT_EQ(Touched(*g, "n2<a"), GFI::MODIFIED_SOURCES);
  EXPECT_EQ(Touched(*g, "n2<a/x"), GFI::MODIFIED_SOURCES);
  for (const char* inside : {"n1<a", "n1<a/x", "n1<b", "n1>sum", "n1>sum/x"}) {
    EXPECT_EQ(Touched(*g, inside), GFI::NONE) << inside;
  }
  Finish(*g);
}

TEST(ConnectionQueries, TheCheckOfBothEndsNamesTheSourceFirst) {
  const std::string full = Wires(0x3f).ToString();
  const std::string part = Wires(0x3).ToString();
  struct Case {
    const char* port;  // whose record is changed
    bool derived;      // the wire is taken away in a derived system first
    bool erase;        // erased, or set to 0x3
    std::string expected;
  };
  const Case cases[] = {
      {"n2<a", false, false,
       "Inconsistent result for wires from n1>sum to n2<a: " + full + " and " + part},
      {"n1>sum", false, false,
       "Inconsistent result for wires from n1>sum to n2<a: " + part + " and " + full},
      {"n2<a", false, true, "Reverse connection from n1>sum to n2<a not found."},
      {"n1>sum", false, true, "Reverse connection from n1>sum to n2<a not found."},
      // Without the derived system's record of 0 wires, that end sees the base's.
      {"n2<a", true, true, "Reverse connection from n1>sum to n2<a not found."},
      {"n1>sum", true, true, "Reverse connection from n1>sum to n2<a not found."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.port) + (c.derived ? " derived" : "") + (c.erase ? " erased" : ""));
    Ref<NodeSystemImpl> g = Graph();
    Wire(*g, "n1>sum", "n2<a", 0x3f);
    Wire(*g, "<r", "n1<a", 0x10);
    Wire(*g, "<s", "n1<a/x", 0x10);
    Finish(*g);
    Ref<NodeSystemImpl> s = g;
    if (c.derived) {
      s = NodeSystemImpl::CreateDerived(g).Value();
      ASSERT_TRUE(s->BeginModification());
      Wire(*s, "n1>sum", "n2<a", 0x3e);
      Finish(*s);
    }
    EXPECT_EQ(Message(s->CheckConnectionConsistency()), "(ok)");
    const bool atTarget = std::string_view(c.port) == "n2<a";
    const ConnectionKey key = atTarget ? ConnectionKey::Make(P("n1>sum"), CONNECTION_TYPE::NORMAL,
                                                             CONNECTION_DIRECTION::SOURCE)
                                       : ConnectionKey::Make(P("n2<a"), CONNECTION_TYPE::NORMAL,
                                                             CONNECTION_DIRECTION::TARGET);
    ConnectionTable* table = NodeSystemImpl::ConnectionTableOf(Writable(*s, c.port));
    if (c.erase) {
      ASSERT_TRUE(table->Erase(key));
    } else {
      ASSERT_TRUE(table->Set(key, ConnectionData{Wires(0x3), nullptr}));
    }
    EXPECT_EQ(Message(s->CheckConnectionConsistency()), c.expected);
  }
}

// An end two nested levels below anything that exists (here n1<b/z/y, from
// the content's wire <b -> >sum) is absent: skipped without an internal-error
// line.
TEST(ConnectionQueries, AWireToAMissingNestedPortIsSkippedQuietly) {
  Ref<NodeSystemImpl> g = Graph();
  AddPorts(*g, {"n1>sum/z", "n1>sum/z/y"});
  Finish(*g);
  CapturedOutput output;
  EXPECT_EQ(Query(*g, "n1>sum/z/y", ALL_IMPLICIT, GCF::SOURCES), std::vector<std::string>{});
  EXPECT_EQ(output.Texts(OUTPUT_LEVEL::CRITICAL), std::vector<std::string>{});
}

// A derived system that removes a port of its base and adds the same path
// again has a new port without a base and without wires; the port at the
// other end must not read its base record naming the old one either.
TEST(ConnectionQueries, APortRemovedAndAddedAgainInADerivedSystemKeepsNoHalfWires) {
  Ref<NodeSystemImpl> g = NewSystem();
  ASSERT_TRUE(g->BeginModification());
  AddPorts(*g, {"<a", "<a/x", ">b", ">b/x"});
  Wire(*g, "<a/x", ">b/x", 0x10);
  Finish(*g);
  Ref<NodeSystemImpl> d = NodeSystemImpl::CreateDerived(g).Value();
  ASSERT_TRUE(d->BeginModification());
  ASSERT_TRUE(d->Remove(d->FindByPath(P("<a/x")), nullptr));
  AddPorts(*d, {"<a/x"});
  Finish(*d);
  EXPECT_EQ(Query(*d, "<a/x", ALL, GCF::TARGETS), std::vector<std::string>{});
  EXPECT_EQ(Query(*d, ">b/x", ALL, GCF::SOURCES), std::vector<std::string>{});
  EXPECT_EQ(Message(d->CheckConnectionConsistency()), "(ok)");
}

// A nested port added below a node's port is a new element that the content
// never had: the content's own wire <i -> >o reaches it as an implicit wire
// from both ends.
TEST(ConnectionQueries, ANestedPortAddedBelowANodesPortSharesItsContentsWires) {
  Ref<NodeSystemImpl> g = Graph();
  AddPorts(*g, {"n3<i/y"});
  Finish(*g);
  EXPECT_EQ(Query(*g, "n3<i/y", ALL_IMPLICIT, GCF::TARGETS),
            (std::vector<std::string>{"to n3>o/y 0x500000000050"}));
  EXPECT_EQ(Query(*g, "n3>o/y", ALL_IMPLICIT, GCF::SOURCES),
            (std::vector<std::string>{"from n3<i/y 0x500000000050"}));
  EXPECT_EQ(Message(g->CheckConnectionConsistency()), "(ok)");
}

}  // namespace
}  // namespace orvix::nodes::test
