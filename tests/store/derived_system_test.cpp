#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvix/host/diagnostics.h"
#include "store_test_support.h"

namespace orvix::nodes {
namespace {

using test::Add;
using test::Children;
using test::Id;
using test::P;
using test::Remove;

// A finished base: node "a" with input port "x", node "c".
Ref<NodeSystemImpl> MakeBase() {
  Ref<NodeSystemImpl> base = NodeSystemImpl::CreateEmpty().Value();
  Add(*base, "a");
  Add(*base, "a<");
  Add(*base, "a<x")->flags |= GNODE_FLAGS_IMPL::DIRECT_PORT;
  Add(*base, "c");
  return base;
}

TEST(DerivedSystem, WithoutEditsItHoldsOneRecordAndReadsThroughToItsBase) {
  Ref<NodeSystemImpl> base = MakeBase();
  Ref<NodeSystemImpl> derived = NodeSystemImpl::CreateDerived(base).Value();
  EXPECT_EQ(derived->GetEntryCount(), 1u);
  EXPECT_EQ(derived->_level, 2u);
  EXPECT_EQ(derived->GetBase().Get(), base.Get());
  const GNode root = derived->GetRoot();
  EXPECT_EQ(root.system, derived.Get());
  EXPECT_TRUE(HasAny(root.info->flags, GNODE_FLAGS_IMPL::DIRECT_INSTANCE));
  EXPECT_EQ(root.info->base, base->GetRoot().info);

  const GNode x = derived->FindByPath(P("a<x"));
  EXPECT_EQ(x.system, base.Get());
  EXPECT_EQ(x.info, base->FindByPath(P("a<x")).info);
  EXPECT_EQ(derived->GetFlags(x).Value(), GNODE_FLAGS::DIRECT_PORT);
  EXPECT_EQ(Children(*derived, ""), (std::vector<std::string>{"<", ">", "a", "c"}));
  EXPECT_EQ(derived->GetChildRecordCount(derived->FindByPath(P("a"))).Value(), 0u);
}

TEST(DerivedSystem, ARecordMadeForABaseElementStartsEmptyWithInheritedFlags) {
  Ref<NodeSystemImpl> base = MakeBase();
  NodeInfo* baseX = base->FindByPath(P("a<x")).info;
  baseX->flags |= GNODE_FLAGS_IMPL::TAPPING_PORT;
  Ref<NodeSystemImpl> derived = NodeSystemImpl::CreateDerived(base).Value();
  GNode handle = derived->FindByPath(P("a<x"));
  const uint64_t created = derived->_createdStamp;
  NodeInfo* own = derived->GetMutable(handle, NODE_KIND::INPORT).Value();
  EXPECT_EQ(derived->_createdStamp, created + 1);
  EXPECT_EQ(own->base, baseX);
  EXPECT_EQ(own->baseSystem, base.Get());
  EXPECT_EQ(own->flags, GNODE_FLAGS_IMPL(NODE_KIND::INPORT) | GNODE_FLAGS_IMPL::DIRECT_PORT |
                            GNODE_FLAGS_IMPL::TAPPING_PORT);
  EXPECT_TRUE(own->children.IsEmpty());
  EXPECT_EQ(derived->FindByPath(P("a<x")).info, own);
}

TEST(DerivedSystem, AForeignHandleFollowsItsElementIntoTheDerivedSystem) {
  Ref<NodeSystemImpl> base = MakeBase();
  Ref<NodeSystemImpl> derived = NodeSystemImpl::CreateDerived(base).Value();
  GNode foreign = derived->FindByPath(P("c"));
  const GNode before = foreign;
  derived->Refresh(foreign);  // current: nothing is looked up
  EXPECT_EQ(foreign.stamp, before.stamp);
  EXPECT_EQ(foreign.system, base.Get());

  GNode write = foreign;
  NodeInfo* own = derived->GetMutable(write, NODE_KIND::NODE).Value();
  derived->Refresh(foreign);
  EXPECT_EQ(foreign.info, own);
  EXPECT_EQ(foreign.system, derived.Get());

  GNode a = derived->FindByPath(P("a<x"));
  Remove(*derived, "a");
  derived->Refresh(a);
  EXPECT_EQ(a.info, nullptr);
}

TEST(DerivedSystem, ChildrenComeOwnTableFirstThenTheBasesWithTheNearestDeciding) {
  Ref<NodeSystemImpl> base = MakeBase();
  Ref<NodeSystemImpl> derived = NodeSystemImpl::CreateDerived(base).Value();
  Add(*derived, "b");
  Add(*derived, "z");
  Remove(*derived, "c");
  EXPECT_EQ(Children(*derived, ""), (std::vector<std::string>{"b", "z", "<", ">", "a"}));
  EXPECT_EQ(derived->GetChildRecordCount(derived->GetRoot()).Value(), 3u);
  EXPECT_EQ(Children(*base, ""), (std::vector<std::string>{"<", ">", "a", "c"}));
}

TEST(DerivedSystem, ARemovalHalfwayDownAChainOfBasesHidesThePathAboveIt) {
  std::vector<Ref<NodeSystemImpl>> chain{MakeBase()};
  for (int level = 1; level <= 5; ++level) {
    if (level == 3) Remove(*chain.back(), "a");
    chain.push_back(NodeSystemImpl::CreateDerived(chain.back()).Value());
  }
  const NodeSystemImpl& top = *chain.back();
  EXPECT_EQ(top._level, 6u);
  EXPECT_FALSE(top.FindByPath(P("a")));
  EXPECT_FALSE(top.FindByPath(P("a<x")));
  EXPECT_FALSE(chain[2]->FindByPath(P("a<x")));
  EXPECT_TRUE(chain[1]->FindByPath(P("a<x")));
  EXPECT_EQ(top.FindByPath(P("c")).system, chain[0].Get());
  EXPECT_EQ(Children(top, ""), (std::vector<std::string>{"<", ">", "c"}));
}

TEST(DerivedSystem, PathsIntoANestedSystemUseItsOwnPaths) {
  Ref<NodeSystemImpl> nested = NodeSystemImpl::CreateEmpty().Value();
  Add(*nested, "<x");
  Add(*nested, "<y");
  Ref<NodeSystemImpl> outer = NodeSystemImpl::CreateEmpty().Value();
  NodeInfo* node = Add(*outer, "n", nested->GetRoot());
  node->flags |= GNODE_FLAGS_IMPL::DIRECT_INSTANCE;
  node->AsNode()->_nestedSystem = nested;
  outer->_level = nested->_level + 1;

  const GNode x = outer->FindByPath(P("n<x"));
  EXPECT_EQ(x.system, nested.Get());
  EXPECT_EQ(x.info, nested->FindByPath(P("<x")).info);
  EXPECT_EQ(outer->GetNestedSystem(x).Value().Get(), nested.Get());
  EXPECT_FALSE(outer->GetNestedSystem(outer->GetRoot()).Value());
  EXPECT_EQ(Children(*outer, "n"), (std::vector<std::string>{"<", ">"}));
  EXPECT_EQ(Children(*outer, "n<"), (std::vector<std::string>{"x", "y"}));

  // A removal at the outer level hides the nested system's port there.
  Remove(*outer, "n<x");
  EXPECT_FALSE(outer->FindByPath(P("n<x")));
  EXPECT_TRUE(outer->FindByPath(P("n<y")));
  EXPECT_TRUE(nested->FindByPath(P("<x")));
  EXPECT_EQ(Children(*outer, "n<"), (std::vector<std::string>{"y"}));
  EXPECT_EQ(
      outer->GetChild(outer->FindByPath(P("n<")), InternedId(), NODE_KIND::INPORT).Value().path,
      P("n<y"));
}

}  // namespace
}  // namespace orvix::nodes
