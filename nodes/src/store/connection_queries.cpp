// NodeSystemImpl: the effective connections of a port, over levels (the
// port and its ancestor ports) and layers (the record in this system and the
// records of the same element in the bases), and the reads and touches built
// on that walk.

#include <algorithm>
#include <new>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "orvix/host/diagnostics.h"
#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "orvix/nodes/derivation_handler.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

namespace {
using GCF = GET_CONNECTIONS_FLAGS;
using GFI = GNODE_FLAGS_IMPL;

constexpr uint64_t LOW_SIX_BITS = 0x3f3f3f3f3f3f3f3fULL;
constexpr uint64_t IMPLICIT_BITS = 0x4040404040404040ULL;
// The report of an induced dependency: WIRE_MODE::MIN on channel 2.
constexpr uint64_t INDUCED_WIRE = uint64_t{0x08} << 16;
constexpr uint32_t INHIBIT_CHANNEL = 5;

// 0xff in every channel that `w` uses with a mode, 0 elsewhere.
Wires UsedChannels(Wires w) {
  return Wires(w.GetValue() & LOW_SIX_BITS).ToMask();
}

size_t CommonPrefixLength(NodePath::Block a, NodePath::Block b) {
  const size_t n = std::min(a.size(), b.size());
  size_t i = 0;
  while (i < n && a[i] == b[i]) ++i;
  return i;
}

bool BlocksEqual(NodePath::Block a, NodePath::Block b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}

Error MissingPath(const NodePath& path) {
  return Error(ERROR_CLASS::ILLEGAL_STATE,
               FormatMessage("The path @ doesn't exist in this node system.", path));
}

// The record of `info`'s chain that `holder` holds; null if none does.
const NodeInfo* LayerIn(const NodeInfo* info, const NodeSystemImpl* infoHolder,
                        const NodeSystemImpl* holder) {
  for (; info; infoHolder = info->baseSystem, info = info->base) {
    if (infoHolder == holder) return info;
  }
  return nullptr;
}

// The nearest record of the chain with stored source shortcuts, and its holder.
std::pair<const NodeInfo*, const NodeSystemImpl*> NearestShortcutLayer(
    const NodeInfo* info, const NodeSystemImpl* holder) {
  for (; info; holder = info->baseSystem, info = info->base) {
    if (info->HasFlags(GFI::HAS_SOURCE_SHORTCUTS)) return {info, holder};
  }
  return {nullptr, nullptr};
}

// Makes `function` hold `f`. A std::function may allocate to hold a callable,
// and an exception must not leave the library: an allocation failure is the
// out-of-memory error.
template <typename Function, typename F>
Result<void> Assign(Function& function, F&& f) noexcept {
  try {
    function = std::forward<F>(f);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

}  // namespace

// ---------------------------------------------------------------------------
// The walk

namespace {
// One run of GetConnections: the state its steps share.
class ConnectionWalk {
 public:
  ConnectionWalk(const NodeSystemImpl& system, ConnectionQuery& query, GCF flags, uint64_t maxDepth,
                 const GNode& port)
      : _system(system), _query(query), _flags(flags), _maxDepth(maxDepth), _port(port) {}

  Result<bool> Run(uint64_t wiresMask);

 private:
  // What the handling of one record came to.
  enum class STEP { GO_ON, STOP };

  struct Level {
    NodePath::Block parts;   // the level's path
    NodePath::Block suffix;  // the port's path below the level
    size_t depth = 0;
    Wires mask[2];  // the remaining masks at the start of the level
  };

  Result<void> CollectInduced();
  Result<STEP> HandleRecord(const Level& level, const NodeInfo* layer, const NodeSystemImpl* holder,
                            size_t k, const ConnectionKey& key, const ConnectionData& data);
  // Takes the channels of a source record of the level's port off what
  // remains for sources, if the record is that port's own source there.
  Result<void> HideSourceChannels(const NodeInfo* layer, const NodeSystemImpl* holder,
                                  const NodePath& levelEnd, const FoundNode& levelEndFound,
                                  Wires wires);
  // The decision on one record whose other end exists; nothing if rejected.
  Result<bool> Accept(const Level& level, const NodeSystemImpl* holder, const ConnectionKey& key,
                      const ConnectionData& data, const NodePath& otherPath,
                      const FoundNode& otherFound);
  Result<bool> IsShortcutValid(const NodeSystemImpl* holder, const FoundNode& target) const;
  Result<bool> Report();

  const NodeSystemImpl& _system;
  ConnectionQuery& _query;
  GCF _flags;
  const uint64_t _maxDepth;
  const GNode _port;
  Wires _remaining[2];
  // Induced dependencies not yet reported, in table order.
  std::vector<NodePath> _pending;
  // The ends of the source records that decided their channels at the
  // current level: an older layer's record for the same end hides nothing.
  std::unordered_set<NodePath> _levelSources;
  bool _found = false;
};

Result<void> ConnectionWalk::CollectInduced() {
  if (!HasAny(_flags, GCF::INDUCED_DEPENDENCIES)) return Ok();
  if (!HasAny(_flags, GCF::SHORTCUTS)) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 "INDUCED_DEPENDENCIES can only be used in conjunction with SHORTCUTS.");
  }
  auto add = [&](const std::set<NodePath>& paths) -> Result<void> {
    for (const NodePath& path : paths) {
      NodePath p = path;
      if (HasAny(_flags, GCF::TOP_LEVEL_PORTS) && !p.IsTopLevelPort()) {
        ORVIX_TRY_ASSIGN(p, path.GetTopLevelPort());
      }
      if (std::find(_pending.begin(), _pending.end(), p) == _pending.end()) {
        _pending.push_back(std::move(p));
      }
    }
    return Ok();
  };
  const LoopTables* loops = _system.GetLoopTables();
  if (!loops) return Ok();
  if (HasAny(_flags, GCF::SOURCES)) {
    const auto it = loops->_inducedSources.find(_port.path);
    if (it != loops->_inducedSources.end()) ORVIX_TRY(add(it->second.paths));
  }
  static const InternedId targetFlag = InternedId::Get("loopdependencytarget");
  const Data* isTarget =
      NodeSystemImpl::GetStoredValue(_port.info, _port.system, targetFlag, false, nullptr);
  if (HasAny(_flags, GCF::TARGETS) && isTarget && isTarget->Get<bool>().ValueOr(false)) {
    const auto it = loops->_inducedTargets.find(_port.path);
    if (it != loops->_inducedTargets.end()) ORVIX_TRY(add(it->second));
  }
  return Ok();
}

Result<bool> ConnectionWalk::Run(uint64_t wiresMask) {
  ORVIX_TRY(CollectInduced());
  _remaining[0] = _remaining[1] = Wires(wiresMask);
  const InternedId inputs = NodePath::GetInputsId();
  const InternedId outputs = NodePath::GetOutputsId();
  const NodePath::Block parts = _port.path.ToBlock();
  const NodePath::Block filter = _query.filterPath.ToBlock();
  const bool filtered = !_query.filterPath.IsEmpty();

  for (size_t levelLength = parts.size(); levelLength > 0; --levelLength) {
    const InternedId last = parts[levelLength - 1];
    if (last == inputs || last == outputs) break;
    const bool wantSources = HasAny(_flags, GCF::SOURCES) && !_remaining[0].IsEmpty();
    const bool wantTargets = HasAny(_flags, GCF::TARGETS) && !_remaining[1].IsEmpty();
    if (!wantSources && !wantTargets) break;

    Level level;
    level.parts = parts.first(levelLength);
    level.suffix = parts.subspan(levelLength);
    level.depth = level.suffix.size();
    level.mask[0] = _remaining[0];
    level.mask[1] = _remaining[1];
    _levelSources.clear();
    // A wire at this level leads to the filter's port only if the nested
    // parts below agree; they won't agree higher up either.
    if (filtered &&
        (filter.size() < level.depth || !BlocksEqual(filter.last(level.depth), level.suffix))) {
      break;
    }

    FoundNode element{_port.info, _port.system};
    if (level.depth > 0) element = _system.FindNode(level.parts, NODE_KIND::PORT_MASK);
    const NodeInfo* layer = element.info;
    const NodeSystemImpl* holder = element.system;
    for (; layer; holder = layer->baseSystem, layer = layer->base) {
      const size_t layerLength = layer->_path.GetCount();
      if (layerLength > levelLength) break;
      const size_t k = levelLength - layerLength;
      if (k > _maxDepth) break;
      // What the bases supply is what they say on their own: the records of
      // this system neither count nor hide them.
      if (HasAny(_flags, GCF::INHERITED_ONLY) && holder == &_system) continue;
      const bool sourceShortcuts = HasAny(_flags, GCF::SOURCES) && HasAny(_flags, GCF::SHORTCUTS);
      if (sourceShortcuts && !layer->HasFlags(GFI::HAS_SOURCE_SHORTCUTS)) continue;
      const PortRecord* record = layer->AsPort();
      if (record && !filtered) {
        std::optional<Result<STEP>> outcome;
        record->connections.ForEach([&](const ConnectionKey& key, const ConnectionData& data) {
          Result<STEP> step = HandleRecord(level, layer, holder, k, key, data);
          if (!step || *step == STEP::STOP) {
            outcome.emplace(std::move(step));
            return false;
          }
          return true;
        });
        if (outcome) {
          if (!*outcome) return std::move(*outcome).GetError();
          return false;
        }
      } else if (record) {
        // The one record of the filter's port at this layer: the filter's
        // path relative to the layer's system, without the nested parts.
        if (filter.size() >= k + level.depth &&
            BlocksEqual(filter.first(k), level.parts.first(k))) {
          NodePath relative = _query.filterPath;
          if (k > 0 || level.depth > 0) {
            ORVIX_TRY_ASSIGN(relative,
                             NodePath::Create(filter.subspan(k, filter.size() - k - level.depth)));
          }
          const ConnectionKey key = ConnectionKey::Make(
              std::move(relative),
              HasAny(_flags, GCF::SHORTCUTS) ? CONNECTION_TYPE::SHORTCUT : CONNECTION_TYPE::NORMAL,
              CONNECTION_DIRECTION::TARGET);
          if (const ConnectionData* data = record->connections.Find(key)) {
            ORVIX_TRY_ASSIGN(STEP step, HandleRecord(level, layer, holder, k, key, *data));
            if (_found) return false;
            if (step == STEP::STOP) return false;
          }
        }
      }
      if (sourceShortcuts) {
        _flags &= ~GCF::SOURCES;
        if (!HasAny(_flags, GCF::TARGETS)) break;
      }
    }
    if (HasAny(_flags, GCF::SHORTCUTS | GCF::WITHOUT_IMPLICIT)) break;
    if (level.depth == 0) {
      // Above the port itself only wires asked for with IMPLICIT count.
      for (Wires& mask : _remaining) {
        const uint64_t implicit = mask.GetValue() & IMPLICIT_BITS;
        mask = Wires(mask.GetValue() & Wires(implicit).ToMask().GetValue() & LOW_SIX_BITS);
      }
    }
  }

  // Induced dependencies that no record covered.
  _query.data.Reset();
  const std::vector<NodePath> left = std::move(_pending);
  _pending.clear();
  for (const NodePath& path : left) {
    const FoundNode found = _system.FindNode(path);
    if (!found) return MissingPath(path);
    _query.other = GNode(path, found.info, found.system, 0);
    _system.Refresh(_query.other);
    _query.wires = Wires(INDUCED_WIRE);
    ORVIX_TRY_ASSIGN(bool goOn, Report());
    if (!goOn) return false;
  }
  return true;
}

Result<ConnectionWalk::STEP> ConnectionWalk::HandleRecord(const Level& level, const NodeInfo* layer,
                                                          const NodeSystemImpl* holder, size_t k,
                                                          const ConnectionKey& key,
                                                          const ConnectionData& data) {
  const bool shortcuts = HasAny(_flags, GCF::SHORTCUTS);
  if ((key.GetType() == CONNECTION_TYPE::SHORTCUT) != shortcuts) return STEP::GO_ON;
  const CONNECTION_DIRECTION direction = key.GetDirection();
  const GCF wanted = direction == CONNECTION_DIRECTION::SOURCE ? GCF::SOURCES : GCF::TARGETS;
  if (!HasAny(_flags, wanted)) return STEP::GO_ON;

  // The other end as this system names it: the level with the layer's own
  // path replaced by the record's, and the nested parts below. `levelEnd` is
  // the end that the record gives the level's port itself.
  NodePath levelEnd = key.other;
  if (k > 0) {
    ORVIX_TRY_ASSIGN(levelEnd, levelEnd.Prepend(level.parts.first(k)));
  }
  const bool isSource = direction == CONNECTION_DIRECTION::SOURCE;
  FoundNode levelEndFound;
  if (isSource || level.depth == 0) levelEndFound = _system.FindNode(levelEnd, NODE_KIND::ALL_MASK);
  // A nearer source wire hides farther ones channel by channel, whether or
  // not it is reported here, and even where the nested end it names for the
  // port doesn't exist.
  if (isSource) ORVIX_TRY(HideSourceChannels(layer, holder, levelEnd, levelEndFound, data.wires));

  NodePath otherPath = levelEnd;
  FoundNode otherFound = levelEndFound;
  if (level.depth > 0) {
    ORVIX_TRY_ASSIGN(otherPath, levelEnd.AppendBlock(level.suffix));
    otherFound = _system.FindNode(otherPath, NODE_KIND::ALL_MASK);
  }
  if (!otherFound) return STEP::GO_ON;
  // A level newer than the record's may have removed or replaced an element
  // on the way. Asked only of an end that exists, whose prefixes all do.
  if (holder != &_system && _system.IsRemovedAbove(otherPath.ToBlock(), *holder)) {
    return STEP::GO_ON;
  }

  ORVIX_TRY_ASSIGN(bool accepted, Accept(level, holder, key, data, otherPath, otherFound));
  if (!accepted) return STEP::GO_ON;
  if (!_query.filterPath.IsEmpty()) {
    _found = true;
    if (_query.callback) ORVIX_TRY(Report());
    return STEP::STOP;
  }
  ORVIX_TRY_ASSIGN(bool goOn, Report());
  return goOn ? STEP::GO_ON : STEP::STOP;
}

Result<void> ConnectionWalk::HideSourceChannels(const NodeInfo* layer, const NodeSystemImpl* holder,
                                                const NodePath& levelEnd,
                                                const FoundNode& levelEndFound, Wires wires) {
  // Deliberately not the plain rule. The plain rule first finds the nested
  // end that the record names for the port asked about, and skips a record
  // whose nested end doesn't exist, or lies below an element that a newer
  // layer removed, without taking its channels off. The other end of an
  // ancestor port's wire judges otherwise: on its way down to the port it
  // takes off every source wire that a port between has of its own. With
  // <u -> m<a and <u -> m<a/p on one channel and no <u/q, the plain rule has
  // m<a/p/q list <u/p/q as a source while <u/p/q doesn't list m<a/p/q as a
  // target. We keep both ends agreeing: a record counts for the channels it
  // hides if the end it gives the level's own port exists and no newer layer
  // hid it, whatever lies below that end.
  if (!levelEndFound) return Ok();
  if (holder != &_system && _system.IsRemovedAbove(levelEnd.ToBlock(), *holder)) return Ok();
  // The plain rule would also take off the channels of a record that a newer
  // layer replaced at the same level, as when a derived system changed the
  // wire or took it away. The level's port no longer has that record and the
  // other end doesn't count it, so it hides nothing here either: the first
  // record of an end at a level decides. A record whose end was reported at
  // a nearer level is still the level's port's own, and counts. Only a layer
  // with older ones behind it notes its ends.
  if (_levelSources.contains(levelEnd)) return Ok();
  if (layer->base) {
    try {
      _levelSources.insert(levelEnd);
    } catch (const std::bad_alloc&) {
      return OutOfMemoryError();
    }
  }
  _remaining[0] &= ~UsedChannels(wires);
  return Ok();
}

Result<bool> ConnectionWalk::Report() {
  const auto it = std::find(_pending.begin(), _pending.end(), _query.other.path);
  if (it != _pending.end()) {
    _pending.erase(it);
    _query.wires |= Wires(INDUCED_WIRE);
  }
  if (!_query.callback) return true;
  return _query.callback(_query);
}

Result<bool> ConnectionWalk::IsShortcutValid(const NodeSystemImpl* holder,
                                             const FoundNode& target) const {
  if (!target.info->HasFlags(GFI::SHORTCUT_STOP_MASK)) return false;
  const auto [targetLayer, targetHolder] = NearestShortcutLayer(target.info, target.system);
  if (!targetLayer) return false;
  if (targetHolder == holder) return true;
  const NodeInfo* portLayer = LayerIn(_port.info, _port.system, targetHolder);
  if (!portLayer) return false;
  const PortRecord* record = targetLayer->AsPort();
  const ConnectionData* back =
      record ? record->connections.Find(ConnectionKey::Make(
                   portLayer->_path, CONNECTION_TYPE::SHORTCUT, CONNECTION_DIRECTION::SOURCE))
             : nullptr;
  if (!back) return false;
  if (back->wires.IsEmpty()) return ConditionError(CONDITION_KIND::ASSERTION, "w->wires");
  return true;
}

Result<bool> ConnectionWalk::Accept(const Level& level, const NodeSystemImpl* holder,
                                    const ConnectionKey& key, const ConnectionData& data,
                                    const NodePath& otherPath, const FoundNode& otherFound) {
  const bool isTarget = key.IsOtherTarget();
  const bool shortcut = key.GetType() == CONNECTION_TYPE::SHORTCUT;
  Wires mask = level.mask[isTarget ? 1 : 0];

  // A target shortcut read from another system must still hold here.
  if (shortcut && isTarget && holder != &_system) {
    ORVIX_TRY_ASSIGN(bool valid, IsShortcutValid(holder, otherFound));
    if (!valid) return false;
  }
  // A wire of an ancestor port reaches a nested port at the other end only on
  // the channels where that port and its ancestors below the wire have no
  // source wire of their own.
  if (!shortcut && isTarget && level.depth > 0) {
    for (size_t i = 0; i < level.depth && !mask.IsEmpty(); ++i) {
      NodePath prefix = otherPath;
      if (i > 0) {
        ORVIX_TRY_ASSIGN(
            prefix, otherPath.Slice(0, NodePath::SliceCount(int64_t(otherPath.GetCount() - i))));
      }
      const FoundNode found = _system.FindNode(prefix);
      if (!found) return MissingPath(prefix);
      ConnectionQuery nested;
      nested.port = GNode(prefix, found.info, found.system, 0);
      _system.Refresh(nested.port);
      ORVIX_TRY(Assign(nested.callback, [&mask](ConnectionQuery& q) -> Result<bool> {
        mask &= ~UsedChannels(q.wires);
        return !mask.IsEmpty();
      }));
      ORVIX_TRY(_system.GetConnections(mask.GetValue(), GCF::SOURCES | GCF::WITHOUT_IMPLICIT,
                                       nested, UNLIMITED_DEPTH));
    }
  }
  // The first record for an other end wins: a nearer level and a newer layer
  // hide what lies behind them, even where they are masked out.
  try {
    if (!_query.seen.insert(otherPath).second) return false;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  if (HasAny(_flags, GCF::INHERITED_ONLY) && holder == &_system) return false;

  Wires w(data.wires.GetValue() & LOW_SIX_BITS);
  if ((UsedChannels(w) & mask.ToMask()).IsEmpty()) return false;
  if (HasAny(_flags, GCF::WITHOUT_INHIBITED) && w.Get(INHIBIT_CHANNEL) != WIRE_MODE::NONE) {
    return false;
  }
  if (HasAny(_flags, GCF::EXTERNAL_CONNECTIONS) &&
      CommonPrefixLength(_port.path.ToBlock(), otherPath.ToBlock()) >= _port.path.GetNodeCount()) {
    return false;
  }
  if (level.depth > 0) w |= Wires(UsedChannels(w).GetValue() & IMPLICIT_BITS);

  NodePath reported = otherPath;
  FoundNode reportedFound = otherFound;
  if (HasAny(_flags, GCF::TOP_LEVEL_PORTS) && !otherPath.IsTopLevelPort()) {
    ORVIX_TRY_ASSIGN(reported, otherPath.GetTopLevelPort());
    reportedFound = _system.FindNode(reported);
  }
  if (!reportedFound) return MissingPath(reported);

  if (shortcut && HasAny(_flags, GCF::FILTER_SHORTCUTS)) {
    // A pair of filter ports: the port's source shortcut to a filter target,
    // or its target shortcut from a filter source.
    const NodeInfo* portInfo = _port.info;
    const NodeInfo* otherInfo = reportedFound.info;
    const bool filterPair = isTarget ? portInfo->HasFlags(GFI::FILTER_SHORTCUT_SOURCE) &&
                                           otherInfo->HasFlags(GFI::FILTER_SHORTCUT_TARGET)
                                     : portInfo->HasFlags(GFI::FILTER_SHORTCUT_TARGET) &&
                                           otherInfo->HasFlags(GFI::FILTER_SHORTCUT_SOURCE);
    if (filterPair) {
      // The handlers of both ports decide together, or not at all.
      GNode other(reported, reportedFound.info, reportedFound.system, 0);
      _system.Refresh(other);
      const GNode& source = isTarget ? _port : other;
      const GNode& target = isTarget ? other : _port;
      ORVIX_TRY_ASSIGN(Ref<NodeSystemDerivationHandler> sourceHandler,
                       _system.GetNodeDerivationHandler(source.path));
      ORVIX_TRY_ASSIGN(Ref<NodeSystemDerivationHandler> targetHandler,
                       _system.GetNodeDerivationHandler(target.path));
      if (sourceHandler.Get() == targetHandler.Get() &&
          !sourceHandler->FilterShortcut(source, target)) {
        return false;
      }
    }
  }

  _query.other = GNode(std::move(reported), reportedFound.info, reportedFound.system, 0);
  _system.Refresh(_query.other);
  _query.wires = w;
  _query.data = data.attributes;
  _query.direction = key.GetDirection();
  return true;
}
}  // namespace

Result<bool> NodeSystemImpl::GetConnections(uint64_t wiresMask, GET_CONNECTIONS_FLAGS flags,
                                            ConnectionQuery& query, uint64_t maxDepth) const {
  GNode port = query.port;
  Refresh(port);
  if (!port.info || !HasAny(port.path.GetKindRaw(), NODE_KIND::PORT_MASK)) return false;
  try {
    ConnectionWalk walk(*this, query, flags, maxDepth, port);
    return walk.Run(wiresMask);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

// ---------------------------------------------------------------------------
// Reads and touches built on the walk

Result<ConnectionData> NodeSystemImpl::ReadConnection(const GNode& source, const GNode& target,
                                                      GET_CONNECTIONS_FLAGS extraFlags) const {
  GNode port = source;
  ORVIX_TRY(Resolve(port));
  GNode other = target;
  ORVIX_TRY(Resolve(other));
  ConnectionData result;
  if (!HasAny(port.path.GetKindRaw(), NODE_KIND::PORT_MASK)) return result;
  ConnectionQuery query;
  query.port = std::move(port);
  query.filterPath = other.path;
  const uint64_t maxDepth =
      CommonPrefixLength(query.port.path.ToBlock(), query.filterPath.ToBlock());
  ORVIX_TRY_ASSIGN(bool ranToEnd,
                   GetConnections(ALL_WIRES_MASK, extraFlags | GCF::TARGETS, query, maxDepth));
  if (!ranToEnd) {
    result.wires = query.wires;
    result.attributes = std::move(query.data);
  }
  return result;
}

Result<void> NodeSystemImpl::CollectConnectedPorts(const GNode& port, const NodePath* skipBelow,
                                                   std::vector<PortTouch>& touches) const {
  // One walk per direction: a walk reports an other end once, for the first
  // record it meets, and an end wired both ways must get both marks.
  for (const GCF direction : {GCF::SOURCES, GCF::TARGETS}) {
    ConnectionQuery query;
    query.port = port;
    ORVIX_TRY(Assign(query.callback, [&](ConnectionQuery& q) -> Result<bool> {
      if (skipBelow && q.other.path.StartsWith(*skipBelow)) return true;
      try {
        touches.push_back({q.other, q.direction == CONNECTION_DIRECTION::SOURCE
                                        ? GFI::MODIFIED_TARGETS
                                        : GFI::MODIFIED_SOURCES});
      } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
      }
      return true;
    }));
    ORVIX_TRY(GetConnections(ALL_WIRES_IMPLICIT_MASK, direction, query, UNLIMITED_DEPTH));
  }
  return Ok();
}

Result<void> NodeSystemImpl::MarkTouches(std::vector<PortTouch>& touches) {
  for (PortTouch& touch : touches) ORVIX_TRY(SetModified(touch.port, touch.bits));
  return Ok();
}

Result<void> NodeSystemImpl::TouchConnectedPorts(const GNode& port) {
  // Marking fetches records for writing; it waits until the walk is done.
  std::vector<PortTouch> touches;
  ORVIX_TRY(CollectConnectedPorts(port, nullptr, touches));
  return MarkTouches(touches);
}

Result<void> NodeSystemImpl::TouchConnectedPortsRecursive(const GNode& port) {
  GNode top = port;
  ORVIX_TRY(Resolve(top));
  std::vector<PortTouch> touches;
  std::vector<GNode> pending;
  try {
    pending.push_back(top);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  while (!pending.empty()) {
    GNode current = std::move(pending.back());
    pending.pop_back();
    ORVIX_TRY(CollectConnectedPorts(current, &top.path, touches));
    ChildIterator it;
    StartChildren(it, current);
    for (InternedId id = NextChildId(it); id.IsPopulated(); id = NextChildId(it)) {
      ORVIX_TRY_ASSIGN(NodePath childPath, current.path.Append(id));
      GNode child = MakeResolvedHandle(childPath);
      try {
        if (child) pending.push_back(std::move(child));
      } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
      }
    }
  }
  return MarkTouches(touches);
}

// ---------------------------------------------------------------------------
// The published forms

Result<bool> NodeSystemImpl::GetConnections(const GNode& port, PORT_DIR direction, Wires mask,
                                            GET_CONNECTIONS_MODE mode,
                                            const ConnectionCallback& callback) const {
  ORVIX_CHECK_ARGUMENT(callback);
  GCF flags = direction == PORT_DIR::OUTPUT ? GCF::TARGETS : GCF::SOURCES;
  if (HasAny(mode, GET_CONNECTIONS_MODE::SHORTCUTS))
    flags |= GCF::SHORTCUTS | GCF::FILTER_SHORTCUTS;
  if (HasAny(mode, GET_CONNECTIONS_MODE::EXTERNAL_CONNECTIONS)) flags |= GCF::EXTERNAL_CONNECTIONS;
  if (HasAny(mode, GET_CONNECTIONS_MODE::WITHOUT_INHIBITED)) flags |= GCF::WITHOUT_INHIBITED;
  if (HasAny(mode, GET_CONNECTIONS_MODE::INDUCED_DEPENDENCIES)) {
    flags |= GCF::INDUCED_DEPENDENCIES;
  }
  GNode handle = port;
  ORVIX_TRY(Resolve(handle));
  ConnectionQuery query;
  query.port = std::move(handle);
  ORVIX_TRY(Assign(query.callback,
                   [&callback](ConnectionQuery& q) { return callback(q.other, q.wires, q.data); }));
  return GetConnections(mask.GetValue(), flags, query, UNLIMITED_DEPTH);
}

Result<Wires> NodeSystemImpl::GetConnection(const GNode& source, const GNode& target) const {
  ORVIX_TRY_ASSIGN(ConnectionData data, ReadConnection(source, target, GCF::NONE));
  return data.wires;
}

Result<bool> NodeSystemImpl::GetConnectionValues(const GNode& source, const GNode& target,
                                                 const ConnectionValueCallback& callback) const {
  ORVIX_CHECK_ARGUMENT(callback);
  ORVIX_TRY_ASSIGN(ConnectionData data, ReadConnection(source, target, GCF::NONE));
  if (!data.attributes) return true;
  return data.attributes->ForEach(callback);
}

namespace {
// The constant arrays that "net.orvix.node.ionodes" reads by default.
Data MakeIoNodes(std::string_view element) {
  Result<DataArray> array = DataArray::Create(GetDataType<InternedId>());
  if (!array) return Data();
  if (!array->Append(Data(InternedId::Get(element)))) return Data();
  return Data(std::move(*array));
}
const ConstantData g_ioNodesIn([] { return MakeIoNodes("in"); });
const ConstantData g_ioNodesOut([] { return MakeIoNodes("out"); });
}  // namespace

const Data& IoNodesDefault(bool output) {
  return output ? g_ioNodesOut.Get() : g_ioNodesIn.Get();
}

Result<Data> NodeSystemImpl::GetConnectionValue(const GNode& source, const GNode& target,
                                                uint32_t kind, InternedId id) const {
  ORVIX_TRY_ASSIGN(ConnectionAttributeKey key, ConnectionAttributeKey::Create(id, kind));
  ORVIX_TRY_ASSIGN(ConnectionData data, ReadConnection(source, target, GCF::NONE));
  if (data.attributes) {
    if (const Data* value = data.attributes->Find(key)) return *value;
  }
  static const InternedId ioNodes = InternedId::Get("net.orvix.node.ionodes");
  if (!(id == ioNodes) || key.GetKind() == CONNECTION_ATTRIBUTE_KIND::CONNECTION) return Data();
  GNode end = key.GetKind() == CONNECTION_ATTRIBUTE_KIND::SOURCE ? source : target;
  ORVIX_TRY(Resolve(end));
  return IoNodesDefault(HasAny(end.path.GetKindRaw(), NODE_KIND::OUT_MASK));
}

// ---------------------------------------------------------------------------
// Consistency

Result<void> NodeSystemImpl::CheckConnectionConsistency() const {
  // Every port of the root and of the root's child nodes, with its nested
  // ports: the elements whose wires this system can hold. The tree walk finds
  // them through the child tables; the records of this system's map are added
  // so that a record that no child table lists is checked as well.
  std::vector<GNode> ports;
  std::unordered_set<NodePath> listed;
  std::vector<GNode> pending;
  try {
    pending.push_back(GetRoot());
    auto addPort = [&](const GNode& port) {
      if (port && listed.insert(port.path).second) ports.push_back(port);
    };
    while (!pending.empty()) {
      GNode current = std::move(pending.back());
      pending.pop_back();
      if (!current) continue;
      if (HasAny(current.path.GetKindRaw(), NODE_KIND::PORT_MASK)) addPort(current);
      ChildIterator it;
      StartChildren(it, current);
      for (InternedId id = NextChildId(it); id.IsPopulated(); id = NextChildId(it)) {
        ORVIX_TRY_ASSIGN(NodePath childPath, current.path.Append(id));
        if (childPath.GetNodeCount() > 1) continue;
        pending.push_back(MakeResolvedHandle(childPath));
      }
    }
    for (const NodeMap* layer = _store._nodes.Get(); layer; layer = layer->GetParent()) {
      layer->ForEachEntry([&](const NodeMap::Entry& e) {
        if (e.IsPublished() && e.info->AsPort()) addPort(MakeResolvedHandle(e.path));
      });
    }
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  // The callbacks are made once; they read the port and direction being
  // checked, and the report of the port's own query being looked for from
  // the other end.
  const Wires mask(ALL_WIRES_IMPLICIT_MASK);
  const GNode* port = nullptr;
  PORT_DIR direction = PORT_DIR::INPUT;
  const GNode* from = nullptr;
  const GNode* to = nullptr;
  Wires wires;
  std::optional<Error> failure;
  ConnectionCallback lookBack;
  ORVIX_TRY(Assign(
      lookBack,
      [&](const GNode& end, Wires backWires, const Ref<ConnectionAttributes>&) -> Result<bool> {
        if (!end.path.Equals(port->path)) return true;
        if (backWires != wires) {
          // The source's view first, whichever end the walk met first.
          const bool atSource = direction == PORT_DIR::OUTPUT;
          failure.emplace(
              ERROR_CLASS::ILLEGAL_STATE,
              FormatMessage("Inconsistent result for wires from @ to @: @ and @", from->path,
                            to->path, atSource ? wires : backWires, atSource ? backWires : wires));
        }
        return false;
      }));
  ConnectionCallback check;
  ORVIX_TRY(Assign(
      check,
      [&](const GNode& other, Wires reported, const Ref<ConnectionAttributes>&) -> Result<bool> {
        const bool input = direction == PORT_DIR::INPUT;
        from = input ? &other : port;
        to = input ? port : &other;
        wires = reported;
        failure.reset();
        ORVIX_TRY_ASSIGN(bool notFound,
                         GetConnections(other, input ? PORT_DIR::OUTPUT : PORT_DIR::INPUT, mask,
                                        GET_CONNECTIONS_MODE::CONNECTIONS, lookBack));
        if (failure) return std::move(*failure);
        if (notFound) {
          return Error(
              ERROR_CLASS::ILLEGAL_STATE,
              FormatMessage("Reverse connection from @ to @ not found.", from->path, to->path));
        }
        return true;
      }));
  for (const GNode& checked : ports) {
    port = &checked;
    for (const PORT_DIR d : {PORT_DIR::INPUT, PORT_DIR::OUTPUT}) {
      direction = d;
      ORVIX_TRY(GetConnections(checked, direction, mask, GET_CONNECTIONS_MODE::CONNECTIONS, check));
    }
  }
  return Ok();
}

}  // namespace orvix::nodes
