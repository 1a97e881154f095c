// NodeSystemImpl: the edits of wires. Connect sets the wires between two ports
// channel by channel and stores only what differs from the bases, at both
// ends; SetConnectionValue edits a connection's attributes through it, so
// that wires and attributes are stored and undone together.

#include <new>
#include <utility>

#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

namespace {
using GFI = GNODE_FLAGS_IMPL;

constexpr GFI SOURCE_END_BITS = GFI::MODIFIED_TOPOLOGY | GFI::MODIFIED_TARGETS;
constexpr GFI TARGET_END_BITS = GFI::MODIFIED_TOPOLOGY | GFI::MODIFIED_SOURCES;
static_assert(ToBits(SOURCE_END_BITS) == 0x10411000000);
static_assert(ToBits(TARGET_END_BITS) == 0x8209000000);

constexpr uint64_t HIGH_BITS = 0x8080808080808080ULL;

Error IllegalConnection() {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, std::string());
}

// True if the path has a port section: a port-list part with at least one
// part behind it.
bool HasPortSection(const NodePath& path) {
  return path.GetNodeCount() + 1 < path.GetCount();
}

// Connections stay within one system and its direct children, and follow
// the direction of the data: into the root's inputs' consumers, out of the
// children's outputs, out through the root's outputs.
Result<void> CheckConnectRules(const NodePath& source, const NodePath& target) {
  if (!HasPortSection(source)) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, FormatMessage("@ is not a port.", source));
  }
  if (!HasPortSection(target)) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, FormatMessage("@ is not a port.", target));
  }
  const size_t i = source.GetNodeCount();
  const size_t j = target.GetNodeCount();
  if (i == j) {
    const NodePath::Block a = source.ToBlock().first(i + 2);
    const NodePath::Block b = target.ToBlock().first(i + 2);
    if (std::equal(a.begin(), a.end(), b.begin())) {
      return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                   FormatMessage("Can't connect ports @, @ because they are within the same "
                                 "top-level port.",
                                 source, target));
    }
  }
  if (i >= 2 || j >= 2) return IllegalConnection();
  const bool sourceIn = source.GetKindRaw() == NODE_KIND::INPORT;
  const bool targetIn = target.GetKindRaw() == NODE_KIND::INPORT;
  if (sourceIn && targetIn && i != 0) return IllegalConnection();
  if (!sourceIn && !targetIn && j != 0) return IllegalConnection();
  if (sourceIn && !targetIn && (i != 0 || j != 0)) return IllegalConnection();
  return Ok();
}

bool SameState(const ConnectionData& a, const ConnectionData& b) {
  return a == b;
}
}  // namespace

Result<void> NodeSystemImpl::ConnectImpl(const GNode& source, const GNode& target, Wires modes,
                                         const Ref<ConnectionAttributes>* attributes,
                                         ChangeList* changeList, bool check) {
  static_cast<void>(changeList);
  ORVIX_TRY(CheckModification(true));
  GNode from = source;
  ORVIX_TRY(Resolve(from));
  GNode to = target;
  ORVIX_TRY(Resolve(to));
  if (check) ORVIX_TRY(CheckConnectRules(from.path, to.path));

  // What the bases say, with INHERIT in every channel they use, so that a
  // stored copy of it still reads as inherited.
  ORVIX_TRY_ASSIGN(ConnectionData inherited,
                   ReadConnection(from, to, GET_CONNECTIONS_FLAGS::INHERITED_ONLY));
  const uint64_t inheritedUsed = inherited.wires.ToMask().GetValue();
  inherited.wires = Wires(inherited.wires.GetValue() | (inheritedUsed & HIGH_BITS));

  const ConnectionKey toTarget =
      ConnectionKey::Make(to.path, CONNECTION_TYPE::NORMAL, CONNECTION_DIRECTION::TARGET);
  const ConnectionKey toSource =
      ConnectionKey::Make(from.path, CONNECTION_TYPE::NORMAL, CONNECTION_DIRECTION::SOURCE);
  const ConnectionData* stored = nullptr;
  if (from.system == this) {
    if (const ConnectionTable* table = ConnectionTableOf(from.info)) stored = table->Find(toTarget);
  }
  const ConnectionData current = stored ? *stored : inherited;

  ConnectionData next;
  for (uint32_t channel = 0; channel < 8; ++channel) {
    const WIRE_MODE mode = modes.Get(channel);
    WIRE_MODE byte = current.wires.Get(channel);
    if (mode == WIRE_MODE::NONE) {
      // The channel stays.
    } else if (mode == WIRE_MODE::REMOVE) {
      byte = WIRE_MODE::NONE;
    } else if (uint8_t(mode) <= 0x7f) {
      byte = mode;
    } else if (mode == WIRE_MODE::INHERIT) {
      byte = inherited.wires.Get(channel);
    } else {
      return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                   FormatMessage("Illegal wire mode @ for call to Connect().", mode));
    }
    next.wires.Set(channel, byte);
  }
  if (!next.wires.IsEmpty()) next.attributes = attributes ? *attributes : current.attributes;
  // Nothing to do: the state stays as it is stored or as the bases supply
  // it. Going on when nothing is stored would store the bases' state and take
  // it away again, and still mark both ends and record an entry for no change.
  if (SameState(next, current)) return Ok();

  ORVIX_TRY_ASSIGN(NodeInfo * fromInfo, GetMutable(from, NODE_KIND::NONE));
  ORVIX_TRY_ASSIGN(NodeInfo * toInfo, GetMutable(to, NODE_KIND::NONE));
  // Marks first: marking a nested port fetches its top-level port for
  // writing, which may fail, and a wire that validation wouldn't visit must
  // not be stored. Records never move, so the pointers above stay good.
  ORVIX_TRY(SetModified(from, SOURCE_END_BITS));
  ORVIX_TRY(SetModified(to, TARGET_END_BITS));
  ConnectionTable* fromTable = ConnectionTableOf(fromInfo);
  ConnectionTable* toTable = ConnectionTableOf(toInfo);
  if (!fromTable || !toTable)
    return ConditionError(CONDITION_KIND::ASSERTION, "fromTable && toTable");
  bool insertedAtSource = false;
  ORVIX_TRY_ASSIGN(ConnectionData * atSource, fromTable->FindOrInsert(toTarget, &insertedAtSource));
  Result<ConnectionData*> atTargetResult = toTable->FindOrInsert(toSource);
  if (!atTargetResult) {
    if (insertedAtSource) fromTable->Erase(toTarget);
    return std::move(atTargetResult).GetError();
  }
  ConnectionData* atTarget = *atTargetResult;
  if (!(*atSource == *atTarget)) {
    if (insertedAtSource) fromTable->Erase(toTarget);
    return ConditionError(CONDITION_KIND::ASSERTION, "s.GetValue() == t.GetValue()");
  }

  auto* fromPort = fromInfo->AsPort();
  auto* toPort = toInfo->AsPort();
  toPort->_sourcesStamp = _stamps._modificationStamp;
  fromPort->_targetsStamp = _stamps._modificationStamp;
  _stamps._connectionStamp = _stamps._modificationStamp;

  if (SameState(next, inherited)) {
    // The difference from the bases is gone.
    fromTable->Erase(toTarget);
    toTable->Erase(toSource);
  } else {
    *atSource = next;
    *atTarget = std::move(next);
  }
  return Ok();
}

Result<bool> NodeSystemImpl::SetConnectionValue(const GNode& source, const GNode& target,
                                                uint32_t kind, InternedId id, const Data& value,
                                                ChangeList* changeList) {
  ORVIX_TRY(CheckModification(true));
  ORVIX_TRY_ASSIGN(ConnectionAttributeKey key, ConnectionAttributeKey::Create(id, kind));
  ORVIX_TRY_ASSIGN(ConnectionData current,
                   ReadConnection(source, target, GET_CONNECTIONS_FLAGS::NONE));
  if (current.wires.IsEmpty()) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("There is no connection from @ to @.", source.path, target.path));
  }
  const Data* existing = current.attributes ? current.attributes->Find(key) : nullptr;
  if (existing ? *existing == value : value.IsEmpty()) return false;
  // The array is shared with the other end and with the bases: the change
  // goes into a new one.
  ORVIX_TRY_ASSIGN(Ref<ConnectionAttributes> changed,
                   value.IsEmpty()
                       ? ConnectionAttributes::WithoutValue(current.attributes.Get(), key)
                       : ConnectionAttributes::WithValue(current.attributes.Get(), key, value));
  ORVIX_TRY(ConnectImpl(source, target, Wires(), &changed, changeList, false));
  return true;
}

}  // namespace orvix::nodes
