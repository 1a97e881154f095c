#pragma once
// The copy-on-write entry to a modification: the way clients begin to edit a
// node system that others may be holding.

#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"
#include "orvix/nodes/node_system.h"

namespace orvix::nodes {

// Begins a modification of `system`. If others hold the object too, `system`
// is first replaced by a copy made through the system's class, so that they
// keep seeing the old state. On success the reference moves into the
// MutableRoot, its one owner for the time of the modification, and `system`
// is left null; on failure `system` holds the old reference again and the
// error is the result. The old object is held until the call returns in
// either case, which is what `keepOld` asks for; it is accepted for callers
// that state it.
//   A null `system`: the null-object error.
//   "BeginModification() called while there already is an active modification."
Result<MutableRoot> BeginModification(Ref<NodeSystem>& system, bool keepOld = false);

}  // namespace orvix::nodes
