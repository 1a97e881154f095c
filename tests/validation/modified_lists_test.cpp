// Modified bits and the two levels of modified lists.

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <map>

#include "node_system_probe.h"
#include "validation_test_support.h"

namespace orvix::nodes::test {
namespace {

TEST(NestedModifiedBits, EachBitMapsToItsNestedCounterpart) {
  // The bits of a wire edit at each end, of a new element, and the rest.
  const struct {
    GFI set;
    GFI top;
  } rows[] = {
      {GFI(0x8209000000), MODIFIED_NESTED_TOPOLOGY | MODIFIED_PV_NESTED_INHERITED |
                              MODIFIED_AV_NESTED_SOURCES | MODIFIED_SAV_NESTED_SOURCES},
      {GFI(0x10411000000), MODIFIED_NESTED_TOPOLOGY | MODIFIED_PV_NESTED_SYNTHESIZED |
                               MODIFIED_AV_NESTED_TARGETS | MODIFIED_SAV_NESTED_TARGETS},
      {GFI(0x411c000000), MODIFIED_PV_NESTED_INHERITED | MODIFIED_PV_NESTED_SYNTHESIZED |
                              MODIFIED_AV_NESTED_ATTRIBUTES | MODIFIED_SAV_NESTED_ATTRIBUTES},
      {MODIFIED_PV_SHORTCUT | MODIFIED_G_VALUES_MIGHT_BE_REFERENCED,
       MODIFIED_PV_NESTED_INHERITED | MODIFIED_G_NESTED_GARBAGE},
      {MODIFIED_NESTED_TOPOLOGY | MODIFIED_SAV_LOOP_DEPENDENCIES_CHANGE |
           MODIFIED_AV_NESTED_ATTRIBUTES | DIRECT_PORT,
       GFI::NONE},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(NestedModifiedBits(row.set), row.top) << ToString(row.set);
  }
}

// Random touches and clears keep the lists exact: a record is listed, once,
// exactly when it has modified bits (a top-level port also while its nested
// list is not empty), nested ports only on their port's list, each top-level
// port carries exactly the nested bits of what its list holds, and the system
// word is what the listed records carry.
RC_GTEST_PROP(ModifiedListsProperty, RandomTouchesAndClearsKeepTheListsExact, ()) {
  Ref<NodeSystemImpl> s = NewSystem();
  RC_ASSERT(bool(s->BeginModification()));
  const Strings paths = {"b", "b<p", "b<p/n", "b<p/n/m", "b>q", "b>q/r", "<top", "<top/k"};
  for (const std::string& p : paths) Add(*s, {p});
  s->ClearModified(MODIFIED_MASK);
  const GFI allNested = NestedModifiedBits(MODIFIED_MASK);
  // Whole groups, and single bits whose nested bit stands for them alone.
  const GFI topology = MODIFIED_TOPOLOGY | MODIFIED_NESTED_TOPOLOGY;
  const GFI garbage = MODIFIED_G_VALUES_MIGHT_BE_REFERENCED | MODIFIED_G_NESTED_GARBAGE;
  const std::vector<GFI> clears = {
      topology, MODIFIED_PV_ALL,     MODIFIED_AV_ALL,     MODIFIED_SAV_ALL,
      garbage,  MODIFIED_AV_SOURCES, MODIFIED_SAV_TARGETS};
  const std::vector<GFI> touches = {
      GFI(0x8209000000),      GFI(0x411c000000),    MODIFIED_TOPOLOGY,
      MODIFIED_PV_CHILDREN,   MODIFIED_PV_SOURCES,  MODIFIED_PV_TARGETS,
      MODIFIED_AV_ATTRIBUTES, MODIFIED_SAV_TARGETS, MODIFIED_G_VALUES_MIGHT_BE_REFERENCED};
  const auto ops = *rc::gen::container<std::vector<std::tuple<int, size_t, size_t>>>(
      rc::gen::tuple(rc::gen::inRange(0, 4), rc::gen::inRange<size_t>(0, paths.size()),
                     rc::gen::inRange<size_t>(0, touches.size())));
  for (const auto& [kind, which, bits] : ops) {
    if (kind == 0) {
      s->ClearModified(clears[(which + bits) % clears.size()]);
    } else {
      GNode h = s->MakeHandle(P(paths[which]));
      RC_ASSERT(bool(s->SetModified(h, touches[bits])));
    }
    std::map<const NodeInfo*, int> seen;
    GFI word = GFI::NONE;
    for (NodeInfo* r = NodeSystemTestProbe::Validation(*s)._firstModified; r != g_modifiedListEnd;
         r = r->_nextModified) {
      RC_ASSERT(++seen[r] == 1);
      RC_ASSERT(!r->_path.GetCount() || !HasAny(r->GetKind(), NODE_KIND::PORT_MASK) ||
                r->_path.IsTopLevelPort());
      if (const PortRecord* port = r->AsPort()) {
        GFI expected = GFI::NONE;
        for (NodeInfo* n = port->_firstNestedModified; n != g_modifiedListEnd;
             n = n->_nextModified) {
          RC_ASSERT(++seen[n] == 1);
          expected |= NestedModifiedBits(n->flags & MODIFIED_MASK);
          word |= n->flags & MODIFIED_MASK;
        }
        RC_ASSERT((r->flags & allNested) == expected);
      }
      RC_ASSERT(HasAny(r->flags, MODIFIED_MASK));
      word |= r->flags & MODIFIED_MASK;
    }
    RC_ASSERT(NodeSystemTestProbe::Validation(*s)._systemFlags == word);
    for (const std::string& p : paths) {
      const NodeInfo* r = s->FindNode(P(p)).info;
      RC_ASSERT(HasAny(r->flags, MODIFIED_MASK) == (seen.count(r) == 1));
    }
  }
  s->ClearModified(MODIFIED_MASK);
  RC_ASSERT(NodeSystemTestProbe::Validation(*s)._firstModified == g_modifiedListEnd &&
            s->IsFinalized());
}

// A node a with the input a<in (nested x, x/y, z) and the output a>out.
TEST(ModifiedLists, NewRecordsGoToTheFrontOfTheirListOnceAndGarbageWaitsThereForPurge) {
  Ref<NodeSystemImpl> s = NewSystem();
  ASSERT_TRUE(s->BeginModification());
  Add(*s, {"a", "a<in", "a<in/x", "a<in/x/y", "a<in/z", "a>out"});
  s->ClearModified(MODIFIED_MASK);
  Mark(*s, "a", MODIFIED_PV_CHILDREN);
  Mark(*s, "a<in/x/y", MODIFIED_AV_SOURCES);
  Mark(*s, "a<in/z", MODIFIED_AV_SOURCES);
  Mark(*s, "a<in/x/y", MODIFIED_PV_CHILDREN);  // listed already
  Mark(*s, "<", MODIFIED_PV_CHILDREN);
  Mark(*s, "a", MODIFIED_AV_ATTRIBUTES);  // already listed: stays where it is
  Mark(*s, "a>out", MODIFIED_AV_ATTRIBUTES);
  EXPECT_EQ(Listed(NodeSystemTestProbe::Validation(*s)._firstModified),
            (Strings{"a>out", "<", "a<in", "a"}));
  const PortRecord* in = s->FindNode(P("a<in")).info->AsPort();
  EXPECT_EQ(Listed(in->_firstNestedModified), (Strings{"a<in/z", "a<in/x/y"}));

  // Removed while listed: marked, out of the map, still allocated.
  ASSERT_TRUE(s->RemoveEntry(P("a<in/x/y")));
  ASSERT_TRUE(s->RemoveEntry(P("a>out")));
  EXPECT_EQ(Listed(in->_firstNestedModified), (Strings{"a<in/z", "a<in/x/y"}));
  EXPECT_EQ(Message(s->PurgeGarbage()), "Illegal state: Condition IsValidated() not fulfilled. ");
  // The removal marks the top-level port and the system word itself, so the
  // garbage pass walks the nested list and the system isn't finalized early.
  EXPECT_TRUE(HasAny(ModifiedOf(*s, "a<in"), MODIFIED_G_NESTED_GARBAGE));
  EXPECT_TRUE(HasAll(NodeSystemTestProbe::Validation(*s)._systemFlags,
                     MODIFIED_G_GARBAGE | MODIFIED_G_NESTED_GARBAGE));
  ASSERT_TRUE(s->Validate(nullptr));
  EXPECT_FALSE(s->IsFinalized());
  ASSERT_TRUE(s->PurgeGarbage());  // the sanitizer sees a leak or a double free
  EXPECT_EQ(NodeSystemTestProbe::Validation(*s)._firstModified, g_modifiedListEnd);
  EXPECT_TRUE(s->IsFinalized());
}

}  // namespace
}  // namespace orvix::nodes::test
