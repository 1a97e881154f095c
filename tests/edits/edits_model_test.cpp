// Random sequences of structural edits, each step compared with a reference
// model of the visible graph: the present elements, the effective wires from
// both ends, the connection entries and child records the system stores. A
// plain system is built across several brackets; a system derived from it is
// then edited further and must store only its differences.

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "cycle_message.h"
#include "edits_test_support.h"
#include "orvix/host/diagnostics.h"

namespace orvix::nodes::test {
namespace {

constexpr uint64_t ALL_CHANNELS = 0x3f3f3f3f3f3f3f3fULL;
constexpr uint64_t REMOVE_ALL = 0x3e3e3e3e3e3e3e3eULL;

using Pair = std::pair<std::string, std::string>;

std::string ChildPath(const std::string& parent, std::string_view id) {
  return Must(P(parent).Append(Id(id))).ToString();
}
std::string ParentPath(const std::string& path) {
  const NodePath p = P(path);
  return Must(p.Slice(0, NodePath::SliceCount(int64_t(p.GetCount()) - 1))).ToString();
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
// The keys of the entries of `c` that `keep` takes.
template <typename C, typename F>
std::vector<typename C::key_type> Keys(const C& c, F keep) {
  std::vector<typename C::key_type> keys;
  for (const auto& [key, value] : c) {
    if (keep(key, value)) keys.push_back(key);
  }
  return keys;
}

struct Operator {
  std::vector<std::string> inputs, outputs;
  Ref<NodeSystem> system;
};
const std::vector<Operator>& Operators() {
  static const std::vector<Operator> ops = [] {
    std::vector<Operator> v{{{"a", "b"}, {"o"}, {}}, {{"a"}, {"o", "p"}, {}}, {{}, {"o"}, {}}};
    for (Operator& op : v) op.system = MakeOperator(op.inputs, op.outputs);
    return v;
  }();
  return ops;
}

// What the system under test should show and store. A derived system's
// model points at the finished model of its base.
struct Model {
  std::map<std::string, NODE_KIND> elements{
      {"", NODE_KIND::NODE}, {"<", NODE_KIND::INPUTS}, {">", NODE_KIND::OUTPUTS}};
  std::map<Pair, Wires> stored;         // own entries, source to target, as stored
  std::map<std::string, bool> records;  // own child records by path: ADDED or not
  const Model* base = nullptr;

  bool Has(const std::string& p) const { return elements.count(p) > 0; }
  // The base's wire reaches this system if both ends are present and still
  // the base's elements, not new ones made here in their place.
  Wires FromBase(const Pair& pair) const {
    if (!base || !Has(pair.first) || !Has(pair.second)) return Wires();
    if (IsLocal(pair.first) || IsLocal(pair.second)) return Wires();
    const auto it = base->stored.find(pair);
    return it == base->stored.end() ? Wires() : it->second;
  }
  // The entry that says the base's wire unchanged.
  Wires Inherited(const Pair& pair) const { return Wires(FromBase(pair).GetValue(), true); }
  Wires Effective(const Pair& pair) const {
    const auto it = stored.find(pair);
    return it != stored.end() ? it->second & Wires(ALL_CHANNELS) : FromBase(pair);
  }
  std::map<Pair, Wires> AllEffective() const {
    std::map<Pair, Wires> result;
    for (const auto& [pair, w] : stored) result[pair] = Effective(pair);
    for (const auto& [pair, w] : base ? base->stored : stored) result[pair] = Effective(pair);
    std::erase_if(result, [](const auto& e) { return e.second.IsEmpty(); });
    return result;
  }
  // The base's wires that reach this system unchanged.
  std::vector<Pair> InheritedPairs() const {
    return Keys(AllEffective(),
                [&](const Pair& pair, Wires) { return !stored.count(pair) && FromBase(pair); });
  }
  // The base's children of the given kinds that this system removed, below
  // present parents.
  std::vector<std::string> Hidden(NODE_KIND kinds) const {
    return Keys(records, [&](const std::string& p, bool added) {
      return !added && HasAny(KindOf(p), kinds) && Has(ParentPath(p));
    });
  }
  // True if the element or one above it was made here: its base chain
  // doesn't lead into the base system.
  bool IsLocal(const std::string& p) const {
    for (std::string q = p; !q.empty(); q = ParentPath(q)) {
      if (records.count(q) && records.at(q)) return true;
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
    if (::testing::Test::HasFailure()) return;
    BreakLoops(Impl(root), model);
    const Ref<NodeSystem> base = Finish(root);
    CheckKept();
    if (!base || derivedSteps == 0) return;
    const Model baseModel = model;
    model = Model{baseModel.elements, {}, {}, &baseModel};
    root = OpenDerived(base);
    Check(Impl(root), model);
    RunSteps(root, model, derivedSteps);
    if (::testing::Test::HasFailure()) return;
    BreakLoops(Impl(root), model);
    Finish(root);
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
    return Keys(m.elements,
                [&](const std::string&, NODE_KIND kind) { return HasAny(kind, kinds); });
  }

  void RunSteps(MutableRoot& root, Model& model, int steps, bool connectOnly = false) {
    // Each edit up to its percentile; a new bracket above the last.
    static constexpr struct {
      size_t below;
      void (Runner::*edit)(NodeSystemImpl&, Model&);
    } EDITS[] = {{36, &Runner::Connect}, {42, &Runner::Disconnect}, {52, &Runner::AddNode},
                 {68, &Runner::AddPort}, {78, &Runner::Remove},     {91, &Runner::Reset}};
    CapturedOutput output;
    for (int step = 0; step < steps; ++step) {
      SCOPED_TRACE("step " + std::to_string(step));
      output.Clear();
      _what.clear();
      _before = Take(Impl(root));
      const size_t op = connectOnly ? 0 : Pick(100);
      const auto e = std::find_if(std::begin(EDITS), std::end(EDITS),
                                  [&](const auto& e) { return op < e.below; });
      if (e == std::end(EDITS)) {
        Rebracket(root, model);
      } else {
        (this->*e->edit)(Impl(root), model);
      }
      SCOPED_TRACE(_what);
      Check(Impl(root), model);
      // A diagnostic means that a lookup met a broken store.
      EXPECT_FALSE(output.Contains(INTERNAL_ERROR_TEXT));
      if (::testing::Test::HasFailure()) return;
    }
  }

  // Whether the edit succeeded, as `expected` says it must; a failed edit
  // gives the message and leaves everything as it was, the stamp included.
  bool Succeeded(const NodeSystemImpl& s, const std::string& expected, const std::string& actual) {
    EXPECT_EQ(actual, expected) << _what;
    if (expected == "(ok)") return actual == expected;
    EXPECT_TRUE(Take(s) == _before) << _what;
    return false;
  }

  // The record of `path` and the system carry the modified `bits`.
  void ExpectMarked(const NodeSystemImpl& s, const std::string& path, GFI bits) {
    EXPECT_TRUE(HasAll(MarksAt(s, path), bits) && HasAll(SystemMarks(s), bits))
        << _what << ": " << path;
  }

  void Connect(NodeSystemImpl& s, Model& m) {
    const auto ports = Elements(m, NODE_KIND::PORT_MASK);
    if (ports.size() < 2) return;
    std::string from = PickFrom(ports), to = PickFrom(ports);
    const auto inherited = m.InheritedPairs();
    if (!inherited.empty() && Chance(30)) std::tie(from, to) = PickFrom(inherited);
    for (int tries = 0; tries < 40 && RuleError(from, to) != "(ok)" && !Chance(5); ++tries) {
      from = PickFrom(ports);
      to = PickFrom(ports);
    }
    static constexpr uint8_t MODES[] = {0x08, 0x10, 0x11, 0x20, 0x28, 0x30,
                                        0x3d, 0x3e, 0x3e, 0x80, 0x80};
    Wires modes;
    for (uint32_t ch = 0; ch < 8; ++ch) {
      if (Chance(ch < 3 ? 45 : 10)) modes.Set(ch, WIRE_MODE(PickFrom(MODES)));
    }
    int badChannel = -1;
    if (Chance(4)) {
      static constexpr uint8_t BAD[] = {0x81, 0x90, 0xbf, 0xc0, 0xff};
      badChannel = int(Pick(8));
      modes.Set(badChannel, WIRE_MODE(PickFrom(BAD)));
    }
    Connect(s, m, {from, to}, modes, badChannel);
  }

  void Connect(NodeSystemImpl& s, Model& m, const Pair& pair, Wires modes, int badChannel) {
    _what = "Connect " + pair.first + " -> " + pair.second + " " + modes.ToString();
    const std::string actual = Message(ConnectAt(s, pair.first, pair.second, modes.GetValue()));
    std::string expected = RuleError(pair.first, pair.second);
    if (expected == "(ok)" && badChannel >= 0) {
      expected = "Illegal wire mode " + ToString(modes.Get(badChannel)) + " for call to Connect().";
    }
    if (!Succeeded(s, expected, actual)) return;
    const Wires inherited = m.Inherited(pair);
    const auto it = m.stored.find(pair);
    const Wires current = it != m.stored.end() ? it->second : inherited;
    Wires next = current;
    for (uint32_t ch = 0; ch < 8; ++ch) {
      const WIRE_MODE mode = modes.Get(ch);
      if (mode == WIRE_MODE::NONE) continue;
      next.Set(ch, mode == WIRE_MODE::REMOVE    ? WIRE_MODE::NONE
                   : mode == WIRE_MODE::INHERIT ? inherited.Get(ch)
                                                : mode);
    }
    if (next == current) {
      EXPECT_EQ(s.GetModificationStamp(), _before.stamp) << "a Connect that changes nothing";
      return;
    }
    if (next == inherited) {
      m.stored.erase(pair);
    } else {
      m.stored[pair] = next;
    }
    ExpectMarked(s, pair.first, GFI::MODIFIED_TARGETS | GFI::MODIFIED_TOPOLOGY);
    ExpectMarked(s, pair.second, GFI::MODIFIED_SOURCES | GFI::MODIFIED_TOPOLOGY);
  }

  void Disconnect(NodeSystemImpl& s, Model& m) {
    const auto wires = m.AllEffective();
    if (wires.empty()) return Connect(s, m);
    Pair pair = PickFrom(wires).first;
    const auto inherited = m.InheritedPairs();
    if (!inherited.empty() && Chance(60)) pair = PickFrom(inherited);
    const Wires used = m.Effective(pair).ToMask() & Wires(REMOVE_ALL);
    Connect(s, m, pair, Chance(50) ? Wires(REMOVE_ALL) : used, -1);
  }

  // A new element; in a derived system possibly in the place of one that the
  // base had and this system removed.
  void Added(NodeSystemImpl& s, Model& m, const std::string& path) {
    m.records[path] = true;
    m.elements[path] = KindOf(path);
    ExpectMarked(s, path, GFI(0x411c000000));
    ExpectMarked(s, ParentPath(path), GFI::MODIFIED_PV_CHILDREN);
  }

  void AddNode(NodeSystemImpl& s, Model& m) {
    std::string id = "n" + std::to_string(Pick(4));
    const auto hidden = m.Hidden(NODE_KIND::NODE);
    if (!hidden.empty() && Chance(50)) id = PickFrom(hidden);
    const Operator& op = PickFrom(Operators());
    _what = "AddChild " + id;
    const std::string actual = Message(s.AddChild(id, op.system, nullptr));
    const std::string taken = "There already exists a node with id " + id + " in .";
    if (!Succeeded(s, m.Has(id) ? taken : "(ok)", actual)) return;
    Added(s, m, id);
    EXPECT_TRUE(HasAll(OwnFlags(s, id), GFI::MODIFIED_TOPOLOGY | GFI::DIRECT_INSTANCE));
    std::vector<std::string> made{id + "<", id + ">"};
    for (const auto& p : op.inputs) made.push_back(id + "<" + p);
    for (const auto& p : op.outputs) made.push_back(id + ">" + p);
    for (const auto& p : made) {
      m.elements[p] = KindOf(p);
      if (IsPort(p)) ExpectMarked(s, p, GFI::MODIFIED_SAV_ATTRIBUTES | GFI::MODIFIED_PV_SOURCES);
    }
    // A new node's unique number is pending until the end of the bracket.
    const AttributeRecord* unique =
        OwnRecord(s, id)->attributes->records.Find(Id("checkuniquenumber"));
    EXPECT_TRUE(unique && unique->value == Data(int64_t{-2}));
  }

  void AddPort(NodeSystemImpl& s, Model& m) {
    std::string parent;
    std::string id;
    const auto hidden = m.Hidden(NODE_KIND::PORT_MASK);
    if (!hidden.empty() && Chance(30)) {
      const std::string p = PickFrom(hidden);
      parent = ParentPath(p);
      id = P(p).GetLastPart().GetString();
    } else if (Chance(40)) {
      parent = Chance(50) ? "<" : ">";
      id = (parent == "<" ? "i" : "q") + std::to_string(Pick(3));
    } else if (Chance(90)) {
      // Nested ports, two levels at most below a top-level port.
      const auto parents = Keys(m.elements, [](const std::string& p, NODE_KIND kind) {
        return HasAny(kind, NODE_KIND::PORT_MASK) && P(p).GetCount() - P(p).GetNodeCount() <= 3;
      });
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
    const std::string actual = Message(AddPortAt(s, parent, id));
    std::string expected = "(ok)";
    if (KindOf(parent) == NODE_KIND::NODE) {
      expected = "You can't add a port directly to node " + parent + ".";
    } else if (HasAny(KindOf(parent), NODE_KIND::PORTLIST_MASK) && parent.size() > 1) {
      expected = "You can't add the top-level port " + id + " to " + parent +
                 ": This points to a nested node.";
    } else if (m.Has(path)) {
      expected = "There already exists a node with id " + id + " in " + parent + ".";
    }
    if (!Succeeded(s, expected, actual)) return;
    Added(s, m, path);
    EXPECT_TRUE(HasAll(OwnFlags(s, path), GFI::DIRECT_PORT));
    EXPECT_EQ(HasAny(MarksAt(s, path), GFI::MODIFIED_TOPOLOGY), P(path).IsTopLevelPort());
  }

  void Remove(NodeSystemImpl& s, Model& m) {
    const auto removable = Keys(m.elements, [](const std::string& p, NODE_KIND kind) {
      const NodePath path = P(p);
      return kind == NODE_KIND::NODE ? path.GetCount() == 1
                                     : HasAny(kind, NODE_KIND::PORT_MASK) &&
                                           (!path.IsTopLevelPort() || path.GetNodeCount() == 0);
    });
    const bool illegal = removable.empty() || Chance(8);
    const std::string p = illegal ? PickFrom(m.elements).first : PickFrom(removable);
    _what = "Remove " + p;
    const std::string actual = Message(RemoveAt(s, p));
    const std::string expected =
        std::find(removable.begin(), removable.end(), p) != removable.end() ? "(ok)"
        : IsPort(p) ? "Top-level port " + p + " cannot be removed. It belongs to a nested node."
                    : p + " cannot be removed. This is not a valid path of a node or port.";
    if (!Succeeded(s, expected, actual)) return;
    // The other ends of the wires it takes lose a target or a source, and
    // their connection stamps move, so that a reader comparing stamps sees
    // the lost wire, whoever stored it.
    std::map<Pair, Wires> cut = m.AllEffective();
    std::erase_if(
        cut, [&](const auto& e) { return Within(e.first.first, p) == Within(e.first.second, p); });
    for (const auto& [pair, w] : cut) {
      const bool toSource = Within(pair.second, p);
      const std::string& other = toSource ? pair.first : pair.second;
      if (w.IsEmpty()) continue;
      ExpectMarked(s, other, toSource ? GFI::MODIFIED_TARGETS : GFI::MODIFIED_SOURCES);
      const PORT_DIR dir = toSource ? PORT_DIR::OUTPUT : PORT_DIR::INPUT;
      EXPECT_GT(Must(s.GetConnectionStamp(s.FindByPath(P(other)), dir)), _before.stamp);
      EXPECT_TRUE(HasAny(s.GetModifications(_before.stamp), MODIFIED::CONNECTION_MASK));
    }
    m.Erase(p);
    if (m.records.count(p) && !m.BaseHas(p)) {
      m.records.erase(p);
    } else {
      m.records[p] = false;
    }
    ExpectMarked(s, ParentPath(p),
                 IsPort(ParentPath(p)) ? GFI::MODIFIED_PV_CHILDREN
                                       : GFI::MODIFIED_PV_CHILDREN | GFI::MODIFIED_TOPOLOGY);
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
    const Result<void> done = s.ResetChild(s.FindByPath(P(parent)), P(p).GetLastPart(), nullptr);
    ASSERT_EQ(Message(done), "(ok)") << _what;
    if (!m.records.count(p)) {
      EXPECT_EQ(SystemMarks(s), _before.systemFlags) << "a reset without a record";
      return;
    }
    m.Erase(p);
    m.records.erase(p);
    m.Restore(p);
    ExpectMarked(s, parent, GFI::MODIFIED_PV_CHILDREN);
  }

  // Random wires may close loops through ports, which validation refuses.
  // Each loop found loses every wire among its ports, as edits the model
  // follows, until the system sorts.
  void BreakLoops(NodeSystemImpl& s, Model& m) {
    for (int round = 0; round < 50; ++round) {
      const Result<void> sorted = s.ValidateTopology();
      if (sorted) return;
      const std::set<std::string> loop = PortsOfCycleMessage(Message(sorted));
      ASSERT_FALSE(loop.empty()) << Message(sorted);
      auto top = [](const std::string& p) { return Must(P(p).GetTopLevelPort()).ToString(); };
      for (const auto& [pair, wires] : m.AllEffective()) {
        if (loop.count(top(pair.first)) && loop.count(top(pair.second))) {
          Connect(s, m, pair, Wires(0x3e3e3e3e3e3e3e3eULL), -1);
        }
      }
    }
    FAIL() << "loops left after 50 rounds";
  }

  // Ends the bracket and opens the system again; sometimes a copy is kept,
  // which must go on showing the old state while the new one is edited.
  void Rebracket(MutableRoot& root, Model& m) {
    BreakLoops(Impl(root), m);
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
    for (const auto& [p, kind] : m.base ? m.base->elements : m.elements) {
      EXPECT_EQ(bool(s.FindByPath(P(p))), m.Has(p)) << p;
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

    // The entries at both ends, and none that says the base's wire unchanged;
    // the effective wires from both ends.
    std::map<Pair, Wires> atSources, atTargets, sources, targets;
    for (const auto& [p, kind] : m.elements) {
      for (const auto& [key, data] : StoredAt(s, p)) {
        const std::string other = key.substr(0, key.size() - 1);
        const bool toTarget = key.back() == '>';
        const Pair pair = toTarget ? Pair{p, other} : Pair{other, p};
        (toTarget ? atSources : atTargets)[pair] = data.wires;
        EXPECT_FALSE(data.attributes) << pair.first << " -> " << pair.second;
        EXPECT_NE(data.wires, m.Inherited(pair)) << pair.first << " -> " << pair.second;
      }
      if (!HasAny(kind, NODE_KIND::PORT_MASK)) continue;
      for (const auto& [o, w] : Ends(s, p, PORT_DIR::INPUT, ALL_CHANNELS))
        sources[{o, p}] = Wires(w);
      for (const auto& [o, w] : Ends(s, p, PORT_DIR::OUTPUT, ALL_CHANNELS))
        targets[{p, o}] = Wires(w);
    }
    EXPECT_EQ(atSources, m.stored);
    EXPECT_EQ(atTargets, m.stored);
    const auto effective = m.AllEffective();
    EXPECT_EQ(sources, effective);
    EXPECT_EQ(targets, effective);
    for (const auto& [pair, w] : effective) {
      EXPECT_EQ(Must(s.GetConnection(s.FindByPath(P(pair.first)), s.FindByPath(P(pair.second)))),
                w);
    }
    EXPECT_EQ(Message(s.CheckConnectionConsistency()), "(ok)");
  }

  std::mt19937 _rng;
  std::string _what;
  Snapshot _before;  // taken before each step
  Ref<NodeSystem> _kept;
  Model _keptModel;
};

TEST(EditsModel, RandomEditsOfAPlainSystemAcrossBrackets) {
  for (const uint32_t seed : {11u, 12u, 13u, 14u, 15u, 16u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Runner(seed).Run(160, 0);
    if (HasFailure()) return;
  }
}

TEST(EditsModel, RandomEditsOfADerivedSystemStoreOnlyDifferences) {
  for (const uint32_t seed : {21u, 22u, 23u, 24u, 25u, 26u, 27u, 28u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Runner(seed).Run(80, 160);
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace orvix::nodes::test
