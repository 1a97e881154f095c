#pragma once
// The tables of loop dependencies that a node system keeps beside its nodes.
//
// A loop source is a port whose value names the ports that close a loop
// through it; the system keeps one LoopRecord per loop source, and from them
// the induced dependencies, the extra edges that connection queries report
// with INDUCED_DEPENDENCIES. Attribute validation fills the tables; the
// structural edits carry them along when a node is added or a port goes.

#include <cstdint>
#include <set>
#include <unordered_map>

#include "orvix/graph/node_path.h"

namespace orvix::nodes {

struct LoopRecord {
  // The sources of the loops in the value at this port; empty once the
  // record has gone.
  std::set<NodePath> sources;
  // The targets of the loop whose source is this port.
  std::set<NodePath> targets;
  // The round of attribute validation (`_attribValidationCount`) of the last
  // change of `sources`.
  uint64_t validationCount = 0;
  // Marks of the component search: the visit number shifted left by one with
  // bit 0 for "on the stack", and the low link.
  int64_t index = 0;
  int64_t lowLink = 0;
};

struct InducedEntry {
  std::set<NodePath> paths;
  // The round of the rebuild that last confirmed the entry.
  uint64_t validationCount = 0;
};

using LoopDependencyTable = std::unordered_map<NodePath, LoopRecord>;
using InducedSourceTable = std::unordered_map<NodePath, InducedEntry>;
using InducedTargetTable = std::unordered_map<NodePath, std::set<NodePath>>;

}  // namespace orvix::nodes
