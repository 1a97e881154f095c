// The validation driver: the order of the stages, their quick exits, the port
// passes with their queues and masks, and the spreading of new work to the
// neighbours of a port while a stage runs.
//
// The driver's cost follows the change: each stage returns at once when the
// system word has none of its bits, the passes start from the modified list
// only, and work spreads over a wire only when a bit is new within the mask
// of the running stage.

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "orvix/host/diagnostics.h"
#include "orvix/nodes/config_variables.h"
#include "store/node_system_impl.h"
#include "validation/topology.h"
#include "validation/validation_queue.h"
#include "validation/validation_stages.h"

namespace orvix::nodes {

namespace {
using GFI = GNODE_FLAGS_IMPL;
using Clock = std::chrono::steady_clock;

constexpr GFI TOPOLOGY_BITS = GFI::MODIFIED_TOPOLOGY | GFI::MODIFIED_NESTED_TOPOLOGY;
constexpr GFI ATTRIBUTE_BITS = GFI::MODIFIED_AV_ALL | GFI::MODIFIED_SAV_ALL;
// Below this, the low word of the system flags holds no port bit.
constexpr uint32_t FIRST_PORT_BIT = 0x4000000;
// New bits of these kinds make attribute validation look at the neighbours.
constexpr uint64_t ATTRIBUTE_SPREAD_BITS = 0x24900000000;
constexpr uint64_t ALL_WIRES = 0x3f3f3f3f3f3f3f3fULL;

struct PortPass {
  GFI direction;
  bool descending;
  uint64_t mask;
  // Wires along which new children (and, in the inherited pass, new
  // shortcuts) spread.
  uint64_t wires;
};
constexpr PortPass PORT_PASSES[] = {
    {GFI::DERIVED_PORT_SYNTHESIZED, true, 0x94000000, 0x3f},
    {GFI::DERIVED_PORT_INHERITED, false, 0x6c080000, 0x3f3f003f},
};

bool IsListed(const NodeInfo* info) noexcept {
  return info && info != g_modifiedListEnd;
}

// Elapsed time since `start`, for the timing lines.
std::string ElapsedText(Clock::time_point start) {
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  char text[32];
  std::snprintf(text, sizeof text, "%.3f ms", ms);
  return text;
}

void ShowTime(std::string_view pattern, Clock::time_point start) {
  if (g_showValidationTime.Get()) DiagnosticOutput(pattern, ElapsedText(start));
}
}  // namespace

Result<void> NodeSystemImpl::Validate(ChangeList* changeList) {
  ORVIX_TRY(CheckModification(true));
  ORVIX_TRY(ValidatePorts(changeList));
  return ValidateAttributes(changeList);
}

Result<void> NodeSystemImpl::ValidateTopology() {
  ORVIX_TRY(CheckModification(true));
  if (!HasAny(_validation._systemFlags, TOPOLOGY_BITS)) return Ok();
  const Clock::time_point start = Clock::now();
  // Copies share the order until one of them sorts again.
  if (!_validation._topology || _validation._topology->GetReferenceCount() > 1) {
    ORVIX_TRY_ASSIGN(_validation._topology, NewRef<TopologyData>());
  }
  // A loop through ports leaves the bits set, so that the next validation
  // sorts again; the incomplete order stays for the queries meanwhile.
  ORVIX_TRY(SortTopology(*this, *_validation._topology));
  ClearModified(TOPOLOGY_BITS);
  ShowTime("Time for topology validation: @", start);
  return Ok();
}

Result<void> NodeSystemImpl::ValidatePorts(ChangeList* changeList) {
  // Port derivation writes through edits that record into the change list;
  // the driver itself records nothing.
  static_cast<void>(changeList);
  ORVIX_TRY(CheckModification(true));
  ORVIX_TRY(ValidateTopology());
  if (uint32_t(ToBits(_validation._systemFlags)) < FIRST_PORT_BIT) return Ok();
  const Clock::time_point start = Clock::now();
  if (_validation._stages && _validation._stages->validatePort) ORVIX_TRY(_RunPortPasses());
  ClearModified(GFI::MODIFIED_PV_ALL);
  ShowTime("Time for port validation: @", start);
  return Ok();
}

Result<void> NodeSystemImpl::_RunPortPasses() {
  const uint64_t indexCount = _validation._topology ? _validation._topology->GetIndexCount() : 0;
  for (const PortPass& pass : PORT_PASSES) {
    ValidationQueue queue(*this, pass.descending, indexCount);
    _validation._portValidation = &queue;
    _validation._validationMask = pass.mask;
    struct EndPass {
      ValidationQueue*& pointer;
      ~EndPass() { pointer = nullptr; }
    } endPass{_validation._portValidation};

    const bool inherited = pass.direction == GFI::DERIVED_PORT_INHERITED;
    const GFI workBits = GFI(pass.mask) & GFI::MODIFIED_MASK;
    // New records go to the front of the list, so records that this walk
    // marks are behind it already and are not visited twice.
    for (NodeInfo* r = _validation._firstModified; IsListed(r); r = r->_nextModified) {
      if (!HasAny(r->flags, workBits) || HasAny(r->flags, GFI::MODIFIED_G_GARBAGE) ||
          !r->AsPort()) {
        continue;
      }
      GNode port(r->_path, r, this, _stamps._movedStamp);
      if (inherited && r->GetKind() == NODE_KIND::OUTPORT &&
          HasAll(r->flags, GFI::MODIFIED_PV_TARGETS | GFI::CONTEXT_PARAMETER_PORT)) {
        ORVIX_TRY(SetModified(port, GFI::MODIFIED_ATTRIBUTES));
      }
      ORVIX_TRY(queue.Put(port));
      ORVIX_TRY(ScheduleNeighbours(port, GFI::NONE));
    }
    ORVIX_TRY(queue.Process([&](GNode& port) -> Result<void> {
      // A port that an earlier step removed is garbage now; nothing to do.
      Refresh(port);
      if (!port.info || HasAny(port.info->flags, GFI::MODIFIED_G_GARBAGE)) return Ok();
      return _validation._stages->validatePort(*this, port, pass.direction);
    }));
  }
  return Ok();
}

Result<void> NodeSystemImpl::ValidateAttributes(ChangeList* changeList) {
  ORVIX_TRY(CheckModification(true));
  if (!HasAny(_validation._systemFlags, ATTRIBUTE_BITS)) return Ok();
  const Clock::time_point start = Clock::now();
  if (_validation._stages && _validation._stages->validateAttributes) {
    Result<void> derived = _validation._stages->validateAttributes(*this, changeList);
    _attributes._attribSetup = nullptr;
    ORVIX_TRY(derived);
  } else {
    ClearModified(ATTRIBUTE_BITS);
  }
  ShowTime("Time for attribute validation: @", start);
  return Ok();
}

Result<void> NodeSystemImpl::ScheduleNeighbours(const GNode& port, GNODE_FLAGS_IMPL oldFlags) {
  if (!_validation._portValidation && !_attributes._attribSetup) return Ok();
  if (!port.info) return Ok();
  const uint64_t added = ToBits(port.info->flags) & ~ToBits(oldFlags) & _validation._validationMask;
  if (ValidationQueue* queue = _validation._portValidation) {
    const bool inherited = (_validation._validationMask & ToBits(GFI::HAS_SOURCE_SHORTCUTS)) != 0;
    const uint64_t spread =
        ToBits(inherited ? (GFI::MODIFIED_PV_CHILDREN | GFI::MODIFIED_PV_SHORTCUT)
                         : GFI::MODIFIED_PV_CHILDREN);
    if (added & spread) {
      const uint64_t wires = inherited ? PORT_PASSES[1].wires : PORT_PASSES[0].wires;
      // Work flows with the sweep: towards targets in the ascending pass,
      // towards sources in the descending one.
      ORVIX_TRY(
          VisitConnectedTopLevelPorts(port, queue->IsDescending(), wires, NEIGHBOUR_FLAGS::NONE,
                                      [queue](const GNode& other) { return queue->Put(other); }));
    }
  }
  if (AttributeSetup* setup = _attributes._attribSetup; setup && (added & ATTRIBUTE_SPREAD_BITS)) {
    NEIGHBOUR_FLAGS flags = NEIGHBOUR_FLAGS::NONE;
    if (_validation._validationMask & ToBits(GFI::MODIFIED_SAV_ALL))
      flags |= NEIGHBOUR_FLAGS::SHORTCUTS;
    if (_validation._validationMask & ToBits(GFI::INDUCED_DEPENDENCIES)) {
      flags |= NEIGHBOUR_FLAGS::INDUCED_DEPENDENCIES;
    }
    // Attributes of the other direction that are derived later must see the
    // change.
    if (setup->deriving == DERIVATION_DIRECTION::SYNTHESIZED && setup->inheritedQueue) {
      ORVIX_TRY(setup->inheritedQueue->Put(port));
    } else if (setup->deriving == DERIVATION_DIRECTION::INHERITED && setup->synthesizedQueue) {
      ORVIX_TRY(setup->synthesizedQueue->Put(port));
    }
    if (ValidationQueue* queue = setup->inheritedQueue) {
      ORVIX_TRY(
          VisitConnectedTopLevelPorts(port, false, ALL_WIRES, flags,
                                      [queue](const GNode& other) { return queue->Put(other); }));
    }
    if (ValidationQueue* queue = setup->synthesizedQueue) {
      ORVIX_TRY(VisitConnectedTopLevelPorts(
          port, true, ALL_WIRES, flags, [queue](const GNode& other) { return queue->Put(other); }));
    }
  }
  return Ok();
}

Result<void> NodeSystemImpl::VisitConnectedTopLevelPorts(
    const GNode& port, bool sources, uint64_t wiresMask, NEIGHBOUR_FLAGS flags,
    FunctionRef<Result<void>(const GNode&)> visit) {
  // Stored records know no induced dependencies; those come with the
  // effective-connection walk.
  const bool withShortcuts = HasAny(flags, NEIGHBOUR_FLAGS::SHORTCUTS);
  const CONNECTION_DIRECTION wanted =
      sources ? CONNECTION_DIRECTION::SOURCE : CONNECTION_DIRECTION::TARGET;
  std::vector<NodePath> others;
  std::vector<GNode> pending;
  try {
    pending.push_back(port);
    while (!pending.empty()) {
      GNode current = std::move(pending.back());
      pending.pop_back();
      Refresh(current);
      if (!current.info) continue;
      if (const ConnectionTable* table = ConnectionTableOf(current.info)) {
        table->ForEach([&](const ConnectionKey& key, const ConnectionData& data) {
          if (key.GetDirection() == wanted && (data.wires.GetValue() & wiresMask) != 0 &&
              (withShortcuts || key.GetType() == CONNECTION_TYPE::NORMAL)) {
            others.push_back(key.other);
          }
          return true;
        });
      }
      ChildIterator it;
      StartChildren(it, current);
      for (InternedId id = NextChildId(it); id.IsPopulated(); id = NextChildId(it)) {
        ORVIX_TRY_ASSIGN(NodePath childPath, current.path.Append(id));
        GNode child = MakeResolvedHandle(childPath);
        if (child) pending.push_back(std::move(child));
      }
    }
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  for (const NodePath& other : others) {
    NodePath top = other;
    if (!other.IsTopLevelPort()) {
      ORVIX_TRY_ASSIGN(top, other.GetTopLevelPort());
    }
    GNode handle = MakeResolvedHandle(top);
    if (!handle) {
      // A connection whose other end is gone: the tables are inconsistent.
      ReportInternalError();
      continue;
    }
    ORVIX_TRY(visit(handle));
  }
  return Ok();
}

Result<void> NodeSystemImpl::_InitDerivedAttributes() {
  const ValidationStages* stages = _validation._stages;
  if (!stages || !stages->initDerivedAttributes) return Ok();
  return stages->initDerivedAttributes(*this);
}

Result<void> NodeSystemImpl::_InitRootAttributes() {
  const ValidationStages* stages = _validation._stages;
  if (!stages || !stages->initRootAttributes) return Ok();
  return stages->initRootAttributes(*this);
}

}  // namespace orvix::nodes
