// NodeSystemClassImpl: making, copying and finishing plain node systems.

#include "classes/node_system_class_impl.h"

#include "store/node_system_impl.h"

namespace orvix::nodes {

Result<MutableRoot> NodeSystemClassImpl::CreateNodeSystem() {
  ORVIX_TRY_ASSIGN(Ref<NodeSystemImpl> system, NewRef<NodeSystemImpl>());
  ORVIX_TRY(system->Init(Ref<NodeSystemClass>(this)));
  ORVIX_TRY(system->BeginModification());
  MutableRoot root;
  root._root = system->GetRoot();
  root._system = std::move(system);
  return root;
}

Result<void> NodeSystemClassImpl::FinalizeModification(const GNode& root, uint64_t beginStamp,
                                                       FINALIZE_FLAGS flags,
                                                       ChangeList* changeList) {
  static_cast<void>(root);
  static_cast<void>(beginStamp);
  static_cast<void>(flags);
  static_cast<void>(changeList);
  return Ok();
}

Result<Ref<NodeSystem>> NodeSystemClassImpl::CopyNodeSystem(const NodeSystem& source) {
  const auto* impl = dynamic_cast<const NodeSystemImpl*>(&source);
  if (!impl) {
    return ConditionError(CONDITION_KIND::ILLEGAL_ARGUMENT, "source is a NodeSystemImpl");
  }
  ORVIX_TRY_ASSIGN(Ref<NodeSystemImpl> copy, NewRef<NodeSystemImpl>());
  ORVIX_TRY(copy->CopyFrom(*impl));
  return Ref<NodeSystem>(std::move(copy));
}

Ref<DerivedAttribute> NodeSystemClassImpl::GetDerivedAttribute(InternedId id) const {
  static_cast<void>(id);
  return Ref<DerivedAttribute>();
}

ATTRIBUTE_FLAGS NodeSystemClassImpl::GetAttributeFlags(InternedId id) const {
  static_cast<void>(id);
  return ATTRIBUTE_FLAGS::DIRECT;
}

Result<uint64_t> NodeSystemClassImpl::AttributeChanged(NodeSystem& system, const GNode& node,
                                                       InternedId id, ATTRIBUTE_FLAGS flags,
                                                       const Data& newValue,
                                                       const Data& oldValue) {
  static_cast<void>(system);
  static_cast<void>(node);
  static_cast<void>(id);
  static_cast<void>(flags);
  static_cast<void>(newValue);
  static_cast<void>(oldValue);
  return uint64_t{0};
}

Result<Ref<NodeSystemClass>> CreateDefaultNodeSystemClass() {
  ORVIX_TRY_ASSIGN(Ref<NodeSystemClassImpl> cls, NewRef<NodeSystemClassImpl>());
  return Ref<NodeSystemClass>(std::move(cls));
}

}  // namespace orvix::nodes
