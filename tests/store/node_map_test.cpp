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

TEST(NodeMap, TheFirstEntryTopDownDecides) {
  Ref<NodeMap> bottom = NodeMap::Create(nullptr).Value();
  NodeInfo* lowA = Put(*bottom, P("a"))->info;
  NodeInfo* lowB = Put(*bottom, P("b"))->info;
  Ref<NodeMap> middle = NodeMap::Create(bottom).Value();
  NodeMap::Entry* tomb = middle->AddEntry(P("a"), nullptr).Value();  // never published
  Ref<NodeMap> top = NodeMap::Create(middle).Value();
  NodeInfo* topB = Put(*top, P("b"))->info;

  EXPECT_EQ(bottom->GetDepth(), 0u);
  EXPECT_EQ(top->GetDepth(), 2u);
  EXPECT_EQ(top->Find(P("a")), nullptr);  // hidden by the tombstone
  EXPECT_EQ(top->FindEntry(P("a").GetHashCode(), P("a").ToBlock()), tomb);
  EXPECT_EQ(bottom->Find(P("a")), lowA);  // the layer below is untouched
  EXPECT_EQ(top->Find(P("b")), topB);
  EXPECT_EQ(middle->Find(P("b")), lowB);
  EXPECT_EQ(top->Find(P("c")), nullptr);

  // Publishing the tombstone's entry with a record of its own makes it
  // answer; unpublishing it hides the path again.
  tomb->info = NodeInfo::Allocate(NODE_KIND::NODE, P("a"));
  NodeMap::Publish(tomb);
  EXPECT_EQ(top->Find(P("a")), tomb->info);
  NodeMap::Unpublish(tomb);
  EXPECT_EQ(top->Find(P("a")), nullptr);
}

TEST(NodeMap, DeleteEntryTakesItOutOfItsChain) {
  Ref<NodeMap> map = NodeMap::Create(nullptr).Value();
  std::vector<NodeMap::Entry*> entries;
  for (int i = 0; i < 100; ++i) entries.push_back(Put(*map, P("n" + std::to_string(i))));
  for (int i = 0; i < 100; i += 3) map->DeleteEntry(entries[size_t(i)]);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(map->Find(P("n" + std::to_string(i))) != nullptr, i % 3 != 0) << i;
  }
  EXPECT_EQ(map->GetCount(), 66u);
}

TEST(NodeMap, ADeepChainOfLayersIsReleasedWithoutRecursion) {
  Ref<NodeMap> map = NodeMap::Create(nullptr).Value();
  for (int i = 0; i < 100000; ++i) map = NodeMap::Create(map).Value();
  EXPECT_EQ(map->GetDepth(), 100000u);
  map.Reset();  // would overflow the stack if each layer released the next recursively
}

}  // namespace
}  // namespace orvix::nodes
