#pragma once
// The stages that the validation driver runs, and what the driver shares with
// them while they run.
//
// The driver (Validate, ValidateTopology, ValidatePorts, ValidateAttributes)
// owns the order of the stages, their quick exits, the queues, the masks, the
// clearing of modified bits and the timing. What a stage does to a port is
// its own and reaches the driver through ValidationStages. The contract for a
// stage that isn't installed: it has nothing to do and succeeds, and the
// driver clears the bits of that stage as it does after a successful stage,
// so that a system with edits still ends validated.

#include <cstdint>
#include <functional>
#include <optional>

#include "orvix/graph/node_kind.h"
#include "orvix/host/data.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"

namespace orvix::nodes {

class ChangeList;
class ValidationQueue;

struct ValidationStages {
  // One step of a port pass: brings `port` up to date in the direction of
  // `direction` (DERIVED_PORT_SYNTHESIZED in the first pass,
  // DERIVED_PORT_INHERITED in the second). The driver runs the passes, queues
  // and clears the port bits. Without it the passes are skipped.
  std::function<Result<void>(NodeSystemImpl& system, GNode& port, GNODE_FLAGS_IMPL direction)>
      validatePort;
  // Attribute derivation: runs its stages with `_attribSetup` set, and clears
  // the bits of each of its stages as that stage succeeds.
  std::function<Result<void>(NodeSystemImpl& system, ChangeList* changeList)> validateAttributes;
  // Initialisation of a new system: its derived attribute list, and the
  // attribute setup of its root.
  std::function<Result<void>(NodeSystemImpl& system)> initDerivedAttributes;
  std::function<Result<void>(NodeSystemImpl& system)> initRootAttributes;
  // The access rules of attribute derivation, applied while `_attribSetup`
  // is set: what may be read and written at which port. A read may be
  // answered by the rule itself (a computed attribute); nothing lets the
  // stored read go on. Without them every access is allowed.
  std::function<Result<std::optional<const Data*>>(const NodeSystemImpl& system, const GNode& node,
                                                   InternedId id)>
      readRule;
  std::function<Result<void>(NodeSystemImpl& system, const GNode& node, InternedId id)> writeRule;
};

// The direction of the attribute being derived now, if any.
enum class DERIVATION_DIRECTION : uint32_t { NONE, INHERITED, SYNTHESIZED };

// What the driver reads of the context of attribute validation while it runs:
// the two queues that ScheduleNeighbours feeds, and the direction of the
// attribute being derived. Attribute derivation holds the rest.
struct AttributeSetup {
  ValidationQueue* inheritedQueue = nullptr;
  ValidationQueue* synthesizedQueue = nullptr;
  DERIVATION_DIRECTION deriving = DERIVATION_DIRECTION::NONE;
};

// The bits that a top-level port receives when `bits` are set on one of its
// nested ports.
GNODE_FLAGS_IMPL NestedModifiedBits(GNODE_FLAGS_IMPL bits) noexcept;

}  // namespace orvix::nodes
