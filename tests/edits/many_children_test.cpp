// An element with many children: the child table takes adds at its end and is
// sorted once, so the walk must still report children in id order at every
// point of the modification, handles must survive the adds, and the finished
// system (and a copy of it) must hold a sorted table.

#include <fmt/format.h>

#include <algorithm>
#include <random>
#include <set>

#include "edits_test_support.h"

namespace orvix::nodes::test {
namespace {

// The ids of the root's node children as the published walk reports them.
std::vector<std::string> Walk(const NodeSystem& s) {
  std::vector<std::string> ids;
  ChildIterator it;
  for (Result<GNode> child = s.GetFirstChild(s.GetRoot(), it); child && child->IsPopulated();
       child = s.GetNextChild(it)) {
    const std::string id(child->path.GetLastPart().GetString());
    if (!id.starts_with('<') && !id.starts_with('>')) ids.push_back(id);
  }
  return ids;
}

std::vector<std::string> Sorted(const std::set<std::string>& ids) {
  return {ids.begin(), ids.end()};  // std::set orders bytewise, as the walk does
}

TEST(ManyChildren, TheWalkIsInIdOrderThroughAddsAndRemovalsAndAfterTheEnd) {
  const Ref<NodeSystem> op = MakeOperator({"a"}, {"out"});
  std::mt19937_64 random(41);
  MutableRoot root = OpenEmpty();
  NodeSystem& s = *root._system;
  std::set<std::string> present;
  std::vector<std::pair<std::string, GNode>> held;
  for (int step = 0; step < 600; ++step) {
    const std::string id = fmt::format("n{}", random() % 1000);
    if (present.contains(id) && random() % 3 == 0) {
      ASSERT_TRUE(RemoveAt(s, id)) << id;
      present.erase(id);
      std::erase_if(held, [&](const auto& h) { return h.first == id; });
    } else if (!present.contains(id)) {
      Result<GNode> node = s.AddChild(id, op, nullptr);
      ASSERT_TRUE(node) << Message(node);
      present.insert(id);
      if (held.size() < 20) held.emplace_back(id, *node);
    }
    if (step % 97 == 0) {
      ASSERT_EQ(Walk(s), Sorted(present)) << "step " << step;
    }
  }
  EXPECT_FALSE(Impl(root).GetRoot().info->children.IsSorted());  // adds went to the end

  // A walk with adds between its steps goes on after the child reported last.
  ChildIterator it;
  Result<GNode> first = s.GetFirstChild(s.GetRoot(), it);
  ASSERT_TRUE(first && first->IsPopulated());
  std::vector<std::string> seen{std::string(first->path.GetLastPart().GetString())};
  for (int k = 0; k < 5; ++k) {
    const std::string id = fmt::format("m{}", k);
    ASSERT_TRUE(s.AddChild(id, op, nullptr));
    present.insert(id);
  }
  for (Result<GNode> child = s.GetNextChild(it); child && child->IsPopulated();
       child = s.GetNextChild(it)) {
    seen.emplace_back(child->path.GetLastPart().GetString());
  }
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
  EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), seen.size());

  // Handles taken early still name their nodes, whose records never moved.
  ASSERT_GE(held.size(), 10u);
  for (const auto& [id, handle] : held) {
    EXPECT_EQ(s.FindByPath(P(id)).info, GNode(handle).info) << id;
    Result<GNode> port = s.GetPortList(handle, PORT_DIR::INPUT);
    ASSERT_TRUE(port) << Message(port);
    EXPECT_EQ(port->path.ToString(), id + "<");
  }

  const Ref<NodeSystem> done = Finish(root);
  EXPECT_TRUE(Impl(done).GetRoot().info->children.IsSorted());
  EXPECT_EQ(Walk(*done), Sorted(present));
  MutableRoot copy = Open(done);  // shared: a copy, whose records are the finished ones
  EXPECT_EQ(Walk(*copy._system), Sorted(present));
}

}  // namespace
}  // namespace orvix::nodes::test
