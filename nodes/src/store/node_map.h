#pragma once
// NodeMap: the layered, copy-on-write table from NodePath to NodeInfo that
// holds the records of a node system.
//
// A map is a stack of layers; each layer is a reference-counted chained hash
// table whose `parent` is the layer below. Lookup goes from the top layer
// down, and the first entry with an equal path decides: a published entry is
// the answer, an unpublished one (a tombstone) hides the path in all layers
// below it.
//
// Only the top layer of a map with a single owner is ever written. Every
// layer below the top, and every layer that two systems share, is frozen and
// may be read by any number of threads. A copy of a system shares its map;
// the first write puts a new, empty layer on top (see NodeSystemImpl).
//
// Entries never move, so that an entry outlives the growth of its table. A
// layer allocates them in chunks that double in size (2, 4, ... up to
// MAX_CHUNK entries) and keeps deleted ones for reuse: a graph of many nodes
// pays one allocation per MAX_CHUNK entries instead of one each, and frees
// them as fast. The bucket array starts at 32 buckets on the first insertion
// and doubles when the entry count passes 10/16 of the buckets.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "orvix/graph/node_path.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "store/node_info.h"

namespace orvix::nodes {

class NodeMap final : public RefCounted {
 public:
  using Block = NodePath::Block;

  struct Entry {
    uint64_t hash = 0;
    NodePath path;
    // Owned by the entry. Null only in a tombstone whose record was freed or
    // handed to the garbage pass of the modified list.
    NodeInfo* info = nullptr;
    std::atomic<bool> published{false};
    Entry* next = nullptr;

    bool IsPublished() const noexcept { return published.load(std::memory_order_acquire); }
  };

  static constexpr size_t INITIAL_BUCKETS = 32;
  static constexpr size_t MAX_CHUNK = 256;

  // A new, empty layer on top of `parent` (null for the lowest layer).
  static Result<Ref<NodeMap>> Create(Ref<NodeMap> parent);
  ~NodeMap() override;

  NodeMap(const NodeMap&) = delete;
  NodeMap& operator=(const NodeMap&) = delete;

  // Parent's depth + 1; 0 for the lowest layer.
  uint32_t GetDepth() const noexcept { return _depth; }
  NodeMap* GetParent() const noexcept { return _parent.Get(); }
  // Entries of this layer, tombstones included.
  size_t GetCount() const noexcept { return _count; }
  size_t GetBucketCount() const noexcept { return _buckets.size(); }

  // --- Lookup. `hash` is the path hash (NodePath::GetHashCode or HashBlock).

  // The entry of this layer alone with these parts, published or not.
  const Entry* FindInLayer(uint64_t hash, Block parts) const noexcept;
  Entry* FindInLayer(uint64_t hash, Block parts) noexcept;
  // The deciding entry over this layer and all below: the first one with
  // these parts, published or not; null if no layer has one.
  const Entry* FindEntry(uint64_t hash, Block parts) const noexcept;
  // The published record of these parts, or null: hidden by a tombstone, or
  // absent.
  NodeInfo* Find(uint64_t hash, Block parts) const noexcept {
    const Entry* e = FindEntry(hash, parts);
    return (e && e->IsPublished()) ? e->info : nullptr;
  }
  NodeInfo* Find(const NodePath& path) const noexcept {
    return Find(path.GetHashCode(), path.ToBlock());
  }
  NodeInfo* Find(Block parts) const noexcept { return Find(NodePath::HashBlock(parts), parts); }
  // True if this layer's entry of the record's path holds the record: it is
  // one of this layer's own. Meant for checks of invariants.
  bool HoldsInLayer(const NodeInfo* info) const noexcept {
    const Entry* e = FindInLayer(info->_path.GetHashCode(), info->_path.ToBlock());
    return e && e->info == info;
  }

  // --- Writing: only for the top layer of a map with a single owner.

  // Adds an unpublished entry of `path` holding `info` (null allowed, for a
  // tombstone). The entry takes `info` over only on success; out of memory
  // leaves the layer as it was.
  Result<Entry*> AddEntry(const NodePath& path, NodeInfo* info);
  // Makes a complete entry visible, and hides it again.
  static void Publish(Entry* entry) noexcept;
  static void Unpublish(Entry* entry) noexcept;
  // Takes the entry out of its chain and frees it with its record.
  void DeleteEntry(Entry* entry) noexcept;

  // Calls `callback(const Entry&)` for each entry of this layer.
  template <typename Callback>
  void ForEachEntry(Callback&& callback) const {
    for (const Entry* head : _buckets) {
      for (const Entry* e = head; e; e = e->next) callback(*e);
    }
  }

  // The bytes this layer holds: bucket array and entry chunks, records
  // excluded.
  size_t GetLayerBytes() const noexcept;

 private:
  NodeMap() = default;

  size_t _BucketOf(uint64_t hash) const noexcept {
    // The path hash is a polynomial in the parts; fold its high bits into the
    // bucket index so that paths that share their last parts spread out.
    return size_t(hash ^ (hash >> 29) ^ (hash >> 47)) & (_buckets.size() - 1);
  }
  // Makes room for one more entry; out of memory leaves the table unchanged.
  Result<void> _Grow();
  // A fresh entry from the free list or a chunk; null when memory runs out.
  Entry* _NewEntry() noexcept;

  std::vector<Entry*> _buckets;
  size_t _count = 0;
  std::vector<std::unique_ptr<Entry[]>> _chunks;
  size_t _chunkUsed = 0;  // entries handed out of the last chunk
  size_t _chunkSize = 0;  // its capacity
  Entry* _free = nullptr;  // deleted entries, linked through `next`
  Ref<NodeMap> _parent;
  uint32_t _depth = 0;
};

}  // namespace orvix::nodes
