// Topology validation against a model: random graphs of nodes on small
// operators (one of them with an inner node, so that dependencies go
// through a second level) and root ports, with random wires. After each
// step the sort must refuse exactly the graphs whose port-level graph (each
// node expanded by what its inputs reach inside) has a loop, name only
// ports on loops and at least one port of each, and otherwise order every
// wire's source before its target. Copies sharing an order keep theirs.

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "../connections/connection_test_support.h"
#include "cycle_message.h"
#include "orvix/nodes/modification.h"

namespace orvix::nodes::test {
namespace {

using Deps = std::set<std::pair<std::string, std::string>>;  // input id -> output id

struct Operator {
  Ref<NodeSystemImpl> system;
  Deps deps;
};

// Ports <a, <b, >x, >y, and the wires `inner` between them.
Ref<NodeSystemImpl> Leaf(const Deps& inner) {
  Ref<NodeSystemImpl> s = Open();
  AddPorts(*s, {"<a", "<b", ">x", ">y"});
  for (const auto& [in, out] : inner) Wire(*s, "<" + in, ">" + out, 0x10);
  Finish(*s);
  return s;
}

// The same ports around an inner node on `leaf`, wired straight through.
Ref<NodeSystemImpl> Group(const Ref<NodeSystemImpl>& leaf) {
  Ref<NodeSystemImpl> s = Open();
  AddPorts(*s, {"<a", "<b", ">x", ">y"});
  EXPECT_TRUE(s->AddChild("n", leaf, nullptr));
  for (const char* in : {"a", "b"}) Wire(*s, fmt::format("<{}", in), fmt::format("n<{}", in), 0x10);
  for (const char* out : {"x", "y"}) {
    Wire(*s, fmt::format("n>{}", out), fmt::format(">{}", out), 0x10);
  }
  Finish(*s);
  return s;
}

const std::vector<Operator>& Operators() {
  static const std::vector<Operator> ops = [] {
    const Deps straight{{"a", "x"}, {"b", "y"}};
    const Deps none;
    const Deps cross{{"a", "y"}};
    return std::vector<Operator>{{Leaf(straight), straight},
                                 {Leaf(none), none},
                                 {Leaf(cross), cross},
                                 {Group(Leaf(straight)), straight}};
  }();
  return ops;
}

class Graph {
 public:
  explicit Graph(uint32_t seed) : _rng(seed) {
    s = Open();
    AddPorts(*s, {"<r0", "<r1", ">s0", ">s1"});
    for (int i = 0; i < 6; ++i) {
      const size_t op = Pick(Operators().size());
      const std::string id = fmt::format("k{}", i);
      EXPECT_TRUE(s->AddChild(id, Operators()[op].system, nullptr));
      _nodes[id] = op;
    }
    for (const auto& [id, op] : _nodes) {
      for (const char* p : {"<a", "<b"}) _inputs.push_back(id + p);
      for (const char* p : {">x", ">y"}) _outputs.push_back(id + p);
    }
    for (const char* p : {"<r0", "<r1"}) _outputs.push_back(p);  // sources inside
    for (const char* p : {">s0", ">s1"}) {
      _inputs.push_back(p);
      _outputs.push_back(p);
    }
    _inputs.push_back("<r0");
    _inputs.push_back("<r1");
  }

  size_t Pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(_rng); }

  // Adds a random wire that the connect rules allow; false if none was found.
  bool AddWire(std::pair<std::string, std::string>& added) {
    for (int tries = 0; tries < 20; ++tries) {
      const std::string from = _outputs[Pick(_outputs.size())];
      const std::string to = _inputs[Pick(_inputs.size())];
      if (from == to || wires.count({from, to})) continue;
      if (!s->Connect(s->FindByPath(P(from)), s->FindByPath(P(to)), Wires(0x10), nullptr)) continue;
      wires.insert({from, to});
      added = {from, to};
      return true;
    }
    return false;
  }
  void RemoveWire(const std::pair<std::string, std::string>& w) {
    EXPECT_TRUE(
        s->Connect(s->FindByPath(P(w.first)), s->FindByPath(P(w.second)), Wires(0x3e), nullptr));
    wires.erase(w);
  }

  // The port-level graph: wires, and each node's inner dependencies.
  std::map<std::string, std::set<std::string>> Edges() const {
    std::map<std::string, std::set<std::string>> edges;
    for (const auto& [from, to] : wires) edges[from].insert(to);
    for (const auto& [id, op] : _nodes) {
      for (const auto& [in, out] : Operators()[op].deps)
        edges[id + "<" + in].insert(id + ">" + out);
    }
    return edges;
  }
  // The ports that lie on a loop, by strongly connected components.
  std::vector<std::set<std::string>> Loops() const {
    const auto edges = Edges();
    std::set<std::string> ports;
    for (const auto& [from, tos] : edges) {
      ports.insert(from);
      ports.insert(tos.begin(), tos.end());
    }
    auto reaches = [&](const std::string& a, const std::string& b) {
      std::set<std::string> seen;
      std::vector<std::string> stack{a};
      while (!stack.empty()) {
        const std::string p = stack.back();
        stack.pop_back();
        const auto it = edges.find(p);
        if (it == edges.end()) continue;
        for (const std::string& q : it->second) {
          if (q == b) return true;
          if (seen.insert(q).second) stack.push_back(q);
        }
      }
      return false;
    };
    std::vector<std::set<std::string>> loops;
    std::set<std::string> placed;
    for (const std::string& p : ports) {
      if (placed.count(p) || !reaches(p, p)) continue;
      std::set<std::string> loop{p};
      for (const std::string& q : ports) {
        if (q != p && reaches(p, q) && reaches(q, p)) loop.insert(q);
      }
      placed.insert(loop.begin(), loop.end());
      loops.push_back(loop);
    }
    return loops;
  }

  // Every top-level port of the graph.
  std::set<std::string> TopLevelPorts() const {
    std::set<std::string> all(_inputs.begin(), _inputs.end());
    all.insert(_outputs.begin(), _outputs.end());
    return all;
  }

  Ref<NodeSystemImpl> s;
  std::set<std::pair<std::string, std::string>> wires;

 private:
  std::mt19937 _rng;
  std::map<std::string, size_t> _nodes;
  std::vector<std::string> _inputs, _outputs;
};

int64_t IndexOf(const NodeSystemImpl& s, const std::string& port) {
  return Must(s.GetTopologicalIndex(s.FindByPath(P(port))));
}

void CheckOrder(Graph& g) {
  const NodeSystemImpl& s = *g.s;
  for (const auto& [from, to] : g.wires) {
    EXPECT_LT(IndexOf(s, from), IndexOf(s, to)) << from << " -> " << to;
  }
  for (const bool descending : {false, true}) {
    std::vector<int64_t> seen;
    std::set<std::string> top;
    ASSERT_TRUE(s.VisitInTopologicalOrder(descending, [&](const GNode& port) -> Result<bool> {
      const NodePath path = port.path;
      seen.push_back(Must(s.GetTopologicalIndex(path, path.GetCount())));
      if (path.GetNodeCount() <= 1) top.insert(path.ToString());
      return true;
    }));
    for (size_t i = 1; i < seen.size(); ++i) {
      EXPECT_TRUE(descending ? seen[i] < seen[i - 1] : seen[i] > seen[i - 1]) << i;
    }
    EXPECT_EQ(top, g.TopLevelPorts());
    EXPECT_EQ(seen.size(), std::set<int64_t>(seen.begin(), seen.end()).size());
  }
}

void CheckRefusal(Graph& g, const std::string& message) {
  const std::vector<std::set<std::string>> loops = g.Loops();
  ASSERT_FALSE(loops.empty()) << message;
  const std::set<std::string> named = PortsOfCycleMessage(message);
  EXPECT_FALSE(named.empty()) << message;
  std::set<std::string> onLoops;
  for (const auto& loop : loops) onLoops.insert(loop.begin(), loop.end());
  for (const std::string& p : named) {
    // An inner port of a node on the loop, or a port on the loop itself.
    const NodePath path = P(p);
    if (path.GetNodeCount() <= 1) {
      EXPECT_TRUE(onLoops.count(p)) << p << " is on no loop: " << message;
    } else {
      const std::string node(path.GetPart(0).GetString());
      EXPECT_TRUE(std::any_of(onLoops.begin(), onLoops.end(),
                              [&](const std::string& q) { return q.rfind(node, 0) == 0; }))
          << p << " is inside a node on no loop: " << message;
    }
  }
  for (const auto& loop : loops) {
    EXPECT_TRUE(std::any_of(loop.begin(), loop.end(),
                            [&](const std::string& q) { return named.count(q) != 0; }))
        << "a loop through " << *loop.begin() << " is not named: " << message;
  }
}

class TopologyModel : public testing::TestWithParam<uint32_t> {};

TEST_P(TopologyModel, TheSortRefusesExactlyTheLoopsAndOrdersEveryWire) {
  Graph g(GetParam());
  ASSERT_TRUE(g.s->Validate(nullptr));
  int refused = 0;
  for (int step = 0; step < 60 && !HasFailure(); ++step) {
    SCOPED_TRACE(fmt::format("step {}", step));
    if (!g.wires.empty() && g.Pick(4) == 0) {
      g.RemoveWire(*std::next(g.wires.begin(), ptrdiff_t(g.Pick(g.wires.size()))));
    } else {
      std::pair<std::string, std::string> added;
      if (!g.AddWire(added)) continue;
      const Result<void> r = g.s->Validate(nullptr);
      const bool loop = !g.Loops().empty();
      EXPECT_EQ(bool(r), !loop) << Message(r);
      if (!r) {
        ++refused;
        CheckRefusal(g, Message(r));
        g.RemoveWire(added);
      }
    }
    ASSERT_TRUE(g.s->Validate(nullptr));
    CheckOrder(g);
  }
  // The seeds are chosen so that each run meets loops.
  EXPECT_GT(refused, 0);
  EXPECT_TRUE(g.s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
}

INSTANTIATE_TEST_SUITE_P(Seeds, TopologyModel, testing::Values(3u, 11u, 101u, 2024u));

// A copy shares the order of its source until it sorts again; the source's
// order stays as it was.
TEST(TopologyOrder, ACopyThatSortsAgainLeavesItsSourcesOrderAlone) {
  Graph g(5);
  std::pair<std::string, std::string> w;
  for (int i = 0; i < 10; ++i) {
    if (g.AddWire(w) && !g.s->Validate(nullptr)) g.RemoveWire(w);
  }
  Finish(*g.s);
  Ref<NodeSystem> original(g.s.Get());
  std::map<std::string, int64_t> before;
  for (const std::string& p : g.TopLevelPorts()) before[p] = IndexOf(*g.s, p);
  Ref<NodeSystem> held = original;
  MutableRoot copy = Must(BeginModification(held, true));
  ASSERT_NE(copy._system.Get(), original.Get());
  NodeSystem& c = *copy._system;
  for (const auto& pair : g.wires) {
    ASSERT_TRUE(
        c.Connect(c.FindByPath(P(pair.first)), c.FindByPath(P(pair.second)), Wires(0x3e), nullptr));
  }
  ASSERT_TRUE(c.Connect(c.FindByPath(P("k5>x")), c.FindByPath(P("k0<a")), Wires(0x10), nullptr));
  ASSERT_TRUE(copy.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  for (const auto& [p, index] : before) EXPECT_EQ(IndexOf(*g.s, p), index) << p;
}

// The two readings that keep the order's promises: a loop of root ports
// alone is refused, and ports of nested nodes on a loop of nodes that is no
// loop through ports all get their own index.
TEST(TopologyOrder, ALoopOfRootPortsIsRefusedAndNestedOpeningsKeepEveryIndex) {
  Ref<NodeSystemImpl> s = Open();
  AddPorts(*s, {"<a", ">b"});
  Wire(*s, "<a", ">b", 0x10);
  Wire(*s, ">b", "<a", 0x10);
  EXPECT_EQ(Message(s->Validate(nullptr)), "The ports [>b, <a] form a cycle.");

  const Ref<NodeSystemImpl> group = Group(Leaf({{"a", "x"}, {"b", "y"}}));
  Ref<NodeSystemImpl> t = Open();
  ASSERT_TRUE(t->AddChild("A", group, nullptr));
  ASSERT_TRUE(t->AddChild("B", group, nullptr));
  Wire(*t, "A>x", "B<a", 0x10);
  Wire(*t, "B>x", "A<b", 0x10);
  ASSERT_EQ(Message(t->Validate(nullptr)), "(ok)");
  std::set<int64_t> indices;
  size_t ports = 0;
  ASSERT_TRUE(t->VisitInTopologicalOrder(false, [&](const GNode& port) -> Result<bool> {
    ++ports;
    indices.insert(Must(t->GetTopologicalIndex(port)));
    return true;
  }));
  EXPECT_EQ(ports, 16u);  // four ports of A, B and of each inner node
  EXPECT_EQ(indices.size(), ports);
  EXPECT_EQ(*indices.rbegin(), int64_t(ports) - 1);
  // A path with no place in the order.
  EXPECT_EQ(Must(t->GetTopologicalIndex(P("C<a"), 3)), NO_TOPOLOGICAL_INDEX);
  EXPECT_EQ(Message(t->GetTopologicalIndex(P("A<a"), 4)),
            "Illegal argument: Condition length <= path.GetCount() not fulfilled. ");
}

}  // namespace
}  // namespace orvix::nodes::test
