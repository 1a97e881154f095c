#include "orvix/graph/connection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "orvix/host/format.h"

namespace orvix {
namespace {

NodePath P(std::string_view text) {
  return NodePath::Parse(text).Value();
}

constexpr uint64_t HASH_FACTOR = 0xbf58476d1ce4e5b9ULL;

// ---------------------------------------------------------------------------
// ConnectionKey

TEST(ConnectionKey, SelectorsAndTheReversedRecord) {
  EXPECT_EQ(ConnectionKey::MakeSelector(CONNECTION_TYPE::SHORTCUT, CONNECTION_DIRECTION::TARGET),
            3u);
  for (uint64_t selector = 0; selector < 4; ++selector) {
    const ConnectionKey key{P("n<in"), selector};
    EXPECT_EQ(ConnectionKey::MakeSelector(key.GetType(), key.GetDirection()), selector);
    EXPECT_EQ(key.IsOtherTarget(), (selector & 1) != 0);
    const ConnectionKey back = key.Reversed(P(">out"));
    EXPECT_EQ(back.selector, selector ^ 1);
    EXPECT_EQ(back.other, P(">out"));
  }
}

TEST(ConnectionKey, HashFollowsTheFormula) {
  // The mix terms were worked out by hand from the formula, not by the code.
  const std::pair<uint64_t, uint64_t> mixes[] = {{0x0, 0x0},
                                                 {0x3, 0x3},
                                                 {0x123456789abcdef0ULL, 0x133249b77d953f11ULL},
                                                 {0xffffffffffffffffULL, 0xf1f0ef1f0e0f10e0ULL}};
  for (const NodePath& path : {NodePath(), P("node/child>out/nested")}) {
    for (const auto& [selector, mix] : mixes) {
      const ConnectionKey key{path, selector};
      EXPECT_EQ(ConnectionKey::MixSelector(selector), mix) << std::hex << selector;
      EXPECT_EQ(key.GetHashCode(), path.GetHashCode() * HASH_FACTOR + mix + 1);
      EXPECT_EQ(std::hash<ConnectionKey>()(key), size_t(key.GetHashCode()));
    }
  }
}

TEST(ConnectionKey, EqualityIsPathAndSelector) {
  const NodePath a1 = P("node<in/x"), a2 = P("node<in/x");
  ASSERT_FALSE(a1.IsSameObject(a2));
  EXPECT_NE((ConnectionKey{a1, 1}), (ConnectionKey{a1, 3}));
  EXPECT_NE((ConnectionKey{a1, 1}), (ConnectionKey{P("node>in/x"), 1}));
  // As a hash-table key: the four records of one other end are four entries,
  // and a second parse of a path finds them.
  std::unordered_set<ConnectionKey> table;
  for (uint64_t s = 0; s < 4; ++s) table.insert(ConnectionKey{a1, s});
  for (uint64_t s = 0; s < 4; ++s) EXPECT_TRUE(table.contains(ConnectionKey{a2, s}));
  EXPECT_EQ(table.size(), 4u);
}

TEST(ConnectionKey, Text) {
  EXPECT_EQ(ConnectionKey::Make(P("n>out"), CONNECTION_TYPE::NORMAL, CONNECTION_DIRECTION::TARGET)
                .ToString(),
            "target n>out");
  EXPECT_EQ(FormatMessage("@", ConnectionKey::Make(P("<in"), CONNECTION_TYPE::SHORTCUT,
                                                   CONNECTION_DIRECTION::SOURCE)),
            "source <in (SHORTCUT)");
}

// ---------------------------------------------------------------------------
// ConnectionAttributeKey

TEST(ConnectionAttributeKey, WordRoundTrip) {
  std::unordered_set<ConnectionAttributeKey> seen;
  for (InternedId id : {InternedId::Get("net.orvix.node.ionodes"), InternedId::Get("a")}) {
    for (uint32_t kind = 0; kind < 3; ++kind) {
      const ConnectionAttributeKey key = ConnectionAttributeKey::Create(id, kind).Value();
      EXPECT_EQ(key.GetId(), id);
      EXPECT_EQ(uint32_t(key.GetKind()), kind);
      EXPECT_EQ(ConnectionAttributeKey::FromWord(key.GetWord()), key);
      EXPECT_TRUE(seen.insert(key).second) << key.ToString();
    }
  }
  EXPECT_EQ(
      ConnectionAttributeKey(InternedId::Get("a"), CONNECTION_ATTRIBUTE_KIND::TARGET).ToString(),
      "target:a");
  EXPECT_TRUE(ConnectionAttributeKey().IsNull());
}

TEST(ConnectionAttributeKey, CreateRejectsBadArguments) {
  const Result<ConnectionAttributeKey> badKind =
      ConnectionAttributeKey::Create(InternedId::Get("a"), 3);
  ASSERT_FALSE(badKind);
  EXPECT_EQ(badKind.GetError().GetClass(), ERROR_CLASS::ILLEGAL_ARGUMENT);
  EXPECT_EQ(badKind.GetError().GetMessage(),
            "Illegal argument: Condition kind <= 2 not fulfilled. ");
  const Result<ConnectionAttributeKey> nullId = ConnectionAttributeKey::Create(InternedId(), 1);
  ASSERT_FALSE(nullId);
  EXPECT_EQ(nullId.GetError().GetMessage(),
            "Illegal argument: Condition id.IsPopulated() not fulfilled. ");
}

// ---------------------------------------------------------------------------
// ConnectionAttributes

using Element = ConnectionAttributes::Element;

ConnectionAttributeKey Key(std::string_view id, CONNECTION_ATTRIBUTE_KIND kind) {
  return ConnectionAttributeKey(InternedId::Get(id), kind);
}

Ref<ConnectionAttributes> Make(std::vector<Element> elements) {
  return ConnectionAttributes::Create(std::move(elements)).Value();
}

std::vector<Element> Copy(const ConnectionAttributes* a) {
  return a ? std::vector<Element>(a->begin(), a->end()) : std::vector<Element>();
}

// Element-by-element, in order.
void ExpectSameArray(const ConnectionAttributes* a, const std::vector<Element>& expected) {
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(a->GetCount(), expected.size()) << a->ToString();
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(a->GetElements()[i].key, expected[i].key) << i;
    EXPECT_EQ(a->GetElements()[i].value, expected[i].value) << i;
  }
}

TEST(ConnectionAttributes, LookupAndWalkInOrder) {
  const auto a = Make({{Key("x", CONNECTION_ATTRIBUTE_KIND::SOURCE), Data(int64_t(1))},
                       {Key("x", CONNECTION_ATTRIBUTE_KIND::TARGET), Data(int64_t(2))},
                       {Key("y", CONNECTION_ATTRIBUTE_KIND::CONNECTION), Data("text")}});
  EXPECT_EQ(*a->Find(Key("x", CONNECTION_ATTRIBUTE_KIND::TARGET)), Data(int64_t(2)));
  EXPECT_EQ(*a->Find(InternedId::Get("x"), CONNECTION_ATTRIBUTE_KIND::SOURCE), Data(int64_t(1)));
  EXPECT_EQ(a->Find(Key("x", CONNECTION_ATTRIBUTE_KIND::CONNECTION)), nullptr);
  EXPECT_EQ(a->ToString(), "{source:x=1, target:x=2, connection:y=\"text\"}");
  std::string walk;
  EXPECT_FALSE(a->ForEach([&](CONNECTION_ATTRIBUTE_KIND kind, InternedId id, const Data& v) {
    walk += FormatMessage("@@@;", uint32_t(kind), id, v);
    return kind != CONNECTION_ATTRIBUTE_KIND::TARGET;
  }));
  EXPECT_EQ(walk, "0x1;2x2;");
}

TEST(ConnectionAttributes, EqualityIsOfElementSets) {
  std::mt19937_64 rng(77);
  for (int round = 0; round < 200; ++round) {
    std::vector<Element> elements;
    const int n = 1 + int(rng() % 6);
    for (int i = 0; i < n; ++i) {
      elements.push_back({Key("k" + std::to_string(i), CONNECTION_ATTRIBUTE_KIND(rng() % 3)),
                          Data(int64_t(rng() % 4))});
    }
    std::vector<Element> shuffled = elements;
    std::shuffle(shuffled.begin(), shuffled.end(), rng);
    const auto a = Make(elements), b = Make(shuffled);
    EXPECT_TRUE(a->Equals(*b));
    EXPECT_TRUE(ConnectionAttributes::Equal(a.Get(), b.Get()));

    // One value changed, one key's kind changed, or one element dropped.
    std::vector<Element> other = shuffled;
    const size_t at = rng() % other.size();
    switch (round % 3) {
      case 0:
        other[at].value = Data(int64_t(100));
        break;
      case 1:
        other[at].key = ConnectionAttributeKey(
            other[at].key.GetId(),
            CONNECTION_ATTRIBUTE_KIND((uint32_t(other[at].key.GetKind()) + 1) % 3));
        break;
      default:
        other.erase(other.begin() + ptrdiff_t(at));
        break;
    }
    const auto c = Make(other);
    EXPECT_FALSE(a->Equals(*c)) << a->ToString() << " " << c->ToString();
    EXPECT_FALSE(c->Equals(*a)) << a->ToString() << " " << c->ToString();
  }
  // Equal values of different types are different values.
  EXPECT_FALSE(Make({{Key("k", CONNECTION_ATTRIBUTE_KIND::SOURCE), Data(int64_t(1))}})
                   ->Equals(*Make({{Key("k", CONNECTION_ATTRIBUTE_KIND::SOURCE), Data(1)}})));
}

TEST(ConnectionAttributes, CopyBeforeWriteLeavesEveryEarlierArrayAlone) {
  // A random walk of sets and removals on a few keys. Each step yields a new
  // array; the arrays of all earlier steps stay shared with "other ends" and
  // must keep exactly what they held.
  std::mt19937_64 rng(2024);
  const ConnectionAttributeKey keys[] = {
      Key("a", CONNECTION_ATTRIBUTE_KIND::SOURCE), Key("a", CONNECTION_ATTRIBUTE_KIND::TARGET),
      Key("b", CONNECTION_ATTRIBUTE_KIND::CONNECTION), Key("c", CONNECTION_ATTRIBUTE_KIND::SOURCE),
      Key("d", CONNECTION_ATTRIBUTE_KIND::TARGET)};
  std::vector<std::pair<Ref<ConnectionAttributes>, std::vector<Element>>> history;
  Ref<ConnectionAttributes> current;  // starts as null: no attributes yet
  std::vector<Element> model;
  for (int step = 0; step < 400; ++step) {
    const ConnectionAttributeKey key = keys[rng() % std::size(keys)];
    const uint64_t op = rng() % 4;
    auto it =
        std::find_if(model.begin(), model.end(), [&](const Element& e) { return e.key == key; });
    Result<Ref<ConnectionAttributes>> next = OutOfMemoryError();
    if (op == 0) {
      next = ConnectionAttributes::WithoutValue(current.Get(), key);
      if (it != model.end()) model.erase(it);
    } else if (op == 1) {
      // An empty value removes, as the setter of a connection value does.
      next = ConnectionAttributes::WithValue(current.Get(), key, Data());
      if (it != model.end()) model.erase(it);
    } else {
      const Data value(int64_t(rng() % 5));
      next = ConnectionAttributes::WithValue(current.Get(), key, value);
      if (it != model.end()) {
        it->value = value;  // keeps its place
      } else {
        model.push_back({key, value});
      }
    }
    ASSERT_TRUE(next);
    ASSERT_NE(next->Get(), current.Get());
    const uint32_t countBefore = current ? current->GetReferenceCount() : 0;
    if (current) {
      history.emplace_back(current, Copy(current.Get()));
      EXPECT_EQ(current->GetReferenceCount(), countBefore + 1);
    }
    current = std::move(next).Value();
    ExpectSameArray(current.Get(), model);
  }
  for (const auto& [array, held] : history) ExpectSameArray(array.Get(), held);
}

TEST(ConnectionAttributes, WithoutKindDropsOneEnd) {
  const auto a = Make({{Key("x", CONNECTION_ATTRIBUTE_KIND::SOURCE), Data(int64_t(1))},
                       {Key("y", CONNECTION_ATTRIBUTE_KIND::CONNECTION), Data(int64_t(2))},
                       {Key("z", CONNECTION_ATTRIBUTE_KIND::SOURCE), Data(int64_t(3))},
                       {Key("x", CONNECTION_ATTRIBUTE_KIND::TARGET), Data(int64_t(4))}});
  const std::vector<Element> before = Copy(a.Get());
  auto b = ConnectionAttributes::WithoutKind(a.Get(), CONNECTION_ATTRIBUTE_KIND::SOURCE);
  ASSERT_TRUE(b);
  ExpectSameArray(b->Get(), {before[1], before[3]});
  ExpectSameArray(a.Get(), before);
  auto fromNull = ConnectionAttributes::WithoutKind(nullptr, CONNECTION_ATTRIBUTE_KIND::TARGET);
  ASSERT_TRUE(fromNull);
  EXPECT_TRUE((*fromNull)->IsEmpty());
}

// ---------------------------------------------------------------------------
// ConnectionData

TEST(ConnectionData, EqualityAndEmptiness) {
  const auto ab = Make({{Key("a", CONNECTION_ATTRIBUTE_KIND::SOURCE), Data(int64_t(1))},
                        {Key("b", CONNECTION_ATTRIBUTE_KIND::TARGET), Data(int64_t(2))}});
  const auto ba = Make({{Key("b", CONNECTION_ATTRIBUTE_KIND::TARGET), Data(int64_t(2))},
                        {Key("a", CONNECTION_ATTRIBUTE_KIND::SOURCE), Data(int64_t(1))}});
  const ConnectionData d1{Wires(0x101010), ab};
  EXPECT_EQ(d1, (ConnectionData{Wires(0x101010), ba}));
  EXPECT_NE(d1, (ConnectionData{Wires(0x100010), ab}));
  EXPECT_NE(d1, (ConnectionData{Wires(0x101010), nullptr}));
  // A null array holds the empty set.
  EXPECT_EQ((ConnectionData{Wires(0x10), Make({})}), (ConnectionData{Wires(0x10), nullptr}));
  EXPECT_NE((ConnectionData{Wires(0x101010), nullptr}), d1);

  EXPECT_TRUE(ConnectionData().IsEmpty());
  EXPECT_TRUE((ConnectionData{Wires(), Make({})}).IsEmpty());
  EXPECT_FALSE((ConnectionData{Wires(), ab}).IsEmpty());
  EXPECT_FALSE((ConnectionData{Wires(0x80), nullptr}).IsEmpty());

  EXPECT_EQ((ConnectionData{Wires(0x10), nullptr}).ToString(),
            "(NORMAL,NONE,NONE,NONE,NONE,NONE,NONE,NONE)");
  EXPECT_EQ(d1.ToString(),
            "(NORMAL,NORMAL,NORMAL,NONE,NONE,NONE,NONE,NONE) {source:a=1, target:b=2}");
}

}  // namespace
}  // namespace orvix
