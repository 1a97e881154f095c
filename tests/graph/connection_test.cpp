#include "orvix/graph/connection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "must.h"
#include "orvix/host/format.h"

namespace orvix {
namespace {

using KIND = CONNECTION_ATTRIBUTE_KIND;
using Element = ConnectionAttributes::Element;

NodePath P(std::string_view text) {
  return Must(NodePath::Parse(text));
}

ConnectionAttributeKey Key(std::string_view id, KIND kind) {
  return ConnectionAttributeKey(InternedId::Get(id), kind);
}

Ref<ConnectionAttributes> Make(std::vector<Element> elements) {
  return Must(ConnectionAttributes::Create(std::move(elements)));
}

// Element by element, in order.
bool Holds(const ConnectionAttributes* a, const std::vector<Element>& expected) {
  return a && std::equal(a->begin(), a->end(), expected.begin(), expected.end(),
                         [](const Element& x, const Element& y) {
                           return x.key == y.key && x.value == y.value;
                         });
}

TEST(ConnectionKey, SelectorsReversalEqualityHashAndText) {
  // The four records of one other end are four entries, and a second parse of the path
  // finds them.
  const NodePath a1 = P("node<in/x"), a2 = P("node<in/x");
  std::unordered_set<ConnectionKey> table;
  for (uint64_t selector = 0; selector < 4; ++selector) {
    const ConnectionKey key{a1, selector};
    EXPECT_EQ(ConnectionKey::MakeSelector(key.GetType(), key.GetDirection()), selector);
    EXPECT_EQ(key.IsOtherTarget(), (selector & 1) != 0);
    EXPECT_EQ(key.Reversed(P(">out")), (ConnectionKey{P(">out"), selector ^ 1}));
    table.insert(key);
  }
  for (uint64_t s = 0; s < 4; ++s) EXPECT_TRUE(table.contains(ConnectionKey{a2, s}));
  EXPECT_EQ(table.size(), 4u);
  EXPECT_FALSE(table.contains(ConnectionKey{P("node>in/x"), 1}));
  EXPECT_EQ(FormatMessage("@; @", ConnectionKey{P("n>out"), 1}, ConnectionKey{P("<in"), 2}),
            "target n>out; source <in (SHORTCUT)");

  // The mix terms were worked out by hand from the formula, not by the code.
  const std::pair<uint64_t, uint64_t> mixes[] = {{0x123456789abcdef0ULL, 0x133249b77d953f11ULL},
                                                 {0xffffffffffffffffULL, 0xf1f0ef1f0e0f10e0ULL}};
  for (const auto& [selector, mix] : mixes) {
    const ConnectionKey key{a1, selector};
    EXPECT_EQ(ConnectionKey::MixSelector(selector), mix) << std::hex << selector;
    EXPECT_EQ(std::hash<ConnectionKey>()(key), a1.GetHashCode() * 0xbf58476d1ce4e5b9ULL + mix + 1);
  }
}

TEST(ConnectionAttributeKey, WordRoundTripAndBadArguments) {
  std::unordered_set<ConnectionAttributeKey> seen;
  for (InternedId id : {InternedId::Get("net.orvix.node.ionodes"), InternedId::Get("a")}) {
    for (uint32_t kind = 0; kind < 3; ++kind) {
      const ConnectionAttributeKey key = Must(ConnectionAttributeKey::Create(id, kind));
      EXPECT_EQ(key.GetId(), id);
      EXPECT_EQ(uint32_t(key.GetKind()), kind);
      EXPECT_EQ(ConnectionAttributeKey::FromWord(key.GetWord()), key);
      EXPECT_TRUE(seen.insert(key).second) << key.ToString();
    }
  }
  EXPECT_TRUE(ConnectionAttributeKey().IsNull());
  EXPECT_EQ(ConnectionAttributeKey::Create(InternedId::Get("a"), 3).GetError().GetMessage(),
            "Illegal argument: Condition kind <= 2 not fulfilled. ");
  EXPECT_EQ(ConnectionAttributeKey::Create(InternedId(), 1).GetError().GetMessage(),
            "Illegal argument: Condition id.IsPopulated() not fulfilled. ");
}

TEST(ConnectionAttributes, LookupWalkTextAndDroppingOneEnd) {
  const std::vector<Element> elements = {{Key("x", KIND::SOURCE), Data(int64_t(1))},
                                         {Key("x", KIND::TARGET), Data(int64_t(2))},
                                         {Key("y", KIND::CONNECTION), Data("text")},
                                         {Key("z", KIND::SOURCE), Data(int64_t(3))}};
  const auto a = Make(elements);
  EXPECT_EQ(*a->Find(InternedId::Get("x"), KIND::TARGET), Data(int64_t(2)));
  EXPECT_EQ(a->Find(Key("x", KIND::CONNECTION)), nullptr);
  EXPECT_EQ(a->ToString(), "{source:x=1, target:x=2, connection:y=\"text\", source:z=3}");
  std::string walk;
  EXPECT_FALSE(a->ForEach([&](KIND kind, InternedId id, const Data& v) {
    walk += FormatMessage("@@@;", uint32_t(kind), id, v);
    return kind != KIND::TARGET;
  }));
  EXPECT_EQ(walk, "0x1;2x2;");

  EXPECT_TRUE(Holds(Must(ConnectionAttributes::WithoutKind(a.Get(), KIND::SOURCE)).Get(),
                    {elements[1], elements[2]}));
  EXPECT_TRUE(Holds(a.Get(), elements));
  EXPECT_TRUE(Must(ConnectionAttributes::WithoutKind(nullptr, KIND::TARGET))->IsEmpty());
}

TEST(ConnectionAttributes, EqualityIsOfElementSets) {
  std::mt19937_64 rng(77);
  for (int round = 0; round < 200; ++round) {
    std::vector<Element> elements;
    for (int i = 0, n = 1 + int(rng() % 6); i < n; ++i)
      elements.push_back({Key("k" + std::to_string(i), KIND(rng() % 3)), Data(int64_t(rng() % 4))});
    std::vector<Element> other = elements;
    std::shuffle(other.begin(), other.end(), rng);
    const auto a = Make(elements);
    EXPECT_TRUE(ConnectionAttributes::Equal(a.Get(), Make(other).Get()));

    // One value changed, one key's kind changed, or one element dropped.
    const size_t at = rng() % other.size();
    if (round % 3 == 0) {
      other[at].value = Data(int64_t(100));
    } else if (round % 3 == 1) {
      other[at].key =
          Key(other[at].key.GetId().GetString(), KIND((uint32_t(other[at].key.GetKind()) + 1) % 3));
    } else {
      other.erase(other.begin() + ptrdiff_t(at));
    }
    const auto c = Make(other);
    EXPECT_FALSE(a->Equals(*c)) << a->ToString() << " " << c->ToString();
    EXPECT_FALSE(c->Equals(*a)) << a->ToString() << " " << c->ToString();
  }
  // Equal values of different types are different values.
  EXPECT_FALSE(Make({{Key("k", KIND::SOURCE), Data(int64_t(1))}})
                   ->Equals(*Make({{Key("k", KIND::SOURCE), Data(1)}})));
}

TEST(ConnectionAttributes, CopyBeforeWriteLeavesEveryEarlierArrayAlone) {
  // A random walk of sets and removals on a few keys. Each step yields a new
  // array; the arrays of all earlier steps stay shared with "other ends" and
  // must keep exactly what they held.
  std::mt19937_64 rng(2024);
  const ConnectionAttributeKey keys[] = {Key("a", KIND::SOURCE), Key("a", KIND::TARGET),
                                         Key("b", KIND::CONNECTION), Key("c", KIND::SOURCE),
                                         Key("d", KIND::TARGET)};
  std::vector<std::pair<Ref<ConnectionAttributes>, std::vector<Element>>> history;
  Ref<ConnectionAttributes> current;  // starts as null: no attributes yet
  std::vector<Element> model;
  for (int step = 0; step < 400; ++step) {
    const ConnectionAttributeKey key = keys[rng() % std::size(keys)];
    const uint64_t op = rng() % 4;
    // An empty value removes, as the setter of a connection value does.
    const Data value = op < 2 ? Data() : Data(int64_t(rng() % 5));
    Result<Ref<ConnectionAttributes>> next =
        op == 0 ? ConnectionAttributes::WithoutValue(current.Get(), key)
                : ConnectionAttributes::WithValue(current.Get(), key, value);
    auto it =
        std::find_if(model.begin(), model.end(), [&](const Element& e) { return e.key == key; });
    if (it != model.end() && op < 2) {
      model.erase(it);
    } else if (it != model.end()) {
      it->value = value;  // keeps its place
    } else if (op >= 2) {
      model.push_back({key, value});
    }
    ASSERT_TRUE(next);
    ASSERT_NE(next->Get(), current.Get());
    if (current)
      history.emplace_back(current, std::vector<Element>(current->begin(), current->end()));
    current = Must(std::move(next));
    ASSERT_TRUE(Holds(current.Get(), model)) << current->ToString();
  }
  for (const auto& [array, held] : history) ASSERT_TRUE(Holds(array.Get(), held));
}

TEST(ConnectionData, EqualityAndEmptiness) {
  const auto ab = Make(
      {{Key("a", KIND::SOURCE), Data(int64_t(1))}, {Key("b", KIND::TARGET), Data(int64_t(2))}});
  const auto ba = Make(
      {{Key("b", KIND::TARGET), Data(int64_t(2))}, {Key("a", KIND::SOURCE), Data(int64_t(1))}});
  const ConnectionData d1{Wires(0x101010), ab};
  EXPECT_EQ(d1, (ConnectionData{Wires(0x101010), ba}));
  EXPECT_NE(d1, (ConnectionData{Wires(0x100010), ab}));
  EXPECT_NE((ConnectionData{Wires(0x101010), nullptr}), d1);
  // A null array holds the empty set.
  EXPECT_EQ((ConnectionData{Wires(0x10), Make({})}), (ConnectionData{Wires(0x10), nullptr}));
  EXPECT_TRUE((ConnectionData{Wires(), Make({})}).IsEmpty());
  EXPECT_FALSE((ConnectionData{Wires(), ab}).IsEmpty());
  EXPECT_EQ(d1.ToString(),
            "(NORMAL,NORMAL,NORMAL,NONE,NONE,NONE,NONE,NONE) {source:a=1, target:b=2}");
}

}  // namespace
}  // namespace orvix
