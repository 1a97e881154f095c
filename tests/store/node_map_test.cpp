// The map alone: growth and release. Tombstones, publishing and deletion
// across layers are the layering model's.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "store/node_map.h"
#include "store_test_support.h"

namespace orvix::nodes {
namespace {

using test::P;

NodeMap::Entry* Put(NodeMap& map, const NodePath& path) {
  NodeInfo* info = NodeInfo::Allocate(path.GetKindRaw(), path);
  NodeMap::Entry* e = map.AddEntry(path, info).Value();
  NodeMap::Publish(e);
  return e;
}

TEST(NodeMap, EntriesStayWhereTheyAreWhileTheTableGrows) {
  Ref<NodeMap> map = NodeMap::Create(nullptr).Value();
  EXPECT_EQ(map->GetBucketCount(), 0u);  // the table comes with the first insertion
  std::vector<std::pair<NodePath, NodeInfo*>> kept;
  for (int i = 0; i < 2000; ++i) {
    const NodePath path = P("n" + std::to_string(i) + "<p");
    kept.emplace_back(path, Put(*map, path)->info);
    if (i == 0) {
      EXPECT_EQ(map->GetBucketCount(), 32u);
    }
    // 32 buckets hold 20 entries; the 21st doubles them.
    if (i == 19) {
      EXPECT_EQ(map->GetBucketCount(), 32u);
    }
    if (i == 20) {
      EXPECT_EQ(map->GetBucketCount(), 64u);
    }
  }
  EXPECT_EQ(map->GetCount(), 2000u);
  EXPECT_LE(map->GetCount() * 16, map->GetBucketCount() * 10);
  for (const auto& [path, info] : kept) {
    EXPECT_EQ(map->Find(path), info) << path.ToString();
    EXPECT_EQ(map->Find(path.ToBlock()), info);  // by a bare block, without a path
  }
}

TEST(NodeMap, ADeepChainOfLayersIsReleasedWithoutRecursion) {
  Ref<NodeMap> map = NodeMap::Create(nullptr).Value();
  for (int i = 0; i < 100000; ++i) map = NodeMap::Create(map).Value();
  EXPECT_EQ(map->GetDepth(), 100000u);
  map.Reset();  // would overflow the stack if each layer released the next recursively
}

}  // namespace
}  // namespace orvix::nodes
