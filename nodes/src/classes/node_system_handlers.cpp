// NodeSystemImpl: the system's template and derivation handler, and those of
// the nodes in it.

#include <new>
#include <utility>

#include "orvix/host/error.h"
#include "orvix/nodes/derivation_handler.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

namespace {
// The nested system of the child node that `path` leads into; null for the
// root and the root's ports, or a node without a base system. `isNode` tells
// whether the path leads into a child node at all.
NodeSystemImpl* ChildBaseSystem(const NodeSystemImpl& system, const NodePath& path, bool* isNode) {
  const InternedId first = path.GetPart(0);
  *isNode = first.IsPopulated() && !NodePath::IsPortListPart(first);
  if (!*isNode) return nullptr;
  const InternedId part[] = {first};
  const FoundNode found = system.FindNode(NodePath::Block(part), NODE_KIND::NODE);
  if (!found || !found.info->HasFlags(GNODE_FLAGS_IMPL::DIRECT_INSTANCE)) return nullptr;
  return found.info->AsNode()->GetNestedSystemImpl();
}
}  // namespace

Ref<NodeSystemDerivationHandler> NodeSystemImpl::GetDerivationHandler() const {
  return _classState._derivationHandler ? _classState._derivationHandler
                                        : NodeSystemDerivationHandlerBase::GetDefault();
}

Result<void> NodeSystemImpl::SetDerivationHandler(Ref<NodeSystemDerivationHandler> handler) {
  if (!handler) return ConditionError(CONDITION_KIND::ILLEGAL_ARGUMENT, "handler");
  // A shared system is read by other threads without locks.
  ORVIX_TRY(CheckModification(false));
  _classState._derivationHandler = std::move(handler);
  return Ok();
}

Result<void> NodeSystemImpl::SetTemplate(const NodeTemplate* nodeTemplate,
                                         Ref<TemplateArguments> arguments,
                                         const Ref<RefCounted>& owner) {
  // Applying the arguments will edit ports, so the bracket is required now
  // already, and callers need not change when it comes.
  ORVIX_TRY(CheckModification(true));
  // The weak handle may need its control block: the one allocation, made
  // before anything is stored so that a failure leaves the system as it was.
  WeakRef<RefCounted> weakOwner;
  if (nodeTemplate && owner) {
    try {
      weakOwner = WeakRef<RefCounted>(owner);
    } catch (const std::bad_alloc&) {
      return OutOfMemoryError();
    }
  }
  // Templates are immutable in all that a system asks of them; the reference
  // is a plain one only because templates are handed out so everywhere.
  _classState._template = Ref<NodeTemplate>(const_cast<NodeTemplate*>(nodeTemplate));
  _classState._templateArguments = nodeTemplate ? std::move(arguments) : Ref<TemplateArguments>();
  _classState._templateOwner = std::move(weakOwner);
  return Ok();
}

Result<Ref<NodeTemplate>> NodeSystemImpl::GetNodeTemplate(const NodePath& path) const {
  bool isNode = false;
  const NodeSystemImpl* base = ChildBaseSystem(*this, path, &isNode);
  if (!isNode) return _classState._template;
  return base ? base->_classState._template : Ref<NodeTemplate>();
}

Result<Ref<NodeSystemDerivationHandler>> NodeSystemImpl::GetNodeDerivationHandler(
    const NodePath& path) const {
  bool isNode = false;
  const NodeSystemImpl* base = ChildBaseSystem(*this, path, &isNode);
  if (!isNode) return GetDerivationHandler();
  return base ? base->GetDerivationHandler() : NodeSystemDerivationHandlerBase::GetDefault();
}

}  // namespace orvix::nodes
