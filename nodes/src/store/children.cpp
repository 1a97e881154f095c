// NodeSystemImpl: the children of an element over its base chain, and the
// reads that move through the tree (parent, ancestor, port lists, children).

#include <string_view>
#include <utility>

#include "orvix/host/diagnostics.h"
#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

void NodeSystemImpl::StartChildren(ChildIterator& iterator, const GNode& parent) {
  // The walk goes in id order. Only a table of the system under modification
  // can be unsorted, and only its owner reads that system.
  if (parent.info && !parent.info->children.IsSorted()) parent.info->children.Sort();
  iterator.parent = parent;
  iterator.own = parent.info;
  iterator.current = parent.info;
  iterator.index = 0;
  iterator.depth = 0;
}

InternedId NodeSystemImpl::NextChildId(ChildIterator& iterator) const {
  while (iterator.current) {
    const SortedTable<ChildRecord>& table = iterator.current->children;
    while (iterator.index < table.GetCount()) {
      const ChildRecord& child = table[iterator.index++];
      if (!HasAny(child.flags, CHILD_FLAGS::ADDED)) continue;
      // A nearer record of the chain that has a record of this id has decided
      // already: reported there, or hidden by a removal.
      bool decided = false;
      for (const NodeInfo* r = iterator.own; r && r != iterator.current; r = r->base) {
        if (r->children.Find(child.id)) {
          decided = true;
          break;
        }
      }
      if (!decided) return child.id;
    }
    iterator.current = iterator.current->base;
    iterator.index = 0;
    ++iterator.depth;
  }
  return InternedId();
}

Result<GNode> NodeSystemImpl::GetFirstChild(const GNode& node, ChildIterator& iterator) const {
  GNode parent = node;
  ORVIX_TRY(Resolve(parent));
  StartChildren(iterator, parent);
  iterator.system = this;
  iterator.movedStamp = _stamps._movedStamp;
  iterator.createdStamp = _stamps._createdStamp;
  iterator.last = InternedId();
  return GetNextChild(iterator);
}

Result<GNode> NodeSystemImpl::GetNextChild(ChildIterator& iterator) const {
  ORVIX_CHECK_ARGUMENT(iterator.system == this);
  if (iterator.movedStamp != _stamps._movedStamp ||
      iterator.createdStamp != _stamps._createdStamp) {
    // An edit since the last step may have freed or replaced the records the
    // walk points into: start again from the parent, and go on after the
    // child reported last.
    GNode parent = iterator.parent;
    Refresh(parent);
    if (!parent.info) return GNode();
    const InternedId last = iterator.last;
    const size_t depth = iterator.depth;
    StartChildren(iterator, parent);
    iterator.movedStamp = _stamps._movedStamp;
    iterator.createdStamp = _stamps._createdStamp;
    iterator.last = last;
    if (last.IsPopulated()) {
      // The same table of the chain, just after the last id: the tables are
      // kept in id order, and the last child may be gone by now.
      for (; iterator.current && iterator.depth < depth; ++iterator.depth) {
        iterator.current = iterator.current->base;
      }
      if (iterator.current) {
        const SortedTable<ChildRecord>& table = iterator.current->children;
        while (iterator.index < table.GetCount() &&
               InternedId::CompareText(table[iterator.index].id, last) <= 0) {
          ++iterator.index;
        }
      }
    }
  }
  for (;;) {
    const InternedId id = NextChildId(iterator);
    if (id.IsNull()) return GNode();
    iterator.last = id;
    ORVIX_TRY_ASSIGN(NodePath path, iterator.parent.path.Append(id));
    const FoundNode found = FindNode(path, NODE_KIND::ALL_MASK, false);
    // A child record without its element breaks the store's invariant; the
    // diagnostic is written, and the walk goes on with the next child.
    if (found) return GNode(std::move(path), found.info, found.system, _StampFor(found.system));
  }
}

Result<GNode> NodeSystemImpl::GetChild(const GNode& node, InternedId id, NODE_KIND kinds) const {
  GNode parent = node;
  ORVIX_TRY_ASSIGN(NodeInfo * info, Resolve(parent));
  const NODE_KIND parentKind = parent.path.GetKindRaw();
  if (id.IsPopulated()) {
    if (!HasAny(ChildKind(parentKind, id), kinds)) return GNode();
    for (const NodeInfo* r = info; r; r = r->base) {
      const ChildRecord* child = r->children.Find(id);
      if (!child) continue;
      if (!HasAny(child->flags, CHILD_FLAGS::ADDED)) return GNode();
      ORVIX_TRY_ASSIGN(NodePath path, parent.path.Append(id));
      const FoundNode found = FindNode(path, kinds, false);
      if (!found) return GNode();
      return GNode(std::move(path), found.info, found.system, _StampFor(found.system));
    }
    return GNode();
  }
  // No id: the one child of the kinds asked for. Hidden ports (a leading ".")
  // and the node-system port are never candidates.
  InternedId candidate;
  ChildIterator iterator;
  StartChildren(iterator, parent);
  for (InternedId child = NextChildId(iterator); child.IsPopulated();
       child = NextChildId(iterator)) {
    const std::string_view text = child.GetString();
    if (text.starts_with('.') || text == NODE_SYSTEM_PORT_ID) continue;
    if (!HasAny(ChildKind(parentKind, child), kinds)) continue;
    if (candidate.IsPopulated()) {
      return Error(ERROR_CLASS::ILLEGAL_STATE,
                   FormatMessage("More than one port in @.", parent.path));
    }
    candidate = child;
  }
  if (candidate.IsNull()) return GNode();
  ORVIX_TRY_ASSIGN(NodePath path, parent.path.Append(candidate));
  const FoundNode found = FindNode(path, kinds, false);
  if (!found) return GNode();
  return GNode(std::move(path), found.info, found.system, _StampFor(found.system));
}

Result<size_t> NodeSystemImpl::GetChildRecordCount(const GNode& node) const {
  GNode handle = node;
  ORVIX_TRY_ASSIGN(NodeInfo * info, Resolve(handle));
  return handle.system == this ? info->children.GetCount() : size_t{0};
}

Result<bool> NodeSystemImpl::VisitNodes(const GNode& start, const NodeVisitor& visitor) const {
  ORVIX_CHECK_ARGUMENT(visitor);
  GNode node = start;
  ORVIX_TRY(Resolve(node));
  if (node.path.GetKindRaw() != NODE_KIND::NODE) return true;
  ORVIX_TRY_ASSIGN(bool goOn, visitor(node));
  if (!goOn) return false;
  ChildIterator iterator;
  StartChildren(iterator, node);
  for (InternedId id = NextChildId(iterator); id.IsPopulated(); id = NextChildId(iterator)) {
    if (ChildKind(NODE_KIND::NODE, id) != NODE_KIND::NODE) continue;
    ORVIX_TRY_ASSIGN(NodePath path, node.path.Append(id));
    const FoundNode found = FindNode(path, NODE_KIND::NODE, false);
    if (!found) continue;
    ORVIX_TRY_ASSIGN(bool childGoesOn, VisitNodes(GNode(std::move(path), found.info, found.system,
                                                        _StampFor(found.system)),
                                                  visitor));
    if (!childGoesOn) return false;
  }
  return true;
}

Result<GNode> NodeSystemImpl::GetParent(const GNode& node) const {
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  const size_t count = handle.path.GetCount();
  if (count == 0) return GNode();
  ORVIX_TRY_ASSIGN(NodePath parent, handle.path.Slice(0, NodePath::SliceCount(int64_t(count) - 1)));
  return MakeResolvedHandle(parent);
}

Result<GNode> NodeSystemImpl::GetAncestor(const GNode& node, NODE_KIND kinds) const {
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  const NodePath::Block parts = handle.path.ToBlock();
  for (size_t count = parts.size() + 1; count-- > 0;) {
    if (!HasAny(NodePath::KindOfBlock(parts.first(count)), kinds)) continue;
    if (count == parts.size()) return handle;
    ORVIX_TRY_ASSIGN(NodePath path, handle.path.Slice(0, NodePath::SliceCount(int64_t(count))));
    return MakeResolvedHandle(path);
  }
  return GNode();
}

Result<GNode> NodeSystemImpl::GetPortList(const GNode& node, PORT_DIR direction) const {
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  ORVIX_CHECK_ARGUMENT(handle.path.GetKindRaw() == NODE_KIND::NODE);
  ORVIX_CHECK_ARGUMENT(direction == PORT_DIR::INPUT || direction == PORT_DIR::OUTPUT);
  const InternedId list =
      direction == PORT_DIR::INPUT ? NodePath::GetInputsId() : NodePath::GetOutputsId();
  ORVIX_TRY_ASSIGN(NodePath path, handle.path.Append(list));
  return MakeResolvedHandle(path);
}

Result<GNode> NodeSystemImpl::FindDescendant(const GNode& node, NodePath::Block parts) const {
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  ORVIX_TRY_ASSIGN(NodePath path, handle.path.AppendBlock(parts));
  return MakeResolvedHandle(path);
}

Result<Ref<NodeSystem>> NodeSystemImpl::GetNestedSystem(const GNode& node) const {
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  ORVIX_TRY_ASSIGN(NodePath nodePath, handle.path.GetNodePart());
  const FoundNode found = FindNode(nodePath, NODE_KIND::NODE, true);
  if (!found || !found.info->HasFlags(GNODE_FLAGS_IMPL::DIRECT_INSTANCE)) {
    return Ref<NodeSystem>();
  }
  return found.info->AsNode()->_nestedSystem;
}

}  // namespace orvix::nodes
