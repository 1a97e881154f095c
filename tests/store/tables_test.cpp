// The containers under the records: the sorted child table, a port's
// connection table, and the release of a map's layers (what a map answers is
// the layering model's).

#include <algorithm>
#include <map>
#include <numeric>
#include <random>

#include "must.h"
#include "store/connection_table.h"
#include "store/node_map.h"
#include "store/sorted_table.h"
#include "store_test_support.h"

namespace orvix::nodes::test {
namespace {

// Random inserts (sorted, or left unsorted past the size that allows it),
// bulk appends, erasures, copies and const searches against an ordered map,
// over more ids than a table keeps sorted on every insert. Whatever state the
// table is in, a search finds exactly the model's records, and a sort lists
// them in id order.
TEST(SortedTable, RandomEditsAgreeWithAnOrderedMap) {
  std::mt19937_64 random(7);
  SortedTable<ChildRecord> table;
  std::map<std::string, CHILD_FLAGS> model;
  bool wentUnsorted = false;
  for (int step = 0; step < 20000; ++step) {
    const std::string name = "c" + std::to_string(random() % 300);
    const InternedId id = Id(name);
    const CHILD_FLAGS flags = CHILD_FLAGS(random() % 4);
    const int op = int(random() % 16);
    if (op == 0 && !model.contains(name)) {
      table.Append({id, flags});
      model[name] = flags;
    } else if (op <= 7) {
      bool inserted = false;
      table.FindOrInsert(id, &inserted, op % 2 == 0).flags = flags;
      EXPECT_EQ(inserted, !model.contains(name));
      model[name] = flags;
    } else if (op <= 9) {
      EXPECT_EQ(table.Erase(id), model.erase(name) == 1);
    } else if (op == 10) {
      ChildRecord* r = table.FindForWriting(id);
      ASSERT_EQ(r != nullptr, model.contains(name));
      if (r) r->flags = model[name] = flags;
    } else if (op == 11 && step % 50 == 0) {
      SortedTable<ChildRecord> copy(table);  // a copy keeps the state and finds the same
      table = std::move(copy);
    } else {
      const SortedTable<ChildRecord>& frozen = table;
      const ChildRecord* r = frozen.Find(id);
      ASSERT_EQ(r != nullptr, model.contains(name));
      EXPECT_TRUE(!r || r->flags == model[name]) << name;
    }
    wentUnsorted = wentUnsorted || !table.IsSorted();
    ASSERT_EQ(table.GetCount(), model.size());
  }
  EXPECT_TRUE(wentUnsorted);
  table.Sort();
  Strings ids, expected;
  for (const ChildRecord& r : table) ids.emplace_back(r.id.GetString());
  for (const auto& [name, flags] : model) expected.push_back(name);
  EXPECT_EQ(ids, expected);  // std::map orders bytewise, as strcmp does
}

// A large table takes inserts at its end and stays unsorted until sorted; a
// small one, and any insert that doesn't allow it, keeps the order.
TEST(SortedTable, OnlyALargeTableGoesUnsortedAndOnlyWhenAsked) {
  SortedTable<ChildRecord> table;
  const size_t small = SortedTable<ChildRecord>::UNSORTED_MIN;
  for (size_t i = small; i > 0; --i) table.FindOrInsert(Id("s" + std::to_string(1000 + i)), nullptr, true);
  EXPECT_TRUE(table.IsSorted());  // below the size: inserted at its place
  table.FindOrInsert(Id("s0999"), nullptr, false);
  EXPECT_TRUE(table.IsSorted());  // not asked
  table.FindOrInsert(Id("s2000"), nullptr, true);
  EXPECT_TRUE(table.IsSorted());  // after the last one: an append keeps the order
  table.FindOrInsert(Id("s0998"), nullptr, true);
  EXPECT_FALSE(table.IsSorted());
  EXPECT_EQ(table[table.GetCount() - 1].id, Id("s0998"));
  table.FindOrInsert(Id("s0997"), nullptr, false);  // not asked: sorts first
  EXPECT_TRUE(table.IsSorted());
  EXPECT_EQ(table[0].id, Id("s0997"));
}

Strings Listing(const ConnectionTable& table) {
  Strings out;
  table.ForEach([&](const ConnectionKey& key, const ConnectionData& data) {
    out.push_back(key.ToString() + "=" + std::to_string(data.wires.GetValue()));
    return true;
  });
  return out;
}

TEST(ConnectionTable, ListingIgnoresInsertionOrderAndErasingLeavesTheRestInPlace) {
  // Keys are made anew for each use: an equal key from another path object finds the entry.
  auto key = [](size_t i) {
    return ConnectionKey::Make(P("n" + std::to_string(i % 17) + "<p" + std::to_string(i)),
                               CONNECTION_TYPE(i % 2), CONNECTION_DIRECTION((i / 2) % 2));
  };
  std::vector<size_t> order(200);
  std::iota(order.begin(), order.end(), 0);
  std::mt19937_64 random(11);
  std::shuffle(order.begin(), order.end(), random);
  ConnectionTable table, shuffled;
  for (size_t i = 0; i < order.size(); ++i) {
    ASSERT_TRUE(table.Set(key(i), ConnectionData{Wires(i + 1), nullptr}));
    ASSERT_TRUE(shuffled.Set(key(order[i]), ConnectionData{Wires(order[i] + 1), nullptr}));
  }
  EXPECT_EQ(Listing(table), Listing(shuffled));
  EXPECT_EQ(Listing(table).size(), order.size());  // every key exactly once

  const ConnectionData* stable = table.Find(key(3));
  for (size_t i = 0; i < order.size(); i += 2) EXPECT_TRUE(table.Erase(key(i)));
  EXPECT_EQ(table.Find(key(3)), stable);  // entries don't move
  for (size_t i = 0; i < order.size(); ++i) {
    EXPECT_EQ(table.Find(key(i)) != nullptr, i % 2 == 1) << i;
  }
}

// Tables of zero, one and a few entries (the one-entry form without buckets,
// and the change to buckets and back) against an ordered map; a copy lists
// alike, and so do two tables that received the same keys in other orders.
TEST(ConnectionTable, RandomEditsOfSmallTablesAgreeWithAMap) {
  std::mt19937_64 random(23);
  auto key = [](uint64_t i) {
    return ConnectionKey::Make(P("n" + std::to_string(i) + "<in"), CONNECTION_TYPE(i % 2),
                               CONNECTION_DIRECTION::TARGET);
  };
  for (int round = 0; round < 200; ++round) {
    ConnectionTable table;
    std::map<uint64_t, uint64_t> model;
    for (int step = 0; step < 40; ++step) {
      const uint64_t k = random() % 7;
      if (random() % 3 == 0) {
        EXPECT_EQ(table.Erase(key(k)), model.erase(k) == 1);
      } else {
        ASSERT_TRUE(table.Set(key(k), ConnectionData{Wires(step + 1), nullptr}));
        model[k] = uint64_t(step + 1);
      }
      ASSERT_EQ(table.GetCount(), model.size());
      for (uint64_t i = 0; i < 7; ++i) {
        const ConnectionData* found = table.Find(key(i));
        ASSERT_EQ(found != nullptr, model.contains(i));
        if (found) {
          EXPECT_EQ(found->wires.GetValue(), model[i]);
        }
      }
      ConnectionTable copy(table), inOrder, reversed;
      for (const auto& [k, wires] : model) {
        ASSERT_TRUE(inOrder.Set(key(k), ConnectionData{Wires(wires), nullptr}));
      }
      for (auto it = model.rbegin(); it != model.rend(); ++it) {
        ASSERT_TRUE(reversed.Set(key(it->first), ConnectionData{Wires(it->second), nullptr}));
      }
      EXPECT_EQ(Listing(copy), Listing(table));
      EXPECT_EQ(Listing(reversed), Listing(inOrder));
    }
  }
}

TEST(NodeMap, ADeepChainOfLayersIsReleasedWithoutRecursion) {
  Ref<NodeMap> map = Must(NodeMap::Create(nullptr));
  for (int i = 0; i < 100000; ++i) map = Must(NodeMap::Create(map));
  EXPECT_EQ(map->GetDepth(), 100000u);
  map.Reset();  // would overflow the stack if each layer released the next recursively
}

#ifndef NDEBUG
constexpr bool DEBUG_ASSERTS = true;
#else
constexpr bool DEBUG_ASSERTS = false;
#endif

// What a layer promises itself, checked by debug builds where it is written:
// one entry per path, a tombstone only over something it hides, a published
// entry with a record, and a deletion only of the layer's own entries.
TEST(NodeMapDeathTest, DebugBuildsStopAnEntryThatBreaksTheLayering) {
  if (!DEBUG_ASSERTS) GTEST_SKIP() << "release builds compile the assertions away";
  Ref<NodeMap> bottom = Must(NodeMap::Create(nullptr));
  NodeMap::Entry* a = Must(bottom->AddEntry(P("a"), NodeInfo::Allocate(NODE_KIND::NODE, P("a"))));
  NodeMap::Publish(a);
  EXPECT_DEATH(static_cast<void>(bottom->AddEntry(P("a"), nullptr)),
               "debug assertion .* failed: a layer holds one entry of a path");
  EXPECT_DEATH(static_cast<void>(bottom->AddEntry(P("b"), nullptr)),
               "failed: a tombstone is left only where a layer below holds the path");

  Ref<NodeMap> top = Must(NodeMap::Create(bottom));
  // Over the bottom's record a tombstone hides something, and is taken.
  NodeMap::Entry* hiding = Must(top->AddEntry(P("a"), nullptr));
  EXPECT_EQ(top->Find(P("a")), nullptr);
  EXPECT_DEATH(NodeMap::Publish(hiding), "failed: a published entry holds a record");
  EXPECT_DEATH(top->DeleteEntry(a), "failed: an entry to delete is one of this layer's");
  EXPECT_TRUE(bottom->HoldsInLayer(bottom->Find(P("a"))));
  EXPECT_FALSE(top->HoldsInLayer(bottom->Find(P("a"))));
}

// An append promises an id that the table lacks; a sort leaves each id once.
TEST(SortedTableDeathTest, DebugBuildsStopAnAppendOfAnIdTheTableHas) {
  if (!DEBUG_ASSERTS) GTEST_SKIP() << "release builds compile the assertions away";
  SortedTable<ChildRecord> table;
  table.Append({Id("b"), CHILD_FLAGS::ADDED});
  table.Append({Id("c"), CHILD_FLAGS::ADDED});
  EXPECT_DEATH(table.Append({Id("b"), CHILD_FLAGS::NONE}),
               "failed: an appended id is new to the table");
  table.Append({Id("a"), CHILD_FLAGS::ADDED});  // out of order, but new
  EXPECT_FALSE(table.IsSorted());
  table.Sort();
  ASSERT_EQ(table.GetCount(), 3u);
  EXPECT_EQ(table[0].id, Id("a"));
}

}  // namespace
}  // namespace orvix::nodes::test
