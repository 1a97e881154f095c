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

// Removes the subtree of `node`, children first. `top` is the path of the
// element the edit removes; connected ports below it aren't marked.
Result<void> NodeSystemImpl::_RemoveSubtree(const GNode& node, const NodePath& top) {
  std::vector<InternedId> children;
  {
    ChildIterator it;
    StartChildren(it, node);
    try {
      for (InternedId id = NextChildId(it); id.IsPopulated(); id = NextChildId(it)) {
        children.push_back(id);
      }
    } catch (const std::bad_alloc&) {
      return OutOfMemoryError();
    }
  }
  for (const InternedId id : children) {
    ORVIX_TRY_ASSIGN(NodePath childPath, node.path.Append(id));
    GNode child = MakeResolvedHandle(childPath);
    if (child) ORVIX_TRY(_RemoveSubtree(child, top));
  }

  GNode element = node;
  ORVIX_TRY(Resolve(element));
  const bool isPort = HasAny(element.path.GetKindRaw(), NODE_KIND::PORT_MASK);
  if (isPort) {
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
          _modificationStamp;
      _connectionStamp = _modificationStamp;
    }
  }

  if (element.system == this) {
    ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(element, NODE_KIND::NONE));
    if (ConnectionTable* table = ConnectionTableOf(info)) {
      ORVIX_TRY(_ClearConnections(element.path, *table));
    }
    ORVIX_TRY(RemoveEntry(element.path));
  }
  NoteRemoval();
  if (_loopDependencies.erase(element.path) > 0) {
    _systemFlags |= GFI::MODIFIED_SAV_LOOP_DEPENDENCIES_CHANGE;
  }
  return Ok();
}

Result<void> NodeSystemImpl::_ClearConnections(const NodePath& self, ConnectionTable& table) {
  std::vector<std::pair<ConnectionKey, bool>> reverse;
  try {
    table.ForEach([&](const ConnectionKey& key, const ConnectionData&) {
      const bool shortcutSource = key.GetType() == CONNECTION_TYPE::SHORTCUT &&
                                  key.GetDirection() == CONNECTION_DIRECTION::SOURCE;
      if (key.GetType() == CONNECTION_TYPE::NORMAL || shortcutSource) {
        reverse.emplace_back(key, shortcutSource);
      }
      return true;
    });
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  for (const auto& [key, shortcutSource] : reverse) {
    // A normal connection is held at both ends. A source shortcut has its
    // reverse only at a shortcut stop port, so a missing one is no fault.
    GNode other = MakeHandle(key.other);
    if (!other) {
      if (shortcutSource) continue;
      return ConditionError(CONDITION_KIND::ASSERTION, "reverse connection exists");
    }
    ORVIX_TRY_ASSIGN(NodeInfo * otherInfo, GetMutable(other, NODE_KIND::NONE));
    ConnectionTable* otherTable = ConnectionTableOf(otherInfo);
    const bool erased = otherTable && otherTable->Erase(key.Reversed(self));
    if (!erased && !shortcutSource) {
      return ConditionError(CONDITION_KIND::ASSERTION, "reverse connection exists");
    }
    if (shortcutSource) ORVIX_TRY(SetModified(other, GFI::MODIFIED_SAV_TARGETS));
  }
  table.Clear();
  return Ok();
}

Result<void> NodeSystemImpl::_MarkChildRemoved(GNode& parent) {
  GFI bits = GFI::MODIFIED_PV_CHILDREN;
  if (!HasAny(parent.path.GetKindRaw(), NODE_KIND::PORT_MASK)) bits |= GFI::MODIFIED_TOPOLOGY;
  ORVIX_TRY(SetModified(parent, bits));
  _removedStamp = _createdStamp;
  ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(parent, NODE_KIND::NONE));
  info->_childRemovedStamp = _modificationStamp;
  _structureStamp = _modificationStamp;
  return Ok();
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
      return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                   FormatMessage("Top-level port @ cannot be removed. It belongs to a nested node.",
                                 path));
    }
  } else {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("@ cannot be removed. This is not a valid path of a node or port.",
                               path));
  }
  if (info->HasFlags(GFI::DERIVED_PORT_MASK) && !info->HasFlags(GFI::DIRECT_PORT) && !derived) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("@ is a derived port, therefore it cannot be removed directly.",
                               path));
  }
  ORVIX_TRY_ASSIGN(NodePath parentPath, ParentPath(path));
  GNode parent = MakeHandle(parentPath);
  ORVIX_TRY(Resolve(parent));
  const InternedId id = path.GetLastPart();

  ORVIX_TRY(_RemoveSubtree(element, path));

  // The parent's child record now says that the child is gone: a record
  // without ADDED hides a child of the base; a child added here needs none.
  const CHILD_FLAGS hidden = derived ? CHILD_FLAGS::SYNTHETIC : CHILD_FLAGS::NONE;
  const bool heldHere = parent.system == this;
  ORVIX_TRY_ASSIGN(NodeInfo * parentInfo, GetMutable(parent, NODE_KIND::NONE));
  if (heldHere && parentInfo->children.Find(id)) {
    if (BaseHasChild(*parentInfo, id)) {
      parentInfo->children.FindForWriting(id)->flags = hidden;
    } else {
      parentInfo->children.Erase(id);
    }
  } else {
    ORVIX_TRY(SetChildRecord(parentInfo, id, hidden));
  }
  return _MarkChildRemoved(parent);
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
  ORVIX_TRY_ASSIGN(NodePath childPath, owner.path.Append(id));
  const NodeInfo* d = _nodes->Find(childPath);
  if ((d != nullptr) != added) {
    return ConditionError(CONDITION_KIND::ASSERTION, "(d != nullptr) == added");
  }
  if (added) {
    GNode child = MakeHandle(childPath);
    ORVIX_TRY(_RemoveSubtree(child, childPath));
  }
  // The removal may have moved records: look the parent up again.
  ORVIX_TRY(Resolve(owner));
  owner.info->children.Erase(id);
  ORVIX_TRY(_MarkChildRemoved(owner));

  // The base's child, if there is one, is back: it and what it is wired to
  // have to be looked at again.
  if (!HasAny(owner.path.GetKindRaw(), NODE_KIND::PORT_MASK)) {
    GNode back = MakeResolvedHandle(childPath);
    if (back) {
      ORVIX_TRY(SetModified(back, GFI::MODIFIED_TOPOLOGY));
      ORVIX_TRY(TouchConnectedPortsRecursive(back));
    }
  }
  return Ok();
}

}  // namespace orvix::nodes
