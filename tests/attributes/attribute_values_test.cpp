// Attribute values: what a read sees through the chain of bases, what a write
// stores and stamps, and the values handed out while a modification goes on.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orvix/host/data_accessor.h"
#include "orvix/nodes/modification.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {
namespace {

NodePath P(std::string_view text) {
  return NodePath::Parse(text).Value();
}
InternedId Id(std::string_view text) {
  return InternedId::Get(text);
}
template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("(ok)") : r.GetError().GetMessage();
}
// The answer of a write that must not fail.
bool Did(const Result<bool>& r) {
  EXPECT_TRUE(r) << Message(r);
  return r && *r;
}
NodeSystemImpl& Impl(const Ref<NodeSystem>& system) {
  return static_cast<NodeSystemImpl&>(*system);
}
MutableRoot OpenEmpty() {
  return CreateDefaultNodeSystemClass().Value()->CreateNodeSystem().Value();
}
MutableRoot OpenDerived(const Ref<NodeSystem>& base) {
  Ref<NodeSystem> derived = NodeSystemImpl::CreateDerived(Ref<NodeSystemImpl>(&Impl(base))).Value();
  return BeginModification(derived, false).Value();
}
// Ends the modification; the caller then holds the system alone, as a client would.
Ref<NodeSystem> Finish(MutableRoot& root) {
  Result<Ref<NodeSystem>> done = root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  EXPECT_TRUE(done) << Message(done);
  if (!done) return {};
  EXPECT_TRUE(Impl(*done)._retiredTables.empty());
  EXPECT_TRUE((*done)->IsFinalized());
  root._system.Reset();
  return *done;
}
GNode AddPort(NodeSystem& s, std::string_view parent, std::string_view id,
              GNODE_FLAGS flags = GNODE_FLAGS::NONE) {
  Result<GNode> port = s.AddPort(s.FindByPath(P(parent)), id, flags, nullptr);
  EXPECT_TRUE(port) << Message(port);
  return port ? *port : GNode();
}
const Data& Read(const NodeSystem& s, std::string_view path, std::string_view id) {
  return *s.GetValue(s.FindByPath(P(path)), Id(id)).Value();
}
int64_t Prefix(const NodeSystem& s, std::string_view path, std::string_view id, bool ownOnly) {
  int64_t prefix = 99;
  EXPECT_TRUE(s.GetValue(s.FindByPath(P(path)), Id(id), &prefix, ownOnly));
  return prefix;
}
Data IoNodes(std::string_view which) {
  return Data(DataArray::Of<InternedId>({Id(which)}));
}
const AttributeRecord* OwnAttribute(const NodeSystemImpl& s, std::string_view path,
                                    std::string_view id) {
  const GNode node = s.FindByPath(P(path));
  if (node.system != &s || !node.info->attributes) return nullptr;
  return node.info->attributes->records.Find(Id(id));
}
testing::AssertionResult Same(const Data& got, const Data& want) {
  if (got == want) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "got " << got.ToString() << ", want " << want.ToString();
}

constexpr std::string_view kTrueByDefault[] = {
    "inheritnestedports",       "synthesizenestedports",
    "inheritnestedportssource", "synthesizenestedportssource",
    "inheritportsource",        "synthesizeportsource",
    "synthesizetypesource",     "synthesizevalue",
    "inheritinterface",         "stickyporttypetemplateparameter"};

// ---------------------------------------------------------------------------
// A model of the chain: each level stores, per element path and id, a value
// or a tombstone (nullopt); a read takes the nearest level that stores the id.

using Stored = std::map<std::string, std::map<std::string, std::optional<Data>>>;

// An element of the top systems, and its path inside node n1's content.
struct Element {
  std::string path;
  std::optional<std::string> inner;
};
const std::vector<Element> kElements = {
    {"", {}},   {"<", {}},  {"<x", {}},   {"<x/k", {}},   {"<t", {}},   {">", {}},
    {">y", {}}, {"n1", ""}, {"n1<", "<"}, {"n1<a", "<a"}, {"n1>", ">"}, {"n1>sum", ">sum"}};
// The writes draw from few values, so that writes of the value already held
// come up as well.
const std::vector<std::string> kIds = {"label", "gain", "inheritnestedports",
                                       "net.orvix.node.ionodes"};
const std::vector<Data>& Values() {
  static const std::vector<Data> values = {Data(int64_t{1}), Data(int64_t{2}), Data("text"),
                                           Data(false),      Data(true),       IoNodes("in"),
                                           IoNodes("out")};
  return values;
}

// One record on the way of a read: a level's values at the element's path there.
struct Link {
  const Stored* level;
  std::string path;
  const std::optional<Data>* Find(const std::string& id) const {
    const auto element = level->find(path);
    if (element == level->end()) return nullptr;
    const auto value = element->second.find(id);
    return value == element->second.end() ? nullptr : &value->second;
  }
  int64_t Parts() const { return int64_t(P(path).GetCount()); }
};

// The read of `e` at level `top` (0 is n1's content), nearest link first.
struct Reading {
  std::string path;
  std::vector<Link> links;
  Reading(const std::vector<Stored>& levels, const Element& e, int top)
      : path(top == 0 ? *e.inner : e.path) {
    for (int l = top; l >= 1; --l) links.push_back({&levels[l], e.path});
    if (e.inner) links.push_back({&levels[0], *e.inner});
  }
  // The index of the deciding link, -1 for none.
  int Holder(const std::string& id) const {
    for (size_t i = 0; i < links.size(); ++i) {
      if (links[i].Find(id)) return int(i);
    }
    return -1;
  }
  Data Value(const std::string& id) const {
    if (id == "isshortcutstop") return Data(path == "<t");
    if (const int h = Holder(id); h >= 0) return links[h].Find(id)->value_or(Data());
    for (std::string_view t : kTrueByDefault) {
      if (id == t) return Data(true);
    }
    const NODE_KIND kind = P(path).GetKindRaw();
    if (id == "net.orvix.node.ionodes" &&
        HasAny(kind, NODE_KIND::PORTLIST_MASK | NODE_KIND::PORT_MASK)) {
      return IoNodes(HasAny(kind, NODE_KIND::OUT_MASK) ? "out" : "in");
    }
    return Data();
  }
  int64_t PrefixAt(int link, bool ownOnly) const {
    if (link < 0) return 0;
    return ownOnly && link == 0 ? -1 : int64_t(P(path).GetCount()) - links[link].Parts();
  }
};

class ChainDriver {
 public:
  explicit ChainDriver(uint32_t seed) : _rng(seed) {}
  std::vector<Stored> levels = std::vector<Stored>(4);

  // `steps` random writes at level `top`, each followed by a full check.
  void Run(NodeSystemImpl& s, int top, int steps) {
    for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
      Step(s, top);
      Check(s, levels, top);
      for (const auto& [pointer, copy] : _handedOut) {
        ASSERT_TRUE(Same(*pointer, copy)) << "a value handed out earlier changed";
      }
    }
    _handedOut.clear();
  }

  void Check(const NodeSystemImpl& s, const std::vector<Stored>& model, int top) {
    std::vector<std::string> ids = kIds;
    ids.insert(ids.end(), {"isshortcutstop", "net.orvix.node.other"});
    for (std::string_view t : kTrueByDefault) {
      if (std::find(ids.begin(), ids.end(), t) == ids.end()) ids.emplace_back(t);
    }
    for (const Element& e : kElements) {
      if (top == 0 && !e.inner) continue;
      const Reading r(model, e, top);
      const GNode node = s.FindByPath(P(r.path));
      ASSERT_TRUE(node) << r.path;
      for (const std::string& id : ids) {
        SCOPED_TRACE("read of " + id + " at '" + r.path + "'");
        int64_t prefix = 99;
        const Data* value = s.GetValue(node, Id(id), &prefix, false).Value();
        EXPECT_TRUE(Same(*value, r.Value(id)));
        if (s._mutable && value->IsPopulated()) _handedOut.emplace_back(value, *value);
        if (id == "isshortcutstop") continue;
        EXPECT_EQ(prefix, r.PrefixAt(r.Holder(id), false));
        EXPECT_TRUE(s.GetValue(node, Id(id), &prefix, true));
        EXPECT_EQ(prefix, r.PrefixAt(r.Holder(id), true));
        std::vector<std::pair<std::string, int64_t>> seen, want;
        EXPECT_TRUE(s.GetValueWithCallback(node, Id(id), [&](const Data& v, int64_t p) {
          seen.emplace_back(v.ToString(), p);
          return Result<bool>(true);
        }));
        for (size_t i = 0; i < r.links.size(); ++i) {
          if (const auto* v = r.links[i].Find(id)) {
            want.emplace_back(v->value_or(Data()).ToString(), r.PrefixAt(int(i), true));
          }
        }
        EXPECT_EQ(seen, want);
      }
      for (const bool keepErased : {false, true}) {
        ValueMap map;
        ASSERT_TRUE(s.GetValues(node, VALUES_ALL, map, true, keepErased));
        std::map<std::string, std::string> got, want;
        for (const auto& [id, value] : map) {
          const std::string text(id.GetString());
          if (std::find(ids.begin(), ids.end(), text) != ids.end()) got[text] = value.ToString();
        }
        if (r.path == "<t") want["isshortcutstop"] = "true";
        for (const std::string& id : kIds) {
          const int h = r.Holder(id);
          const std::optional<Data>* v = h < 0 ? nullptr : r.links[h].Find(id);
          if (v && (*v || keepErased)) want[id] = v->value_or(Data()).ToString();
        }
        EXPECT_EQ(got, want) << "values of '" << r.path << "', keepErased " << keepErased;
      }
    }
  }

 private:
  void Step(NodeSystemImpl& s, int top) {
    const Element* e = nullptr;
    while (!e || (top == 0 && !e->inner)) e = &kElements[_rng() % kElements.size()];
    const Reading r(levels, *e, top);
    const std::string id = kIds[_rng() % kIds.size()];
    const GNode node = s.FindByPath(P(r.path));
    const int holder = r.Holder(id);
    const Data visible = r.Value(id);
    auto& own = levels[top][r.path];
    const bool held = own.count(id) != 0;
    const uint32_t op = _rng() % 10;
    SCOPED_TRACE("op " + std::to_string(op) + " of " + id + " at '" + r.path + "'");
    if (op < 5) {
      const Data& value = Values()[_rng() % Values().size()];
      const bool changes = !held || !own[id] || !(*own[id] == value);
      EXPECT_EQ(Did(s.SetValue(node, Id(id), value, nullptr)), changes) << value.ToString();
      own[id] = value;
    } else if (op < 7) {
      EXPECT_EQ(Did(s.ResetValue(node, Id(id), nullptr)), held) << "reset";
      own.erase(id);
    } else if (op < 9) {
      const bool hides = holder >= 0 && r.links[holder].Find(id)->has_value();
      EXPECT_EQ(Did(s.EraseValue(node, Id(id), nullptr)), hides) << "erase";
      if (hides) own[id] = std::nullopt;
    } else {
      const Result<void> done = s.TouchValue(node, Id(id), nullptr);
      if (visible.IsEmpty()) {
        EXPECT_EQ(Message(done), "There is no value for attribute " + id + " at " + r.path + ".");
      } else {
        EXPECT_TRUE(done) << Message(done);
        if (!held) own[id] = visible;
      }
    }
  }

  std::mt19937 _rng;
  // Every value handed out during the modification, with what it read then.
  std::vector<std::pair<const Data*, Data>> _handedOut;
};

class AttributeChain : public testing::TestWithParam<uint32_t> {};

// n1's content, then A, B derived from A and C derived from B, each edited at
// random and finished; then C once more while a snapshot holds it. After every
// step each element reads what the model says and every value handed out in
// the modification still reads as it did; at the end every older system still
// reads what it read when it was finished.
TEST_P(AttributeChain, ReadsThroughThreeBasesFollowTheModel) {
  ChainDriver d(GetParam());
  MutableRoot o = OpenEmpty();
  AddPort(*o._system, "<", "a");
  AddPort(*o._system, ">", "sum");
  d.Run(Impl(o._system), 0, 60);
  const Ref<NodeSystem> content = Finish(o);

  MutableRoot a = OpenEmpty();
  AddPort(*a._system, "<", "x");
  AddPort(*a._system, "<x", "k");
  AddPort(*a._system, "<", "t", GNODE_FLAGS::TAPPING_PORT);
  AddPort(*a._system, ">", "y");
  ASSERT_TRUE(a._system->AddChild("n1", content, nullptr));
  d.Run(Impl(a._system), 1, 80);
  const Ref<NodeSystem> sa = Finish(a);
  MutableRoot b = OpenDerived(sa);
  d.Run(Impl(b._system), 2, 80);
  const Ref<NodeSystem> sb = Finish(b);
  MutableRoot c = OpenDerived(sb);
  d.Run(Impl(c._system), 3, 80);
  Ref<NodeSystem> sc = Finish(c);

  const std::vector<Stored> atSnapshot = d.levels;
  const Ref<NodeSystem> snapshot = sc;
  MutableRoot again = BeginModification(sc, false).Value();
  ASSERT_NE(again._system.Get(), snapshot.Get());
  d.Run(Impl(again._system), 3, 80);
  const Ref<NodeSystem> sc2 = Finish(again);

  d.Check(Impl(snapshot), atSnapshot, 3);
  d.Check(Impl(sc2), d.levels, 3);
  d.Check(Impl(sb), d.levels, 2);
  d.Check(Impl(sa), d.levels, 1);
  d.Check(Impl(content), d.levels, 0);
}
INSTANTIATE_TEST_SUITE_P(Seeds, AttributeChain, testing::Values(7u, 20261123u, 424242u));

// ---------------------------------------------------------------------------

// A value found in a base or in a node's content is not the element's own,
// even when the handle resolves to that record: its prefix counts the parts
// crossed (0 for the same path in a base, 1 from n1's content), or a reader
// that adds the prefix to the paths in the value gets them wrong.
TEST(AttributePrefix, ABaseValueIsNotTheElementsOwn) {
  MutableRoot content = OpenEmpty();
  const GNode inputs = content._system->FindByPath(P("<"));
  ASSERT_TRUE(Did(content._system->SetValue(inputs, Id("label"), Data("inner"), nullptr)));
  MutableRoot m = OpenEmpty();
  const GNode x = AddPort(*m._system, "<", "x");
  ASSERT_TRUE(Did(m._system->SetValue(x, Id("label"), Data("base"), nullptr)));
  ASSERT_TRUE(m._system->AddChild("n1", Finish(content), nullptr));
  // No record of n1< here: the handle resolves into the content.
  ASSERT_NE(m._system->FindByPath(P("n1<")).system, &Impl(m._system));
  EXPECT_EQ(Prefix(*m._system, "n1<", "label", true), 1);
  MutableRoot d = OpenDerived(Finish(m));
  // The derived system holds no record of <x: the handle resolves into the base.
  const GNode dx = d._system->FindByPath(P("<x"));
  ASSERT_NE(dx.system, &Impl(d._system));
  EXPECT_EQ(Prefix(*d._system, "<x", "label", true), 0);
  std::vector<int64_t> prefixes;
  EXPECT_TRUE(d._system->GetValueWithCallback(dx, Id("label"), [&](const Data&, int64_t p) {
    prefixes.push_back(p);
    return Result<bool>(true);
  }));
  EXPECT_EQ(prefixes, std::vector<int64_t>{0});
}

// ---------------------------------------------------------------------------

TEST(HandedOutValues, StayReadableThroughLaterWritesUntilTheModificationEnds) {
  MutableRoot m = OpenEmpty();
  NodeSystemImpl& s = Impl(m._system);
  const GNode x = AddPort(s, "<", "x");
  const std::string long1(200, 'a'), long2(300, 'b');
  ASSERT_TRUE(Did(s.SetValue(x, Id("label"), Data(long1), nullptr)));
  // Writes before anything is handed out change the table in place.
  ASSERT_TRUE(Did(s.SetValue(x, Id("gain"), Data(int64_t{1}), nullptr)));
  EXPECT_TRUE(s._retiredTables.empty());

  const Data* first = s.GetValue(x, Id("label")).Value();
  ASSERT_TRUE(Did(s.SetValue(x, Id("label"), Data(long2), nullptr)));
  // The table grows on and its records move.
  for (int i = 0; i < 64; ++i) {
    ASSERT_TRUE(Did(s.SetValue(x, Id("v" + std::to_string(i)), Data(int64_t{i}), nullptr)));
  }
  EXPECT_EQ(s._retiredTables.size(), 1u);
  EXPECT_TRUE(Same(*first, Data(long1)));

  // Each write that follows a read retires the table once more.
  const Data* second = s.GetValue(x, Id("label")).Value();
  ASSERT_TRUE(Did(s.ResetValue(x, Id("label"), nullptr)));
  const Data* gain = s.GetValue(x, Id("gain")).Value();
  ASSERT_TRUE(Did(s.EraseValue(x, Id("gain"), nullptr)));
  const Data* v3 = s.GetValue(x, Id("v3")).Value();
  ASSERT_TRUE(s.TouchValue(x, Id("inheritinterface"), nullptr));
  EXPECT_EQ(s._retiredTables.size(), 4u);
  EXPECT_TRUE(Same(*first, Data(long1)));
  EXPECT_TRUE(Same(*second, Data(long2)));
  EXPECT_TRUE(Same(*gain, Data(int64_t{1})));
  EXPECT_TRUE(Same(*v3, Data(int64_t{3})));
  EXPECT_TRUE(Read(s, "<x", "label").IsEmpty());

  // A value read from a base isn't this system's to protect: the write goes
  // to the derived system's own record and retires nothing.
  MutableRoot d = OpenDerived(Finish(m));
  NodeSystemImpl& ds = Impl(d._system);
  const Data* fromBase = ds.GetValue(ds.FindByPath(P("<x")), Id("v5")).Value();
  ASSERT_TRUE(Did(ds.SetValue(ds.FindByPath(P("<x")), Id("v5"), Data("own"), nullptr)));
  EXPECT_TRUE(ds._retiredTables.empty());
  EXPECT_TRUE(Same(*fromBase, Data(int64_t{5})));
  EXPECT_TRUE(Same(Read(ds, "<x", "v5"), Data("own")));
}

// ---------------------------------------------------------------------------

struct Stamps {
  uint64_t modification, value, record, element, attribute;
  bool operator==(const Stamps&) const = default;
};
Stamps StampsOf(const NodeSystemImpl& s, std::string_view path, std::string_view id) {
  const AttributeRecord* own = OwnAttribute(s, path, id);
  const GNode node = s.FindByPath(P(path));
  return {s.GetModificationStamp(), s.GetValueStamp(node, Id(id)).Value(), own ? own->stamp : 0,
          node.info->_directAttributeStamp, s._attributeStamp};
}

TEST(AttributeStamps, AWriteThatChangesNothingMovesNoStamp) {
  MutableRoot m = OpenEmpty();
  NodeSystemImpl& s = Impl(m._system);
  const GNode x = AddPort(s, "<", "x");
  const uint64_t before = s.GetModificationStamp();
  ASSERT_TRUE(Did(s.SetValue(x, Id("gain"), Data(int64_t{3}), nullptr)));
  const Stamps written = StampsOf(s, "<x", "gain");
  EXPECT_GT(written.modification, before);
  EXPECT_EQ(written, (Stamps{written.modification, written.modification, written.modification,
                             written.modification, written.modification}));
  EXPECT_EQ(s.GetModifications(before), MODIFIED::DATA_ATTRIBUTE_MASK);

  // The read marks the record, which is a write of its own: measure after it.
  const Data* held = s.GetValue(x, Id("gain")).Value();
  const Stamps marked = StampsOf(s, "<x", "gain");
  EXPECT_FALSE(Did(s.SetValue(x, Id("gain"), Data(int64_t{3}), nullptr)));
  EXPECT_FALSE(Did(s.ResetValue(x, Id("label"), nullptr)));
  EXPECT_FALSE(Did(s.EraseValue(x, Id("label"), nullptr)));
  EXPECT_EQ(StampsOf(s, "<x", "gain"), marked);
  EXPECT_TRUE(s._retiredTables.empty());
  EXPECT_TRUE(s.EnumerateChangedValues(x, marked.modification, [](InternedId id, const Data&) {
    ADD_FAILURE() << id.GetString() << " reported as changed";
    return Result<bool>(true);
  }));
  EXPECT_TRUE(Did(s.SetValue(x, Id("gain"), Data(int32_t{3}), nullptr)));  // another type
  EXPECT_TRUE(Same(*held, Data(int64_t{3})));

  ASSERT_TRUE(Did(s.EraseValue(x, Id("gain"), nullptr)));
  const Stamps erased = StampsOf(s, "<x", "gain");
  EXPECT_FALSE(Did(s.EraseValue(x, Id("gain"), nullptr)));
  EXPECT_FALSE(Did(s.SetValue(x, Id("gain"), Data(), nullptr)));
  EXPECT_EQ(StampsOf(s, "<x", "gain"), erased);

  // Without `direct` a write needs no open modification and leaves the
  // value's stamps to the caller.
  const Ref<NodeSystem> done = Finish(m);
  NodeSystemImpl& fs = Impl(done);
  const uint64_t attributeStamp = fs._attributeStamp;
  EXPECT_TRUE(Did(fs.SetValue(fs.FindByPath(P("<x")), Id("late"), Data(true), nullptr, false)));
  EXPECT_TRUE(Same(Read(fs, "<x", "late"), Data(true)));
  EXPECT_EQ(OwnAttribute(fs, "<x", "late")->stamp, 0u);
  EXPECT_EQ(fs._attributeStamp, attributeStamp);
}

// The chain follows what such writes return and read; here the value's stamp.
TEST(AttributeStamps, ADerivedSystemStoresTheBasesValueWhenItIsSetThere) {
  MutableRoot m = OpenEmpty();
  const GNode x = AddPort(*m._system, "<", "x");
  ASSERT_TRUE(Did(m._system->SetValue(x, Id("label"), Data("same"), nullptr)));
  MutableRoot d = OpenDerived(Finish(m));
  NodeSystemImpl& s = Impl(d._system);
  const GNode dx = s.FindByPath(P("<x"));
  EXPECT_EQ(s.GetValueStamp(dx, Id("label")).Value(), s._completeStamp);
  EXPECT_TRUE(Did(s.SetValue(dx, Id("label"), Data("same"), nullptr)));
  EXPECT_EQ(s.GetValueStamp(dx, Id("label")).Value(), s.GetModificationStamp());
  ASSERT_NE(OwnAttribute(s, "<x", "label"), nullptr);
}

// ---------------------------------------------------------------------------

ASSET_UPDATE_POLICY PolicyOf(const NodeSystem& s, std::string_view path) {
  const NodeRecord* node = s.FindByPath(P(path)).info->AsNode();
  return node->_nestedData ? node->_nestedData->updatePolicy : ASSET_UPDATE_POLICY(-1);
}
const BaseReference* ReferenceOf(const NodeSystem& s, std::string_view path) {
  return s.FindByPath(P(path)).info->AsNode()->_nestedData.Get();
}

TEST(UpdatePolicy, IsStoredInTheNodesBaseReferenceAndCopiedWhenShared) {
  const InternedId policy = Id("net.orvix.node.base.updatepolicy");
  MutableRoot content = OpenEmpty();
  MutableRoot m = OpenEmpty();
  NodeSystem& s = *m._system;
  const GNode n1 = s.AddChild("n1", Finish(content), nullptr).Value();
  EXPECT_TRUE(Did(s.SetValue(n1, policy, Data(int32_t{1}), nullptr)));
  EXPECT_EQ(PolicyOf(s, "n1"), ASSET_UPDATE_POLICY::EXPLICIT);
  EXPECT_FALSE(Did(s.SetValue(n1, policy, Data(int32_t{1}), nullptr)));
  for (const Data& bad : {Data(int32_t{3}), Data(int32_t{-1}), Data(int64_t{0}), Data("0")}) {
    EXPECT_FALSE(s.SetValue(n1, policy, bad, nullptr)) << bad.ToString();
  }
  EXPECT_EQ(PolicyOf(s, "n1"), ASSET_UPDATE_POLICY::EXPLICIT);
  EXPECT_EQ(OwnAttribute(Impl(m._system), "n1", policy.GetString()), nullptr);
  EXPECT_TRUE(Read(s, "n1", policy.GetString()).IsEmpty());
  const Ref<NodeSystem> a = Finish(m);

  // A derived system's record shares the base's reference until it writes.
  MutableRoot d = OpenDerived(a);
  NodeSystem& ds = *d._system;
  ASSERT_TRUE(Did(ds.SetValue(ds.FindByPath(P("n1")), Id("label"), Data("x"), nullptr)));
  EXPECT_EQ(ReferenceOf(ds, "n1"), ReferenceOf(*a, "n1"));
  EXPECT_TRUE(Did(ds.SetValue(ds.FindByPath(P("n1")), policy, Data(int32_t{0}), nullptr)));
  EXPECT_EQ(PolicyOf(ds, "n1"), ASSET_UPDATE_POLICY::NEVER);
  EXPECT_EQ(PolicyOf(*a, "n1"), ASSET_UPDATE_POLICY::EXPLICIT);

  // So does a copy, whose record comes up from the shared layer.
  Ref<NodeSystem> copy = a;
  MutableRoot c = BeginModification(copy, false).Value();
  ASSERT_NE(c._system.Get(), a.Get());
  NodeSystem& cs = *c._system;
  EXPECT_TRUE(Did(cs.SetValue(cs.FindByPath(P("n1")), policy, Data(int32_t{2}), nullptr)));
  EXPECT_EQ(PolicyOf(cs, "n1"), ASSET_UPDATE_POLICY::IMPLICIT);
  EXPECT_EQ(PolicyOf(*a, "n1"), ASSET_UPDATE_POLICY::EXPLICIT);
}

// ---------------------------------------------------------------------------

enum class Op { SET, ERASE, RESET, TOUCH, PART, WHOLE };

std::string Apply(NodeSystem& s, Op op, const GNode& node, InternedId id, const Data& value) {
  const std::vector<Data> key{Data(int64_t{0})};
  switch (op) {
    case Op::SET:
      return Message(s.SetValue(node, id, value, nullptr));
    case Op::ERASE:
      return Message(s.EraseValue(node, id, nullptr));
    case Op::RESET:
      return Message(s.ResetValue(node, id, nullptr));
    case Op::TOUCH:
      return Message(s.TouchValue(node, id, nullptr));
    case Op::PART:
      return Message(s.SetSubData(node, id, GetSubDataAccessor(), key, value, nullptr));
    case Op::WHOLE:
      return Message(s.SetSubData(node, id, GetWholeValueAccessor(), {}, value, nullptr));
  }
  return "?";
}

// A system under modification: the port <x, and the node n1 whose content
// has the port <a.
MutableRoot MakeGraph() {
  MutableRoot content = OpenEmpty();
  AddPort(*content._system, "<", "a");
  MutableRoot m = OpenEmpty();
  AddPort(*m._system, "<", "x");
  EXPECT_TRUE(m._system->AddChild("n1", Finish(content), nullptr));
  return m;
}

// Runs `write` as attribute derivation runs its writes.
template <typename F>
auto WhileDeriving(NodeSystemImpl& s, F write) {
  AttributeSetup setup;
  s._attribSetup = &setup;
  auto result = write();
  s._attribSetup = nullptr;
  return result;
}

TEST(AttributeMessages, EachRefusalSaysWhy) {
  const std::string readOnly = "Attribute isshortcutstop is read-only.";
  const std::string notANode =
      "Illegal argument: Condition p.GetKind() == NODE_KIND::NODE not fulfilled. ";
  const char* policy = "net.orvix.node.base.updatepolicy";
  const struct {
    Op op;
    const char* path;
    const char* id;
    Data value;
    std::string message;
  } cases[] = {
      {Op::SET, "<x", "isshortcutstop", Data(true), readOnly},
      {Op::SET, "", "isshortcutstop", Data(), readOnly},
      {Op::ERASE, "n1", "isshortcutstop", Data(), readOnly},
      {Op::TOUCH, "n1<a", "isshortcutstop", Data(), readOnly},
      {Op::PART, "<x", "isshortcutstop", Data(true), readOnly},
      {Op::WHOLE, "<", "isshortcutstop", Data(true), readOnly},
      {Op::TOUCH, "n1<a", "label", Data(), "There is no value for attribute label at n1<a."},
      {Op::SET, "<x", policy, Data(int32_t{0}), notANode},
      {Op::SET, "n1<a", policy, Data(int32_t{0}), notANode},
  };
  for (const auto& c : cases) {
    MutableRoot m = MakeGraph();
    EXPECT_EQ(Apply(*m._system, c.op, m._system->FindByPath(P(c.path)), Id(c.id), c.value),
              c.message)
        << int(c.op) << " of " << c.id << " at '" << c.path << "'";
  }

  MutableRoot m = MakeGraph();
  NodeSystemImpl& s = Impl(m._system);
  const GNode x = s.FindByPath(P("<x"));
  ASSERT_TRUE(Did(s.SetValue(x, Id("label"), Data(int64_t{1}), nullptr)));
  ASSERT_TRUE(Did(s.EraseValue(x, Id("label"), nullptr)));
  EXPECT_EQ(Apply(s, Op::TOUCH, x, Id("label"), Data()),
            "There is no value for attribute label at <x.");
  // Derivation may not touch, and a direct write may not overwrite what
  // derivation wrote.
  ASSERT_TRUE(Did(s.SetValue(x, Id("gain"), Data(int64_t{1}), nullptr)));
  EXPECT_EQ(WhileDeriving(s, [&] { return Apply(s, Op::TOUCH, x, Id("gain"), Data()); }),
            "TouchValue must not be called for a derived attribute.");
  ASSERT_TRUE(WhileDeriving(s, [&] { return Did(s.SetValue(x, Id("type"), Data(1.5), nullptr)); }));
  EXPECT_EQ(Apply(s, Op::SET, x, Id("type"), Data(2.5)),
            "Assertion failed: Condition !(d && d->IsDerived()) not fulfilled. ");

  for (const Op op : {Op::SET, Op::ERASE, Op::RESET, Op::TOUCH, Op::PART}) {
    MutableRoot done = MakeGraph();
    const GNode port = done._system->FindByPath(P("<x"));
    ASSERT_TRUE(
        Did(done._system->SetValue(port, Id("list"), Data(DataArray{Data(false)}), nullptr)));
    ASSERT_TRUE(done.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
    EXPECT_EQ(Apply(*done._system, op, port, Id("list"), Data(true)),
              "Node system modification not within BeginModification()/EndModification().")
        << int(op);
  }
}

// ---------------------------------------------------------------------------

TEST(SubData, APartIsWrittenThroughTheAccessorAndTheWholeValueThroughSetValue) {
  MutableRoot m = OpenEmpty();
  NodeSystemImpl& s = Impl(m._system);
  const GNode x = AddPort(s, "<", "x");
  const Data list(DataArray{Data(int64_t{1}), Data(int64_t{2})});
  const Data dict(DataDictionary{{Data("a"), Data(int64_t{1})}});
  ASSERT_TRUE(Did(s.SetValue(x, Id("list"), list, nullptr)));
  ASSERT_TRUE(Did(s.SetValue(x, Id("dict"), dict, nullptr)));
  const std::vector<Data> index{Data(int64_t{1})}, name{Data("b")}, far{Data(int64_t{9})};

  const Data* before = s.GetValue(x, Id("list")).Value();
  ASSERT_TRUE(s.SetSubData(x, Id("list"), GetSubDataAccessor(), index, Data(int64_t{20}), nullptr));
  EXPECT_EQ(OwnAttribute(s, "<x", "list")->stamp, s.GetModificationStamp());
  const Data changed(DataArray{Data(int64_t{1}), Data(int64_t{20})});
  EXPECT_TRUE(Same(Read(s, "<x", "list"), changed));
  EXPECT_TRUE(Same(*before, list));
  ASSERT_TRUE(s.SetSubData(x, Id("dict"), GetSubDataAccessor(), name, Data("new"), nullptr));
  EXPECT_TRUE(Same(Read(s, "<x", "dict"),
                   Data(DataDictionary{{Data("a"), Data(int64_t{1})}, {Data("b"), Data("new")}})));

  // Setting a part to what it holds is no change; a part that isn't there
  // fails and leaves the value.
  const Stamps stamps = StampsOf(s, "<x", "dict");
  ASSERT_TRUE(s.SetSubData(x, Id("dict"), GetSubDataAccessor(), name, Data("new"), nullptr));
  EXPECT_EQ(StampsOf(s, "<x", "dict").record, stamps.record);
  EXPECT_EQ(StampsOf(s, "<x", "dict").attribute, stamps.attribute);
  EXPECT_FALSE(s.SetSubData(x, Id("list"), GetSubDataAccessor(), far, Data(int64_t{0}), nullptr));
  EXPECT_TRUE(Same(Read(s, "<x", "list"), changed));

  // The whole-value accessor without keys is a plain write.
  ASSERT_TRUE(s.SetSubData(x, Id("list"), GetWholeValueAccessor(), {}, Data("whole"), nullptr));
  EXPECT_TRUE(Same(Read(s, "<x", "list"), Data("whole")));

  // A derived system writes the part into the element's own record, which
  // starts empty: a value that only the base holds has no part to set, and
  // the failed write leaves no record behind.
  const Ref<NodeSystem> base = Finish(m);
  MutableRoot d = OpenDerived(base);
  NodeSystemImpl& ds = Impl(d._system);
  EXPECT_FALSE(ds.SetSubData(ds.FindByPath(P("<x")), Id("dict"), GetSubDataAccessor(), name,
                             Data("derived"), nullptr));
  EXPECT_EQ(OwnAttribute(ds, "<x", "dict"), nullptr);
  EXPECT_TRUE(Same(Read(ds, "<x", "dict"), Read(*base, "<x", "dict")));
}

}  // namespace
}  // namespace orvix::nodes
