#pragma once
// TopologyData: the result of topology validation, shared between a system
// and its copies until the next topology validation of one of them replaces
// it (a system that holds the only reference fills it again in place).
//
// The order is hierarchical. Its vertices are the child nodes and top-level
// ports of the system; a node that had to be opened because it lies on a
// loop of nodes is replaced by vertices for its own children and ports, to
// any depth. A node that stays whole owns a contiguous range of indices, as
// many as its base system's order has, and its inner ports keep the base's
// order inside that range. So the index of a port is found by following the
// path through the orders of the bases (GetTopologicalIndex).
//
// Validation fills everything but the port dependency map before the object
// is shared. The map is built lazily, the first time a node is made on the
// system (or the sort needs it), under `_lock`: several threads may make
// nodes on one base at a time.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <unordered_map>
#include <vector>

#include "orvix/graph/node_path.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/nodes/gnode.h"
#include "store/path_hash_map.h"

namespace orvix::nodes {

class NodeSystemImpl;

// One vertex of the sort: a child node (at some depth) or a top-level port.
// The working fields serve one run of the sort and are cleared at its end.
struct TopologyVertex {
  // Not visited yet, in `index`.
  static constexpr int64_t UNVISITED = -2;

  // The element, as the sort found it.
  GNode _pathTmpHandle;
  // For a node: its base system, null for a node without one. The order
  // keeps it alive, so that reading a stale order (between an edit and the
  // next validation) never follows a freed system.
  const NodeSystemImpl* base = nullptr;
  Ref<NodeSystem> _baseHold;
  // The place in the order: the first index of a node's range.
  uint64_t orderIndex = 0;
  bool isNode = false;

  // --- Working state of the sort.
  // The Tarjan number shifted left by one, the on-stack bit in bit 0.
  int64_t index = UNVISITED;
  int64_t lowLink = -1;
  // The node vertex whose opening made this vertex; null at the first level.
  TopologyVertex* parent = nullptr;
  // The sort level that the vertex belongs to now.
  uint64_t _generation = 0;
  bool _hasSelfEdge = false;
  bool _splitRequired = false;
  // A node vertex opened at the level being sorted (see the narrowing).
  bool _openedHere = false;
  // Where the cached successors of the current level start in the
  // context's successor pool, and how many there are; -1 before the first
  // search.
  int64_t successorsBegin = -1;
  uint32_t successorCount = 0;
  // The nodes reachable from the vertex, at port level only.
  std::vector<NodePath> _reachableNodes;

  const NodePath& GetPath() const noexcept { return _pathTmpHandle.path; }
};

// A component of the order. A component that the sort didn't open holds one
// vertex; one it opened holds its members and, in `children`, the order of
// what it was opened into.
class TopologyComponent {
 public:
  size_t GetCount() const noexcept { return _many.empty() ? (_one ? 1 : 0) : _many.size(); }
  TopologyVertex* GetVertex(size_t i) const noexcept { return _many.empty() ? _one : _many[i]; }
  // Most components hold one vertex and allocate nothing for it.
  void Add(TopologyVertex* vertex) {
    if (!_one) {
      _one = vertex;
      return;
    }
    if (_many.empty()) _many.push_back(_one);
    _many.push_back(vertex);
  }

  std::vector<TopologyComponent> children;

 private:
  TopologyVertex* _one = nullptr;
  std::vector<TopologyVertex*> _many;
};

// The vertices of an order, in chunks: a vertex never moves, and an empty
// store allocates nothing (an order is made where memory may run out).
class TopologyVertexStore {
 public:
  static constexpr size_t CHUNK = 256;

  // A new vertex in its initial state; throws std::bad_alloc.
  TopologyVertex& Add() {
    if (_used == _chunks.size() * CHUNK)
      _chunks.push_back(std::make_unique<TopologyVertex[]>(CHUNK));
    TopologyVertex& v = _chunks[_used / CHUNK][_used % CHUNK];
    ++_used;
    return v;
  }
  size_t GetCount() const noexcept { return _used; }
  TopologyVertex& operator[](size_t i) noexcept { return _chunks[i / CHUNK][i % CHUNK]; }
  void Clear() noexcept {
    _chunks.clear();
    _used = 0;
  }

 private:
  std::vector<std::unique_ptr<TopologyVertex[]>> _chunks;
  size_t _used = 0;
};

// For each input port of the root of a system (by id), the output ports of
// the root (by id, in text order) that it influences.
using PortDependencyMap = std::unordered_map<InternedId, std::vector<InternedId>>;

class TopologyData : public RefCounted {
 public:
  // The number of indices handed out: the size of the order.
  uint64_t GetIndexCount() const noexcept { return _nextIndex; }
  // The vertex of exactly these parts, or null.
  const TopologyVertex* FindVertex(NodePath::Block parts, uint64_t pathHash) const noexcept {
    TopologyVertex* const* v = _vertexIndices.Find(parts, pathHash);
    return v ? *v : nullptr;
  }
  // The dependency map, once `dependenciesValid` says it was built.
  const PortDependencyMap& GetPortDependencies() const noexcept { return _portDependencies; }
  bool AreDependenciesValid() const noexcept {
    return dependenciesValid.load(std::memory_order_acquire);
  }

  // Written by topology validation before the object is shared.
  std::vector<TopologyComponent> _components;
  uint64_t _nextIndex = 0;
  PathHashMap<TopologyVertex*> _vertexIndices;
  // Holds the vertices: they don't move while the order lives.
  TopologyVertexStore _vertices;

  // Built lazily under `_lock`.
  PortDependencyMap _portDependencies;
  mutable std::mutex _lock;
  std::atomic<bool> dependenciesValid{false};
};

// The number of times a topology sort read the order of a base system for
// more than its size (its dependency map, when a wire enters a node that
// wasn't opened). The common case, a graph of nodes without loops, reads
// none; benchmarks and tests watch it.
inline std::atomic<uint64_t> g_topologyBaseReads{0};

}  // namespace orvix::nodes
