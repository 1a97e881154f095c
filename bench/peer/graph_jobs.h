// The jobs on which the node store is measured beside the container a user
// would otherwise pick for a graph: an `absl::flat_hash_map` from node name to
// a node that holds its type name, its ports with their values and its
// incoming wires.
//
// Both sides build the same graph: N nodes made from one operator with four
// ports (inputs "a", "b", "c", output "out"; "a" and "b" carry a value), and
// N - 1 wires joining each node's "out" to the next one's "a". Each job is a
// pair of functions, one per side, that does the same work; setup that the
// job doesn't measure (names, paths, the operator) is made before it.

#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "orvix/graph/node_path.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/nodes/gnode.h"
#include "orvix/nodes/node_system.h"
#include "orvix/nodes/node_system_class.h"

namespace orvix::nodes::peer {

// --- The peer: a graph in a flat hash map.

struct PeerValue {
  std::string name;
  double value = 0;
};
struct PeerPort {
  std::string name;
  bool output = false;
  std::vector<PeerValue> values;
};
struct PeerWire {
  std::string sourceNode;
  std::string sourcePort;
  std::string targetPort;
};
struct PeerNode {
  std::string type;
  std::vector<PeerPort> ports;
  std::vector<PeerWire> wires;  // the incoming ones
};
using PeerGraph = absl::flat_hash_map<std::string, PeerNode>;

// --- What both sides start from.

struct Inputs {
  explicit Inputs(int64_t count);

  int64_t count;
  // "n<i>", and the paths and texts of "n<i>>out" and "n<i><a".
  std::vector<std::string> names;
  std::vector<NodePath> outPaths;
  std::vector<NodePath> inPaths;
  std::vector<std::string> inTexts;
  InternedId valueId;

  Ref<NodeSystemClass> cls;
  Ref<NodeSystem> op;  // the library's operator
  PeerNode peerOp;     // the peer's
};

// Builds the graph: per node the node itself and its wire from the previous
// one, found by path (library: AddChild, FindByPath twice, Connect, and one
// EndModification at the end; peer: emplace, find twice, the ports checked,
// the wire stored). Null/false if an operation failed.
Ref<NodeSystem> BuildLibrary(const Inputs& in);
bool BuildPeer(const Inputs& in, PeerGraph& graph);

// Reads the value of port "a" of `rounds` × held.size() nodes, each through a
// handle (a pointer to the node for the peer) taken before. Returns the sum.
double ReadHeldLibrary(const NodeSystem& system, const std::vector<GNode>& held, int64_t rounds,
                       InternedId valueId);
double ReadHeldPeer(const std::vector<const PeerNode*>& held, int64_t rounds);

// Looks every path up in `system`; returns how many were found.
int64_t LookupLibrary(const NodeSystem& system, const std::vector<NodePath>& paths);
// Parses each text and looks it up; the peer splits the text at the port
// list and finds the node, then the port.
int64_t LookupTextLibrary(const NodeSystem& system, const std::vector<std::string>& texts);
int64_t LookupTextPeer(const PeerGraph& graph, const std::vector<std::string>& texts);

// The handles and pointers that the read jobs hold: "n<i><a" for every
// `stride`-th node.
std::vector<GNode> HoldLibrary(const NodeSystem& system, const Inputs& in, int64_t stride);
std::vector<const PeerNode*> HoldPeer(const PeerGraph& graph, const Inputs& in, int64_t stride);

// A system derived from `base` (its only record is the root), as a system of
// one more level over a finished graph is.
Ref<NodeSystem> DeriveLibrary(const Ref<NodeSystem>& base);

}  // namespace orvix::nodes::peer
