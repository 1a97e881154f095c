// Random sequences of structural edits, each step compared with a reference
// model of the visible graph: the present elements, the effective wires from
// both ends, the connection entries and child records the system stores. A
// plain system is built across several brackets; a system derived from it is
// then edited further and must store only its differences.

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "edits_test_support.h"
#include "orvix/host/diagnostics.h"

namespace orvix::nodes::test {
namespace {

class EditsModel : public WireCheckedTest {};

constexpr uint64_t LOW_BITS = 0x3f3f3f3f3f3f3f3fULL;
constexpr uint64_t INHERIT_BITS = 0x8080808080808080ULL;
constexpr uint64_t ALL_CHANNELS = 0x3f3f3f3f3f3f3f3fULL;

using Pair = std::pair<std::string, std::string>;

uint64_t Used(uint64_t wires) {
  return Wires(wires).ToMask().GetValue();
}
uint8_t Byte(uint64_t word, int channel) {
  return uint8_t(word >> (8 * channel));
}
uint64_t WithByte(uint64_t word, int channel, uint8_t b) {
  return (word & ~(uint64_t{0xff} << (8 * channel))) | (uint64_t{b} << (8 * channel));
}

std::string ChildPath(const std::string& parent, std::string_view id) {
  return P(parent).Append(Id(id)).Value().ToString();
}
std::string ParentPath(const std::string& path) {
  const NodePath p = P(path);
  return p.Slice(0, NodePath::SliceCount(int64_t(p.GetCount()) - 1)).Value().ToString();
}
bool Within(const std::string& path, const std::string& top) {
  return P(path).StartsWith(P(top));
}
NODE_KIND KindOf(const std::string& path) {
  return path.empty() ? NODE_KIND::NODE : P(path).GetKindRaw();
}
bool IsPort(const std::string& path) {
  return HasAny(KindOf(path), NODE_KIND::PORT_MASK);
}

struct Operator {
  std::vector<std::string> inputs, outputs;
  Ref<NodeSystem> system;
};
const std::vector<Operator>& Operators() {
  static const std::vector<Operator> ops = [] {
    std::vector<Operator> v{{{"a", "b"}, {"o"}, {}}, {{"a"}, {"o", "p"}, {}}, {{}, {"o"}, {}}};
    for (Operator& op : v) {
      MutableRoot root = OpenEmpty();
      NodeSystem& s = *root._system;
      for (const auto& id : op.inputs)
        s.AddPort(s.FindByPath(P("<")), id, GNODE_FLAGS::NONE, nullptr).Value();
      for (const auto& id : op.outputs)
        s.AddPort(s.FindByPath(P(">")), id, GNODE_FLAGS::NONE, nullptr).Value();
      op.system = Finish(root);
    }
    return v;
  }();
  return ops;
}

// What the system under test should show and store. A derived system's
// model points at the finished model of its base.
struct Model {
  std::map<std::string, NODE_KIND> elements{
      {"", NODE_KIND::NODE}, {"<", NODE_KIND::INPUTS}, {">", NODE_KIND::OUTPUTS}};
  std::map<Pair, uint64_t> stored;      // own entries, source to target, as stored
  std::map<std::string, bool> records;  // own child records by path: ADDED or not
  const Model* base = nullptr;

  bool Has(const std::string& p) const { return elements.count(p) > 0; }
  uint64_t BaseWire(const Pair& pair) const {
    if (!base) return 0;
    const auto it = base->stored.find(pair);
    return it == base->stored.end() ? 0 : it->second;
  }
  // The base's wire reaches this system if both ends are present and still
  // the base's elements, not new ones made here in their place.
  uint64_t FromBase(const Pair& pair) const {
    if (!Has(pair.first) || !Has(pair.second)) return 0;
    if (IsLocal(pair.first) || IsLocal(pair.second)) return 0;
    return BaseWire(pair);
  }
  uint64_t Inherited(const Pair& pair) const {
    const uint64_t w = FromBase(pair);
    return w | (Used(w) & INHERIT_BITS);
  }
  uint64_t Effective(const Pair& pair) const {
    const auto it = stored.find(pair);
    return it != stored.end() ? it->second & LOW_BITS : FromBase(pair);
  }
  std::map<Pair, uint64_t> AllEffective() const {
    std::set<Pair> pairs;
    for (const auto& [pair, w] : stored) pairs.insert(pair);
    if (base) {
      for (const auto& [pair, w] : base->stored) pairs.insert(pair);
    }
    std::map<Pair, uint64_t> result;
    for (const Pair& pair : pairs) {
      if (const uint64_t w = Effective(pair)) result[pair] = w;
    }
    return result;
  }
  bool IsAdded(const std::string& p) const {
    const auto it = records.find(p);
    return it != records.end() && it->second;
  }
  // True if the element or one above it was made here: its base chain
  // doesn't lead into the base system.
  bool IsLocal(const std::string& p) const {
    for (std::string q = p; !q.empty(); q = ParentPath(q)) {
      if (IsAdded(q)) return true;
    }
    return false;
  }
  // Whether the parent's bases have `p` (a removal keeps its record then).
  // Below an element made here they are new content or none.
  bool BaseHas(const std::string& p) const {
    return base && base->Has(p) && !IsLocal(ParentPath(p));
  }
  // Removes the subtree of `top` with its wires and the records below it.
  void Erase(const std::string& top) {
    std::erase_if(elements, [&](const auto& e) { return Within(e.first, top); });
    std::erase_if(stored, [&](const auto& e) {
      return Within(e.first.first, top) || Within(e.first.second, top);
    });
    std::erase_if(records, [&](const auto& e) { return e.first != top && Within(e.first, top); });
  }
  // The base's subtree of `p` shows again once this system's record is gone.
  void Restore(const std::string& p) {
    if (!base || IsLocal(ParentPath(p))) return;
    for (const auto& [q, kind] : base->elements) {
      if (Within(q, p)) elements[q] = kind;
    }
  }
};

// The error the connect rules give for the pair; "(ok)" if it may be wired.
std::string RuleError(const std::string& s, const std::string& t) {
  const NodePath a = P(s), b = P(t);
  const size_t i = a.GetNodeCount(), j = b.GetNodeCount();
  if (i == j && std::equal(a.ToBlock().begin(), a.ToBlock().begin() + i + 2, b.ToBlock().begin())) {
    return "Can't connect ports " + s + ", " + t +
           " because they are within the same top-level port.";
  }
  const bool sourceIn = KindOf(s) == NODE_KIND::INPORT, targetIn = KindOf(t) == NODE_KIND::INPORT;
  if (sourceIn && targetIn && i != 0) return "";
  if (!sourceIn && !targetIn && j != 0) return "";
  if (sourceIn && !targetIn && (i != 0 || j != 0)) return "";
  return "(ok)";
}

class Runner {
 public:
  explicit Runner(uint32_t seed) : _rng(seed) {}

  // `plainSteps` edits of a new system, then `derivedSteps` of one derived
  // from the result.
  void Run(int plainSteps, int derivedSteps) {
    MutableRoot root = OpenEmpty();
    Model model;
    RunSteps(root, model, plainSteps);
    // A base for a derived system gets wires to inherit.
    if (derivedSteps > 0) RunSteps(root, model, 15, true);
    if (::testing::Test::HasFatalFailure()) return;
    Ref<NodeSystem> base = Finish(root);
    CheckKept();
    if (!base || derivedSteps == 0) return;
    const Model baseModel = model;
    _base = &Impl(base);
    model = Model();
    model.elements = baseModel.elements;
    model.base = &baseModel;
    MutableRoot derived = OpenDerived(base);
    Check(Impl(derived), model);
    RunSteps(derived, model, derivedSteps);
    if (::testing::Test::HasFatalFailure()) return;
    Finish(derived);
    CheckKept();
  }

 private:
  size_t Pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(_rng); }
  bool Chance(int percent) { return int(Pick(100)) < percent; }
  template <typename C>
  auto PickFrom(const C& c) {
    auto it = std::begin(c);
    std::advance(it, Pick(std::size(c)));
    return *it;
  }
  std::vector<std::string> Elements(const Model& m, NODE_KIND kinds) {
    std::vector<std::string> v;
    for (const auto& [p, kind] : m.elements) {
      if (HasAny(kind, kinds)) v.push_back(p);
    }
    return v;
  }

  // The base's wires that reach this system unchanged.
  std::vector<Pair> Inherited(const Model& m) {
    std::vector<Pair> v;
    for (const auto& [pair, w] : m.AllEffective()) {
      if (!m.stored.count(pair) && m.FromBase(pair)) v.push_back(pair);
    }
    return v;
  }

  // The base's children that this system removed, below present parents.
  std::vector<std::string> Hidden(const Model& m, NODE_KIND kinds) {
    std::vector<std::string> v;
    for (const auto& [p, added] : m.records) {
      if (!added && HasAny(KindOf(p), kinds) && m.Has(ParentPath(p))) v.push_back(p);
    }
    return v;
  }

  void RunSteps(MutableRoot& root, Model& model, int steps, bool connectOnly = false) {
    CapturedOutput output;
    for (int step = 0; step < steps; ++step) {
      SCOPED_TRACE("step " + std::to_string(step));
      output.Clear();
      NodeSystemImpl& s = Impl(root);
      _what.clear();
      const size_t op = connectOnly ? 0 : Pick(100);
      if (op < 36) {
        Connect(s, model);
      } else if (op < 42) {
        Disconnect(s, model);
      } else if (op < 52) {
        AddNode(s, model);
      } else if (op < 68) {
        AddPort(s, model);
      } else if (op < 78) {
        Remove(s, model);
      } else if (op < 91) {
        Reset(s, model);
      } else {
        Rebracket(root, model);
      }
      SCOPED_TRACE(_what);
      Check(Impl(root), model);
      // A diagnostic means that a lookup met a broken store.
      EXPECT_FALSE(output.Contains(INTERNAL_ERROR_TEXT));
      if (::testing::Test::HasFailure()) return;
    }
  }

  // A failed edit leaves everything as it was, the stamp included.
  void ExpectFailure(NodeSystemImpl& s, const Snapshot& before, const std::string& message,
                     const std::string& actual) {
    EXPECT_EQ(actual, message) << _what;
    EXPECT_TRUE(Take(s) == before) << _what;
  }

  void Connect(NodeSystemImpl& s, Model& m) {
    const auto ports = Elements(m, NODE_KIND::PORT_MASK);
    if (ports.size() < 2) return;
    std::string from = PickFrom(ports), to = PickFrom(ports);
    const auto inherited = Inherited(m);
    if (!inherited.empty() && Chance(30)) std::tie(from, to) = PickFrom(inherited);
    for (int tries = 0; tries < 40 && RuleError(from, to) != "(ok)" && !Chance(5); ++tries) {
      from = PickFrom(ports);
      to = PickFrom(ports);
    }
    static constexpr uint8_t MODES[] = {0x08, 0x10, 0x11, 0x20, 0x28, 0x30,
                                        0x3d, 0x3e, 0x3e, 0x80, 0x80};
    uint64_t modes = 0;
    for (int ch = 0; ch < 8; ++ch) {
      if (Chance(ch < 3 ? 45 : 10)) modes = WithByte(modes, ch, PickFrom(MODES));
    }
    int badChannel = -1;
    if (Chance(4)) {
      static constexpr uint8_t BAD[] = {0x81, 0x90, 0xbf, 0xc0, 0xff};
      badChannel = int(Pick(8));
      modes = WithByte(modes, badChannel, PickFrom(BAD));
    }
    Connect(s, m, from, to, modes, badChannel);
  }

  void Connect(NodeSystemImpl& s, Model& m, const std::string& from, const std::string& to,
               uint64_t modes, int badChannel) {
    _what = "Connect " + from + " -> " + to + " " + Wires(modes).ToString();
    const Snapshot before = Take(s);
    const std::string actual =
        Message(s.Connect(s.FindByPath(P(from)), s.FindByPath(P(to)), Wires(modes), nullptr));
    const std::string rule = RuleError(from, to);
    if (rule != "(ok)") return ExpectFailure(s, before, rule, actual);
    if (badChannel >= 0) {
      return ExpectFailure(s, before,
                           "Illegal wire mode " + ToString(WIRE_MODE(Byte(modes, badChannel))) +
                               " for call to Connect().",
                           actual);
    }
    ASSERT_EQ(actual, "(ok)") << _what;
    const Pair pair{from, to};
    const uint64_t inherited = m.Inherited(pair);
    const auto it = m.stored.find(pair);
    const uint64_t current = it != m.stored.end() ? it->second : inherited;
    uint64_t next = current;
    for (int ch = 0; ch < 8; ++ch) {
      const uint8_t mode = Byte(modes, ch);
      if (mode == 0) continue;
      next = WithByte(next, ch, mode == 0x3e ? 0 : mode == 0x80 ? Byte(inherited, ch) : mode);
    }
    if (next == current) {
      EXPECT_EQ(s.GetModificationStamp(), before.stamp) << "a Connect that changes nothing";
      return;
    }
    if (next == inherited) {
      m.stored.erase(pair);
    } else {
      m.stored[pair] = next;
    }
    EXPECT_TRUE(HasAll(OwnFlags(s, from), GFI(0x10411000000)));
    EXPECT_TRUE(HasAll(OwnFlags(s, to), GFI(0x8209000000)));
  }

  void Disconnect(NodeSystemImpl& s, Model& m) {
    const auto wires = m.AllEffective();
    if (wires.empty()) return Connect(s, m);
    Pair pair = PickFrom(wires).first;
    const auto inherited = Inherited(m);
    if (!inherited.empty() && Chance(60)) pair = PickFrom(inherited);
    const uint64_t w = m.Effective(pair);
    const uint64_t removeUsed = Used(w) & 0x3e3e3e3e3e3e3e3eULL;
    Connect(s, m, pair.first, pair.second, Chance(50) ? 0x3e3e3e3e3e3e3e3eULL : removeUsed, -1);
  }

  // A new element, or one whose id is taken; in a derived system possibly
  // one that the base had and this system removed.
  std::string Added(NodeSystemImpl& s, Model& m, const std::string& path, Result<GNode> made) {
    const std::string actual = Message(made);
    if (m.Has(path)) return actual;
    if (actual != "(ok)") return actual;
    m.records[path] = true;
    EXPECT_TRUE(HasAll(OwnFlags(s, path), GFI(0x411c000000))) << path;
    EXPECT_TRUE(HasAll(OwnFlags(s, ParentPath(path)), GFI::MODIFIED_PV_CHILDREN)) << path;
    return actual;
  }

  void AddNode(NodeSystemImpl& s, Model& m) {
    std::string id = "n" + std::to_string(Pick(4));
    const auto hidden = Hidden(m, NODE_KIND::NODE);
    if (!hidden.empty() && Chance(50)) id = PickFrom(hidden);
    const Operator& op = PickFrom(Operators());
    _what = "AddChild " + id;
    const Snapshot before = Take(s);
    const bool taken = m.Has(id);
    const std::string actual = Added(s, m, id, s.AddChild(id, op.system, nullptr));
    if (taken) {
      return ExpectFailure(s, before, "There already exists a node with id " + id + " in .",
                           actual);
    }
    ASSERT_EQ(actual, "(ok)") << _what;
    m.elements[id] = NODE_KIND::NODE;
    m.elements[id + "<"] = NODE_KIND::INPUTS;
    m.elements[id + ">"] = NODE_KIND::OUTPUTS;
    for (const auto& p : op.inputs) m.elements[id + "<" + p] = NODE_KIND::INPORT;
    for (const auto& p : op.outputs) m.elements[id + ">" + p] = NODE_KIND::OUTPORT;
    EXPECT_TRUE(HasAll(OwnFlags(s, id), GFI::MODIFIED_TOPOLOGY | GFI::DIRECT_INSTANCE));
  }

  void AddPort(NodeSystemImpl& s, Model& m) {
    std::string parent;
    std::string id;
    const auto hidden = Hidden(m, NODE_KIND::PORT_MASK);
    if (!hidden.empty() && Chance(30)) {
      const std::string p = PickFrom(hidden);
      parent = ParentPath(p);
      id = P(p).GetLastPart().GetString();
    } else if (Chance(40)) {
      parent = Chance(50) ? "<" : ">";
      id = (parent == "<" ? "i" : "q") + std::to_string(Pick(3));
    } else if (Chance(90)) {
      // Nested ports, two levels at most below a top-level port.
      std::vector<std::string> parents;
      for (const auto& p : Elements(m, NODE_KIND::PORT_MASK)) {
        if (P(p).GetCount() - P(p).GetNodeCount() <= 3) parents.push_back(p);
      }
      if (parents.empty()) return;
      parent = PickFrom(parents);
      id = Chance(50) ? "x" : "y";
    } else {
      // Parents that take no port.
      parent = PickFrom(Elements(m, NODE_KIND::NODE | NODE_KIND::PORTLIST_MASK));
      id = "z";
    }
    const std::string path = ChildPath(parent, id);
    _what = "AddPort " + path;
    const Snapshot before = Take(s);
    const std::string actual =
        Added(s, m, path, s.AddPort(s.FindByPath(P(parent)), id, GNODE_FLAGS::NONE, nullptr));
    const NODE_KIND parentKind = KindOf(parent);
    if (parentKind == NODE_KIND::NODE) {
      return ExpectFailure(s, before, "You can't add a port directly to node " + parent + ".",
                           actual);
    }
    if (HasAny(parentKind, NODE_KIND::PORTLIST_MASK) && parent.size() > 1) {
      return ExpectFailure(s, before,
                           "You can't add the top-level port " + id + " to " + parent +
                               ": This points to a nested node.",
                           actual);
    }
    if (m.Has(path)) {
      return ExpectFailure(
          s, before, "There already exists a node with id " + id + " in " + parent + ".", actual);
    }
    ASSERT_EQ(actual, "(ok)") << _what;
    m.elements[path] = KindOf(path);
    EXPECT_EQ(HasAny(OwnFlags(s, path), GFI::MODIFIED_TOPOLOGY), P(path).IsTopLevelPort());
  }

  void Remove(NodeSystemImpl& s, Model& m) {
    std::vector<std::string> removable;
    for (const auto& [p, kind] : m.elements) {
      const NodePath path = P(p);
      if (kind == NODE_KIND::NODE ? path.GetCount() == 1
                                  : HasAny(kind, NODE_KIND::PORT_MASK) &&
                                        (!path.IsTopLevelPort() || path.GetNodeCount() == 0)) {
        removable.push_back(p);
      }
    }
    const bool illegal = removable.empty() || Chance(8);
    const std::string p = illegal ? PickFrom(m.elements).first : PickFrom(removable);
    _what = "Remove " + p;
    const Snapshot before = Take(s);
    const std::string actual = Message(s.Remove(s.FindByPath(P(p)), nullptr));
    if (std::find(removable.begin(), removable.end(), p) == removable.end()) {
      const std::string expected =
          IsPort(p) ? "Top-level port " + p + " cannot be removed. It belongs to a nested node."
                    : p + " cannot be removed. This is not a valid path of a node or port.";
      return ExpectFailure(s, before, expected, actual);
    }
    ASSERT_EQ(actual, "(ok)") << _what;
    m.Erase(p);
    if (m.records.count(p) && !m.BaseHas(p)) {
      m.records.erase(p);
    } else {
      m.records[p] = false;
    }
    const GFI parentBits = IsPort(ParentPath(p))
                               ? GFI::MODIFIED_PV_CHILDREN
                               : GFI::MODIFIED_PV_CHILDREN | GFI::MODIFIED_TOPOLOGY;
    EXPECT_TRUE(HasAll(OwnFlags(s, ParentPath(p)), parentBits));
  }

  void Reset(NodeSystemImpl& s, Model& m) {
    std::string p;
    if (!m.records.empty() && Chance(75)) {
      p = PickFrom(m.records).first;
    } else {
      // Ids of children that have no record; the root's port lists are
      // left alone, since their records are the system's own making.
      static constexpr const char* NODE_IDS[] = {"n0", "n3"};
      static constexpr const char* LIST_IDS[] = {"i0", "q1", "a", "o", "z"};
      static constexpr const char* PORT_IDS[] = {"x", "y", "z"};
      const std::string parent = PickFrom(m.elements).first;
      const NODE_KIND kind = KindOf(parent);
      p = ChildPath(parent, kind == NODE_KIND::NODE                  ? PickFrom(NODE_IDS)
                            : HasAny(kind, NODE_KIND::PORTLIST_MASK) ? PickFrom(LIST_IDS)
                                                                     : PickFrom(PORT_IDS));
    }
    const std::string parent = ParentPath(p);
    _what = "ResetChild " + p;
    const GFI flags = s._systemFlags;
    const Result<void> done = s.ResetChild(s.FindByPath(P(parent)), P(p).GetLastPart(), nullptr);
    ASSERT_EQ(Message(done), "(ok)") << _what;
    if (!m.records.count(p)) {
      EXPECT_EQ(s._systemFlags, flags) << "a reset without a record";
      return;
    }
    m.Erase(p);
    m.records.erase(p);
    m.Restore(p);
    EXPECT_TRUE(HasAll(OwnFlags(s, parent), GFI::MODIFIED_PV_CHILDREN));
  }

  // Ends the bracket and opens the system again; sometimes a copy is kept,
  // which must go on showing the old state while the new one is edited.
  void Rebracket(MutableRoot& root, Model& m) {
    _what = "EndModification";
    Ref<NodeSystem> done = Finish(root);
    ASSERT_TRUE(done);
    Check(Impl(done), m);
    CheckKept();
    if (Chance(50)) {
      _kept = done;
      _keptModel = m;
    }
    root = Open(std::move(done));
  }

  void CheckKept() {
    if (!_kept) return;
    SCOPED_TRACE("the copy kept at an earlier end");
    Check(Impl(_kept), _keptModel);
    _kept.Reset();
  }

  void Check(const NodeSystemImpl& s, const Model& m) {
    // The elements, as the child walk and the lookup see them.
    EXPECT_EQ(Tree(s), m.elements);
    for (const auto& [p, kind] : m.elements) EXPECT_TRUE(s.FindByPath(P(p))) << p;
    if (m.base) {
      for (const auto& [p, kind] : m.base->elements) {
        if (!m.Has(p)) {
          EXPECT_FALSE(s.FindByPath(P(p))) << p << " is gone";
        }
      }
    }

    // The child records this system holds.
    std::map<std::string, bool> records;
    for (const auto& [p, kind] : m.elements) {
      const NodeInfo* own = OwnRecord(s, p);
      if (!own) continue;
      for (const ChildRecord& r : own->children) {
        if (HasAny(r.flags, CHILD_FLAGS::SYNTHETIC)) continue;
        records[ChildPath(p, r.id.GetString())] = HasAny(r.flags, CHILD_FLAGS::ADDED);
      }
    }
    EXPECT_EQ(records, m.records);

    // The entries at both ends, and nothing stored that the base says too.
    std::map<Pair, uint64_t> atSources, atTargets;
    for (const auto& [p, kind] : m.elements) {
      const ConnectionTable* table = NodeSystemImpl::ConnectionTableOf(OwnRecord(s, p));
      if (!table) continue;
      table->ForEach([&](const ConnectionKey& key, const ConnectionData& data) {
        const std::string other = key.other.ToString();
        const Pair pair = key.IsOtherTarget() ? Pair{p, other} : Pair{other, p};
        (key.IsOtherTarget() ? atSources : atTargets)[pair] = data.wires.GetValue();
        EXPECT_FALSE(data.attributes) << pair.first << " -> " << pair.second;
        EXPECT_NE(data.wires.GetValue(), BaseSays(pair)) << pair.first << " -> " << pair.second;
        return true;
      });
    }
    EXPECT_EQ(atSources, m.stored);
    EXPECT_EQ(atTargets, m.stored);

    // The effective wires from both ends.
    const auto effective = m.AllEffective();
    std::map<Pair, uint64_t> sources, targets;
    for (const auto& [p, kind] : m.elements) {
      if (!HasAny(kind, NODE_KIND::PORT_MASK)) continue;
      const GNode port = s.FindByPath(P(p));
      for (const PORT_DIR dir : {PORT_DIR::INPUT, PORT_DIR::OUTPUT}) {
        EXPECT_TRUE(s.GetConnections(
            port, dir, Wires(ALL_CHANNELS), GET_CONNECTIONS_MODE::CONNECTIONS,
            [&](const GNode& other, Wires w, const Ref<ConnectionAttributes>&) -> Result<bool> {
              const std::string o = other.path.ToString();
              (dir == PORT_DIR::INPUT ? sources[{o, p}] : targets[{p, o}]) = w.GetValue();
              return true;
            }));
      }
    }
    EXPECT_EQ(sources, effective);
    EXPECT_EQ(targets, effective);
    for (const auto& [pair, w] : effective) {
      EXPECT_EQ(s.GetConnection(s.FindByPath(P(pair.first)), s.FindByPath(P(pair.second))).Value(),
                Wires(w));
    }
    EXPECT_EQ(Message(s.CheckConnectionConsistency()), "(ok)");
  }

  // The base's wires for a pair as a stored entry would hold them inherited.
  uint64_t BaseSays(const Pair& pair) const {
    if (!_base) return 0;
    const GNode from = _base->FindByPath(P(pair.first));
    const GNode to = _base->FindByPath(P(pair.second));
    if (!from || !to) return 0;
    const uint64_t w = _base->GetConnection(from, to).Value().GetValue();
    return w | (Used(w) & INHERIT_BITS);
  }

  std::mt19937 _rng;
  std::string _what;
  const NodeSystemImpl* _base = nullptr;
  Ref<NodeSystem> _kept;
  Model _keptModel;
};

TEST_F(EditsModel, RandomEditsOfAPlainSystemAcrossBrackets) {
  for (const uint32_t seed : {11u, 12u, 13u, 14u, 15u, 16u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Runner(seed).Run(160, 0);
    if (HasFailure()) return;
  }
}

TEST_F(EditsModel, RandomEditsOfADerivedSystemStoreOnlyDifferences) {
  for (const uint32_t seed : {21u, 22u, 23u, 24u, 25u, 26u, 27u, 28u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Runner(seed).Run(80, 160);
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace orvix::nodes::test
