// NodeSystemImpl: initialisation, and the modification bracket with its
// copy-on-write entry.

#include <new>
#include <optional>
#include <utility>

#include "orvix/host/diagnostics.h"
#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "orvix/nodes/config_variables.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system_class.h"
#include "orvix/nodes/node_template.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

namespace {
constexpr std::string_view ALREADY_MODIFYING =
    "BeginModification() called while there already is an active modification.";
constexpr std::string_view NOT_WITHIN_MODIFICATION =
    "Node system modification not within BeginModification()/EndModification().";
constexpr std::string_view NULL_OBJECT_TEXT = "Null object.";

Error NullObjectError(SourceLocation where = SourceLocation::current()) {
  return Error(ERROR_CLASS::NULL_OBJECT, std::string(NULL_OBJECT_TEXT), where);
}

// Debug builds check at every end of a modification that each wire reads
// alike from both of its ends, so that a fault in the walk or the edits shows
// at the end that made it; release builds only when g_testGetConnections asks.
// A failure is the end's error either way.
#ifndef NDEBUG
constexpr bool CHECK_CONNECTIONS_ALWAYS = true;
#else
constexpr bool CHECK_CONNECTIONS_ALWAYS = false;
#endif
}  // namespace

// ---------------------------------------------------------------------------
// Initialisation

Result<GNode> NodeSystemImpl::Init(Ref<NodeSystemClass> cls) {
  if (IsInitialized() || _store._mutable || !cls) {
    return ConditionError(CONDITION_KIND::ILLEGAL_ARGUMENT, "!IsInitialized() && !_mutable && cls");
  }
  _classState._class = std::move(cls);
  try {
    _store._bases.push_back(nullptr);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  _stamps._beginStamp = _stamps._modificationStamp;
  _store._mutable = true;
  ORVIX_TRY_ASSIGN(_store._nodes, NodeMap::Create(nullptr));
  GNode root;
  ORVIX_TRY_ASSIGN(NodeInfo * rootInfo, GetMutable(root, NODE_KIND::NODE));
  rootInfo->_addedStamp = _stamps._modificationStamp;
  ORVIX_TRY_ASSIGN(_validation._topology, NewRef<TopologyData>());
  // Until the attribute stage fills it, the table knows no derived attribute.
  ORVIX_TRY_ASSIGN(_attributes._derivedAttributes, NewRef<DerivedAttributeTable>());
  ORVIX_TRY(_InitDerivedAttributes());
  const struct {
    InternedId id;
    NODE_KIND kind;
  } lists[] = {{NodePath::GetInputsId(), NODE_KIND::INPUTS},
               {NodePath::GetOutputsId(), NODE_KIND::OUTPUTS}};
  for (const auto& list : lists) {
    ORVIX_TRY(AddChildRecord(root, list.kind, list.id, GNode(), GNODE_FLAGS_IMPL::NONE));
  }
  ORVIX_TRY(_InitRootAttributes());
  _stamps._completeStamp = _stamps._modificationStamp;
  ORVIX_TRY(EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  return GetRoot();
}

Result<Ref<NodeSystemImpl>> NodeSystemImpl::CreateEmpty() {
  ORVIX_TRY_ASSIGN(Ref<NodeSystemClass> cls, CreateDefaultNodeSystemClass());
  ORVIX_TRY_ASSIGN(Ref<NodeSystemImpl> system, NewRef<NodeSystemImpl>());
  ORVIX_TRY(system->Init(std::move(cls)));
  return system;
}

// ---------------------------------------------------------------------------
// The bracket

Result<void> NodeSystemImpl::CheckModification(bool requireModification) const {
  // A system under edit has exactly one owner; that is what lets the model
  // run without locks. The loader reaches a system under construction through
  // references of its own, so the test waits until it is done.
  if (!_store._loadContext && GetReferenceCount() > 1) {
    // The template's id names the system; a system no template made has none.
    const std::string_view name =
        _classState._template ? _classState._template->GetId() : std::string_view();
    return Error(ERROR_CLASS::ILLEGAL_STATE,
                 FormatMessage("More than one reference to node system @.", name));
  }
  if (requireModification && !_store._mutable) {
    return Error(ERROR_CLASS::ILLEGAL_STATE, std::string(NOT_WITHIN_MODIFICATION));
  }
  return Ok();
}

Result<void> NodeSystemImpl::BeginModification() {
  if (_store._mutable) return Error(ERROR_CLASS::ILLEGAL_STATE, std::string(ALREADY_MODIFYING));
  ORVIX_CHECK_STATE(IsInitialized());
  ORVIX_TRY(CheckModification(false));
  // Whatever is edited now is no longer what the template made; the owner
  // went with the template.
  _classState._template.Reset();
  _classState._templateArguments.Reset();
  _classState._templateOwner.Reset();
  _stamps._beginStamp = _stamps._modificationStamp;
  _store._mutable = true;
  return Ok();
}

Result<void> NodeSystemImpl::EndModification(ChangeList* changeList, FINALIZE_FLAGS flags) {
  // The conditions are spelled out: their text is the message, which names
  // the members as clients know them.
  if (!_store._mutable) return ConditionError(CONDITION_KIND::ILLEGAL_STATE, "_mutable");
  // An end from inside the class's FinalizeModification would finish the
  // system under the feet of the end that called the class.
  if (_store._finalizing) return ConditionError(CONDITION_KIND::ILLEGAL_STATE, "!_finalizing");
  if (flags != FINALIZE_FLAGS::NONE) {
    if (!_classState._class) return NullObjectError();
    // The class may still edit, through a root that borrows this system: the
    // caller's reference stays the only counted one, so the class's edits
    // pass the reference test. A failure here or in validation leaves the
    // system mutable, so the caller can repair and end again.
    _store._finalizing = true;
    Result<void> finalized = [&] {
      const MutableRoot root(*this, GetRoot());
      return _classState._class->FinalizeModification(root, _stamps._beginStamp, flags, changeList);
    }();
    _store._finalizing = false;
    ORVIX_TRY(std::move(finalized));
    ORVIX_TRY(Validate(changeList));
  }
  ORVIX_TRY(PurgeGarbage());
  _SortChildTables();
  _store._mutable = false;
  _attributes._retiredTables.clear();
  if (CHECK_CONNECTIONS_ALWAYS || g_testGetConnections.Get()) {
    ORVIX_TRY(CheckConnectionConsistency());
  }
  return Ok();
}

Result<MutableRoot> BeginModification(Ref<NodeSystem>& system, bool keepOld) {
  // The old object is held here until the call returns whether or not
  // `keepOld` asks for it: a failed begin puts it back.
  static_cast<void>(keepOld);
  if (!system) return NullObjectError();
  Ref<NodeSystem> old;
  if (!system->HasSingleOwner()) {
    Ref<NodeSystemClass> cls = system->GetClass();
    if (!cls) return NullObjectError();
    ORVIX_TRY_ASSIGN(Ref<NodeSystem> copy, cls->CopyNodeSystem(*system));
    old = std::exchange(system, std::move(copy));
  }
  Result<void> begun = system->BeginModification();
  if (!begun) {
    if (old) system = std::move(old);
    return std::move(begun).GetError();
  }
  MutableRoot root;
  root._root = system->GetRoot();
  root._system = std::move(system);
  return root;
}

// ---------------------------------------------------------------------------
// MutableRoot

MutableRoot::MutableRoot(NodeSystem& system, GNode root) noexcept
    : _system(Ref<NodeSystem>::Adopt(&system)), _root(std::move(root)), _borrowed(true) {}

MutableRoot::MutableRoot(const MutableRoot& other) : _system(other._system), _root(other._root) {}

MutableRoot::MutableRoot(MutableRoot&& other) noexcept : _root(std::move(other._root)) {
  // A borrowed root has no count to hand on: the new root takes its own.
  if (other._borrowed) {
    _system = other._system;
  } else {
    _system = std::move(other._system);
  }
}

MutableRoot& MutableRoot::operator=(const MutableRoot& other) {
  if (this != &other) *this = MutableRoot(other);
  return *this;
}

MutableRoot& MutableRoot::operator=(MutableRoot&& other) noexcept {
  if (this == &other) return *this;
  _Drop();
  _system = other._borrowed ? other._system : std::move(other._system);
  _root = std::move(other._root);
  return *this;
}

MutableRoot::~MutableRoot() {
  _Drop();
}

void MutableRoot::_Drop() noexcept {
  if (_borrowed) {
    static_cast<void>(_system.Release());
    _borrowed = false;
  }
  _system.Reset();
}

Result<Ref<NodeSystem>> MutableRoot::EndModification(ChangeList* changeList, FINALIZE_FLAGS flags) {
  ORVIX_CHECK_STATE(!_borrowed);
  ORVIX_CHECK_STATE(_system);
  ORVIX_TRY(_system->EndModification(changeList, flags));
  // The finished system goes to the caller: no reference stays behind to
  // make the next BeginModification copy it.
  _root = GNode();
  return std::move(_system);
}

}  // namespace orvix::nodes
