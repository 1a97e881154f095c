#include "store/node_map.h"

#include <algorithm>
#include <new>
#include <utility>

#include "orvix/host/debug_assert.h"

namespace orvix::nodes {

namespace {
bool SameParts(const NodePath& path, NodePath::Block parts) noexcept {
  NodePath::Block own = path.ToBlock();
  if (own.size() != parts.size()) return false;
  for (size_t i = 0; i < own.size(); ++i) {
    if (!(own[i] == parts[i])) return false;
  }
  return true;
}
}  // namespace

Result<Ref<NodeMap>> NodeMap::Create(Ref<NodeMap> parent) {
  NodeMap* map = new (std::nothrow) NodeMap();
  if (!map) return OutOfMemoryError();
  Ref<NodeMap> ref(map);
  if (parent) {
    map->_depth = parent->_depth + 1;
    map->_parent = std::move(parent);
  }
  return ref;
}

NodeMap::~NodeMap() {
  // The entries go with their chunks.
  for (Entry* head : _buckets) {
    for (; head; head = head->next) NodeInfo::Free(head->info);
  }
  // Release deep chains of frozen layers iteratively: a layer whose last owner
  // is this one would otherwise recurse once per layer.
  Ref<NodeMap> parent = std::move(_parent);
  while (parent && parent->HasSingleOwner()) {
    Ref<NodeMap> next = std::move(parent->_parent);
    parent.Reset();
    parent = std::move(next);
  }
}

const NodeMap::Entry* NodeMap::FindInLayer(uint64_t hash, Block parts) const noexcept {
  if (_buckets.empty()) return nullptr;
  for (const Entry* e = _buckets[_BucketOf(hash)]; e; e = e->next) {
    if (e->hash == hash && SameParts(e->path, parts)) return e;
  }
  return nullptr;
}

NodeMap::Entry* NodeMap::FindInLayer(uint64_t hash, Block parts) noexcept {
  return const_cast<Entry*>(std::as_const(*this).FindInLayer(hash, parts));
}

const NodeMap::Entry* NodeMap::FindEntry(uint64_t hash, Block parts) const noexcept {
  for (const NodeMap* layer = this; layer; layer = layer->_parent.Get()) {
    if (const Entry* e = layer->FindInLayer(hash, parts)) return e;
  }
  return nullptr;
}

Result<void> NodeMap::_Grow() {
  size_t size = _buckets.empty() ? INITIAL_BUCKETS : _buckets.size();
  while ((_count + 1) * 16 > size * 10) size *= 2;
  if (size == _buckets.size()) return Ok();
  std::vector<Entry*> buckets;
  try {
    buckets.assign(size, nullptr);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  std::swap(buckets, _buckets);
  // Relink: the entries stay where they are, only the chains change.
  for (Entry* head : buckets) {
    while (head) {
      Entry* next = head->next;
      Entry*& slot = _buckets[_BucketOf(head->hash)];
      head->next = slot;
      slot = head;
      head = next;
    }
  }
  return Ok();
}

NodeMap::Entry* NodeMap::_NewEntry() noexcept {
  if (Entry* e = _free) {
    _free = e->next;
    e->next = nullptr;
    return e;
  }
  if (_chunkUsed == _chunkSize) {
    const size_t size = _chunkSize == 0 ? 2 : std::min(2 * _chunkSize, MAX_CHUNK);
    std::unique_ptr<Entry[]> chunk(new (std::nothrow) Entry[size]);
    if (!chunk) return nullptr;
    try {
      _chunks.push_back(std::move(chunk));
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    _chunkSize = size;
    _chunkUsed = 0;
  }
  return &_chunks.back()[_chunkUsed++];
}

Result<NodeMap::Entry*> NodeMap::AddEntry(const NodePath& path, NodeInfo* info) {
  ORVIX_DEBUG_ASSERT(!FindInLayer(path.GetHashCode(), path.ToBlock()),
                     "a layer holds one entry of a path");
  // A tombstone that hides nothing is dead weight that every lookup of the
  // path meets and that compaction keeps (the top layer keeps its tombstones).
  ORVIX_DEBUG_ASSERT(info || (_parent && _parent->Find(path)),
                     "a tombstone is left only where a layer below holds the path");
  ORVIX_TRY(_Grow());
  Entry* e = _NewEntry();
  if (!e) return OutOfMemoryError();
  e->hash = path.GetHashCode();
  e->path = path;
  e->info = info;
  Entry*& slot = _buckets[_BucketOf(e->hash)];
  e->next = slot;
  slot = e;
  ++_count;
  return e;
}

void NodeMap::Publish(Entry* entry) noexcept {
  ORVIX_DEBUG_ASSERT(entry->info, "a published entry holds a record");
  bool expected = false;
  entry->published.compare_exchange_strong(expected, true, std::memory_order_acq_rel);
}

void NodeMap::Unpublish(Entry* entry) noexcept {
  bool expected = true;
  entry->published.compare_exchange_strong(expected, false, std::memory_order_acq_rel);
}

void NodeMap::DeleteEntry(Entry* entry) noexcept {
  if (_buckets.empty()) return;
  for (Entry** link = &_buckets[_BucketOf(entry->hash)]; *link; link = &(*link)->next) {
    if (*link == entry) {
      *link = entry->next;
      --_count;
      NodeInfo::Free(entry->info);
      entry->hash = 0;
      entry->path = NodePath();
      entry->info = nullptr;
      entry->published.store(false, std::memory_order_relaxed);
      entry->next = _free;
      _free = entry;
      return;
    }
  }
  ORVIX_DEBUG_ASSERT(false, "an entry to delete is one of this layer's");
}

size_t NodeMap::GetLayerBytes() const noexcept {
  size_t entries = 0;
  for (size_t i = 0, size = 2; i < _chunks.size(); ++i, size = std::min(2 * size, MAX_CHUNK)) {
    entries += size;
  }
  return sizeof(NodeMap) + _buckets.capacity() * sizeof(Entry*) + entries * sizeof(Entry) +
         _chunks.capacity() * sizeof(_chunks[0]);
}

}  // namespace orvix::nodes
