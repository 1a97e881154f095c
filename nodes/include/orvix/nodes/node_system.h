#pragma once
// NodeSystem: the published interface of a node system, a tree of nodes and
// ports joined by wires, stored as its differences from its bases.
//
// A NodeSystem that is not being modified is immutable: any number of holders
// and threads may read it. Readers learn of changes by comparing stamps
// (GetModificationStamp, GetModifications, EnumerateChanges) instead of being
// told. Every operation that can fail returns a Result.
//
// The operations are declared in the order of the published interface, each
// with its slot number; the slots in between arrive with the subsystems that
// define them.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"
#include "orvix/nodes/node_system_callbacks.h"
#include "orvix/nodes/node_system_types.h"

// Every client includes this header, so the types that the operations only
// pass along are declared, not included: a caller that makes or reads a Data,
// a template or a connection's attributes includes that type's own header.
namespace orvix {

class ConnectionAttributes;
class Data;
class DataAccessor;
class Wires;
// Declared with the type it has in orvix/graph/connection.h, which defines it.
enum class GET_CONNECTIONS_MODE : uint32_t;

}  // namespace orvix

namespace orvix::nodes {

class ChangeList;
class NodeSystemClass;
class NodeSystemDerivationHandler;
class NodeTemplate;
class TemplateArguments;

class NodeSystem : public RefCounted {
 public:
  // 0: the class the system belongs to; null while uninitialized.
  virtual Ref<NodeSystemClass> GetClass() const = 0;
  // 1: the system's derivation handler: its own, or the default one.
  virtual Ref<NodeSystemDerivationHandler> GetDerivationHandler() const = 0;
  // 2: the direct base, null for a system with no base.
  virtual Ref<NodeSystem> GetBase() const = 0;
  // 3: the bases; element 0 is the direct base (null for none).
  virtual const std::vector<Ref<NodeSystem>>& GetBases() const = 0;

  // 4: the template the system was made from; null if none, or once the
  // system has been modified.
  virtual Ref<NodeTemplate> GetTemplate() const = 0;
  // 5: the arguments the template was instantiated with.
  virtual Ref<TemplateArguments> GetTemplateArguments() const = 0;

  // 6: true if nothing is pending, garbage included: the state in which a
  // system is shared, read and used as a base.
  virtual bool IsFinalized() const = 0;

  // 9: the running stamp of changes; it only grows.
  virtual uint64_t GetModificationStamp() const = 0;
  // 10: calls `callback` for each element that changed after `stamp`, with
  // what changed. When the whole system changed after `stamp`, one call for
  // the root with COMPLETE. The result is false if the callback stopped.
  virtual Result<bool> EnumerateChanges(uint64_t stamp, const ChangeCallback& callback) const = 0;
  // 11: the sorts of change made after `stamp`; COMPLETE alone if the whole
  // system changed.
  virtual MODIFIED GetModifications(uint64_t stamp) const = 0;

  // 12: the place of `port` in the order of the last topology validation.
  // Sources come before their targets; a child node owns one contiguous
  // range of indices, in which its ports keep the order of its base system.
  // A nested port has the index of its top-level port. A port without a
  // place (the order is stale, or the port is new) writes the diagnostic
  // "Stop" and yields NO_TOPOLOGICAL_INDEX.
  //   "Nullptr node"
  virtual Result<int64_t> GetTopologicalIndex(const GNode& port) const = 0;
  // 12: the same for the first `length` parts of `path`.
  //   "Illegal argument: Condition length <= path.GetCount() not fulfilled. "
  virtual Result<int64_t> GetTopologicalIndex(const NodePath& path, size_t length) const = 0;
  // 13: calls `visitor` with every port in topological order (descending
  // with `descending`), the ports of child nodes included, as handles of
  // this system. The result is false if the visitor stopped the walk.
  virtual Result<bool> VisitInTopologicalOrder(bool descending,
                                               const NodeVisitor& visitor) const = 0;

  // 16: where the template came from, as SetTemplate was told; null if the
  // system has no template, or that owner is gone (the system holds it
  // weakly).
  virtual Ref<RefCounted> GetTemplateOwner() const = 0;

  // 18: the number of child records that this system holds for the element
  // (its differences from the base's child list); 0 if the system holds no
  // record of it.
  virtual Result<size_t> GetChildRecordCount(const GNode& node) const = 0;
  // 19: the handle of the root, the empty path.
  virtual GNode GetRoot() const = 0;

  // 20: puts a handler of the class on the system.
  //   "Illegal argument: Condition handler not fulfilled. "
  virtual Result<void> SetDerivationHandler(Ref<NodeSystemDerivationHandler> handler) = 0;
  // 21: records that the system is the instantiation of `nodeTemplate` with
  // `arguments`, made for `owner` (the repository of the instantiation
  // context, or null), as a template's InstantiateImpl must before it ends
  // the modification. The owner is held weakly. A null template drops all
  // three. Inside the modification bracket only; the next BeginModification
  // drops them again. The arguments are stored as they are: putting them on
  // the ports (values, port types, bundles) comes with port types.
  //   "More than one reference to node system @."
  //   "Node system modification not within BeginModification()/EndModification()."
  virtual Result<void> SetTemplate(const NodeTemplate* nodeTemplate,
                                   Ref<TemplateArguments> arguments,
                                   const Ref<RefCounted>& owner) = 0;

  // 22: calls `visitor` for `start` if it is a node, then for the nodes below
  // it, depth first, parents before children. The result is false if the
  // visitor stopped the walk.
  virtual Result<bool> VisitNodes(const GNode& start, const NodeVisitor& visitor) const = 0;
  // 23: the handle of the parent; an empty handle for the root.
  virtual Result<GNode> GetParent(const GNode& node) const = 0;
  // 24: the element itself or the nearest one above it whose kind is in
  // `kinds`; an empty handle if there is none.
  virtual Result<GNode> GetAncestor(const GNode& node, NODE_KIND kinds) const = 0;
  // 25: the input or output port list of a node.
  virtual Result<GNode> GetPortList(const GNode& node, PORT_DIR direction) const = 0;
  // 26: with an id, the child of that id if it is present and of one of
  // `kinds`. With a null id, the single child of `kinds`, ignoring ids that
  // begin with "." and the node-system port; two fail with
  // "More than one port in @.". An empty handle when there is none.
  virtual Result<GNode> GetChild(const GNode& node, InternedId id, NODE_KIND kinds) const = 0;
  // 27: follows the ids of `parts` down from `node`; an empty handle if the
  // element doesn't exist.
  virtual Result<GNode> FindDescendant(const GNode& node, NodePath::Block parts) const = 0;
  // 28: the nested system of the node that holds `node` (the node itself, or
  // the node of a port list or port); null if it has none.
  virtual Result<Ref<NodeSystem>> GetNestedSystem(const GNode& node) const = 0;

  // 30: the template of the node that `path` leads into: for a path into a
  // child node, the template of the node's base system (null without a base);
  // for the root and the root's ports, the system's own template.
  virtual Result<Ref<NodeTemplate>> GetNodeTemplate(const NodePath& path) const = 0;
  // 31: the derivation handler by the same rule; the default handler for a
  // child node without a base system.
  virtual Result<Ref<NodeSystemDerivationHandler>> GetNodeDerivationHandler(
      const NodePath& path) const = 0;

  // 32: the handle of `path`; an empty handle if there is no such element.
  virtual GNode FindByPath(const NodePath& path) const = 0;
  // 33: a handle of `path` that keeps the path even if it doesn't exist now
  // (its record is then null).
  virtual GNode MakeHandle(const NodePath& path) const = 0;
  // 34: true if the handle still names an element.
  virtual bool IsValid(const GNode& node) const = 0;
  // 35: the public flags of the element.
  virtual Result<GNODE_FLAGS> GetFlags(const GNode& node) const = 0;
  // 36: starts a walk over the present children of `node`: its own child
  // records first, in id order, then those of each base in turn, each id once.
  // Yields the first child, or an empty handle if there is none.
  virtual Result<GNode> GetFirstChild(const GNode& node, ChildIterator& iterator) const = 0;
  // 37: the next child of the walk, or an empty handle at the end.
  virtual Result<GNode> GetNextChild(ChildIterator& iterator) const = 0;

  // 38: brings the system back to consistency after edits: the topology,
  // port and attribute stages, each only for what the edits marked. A failed
  // stage keeps its marks, so that a later call repeats it.
  virtual Result<void> Validate(ChangeList* changeList) = 0;
  // 39: the topology stage alone.
  virtual Result<void> ValidateTopology() = 0;
  // 40: the topology stage, then the port stage.
  virtual Result<void> ValidatePorts(ChangeList* changeList) = 0;
  // 41: opens the modification bracket on this object, which must have a
  // single reference. Clients use the copy-on-write BeginModification of
  // modification.h instead.
  //   "BeginModification() called while there already is an active modification."
  //   "More than one reference to node system @."
  virtual Result<void> BeginModification() = 0;
  // 42: closes the bracket. Unless `flags` is NONE the class finishes the
  // modification and the system is validated; then garbage is freed and the
  // system becomes immutable. On failure the system stays mutable.
  //   "Illegal state: Condition _mutable not fulfilled. "
  //   "Illegal state: Condition IsValidated() not fulfilled. "
  //   "Illegal state: Condition !_finalizing not fulfilled. " from inside
  //   the class's FinalizeModification.
  virtual Result<void> EndModification(ChangeList* changeList, FINALIZE_FLAGS flags) = 0;
  // True if nothing is left to validate: no modified bit but the garbage
  // bits. A system under modification is validated until its first edit,
  // and again after Validate; EndModification with NONE requires it.
  virtual bool IsValidated() const = 0;

  // 43: rebuilds a deep node map as two layers; does nothing while the map is
  // shallow. The system stays as it was if memory runs out.
  virtual Result<void> Compact() = 0;

  // --- Structural edits. Each runs inside the modification bracket, on a
  // system with a single owner, and marks what it touched for validation; no
  // edit validates by itself. `changeList` receives the entries that undo the
  // edit; null records nothing. Handles of elements that are gone fail with
  // "Node with path @ doesn't exist any longer.", empty ones with
  // "Nullptr node".

  // 46: adds the child node `id` whose content is `system`, a finished system
  // of the same class. The node stores only its difference from `system`.
  //   "Node system to add hasn't been validated."
  //   "Node system to add has node system class @, expected @."
  //   "There already exists a node with id @ in @."
  virtual Result<GNode> AddChild(std::string_view id, Ref<NodeSystem> system,
                                 ChangeList* changeList) = 0;
  // 53: adds the port `id` below a port list or a port. Top-level ports are
  // added to the root's port lists only; nested ports below any port.
  //   "You can't add a port directly to node @."
  //   "You can't add the top-level port @ to @: This points to a nested node."
  virtual Result<GNode> AddPort(const GNode& parent, std::string_view id, GNODE_FLAGS flags,
                                ChangeList* changeList) = 0;
  // 54: takes away this system's difference about the child `id` of
  // `parent`, so that the child is what the base says, or gone if the base
  // has none. A child without a record here is no error.
  virtual Result<void> ResetChild(const GNode& parent, InternedId id, ChangeList* changeList) = 0;
  // 55: removes a child node of the root, or a port of the root or a nested
  // port, with everything below it and every connection to it.
  //   "Node @ cannot be removed. Only children of the node system's root can be removed."
  //   "Top-level port @ cannot be removed. It belongs to a nested node."
  //   "@ cannot be removed. This is not a valid path of a node or port."
  //   "@ is a derived port, therefore it cannot be removed directly."
  virtual Result<void> Remove(const GNode& node, ChangeList* changeList) = 0;
  // 56: sets the wires from `source` to `target` channel by channel: a byte
  // of 0 leaves the channel, WIRE_MODE::REMOVE clears it, WIRE_MODE::INHERIT
  // takes the base's wire back, 1..0x7f sets that mode. Disconnecting is a
  // Connect with REMOVE.
  //   "Illegal wire mode @ for call to Connect()."
  //   "@ is not a port."
  //   "Can't connect ports @, @ because they are within the same top-level port."
  virtual Result<void> Connect(const GNode& source, const GNode& target, Wires modes,
                               ChangeList* changeList) = 0;

  // --- Connections as the layers and levels make them.

  // 57: calls `callback` with each effective connection of `port`: its
  // sources, or its targets for PORT_DIR::OUTPUT, whose wires meet `mask`
  // (0x3f per channel for every priority, 0x7f to include the wires of
  // ancestor ports). True if the walk ran to its end; false if `port` isn't a
  // port or the callback stopped the walk.
  virtual Result<bool> GetConnections(const GNode& port, PORT_DIR direction, Wires mask,
                                      GET_CONNECTIONS_MODE mode,
                                      const ConnectionCallback& callback) const = 0;
  // 58: the wires from `source` to `target`; zero if there is no connection.
  virtual Result<Wires> GetConnection(const GNode& source, const GNode& target) const = 0;
  // 59: calls `callback` with each attribute of the connection from `source`
  // to `target`. False if the callback stopped the walk.
  virtual Result<bool> GetConnectionValues(const GNode& source, const GNode& target,
                                           const ConnectionValueCallback& callback) const = 0;
  // 60: the attribute (`kind`: 0 source end, 1 connection, 2 target end) `id`
  // of the connection from `source` to `target`; empty if it isn't set. The
  // id "net.orvix.node.ionodes" of an end reads "in" or "out" by default.
  virtual Result<Data> GetConnectionValue(const GNode& source, const GNode& target, uint32_t kind,
                                          InternedId id) const = 0;
  // 61: sets that attribute; an empty value erases it. True if something
  // changed.
  //   "There is no connection from @ to @."
  virtual Result<bool> SetConnectionValue(const GNode& source, const GNode& target, uint32_t kind,
                                          InternedId id, const Data& value,
                                          ChangeList* changeList) = 0;

  // --- Attribute values. A derived system stores only the values it sets;
  // a read falls through to the bases. Reads hand out a pointer into the
  // stored record (or to a constant), never a copy: it stays valid while the
  // system lives unchanged, and during a modification until EndModification.

  // 14: sets the value; an empty value erases it (EraseValue). False if the
  // element already shows the value. `direct` false is for derivation and
  // loading: no open modification is required and no one is told.
  //   "Attribute @ is read-only."
  //   "A changelist must not be given when a derived attribute is modified."
  virtual Result<bool> SetValue(const GNode& node, InternedId id, Data value,
                                ChangeList* changeList, bool direct = true) = 0;
  // 62: fills `map` with the values of the element that `mask` takes
  // (VALUES_DIRECT, VALUES_DERIVED, attribute flags from bit 3 up), the base's
  // first so that nearer ones override. Without `includeBases` an element
  // that this system doesn't hold yields nothing; without `keepErased` an
  // erased value takes its id out of the map.
  virtual Result<void> GetValues(const GNode& node, uint32_t mask, ValueMap& map, bool includeBases,
                                 bool keepErased) const = 0;
  // 63: the value, or an empty value if there is none.
  virtual Result<const Data*> GetValue(const GNode& node, InternedId id) const = 0;
  // 64: the same, with `prefixCount`: how many leading parts of the path the
  // read crossed into a nested or base system (paths inside the value are
  // relative to that element); 0 without a record, -1 with `ownOnly` for the
  // element's own record.
  virtual Result<const Data*> GetValue(const GNode& node, InternedId id, int64_t* prefixCount,
                                       bool ownOnly) const = 0;
  // 65: calls `callback` with each value of the attribute along the
  // element's base chain, nearest first. False if the callback stopped it.
  virtual Result<bool> GetValueWithCallback(const GNode& node, InternedId id,
                                            const ValueCallback& callback) const = 0;
  // 66: says that the value changed inside although it is the same object;
  // a base's value becomes the element's own.
  //   "TouchValue must not be called for a derived attribute."
  //   "There is no value for attribute @ at @."
  virtual Result<void> TouchValue(const GNode& node, InternedId id, ChangeList* changeList) = 0;
  // 67: sets the part of the value that `keys` name, through `accessor`.
  virtual Result<void> SetSubData(const GNode& node, InternedId id, const DataAccessor& accessor,
                                  std::span<const Data> keys, Data value,
                                  ChangeList* changeList) = 0;
  // 68: removes the element's own value, so that the base's shows again.
  // True if a record was removed.
  virtual Result<bool> ResetValue(const GNode& node, InternedId id, ChangeList* changeList) = 0;
  // 69: hides the value: afterwards the element has none, whatever the base
  // says. True if a value was hidden.
  //   "Assertion failed: Condition !onlyTouchNeeded not fulfilled. "
  virtual Result<bool> EraseValue(const GNode& node, InternedId id, ChangeList* changeList) = 0;
  // 70: calls `callback` with each value of the element written after
  // `stamp`; the bases' values count as new when the whole system is.
  virtual Result<bool> EnumerateChangedValues(const GNode& node, uint64_t stamp,
                                              const ChangedValueCallback& callback) const = 0;
  // 71: the stamp of the value's last write, at least the system's complete
  // stamp.
  virtual Result<uint64_t> GetValueStamp(const GNode& node, InternedId id) const = 0;
  // 72: the stamp of the last change of a port's sources (INPUT) or targets
  // (OUTPUT), at least the system's complete stamp.
  virtual Result<uint64_t> GetConnectionStamp(const GNode& node, PORT_DIR direction) const = 0;

 protected:
  NodeSystem() = default;
  ~NodeSystem() override = default;
};

}  // namespace orvix::nodes
