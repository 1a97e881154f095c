// The modified bits and the two levels of modified lists: SetModified,
// ClearModified and PurgeGarbage.
//
// Nodes, port lists and top-level ports hang on the system's list; a nested
// port hangs on the list of its top-level port, which carries the matching
// nested bits and sits on the system's list. Validation therefore starts from
// the few records that were touched, and clearing walks only those.

#include "orvix/host/debug_assert.h"
#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "orvix/nodes/modified_bits_probe.h"
#include "store/node_system_impl.h"
#include "validation/validation_access.h"
#include "validation/validation_stages.h"

namespace orvix::nodes {

namespace {
using GFI = GNODE_FLAGS_IMPL;

constexpr GFI G_BITS = GFI::MODIFIED_G_GARBAGE | GFI::MODIFIED_G_VALUES_MIGHT_BE_REFERENCED;
constexpr GFI AV_BITS =
    GFI::MODIFIED_AV_ATTRIBUTES | GFI::MODIFIED_AV_SOURCES | GFI::MODIFIED_AV_TARGETS;
constexpr GFI SAV_BITS =
    GFI::MODIFIED_SAV_ATTRIBUTES | GFI::MODIFIED_SAV_SOURCES | GFI::MODIFIED_SAV_TARGETS;
// The nested bit of each of AV_BITS and SAV_BITS lies three bits higher.
constexpr int NESTED_SHIFT = 3;
static_assert(GFI(ToBits(AV_BITS) << NESTED_SHIFT) ==
              (GFI::MODIFIED_AV_NESTED_ATTRIBUTES | GFI::MODIFIED_AV_NESTED_SOURCES |
               GFI::MODIFIED_AV_NESTED_TARGETS));
static_assert(GFI(ToBits(SAV_BITS) << NESTED_SHIFT) ==
              (GFI::MODIFIED_SAV_NESTED_ATTRIBUTES | GFI::MODIFIED_SAV_NESTED_SOURCES |
               GFI::MODIFIED_SAV_NESTED_TARGETS));

bool IsModified(const NodeInfo* info) noexcept {
  return HasAny(info->flags, GFI::MODIFIED_MASK);
}
bool IsListed(const NodeInfo* info) noexcept {
  return info && info != g_modifiedListEnd;
}

// Calls `check` with every record on the lists that start at `head`, nested
// lists included, until it answers false; true if it never did.
template <typename Check>
[[maybe_unused]] bool EveryListed(const NodeInfo* head, Check&& check) noexcept {
  for (const NodeInfo* r = head; IsListed(r); r = r->_nextModified) {
    if (!check(r)) return false;
    if (const PortRecord* port = r->AsPort()) {
      for (const NodeInfo* n = port->_firstNestedModified; IsListed(n); n = n->_nextModified) {
        if (!check(n)) return false;
      }
    }
  }
  return true;
}
}  // namespace

GNODE_FLAGS_IMPL NestedModifiedBits(GNODE_FLAGS_IMPL bits) noexcept {
  GFI nested = GFI::NONE;
  if (HasAny(bits, GFI::MODIFIED_TOPOLOGY)) nested |= GFI::MODIFIED_NESTED_TOPOLOGY;
  if (HasAny(bits, G_BITS)) nested |= GFI::MODIFIED_G_NESTED_GARBAGE;
  if (HasAny(bits, GFI::MODIFIED_PV_INHERITED)) nested |= GFI::MODIFIED_PV_NESTED_INHERITED;
  if (HasAny(bits, GFI::MODIFIED_PV_SYNTHESIZED)) nested |= GFI::MODIFIED_PV_NESTED_SYNTHESIZED;
  nested |= GFI(ToBits(bits & (AV_BITS | SAV_BITS)) << NESTED_SHIFT);
  return nested;
}

void NodeSystemImpl::_LinkModified(NodeInfo* info) noexcept {
  ORVIX_DEBUG_ASSERT(_store._nodes->HoldsInLayer(info),
                     "a record on a modified list is one of the top layer's own");
  if (info->_nextModified) return;
  info->_nextModified = _validation._firstModified;
  _validation._firstModified = info;
}

Result<void> NodeSystemImpl::SetModified(GNode& node, GNODE_FLAGS_IMPL bits) {
  if (bits == GFI::NONE) return Ok();
  // A record on a list is always one of this system's own.
  ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(node, NODE_KIND::NONE));
  const GFI oldFlags = info->flags;
  const bool changed = (oldFlags | bits) != oldFlags;
  const bool everyTouchCounts =
      (_validation._validationMask & ToBits(GFI::INDUCED_DEPENDENCIES)) != 0;

  // A nested port is listed at its top-level port: find that first, so that a
  // failure leaves no bits behind that no list knows of.
  const bool nestedPort = info->AsPort() && !node.path.IsTopLevelPort();
  NodeInfo* topInfo = nullptr;
  if (nestedPort && changed) {
    ORVIX_TRY_ASSIGN(NodePath topPath, node.path.GetTopLevelPort());
    GNode top = MakeResolvedHandle(topPath);
    auto missing = [&] {
      return Error(ERROR_CLASS::ILLEGAL_STATE,
                   FormatMessage("The path @ doesn't exist in this node system.", topPath));
    };
    if (!top) return missing();
    ORVIX_TRY_ASSIGN(topInfo, GetMutable(top, NODE_KIND::NONE));
    if (!topInfo->AsPort()) return missing();
  }

  _validation._systemFlags |= bits;
  info->flags |= bits;
  if (!changed && !everyTouchCounts) return Ok();
  if (!info->AsPort()) {
    _LinkModified(info);
    return Ok();
  }
  if (!nestedPort) {
    if (changed) _LinkModified(info);
  } else if (changed) {
    PortRecord* topPort = topInfo->AsPort();
    _LinkModified(topInfo);
    const GFI nested = NestedModifiedBits(bits);
    topInfo->flags |= nested;
    _validation._systemFlags |= nested;
    ORVIX_DEBUG_ASSERT(_store._nodes->HoldsInLayer(info),
                       "a record on a modified list is one of the top layer's own");
    if (!info->_nextModified) {
      info->_nextModified = topPort->_firstNestedModified;
      topPort->_firstNestedModified = info;
    }
  }
  return ScheduleNeighbours(node, everyTouchCounts ? GFI::NONE : oldFlags);
}

namespace {
// Clears `bits` on the records of the list that starts at `*head`. Records
// without modified bits leave the list; garbage goes if `bits` asks for it.
// `nestedOf` handles the nested list of a top-level port before the port
// itself is looked at.
template <typename NestedHandler>
void ClearList(NodeInfo** head, GFI bits, NestedHandler&& nestedOf) noexcept {
  const bool freeGarbage = HasAny(bits, GFI::MODIFIED_G_GARBAGE);
  NodeInfo** link = head;
  while (IsListed(*link)) {
    NodeInfo* r = *link;
    nestedOf(r);
    const bool garbage = freeGarbage && HasAny(r->flags, GFI::MODIFIED_G_GARBAGE);
    r->flags &= ~bits;
    const PortRecord* port = r->AsPort();
    const bool nestedLeft = port && IsListed(port->_firstNestedModified);
    if (garbage) {
      // Removal took the record out of the map; the list was its last owner.
      r->flags = GFI(ToBits(r->flags) & 0xffffff);
      *link = r->_nextModified;
      r->_nextModified = nullptr;
      if (PortRecord* p = r->AsPort()) {
        // Whatever nested records are still linked belong to the map; they
        // only leave the list of the port that goes.
        for (NodeInfo* n = p->_firstNestedModified; IsListed(n);) {
          NodeInfo* next = n->_nextModified;
          n->_nextModified = nullptr;
          if (HasAny(n->flags, GFI::MODIFIED_G_GARBAGE)) NodeInfo::Free(n);
          n = next;
        }
        p->_firstNestedModified = g_modifiedListEnd;
      }
      NodeInfo::Free(r);
    } else if (!IsModified(r) && !nestedLeft) {
      *link = r->_nextModified;
      r->_nextModified = nullptr;
    } else {
      link = &r->_nextModified;
    }
  }
}
}  // namespace

void NodeSystemImpl::ClearModified(GNODE_FLAGS_IMPL bits) noexcept {
  const GFI nested = NestedModifiedBits(bits);
  ClearList(&_validation._firstModified, bits, [&](NodeInfo* r) {
    PortRecord* port = r->AsPort();
    if (!port || !HasAny(r->flags, nested)) return;
    ClearList(&port->_firstNestedModified, bits, [](NodeInfo*) {});
    r->flags &= ~nested;
  });
  // SetModified puts the nested bits into the system word too; they go with
  // the bits that stand for them.
  _validation._systemFlags &= ~(bits | nested);
}

Result<void> NodeSystemImpl::PurgeGarbage() {
  ORVIX_CHECK_STATE(IsValidated());
  // Removal took each garbage record out of the map before handing it over:
  // the lists are its last owner, and freeing it leaves no entry dangling.
  ORVIX_DEBUG_ASSERT(EveryListed(_validation._firstModified,
                                 [&](const NodeInfo* r) {
                                   return !HasAny(r->flags, GFI::MODIFIED_G_GARBAGE) ||
                                          !_store._nodes->HoldsInLayer(r);
                                 }),
                     "a garbage record is out of the map");
  // The nested bit of garbage is MODIFIED_G_NESTED_GARBAGE, so a nested list
  // is walked only where that bit asks for it.
  ClearModified(GFI::MODIFIED_G_ALL);
  // A garbage record that a list kept would be freed by nobody, or twice; one
  // that the nested bit didn't announce stays behind on its port's list.
  ORVIX_DEBUG_ASSERT(!HasAny(_validation._systemFlags, GFI::MODIFIED_G_ALL) &&
                         EveryListed(_validation._firstModified,
                                     [&](const NodeInfo* r) {
                                       return !HasAny(r->flags, GFI::MODIFIED_G_ALL) &&
                                              _store._nodes->HoldsInLayer(r);
                                     }),
                     "purging leaves no garbage record, and no garbage bit, behind");
  return Ok();
}

// ---------------------------------------------------------------------------
// The probe of modified bits (modified_bits_probe.h)

namespace {
const NodeSystemImpl* AsImpl(const NodeSystem& system) {
  return dynamic_cast<const NodeSystemImpl*>(&system);
}
}  // namespace

Result<GFI> ProbeModifiedBits(const NodeSystem& system, const GNode& node) {
  const NodeSystemImpl* impl = AsImpl(system);
  if (!impl) return ConditionError(CONDITION_KIND::ILLEGAL_ARGUMENT, "system is a NodeSystemImpl");
  GNode handle = node;
  ORVIX_TRY_ASSIGN(const NodeInfo* info, impl->Resolve(handle));
  if (handle.system != impl) return GFI::NONE;
  return info->flags & GFI::MODIFIED_MASK;
}

Result<GFI> ProbeSystemModifiedBits(const NodeSystem& system) {
  const NodeSystemImpl* impl = AsImpl(system);
  if (!impl) return ConditionError(CONDITION_KIND::ILLEGAL_ARGUMENT, "system is a NodeSystemImpl");
  return ValidationAccess::State(*impl)._systemFlags;
}

}  // namespace orvix::nodes
