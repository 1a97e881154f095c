// The effective connections of random graphs against a plain model. The
// model keeps each system's own wires as (source, target) pairs, finds the
// layers of an element by following bases and nested nodes, and walks levels
// and layers the slow, obvious way. Graphs grow by the public edits, in a
// system, a system derived from it and one derived from that. Some edits wire
// equally shaped subtrees at several levels on the same channels, where the
// wires of a nested port and of its ancestors meet; a plain random graph
// almost never has that.

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "connection_test_support.h"
#include "cycle_message.h"
#include "orvix/host/diagnostics.h"

namespace orvix::nodes::test {
namespace {

constexpr uint64_t LOW6 = 0x3f3f3f3f3f3f3f3fULL;
constexpr uint64_t IMPLICIT = 0x4040404040404040ULL;
constexpr uint64_t INHERIT = 0x8080808080808080ULL;
// The aligned edits add nested ports only below this many ports: the checks
// ask about every pair of ports.
constexpr size_t MAX_PORTS = 100;

uint64_t Used(uint64_t w) {
  return Wires(w & LOW6).ToMask().GetValue();
}

size_t CommonPrefix(const NodePath& a, const NodePath& b) {
  size_t i = 0;
  while (i < a.GetCount() && i < b.GetCount() && a.GetPart(i) == b.GetPart(i)) ++i;
  return i;
}

NodePath Join(NodePath::Block a, NodePath::Block b, NodePath::Block c = {}) {
  std::vector<InternedId> parts(a.begin(), a.end());
  parts.insert(parts.end(), b.begin(), b.end());
  parts.insert(parts.end(), c.begin(), c.end());
  return Must(NodePath::Create(parts));
}

struct Model {
  const Model* base = nullptr;
  // The content of each node added in this system, by the node's path.
  std::map<NodePath, const Model*> nested;
  // The nodes and ports that exist.
  std::set<NodePath> elements;
  // The wires this system stores itself, as Connect leaves them.
  std::map<std::pair<NodePath, NodePath>, uint64_t> stored;
};

// One system that may hold records of an element, with the element's path
// there and the number of leading parts that path lacks.
struct Layer {
  const Model* holder;
  NodePath path;
  size_t k;
};

void CollectLayers(const Model& m, NodePath::Block parts, size_t k, std::vector<Layer>& out) {
  out.push_back({&m, Must(NodePath::Create(parts)), k});
  if (parts.size() > 1 && !NodePath::IsPortListPart(parts[0])) {
    const auto it = m.nested.find(Must(NodePath::Create(parts.first(1))));
    if (it != m.nested.end()) return CollectLayers(*it->second, parts.subspan(1), k + 1, out);
  }
  if (m.base) CollectLayers(*m.base, parts, k, out);
}

// One report of a query; direction 0 is a source, 1 a target. The model
// counts the layers that it walks, a nearer level's before a farther one's.
struct Report {
  NodePath other;
  uint64_t wires;
  int direction;
  int rank = 0;
  friend auto operator<=>(const Report&, const Report&) = default;
};

std::string Text(std::vector<Report> reports) {
  std::sort(reports.begin(), reports.end());
  std::ostringstream out;
  for (const Report& r : reports) {
    out << " " << (r.direction ? "->" : "<-") << r.other.ToString() << "=0x" << std::hex << r.wires;
  }
  return out.str();
}

std::vector<Report> Walk(const Model& t, const NodePath& port, uint64_t mask, GCF flags,
                         uint64_t maxDepth) {
  std::vector<Report> out;
  std::set<NodePath> seen;
  const bool wanted[2] = {HasAny(flags, GCF::SOURCES), HasAny(flags, GCF::TARGETS)};
  uint64_t remaining[2] = {mask, mask};
  int rank = 0;
  const NodePath::Block parts = port.ToBlock();
  for (size_t length = parts.size(); length > 0; --length) {
    if (NodePath::IsPortListPart(parts[length - 1])) break;
    if (!(wanted[0] && remaining[0]) && !(wanted[1] && remaining[1])) break;
    const uint64_t levelMask[2] = {remaining[0], remaining[1]};
    const NodePath::Block level = parts.first(length);
    const NodePath::Block suffix = parts.subspan(length);
    std::vector<Layer> layers;
    CollectLayers(t, level, 0, layers);
    std::set<NodePath> levelSources;
    for (const Layer& layer : layers) {
      if (layer.k > maxDepth) break;
      ++rank;
      if (HasAny(flags, GCF::INHERITED_ONLY) && layer.holder == &t) continue;
      for (const auto& [ends, raw] : layer.holder->stored) {
        for (int direction : {0, 1}) {
          // At the target the record's other end is the source.
          if ((direction == 0 ? ends.second : ends.first) != layer.path) continue;
          if (!wanted[direction]) continue;
          const NodePath& end = direction == 0 ? ends.first : ends.second;
          const uint64_t w = raw & LOW6;
          // A source wire of the level's own port hides its channels from
          // the farther levels, reported here or not: the first record of an
          // end at the level, if that end exists, whatever lies below it.
          const NodePath levelEnd = Join(level.first(layer.k), end.ToBlock());
          if (direction == 0 && t.elements.count(levelEnd) &&
              levelSources.insert(levelEnd).second) {
            remaining[0] &= ~Used(w);
          }
          const NodePath other = Join(level.first(layer.k), end.ToBlock(), suffix);
          if (!t.elements.count(other)) continue;
          uint64_t m = levelMask[direction];
          // The nested ports on the way to the other end keep their own sources.
          for (size_t i = 0; direction == 1 && i < suffix.size() && m; ++i) {
            for (const Report& r :
                 Walk(t, Cut(other, i), m, GCF::SOURCES | GCF::WITHOUT_IMPLICIT, UNLIMITED_DEPTH)) {
              m &= ~Used(r.wires);
            }
          }
          if (!seen.insert(other).second) continue;
          if ((Used(w) & Wires(m).ToMask().GetValue()) == 0) continue;
          if (HasAny(flags, GCF::WITHOUT_INHIBITED) && Wires(w).Get(5u) != WIRE_MODE::NONE)
            continue;
          if (HasAny(flags, GCF::EXTERNAL_CONNECTIONS) &&
              CommonPrefix(port, other) >= port.GetNodeCount()) {
            continue;
          }
          const uint64_t wires = suffix.empty() ? w : w | (Used(w) & IMPLICIT);
          const bool cut = HasAny(flags, GCF::TOP_LEVEL_PORTS) && !other.IsTopLevelPort();
          out.push_back({cut ? Must(other.GetTopLevelPort()) : other, wires, direction, rank});
        }
      }
    }
    if (HasAny(flags, GCF::WITHOUT_IMPLICIT)) break;
    // Above the port, a channel stays asked for only with IMPLICIT, and then
    // with its priority bits: a byte of IMPLICIT alone asks for nothing more.
    if (suffix.empty()) {
      for (uint64_t& r : remaining) r &= Wires(r & IMPLICIT).ToMask().GetValue() & LOW6;
    }
  }
  return out;
}

// What GetConnection answers: the nearest record at the port's own level.
uint64_t Lookup(const Model& t, const NodePath& from, const NodePath& to, GCF extra) {
  for (const Report& r : Walk(t, from, LOW6, GCF::TARGETS | extra, CommonPrefix(from, to))) {
    if (r.other == to) return r.wires;
  }
  return 0;
}

void ModelConnect(Model& t, const NodePath& from, const NodePath& to, uint64_t modes) {
  uint64_t inherited = Lookup(t, from, to, GCF::INHERITED_ONLY);
  inherited |= Wires(inherited).ToMask().GetValue() & INHERIT;
  const auto it = t.stored.find({from, to});
  const uint64_t current = it != t.stored.end() ? it->second : inherited;
  uint64_t next = 0;
  for (int shift = 0; shift < 64; shift += 8) {
    const uint64_t mode = (modes >> shift) & 0xff;
    const uint64_t byte = mode == uint64_t(WIRE_MODE::REMOVE)    ? 0
                          : mode == uint64_t(WIRE_MODE::INHERIT) ? (inherited >> shift) & 0xff
                          : mode != 0                            ? mode
                                                                 : (current >> shift) & 0xff;
    next |= byte << shift;
  }
  if (next == current) return;
  if (next == inherited) {
    t.stored.erase({from, to});
  } else {
    t.stored[{from, to}] = next;
  }
}

std::vector<NodePath> Ports(const Model& m) {
  std::vector<NodePath> ports;
  std::copy_if(m.elements.begin(), m.elements.end(), std::back_inserter(ports),
               [](const NodePath& e) { return HasAny(e.GetKindRaw(), NODE_KIND::PORT_MASK); });
  return ports;
}

// One run: the systems of a lineage with their models, the one being edited,
// and what the random edits must not do again.
struct World {
  std::mt19937 rng;
  std::vector<std::unique_ptr<Model>> models;
  NodeSystemImpl* system = nullptr;
  Model* model = nullptr;
  Ref<NodeSystemImpl> gate;  // the content of the nodes that the edits add
  const Model* gateModel = nullptr;
  // The orientation of every pair wired so far: the reverse stays unwired, so
  // that no port sees one other end as source and target in the same table,
  // where the table's order would decide which one is reported.
  std::set<std::pair<NodePath, NodePath>> wired;
  // Paths once removed are never added again.
  std::set<NodePath> removed;
  std::set<NodePath> universe;
  int nextId = 0;

  explicit World(uint32_t seed) : rng(seed) {}
  size_t Pick(size_t n) { return rng() % n; }
  Model& NewModel(const Model* base) {
    models.push_back(std::make_unique<Model>());
    models.back()->base = base;
    if (base) models.back()->elements = base->elements;
    return *models.back();
  }
  // The model of an operator: its ports, and its wires as stored.
  const Model& OperatorModel(const OperatorShape& shape) {
    Model& m = NewModel(nullptr);
    for (std::string_view port : shape.ports) m.elements.insert(P(port));
    for (const auto& [from, to, wires] : shape.wires) m.stored[{P(from), P(to)}] = wires;
    return m;
  }

  // Each edit goes to the system under modification and to its model.
  bool Connect(const NodePath& from, const NodePath& to, uint64_t modes) {
    if (!system->Connect(system->FindByPath(from), system->FindByPath(to), Wires(modes), nullptr)) {
      return false;  // against the connect rules
    }
    ModelConnect(*model, from, to, modes);
    wired.insert({from, to});
    return true;
  }
  void AddPort(const NodePath& path) {
    Result<GNode> port =
        system->AddPort(system->FindByPath(Cut(path, 1)), path.GetLastPart().GetString(),
                        GNODE_FLAGS::NONE, nullptr);
    ASSERT_TRUE(port) << path.ToString() << ": " << Message(port);
    model->elements.insert(path);
    universe.insert(path);
  }
  void AddNode(std::string_view id, const Ref<NodeSystemImpl>& content, const Model& inside) {
    ASSERT_TRUE(system->AddChild(id, content, nullptr));
    const NodePath node = P(id);
    model->nested[node] = &inside;
    model->elements.insert(node);
    for (const NodePath& e : inside.elements) {
      model->elements.insert(Join(node.ToBlock(), e.ToBlock()));
    }
    universe.insert(model->elements.begin(), model->elements.end());
  }
  void Remove(const NodePath& path) {
    Result<void> r = system->Remove(system->FindByPath(path), nullptr);
    ASSERT_TRUE(r) << path.ToString() << ": " << Message(r);
    std::erase_if(model->elements, [&](const NodePath& e) { return e.StartsWith(path); });
    std::erase_if(model->stored, [&](const auto& entry) {
      return entry.first.first.StartsWith(path) || entry.first.second.StartsWith(path);
    });
    removed.insert(path);
  }

  uint64_t RandomModes() {
    static constexpr uint8_t modes[] = {0x08, 0x10, 0x20, 0x30, 0x11, 0x50, 0x3e, 0x80};
    uint64_t word = 0;
    for (int channel = 0; channel < 8; ++channel) {
      const bool rare = channel == 4 || channel >= 6;
      if (Pick(10) < (rare ? 1u : 4u)) word |= uint64_t(modes[Pick(8)]) << (8 * channel);
    }
    return word;
  }
  void RandomConnect() {
    const std::vector<NodePath> ports = Ports(*model);
    for (int attempt = 0; attempt < 30; ++attempt) {
      NodePath from = ports[Pick(ports.size())];
      NodePath to = ports[Pick(ports.size())];
      if (Pick(3) == 0) {
        // Rewire what is there, here or in a base.
        const std::vector<Report> targets = Walk(*model, from, LOW6, GCF::TARGETS, UNLIMITED_DEPTH);
        if (!targets.empty()) to = targets[Pick(targets.size())].other;
      }
      if (!wired.count({to, from}) && Connect(from, to, RandomModes())) return;
    }
  }
  // The nested ports below `port`, by their paths relative to it.
  std::vector<NodePath> Below(const NodePath& port) const {
    std::vector<NodePath> below;
    for (const NodePath& e : model->elements) {
      if (e.GetCount() > port.GetCount() && e.StartsWith(port)) {
        below.push_back(Must(NodePath::Create(e.ToBlock().subspan(port.GetCount()))));
      }
    }
    // Parents before their nested ports.
    std::stable_sort(below.begin(), below.end(), [](const NodePath& a, const NodePath& b) {
      return a.GetCount() < b.GetCount();
    });
    return below;
  }
  // Adds a nested port below `port` or below one of its nested ports.
  void Grow(const NodePath& port) {
    std::vector<NodePath> parents{port};
    for (const NodePath& rel : Below(port)) parents.push_back(Join(port.ToBlock(), rel.ToBlock()));
    const NodePath& parent = parents[Pick(parents.size())];
    if (parent.GetCount() - parent.GetNodeCount() > 4) return;
    const NodePath path = Must(parent.Append(InternedId::Get(std::string(1, "xyz"[Pick(3)]))));
    if (!model->elements.count(path) && !removed.count(path)) AddPort(path);
  }
  // Gives `to` most of the nested ports that `from` has: equally shaped
  // subtrees, now and then with a port missing.
  void Mirror(const NodePath& from, const NodePath& to) {
    for (const NodePath& rel : Below(from)) {
      const NodePath path = Join(to.ToBlock(), rel.ToBlock());
      if (model->elements.count(path) || removed.count(path) ||
          !model->elements.count(Cut(path, 1))) {
        continue;
      }
      if (Pick(6) != 0) AddPort(path);
      if (testing::Test::HasFatalFailure()) return;
    }
  }
  // Wires between equally shaped subtrees at several levels, on the same
  // channels, from one source subtree or two: where a nearer level's wire
  // hides the same channel of a farther level's from the nested ports, and
  // a nearer level may have reported the end already.
  void AlignedConnect() {
    const std::vector<NodePath> ports = Ports(*model);
    for (int attempt = 0; attempt < 30; ++attempt) {
      NodePath from = ports[Pick(ports.size())];
      NodePath to = ports[Pick(ports.size())];
      const NodePath other = ports[Pick(ports.size())];
      const bool rewire = Pick(2) == 0 && !wired.empty();
      if (rewire) {
        // Rewire a pair wired before, here or in a base, and the levels below.
        std::tie(from, to) = *std::next(wired.begin(), ptrdiff_t(Pick(wired.size())));
        if (!model->elements.count(from) || !model->elements.count(to)) continue;
      }
      // No modes change nothing: the call only asks the connect rules.
      if (wired.count({to, from}) ||
          !system->Connect(system->FindByPath(from), system->FindByPath(to), Wires(), nullptr)) {
        continue;
      }
      // New nested ports while the world is small enough for the checks.
      if (ports.size() < MAX_PORTS) {
        for (int i = Pick(3); i > 0; --i) Grow(from);
        Mirror(from, to);
        Mirror(to, from);
        Mirror(from, other);
        if (testing::Test::HasFatalFailure()) return;
      }
      // The levels: a nested port below `to` and the ports on its way up.
      std::vector<NodePath> below = Below(to);
      NodePath deepest;
      for (int i = 0; i < 2 && !below.empty(); ++i) {
        const NodePath& pick = below[Pick(below.size())];
        if (pick.GetCount() > deepest.GetCount()) deepest = pick;
      }
      // A rewire takes some channels away as well.
      uint64_t modes = RandomModes();
      for (int channel = 0; channel < 8 && rewire; ++channel) {
        if (!((modes >> (8 * channel)) & 0xff) && Pick(2) == 0) {
          modes |= uint64_t(WIRE_MODE::REMOVE) << (8 * channel);
        }
      }
      for (size_t length = deepest.GetCount() + 1; length-- > 0;) {
        if (Pick(4) == 0) continue;
        const NodePath::Block rel = deepest.ToBlock().first(length);
        const NodePath b = Join(to.ToBlock(), rel);
        NodePath a = Join((Pick(3) == 0 ? other : from).ToBlock(), rel);
        if (rewire && Pick(2) == 0) {
          // The level's own source, as it is wired there now.
          const std::vector<Report> sources =
              Walk(*model, b, LOW6, GCF::SOURCES | GCF::WITHOUT_IMPLICIT, UNLIMITED_DEPTH);
          if (!sources.empty()) a = sources[Pick(sources.size())].other;
        }
        if (!model->elements.count(a) || !model->elements.count(b) || wired.count({b, a})) continue;
        Connect(a, b, Pick(4) == 0 ? RandomModes() : modes);
      }
      return;
    }
  }
  void RandomEdit() {
    const size_t roll = Pick(20);
    const std::vector<NodePath> ports = Ports(*model);
    if (roll < 10) return RandomConnect();
    if (roll < 14) return AlignedConnect();
    if (roll < 17) {
      // A nested port below any port, or a new port of the root.
      NodePath path;
      if (Pick(4) == 0) {
        path = P((Pick(2) ? "<t" : ">t") + std::to_string(nextId++));
      } else {
        const NodePath& parent = ports[Pick(ports.size())];
        if (parent.GetCount() - parent.GetNodeCount() > 3) return;
        path = Must(parent.Append(InternedId::Get(std::string(1, "xyz"[Pick(3)]))));
      }
      if (!model->elements.count(path) && !removed.count(path)) AddPort(path);
      return;
    }
    if (roll < 18) {
      // A nested port, or a port of the root; the top-level ports of nodes stay.
      std::vector<NodePath> removable;
      std::copy_if(ports.begin(), ports.end(), std::back_inserter(removable),
                   [](const NodePath& p) {
                     return !p.IsTopLevelPort() || NodePath::IsPortListPart(p.GetPart(0));
                   });
      if (!removable.empty()) Remove(removable[Pick(removable.size())]);
      return;
    }
    std::vector<NodePath> nodes;
    std::copy_if(
        model->elements.begin(), model->elements.end(), std::back_inserter(nodes),
        [](const NodePath& e) { return e.GetCount() == 1 && e.GetKindRaw() == NODE_KIND::NODE; });
    if (roll == 18) return nodes.size() > 3 ? Remove(nodes[Pick(nodes.size())]) : RandomConnect();
    AddNode("g" + std::to_string(nextId++), gate, *gateModel);
  }
};

// The reports of the system's query; `ranToEnd` tells whether it went through.
std::vector<Report> Actual(const NodeSystemImpl& s, const NodePath& port, uint64_t mask, GCF flags,
                           uint64_t maxDepth, const NodePath& filter = {},
                           bool* ranToEnd = nullptr) {
  std::vector<Report> out;
  ConnectionQuery query;
  query.port = s.FindByPath(port);
  query.filterPath = filter;
  query.callback = [&](ConnectionQuery& q) -> Result<bool> {
    EXPECT_TRUE(q.other) << q.other.path.ToString();
    out.push_back({q.other.path, q.wires.GetValue(), int(q.direction)});
    return true;
  };
  Result<bool> r = s.GetConnections(mask, flags, query, maxDepth);
  EXPECT_TRUE(r) << Message(r);
  if (ranToEnd) *ranToEnd = r && *r;
  if (filter.IsEmpty()) {
    EXPECT_TRUE(r && *r) << port.ToString();
  }
  return out;
}

// Random wires may close loops through ports, which validation refuses (the
// operators pass inputs to outputs). Each loop found loses every wire among
// its ports, through the world so that the model follows, until the system
// sorts.
void BreakLoops(World& w, NodeSystemImpl& s) {
  constexpr uint64_t REMOVE_ALL = 0x3e3e3e3e3e3e3e3eULL;
  for (int round = 0; round < 50; ++round) {
    const Result<void> sorted = s.ValidateTopology();
    if (sorted) return;
    std::set<NodePath> loop;
    for (const std::string& port : PortsOfCycleMessage(Message(sorted))) loop.insert(P(port));
    ASSERT_FALSE(loop.empty()) << Message(sorted);
    auto top = [](const NodePath& p) { return Must(p.GetTopLevelPort()); };
    const std::set<std::pair<NodePath, NodePath>> pairs = w.wired;
    for (const auto& [from, to] : pairs) {
      if (loop.count(top(from)) && loop.count(top(to)) && s.FindByPath(from) && s.FindByPath(to)) {
        w.Connect(from, to, REMOVE_ALL);
      }
    }
  }
  FAIL() << "loops left after 50 rounds";
}

void Check(World& w, const NodeSystemImpl& s, const Model& m, const std::string& name) {
  SCOPED_TRACE(name);
  EXPECT_EQ(Message(s.CheckConnectionConsistency()), "(ok)");
  for (const NodePath& path : w.universe) {
    ASSERT_EQ(bool(s.FindByPath(path)), m.elements.count(path) == 1) << path.ToString();
  }
  static constexpr uint8_t maskBytes[] = {0, 0x3f, 0x7f, 0x7f, 0x40};
  static constexpr GCF optional[] = {GCF::TOP_LEVEL_PORTS, GCF::EXTERNAL_CONNECTIONS,
                                     GCF::WITHOUT_INHIBITED, GCF::WITHOUT_IMPLICIT,
                                     GCF::INHERITED_ONLY};
  static constexpr uint64_t depths[] = {UNLIMITED_DEPTH, UNLIMITED_DEPTH, 0, 1};
  auto randomMask = [&] {
    uint64_t mask = 0;
    for (int channel = 0; channel < 8; ++channel) {
      mask |= uint64_t(maskBytes[w.Pick(5)]) << (8 * channel);
    }
    return mask;
  };
  auto randomFlags = [&](GCF flags) {
    for (GCF f : optional) {
      if (w.Pick(4) == 0) flags |= f;
    }
    return flags;
  };
  int failures = 0;
  const std::vector<NodePath> ports = Ports(m);
  for (const NodePath& port : ports) {
    for (int round = 0; round < 8 && failures < 5; ++round) {
      const GCF flags = randomFlags(w.Pick(3) == 0   ? GCF::SOURCES
                                    : w.Pick(2) == 0 ? GCF::TARGETS
                                                     : GCF::SOURCES | GCF::TARGETS);
      const uint64_t mask = round == 0 ? ALL_WIRES_IMPLICIT_MASK : randomMask();
      const uint64_t depth = depths[w.Pick(4)];
      const std::vector<Report> expected = Walk(m, port, mask, flags, depth);
      const std::vector<Report> actual = Actual(s, port, mask, flags, depth);
      std::ostringstream query;
      query << port.ToString() << " flags 0x" << std::hex << ToBits(flags) << " mask 0x" << mask
            << " depth 0x" << depth;
      failures += Text(expected) != Text(actual);
      EXPECT_EQ(Text(expected), Text(actual)) << query.str();
      // In each direction nearer levels come first, and in a level newer layers
      // before older ones.
      std::vector<Report> unmatched = expected;
      int last[2] = {0, 0};
      for (const Report& a : actual) {
        const auto e = std::find_if(unmatched.begin(), unmatched.end(), [&](const Report& e) {
          return e.other == a.other && e.direction == a.direction && e.wires == a.wires;
        });
        if (e == unmatched.end()) continue;
        EXPECT_GE(e->rank, last[a.direction]) << query.str() << ": " << a.other.ToString();
        last[a.direction] = e->rank;
        unmatched.erase(e);
      }
    }
    // The filtered walk finds exactly what the unfiltered one reports for the
    // filter's port, and GetConnection is the plain walk at the port's level.
    const GCF flags = randomFlags(GCF::TARGETS) & ~GCF::TOP_LEVEL_PORTS;
    const uint64_t mask = randomMask();
    const std::vector<Report> all = Actual(s, port, mask, flags, UNLIMITED_DEPTH);
    for (const NodePath& other : ports) {
      bool ranToEnd = true;
      const std::string found =
          Text(Actual(s, port, mask, flags, UNLIMITED_DEPTH, other, &ranToEnd));
      const auto it =
          std::find_if(all.begin(), all.end(), [&](const Report& r) { return r.other == other; });
      SCOPED_TRACE(port.ToString() + " -> " + other.ToString());
      EXPECT_EQ(!ranToEnd, it != all.end());
      EXPECT_EQ(found, it != all.end() ? Text({*it}) : "");
      EXPECT_EQ(Must(s.GetConnection(s.FindByPath(port), s.FindByPath(other))).GetValue(),
                Lookup(m, port, other, GCF::NONE));
    }
  }
}

class RandomGraphs : public testing::TestWithParam<uint32_t> {};

// Random edits of a system, of one derived from it and of one derived from
// that; each modification's end checks both ends of every wire when the
// suite runs with that check switched on.
TEST_P(RandomGraphs, QueriesMatchTheModel) {
  // A far end that lacks the nested ports of a wire's near end is skipped
  // quietly: no internal-error line.
  CapturedOutput output;
  World w(GetParam());
  const Ref<NodeSystemImpl> adder = MakeOperator(Adder());
  const Model& adderModel = w.OperatorModel(Adder());
  w.gate = MakeOperator(Gate());
  w.gateModel = &w.OperatorModel(Gate());

  const std::pair<const char*, int> stages[] = {
      {"system", 100}, {"derived", 60}, {"derived twice", 40}};
  std::vector<std::pair<Ref<NodeSystemImpl>, const Model*>> lineage;
  for (const auto& [name, edits] : stages) {
    const Ref<NodeSystemImpl> s = Open(lineage.empty() ? nullptr : lineage.back().first);
    w.system = s.Get();
    w.model = &w.NewModel(lineage.empty() ? nullptr : lineage.back().second);
    if (lineage.empty()) {
      for (const char* port : {"<r", "<r/x", "<r/y", "<s", ">q", ">q/x", ">u"}) w.AddPort(P(port));
      w.AddNode("n1", adder, adderModel);
      w.AddNode("n2", w.gate, *w.gateModel);
      w.AddNode("n3", adder, adderModel);
    }
    for (int i = 0; i < edits && !HasFatalFailure(); ++i) w.RandomEdit();
    BreakLoops(w, *s);
    Finish(*s);
    Check(w, *s, *w.model, name);
    lineage.emplace_back(s, w.model);
  }
  // What the derived systems changed stays out of their bases.
  Check(w, *lineage[0].first, *lineage[0].second, "system again");
  EXPECT_TRUE(output.Texts(OUTPUT_LEVEL::CRITICAL).empty());
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomGraphs,
                         testing::Values(7u, 1234u, 4242u, 31337u, 65537u, 90210u));

}  // namespace
}  // namespace orvix::nodes::test
