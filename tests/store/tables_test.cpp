#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "store/connection_table.h"
#include "store/node_info.h"
#include "store/sorted_table.h"
#include "store_test_support.h"

namespace orvix::nodes {
namespace {

using test::Id;
using test::P;

std::vector<std::string> Ids(const SortedTable<ChildRecord>& table) {
  std::vector<std::string> out;
  for (const ChildRecord& r : table) out.emplace_back(r.id.GetString());
  return out;
}

// ---------------------------------------------------------------------------
// SortedTable

TEST(SortedTable, RandomEditsAgreeWithAnOrderedMap) {
  std::mt19937_64 random(7);
  SortedTable<ChildRecord> table;
  std::map<std::string, CHILD_FLAGS> model;
  for (int step = 0; step < 3000; ++step) {
    const std::string name = "c" + std::to_string(random() % 60);
    const InternedId id = Id(name);
    switch (random() % 3) {
      case 0: {
        bool inserted = false;
        const CHILD_FLAGS flags = CHILD_FLAGS(random() % 4);
        table.FindOrInsert(id, &inserted).flags = flags;
        EXPECT_EQ(inserted, !model.contains(name));
        model[name] = flags;
        break;
      }
      case 1:
        EXPECT_EQ(table.Erase(id), model.erase(name) == 1);
        break;
      default: {
        const ChildRecord* r = table.Find(id);
        ASSERT_EQ(r != nullptr, model.contains(name));
        if (r) {
          EXPECT_EQ(r->flags, model[name]);
        }
      }
    }
  }
  std::vector<std::string> expected;
  for (const auto& [name, flags] : model) expected.push_back(name);
  EXPECT_EQ(Ids(table), expected);  // std::map orders bytewise, as strcmp does
}

TEST(SortedTable, BulkAppendIsSearchedLinearlyUntilAWriteSorts) {
  SortedTable<ChildRecord> table;
  table.Append({Id("b"), CHILD_FLAGS::ADDED});
  table.Append({Id("c"), CHILD_FLAGS::ADDED});
  EXPECT_TRUE(table.IsSorted());
  table.Append({Id("a"), CHILD_FLAGS::NONE});
  EXPECT_FALSE(table.IsSorted());
  // A const search finds every record without sorting the table.
  const SortedTable<ChildRecord>& frozen = table;
  for (const char* name : {"a", "b", "c"}) EXPECT_NE(frozen.Find(Id(name)), nullptr) << name;
  EXPECT_EQ(frozen.Find(Id("d")), nullptr);
  EXPECT_FALSE(table.IsSorted());
  // A write sorts first.
  table.FindOrInsert(Id("d")).flags = CHILD_FLAGS::ADDED;
  EXPECT_TRUE(table.IsSorted());
  EXPECT_EQ(Ids(table), (std::vector<std::string>{"a", "b", "c", "d"}));
}

TEST(SortedTable, NullIdSortsFirst) {
  SortedTable<ChildRecord> table;
  table.FindOrInsert(Id("a"));
  table.FindOrInsert(InternedId());
  EXPECT_TRUE(table[0].id.IsNull());
  EXPECT_NE(table.Find(InternedId()), nullptr);
}

// ---------------------------------------------------------------------------
// ConnectionTable

std::vector<std::string> Listing(const ConnectionTable& table) {
  std::vector<std::string> out;
  table.ForEach([&](const ConnectionKey& key, const ConnectionData& data) {
    out.push_back(key.ToString() + "=" + std::to_string(data.wires.GetValue()));
    return true;
  });
  return out;
}

std::vector<ConnectionKey> SomeKeys(int count) {
  std::vector<ConnectionKey> keys;
  for (int i = 0; i < count; ++i) {
    keys.push_back(ConnectionKey::Make(P("n" + std::to_string(i % 17) + "<p" + std::to_string(i)),
                                       CONNECTION_TYPE(i % 2), CONNECTION_DIRECTION((i / 2) % 2)));
  }
  return keys;
}

TEST(ConnectionTable, IterationDoesNotDependOnInsertionOrder) {
  std::vector<ConnectionKey> keys = SomeKeys(200);
  std::mt19937_64 random(11);
  ConnectionTable first;
  for (size_t i = 0; i < keys.size(); ++i) {
    ASSERT_TRUE(first.Set(keys[i], ConnectionData{Wires(i + 1), nullptr}));
  }
  std::vector<size_t> order(keys.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), random);
  ConnectionTable second;
  for (size_t i : order) ASSERT_TRUE(second.Set(keys[i], ConnectionData{Wires(i + 1), nullptr}));
  EXPECT_EQ(second.GetCount(), keys.size());
  EXPECT_EQ(Listing(first), Listing(second));
  // Every key is listed exactly once.
  EXPECT_EQ(Listing(first).size(), keys.size());
}

TEST(ConnectionTable, EraseFindAndCopyAreIndependent) {
  std::vector<ConnectionKey> keys = SomeKeys(50);
  ConnectionTable table;
  for (size_t i = 0; i < keys.size(); ++i) {
    ASSERT_TRUE(table.Set(keys[i], ConnectionData{Wires(i + 1), nullptr}));
  }
  ConnectionData* stable = table.Find(keys[3]);
  ConnectionTable copy = table;
  for (size_t i = 0; i < keys.size(); i += 2) EXPECT_TRUE(table.Erase(keys[i]));
  EXPECT_FALSE(table.Erase(keys[0]));
  EXPECT_EQ(table.Find(keys[3]), stable);  // entries don't move
  for (size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(table.Find(keys[i]) != nullptr, i % 2 == 1) << i;
    EXPECT_EQ(copy.Find(keys[i])->wires.GetValue(), i + 1);
  }
  EXPECT_EQ(Listing(table).size(), keys.size() / 2);
  // An equal key made from another path object finds the same entry.
  EXPECT_NE(table.Find(ConnectionKey{P(keys[1].other.ToString()), keys[1].selector}), nullptr);
}
}  // namespace
}  // namespace orvix::nodes
