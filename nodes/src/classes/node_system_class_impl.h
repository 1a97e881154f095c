#pragma once
// NodeSystemClassImpl: the default class of node systems. Concrete node
// spaces derive from it and override what they need.

#include "orvix/nodes/node_system_class.h"

namespace orvix::nodes {

class NodeSystemClassImpl : public NodeSystemClass {
 public:
  // A new system of this class: initialised (and so finalized), then opened
  // for modification.
  std::string_view GetClassId() const override { return NODE_SYSTEM_CLASS_IMPL_ID; }
  Result<MutableRoot> CreateNodeSystem() override;
  // The default class adds nothing at the end of a modification.
  Result<void> FinalizeModification(const GNode& root, uint64_t beginStamp, FINALIZE_FLAGS flags,
                                    ChangeList* changeList) override;
  // A new uninitialized system that takes over the state of `source`.
  //   "Illegal argument: Condition source is a NodeSystemImpl not fulfilled. "
  Result<Ref<NodeSystem>> CopyNodeSystem(const NodeSystem& source) override;
  // No attribute is derived until attributes are registered.
  Ref<DerivedAttribute> GetDerivedAttribute(InternedId id) const override;
  ATTRIBUTE_FLAGS GetAttributeFlags(InternedId id) const override;
  // The default class needs no word of any change.
  Result<uint64_t> AttributeChanged(NodeSystem& system, const GNode& node, InternedId id,
                                    ATTRIBUTE_FLAGS flags, const Data& newValue,
                                    const Data& oldValue) override;
};

}  // namespace orvix::nodes
