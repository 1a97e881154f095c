#pragma once
// TopologyData: the result of topology validation, shared between a system
// and its copies until the next topology validation replaces it.
//
// Topology validation fills it: the order of the top-level ports, given as
// one index per port. The driver reads only the index count and the index of
// a port, which is what ValidationQueue keys on. The lazy port dependency map
// that topology validation adds later is guarded by `_lock`, the only member
// that changes after the object is shared.

#include <atomic>
#include <cstdint>
#include <optional>
#include <unordered_map>

#include "orvix/graph/node_path.h"
#include "orvix/host/ref.h"

namespace orvix::nodes {

class TopologyData : public RefCounted {
 public:
  // The topological index of a top-level port; nothing if it has none.
  std::optional<uint32_t> GetIndex(const NodePath& port) const {
    const auto it = _portIndices.find(port);
    if (it == _portIndices.end()) return std::nullopt;
    return it->second;
  }
  uint32_t GetIndexCount() const noexcept { return _indexCount; }

  // Filled by topology validation before the object is shared.
  std::unordered_map<NodePath, uint32_t> _portIndices;
  uint32_t _indexCount = 0;
  // Guards what is built lazily after sharing.
  mutable std::atomic_flag _lock;
};

}  // namespace orvix::nodes
