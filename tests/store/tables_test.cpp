// The containers under the records: the sorted child table, a port's
// connection table, and the release of a map's layers (what a map answers is
// the layering model's).

#include <algorithm>
#include <map>
#include <numeric>
#include <random>

#include "store/connection_table.h"
#include "store/node_map.h"
#include "store/sorted_table.h"
#include "store_test_support.h"

namespace orvix::nodes::test {
namespace {

// Random inserts, bulk appends, erasures and const searches against an
// ordered map. A const search never sorts: a frozen table is read by many
// threads, so an appended tail is scanned.
TEST(SortedTable, RandomEditsAgreeWithAnOrderedMap) {
  std::mt19937_64 random(7);
  SortedTable<ChildRecord> table;
  const SortedTable<ChildRecord>& frozen = table;
  std::map<std::string, CHILD_FLAGS> model;
  for (int step = 0; step < 3000; ++step) {
    const std::string name = "c" + std::to_string(random() % 60);
    const InternedId id = Id(name);
    const CHILD_FLAGS flags = CHILD_FLAGS(random() % 4);
    const int op = int(random() % 4);
    if (op == 0 && !model.contains(name)) {
      table.Append({id, flags});
      model[name] = flags;
    } else if (op <= 1) {
      bool inserted = false;
      table.FindOrInsert(id, &inserted).flags = flags;
      EXPECT_EQ(inserted, !model.contains(name));
      model[name] = flags;
    } else if (op == 2) {
      EXPECT_EQ(table.Erase(id), model.erase(name) == 1);
    } else {
      const ChildRecord* r = frozen.Find(id);
      ASSERT_EQ(r != nullptr, model.contains(name));
      EXPECT_TRUE(!r || r->flags == model[name]) << name;
    }
  }
  table.Sort();
  Strings ids, expected;
  for (const ChildRecord& r : table) ids.emplace_back(r.id.GetString());
  for (const auto& [name, flags] : model) expected.push_back(name);
  EXPECT_EQ(ids, expected);  // std::map orders bytewise, as strcmp does
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

TEST(NodeMap, ADeepChainOfLayersIsReleasedWithoutRecursion) {
  Ref<NodeMap> map = NodeMap::Create(nullptr).Value();
  for (int i = 0; i < 100000; ++i) map = NodeMap::Create(map).Value();
  EXPECT_EQ(map->GetDepth(), 100000u);
  map.Reset();  // would overflow the stack if each layer released the next recursively
}

}  // namespace
}  // namespace orvix::nodes::test
