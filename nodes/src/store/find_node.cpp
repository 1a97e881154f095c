// NodeSystemImpl: finding records through layers, nested systems and bases,
// and keeping handles up to date.

#include <algorithm>
#include <utility>

#include "orvix/host/diagnostics.h"
#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

namespace {
// More hops than any sane nesting of systems: a cycle of nested systems.
constexpr size_t MAX_HOPS = 4096;

NodeSystemImpl* NestedOf(const NodeInfo* info) {
  if (!info || !info->HasFlags(GNODE_FLAGS_IMPL::DIRECT_INSTANCE)) return nullptr;
  const NodeRecord* node = info->AsNode();
  return node ? node->GetNestedSystemImpl() : nullptr;
}
}  // namespace

FoundNode NodeSystemImpl::_FindPlain(NodePath::Block parts, uint64_t hash, bool skipOwn) const {
  const InternedId inputs = NodePath::GetInputsId();
  const InternedId outputs = NodePath::GetOutputsId();
  const NodeSystemImpl* system = this;
  for (size_t hop = 0; hop < MAX_HOPS; ++hop) {
    const NodeMap* map = system->_store._nodes.Get();
    if (!map) return {};
    if (!skipOwn) {
      if (NodeInfo* info = map->Find(hash, parts)) {
        return {info, const_cast<NodeSystemImpl*>(system)};
      }
    }
    skipOwn = false;
    // A path into a nested node continues in the nested system, under the
    // nested system's own path.
    if (parts.size() >= 2 && !(parts[0] == inputs) && !(parts[0] == outputs)) {
      const NodePath::Block first = parts.first(1);
      if (NodeSystemImpl* nested = NestedOf(map->Find(NodePath::HashBlock(first), first))) {
        system = nested;
        parts = parts.subspan(1);
        hash = NodePath::HashBlock(parts);
        continue;
      }
    }
    // What this system doesn't hold, the base behind its root may.
    if (NodeSystemImpl* base = NestedOf(map->Find(0, NodePath::Block()))) {
      system = base;
      continue;
    }
    return {};
  }
  ReportInternalError();
  return {};
}

bool NodeSystemImpl::IsRemovedAbove(NodePath::Block parts, const NodeSystemImpl& hit,
                                    size_t hopped) const {
  // A level between this system and the one that gave a hit may have removed
  // an element on the way: a child record without ADDED in a record of that
  // level. A record with ADDED for a child that a lower record of its chain
  // had as well took a removed child back as a new element; what the lower
  // levels hold below it belongs to the old one. That holds only where the
  // lookup went on down the chain at the same path: through the first
  // `hopped` parts it entered nested systems, and a hit there belongs to the
  // new element's content, even when that content stands on the same base.
  if (!_store._mayHideBelow) return false;
  const uint64_t hitLevel = hit._store._level;
  for (size_t i = 0; i < parts.size(); ++i) {
    const NodePath::Block prefix = parts.first(i);
    const FoundNode at = _FindPlain(prefix, NodePath::HashBlock(prefix), false);
    if (!at) {
      ReportInternalError();
      return true;
    }
    const NodeInfo* record = at.info;
    const NodeSystemImpl* holder = at.system;
    while (record && holder && holder->_store._level > hitLevel) {
      if (const ChildRecord* child = record->children.Find(parts[i])) {
        if (!HasAny(child->flags, CHILD_FLAGS::ADDED)) return true;
        if (i < hopped) break;
        // Taken back after a removal: a lower record of the chain had the
        // child too, and the hit lies below (the holders below `record` are
        // the baseSystem of each record of its chain).
        bool lowerHad = false;
        bool hitBelow = false;
        for (const NodeInfo* r = record; r; r = r->base) {
          if (r->baseSystem == &hit) hitBelow = true;
          if (r != record) {
            const ChildRecord* lower = r->children.Find(parts[i]);
            if (lower && HasAny(lower->flags, CHILD_FLAGS::ADDED)) lowerHad = true;
          }
        }
        if (hitBelow && lowerHad) return true;
        break;
      }
      holder = record->baseSystem;
      record = record->base;
    }
  }
  return false;
}

FoundNode NodeSystemImpl::_FindChecked(NodePath::Block parts, uint64_t hash, NODE_KIND kinds,
                                       bool mayBeAbsent, bool skipOwn) const {
  FoundNode found = _FindPlain(parts, hash, skipOwn);
  if (found && found.system != this && !_CheckBaseHit(parts, found)) found = {};
  if (found && !HasAny(found.info->GetKind(), kinds)) found = {};
  if (!found && !mayBeAbsent) ReportInternalError();
  return found;
}

FoundNode NodeSystemImpl::FindNode(const NodePath& path, NODE_KIND kinds, bool mayBeAbsent,
                                   bool skipOwn) const {
  return _FindChecked(path.ToBlock(), path.GetHashCode(), kinds, mayBeAbsent, skipOwn);
}

FoundNode NodeSystemImpl::FindNode(NodePath::Block parts, NODE_KIND kinds, bool mayBeAbsent,
                                   bool skipOwn) const {
  return _FindChecked(parts, NodePath::HashBlock(parts), kinds, mayBeAbsent, skipOwn);
}

bool NodeSystemImpl::_MayHold(const NodeSystemImpl* holder, NodePath::Block parts) const {
  // The bases first: a derived system's handles mostly name one of them, and
  // the chain is followed by pointer, without hashing.
  for (const NodeSystemImpl* s = this; s; s = s->_BaseImpl()) {
    if (s == holder) return true;
  }
  // Then the systems that a lookup of the path passes through, as _FindPlain
  // goes: into the nested system of a node, or down to the base.
  const InternedId inputs = NodePath::GetInputsId();
  const InternedId outputs = NodePath::GetOutputsId();
  const NodeSystemImpl* system = this;
  for (size_t hop = 0; hop < MAX_HOPS && system; ++hop) {
    if (system == holder) return true;
    const NodeMap* map = system->_store._nodes.Get();
    if (!map) return false;
    if (parts.size() >= 2 && !(parts[0] == inputs) && !(parts[0] == outputs)) {
      const NodePath::Block first = parts.first(1);
      if (NodeSystemImpl* nested = NestedOf(map->Find(NodePath::HashBlock(first), first))) {
        system = nested;
        parts = parts.subspan(1);
        continue;
      }
    }
    system = NestedOf(map->Find(0, NodePath::Block()));
  }
  return false;
}

void NodeSystemImpl::Refresh(GNode& handle) const {
  if (!handle.info) return;
  if (!_store._nodes) {
    handle.info = nullptr;
    return;
  }
  if (handle.system == this) {
    if (handle.stamp >= _stamps._movedStamp) return;
    if (NodeInfo* info = _store._nodes->Find(handle.path)) {
      handle.info = info;
      handle.stamp = _stamps._movedStamp;
      return;
    }
  } else {
    // The stamps speak only for a handle that this system made, of a holder
    // that it keeps alive. A handle of any other system (an unrelated one, a
    // copy, one since freed), or one that a base made before it lost the
    // element, may point at a record that is gone: it is looked up by path.
    // Every system starts its handle stamps above those of its source, so a
    // stamp below the first one is not this system's.
    const bool held = handle.stamp >= _stamps._firstHandleStamp &&
                      handle.stamp <= std::max(_stamps._createdStamp, _stamps._movedStamp) &&
                      _MayHold(handle.system, handle.path.ToBlock());
    if (held && handle.stamp >= _stamps._createdStamp) return;
    if (NodeInfo* info = _store._nodes->Find(handle.path)) {
      handle.info = info;
      handle.system = const_cast<NodeSystemImpl*>(this);
      handle.stamp = _stamps._movedStamp;
      return;
    }
    if (held && _stamps._removedStamp <= handle.stamp) {
      // Nothing was made here nor removed since: the base still answers.
      handle.stamp = _stamps._createdStamp;
      return;
    }
  }
  const FoundNode found = FindNode(handle.path, NODE_KIND::ALL_MASK, true);
  handle.info = found.info;
  if (found) {
    handle.system = found.system;
    handle.stamp = _StampFor(found.system);
  }
}

Result<NodeInfo*> NodeSystemImpl::Resolve(GNode& handle) const {
  if (!handle.info) return Error(ERROR_CLASS::NULL_OBJECT, "Nullptr node");
  Refresh(handle);
  if (!handle.info) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("Node with path @ doesn't exist any longer.", handle.path));
  }
  return handle.info;
}

GNode NodeSystemImpl::MakeResolvedHandle(const NodePath& path) const {
  const FoundNode found = FindNode(path, NODE_KIND::ALL_MASK, true);
  if (!found) return GNode();
  return GNode(path, found.info, found.system, _StampFor(found.system));
}

GNode NodeSystemImpl::FindByPath(const NodePath& path) const {
  return MakeResolvedHandle(path);
}

GNode NodeSystemImpl::MakeHandle(const NodePath& path) const {
  GNode handle = MakeResolvedHandle(path);
  if (!handle) handle.path = path;
  return handle;
}

GNode NodeSystemImpl::GetRoot() const {
  return MakeResolvedHandle(NodePath());
}

bool NodeSystemImpl::IsValid(const GNode& node) const {
  GNode handle = node;
  Refresh(handle);
  return handle.info != nullptr;
}

Result<GNODE_FLAGS> NodeSystemImpl::GetFlags(const GNode& node) const {
  GNode handle = node;
  ORVIX_TRY_ASSIGN(NodeInfo * info, Resolve(handle));
  return ToPublicFlags(info->flags);
}

}  // namespace orvix::nodes
