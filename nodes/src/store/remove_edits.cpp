// NodeSystemImpl: the edits that take elements away. Remove takes a node or a
// port with its subtree and every connection to it; ResetChild takes back this
// system's difference about a child. In a derived system both come down to
// the parent's child record: without ADDED it hides the base's child.

#include <new>
#include <utility>
#include <vector>

#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

namespace {
using GFI = GNODE_FLAGS_IMPL;

bool StartsWithPortList(const NodePath& path) {
  const InternedId first = path.GetPart(0);
  return first == NodePath::GetInputsId() || first == NodePath::GetOutputsId();
}

// Whether the levels below `parent`'s own record have the child `id`: the
// nearest record of its base chain with a child record of the id decides.
// Asked of the parent's chain rather than by path, since this system's own
// record of a child it added again would take the base's child for hidden.
bool BaseHasChild(const NodeInfo& parent, InternedId id) {
  for (const NodeInfo* r = parent.base; r; r = r->base) {
    if (const ChildRecord* child = r->children.Find(id)) {
      return HasAny(child->flags, CHILD_FLAGS::ADDED);
    }
  }
  return false;
}

Result<NodePath> ParentPath(const NodePath& path) {
  return path.Slice(0, NodePath::SliceCount(int64_t(path.GetCount()) - 1));
}
}  // namespace

// A removal runs in two phases, so that running out of memory can't leave
// half a subtree behind. The first gathers the subtree, marks the ports wired
// to it from outside and fetches for writing every record the second phase
// writes; none of that changes what a reader sees. The second takes the
// subtree away and allocates nothing.
Result<void> NodeSystemImpl::_PlanRemoval(const GNode& node, const NodePath& top,
                                          RemovalPlan& plan) {
  std::vector<InternedId> children;
  {
    ChildIterator it;
    StartChildren(it, node);
    for (InternedId id = NextChildId(it); id.IsPopulated(); id = NextChildId(it)) {
      children.push_back(id);
    }
  }
  for (const InternedId id : children) {
    ORVIX_TRY_ASSIGN(NodePath childPath, node.path.Append(id));
    GNode child = MakeResolvedHandle(childPath);
    if (child) ORVIX_TRY(_PlanRemoval(child, top, plan));
  }

  GNode element = node;
  ORVIX_TRY(Resolve(element));
  plan.paths.push_back(element.path);
  if (HasAny(element.path.GetKindRaw(), NODE_KIND::PORT_MASK)) {
    // The other ends lose a source or a target, whether this system stored
    // the wire or a base did. Marking makes their records this system's own,
    // so their connection stamps can move too, for readers that compare them.
    std::vector<PortTouch> touches;
    ORVIX_TRY(CollectConnectedPorts(element, &top, touches));
    ORVIX_TRY(MarkTouches(touches));
    for (PortTouch& touch : touches) {
      ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(touch.port, NODE_KIND::NONE));
      PortRecord* other = info->AsPort();
      if (!other) return ConditionError(CONDITION_KIND::ASSERTION, "other end is a port");
      (touch.bits == GFI::MODIFIED_SOURCES ? other->_sourcesStamp : other->_targetsStamp) =
          _stamps._modificationStamp;
      _stamps._connectionStamp = _stamps._modificationStamp;
    }
  }
  if (element.system != this) return Ok();
  ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(element, NODE_KIND::NONE));
  plan.held.push_back(element.path);
  if (ConnectionTable* table = ConnectionTableOf(info)) {
    ORVIX_TRY(_PlanClearConnections(element.path, *table, plan));
  }
  return Ok();
}

Result<void> NodeSystemImpl::_PlanClearConnections(const NodePath& self,
                                                   const ConnectionTable& table,
                                                   RemovalPlan& plan) {
  std::vector<std::pair<ConnectionKey, bool>> reverse;
  table.ForEach([&](const ConnectionKey& key, const ConnectionData&) {
    const bool shortcutSource = key.GetType() == CONNECTION_TYPE::SHORTCUT &&
                                key.GetDirection() == CONNECTION_DIRECTION::SOURCE;
    if (key.GetType() == CONNECTION_TYPE::NORMAL || shortcutSource) {
      reverse.emplace_back(key, shortcutSource);
    }
    return true;
  });
  for (const auto& [key, shortcutSource] : reverse) {
    // A normal connection is held at both ends. A source shortcut has its
    // reverse only at a shortcut stop port, so a missing one is no fault.
    GNode other = MakeHandle(key.other);
    if (!other) {
      if (shortcutSource) continue;
      return ConditionError(CONDITION_KIND::ASSERTION, "reverse connection exists");
    }
    ORVIX_TRY_ASSIGN(NodeInfo * otherInfo, GetMutable(other, NODE_KIND::NONE));
    const ConnectionTable* otherTable = ConnectionTableOf(otherInfo);
    if (!shortcutSource && !(otherTable && otherTable->Find(key.Reversed(self)))) {
      return ConditionError(CONDITION_KIND::ASSERTION, "reverse connection exists");
    }
    // A stop port loses a source shortcut: marked now, like every other
    // mark of the removal, before anything goes.
    if (shortcutSource) ORVIX_TRY(SetModified(other, GFI::MODIFIED_SAV_TARGETS));
    plan.reverse.push_back({key.other, key.Reversed(self)});
  }
  return Ok();
}

void NodeSystemImpl::_ApplyRemoval(RemovalPlan& plan) noexcept {
  for (const RemovalPlan::Reverse& r : plan.reverse) {
    if (ConnectionTable* table = ConnectionTableOf(_store._nodes->Find(r.other)))
      table->Erase(r.key);
  }
  for (const NodePath& path : plan.held) {
    if (ConnectionTable* table = ConnectionTableOf(_store._nodes->Find(path))) table->Clear();
    static_cast<void>(RemoveEntry(path));
  }
  NoteRemoval();
  if (LoopTables* loops = _attributes._loops.get()) {
    for (const NodePath& path : plan.paths) {
      if (loops->_loopDependencies.erase(path) > 0) {
        _validation._systemFlags |= GFI::MODIFIED_SAV_LOOP_DEPENDENCIES_CHANGE;
      }
    }
  }
}

Result<void> NodeSystemImpl::_MarkChildRemoved(GNode& parent) {
  GFI bits = GFI::MODIFIED_PV_CHILDREN;
  if (!HasAny(parent.path.GetKindRaw(), NODE_KIND::PORT_MASK)) bits |= GFI::MODIFIED_TOPOLOGY;
  return SetModified(parent, bits);
}

void NodeSystemImpl::_NoteChildRemoved(NodeInfo& parent) noexcept {
  _stamps._removedStamp = _stamps._createdStamp;
  ++_stamps._modificationStamp;
  parent._childRemovedStamp = _stamps._modificationStamp;
  _stamps._structureStamp = _stamps._modificationStamp;
  _NoteHidingChildRecord();
}

Result<void> NodeSystemImpl::RemoveImpl(const GNode& node, ChangeList* changeList, bool derived) {
  static_cast<void>(changeList);
  ORVIX_TRY(CheckModification(true));
  GNode element = node;
  ORVIX_TRY_ASSIGN(NodeInfo * info, Resolve(element));
  const NodePath& path = element.path;
  const NODE_KIND kind = element.GetKind();
  if (kind == NODE_KIND::NODE && path.GetCount() > 0) {
    if (path.GetCount() != 1) {
      return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                   FormatMessage("Node @ cannot be removed. Only children of the node system's "
                                 "root can be removed.",
                                 path));
    }
  } else if (HasAny(kind, NODE_KIND::PORT_MASK)) {
    if (path.IsTopLevelPort() && !StartsWithPortList(path)) {
      return Error(
          ERROR_CLASS::ILLEGAL_ARGUMENT,
          FormatMessage("Top-level port @ cannot be removed. It belongs to a nested node.", path));
    }
  } else {
    return Error(
        ERROR_CLASS::ILLEGAL_ARGUMENT,
        FormatMessage("@ cannot be removed. This is not a valid path of a node or port.", path));
  }
  if (info->HasFlags(GFI::DERIVED_PORT_MASK) && !info->HasFlags(GFI::DIRECT_PORT) && !derived) {
    return Error(
        ERROR_CLASS::ILLEGAL_ARGUMENT,
        FormatMessage("@ is a derived port, therefore it cannot be removed directly.", path));
  }
  ORVIX_TRY_ASSIGN(NodePath parentPath, ParentPath(path));
  GNode parent = MakeHandle(parentPath);
  ORVIX_TRY(Resolve(parent));
  const InternedId id = path.GetLastPart();

  // Everything that may fail comes first: the plan of the subtree, the
  // parent's record fetched for writing with room for its child record, and
  // its marks. Only then does anything go.
  RemovalPlan plan;
  NodeInfo* parentInfo = nullptr;
  try {
    ORVIX_TRY(_PlanRemoval(element, path, plan));
    ORVIX_TRY_ASSIGN(parentInfo, GetMutable(parent, NODE_KIND::NONE));
    parentInfo->children.Reserve(1);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  ORVIX_TRY(_MarkChildRemoved(parent));
  const bool heldHere = parent.system == this;
  _ApplyRemoval(plan);

  // The parent's child record now says that the child is gone: a record
  // without ADDED hides a child of the base; a child added here needs none.
  const CHILD_FLAGS hidden = derived ? CHILD_FLAGS::SYNTHETIC : CHILD_FLAGS::NONE;
  ORVIX_TRY(Resolve(parent));
  parentInfo = parent.info;
  if (heldHere && parentInfo->children.Find(id)) {
    if (BaseHasChild(*parentInfo, id)) {
      parentInfo->children.FindForWriting(id)->flags = hidden;
    } else {
      parentInfo->children.Erase(id);
    }
  } else {
    parentInfo->children.FindOrInsert(id).flags = hidden;  // room was made above
  }
  _NoteChildRemoved(*parentInfo);
  return Ok();
}

Result<void> NodeSystemImpl::ResetChild(const GNode& parent, InternedId id,
                                        ChangeList* changeList) {
  static_cast<void>(changeList);
  ORVIX_TRY(CheckModification(true));
  GNode owner = parent;
  ORVIX_TRY(Resolve(owner));
  if (owner.system != this) return Ok();
  ORVIX_TRY_ASSIGN(NodeInfo * ownerInfo, GetMutable(owner, NODE_KIND::NONE));
  const ChildRecord* record = ownerInfo->children.Find(id);
  if (!record) return Ok();
  const bool added = HasAny(record->flags, CHILD_FLAGS::ADDED);
  const CHILD_FLAGS oldFlags = record->flags;
  ORVIX_TRY_ASSIGN(NodePath childPath, owner.path.Append(id));
  const NodeInfo* d = _store._nodes->Find(childPath);
  if ((d != nullptr) != added) {
    return ConditionError(CONDITION_KIND::ASSERTION, "(d != nullptr) == added");
  }
  RemovalPlan plan;
  try {
    if (added) ORVIX_TRY(_PlanRemoval(MakeHandle(childPath), childPath, plan));
    ORVIX_TRY(Resolve(owner));
    // Room to put the record back if marking what comes back fails.
    owner.info->children.Reserve(1);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  ORVIX_TRY(_MarkChildRemoved(owner));
  _ApplyRemoval(plan);
  // The removal may have moved records: look the parent up again.
  ORVIX_TRY(Resolve(owner));
  owner.info->children.Erase(id);
  _NoteChildRemoved(*owner.info);

  // The base's child, if there is one, is back: it and what it is wired to
  // have to be looked at again. If they can't be marked, the base's child is
  // hidden again, so that nothing shows that validation wouldn't visit.
  if (HasAny(owner.path.GetKindRaw(), NODE_KIND::PORT_MASK)) return Ok();
  GNode back = MakeResolvedHandle(childPath);
  if (!back) return Ok();
  Result<void> marked = SetModified(back, GFI::MODIFIED_TOPOLOGY);
  if (marked) marked = TouchConnectedPortsRecursive(back);
  if (marked) return Ok();
  if (Resolve(owner)) {
    owner.info->children.FindOrInsert(id).flags =
        oldFlags & ~CHILD_FLAGS::ADDED;  // room made above
    _NoteHidingChildRecord();
    NoteRemoval();
  }
  return marked;
}

}  // namespace orvix::nodes
