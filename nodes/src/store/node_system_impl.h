#pragma once
// NodeSystemImpl: the implementation of NodeSystem. Its operations are
// declared here and defined in the files of the areas they belong to (named at
// each section); the store's part is the lookup of records through layers,
// nested systems and bases, handle revalidation, fetching records for
// writing, the child walk and the stamps.
//
// The state is private, in groups by owner (system_state.h). Members use it
// directly; other code of an area goes through that area's access type, tests
// through NodeSystemTestProbe. Clients see only NodeSystem.
//
// A system that is not being modified is immutable and may be read from many
// threads. The writers below assume the caller is the single owner of the
// modification; the modification bracket guards that.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "orvix/graph/connection.h"
#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/graph/wires.h"
#include "orvix/host/data.h"
#include "orvix/host/function_ref.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/derivation_handler.h"
#include "orvix/nodes/gnode.h"
#include "orvix/nodes/node_system.h"
#include "orvix/nodes/node_system_class.h"
#include "orvix/nodes/node_template.h"
#include "orvix/nodes/template_arguments.h"
#include "store/connection_queries.h"
#include "store/node_info.h"
#include "store/node_map.h"
#include "store/system_state.h"

namespace orvix::nodes {

// The answer of FindNode: the record and the system that holds it.
struct FoundNode {
  NodeInfo* info = nullptr;
  NodeSystemImpl* system = nullptr;
  explicit operator bool() const noexcept { return info != nullptr; }
};

class NodeSystemImpl final : public NodeSystem {
 public:
  // Depth at which Compact rebuilds the map.
  static constexpr uint32_t COMPACT_DEPTH = 6;
  // The modified bits that IsValidated looks at: all but the garbage bits.
  static constexpr uint64_t VALIDATION_MASK = 0xffff1fffff000000ULL;

  // An uninitialized system: no map yet.
  NodeSystemImpl();
  ~NodeSystemImpl() override;
  NodeSystemImpl(const NodeSystemImpl&) = delete;
  NodeSystemImpl& operator=(const NodeSystemImpl&) = delete;

  // --- Initialisation and the modification bracket (modification.cpp).

  // Makes this uninitialized system an empty system of `cls`: the root record
  // (NODE), a new topology, the derived attribute list, and the root's two
  // port lists "<" and ">" (INPUTS, OUTPUTS), listed in the root's child
  // table as ADDED | SYNTHETIC; then ends the modification with CLEANUP, so
  // that the system comes out finalized. Yields the root.
  //   "Illegal argument: Condition !IsInitialized() && !_mutable && cls not fulfilled. "
  Result<GNode> Init(Ref<NodeSystemClass> cls);
  // A new finalized empty system of the default class, as Init makes it.
  static Result<Ref<NodeSystemImpl>> CreateEmpty();

  // The test that every editing operation and every stage starts with: a
  // single reference (unless the loader holds the system), and with
  // `requireModification` an open bracket.
  //   "More than one reference to node system @."
  //   "Node system modification not within BeginModification()/EndModification()."
  Result<void> CheckModification(bool requireModification) const;

  // Adds the child `id` of `kind` below `parent`: the parent's child record
  // (ADDED, plus SYNTHETIC for port lists, derived ports and the node-system
  // port), the new record (with `base` as its base when that lies in another
  // system), the stamps, and the modified bits of an add. Every structural
  // add ends here; the structural edits build their checks and change
  // entries on it.
  //   "There already exists a node with id @ in @."
  // `inserted` tells whether the child record is new; an existing one means
  // that the removal of a base's child is being taken back.
  Result<GNode> AddChildRecord(GNode& parent, NODE_KIND kind, InternedId id, const GNode& base,
                               GNODE_FLAGS_IMPL flags, bool* inserted = nullptr);

  // Takes back a record that the running edit made in the top layer (see
  // AddChildRecord); allocates nothing.
  void DropAddedRecord(const NodePath& path) noexcept;
  // Takes back the child record of `id` that AddChildRecord set in `parent`
  // (a record of this system's top layer): erased if `inserted`, otherwise
  // hiding the base's child again. Every handle looks again afterwards.
  void TakeBackAdd(GNode& parent, InternedId id, bool inserted) noexcept;

  // --- Structural edits (store/add_edits.cpp, store/connect_edits.cpp, store/remove_edits.cpp).

  // The node `id` made from the finished system `system` and its companion
  // reference (null for a system that no template made). `publicCall` marks
  // the node with "checkuniquenumber"; a replay of recorded changes leaves it
  // out.
  //   "Node system to add hasn't been validated."
  //   "Node system to add has node system class @, expected @."
  Result<GNode> AddNode(InternedId id, Ref<NodeSystem> system, Ref<BaseReference> companion,
                        ChangeList* changeList, bool publicCall);
  // AddPort with an interned id.
  //   "You can't add a port directly to node @."
  //   "You can't add the top-level port @ to @: This points to a nested node."
  Result<GNode> AddPortImpl(const GNode& parent, InternedId id, GNODE_FLAGS_IMPL flags,
                            ChangeList* changeList);
  // Connect with its internal arguments: `attributes`, if given, replace the
  // connection's (null erases them); `check` applies the connect rules, which
  // replays of known-good data skip.
  //   "Illegal wire mode @ for call to Connect()."
  Result<void> ConnectImpl(const GNode& source, const GNode& target, Wires modes,
                           const Ref<ConnectionAttributes>* attributes, ChangeList* changeList,
                           bool check);
  // Remove, or with `derived` the form that port validation uses, which may
  // take derived ports away.
  Result<void> RemoveImpl(const GNode& node, ChangeList* changeList, bool derived);
  Result<void> RemoveDerived(const GNode& node, ChangeList* changeList) {
    return RemoveImpl(node, changeList, true);
  }

  // --- Attribute values (attributes/attribute_values.cpp).

  // Where a stored lookup found its answer: the record and its system.
  struct ValueHolder {
    const NodeInfo* record = nullptr;
    const NodeSystemImpl* system = nullptr;
  };
  // The value of `id` at `record` (held by `system`) or the nearest record of
  // its base chain that has one; then the fixed defaults. With
  // `includeErased` an erased value (a tombstone) is answered as it is,
  // otherwise as no value. Null for no value; `holder` is the deciding record.
  static const Data* GetStoredValue(const NodeInfo* record, const NodeSystemImpl* system,
                                    InternedId id, bool includeErased, ValueHolder* holder);
  // The book-keeping of a write: stamps, and the marks that make validation
  // follow the change. `attribute` is null if the record is gone.
  Result<void> NoteValueChanged(GNode& node, InternedId id, ATTRIBUTE_FLAGS flags, NodeInfo* info,
                                AttributeRecord* attribute);

  // --- Connection queries (store/connection_queries.cpp).

  // Reports the effective connections of `query.port` (see ConnectionQuery
  // and GET_CONNECTIONS_FLAGS). True if the query ran to its end; false if
  // the port isn't a port, the callback stopped it, or with `filterPath` the
  // connection was found. A record found in a base whose path is k parts
  // shorter than the level being read counts only if k <= maxDepth.
  //   "INDUCED_DEPENDENCIES can only be used in conjunction with SHORTCUTS."
  //   "The path @ doesn't exist in this node system."
  Result<bool> GetConnections(uint64_t wiresMask, GET_CONNECTIONS_FLAGS flags,
                              ConnectionQuery& query, uint64_t maxDepth) const;
  // The connection from `source` to `target` at the port's own level: its
  // wires (zero if there is none) and attributes. With INHERITED_ONLY in
  // `extraFlags`, what the bases supply.
  Result<ConnectionData> ReadConnection(const GNode& source, const GNode& target,
                                        GET_CONNECTIONS_FLAGS extraFlags) const;
  // Marks every port connected to `port`, implicit wires included:
  // MODIFIED_TARGETS on a source, MODIFIED_SOURCES on a target. The recursive
  // form does so for `port` and every port below it, and skips other ends
  // inside that subtree.
  Result<void> TouchConnectedPorts(const GNode& port);
  // A port to mark after a walk, and what to mark it with.
  struct PortTouch {
    GNode port;
    GNODE_FLAGS_IMPL bits;
  };
  // Adds the marks of TouchConnectedPorts for `port` to `touches`, leaving
  // out the ports below `skipBelow` if it is given. Marking waits until the
  // walks are done, since it fetches records for writing.
  Result<void> CollectConnectedPorts(const GNode& port, const NodePath* skipBelow,
                                     std::vector<PortTouch>& touches) const;
  Result<void> MarkTouches(std::vector<PortTouch>& touches);
  Result<void> TouchConnectedPortsRecursive(const GNode& port);
  // Walks the connections that this system stores and checks that each is
  // seen from both of its ends alike: the published GetConnections of every
  // port in both directions, and for each report the reverse query.
  //   "Reverse connection from @ to @ not found."
  //   "Inconsistent result for wires from @ to @: @ and @"
  Result<void> CheckConnectionConsistency() const;

  // --- Modified bits and lists (validation/modified_lists.cpp).

  // Marks `node` with `bits`: the record is fetched for writing, the bits go
  // to it and to `_systemFlags`, and the record joins the modified lists (a
  // nested port the list of its top-level port, which gets the nested bits).
  // While a stage runs, new bits of a port schedule its neighbours.
  //   "The path @ doesn't exist in this node system."
  Result<void> SetModified(GNode& node, GNODE_FLAGS_IMPL bits);
  // Clears `bits` on every listed record and in `_systemFlags`; records left
  // without modified bits leave the lists, garbage records are freed if
  // `bits` has MODIFIED_G_GARBAGE.
  void ClearModified(GNODE_FLAGS_IMPL bits) noexcept;
  // Frees the garbage records and clears the garbage bits. The system must be
  // validated:
  //   "Illegal state: Condition IsValidated() not fulfilled. "
  Result<void> PurgeGarbage();

  // --- The validation driver (validation/validation_driver.cpp).

  // Builds the port dependency map of the order, if it isn't built yet: for
  // each input of the root, the outputs of the root that it influences. It
  // runs once per order, on the system at the end of the chain of bases that
  // share it, under the order's lock: several threads may make nodes on one
  // base at a time (validation/topology_queries.cpp).
  Result<void> BuildPortDependencyMap() const;

  // Spreads new work of `port` to its neighbours while a port pass or
  // attribute validation runs; does nothing otherwise. `oldFlags` are the
  // port's flags before the change that is being spread.
  Result<void> ScheduleNeighbours(const GNode& port, GNODE_FLAGS_IMPL oldFlags);
  // The attribute stage alone (its quick exit, the installed stage, timing).
  Result<void> ValidateAttributes(ChangeList* changeList);

  // Calls `visit` with the top-level port at the other end of every
  // connection of `port` and of its nested ports whose wires meet
  // `wiresMask`: the targets, or with `sources` the sources. Reads the
  // stored connection tables; the effective-connection walk of connection
  // queries takes its place when it exists.
  Result<void> VisitConnectedTopLevelPorts(const GNode& port, bool sources, uint64_t wiresMask,
                                           NEIGHBOUR_FLAGS flags,
                                           FunctionRef<Result<void>(const GNode&)> visit);
  // A system derived from `base`: its one record is the root, a
  // DIRECT_INSTANCE node whose nested system is `base`; `_bases[0]` is `base`
  // and the level is one above the base's. The base must be initialized and
  // validated.
  static Result<Ref<NodeSystemImpl>> CreateDerived(Ref<NodeSystemImpl> base);

  // Makes this uninitialized system a copy of `source`, which must be
  // initialized, validated and idle. The map is shared, not copied: no record
  // is touched.
  //   "Base nodesystem hasn't been initialized."
  //   "Base nodesystem hasn't been validated."
  Result<void> CopyFrom(const NodeSystemImpl& source);

  bool IsInitialized() const noexcept { return bool(_store._nodes); }
  // The loop tables; null while the system has no loop record.
  const LoopTables* GetLoopTables() const noexcept { return _attributes._loops.get(); }
  bool IsValidated() const noexcept override {
    return (ToBits(_validation._systemFlags) & VALIDATION_MASK) == 0;
  }
  bool IsFinalized() const noexcept override {
    return _validation._systemFlags == GNODE_FLAGS_IMPL::NONE;
  }

  // --- Lookup.

  // The record of `path` and the system that holds it, falling through into
  // nested systems and bases; a hit in another system is checked against the
  // removals of the levels in between. Nothing if the path doesn't exist or
  // its kind isn't in `kinds`; then, unless `mayBeAbsent`, the diagnostic
  // "Stop: Internal error." is written as well. With `skipOwn` this system's
  // own map is passed over at the first step (a lookup in the bases only).
  FoundNode FindNode(const NodePath& path, NODE_KIND kinds = NODE_KIND::ALL_MASK,
                     bool mayBeAbsent = true, bool skipOwn = false) const;
  // True if a system above `hit` on the way from this one (this system, or a
  // base between it and `hit`) removed an element on the way to `parts`, or
  // replaced it by a new one: then what `hit` holds there is hidden. Writes
  // the internal-error diagnostic and answers true if a prefix can't be
  // resolved.
  // `hopped` is the number of leading parts that the lookup spent entering
  // nested systems (the searched path's length less that of the hit's own
  // path): a child taken back at those parts hides nothing of the hit.
  bool IsRemovedAbove(NodePath::Block parts, const NodeSystemImpl& hit, size_t hopped = 0) const;
  // The same for a bare block of parts, without making a path.
  FoundNode FindNode(NodePath::Block parts, NODE_KIND kinds = NODE_KIND::ALL_MASK,
                     bool mayBeAbsent = true, bool skipOwn = false) const;

  // Brings `handle` up to date: a handle whose stamp is current is left as it
  // is, without hashing; otherwise its path is looked up again. A handle whose
  // element is gone gets a null record. A handle with a null record stays so.
  void Refresh(GNode& handle) const;
  // Refreshes `handle` and yields its record:
  //   "Nullptr node" for a handle without a record,
  //   "Node with path @ doesn't exist any longer." for one whose element is gone.
  Result<NodeInfo*> Resolve(GNode& handle) const;

  // The current form of `node` for a read: `node` itself when it names one of
  // this system's records at the current stamp, which copies nothing (a copy
  // of a handle counts a reference of its path); otherwise `scratch`, made
  // from it and resolved. Fails as Resolve does.
  Result<const GNode*> Current(const GNode& node, GNode& scratch) const {
    if (node.info && node.system == this && node.stamp >= _stamps._movedStamp && _store._nodes)
      return &node;
    scratch = node;
    ORVIX_TRY(Resolve(scratch));
    return &scratch;
  }
  // The handle of `path` as FindNode resolves it; an empty handle if none.
  GNode MakeResolvedHandle(const NodePath& path) const;

  // --- Writing. The caller holds the modification.

  // The map, with a new empty layer on top if it is shared.
  Result<NodeMap*> GetWritableMap();

  // A record of `handle`'s path that may be written, held in the top layer of
  // this system's map: the existing one, a copy of one from a lower layer, or
  // a new one whose base is the handle's record when that lies in another
  // system. Fills the handle's cached fields. `kind` is the kind asked for;
  // NONE accepts the stored one.
  //   "Can't make a copy when the base node system hasn't been validated."
  //   "Mismatch of node kind: Expected @, found @."
  Result<NodeInfo*> GetMutable(GNode& handle, NODE_KIND kind);

  // Sets the child record of `id` in `parent`'s child table (inserted if
  // missing). `parent` must be a record of this system's top layer, as
  // GetMutable yields it. `inserted` tells whether the record is new.
  Result<void> SetChildRecord(NodeInfo* parent, InternedId id, CHILD_FLAGS flags,
                              bool* inserted = nullptr);
  // Takes the child record of `id` away; false if there was none.
  bool EraseChildRecord(NodeInfo* parent, InternedId id);

  // Removes the entry of `path` from this system's map. With no layer below,
  // the entry goes; otherwise, if a layer below holds the path, a tombstone
  // stays to hide it. A record on a modified list gets MODIFIED_G_GARBAGE and
  // is handed over to the list, whose garbage pass frees it. Records are
  // counted as moved and created, so that every handle looks again. The result
  // is true if a visible entry was removed.
  Result<bool> RemoveEntry(const NodePath& path);
  // Makes every handle look its path up again after an element has gone,
  // whether or not this system held a record of it (a removal of a base's
  // element is a child record only). RemoveEntry does it when it changes the
  // map.
  void NoteRemoval() noexcept;

  // The connection table of a port record held by this system; null for any
  // other kind.
  static ConnectionTable* ConnectionTableOf(NodeInfo* info) noexcept {
    PortRecord* port = info ? info->AsPort() : nullptr;
    return port ? &port->connections : nullptr;
  }

  // --- The child walk over the base chain.

  // The id of the next present child after the iterator's position, or a null
  // id at the end; advances the iterator.
  InternedId NextChildId(ChildIterator& iterator) const;
  // Starts a walk over the children of a resolved record.
  static void StartChildren(ChildIterator& iterator, const GNode& parent);

  // --- Entries: the number of entries of all layers (tombstones included)
  // and the number of records visible through the map.
  size_t GetEntryCount() const;
  size_t GetVisibleRecordCount() const;
  uint32_t GetDepth() const noexcept { return _store._nodes ? _store._nodes->GetDepth() : 0; }

  // --- NodeSystem.
  Ref<NodeSystemClass> GetClass() const override { return _classState._class; }
  Ref<NodeSystemDerivationHandler> GetDerivationHandler() const override;
  Ref<NodeTemplate> GetTemplate() const override { return _classState._template; }
  Ref<TemplateArguments> GetTemplateArguments() const override {
    return _classState._templateArguments;
  }
  Ref<RefCounted> GetTemplateOwner() const override { return _classState._templateOwner.Lock(); }
  Result<void> SetDerivationHandler(Ref<NodeSystemDerivationHandler> handler) override;
  Result<void> SetTemplate(const NodeTemplate* nodeTemplate, Ref<TemplateArguments> arguments,
                           const Ref<RefCounted>& owner) override;
  Result<Ref<NodeTemplate>> GetNodeTemplate(const NodePath& path) const override;
  Result<Ref<NodeSystemDerivationHandler>> GetNodeDerivationHandler(
      const NodePath& path) const override;
  Ref<NodeSystem> GetBase() const override;
  const std::vector<Ref<NodeSystem>>& GetBases() const override { return _store._bases; }
  uint64_t GetModificationStamp() const override { return _stamps._modificationStamp; }
  // Topology (validation/topology_queries.cpp).
  Result<int64_t> GetTopologicalIndex(const GNode& port) const override;
  Result<int64_t> GetTopologicalIndex(const NodePath& path, size_t length) const override;
  Result<bool> VisitInTopologicalOrder(bool descending, const NodeVisitor& visitor) const override;
  Result<bool> EnumerateChanges(uint64_t stamp, const ChangeCallback& callback) const override;
  MODIFIED GetModifications(uint64_t stamp) const override;
  Result<size_t> GetChildRecordCount(const GNode& node) const override;
  GNode GetRoot() const override;
  Result<bool> VisitNodes(const GNode& start, const NodeVisitor& visitor) const override;
  Result<GNode> GetParent(const GNode& node) const override;
  Result<GNode> GetAncestor(const GNode& node, NODE_KIND kinds) const override;
  Result<GNode> GetPortList(const GNode& node, PORT_DIR direction) const override;
  Result<GNode> GetChild(const GNode& node, InternedId id, NODE_KIND kinds) const override;
  Result<GNode> FindDescendant(const GNode& node, NodePath::Block parts) const override;
  Result<Ref<NodeSystem>> GetNestedSystem(const GNode& node) const override;
  GNode FindByPath(const NodePath& path) const override;
  GNode MakeHandle(const NodePath& path) const override;
  bool IsValid(const GNode& node) const override;
  Result<GNODE_FLAGS> GetFlags(const GNode& node) const override;
  Result<GNode> GetFirstChild(const GNode& node, ChildIterator& iterator) const override;
  Result<GNode> GetNextChild(ChildIterator& iterator) const override;
  Result<void> Compact() override;
  Result<void> Validate(ChangeList* changeList) override;
  Result<void> ValidateTopology() override;
  Result<void> ValidatePorts(ChangeList* changeList) override;
  Result<void> BeginModification() override;
  Result<void> EndModification(ChangeList* changeList, FINALIZE_FLAGS flags) override;
  Result<GNode> AddChild(std::string_view id, Ref<NodeSystem> system,
                         ChangeList* changeList) override;
  Result<GNode> AddPort(const GNode& parent, std::string_view id, GNODE_FLAGS flags,
                        ChangeList* changeList) override;
  Result<void> ResetChild(const GNode& parent, InternedId id, ChangeList* changeList) override;
  Result<void> Remove(const GNode& node, ChangeList* changeList) override {
    return RemoveImpl(node, changeList, false);
  }
  Result<void> Connect(const GNode& source, const GNode& target, Wires modes,
                       ChangeList* changeList) override {
    return ConnectImpl(source, target, modes, nullptr, changeList, true);
  }
  Result<bool> GetConnections(const GNode& port, PORT_DIR direction, Wires mask,
                              GET_CONNECTIONS_MODE mode,
                              const ConnectionCallback& callback) const override;
  Result<Wires> GetConnection(const GNode& source, const GNode& target) const override;
  Result<bool> GetConnectionValues(const GNode& source, const GNode& target,
                                   const ConnectionValueCallback& callback) const override;
  Result<Data> GetConnectionValue(const GNode& source, const GNode& target, uint32_t kind,
                                  InternedId id) const override;
  Result<bool> SetConnectionValue(const GNode& source, const GNode& target, uint32_t kind,
                                  InternedId id, const Data& value,
                                  ChangeList* changeList) override;
  Result<bool> SetValue(const GNode& node, InternedId id, Data value, ChangeList* changeList,
                        bool direct = true) override;
  Result<void> GetValues(const GNode& node, uint32_t mask, ValueMap& map, bool includeBases,
                         bool keepErased) const override;
  Result<const Data*> GetValue(const GNode& node, InternedId id) const override {
    return GetValue(node, id, nullptr, false);
  }
  Result<const Data*> GetValue(const GNode& node, InternedId id, int64_t* prefixCount,
                               bool ownOnly) const override;
  Result<bool> GetValueWithCallback(const GNode& node, InternedId id,
                                    const ValueCallback& callback) const override;
  Result<void> TouchValue(const GNode& node, InternedId id, ChangeList* changeList) override;
  Result<void> SetSubData(const GNode& node, InternedId id, const DataAccessor& accessor,
                          std::span<const Data> keys, Data value, ChangeList* changeList) override;
  Result<bool> ResetValue(const GNode& node, InternedId id, ChangeList* changeList) override;
  Result<bool> EraseValue(const GNode& node, InternedId id, ChangeList* changeList) override;
  Result<bool> EnumerateChangedValues(const GNode& node, uint64_t stamp,
                                      const ChangedValueCallback& callback) const override;
  Result<uint64_t> GetValueStamp(const GNode& node, InternedId id) const override;
  Result<uint64_t> GetConnectionStamp(const GNode& node, PORT_DIR direction) const override;

  // --- Access to the state for code outside the class (see system_state.h).
  friend struct ValidationAccess;
  friend struct AttributeAccess;
  friend struct ClassAccess;
  friend class NodeSystemTestProbe;

 private:
  // --- State, in groups by owner (see system_state.h).
  StoreState _store;
  StampState _stamps;
  ValidationState _validation;
  AttributeState _attributes;
  ClassState _classState;

  // The plain lookup: own map (unless skipped), then the nested system of the
  // first part, then the base behind the root.
  FoundNode _FindPlain(NodePath::Block parts, uint64_t hash, bool skipOwn) const;
  // True if no level between this system and the one that gave `hit` removed
  // an element on the way to `parts`. Writes the internal-error diagnostic
  // and answers false if a prefix can't be resolved.
  bool _CheckBaseHit(NodePath::Block parts, const FoundNode& hit) const {
    const size_t own = hit.info->_path.GetCount();
    return !IsRemovedAbove(parts, *hit.system, parts.size() > own ? parts.size() - own : 0);
  }
  // True if `holder` is a system that this one keeps alive and that a lookup
  // of `parts` may end in: this system, a base, or a nested system on the
  // way. Only such a holder's handles are taken at their stamp.
  bool _MayHold(const NodeSystemImpl* holder, NodePath::Block parts) const;
  // The direct base, held in `_bases`; null for a system without one.
  const NodeSystemImpl* _BaseImpl() const noexcept {
    return _store._bases.empty() ? nullptr
                                 : static_cast<const NodeSystemImpl*>(_store._bases[0].Get());
  }
  FoundNode _FindChecked(NodePath::Block parts, uint64_t hash, NODE_KIND kinds, bool mayBeAbsent,
                         bool skipOwn) const;
  // The stamp that a handle of a record of `holder` gets.
  uint64_t _StampFor(const NodeSystemImpl* holder) const noexcept {
    return holder == this ? _stamps._movedStamp : _stamps._createdStamp;
  }
  // Frees the records that removal handed over to the modified lists.
  void _FreeGarbage() noexcept;
  // Makes the attribute table of `info` safe to write: its own, and a fresh
  // copy if values of it may have been handed out (the old table is kept
  // alive until the modification ends).
  Result<AttributeTable*> _PrepareTable(NodeInfo* info);
  // The record of `id` in `info`'s table (which must exist), inserted as a
  // record that isn't derived if it is new.
  Result<AttributeRecord*> _FindOrInsertRecord(NodeInfo* info, InternedId id, ATTRIBUTE_FLAGS flags,
                                               bool* inserted);
  // The record of `id` in `info`'s own table after a call that may have
  // changed the table; made again if the call took it away.
  Result<AttributeRecord*> _RefindRecord(NodeInfo* info, InternedId id, ATTRIBUTE_FLAGS flags);
  // Lets attribute derivation refuse a write to `id` at `node` (no rule, no veto).
  Result<void> _ApplyWriteRule(const GNode& node, InternedId id);
  // What every write from outside does first: the system must be open for a
  // direct modification, the handle current, and derivation must allow it.
  Result<GNode> _BeginWrite(const GNode& node, InternedId id);
  // Tells the class of a change and takes its word for the special stamps.
  Result<void> _TellClass(const GNode& node, InternedId id, ATTRIBUTE_FLAGS flags,
                          const Data& newValue, const Data& oldValue);
  // The flags and derived attribute of `id` by the class.
  ATTRIBUTE_FLAGS _AttributeFlags(InternedId id) const;
  Ref<DerivedAttribute> _DerivedAttribute(InternedId id) const;
  // The steps of AddNode after the node is in the tree: the marks of its
  // ports, "checkuniquenumber" for a public call, and the content's loop
  // records. `made` and `loopKeys` collect what to take back on failure.
  Result<void> _MarkNewNodeAndTakeItsLoops(GNode& node, const NodeSystemImpl& content,
                                           bool publicCall, std::vector<NodePath>& made,
                                           std::vector<NodePath>& loopKeys);
  // The passes of the port stage.
  Result<void> _RunPortPasses();
  // What a removal takes away, gathered before anything goes: every path of
  // the subtree, the ones this system holds records of (children first), and
  // the reverse entries to take from the other ends.
  struct RemovalPlan {
    struct Reverse {
      NodePath other;
      ConnectionKey key;
    };
    std::vector<NodePath> paths;
    std::vector<NodePath> held;
    std::vector<Reverse> reverse;
  };
  // The first phase of a removal of the subtree of `node`: marks the ports
  // connected from outside `top` and fetches for writing every record the
  // second phase writes, changing nothing a reader sees. Throws
  // std::bad_alloc.
  Result<void> _PlanRemoval(const GNode& node, const NodePath& top, RemovalPlan& plan);
  Result<void> _PlanClearConnections(const NodePath& self, const ConnectionTable& table,
                                     RemovalPlan& plan);
  // The second phase: takes the subtree away; allocates nothing.
  void _ApplyRemoval(RemovalPlan& plan) noexcept;
  // The marks of a parent that loses a child, and then its stamps.
  Result<void> _MarkChildRemoved(GNode& parent);
  void _NoteChildRemoved(NodeInfo& parent) noexcept;
  // Sorts every child table that an add left unsorted (see SortedTable),
  // before others may read the records; allocates nothing.
  void _SortChildTables() noexcept;
  // Notes that this system now holds a child record that hides or takes back
  // an element of a lower level (see _mayHideBelow).
  void _NoteHidingChildRecord() noexcept { _store._mayHideBelow = true; }
  // The loop tables for writing, made if the system has none yet.
  Result<LoopTables*> _WritableLoopTables();
  // The two steps of Init that the installed stages provide (see
  // ValidationStages): the derived attribute list, and the attribute setup of
  // the root. Each does nothing without its stage.
  Result<void> _InitDerivedAttributes();
  Result<void> _InitRootAttributes();
  // Links `info` at the front of the system's modified list unless it is on
  // a list.
  void _LinkModified(NodeInfo* info) noexcept;
};

// Kind of the child `id` of an element of kind `parentKind`.
inline NODE_KIND ChildKind(NODE_KIND parentKind, InternedId id) {
  return NodePath::KindStep(parentKind, id);
}

}  // namespace orvix::nodes
