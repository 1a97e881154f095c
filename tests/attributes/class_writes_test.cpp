// Writes that the class makes while it is told of a change, and values handed
// out across compaction: the cases in which a write could pull the table from
// under a reader.

#include <gtest/gtest.h>

#include <string>

#include "must.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system_class_impl.h"
#include "store/node_system_impl.h"

namespace orvix::nodes::test {
namespace {

NodePath Path(std::string_view text) {
  return Must(NodePath::Parse(text));
}
InternedId Key(std::string_view text) {
  return InternedId::Get(text);
}

// A class that writes values of the same element while it is told.
class WritingClass : public NodeSystemClassImpl {
 public:
  enum class MODE { NONE, RESET_SAME, GROW_TABLE };
  MODE mode = MODE::NONE;
  Data oldSeen;
  Result<uint64_t> AttributeChanged(NodeSystem& system, const GNode& node, InternedId id,
                                    ATTRIBUTE_FLAGS flags, const Data& newValue,
                                    const Data& oldValue) override {
    const MODE m = std::exchange(mode, MODE::NONE);
    if (m == MODE::RESET_SAME) ORVIX_TRY(system.ResetValue(node, id, nullptr));
    for (int i = 0; m == MODE::GROW_TABLE && i < 8; ++i) {
      ORVIX_TRY(system.SetValue(node, Key("other" + std::to_string(i)), Data(int64_t{i}), nullptr));
    }
    oldSeen = oldValue;
    return NodeSystemClassImpl::AttributeChanged(system, node, id, flags, newValue, oldValue);
  }
};

// Fixed faults: the old value handed to the class was read from the table
// that the class's own writes replaced, and a write whose record the class
// removed wrote into the freed record.
TEST(ClassWrites, TheOldValueOutlivesTheClassesOwnWritesAndARemovedRecordComesBack) {
  Ref<WritingClass> cls = MakeRef<WritingClass>();
  MutableRoot root = Must(cls->CreateNodeSystem());
  NodeSystem& s = *root._system;
  const GNode x = Must(s.AddPort(s.FindByPath(Path("<")), "x", GNODE_FLAGS::NONE, nullptr));
  const Data long_(std::string(100, 'a'));
  ASSERT_TRUE(s.SetValue(x, Key("label"), long_, nullptr));

  cls->mode = WritingClass::MODE::GROW_TABLE;
  ASSERT_TRUE(Must(s.SetValue(x, Key("label"), Data("new"), nullptr)));
  EXPECT_EQ(cls->oldSeen, long_);
  EXPECT_EQ(*Must(s.GetValue(x, Key("label"))), Data("new"));

  // The class takes the record away; the write still lands.
  cls->mode = WritingClass::MODE::RESET_SAME;
  ASSERT_TRUE(Must(s.SetValue(x, Key("label"), Data("two"), nullptr)));
  EXPECT_EQ(*Must(s.GetValue(x, Key("label"))), Data("two"));
  cls->mode = WritingClass::MODE::RESET_SAME;
  ASSERT_TRUE(Must(s.EraseValue(x, Key("label"), nullptr)));
  EXPECT_TRUE(Must(s.GetValue(x, Key("label")))->IsEmpty());
}

// Fixed fault: Compact freed the layers that a value handed out during the
// modification still pointed into.
TEST(ClassWrites, CompactWaitsUntilTheModificationEnds) {
  MutableRoot first = Must(Must(CreateDefaultNodeSystemClass())->CreateNodeSystem());
  const GNode inputs = first._system->FindByPath(Path("<"));
  ASSERT_TRUE(first._system->AddPort(inputs, "x", GNODE_FLAGS::NONE, nullptr));
  const GNode y = Must(first._system->AddPort(inputs, "y", GNODE_FLAGS::NONE, nullptr));
  ASSERT_TRUE(first._system->SetValue(y, Key("label"), Data(std::string(100, 'y')), nullptr));
  Ref<NodeSystem> system = Must(first.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  // Each round writes on a copy of a shared system: one more layer.
  for (int round = 0; round < 7; ++round) {
    Ref<NodeSystem> keep = system;
    MutableRoot edit = Must(BeginModification(system, false));
    NodeSystemImpl& s = static_cast<NodeSystemImpl&>(*edit._system);
    ASSERT_TRUE(s.SetValue(s.FindByPath(Path("<x")), Key("n"), Data(int64_t{round}), nullptr));
    keep.Reset();
    if (round == 6) {
      ASSERT_GE(s.GetDepth(), NodeSystemImpl::COMPACT_DEPTH);
      const Data* held = Must(s.GetValue(s.FindByPath(Path("<y")), Key("label")));
      ASSERT_TRUE(s.Compact());
      EXPECT_EQ(*held, Data(std::string(100, 'y')));
      EXPECT_GE(s.GetDepth(), NodeSystemImpl::COMPACT_DEPTH);
    }
    system = Must(edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  }
  ASSERT_TRUE(system->Compact());
  EXPECT_EQ(static_cast<NodeSystemImpl&>(*system).GetDepth(), 1u);
}

}  // namespace
}  // namespace orvix::nodes::test
