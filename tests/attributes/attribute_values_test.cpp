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

#include "must.h"
#include "node_system_probe.h"
#include "orvix/host/data_accessor.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"
#include "validation/validation_stages.h"

namespace orvix::nodes {
namespace {

NodePath P(std::string_view text) {
  return Must(NodePath::Parse(text));
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
  return Must(Must(CreateDefaultNodeSystemClass())->CreateNodeSystem());
}
MutableRoot OpenDerived(const Ref<NodeSystem>& base) {
  Ref<NodeSystem> derived = Must(NodeSystemImpl::CreateDerived(Ref<NodeSystemImpl>(&Impl(base))));
  return Must(BeginModification(derived, false));
}
// Ends the modification; the caller then holds the system alone, as a client would.
Ref<NodeSystem> Finish(MutableRoot& root) {
  Result<Ref<NodeSystem>> done = root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  EXPECT_TRUE(done) << Message(done);
  if (!done) return {};
  EXPECT_TRUE(NodeSystemTestProbe::Attributes(Impl(*done))._retiredTables.empty());
  EXPECT_TRUE((*done)->IsFinalized());
  return *done;
}
GNode AddPort(NodeSystem& s, std::string_view parent, std::string_view id,
              GNODE_FLAGS flags = GNODE_FLAGS::NONE) {
  Result<GNode> port = s.AddPort(s.FindByPath(P(parent)), id, flags, nullptr);
  EXPECT_TRUE(port) << Message(port);
  return port ? *port : GNode();
}
Result<bool> Set(NodeSystem& s, std::string_view path, std::string_view id, const Data& value) {
  return s.SetValue(s.FindByPath(P(path)), Id(id), value, nullptr);
}
const Data& Read(const NodeSystem& s, std::string_view path, std::string_view id) {
  return *Must(s.GetValue(s.FindByPath(P(path)), Id(id)));
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

struct Stamps {
  uint64_t modification, value, record, element, attribute;
  bool operator==(const Stamps&) const = default;
};
Stamps StampsOf(const NodeSystemImpl& s, std::string_view path, std::string_view id) {
  const AttributeRecord* own = OwnAttribute(s, path, id);
  const GNode node = s.FindByPath(P(path));
  return {s.GetModificationStamp(), Must(s.GetValueStamp(node, Id(id))), own ? own->stamp : 0,
          node.info->_directAttributeStamp, NodeSystemTestProbe::Stamps(s)._attributeStamp};
}

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
constexpr std::string_view kTrueByDefault[] = {
    "inheritnestedports",       "synthesizenestedports",
    "inheritnestedportssource", "synthesizenestedportssource",
    "inheritportsource",        "synthesizeportsource",
    "synthesizetypesource",     "synthesizevalue",
    "inheritinterface",         "stickyporttypetemplateparameter"};
// The ids that each check reads: those written, the read-only one, one never
// written, and those that are true by default.
const std::vector<std::string>& CheckedIds() {
  static const std::vector<std::string> ids = [] {
    std::vector<std::string> all = kIds;
    all.insert(all.end(), {"isshortcutstop", "net.orvix.node.other"});
    for (std::string_view t : kTrueByDefault) {
      if (std::find(all.begin(), all.end(), t) == all.end()) all.emplace_back(t);
    }
    return all;
  }();
  return ids;
}

// A record of an id on the way of a read: the value or tombstone, the parts of
// the read's path that its level's path lacks, and whether it is the element's
// own record in the system read. A base's or a content's record that the
// handle resolves to is not the element's own, however the handle got there:
// counted as own once, its prefix of -1 made readers that add the prefix to
// the paths in the value get them wrong. The reads of elements that a derived
// system or n1 holds no record of catch that.
struct Found {
  std::optional<Data> value;
  int64_t prefix;
  bool own;
  int64_t Prefix(bool ownOnly) const { return ownOnly && own ? -1 : prefix; }
};

// The read of `e` at level `top` (0 is n1's content): each level on the way,
// nearest first, with the element's path there.
struct Reading {
  std::string path;
  std::vector<std::pair<const Stored*, std::string>> links;
  Reading(const std::vector<Stored>& levels, const Element& e, int top)
      : path(top == 0 ? *e.inner : e.path) {
    for (int l = top; l >= 1; --l) links.emplace_back(&levels[l], e.path);
    if (e.inner) links.emplace_back(&levels[0], *e.inner);
  }
  std::vector<Found> Find(const std::string& id) const {
    std::vector<Found> found;
    for (const auto& [level, at] : links) {
      const auto element = level->find(at);
      if (element == level->end() || !element->second.count(id)) continue;
      found.push_back({element->second.at(id), int64_t(P(path).GetCount() - P(at).GetCount()),
                       &at == &links[0].second});
    }
    return found;
  }
  Data Value(const std::string& id) const {
    if (id == "isshortcutstop") return Data(path == "<t");
    if (const std::vector<Found> found = Find(id); !found.empty()) {
      return found[0].value.value_or(Data());
    }
    if (std::find(std::begin(kTrueByDefault), std::end(kTrueByDefault), id) !=
        std::end(kTrueByDefault)) {
      return Data(true);
    }
    const NODE_KIND kind = P(path).GetKindRaw();
    if (id == "net.orvix.node.ionodes" &&
        HasAny(kind, NODE_KIND::PORTLIST_MASK | NODE_KIND::PORT_MASK)) {
      return IoNodes(HasAny(kind, NODE_KIND::OUT_MASK) ? "out" : "in");
    }
    return Data();
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
    for (const Element& e : kElements) {
      if (top == 0 && !e.inner) continue;
      const Reading r(model, e, top);
      const GNode node = s.FindByPath(P(r.path));
      ASSERT_TRUE(node) << r.path;
      // What GetValues lists, with erased values and without.
      std::map<std::string, std::string> listed[2];
      if (r.path == "<t") listed[0]["isshortcutstop"] = listed[1]["isshortcutstop"] = "true";
      for (const std::string& id : CheckedIds()) {
        SCOPED_TRACE("read of " + id + " at '" + r.path + "'");
        int64_t prefix = 99;
        const Data* value = Must(s.GetValue(node, Id(id), &prefix, false));
        EXPECT_TRUE(Same(*value, r.Value(id)));
        if (NodeSystemTestProbe::IsMutable(s) && value->IsPopulated())
          _handedOut.emplace_back(value, *value);
        if (id == "isshortcutstop") continue;
        const std::vector<Found> found = r.Find(id);
        EXPECT_EQ(prefix, found.empty() ? 0 : found[0].Prefix(false));
        EXPECT_TRUE(s.GetValue(node, Id(id), &prefix, true));
        EXPECT_EQ(prefix, found.empty() ? 0 : found[0].Prefix(true));
        std::vector<std::pair<std::string, int64_t>> seen, want;
        EXPECT_TRUE(s.GetValueWithCallback(node, Id(id), [&](const Data& v, int64_t p) {
          seen.emplace_back(v.ToString(), p);
          return Result<bool>(true);
        }));
        for (const Found& f : found)
          want.emplace_back(f.value.value_or(Data()).ToString(), f.Prefix(true));
        EXPECT_EQ(seen, want);
        if (found.empty()) continue;
        listed[1][id] = found[0].value.value_or(Data()).ToString();
        if (found[0].value) listed[0][id] = listed[1][id];
      }
      for (const bool keepErased : {false, true}) {
        ValueMap map;
        ASSERT_TRUE(s.GetValues(node, VALUES_ALL, map, true, keepErased));
        std::map<std::string, std::string> got;
        for (const auto& [id, value] : map) {
          const std::string text(id.GetString());
          if (std::count(CheckedIds().begin(), CheckedIds().end(), text))
            got[text] = value.ToString();
        }
        EXPECT_EQ(got, listed[keepErased])
            << "values of '" << r.path << "', keepErased " << keepErased;
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
    const std::vector<Found> found = r.Find(id);
    auto& own = levels[top][r.path];
    const bool held = own.count(id) != 0;
    const Stamps before = StampsOf(s, r.path, id);
    const uint32_t op = _rng() % 10;
    SCOPED_TRACE("op " + std::to_string(op) + " of " + id + " at '" + r.path + "'");
    if (op == 9) {
      const Data visible = r.Value(id);
      const Result<void> done = s.TouchValue(node, Id(id), nullptr);
      if (visible.IsEmpty()) {
        EXPECT_EQ(Message(done), "There is no value for attribute " + id + " at " + r.path + ".");
      } else {
        EXPECT_TRUE(done) << Message(done);
        if (!held) own[id] = visible;
      }
      return;
    }
    // A write answers whether it changed anything. One that didn't moves no
    // stamp; a value set is stamped with the modification everywhere.
    bool changes = false, did = false;
    if (op < 5) {
      const Data& value = Values()[_rng() % Values().size()];
      changes = !held || !own[id] || !(*own[id] == value);
      did = Did(s.SetValue(node, Id(id), value, nullptr));
      own[id] = value;
    } else if (op < 7) {
      changes = held;
      did = Did(s.ResetValue(node, Id(id), nullptr));
      own.erase(id);
    } else {
      changes = !found.empty() && found[0].value.has_value();
      did = Did(s.EraseValue(node, Id(id), nullptr));
      if (changes) own[id] = std::nullopt;
    }
    EXPECT_EQ(did, changes);
    const Stamps after = StampsOf(s, r.path, id);
    const uint64_t m = after.modification;
    EXPECT_EQ(after, did ? (op < 5 ? Stamps{m, m, m, m, m} : after) : before);
    // What changed since: the value set, and nothing after a write that changed nothing.
    std::vector<std::string> listed;
    EXPECT_TRUE(s.EnumerateChangedValues(s.FindByPath(P(r.path)), before.modification,
                                         [&](InternedId changed, const Data&) {
                                           listed.emplace_back(changed.GetString());
                                           return Result<bool>(true);
                                         }));
    if (op < 5 || !did) {
      EXPECT_EQ(listed, did ? std::vector<std::string>{id} : std::vector<std::string>{});
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
  MutableRoot again = Must(BeginModification(sc, false));
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

// A value handed out while a modification goes on stays as it read through
// later writes, here ones that grow the table and move its records, until the
// modification ends: the write after a read retires the table rather than
// change or free it. The chain model hands out values at every step.
TEST(HandedOutValues, StayReadableThroughLaterWritesUntilTheModificationEnds) {
  MutableRoot m = OpenEmpty();
  NodeSystemImpl& s = Impl(m._system);
  const GNode x = AddPort(s, "<", "x");
  const std::string long1(200, 'a');
  ASSERT_TRUE(Did(s.SetValue(x, Id("label"), Data(long1), nullptr)));
  // Writes before anything is handed out change the table in place.
  ASSERT_TRUE(Did(s.SetValue(x, Id("gain"), Data(int64_t{1}), nullptr)));
  EXPECT_TRUE(NodeSystemTestProbe::Attributes(s)._retiredTables.empty());

  const Data* first = Must(s.GetValue(x, Id("label")));
  ASSERT_TRUE(Did(s.SetValue(x, Id("label"), Data(std::string(300, 'b')), nullptr)));
  for (int i = 0; i < 64; ++i) {
    ASSERT_TRUE(Did(s.SetValue(x, Id("v" + std::to_string(i)), Data(int64_t{i}), nullptr)));
  }
  EXPECT_EQ(NodeSystemTestProbe::Attributes(s)._retiredTables.size(), 1u);
  EXPECT_TRUE(Same(*first, Data(long1)));

  // A value read from a base isn't this system's to protect: the write goes
  // to the derived system's own record and retires nothing.
  MutableRoot d = OpenDerived(Finish(m));
  NodeSystemImpl& ds = Impl(d._system);
  const Data* fromBase = &Read(ds, "<x", "v5");
  ASSERT_TRUE(Did(Set(ds, "<x", "v5", Data("own"))));
  EXPECT_TRUE(NodeSystemTestProbe::Attributes(ds)._retiredTables.empty());
  EXPECT_TRUE(Same(*fromBase, Data(int64_t{5})));
  EXPECT_TRUE(Same(Read(ds, "<x", "v5"), Data("own")));
}

// ---------------------------------------------------------------------------

// Without `direct` a write needs no open modification and leaves the stamps
// to the caller. A value that only a base holds carries the stamp of the
// whole base; a derived system that sets it stores it, stamped anew.
TEST(AttributeStamps, AWriteWithoutDirectAndTheStampOfABasesValue) {
  MutableRoot m = OpenEmpty();
  AddPort(*m._system, "<", "x");
  const Ref<NodeSystem> done = Finish(m);
  NodeSystemImpl& s = Impl(done);
  const uint64_t attributeStamp = NodeSystemTestProbe::Stamps(s)._attributeStamp;
  EXPECT_TRUE(Did(s.SetValue(s.FindByPath(P("<x")), Id("late"), Data(true), nullptr, false)));
  EXPECT_TRUE(Same(Read(s, "<x", "late"), Data(true)));
  EXPECT_EQ(OwnAttribute(s, "<x", "late")->stamp, 0u);
  EXPECT_EQ(NodeSystemTestProbe::Stamps(s)._attributeStamp, attributeStamp);

  MutableRoot d = OpenDerived(done);
  NodeSystemImpl& ds = Impl(d._system);
  EXPECT_EQ(StampsOf(ds, "<x", "late").value, NodeSystemTestProbe::Stamps(ds)._completeStamp);
  EXPECT_TRUE(Did(Set(ds, "<x", "late", Data(true))));
  EXPECT_EQ(StampsOf(ds, "<x", "late").value, ds.GetModificationStamp());
}

// ---------------------------------------------------------------------------

TEST(UpdatePolicy, IsStoredInTheNodesBaseReferenceAndCopiedWhenShared) {
  const char* policy = "net.orvix.node.base.updatepolicy";
  auto policyOf = [](const NodeSystem& s) {
    const Ref<BaseReference>& reference = s.FindByPath(P("n1")).info->AsNode()->_nestedData;
    return reference ? reference->updatePolicy : ASSET_UPDATE_POLICY(-1);
  };
  MutableRoot content = OpenEmpty();
  MutableRoot m = OpenEmpty();
  NodeSystem& s = *m._system;
  ASSERT_TRUE(s.AddChild("n1", Finish(content), nullptr));
  EXPECT_TRUE(Did(Set(s, "n1", policy, Data(int32_t{1}))));
  EXPECT_EQ(policyOf(s), ASSET_UPDATE_POLICY::EXPLICIT);
  EXPECT_FALSE(Did(Set(s, "n1", policy, Data(int32_t{1}))));
  // Not stored as a value, and read as none.
  EXPECT_EQ(OwnAttribute(Impl(m._system), "n1", policy), nullptr);
  EXPECT_TRUE(Read(s, "n1", policy).IsEmpty());
  const Ref<NodeSystem> a = Finish(m);

  // A derived system's record shares the base's reference until it writes.
  MutableRoot d = OpenDerived(a);
  NodeSystem& ds = *d._system;
  ASSERT_TRUE(Did(Set(ds, "n1", "label", Data("x"))));
  EXPECT_EQ(ds.FindByPath(P("n1")).info->AsNode()->_nestedData.Get(),
            a->FindByPath(P("n1")).info->AsNode()->_nestedData.Get());
  EXPECT_TRUE(Did(Set(ds, "n1", policy, Data(int32_t{0}))));
  EXPECT_EQ(policyOf(ds), ASSET_UPDATE_POLICY::NEVER);
  EXPECT_EQ(policyOf(*a), ASSET_UPDATE_POLICY::EXPLICIT);

  // So does a copy, whose record comes up from the shared layer.
  Ref<NodeSystem> copy = a;
  MutableRoot c = Must(BeginModification(copy, false));
  ASSERT_NE(c._system.Get(), a.Get());
  EXPECT_TRUE(Did(Set(*c._system, "n1", policy, Data(int32_t{2}))));
  EXPECT_EQ(policyOf(*c._system), ASSET_UPDATE_POLICY::IMPLICIT);
  EXPECT_EQ(policyOf(*a), ASSET_UPDATE_POLICY::EXPLICIT);
}

// ---------------------------------------------------------------------------

enum class Op { SET, ERASE, RESET, TOUCH, PART, WHOLE };

std::string Apply(NodeSystem& s, Op op, std::string_view path, std::string_view id,
                  const Data& value = Data(true)) {
  const GNode node = s.FindByPath(P(path));
  const Data first(int64_t{0});
  switch (op) {
    case Op::SET:
      return Message(s.SetValue(node, Id(id), value, nullptr));
    case Op::ERASE:
      return Message(s.EraseValue(node, Id(id), nullptr));
    case Op::RESET:
      return Message(s.ResetValue(node, Id(id), nullptr));
    case Op::TOUCH:
      return Message(s.TouchValue(node, Id(id), nullptr));
    case Op::PART:
      return Message(
          s.SetSubData(node, Id(id), GetSubDataAccessor(), std::span(&first, 1), value, nullptr));
    case Op::WHOLE:
      return Message(s.SetSubData(node, Id(id), GetWholeValueAccessor(), {}, value, nullptr));
  }
  return "?";
}

// A system under modification: the port <x, with a label that is erased and a
// gain, and the node n1 whose content has the port <a.
MutableRoot MakeGraph() {
  MutableRoot content = OpenEmpty();
  AddPort(*content._system, "<", "a");
  MutableRoot m = OpenEmpty();
  AddPort(*m._system, "<", "x");
  EXPECT_TRUE(Did(Set(*m._system, "<x", "label", Data(int64_t{1}))));
  EXPECT_TRUE(Did(m._system->EraseValue(m._system->FindByPath(P("<x")), Id("label"), nullptr)));
  EXPECT_TRUE(Did(Set(*m._system, "<x", "gain", Data(int64_t{1}))));
  EXPECT_TRUE(m._system->AddChild("n1", Finish(content), nullptr));
  return m;
}

TEST(AttributeMessages, EachRefusalSaysWhy) {
  const std::string readOnly = "Attribute isshortcutstop is read-only.";
  const std::string notANode =
      "Illegal argument: Condition p.GetKind() == NODE_KIND::NODE not fulfilled. ";
  const std::string notAPolicy =
      "Illegal argument: Condition value is an ASSET_UPDATE_POLICY not fulfilled. ";
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
      {Op::TOUCH, "<x", "label", Data(), "There is no value for attribute label at <x."},
      {Op::SET, "<x", policy, Data(int32_t{0}), notANode},
      {Op::SET, "n1<a", policy, Data(int32_t{0}), notANode},
      {Op::SET, "n1", policy, Data(int32_t{3}), notAPolicy},
      {Op::SET, "n1", policy, Data(int32_t{-1}), notAPolicy},
      {Op::SET, "n1", policy, Data(int64_t{0}), notAPolicy},
      {Op::SET, "n1", policy, Data("0"), notAPolicy},
  };
  for (const auto& c : cases) {
    MutableRoot m = MakeGraph();
    EXPECT_EQ(Apply(*m._system, c.op, c.path, c.id, c.value), c.message)
        << int(c.op) << " of " << c.id << " at '" << c.path << "'";
  }

  // Derivation may not touch, and a direct write may not overwrite what
  // derivation wrote.
  MutableRoot m = MakeGraph();
  NodeSystemImpl& s = Impl(m._system);
  AttributeSetup setup;
  NodeSystemTestProbe::SetAttributeSetup(s, &setup);
  EXPECT_EQ(Apply(s, Op::TOUCH, "<x", "gain"),
            "TouchValue must not be called for a derived attribute.");
  EXPECT_EQ(Apply(s, Op::SET, "<x", "type", Data(1.5)), "(ok)");
  NodeSystemTestProbe::SetAttributeSetup(s, nullptr);
  EXPECT_EQ(Apply(s, Op::SET, "<x", "type", Data(2.5)),
            "Assertion failed: Condition !(d && d->IsDerived()) not fulfilled. ");

  // The end hands the system over; holding it keeps `s` alive.
  const Ref<NodeSystem> done = m.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).ValueOr(nullptr);
  ASSERT_TRUE(done);
  for (const Op op : {Op::SET, Op::ERASE, Op::RESET, Op::TOUCH, Op::PART}) {
    EXPECT_EQ(Apply(s, op, "<x", "gain"),
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
  ASSERT_TRUE(Did(s.SetValue(x, Id("list"), list, nullptr)));
  auto part = [](NodeSystem& in, int64_t index, const Data& value) {
    const Data key(index);
    return Message(in.SetSubData(in.FindByPath(P("<x")), Id("list"), GetSubDataAccessor(),
                                 std::span(&key, 1), value, nullptr));
  };

  const Data* before = Must(s.GetValue(x, Id("list")));
  ASSERT_EQ(part(s, 1, Data(int64_t{20})), "(ok)");
  EXPECT_EQ(OwnAttribute(s, "<x", "list")->stamp, s.GetModificationStamp());
  const Data changed(DataArray{Data(int64_t{1}), Data(int64_t{20})});
  EXPECT_TRUE(Same(Read(s, "<x", "list"), changed));
  EXPECT_TRUE(Same(*before, list));
  // Setting a part to what it holds is no change of the value's stamps; a
  // part that isn't there fails and leaves the value.
  const Stamps stamps = StampsOf(s, "<x", "list");
  ASSERT_EQ(part(s, 1, Data(int64_t{20})), "(ok)");
  EXPECT_EQ(StampsOf(s, "<x", "list").record, stamps.record);
  EXPECT_EQ(StampsOf(s, "<x", "list").attribute, stamps.attribute);
  EXPECT_NE(part(s, 9, Data(int64_t{0})), "(ok)");
  EXPECT_TRUE(Same(Read(s, "<x", "list"), changed));

  // The whole-value accessor without keys is a plain write.
  ASSERT_TRUE(s.SetSubData(x, Id("label"), GetWholeValueAccessor(), {}, Data("whole"), nullptr));
  EXPECT_TRUE(Same(Read(s, "<x", "label"), Data("whole")));

  // A derived system writes the part into the element's own record, which
  // starts empty: a value that only the base holds has no part to set, and
  // the failed write leaves no record behind.
  const Ref<NodeSystem> base = Finish(m);
  MutableRoot d = OpenDerived(base);
  EXPECT_NE(part(*d._system, 0, Data(int64_t{7})), "(ok)");
  EXPECT_EQ(OwnAttribute(Impl(d._system), "<x", "list"), nullptr);
  EXPECT_TRUE(Same(Read(*d._system, "<x", "list"), changed));
}

}  // namespace
}  // namespace orvix::nodes
