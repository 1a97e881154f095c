#pragma once
// Topology validation: the hierarchical order of a system's nodes and ports,
// and what reads it. The sort (topology_sort.cpp) fills a TopologyData; the
// queries (topology_queries.cpp) read it and build its port dependency map.

#include <cstddef>

#include "orvix/graph/node_path.h"
#include "orvix/host/result.h"
#include "store/topology_data.h"

namespace orvix::nodes {

class NodeSystemImpl;

// Sorts the whole system into `data`, which the caller holds alone. The
// order stays in `data` even when the sort finds loops through ports; the
// result is then the error that names their ports.
//   "The ports @ form a cycle."
Result<void> SortTopology(NodeSystemImpl& system, TopologyData& data);

// The vertex of the longest prefix of `parts` that has one, and the length
// of that prefix in `length`; null if no prefix has a vertex.
const TopologyVertex* FindLongestPrefix(const TopologyData& data, NodePath::Block parts,
                                        size_t* length);

// The dependency map of a base system, built if it isn't yet.
Result<const PortDependencyMap*> PortDependenciesOf(const NodeSystemImpl& base);

}  // namespace orvix::nodes
