#pragma once
// The ids, change flags and value masks of node systems: what a reader of
// stamps or a caller of EndModification needs without the NodeSystem
// interface itself. Kept free of Data and the template headers so that it
// costs a client little more than the flag-set operators.

#include <cstdint>
#include <string_view>

#include "orvix/graph/flags.h"

namespace orvix::nodes {

// The class id of node systems.
inline constexpr std::string_view NODE_SYSTEM_CLASS_ID = "net.orvix.node.class.nodesystem";

// The reserved id of the port that stands for a nested node system; it is
// never a candidate of GetChild without an id.
inline constexpr std::string_view NODE_SYSTEM_PORT_ID = "net.orvix.node.port.nodesystem";

// What changed since a stamp, as the graph model reports it.
enum class MODIFIED : uint64_t {
  NONE = 0x0,
  COMPLETE = 0x1,  // anything may have changed: start over
  DIRECT_ATTRIBUTE = 0x2,
  DIRECT_META_ATTRIBUTE = 0x4,
  INHERITED_ATTRIBUTE = 0x8,
  SYNTHESIZED_ATTRIBUTE = 0x10,
  USER_STATE_ATTRIBUTE = 0x20,
  NODE_ADDED = 0x40,
  CHILD_REMOVED = 0x80,
  CONNECTION_SOURCES = 0x100,  // the incoming connections of a port
  CONNECTION_TARGETS = 0x200,  // the outgoing connections of a port
  SPECIAL0 = 0x400,
  SPECIAL1 = 0x800,

  DATA_ATTRIBUTE_MASK = 0x1a,
  NODE_MASK = 0xc0,
  CONNECTION_MASK = 0x300,
};
ORVIX_FLAG_SET_OPERATORS(MODIFIED)

// How a modification ends.
enum class FINALIZE_FLAGS : uint32_t {
  // The caller has validated the system itself: EndModification neither asks
  // the class nor validates, and fails if anything is pending.
  NONE = 0,
  // The normal end of a modification.
  CLEANUP = 1,
  // The system is finished as the content of a group.
  FOR_GROUP = 2,
};
ORVIX_FLAG_SET_OPERATORS(FINALIZE_FLAGS)

// What GetValues takes: values set directly, derived values, and from
// VALUES_FLAGS_SHIFT up the attribute flags that a value's attribute must
// share.
inline constexpr uint32_t VALUES_DIRECT = 0x1;
inline constexpr uint32_t VALUES_DERIVED = 0x2;
inline constexpr uint32_t VALUES_ALL = VALUES_DIRECT | VALUES_DERIVED;

// What GetTopologicalIndex yields for a path that has no place in the order:
// the lowest 64-bit integer, below every real index.
inline constexpr int64_t NO_TOPOLOGICAL_INDEX = INT64_MIN;

}  // namespace orvix::nodes
