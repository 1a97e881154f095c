// The template base, the decorator base and the default derivation handler.

#include "orvix/nodes/node_template.h"

#include "orvix/host/error.h"
#include "orvix/nodes/derivation_handler.h"
#include "orvix/nodes/node_system.h"
#include "orvix/nodes/node_system_class.h"

namespace orvix::nodes {

namespace {
Error NullObject() {
  return Error(ERROR_CLASS::NULL_OBJECT, "Null object.");
}
}  // namespace

// ---------------------------------------------------------------------------
// NodeTemplateBase: the public operations go through the class.

Result<bool> NodeTemplateBase::Supports(const NodeSystemClass* cls) const {
  if (!cls) return NullObject();
  return cls->SupportsTemplate(*this);
}

Result<Ref<NodeSystem>> NodeTemplateBase::Instantiate(
    const InstantiationContext& context, const Ref<TemplateArguments>& arguments) const {
  if (!context.nodeSystemClass) return NullObject();
  return context.nodeSystemClass->InstantiateImpl(context, this, arguments);
}

Result<Data> NodeTemplateBase::EnumerateVariants(const VariantDelegate& delegate) const {
  if (!delegate) return NullObject();
  return delegate(Data());
}

Result<bool> NodeTemplateBase::SupportsImpl(const NodeSystemClass& cls) const {
  static_cast<void>(cls);
  return true;
}

// ---------------------------------------------------------------------------
// NodeTemplateDecoratorBase: the implementation operations call the public
// ones of the decorated template, so the class is asked about both.

const NodeTemplate* NodeTemplateDecoratorBase::_Decorated() const {
  return dynamic_cast<const NodeTemplate*>(_decorated.Get());
}

Result<Data> NodeTemplateDecoratorBase::EnumerateVariants(const VariantDelegate& delegate) const {
  const NodeTemplate* decorated = _Decorated();
  if (!decorated) return NullObject();
  return decorated->EnumerateVariants(delegate);
}

Result<bool> NodeTemplateDecoratorBase::SupportsImpl(const NodeSystemClass& cls) const {
  const NodeTemplate* decorated = _Decorated();
  if (!decorated) return NullObject();
  return decorated->Supports(&cls);
}

Result<Ref<NodeSystem>> NodeTemplateDecoratorBase::InstantiateImpl(
    const InstantiationContext& context, const Ref<TemplateArguments>& arguments) const {
  const NodeTemplate* decorated = _Decorated();
  if (!decorated) return NullObject();
  return decorated->Instantiate(context, arguments);
}

bool NodeTemplateDecoratorBase::IsLocked() const {
  const NodeTemplate* decorated = _Decorated();
  return decorated && decorated->IsLocked();
}

// ---------------------------------------------------------------------------
// The default derivation handler

Result<std::optional<Data>> NodeSystemDerivationHandlerBase::DeriveAttribute(
    std::span<const GNode> portStack, const DerivedAttribute* attribute) const {
  if (!attribute) return NullObject();
  return attribute->Derive(portStack);
}

Result<std::pair<VALUEMODE, Data>> NodeSystemDerivationHandlerBase::GetDynamicValue(
    const GNode& port) const {
  static_cast<void>(port);
  return std::pair<VALUEMODE, Data>(VALUEMODE::DYNAMIC, Data());
}

bool NodeSystemDerivationHandlerBase::FilterShortcut(const GNode& source,
                                                     const GNode& target) const {
  static_cast<void>(source);
  static_cast<void>(target);
  return true;
}

const Ref<NodeSystemDerivationHandler>& NodeSystemDerivationHandlerBase::GetDefault() {
  static const Ref<NodeSystemDerivationHandler> handler =
      MakeRef<NodeSystemDerivationHandlerBase>();
  return handler;
}

}  // namespace orvix::nodes
