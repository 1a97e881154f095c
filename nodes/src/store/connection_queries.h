#pragma once
// The effective connections of a port.
//
// A system stores only its difference from its bases, so a port's real wires
// are spread over the record of the port, the records of the same port in the
// bases, and the records of its ancestor ports (a wire between two top-level
// ports also joins their equally named nested ports). GetConnections
// (NodeSystemImpl, connection_queries.cpp) is the one walk that puts these
// together; every stage and every reader of connections goes through it.

#include <cstdint>
#include <functional>
#include <unordered_set>

#include "orvix/graph/connection.h"
#include "orvix/graph/flags.h"
#include "orvix/graph/node_path.h"
#include "orvix/graph/wires.h"
#include "orvix/host/data.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"

namespace orvix::nodes {

enum class GET_CONNECTIONS_FLAGS : uint32_t {
  NONE = 0x0,                    // nothing is reported
  SOURCES = 0x1,                 // report records whose other end is a source
  TARGETS = 0x2,                 // report records whose other end is a target
  TOP_LEVEL_PORTS = 0x4,         // report the top-level port of the other end
  INHERITED_ONLY = 0x8,          // report only what the bases supply
  SHORTCUTS = 0x10,              // read shortcut records instead; no ancestors
  FILTER_SHORTCUTS = 0x20,       // let the derivation handler confirm filter shortcuts
  EXTERNAL_CONNECTIONS = 0x40,   // only wires that leave the port's node
  WITHOUT_INHIBITED = 0x80,      // skip records with a wire on the inhibit channel
  WITHOUT_IMPLICIT = 0x100,      // don't walk up to ancestor ports
  INDUCED_DEPENDENCIES = 0x200,  // report induced dependencies too (with SHORTCUTS)
};
ORVIX_FLAG_SET_OPERATORS(GET_CONNECTIONS_FLAGS)

// Every channel, every priority; and the same with the ancestor walk.
inline constexpr uint64_t ALL_WIRES_MASK = 0x3f3f3f3f3f3f3f3fULL;
inline constexpr uint64_t ALL_WIRES_IMPLICIT_MASK = 0x7f7f7f7f7f7f7f7fULL;
// maxDepth without a limit.
inline constexpr uint64_t UNLIMITED_DEPTH = 0x7fffffffffffffffULL;

// The in/out record of one query.
struct ConnectionQuery {
  using Callback = std::function<Result<bool>(ConnectionQuery& query)>;

  // In: the port asked about.
  GNode port;
  // Out, for each report: the other end, the wires (IMPLICIT set in each used
  // channel for a wire of an ancestor port), the record's attributes and the
  // direction of the other end.
  GNode other;
  Wires wires;
  Ref<ConnectionAttributes> data;
  CONNECTION_DIRECTION direction = CONNECTION_DIRECTION::SOURCE;
  // In: called for each report; false stops the query.
  Callback callback;
  // In: if not empty, only the connection to this one port is looked for.
  NodePath filterPath;
  // Working: the other ends treated so far; the first record found for an
  // other end wins.
  std::unordered_set<NodePath> seen;
};

// The value that "net.orvix.node.ionodes" reads at a port or port list that
// doesn't set it: the constant array of the id "out" for an output, "in"
// otherwise.
const Data& IoNodesDefault(bool output);

// Flags of a neighbour query beyond the plain connections.
enum class NEIGHBOUR_FLAGS : uint32_t {
  NONE = 0,
  SHORTCUTS = 1,             // shortcut connections count as well
  INDUCED_DEPENDENCIES = 2,  // induced dependencies count as well
};
ORVIX_FLAG_SET_OPERATORS(NEIGHBOUR_FLAGS)

}  // namespace orvix::nodes
