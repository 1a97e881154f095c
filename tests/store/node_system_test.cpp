#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvix/host/diagnostics.h"
#include "store_test_support.h"

namespace orvix::nodes {
namespace {

using test::Add;
using test::Children;
using test::Copy;
using test::Id;
using test::Message;
using test::P;
using test::Remove;

class NodeSystemStore : public ::testing::Test {
 protected:
  void SetUp() override { system = NodeSystemImpl::CreateEmpty().Value(); }
  Ref<NodeSystemImpl> system;
};

TEST_F(NodeSystemStore, AnEmptySystemHasItsRootAndTwoPortLists) {
  EXPECT_TRUE(system->IsInitialized());
  EXPECT_TRUE(system->IsFinalized());
  EXPECT_FALSE(system->_mutable);
  EXPECT_EQ(system->_firstModified, g_modifiedListEnd);
  EXPECT_EQ(system->_level, 1u);
  ASSERT_EQ(system->GetBases().size(), 1u);
  EXPECT_FALSE(system->GetBase());
  EXPECT_EQ(system->GetEntryCount(), 3u);

  const GNode root = system->GetRoot();
  ASSERT_TRUE(root);
  EXPECT_EQ(root.info->GetKind(), NODE_KIND::NODE);
  EXPECT_EQ(root.info->children.GetCount(), 2u);
  for (const ChildRecord& c : root.info->children) {
    EXPECT_EQ(c.flags, CHILD_FLAGS::ADDED | CHILD_FLAGS::SYNTHETIC);
  }
  EXPECT_EQ(Children(*system, ""), (std::vector<std::string>{"<", ">"}));
  EXPECT_EQ(system->FindByPath(P("<")).info->GetKind(), NODE_KIND::INPUTS);
  EXPECT_EQ(system->FindByPath(P(">")).info->GetKind(), NODE_KIND::OUTPUTS);
  // Nothing changed since the creation.
  EXPECT_EQ(system->GetModifications(system->GetModificationStamp()), MODIFIED::NONE);
  EXPECT_EQ(system->GetModifications(0), MODIFIED::COMPLETE);
}

TEST_F(NodeSystemStore, GetMutableCountsStampsAndChecksTheKind) {
  const uint64_t modification = system->_modificationStamp;
  const uint64_t created = system->_createdStamp;
  const uint64_t moved = system->_movedStamp;
  NodeInfo* a = Add(*system, "a");  // the root is fetched again, then "a" is made
  EXPECT_EQ(system->_modificationStamp, modification + 2);
  EXPECT_EQ(system->_createdStamp, created + 1);
  EXPECT_EQ(system->_movedStamp, moved + 1);

  GNode handle(P("a"));
  EXPECT_EQ(system->GetMutable(handle, NODE_KIND::NODE).Value(), a);  // used as it is
  EXPECT_EQ(system->_createdStamp, created + 1);
  EXPECT_EQ(handle.info, a);
  EXPECT_EQ(handle.system, system.Get());
  EXPECT_EQ(handle.stamp, system->_movedStamp);

  Result<NodeInfo*> wrong = system->GetMutable(handle, NODE_KIND::INPORT);
  ASSERT_FALSE(wrong);
  EXPECT_EQ(wrong.GetError().GetMessage(), "Mismatch of node kind: Expected INPORT, found NODE.");
}

TEST_F(NodeSystemStore, ACopySharesTheMapUntilAWriteCopiesTheRecordUpWhole) {
  NodeInfo* a = Add(*system, "a");
  a->_directAttributeStamp = 17;
  a->flags |= GNODE_FLAGS_IMPL::TAPPING_PORT;
  a->children.FindOrInsert(Id("k")).flags = CHILD_FLAGS::ADDED;
  const size_t entries = system->GetEntryCount();
  Ref<NodeSystemImpl> copy = Copy(*system);
  EXPECT_EQ(copy->_nodes.Get(), system->_nodes.Get());
  EXPECT_EQ(copy->GetModificationStamp(), system->GetModificationStamp());

  // The copy's first write puts a layer of its own on top.
  GNode handle = copy->FindByPath(P("a"));
  NodeInfo* up = copy->GetMutable(handle, NODE_KIND::NODE).Value();
  EXPECT_EQ(copy->GetDepth(), 1u);
  EXPECT_EQ(system->GetDepth(), 0u);
  EXPECT_EQ(system->GetEntryCount(), entries);
  EXPECT_NE(up, a);
  EXPECT_EQ(up->_directAttributeStamp, 17u);
  EXPECT_EQ(up->flags, a->flags);
  EXPECT_EQ(up->children.GetCount(), 1u);
  up->_directAttributeStamp = 99;
  up->children.Erase(Id("k"));
  EXPECT_EQ(system->FindByPath(P("a")).info, a);
  EXPECT_EQ(a->_directAttributeStamp, 17u);
  EXPECT_EQ(a->children.GetCount(), 1u);
}

// A copy and a derived system both need a source that is initialized and validated.
TEST_F(NodeSystemStore, CopiesAndDerivedSystemsCheckTheirSource) {
  NodeSystemImpl uninitialized;
  Ref<NodeSystemImpl> target = MakeRef<NodeSystemImpl>();
  const std::string noInit = "Base nodesystem hasn't been initialized.";
  EXPECT_EQ(Message(target->CopyFrom(uninitialized)), noInit);
  EXPECT_EQ(Message(NodeSystemImpl::CreateDerived(MakeRef<NodeSystemImpl>())), noInit);
  system->_systemFlags = GNODE_FLAGS_IMPL::MODIFIED_PV_CHILDREN;
  const std::string noValidation = "Base nodesystem hasn't been validated.";
  EXPECT_EQ(Message(target->CopyFrom(*system)), noValidation);
  EXPECT_EQ(Message(NodeSystemImpl::CreateDerived(system)), noValidation);

  // Garbage bits alone don't stand in the way of validation, but a modified
  // list does.
  system->_systemFlags = GNODE_FLAGS_IMPL::MODIFIED_G_GARBAGE;
  GNode root = system->GetRoot();
  NodeInfo* rootInfo = system->GetMutable(root, NODE_KIND::NODE).Value();
  rootInfo->_nextModified = g_modifiedListEnd;
  system->_firstModified = rootInfo;
  EXPECT_EQ(Message(target->CopyFrom(*system)),
            "Assertion failed: Condition src._firstModified == g_modifiedListEnd && "
            "!src._attribSetup && !src._portValidation && !src._instantiation not fulfilled. ");
  EXPECT_FALSE(target->IsInitialized());
  rootInfo->_nextModified = nullptr;
  system->_firstModified = g_modifiedListEnd;
}
TEST_F(NodeSystemStore, AStaleHandleIsRefreshedNotDereferenced) {
  Add(*system, "a");
  Add(*system, "a<");
  Add(*system, "a<in");
  GNode handle = system->FindByPath(P("a<in"));
  const GNode a = system->FindByPath(P("a"));
  ASSERT_TRUE(handle);
  Remove(*system, "a");  // frees the records; the sanitizer sees any read
  EXPECT_EQ(system->GetFlags(a).GetError().GetMessage(),
            "Node with path a doesn't exist any longer.");
  EXPECT_FALSE(system->IsValid(handle));
  system->Refresh(handle);
  EXPECT_EQ(handle.info, nullptr);
  Result<NodeInfo*> resolved = system->Resolve(handle);
  ASSERT_FALSE(resolved);
  EXPECT_EQ(resolved.GetError().GetMessage(), "Nullptr node");

  GNode again = system->MakeHandle(P("a<in"));
  EXPECT_FALSE(again);
  EXPECT_EQ(again.path, P("a<in"));
  Result<GNODE_FLAGS> flags = system->GetFlags(again);
  ASSERT_FALSE(flags);
  EXPECT_EQ(flags.GetError().GetMessage(), "Nullptr node");
}

TEST_F(NodeSystemStore, RemovalLeavesTombstonesOnlyWhereALayerBelowHoldsThePath) {
  Add(*system, "a");
  Add(*system, "b");
  Ref<NodeSystemImpl> keep = Copy(*system);
  Add(*system, "c");  // in the new top layer only
  const size_t entries = system->GetEntryCount();
  Remove(*system, "c");  // no layer below has it: the entry goes
  EXPECT_EQ(system->GetEntryCount(), entries - 1);
  Remove(*system, "a");  // hidden by a tombstone in the top layer, an entry of its own
  EXPECT_EQ(system->GetEntryCount(), entries);
  EXPECT_FALSE(system->FindByPath(P("a")));
  EXPECT_TRUE(keep->FindByPath(P("a")));
}

TEST_F(NodeSystemStore, GetChildByIdAndWithoutOne) {
  Add(*system, "<x");
  Add(*system, "<.hidden");
  Add(*system, std::string("<") + std::string(NODE_SYSTEM_PORT_ID));
  const GNode inputs = system->FindByPath(P("<"));

  GNode x = system->GetChild(inputs, Id("x"), NODE_KIND::PORT_MASK).Value();
  EXPECT_EQ(x.path, P("<x"));
  EXPECT_FALSE(system->GetChild(inputs, Id("x"), NODE_KIND::NODE).Value());
  EXPECT_FALSE(system->GetChild(inputs, Id("y"), NODE_KIND::ALL_MASK).Value());

  // Without an id: ".hidden" and the node-system port are no candidates.
  GNode single = system->GetChild(inputs, InternedId(), NODE_KIND::INPORT).Value();
  EXPECT_EQ(single.path, P("<x"));

  Add(*system, "<z");
  Result<GNode> two = system->GetChild(inputs, InternedId(), NODE_KIND::INPORT);
  ASSERT_FALSE(two);
  EXPECT_EQ(two.GetError().GetMessage(), "More than one port in <.");

  const GNode outputs = system->FindByPath(P(">"));
  EXPECT_FALSE(system->GetChild(outputs, InternedId(), NODE_KIND::OUTPORT).Value());
}

TEST_F(NodeSystemStore, AChildRecordWithoutItsElementIsAnInternalError) {
  GNode root = system->GetRoot();
  NodeInfo* rootInfo = system->GetMutable(root, NODE_KIND::NODE).Value();
  ASSERT_TRUE(system->SetChildRecord(rootInfo, Id("ghost"), CHILD_FLAGS::ADDED));
  CapturedOutput output;
  EXPECT_FALSE(system->GetChild(root, Id("ghost"), NODE_KIND::ALL_MASK).Value());
  EXPECT_TRUE(output.Contains("Stop: Internal error."));
  output.Clear();
  // The walk skips it and goes on.
  EXPECT_EQ(Children(*system, ""), (std::vector<std::string>{"<", ">"}));
  EXPECT_TRUE(output.Contains("Stop: Internal error."));
}

TEST_F(NodeSystemStore, LookupsOfMissingPathsAnswerNothing) {
  CapturedOutput output;
  for (const char* text : {"missing", "a/b/c", "<nope", "x<y/z"}) {
    EXPECT_FALSE(system->FindByPath(P(text))) << text;
    EXPECT_FALSE(system->FindNode(P(text))) << text;
  }
  EXPECT_TRUE(output.Lines().empty());
  // A lookup that must succeed says so.
  EXPECT_FALSE(system->FindNode(P("missing"), NODE_KIND::ALL_MASK, false));
  ASSERT_EQ(output.Lines().size(), 1u);
  EXPECT_EQ(output.Lines()[0].text, "Stop: Internal error.");
  // A kind that isn't asked for is nothing too.
  EXPECT_FALSE(system->FindNode(P("<"), NODE_KIND::NODE));
  EXPECT_TRUE(system->FindNode(P("<"), NODE_KIND::PORTLIST_MASK));
}

TEST_F(NodeSystemStore, TreeReads) {
  Add(*system, "a");
  Add(*system, "a/b");
  Add(*system, "a/b<");
  Add(*system, "a/b<p");
  Add(*system, "a/b<p/q");
  const GNode q = system->FindByPath(P("a/b<p/q"));
  ASSERT_TRUE(q);
  EXPECT_EQ(system->GetParent(q).Value().path, P("a/b<p"));
  EXPECT_FALSE(system->GetParent(system->GetRoot()).Value());
  EXPECT_EQ(system->GetAncestor(q, NODE_KIND::NODE).Value().path, P("a/b"));
  EXPECT_EQ(system->GetAncestor(q, NODE_KIND::INPUTS).Value().path, P("a/b<"));
  EXPECT_EQ(system->GetAncestor(q, NODE_KIND::INPORT).Value().path, P("a/b<p/q"));
  const GNode b = system->FindByPath(P("a/b"));
  EXPECT_EQ(system->GetPortList(b, PORT_DIR::INPUT).Value().path, P("a/b<"));
  EXPECT_FALSE(system->GetPortList(b, PORT_DIR::OUTPUT).Value());  // never added
  Result<GNode> notANode = system->GetPortList(q, PORT_DIR::INPUT);
  ASSERT_FALSE(notANode);
  EXPECT_EQ(notANode.GetError().GetMessage(),
            "Illegal argument: Condition handle.path.GetKindRaw() == NODE_KIND::NODE not "
            "fulfilled. ");
  const InternedId parts[] = {Id("b"), NodePath::GetInputsId(), Id("p")};
  EXPECT_EQ(system->FindDescendant(system->FindByPath(P("a")), parts).Value().info,
            system->FindByPath(P("a/b<p")).info);
  EXPECT_EQ(system->GetChildRecordCount(system->FindByPath(P("a"))).Value(), 1u);

  std::vector<std::string> visited;
  ASSERT_TRUE(system->VisitNodes(system->GetRoot(), [&](const GNode& n) -> Result<bool> {
    visited.push_back(n.path.ToString());
    return true;
  }));
  EXPECT_EQ(visited, (std::vector<std::string>{"", "a", "a/b"}));
  // A visitor that stops ends the walk.
  visited.clear();
  EXPECT_FALSE(system
                   ->VisitNodes(system->GetRoot(),
                                [&](const GNode& n) -> Result<bool> {
                                  visited.push_back(n.path.ToString());
                                  return n.path.GetCount() == 0;
                                })
                   .Value());
  EXPECT_EQ(visited, (std::vector<std::string>{"", "a"}));
}

TEST_F(NodeSystemStore, ChangesSinceAStamp) {
  const uint64_t start = system->GetModificationStamp();
  NodeInfo* a = Add(*system, "a");
  a->_addedStamp = system->_modificationStamp;
  system->_structureStamp = system->_modificationStamp;
  NodeInfo* port = Add(*system, "<x");
  port->AsPort()->_sourcesStamp = system->_modificationStamp;
  system->_connectionStamp = system->_modificationStamp;
  EXPECT_EQ(system->GetModifications(start), MODIFIED::NODE_MASK | MODIFIED::CONNECTION_MASK);
  EXPECT_EQ(system->GetModifications(system->GetModificationStamp()), MODIFIED::NONE);

  std::vector<std::pair<std::string, MODIFIED>> seen;
  ASSERT_TRUE(system->EnumerateChanges(start, [&](const GNode& n, MODIFIED what) -> Result<bool> {
    seen.emplace_back(n.path.ToString(), what);
    return true;
  }));
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, MODIFIED>>{
                      {"<x", MODIFIED::CONNECTION_SOURCES}, {"a", MODIFIED::NODE_ADDED}}));

  // Before the creation everything changed: one call, for the root.
  seen.clear();
  ASSERT_TRUE(system->EnumerateChanges(0, [&](const GNode& n, MODIFIED what) -> Result<bool> {
    seen.emplace_back(n.path.ToString(), what);
    return true;
  }));
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, MODIFIED>>{{"", MODIFIED::COMPLETE}}));
}

// The layering model compacts at random and compares every lookup and copy;
// here what it doesn't see: the stamp that tells handles, and a shallow map.
TEST_F(NodeSystemStore, CompactFlattensDeepMapsOnly) {
  std::vector<Ref<NodeSystemImpl>> copies;
  for (int round = 0; round < 7; ++round) {
    copies.push_back(Copy(*system));
    Add(*system, "n" + std::to_string(round));
  }
  ASSERT_GE(system->GetDepth(), 6u);
  const uint64_t moved = system->_movedStamp;
  ASSERT_TRUE(system->Compact());
  EXPECT_EQ(system->GetDepth(), 1u);
  EXPECT_EQ(system->_movedStamp, moved + 1);
  Ref<NodeMap> before = system->_nodes;
  ASSERT_TRUE(system->Compact());
  EXPECT_EQ(system->_nodes, before);
}

// A record with modified bits is copied neither up into a copy's layer nor
// flat by a compaction; both leave everything as it was.
TEST_F(NodeSystemStore, AModifiedRecordIsNeitherCopiedUpNorCompacted) {
  std::vector<Ref<NodeSystemImpl>> copies;
  for (int round = 0; round < 6; ++round) {
    copies.push_back(Copy(*system));
    Add(*system, "n" + std::to_string(round));
  }
  GNode handle = system->FindByPath(P("n5"));
  NodeInfo* n5 = system->GetMutable(handle, NODE_KIND::NODE).Value();
  n5->flags |= GNODE_FLAGS_IMPL::MODIFIED_TOPOLOGY;  // the system word says nothing
  const std::string message = "Can't make a copy when the base node system hasn't been validated.";
  Ref<NodeMap> before = system->_nodes;
  EXPECT_EQ(Message(system->Compact()), message);
  EXPECT_EQ(system->_nodes, before);
  Ref<NodeSystemImpl> copy = Copy(*system);
  GNode inCopy = copy->FindByPath(P("n5"));
  EXPECT_EQ(Message(copy->GetMutable(inCopy, NODE_KIND::NODE)), message);
  EXPECT_EQ(copy->FindByPath(P("n5")).info, n5);
}
}  // namespace
}  // namespace orvix::nodes
