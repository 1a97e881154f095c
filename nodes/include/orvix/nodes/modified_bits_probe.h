#pragma once
// A diagnostic and test hook, not part of NodeSystem: the modified bits that
// edits leave for validation to work on.
//
// No published operation hands them out, and none should: they are the
// validation driver's working state, meaningful only inside a modification,
// and a client that steered by them would tie itself to how validation
// spreads its work today. Tools that show what validation is about to do,
// and tests of the marks that edits leave, read them here instead of
// reaching into the implementation.

#include "orvix/graph/node_kind.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"

namespace orvix::nodes {

class NodeSystem;

// The modified bits (within MODIFIED_MASK) of the record that `system` itself
// holds for the element; NONE if it holds none, since an element seen through
// a base or a nested system carries none of this system's work.
//   "Nullptr node" for an empty handle.
//   "Node with path @ doesn't exist any longer."
//   "Illegal argument: Condition system is a NodeSystemImpl not fulfilled. "
Result<GNODE_FLAGS_IMPL> ProbeModifiedBits(const NodeSystem& system, const GNode& node);

// The union of the modified bits set anywhere in `system` since they were
// last cleared; NONE for a finalized system.
//   "Illegal argument: Condition system is a NodeSystemImpl not fulfilled. "
Result<GNODE_FLAGS_IMPL> ProbeSystemModifiedBits(const NodeSystem& system);

}  // namespace orvix::nodes
