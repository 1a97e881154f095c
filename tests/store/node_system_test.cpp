// What the layering model doesn't see: the checks of a copy's source, the tree
// reads, change enumeration, and derived systems reading through to their
// bases, with the handles into them.

#include <algorithm>

#include "node_system_probe.h"
#include "orvix/host/diagnostics.h"
#include "store_test_support.h"

namespace orvix::nodes::test {
namespace {

using GFI = GNODE_FLAGS_IMPL;

// A copy, a derived system and a compaction all need a validated source; a
// failed one leaves everything as it was.
TEST(NodeSystemStore, CopiesDerivedSystemsAndCompactionsCheckTheirSource) {
  Ref<NodeSystemImpl> system = Empty();
  Ref<NodeSystemImpl> target = MakeRef<NodeSystemImpl>();
  const std::string noInit = "Base nodesystem hasn't been initialized.";
  EXPECT_EQ(Message(target->CopyFrom(NodeSystemImpl())), noInit);
  EXPECT_EQ(Message(NodeSystemImpl::CreateDerived(MakeRef<NodeSystemImpl>())), noInit);
  NodeSystemTestProbe::SetSystemFlags(*system, GFI::MODIFIED_PV_CHILDREN);
  const std::string noValidation = "Base nodesystem hasn't been validated.";
  EXPECT_EQ(Message(target->CopyFrom(*system)), noValidation);
  EXPECT_EQ(Message(NodeSystemImpl::CreateDerived(system)), noValidation);
  // Garbage bits alone don't stand in the way of validation, but a modified list does.
  NodeSystemTestProbe::SetSystemFlags(*system, GFI::NONE);
  GNode root = system->GetRoot();
  ASSERT_TRUE(system->SetModified(root, GFI::MODIFIED_G_VALUES_MIGHT_BE_REFERENCED));
  EXPECT_EQ(Message(target->CopyFrom(*system)),
            "Assertion failed: Condition src._firstModified == g_modifiedListEnd && "
            "!src._attribSetup && !src._portValidation && !src._instantiation not fulfilled. ");
  EXPECT_FALSE(target->IsInitialized());
  system->ClearModified(GFI::MODIFIED_MASK);
  // Derived systems point into the base's records, so the base must be closed.
  ASSERT_TRUE(system->BeginModification());
  EXPECT_EQ(Message(NodeSystemImpl::CreateDerived(system)),
            "Illegal state: Condition base->IsFinalized() && !base->_mutable not fulfilled. ");
  ASSERT_TRUE(system->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));

  // A record with modified bits (the system word says nothing) is copied
  // neither up into a copy's layer nor flat by a compaction.
  std::vector<Ref<NodeSystemImpl>> copies;
  for (int round = 0; round < 6; ++round) {
    copies.push_back(Copy(*system));
    Add(*system, "n" + std::to_string(round));
  }
  system->FindByPath(P("n5")).info->flags |= GFI::MODIFIED_TOPOLOGY;
  const std::string message = "Can't make a copy when the base node system hasn't been validated.";
  Ref<NodeMap> before = NodeSystemTestProbe::Store(*system)._nodes;
  EXPECT_EQ(Message(system->Compact()), message);
  EXPECT_EQ(NodeSystemTestProbe::Store(*system)._nodes, before);
  Ref<NodeSystemImpl> copy = Copy(*system);
  GNode inCopy = copy->FindByPath(P("n5"));
  EXPECT_EQ(Message(copy->GetMutable(inCopy, NODE_KIND::NODE)), message);
}

TEST(NodeSystemStore, TreeReads) {
  Ref<NodeSystemImpl> system = Empty();
  for (const char* p : {"a", "a/b", "a/b<", "a/b<p", "a/b<p/q", "c", "<x", "<.hidden"}) {
    Add(*system, p);
  }
  Add(*system, "<" + std::string(NODE_SYSTEM_PORT_ID));
  const GNode q = system->FindByPath(P("a/b<p/q"));
  const GNode b = system->FindByPath(P("a/b"));
  EXPECT_EQ(Must(system->GetParent(q)).path, P("a/b<p"));
  EXPECT_EQ(Must(system->GetAncestor(q, NODE_KIND::NODE)).path, P("a/b"));
  EXPECT_EQ(Must(system->GetPortList(b, PORT_DIR::INPUT)).path, P("a/b<"));
  EXPECT_FALSE(Must(system->GetPortList(b, PORT_DIR::OUTPUT)));  // never added
  EXPECT_EQ(Message(system->GetPortList(q, PORT_DIR::INPUT)),
            "Illegal argument: Condition handle.path.GetKindRaw() == NODE_KIND::NODE not "
            "fulfilled. ");
  const InternedId parts[] = {Id("b"), NodePath::GetInputsId(), Id("p")};
  EXPECT_EQ(Must(system->FindDescendant(system->FindByPath(P("a")), parts)).path, P("a/b<p"));
  // Nodes only, depth first, until the visitor answers false.
  Strings visited;
  EXPECT_FALSE(Must(system->VisitNodes(system->GetRoot(), [&](const GNode& n) -> Result<bool> {
    visited.push_back(n.path.ToString());
    return n.path != P("c");
  })));
  EXPECT_EQ(visited, (Strings{"", "a", "a/b", "c"}));

  const GNode inputs = system->FindByPath(P("<"));
  EXPECT_EQ(Must(system->GetChild(inputs, Id("x"), NODE_KIND::PORT_MASK)).path, P("<x"));
  EXPECT_FALSE(Must(system->GetChild(inputs, Id("x"), NODE_KIND::NODE)));
  // Without an id: ".hidden" and the node-system port are no candidates.
  EXPECT_EQ(Must(system->GetChild(inputs, InternedId(), NODE_KIND::INPORT)).path, P("<x"));
  Add(*system, "<z");
  EXPECT_EQ(Message(system->GetChild(inputs, InternedId(), NODE_KIND::INPORT)),
            "More than one port in <.");
  GNode a = system->FindByPath(P("a"));
  EXPECT_EQ(Message(system->GetMutable(a, NODE_KIND::INPORT)),
            "Mismatch of node kind: Expected INPORT, found NODE.");

  // What must be there and isn't is an internal error; the walk skips a child
  // record without its element.
  CapturedOutput output;
  EXPECT_FALSE(system->FindNode(P("missing"), NODE_KIND::ALL_MASK, false));
  GNode root = system->GetRoot();
  NodeInfo* rootInfo = Must(system->GetMutable(root, NODE_KIND::NODE));
  ASSERT_TRUE(system->SetChildRecord(rootInfo, Id("ghost"), CHILD_FLAGS::ADDED));
  EXPECT_FALSE(Must(system->GetChild(root, Id("ghost"), NODE_KIND::ALL_MASK)));
  EXPECT_EQ(Children(*system, ""), (Strings{"<", ">", "a", "c"}));
  EXPECT_EQ(output.Texts(OUTPUT_LEVEL::CRITICAL), Strings(3, "Stop: Internal error."));
}

TEST(NodeSystemStore, ChangesSinceAStamp) {
  Ref<NodeSystemImpl> system = Empty();
  const uint64_t start = system->GetModificationStamp();
  NodeInfo* a = Add(*system, "a");
  a->_addedStamp = NodeSystemTestProbe::Stamps(*system)._modificationStamp;
  NodeSystemTestProbe::StampStructureChange(*system);
  NodeInfo* x = Add(*system, "<x");
  x->AsPort()->_sourcesStamp = NodeSystemTestProbe::Stamps(*system)._modificationStamp;
  NodeSystemTestProbe::StampConnectionChange(*system);
  EXPECT_EQ(system->GetModifications(start), MODIFIED::NODE_MASK | MODIFIED::CONNECTION_MASK);
  std::vector<std::pair<std::string, MODIFIED>> seen;
  auto collect = [&](const GNode& n, MODIFIED what) -> Result<bool> {
    seen.emplace_back(n.path.ToString(), what);
    return true;
  };
  ASSERT_TRUE(system->EnumerateChanges(start, collect));
  ASSERT_TRUE(system->EnumerateChanges(0, collect));  // before the creation: one call, for the root
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (decltype(seen){{"", MODIFIED::COMPLETE},
                                  {"<x", MODIFIED::CONNECTION_SOURCES},
                                  {"a", MODIFIED::NODE_ADDED}}));
}

// ---------------------------------------------------------------------------
// Derived systems

// A finished base: node "a" with input port "x" (direct, tapping), node "c".
Ref<NodeSystemImpl> MakeBase() {
  Ref<NodeSystemImpl> base = Empty();
  for (const char* p : {"a", "a<", "a<x", "c"}) Add(*base, p);
  base->FindByPath(P("a<x")).info->flags |= GFI::DIRECT_PORT | GFI::TAPPING_PORT;
  return base;
}

TEST(DerivedSystem, ItHoldsWhatItChangesAndReadsTheRestThroughItsBase) {
  Ref<NodeSystemImpl> base = MakeBase();
  Ref<NodeSystemImpl> derived = Must(NodeSystemImpl::CreateDerived(base));
  EXPECT_EQ(derived->GetEntryCount(), 1u);
  GNode x = derived->FindByPath(P("a<x"));
  NodeInfo* baseX = base->FindByPath(P("a<x")).info;
  EXPECT_EQ(x.system, base.Get());
  EXPECT_EQ(x.info, baseX);
  EXPECT_EQ(Must(derived->GetFlags(x)), GNODE_FLAGS::DIRECT_PORT | GNODE_FLAGS::TAPPING_PORT);

  // An own record starts empty with the inherited flags; the foreign handle follows it.
  GNode write = x;
  NodeInfo* own = Must(derived->GetMutable(write, NODE_KIND::INPORT));
  EXPECT_EQ(own->base, baseX);
  EXPECT_EQ(own->flags, GFI(NODE_KIND::INPORT) | GFI::DIRECT_PORT | GFI::TAPPING_PORT);
  derived->Refresh(x);
  EXPECT_EQ(x.info, own);

  // Children come from the own table first, then the base's, the nearest deciding.
  Add(*derived, "b");
  Add(*derived, "z");
  Remove(*derived, "c");
  EXPECT_EQ(Children(*derived, ""), (Strings{"b", "z", "<", ">", "a"}));
  EXPECT_EQ(Children(*base, ""), (Strings{"<", ">", "a", "c"}));
  // A stale handle is looked up again, never dereferenced: the sanitizer sees any read.
  Remove(*derived, "a");
  EXPECT_FALSE(derived->IsValid(x));
  EXPECT_EQ(Message(derived->Resolve(x)), "Node with path a<x doesn't exist any longer.");
  EXPECT_EQ(x.info, nullptr);
  EXPECT_EQ(Message(derived->GetFlags(x)), "Nullptr node");
}

TEST(DerivedSystem, ARemovalHalfwayDownAChainOfBasesHidesThePathAboveIt) {
  std::vector<Ref<NodeSystemImpl>> chain{MakeBase()};
  for (int level = 1; level <= 5; ++level) {
    if (level == 3) Remove(*chain.back(), "a");
    chain.push_back(Must(NodeSystemImpl::CreateDerived(chain.back())));
  }
  const NodeSystemImpl& top = *chain.back();
  EXPECT_FALSE(top.FindByPath(P("a")) || top.FindByPath(P("a<x")));
  EXPECT_FALSE(chain[2]->FindByPath(P("a<x")));
  EXPECT_TRUE(chain[1]->FindByPath(P("a<x")));
  EXPECT_EQ(top.FindByPath(P("c")).system, chain[0].Get());
  EXPECT_EQ(Children(top, ""), (Strings{"<", ">", "c"}));
}

}  // namespace
}  // namespace orvix::nodes::test
