// NodeSystemImpl: creation, copies, fetching records for writing, removal of
// entries and compaction of the map.

#include "store/node_system_impl.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <unordered_set>
#include <utility>

#include "orvix/host/debug_assert.h"
#include "orvix/host/diagnostics.h"
#include "orvix/host/error.h"
#include "orvix/host/format.h"

namespace orvix::nodes {

namespace {
constexpr std::string_view NOT_VALIDATED_COPY =
    "Can't make a copy when the base node system hasn't been validated.";
constexpr std::string_view BASE_NOT_INITIALIZED = "Base nodesystem hasn't been initialized.";
constexpr std::string_view BASE_NOT_VALIDATED = "Base nodesystem hasn't been validated.";

Result<void> CheckUsableSource(const NodeSystemImpl& source) {
  if (!source.IsInitialized())
    return Error(ERROR_CLASS::ILLEGAL_STATE, std::string(BASE_NOT_INITIALIZED));
  if (!source.IsValidated())
    return Error(ERROR_CLASS::ILLEGAL_STATE, std::string(BASE_NOT_VALIDATED));
  return Ok();
}
// The highest handle stamp of any system that is gone. A handle names its
// holder by address, and a new system may be allocated where a freed one
// was; starting every new system's handle stamps above this keeps a handle
// of the old one from passing for one of the new system's own.
std::atomic<uint64_t> g_retiredHandleStamp{0};

uint64_t FirstHandleStamp() noexcept {
  return g_retiredHandleStamp.load(std::memory_order_acquire) + 1;
}

// True if the top layer of `map` holds nothing of the path but a tombstone,
// and that only where a layer below holds the path: what a removal leaves.
[[maybe_unused]] bool OnlyAHidingTombstone(const NodeMap& map, uint64_t hash,
                                           NodePath::Block parts) noexcept {
  const NodeMap::Entry* e = map.FindInLayer(hash, parts);
  if (!e) return true;
  return !e->IsPublished() && !e->info && map.GetParent() &&
         map.GetParent()->Find(hash, parts) != nullptr;
}
}  // namespace

NodeSystemImpl::NodeSystemImpl() {
  const uint64_t first = FirstHandleStamp();
  _stamps._createdStamp = first;
  _stamps._movedStamp = first;
  _stamps._firstHandleStamp = first;
}

NodeSystemImpl::~NodeSystemImpl() {
  _FreeGarbage();
  const uint64_t last = std::max(_stamps._createdStamp, _stamps._movedStamp);
  uint64_t retired = g_retiredHandleStamp.load(std::memory_order_relaxed);
  while (retired < last &&
         !g_retiredHandleStamp.compare_exchange_weak(retired, last, std::memory_order_release,
                                                     std::memory_order_relaxed)) {
  }
}

void NodeSystemImpl::_FreeGarbage() noexcept {
  // Records that removal handed to the lists belong to nobody else; the
  // records still in the map are freed with it.
  auto isGarbage = [](const NodeInfo* r) {
    return HasAny(r->flags, GNODE_FLAGS_IMPL::MODIFIED_G_GARBAGE);
  };
  NodeInfo* r = _validation._firstModified;
  _validation._firstModified = g_modifiedListEnd;
  while (r && r != g_modifiedListEnd) {
    NodeInfo* next = r->_nextModified;
    if (PortRecord* port = r->AsPort()) {
      NodeInfo* n = port->_firstNestedModified;
      port->_firstNestedModified = g_modifiedListEnd;
      while (n && n != g_modifiedListEnd) {
        NodeInfo* nextNested = n->_nextModified;
        n->_nextModified = nullptr;
        ORVIX_DEBUG_ASSERT(!isGarbage(n) || !_store._nodes || !_store._nodes->HoldsInLayer(n),
                           "a garbage record is out of the map");
        if (isGarbage(n)) NodeInfo::Free(n);
        n = nextNested;
      }
    }
    r->_nextModified = nullptr;
    ORVIX_DEBUG_ASSERT(!isGarbage(r) || !_store._nodes || !_store._nodes->HoldsInLayer(r),
                       "a garbage record is out of the map");
    if (isGarbage(r)) NodeInfo::Free(r);
    r = next;
  }
}

// ---------------------------------------------------------------------------
// Creation and copies

Result<Ref<NodeSystemImpl>> NodeSystemImpl::CreateDerived(Ref<NodeSystemImpl> base) {
  ORVIX_CHECK_ARGUMENT(base);
  ORVIX_TRY(CheckUsableSource(*base));
  // Derived systems point into the base's records: it must not change again.
  if (!base->IsFinalized() || base->_store._mutable) {
    return ConditionError(CONDITION_KIND::ILLEGAL_STATE, "base->IsFinalized() && !base->_mutable");
  }
  ORVIX_TRY_ASSIGN(Ref<NodeSystemImpl> system, NewRef<NodeSystemImpl>());
  try {
    system->_store._bases.push_back(base);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  system->_store._level = base->_store._level + 1;
  system->_store._mayHideBelow = base->_store._mayHideBelow;
  // Above every stamp of the base, so that a handle the base made is looked
  // up again here rather than taken as this system's.
  system->_stamps._createdStamp =
      std::max(system->_stamps._createdStamp,
               std::max(base->_stamps._createdStamp, base->_stamps._movedStamp) + 1);
  system->_stamps._movedStamp = system->_stamps._createdStamp;
  system->_stamps._firstHandleStamp = system->_stamps._createdStamp;
  system->_classState._class = base->_classState._class;
  system->_validation._stages = base->_validation._stages;
  system->_validation._topology = base->_validation._topology;
  system->_attributes._derivedAttributes = base->_attributes._derivedAttributes;
  ORVIX_TRY_ASSIGN(system->_store._nodes, NodeMap::Create(nullptr));
  const FoundNode baseRoot = base->FindNode(NodePath(), NODE_KIND::NODE, false);
  if (!baseRoot) return Error(ERROR_CLASS::ILLEGAL_STATE, std::string(BASE_NOT_INITIALIZED));
  GNode root(NodePath(), baseRoot.info, baseRoot.system, 0);
  ORVIX_TRY_ASSIGN(NodeInfo * rootInfo, system->GetMutable(root, NODE_KIND::NODE));
  rootInfo->flags |= GNODE_FLAGS_IMPL::DIRECT_INSTANCE;
  NodeRecord* node = rootInfo->AsNode();
  node->_nestedSystem = base;
  node->_nestedData.Reset();
  system->_stamps._completeStamp = system->_stamps._modificationStamp;
  return system;
}

Result<void> NodeSystemImpl::CopyFrom(const NodeSystemImpl& source) {
  ORVIX_CHECK_STATE(!IsInitialized());
  ORVIX_TRY(CheckUsableSource(source));
  if (source._validation._firstModified != g_modifiedListEnd || source._attributes._attribSetup ||
      source._validation._portValidation) {
    return ConditionError(CONDITION_KIND::ASSERTION,
                          "src._firstModified == g_modifiedListEnd && !src._attribSetup && "
                          "!src._portValidation && !src._instantiation");
  }
  std::vector<Ref<NodeSystem>> bases;
  std::unique_ptr<LoopTables> loops;
  try {
    bases = source._store._bases;
    if (source._attributes._loops) loops = std::make_unique<LoopTables>(*source._attributes._loops);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  _classState._class = source._classState._class;
  _classState._derivationHandler = source._classState._derivationHandler;
  _validation._stages = source._validation._stages;
  // A copy is no longer what the template made.
  _classState._template.Reset();
  _classState._templateArguments.Reset();
  _classState._templateOwner.Reset();
  // The map is shared: both systems now see it as frozen, and the first
  // write of either puts a layer of its own on top.
  _store._nodes = source._store._nodes;
  // Handles made by the source carry the source's stamps and name it as
  // their holder; starting above them makes each such handle look its path up
  // again here on first use, so that it learns that the records are now this
  // system's.
  const uint64_t firstStamp =
      std::max(_stamps._createdStamp,
               std::max(source._stamps._createdStamp, source._stamps._movedStamp) + 1);
  _stamps = source._stamps;
  _stamps._createdStamp = firstStamp;
  _stamps._movedStamp = firstStamp;
  _stamps._firstHandleStamp = firstStamp;
  _store._level = source._store._level;
  _store._mayHideBelow = source._store._mayHideBelow;
  _attributes._attribValidationCount = source._attributes._attribValidationCount;
  _validation._firstModified = g_modifiedListEnd;
  _store._loadContext.Reset();
  _store._mutable = source._store._mutable;
  _validation._topology = source._validation._topology;
  _attributes._derivedAttributes = source._attributes._derivedAttributes;
  _validation._systemFlags = GNODE_FLAGS_IMPL::NONE;
  _attributes._attribSetup = nullptr;
  _validation._portValidation = nullptr;
  _store._bases = std::move(bases);
  _attributes._loops = std::move(loops);
  return Ok();
}

Result<LoopTables*> NodeSystemImpl::_WritableLoopTables() {
  if (!_attributes._loops) {
    try {
      _attributes._loops = std::make_unique<LoopTables>();
    } catch (const std::bad_alloc&) {
      return OutOfMemoryError();
    }
  }
  return _attributes._loops.get();
}

// ---------------------------------------------------------------------------
// Writing

Result<NodeMap*> NodeSystemImpl::GetWritableMap() {
  if (!_store._nodes) return ConditionError(CONDITION_KIND::ILLEGAL_STATE, "IsInitialized()");
  if (!_store._nodes->HasSingleOwner()) {
    ORVIX_TRY_ASSIGN(Ref<NodeMap> layer, NodeMap::Create(_store._nodes));
    _store._nodes = std::move(layer);
  }
  return _store._nodes.Get();
}

Result<NodeInfo*> NodeSystemImpl::GetMutable(GNode& handle, NODE_KIND kind) {
  ORVIX_TRY_ASSIGN(NodeMap * map, GetWritableMap());
  const NodePath& path = handle.path;
  const uint64_t hash = path.GetHashCode();
  const NodePath::Block parts = path.ToBlock();

  auto mismatch = [&](NODE_KIND found) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("Mismatch of node kind: Expected @, found @.", kind, found));
  };
  NodeMap::Entry* entry = map->FindInLayer(hash, parts);
  NodeInfo* info = nullptr;
  if (entry && entry->IsPublished()) {
    info = entry->info;
  } else {
    // A tombstone in the top layer decides: the element was removed here, so
    // what the layers below hold is not taken over.
    const NodeInfo* lower =
        (!entry && map->GetParent()) ? map->GetParent()->Find(hash, parts) : nullptr;
    bool created = false;
    if (lower) {
      if (!lower->IsClean()) {
        return Error(ERROR_CLASS::ILLEGAL_STATE, std::string(NOT_VALIDATED_COPY));
      }
      info = NodeInfo::Clone(*lower);
      if (!info) return OutOfMemoryError();
    } else {
      info = NodeInfo::Allocate(path.GetKindRaw(), path);
      if (!info) return OutOfMemoryError();
      NodeInfo* base = (handle.system && handle.system != this) ? handle.info : nullptr;
      if (base) {
        info->flags |= base->flags & GNODE_FLAGS_IMPL::INHERIT_MASK;
        const NodeRecord* baseNode = base->AsNode();
        NodeRecord* node = info->AsNode();
        if (baseNode && node) {
          node->_nestedSystem = baseNode->_nestedSystem;
          node->_nestedData = baseNode->_nestedData;
        }
        info->base = base;
        info->baseSystem = handle.system;
      }
      info->_nextModified = nullptr;
      created = true;
    }
    // A record of the wrong kind is refused before anyone can see it.
    if (kind != NODE_KIND::NONE && info->GetKind() != kind) {
      const NODE_KIND found = info->GetKind();
      NodeInfo::Free(info);
      return mismatch(found);
    }
    bool added = false;
    if (entry) {
      // Removal freed the record or handed it to the garbage pass.
      ORVIX_DEBUG_ASSERT(!entry->info, "a tombstone holds no record");
      NodeInfo::Free(entry->info);
      entry->info = info;
    } else {
      Result<NodeMap::Entry*> made = map->AddEntry(path, info);
      if (!made) {
        NodeInfo::Free(info);
        return std::move(made).GetError();
      }
      entry = *made;
      added = true;
    }
    NodeMap::Publish(entry);
    if (added) ++_stamps._movedStamp;
    if (created) ++_stamps._createdStamp;
  }
  ++_stamps._modificationStamp;
  if (kind != NODE_KIND::NONE && info->GetKind() != kind) return mismatch(info->GetKind());
  // What every writer relies on: the record is the one this system's top
  // layer publishes for the path, it is the path's own, and of the kind asked.
  ORVIX_DEBUG_ASSERT(
      map->FindInLayer(hash, parts) == entry && entry->info == info && entry->IsPublished(),
      "a record fetched for writing is published in the top layer");
  ORVIX_DEBUG_ASSERT(info->_path == path && info->GetKind() == path.GetKindRaw() &&
                         (kind == NODE_KIND::NONE || info->GetKind() == kind),
                     "a record fetched for writing is of its path and of the asked kind");
  handle.info = info;
  handle.system = this;
  handle.stamp = _stamps._movedStamp;
  return info;
}

Result<void> NodeSystemImpl::SetChildRecord(NodeInfo* parent, InternedId id, CHILD_FLAGS flags,
                                            bool* inserted) {
  ORVIX_CHECK_ARGUMENT(parent);
  try {
    parent->children.FindOrInsert(id, inserted).flags = flags;
    if (!HasAny(flags, CHILD_FLAGS::ADDED)) _NoteHidingChildRecord();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

void NodeSystemImpl::_SortChildTables() noexcept {
  if (!_store._unsortedChildTables) return;
  if (_store._nodes) {
    for (const NodePath& path : *_store._unsortedChildTables) {
      if (NodeInfo* info = _store._nodes->Find(path)) {
        // Sorting writes: a frozen record of a lower layer must never need it.
        ORVIX_DEBUG_ASSERT(info->children.IsSorted() || _store._nodes->HoldsInLayer(info),
                           "only a record of the top layer holds an unsorted table");
        info->children.Sort();
      }
    }
  }
  _store._unsortedChildTables.reset();
}

bool NodeSystemImpl::EraseChildRecord(NodeInfo* parent, InternedId id) {
  return parent && parent->children.Erase(id);
}

Result<bool> NodeSystemImpl::RemoveEntry(const NodePath& path) {
  ORVIX_TRY_ASSIGN(NodeMap * map, GetWritableMap());
  const uint64_t hash = path.GetHashCode();
  const NodePath::Block parts = path.ToBlock();
  NodeMap::Entry* entry = map->FindInLayer(hash, parts);
  const NodeMap* below = map->GetParent();
  const bool hiddenBelow = below && below->Find(hash, parts) != nullptr;

  bool removed = false;
  if (entry) {
    removed = entry->IsPublished();
    NodeMap::Unpublish(entry);
    if (entry->info && entry->info->IsOnModifiedList()) {
      // Validation may still walk the list through this record; the garbage
      // pass frees it.
      entry->info->flags |= GNODE_FLAGS_IMPL::MODIFIED_G_GARBAGE;
      _validation._systemFlags |= GNODE_FLAGS_IMPL::MODIFIED_G_GARBAGE;
      // A nested port hangs on its top-level port's list, which the garbage
      // pass walks only where the top-level port says so.
      if (HasAny(path.GetKindRaw(), NODE_KIND::PORT_MASK) && !path.IsTopLevelPort()) {
        Result<NodePath> top = path.GetTopLevelPort();
        NodeMap::Entry* topEntry =
            top ? map->FindInLayer(top->GetHashCode(), top->ToBlock()) : nullptr;
        if (topEntry && topEntry->info) {
          topEntry->info->flags |= GNODE_FLAGS_IMPL::MODIFIED_G_NESTED_GARBAGE;
          _validation._systemFlags |= GNODE_FLAGS_IMPL::MODIFIED_G_NESTED_GARBAGE;
        }
      }
      entry->info = nullptr;
    }
    if (hiddenBelow) {
      NodeInfo::Free(entry->info);
      entry->info = nullptr;
    } else {
      map->DeleteEntry(entry);
    }
  } else if (hiddenBelow) {
    ORVIX_TRY(map->AddEntry(path, nullptr));
    removed = true;
  } else {
    return false;
  }
  ORVIX_DEBUG_ASSERT(OnlyAHidingTombstone(*map, hash, parts),
                     "a removal leaves a tombstone only where a layer below holds the path");
  NoteRemoval();
  return removed;
}

void NodeSystemImpl::NoteRemoval() noexcept {
  // Cached record pointers may now point at freed records, and handles into
  // bases may be hidden by the removal: every handle has to look again.
  ++_stamps._movedStamp;
  ++_stamps._createdStamp;
  _stamps._removedStamp = _stamps._createdStamp;
}

// ---------------------------------------------------------------------------
// Compaction

Result<void> NodeSystemImpl::Compact() {
  if (!_store._nodes || _store._nodes->GetDepth() < COMPACT_DEPTH) return Ok();
  // Values handed out during a modification may point into records of the
  // lower layers, which compaction frees: it waits until the bracket closes.
  if (_store._mutable) return Ok();
  // Systems derived from this one point into its records; only a system that
  // nobody else holds may let its old layers go.
  if (!HasSingleOwner()) return Ok();
  try {
    ORVIX_TRY_ASSIGN(Ref<NodeMap> bottom, NodeMap::Create(nullptr));
    Result<void> status = Ok();
    auto copyInto = [&status](NodeMap& target, const NodeMap::Entry& e) {
      if (!status) return;
      if (!e.IsPublished()) {
        Result<NodeMap::Entry*> made = target.AddEntry(e.path, nullptr);
        if (!made) status = std::move(made).GetError();
        return;
      }
      if (!e.info->IsClean()) {
        status = Error(ERROR_CLASS::ILLEGAL_STATE, std::string(NOT_VALIDATED_COPY));
        return;
      }
      NodeInfo* copy = NodeInfo::Clone(*e.info);
      if (!copy) {
        status = OutOfMemoryError();
        return;
      }
      Result<NodeMap::Entry*> made = target.AddEntry(e.path, copy);
      if (!made) {
        NodeInfo::Free(copy);
        status = std::move(made).GetError();
        return;
      }
      NodeMap::Publish(*made);
    };

    // Flatten the frozen layers, top down: the first entry of a path decides,
    // and a tombstone decides by dropping the path.
    std::unordered_set<NodePath> seen;
    for (const NodeMap* layer = _store._nodes->GetParent(); layer; layer = layer->GetParent()) {
      layer->ForEachEntry([&](const NodeMap::Entry& e) {
        if (!status || !seen.insert(e.path).second || !e.IsPublished()) return;
        copyInto(*bottom, e);
      });
      ORVIX_TRY(status);
    }
    // The top layer keeps its tombstones: they hide what the flattened layer
    // still holds.
    ORVIX_TRY_ASSIGN(Ref<NodeMap> top, NodeMap::Create(bottom));
    _store._nodes->ForEachEntry([&](const NodeMap::Entry& e) { copyInto(*top, e); });
    ORVIX_TRY(status);
    _store._nodes = std::move(top);
    ++_stamps._movedStamp;
    return Ok();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

// ---------------------------------------------------------------------------
// Counting

size_t NodeSystemImpl::GetEntryCount() const {
  size_t count = 0;
  for (const NodeMap* layer = _store._nodes.Get(); layer; layer = layer->GetParent()) {
    count += layer->GetCount();
  }
  return count;
}

size_t NodeSystemImpl::GetVisibleRecordCount() const {
  size_t count = 0;
  for (const NodeMap* layer = _store._nodes.Get(); layer; layer = layer->GetParent()) {
    layer->ForEachEntry([&](const NodeMap::Entry& e) {
      if (!e.IsPublished()) return;
      for (const NodeMap* above = _store._nodes.Get(); above != layer; above = above->GetParent()) {
        if (above->FindInLayer(e.hash, e.path.ToBlock())) return;
      }
      ++count;
    });
  }
  return count;
}

Ref<NodeSystem> NodeSystemImpl::GetBase() const {
  return _store._bases.empty() ? Ref<NodeSystem>() : _store._bases[0];
}

}  // namespace orvix::nodes
