#pragma once
// NodeSystemClassImpl: the default class of node systems. Concrete node
// spaces derive from it and override what they need.

#include "orvix/nodes/node_system_class.h"

namespace orvix::nodes {

class NodeSystemClassImpl : public NodeSystemClass {
 public:
  std::string_view GetClassId() const override { return NODE_SYSTEM_CLASS_IMPL_ID; }
  // 0: a new empty system of this class, under modification.
  Result<MutableRoot> CreateNodeSystem() override;
  // 1: the default class adds nothing at the end of a modification.
  Result<void> FinalizeModification(const MutableRoot& root, uint64_t beginStamp,
                                    FINALIZE_FLAGS flags, ChangeList* changeList) override;
  // 2: the entry of the attribute registry for `id`.
  Ref<GraphAttribute> GetDerivedAttribute(InternedId id) const override;
  // 3: the registered attribute's flags; DIRECT without one.
  ATTRIBUTE_FLAGS GetAttributeFlags(InternedId id) const override;
  // 4: the attribute's own IsSupportedBy, for a derived attribute; true for a
  // plain one; false for null.
  bool SupportsAttribute(const GraphAttribute* attribute) const override;
  // 5: 0 for the same type, 0x400 otherwise.
  Result<uint32_t> GetTypeConversionFlags(const DataType* from, const DataType* to) const override;
  // 6: the value converted to `type` by the host's conversions.
  Result<Data> ConvertValue(const DataType* type, const Data& value) const override;
  // 7: the template's SupportsImpl.
  Result<bool> SupportsTemplate(const NodeTemplate& nodeTemplate) const override;
  // 8: true. 9: the null id.
  Result<bool> CheckSelectors(const NodeTemplate& nodeTemplate,
                              std::span<const InternedId> chosen) const override;
  Result<InternedId> ResolveSelectors(const NodeTemplate& nodeTemplate,
                                      std::span<const InternedId> chosen,
                                      std::span<const InternedId> offered) const override;
  // 10: the template's InstantiateImpl; a failure writes two diagnostic
  // lines and is handed back unchanged.
  Result<Ref<NodeSystem>> InstantiateImpl(const InstantiationContext& context,
                                          const NodeTemplate* nodeTemplate,
                                          const Ref<TemplateArguments>& arguments) override;
  // 11: the default class needs no word of any change.
  Result<uint64_t> AttributeChanged(NodeSystem& system, const GNode& node, InternedId id,
                                    ATTRIBUTE_FLAGS flags, const Data& newValue,
                                    const Data& oldValue) override;
  // A new uninitialized system that takes over the state of `source`.
  //   "Illegal argument: Condition source is a NodeSystemImpl not fulfilled. "
  Result<Ref<NodeSystem>> CopyNodeSystem(const NodeSystem& source) override;
};

}  // namespace orvix::nodes
