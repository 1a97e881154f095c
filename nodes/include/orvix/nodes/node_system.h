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
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "orvix/graph/flags.h"
#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"
#include "orvix/nodes/node_system_class.h"

namespace orvix::nodes {

// The class id of node systems.
inline constexpr std::string_view NODE_SYSTEM_CLASS_ID = "net.orvix.node.class.nodesystem";

// The reserved id of the port that stands for a nested node system; it is
// never a candidate of GetChild without an id.
inline constexpr std::string_view NODE_SYSTEM_PORT_ID = "net.orvix.node.port.nodesystem";

// What changed since a stamp, as the graph model reports it.
enum class MODIFIED : uint64_t {
  NONE = 0x0,
  COMPLETE = 0x1,  // anything may have changed: start over
  DIRECT_ATTRIBUTE = 0x2,
  DIRECT_META_ATTRIBUTE = 0x4,
  INHERITED_ATTRIBUTE = 0x8,
  SYNTHESIZED_ATTRIBUTE = 0x10,
  USER_STATE_ATTRIBUTE = 0x20,
  NODE_ADDED = 0x40,
  CHILD_REMOVED = 0x80,
  CONNECTION_SOURCES = 0x100,  // the incoming connections of a port
  CONNECTION_TARGETS = 0x200,  // the outgoing connections of a port
  SPECIAL0 = 0x400,
  SPECIAL1 = 0x800,

  DATA_ATTRIBUTE_MASK = 0x1a,
  NODE_MASK = 0xc0,
  CONNECTION_MASK = 0x300,
};
ORVIX_FLAG_SET_OPERATORS(MODIFIED)

// Called with each changed element and what changed at it; false ends the walk.
using ChangeCallback = std::function<Result<bool>(const GNode& node, MODIFIED what)>;
// Called with each node of a subtree; false ends the walk.
using NodeVisitor = std::function<Result<bool>(const GNode& node)>;

class NodeSystem : public RefCounted {
 public:
  // 0: the class the system belongs to; null while uninitialized.
  virtual Ref<NodeSystemClass> GetClass() const = 0;
  // 2: the direct base, null for a system with no base.
  virtual Ref<NodeSystem> GetBase() const = 0;
  // 3: the bases; element 0 is the direct base (null for none).
  virtual const std::vector<Ref<NodeSystem>>& GetBases() const = 0;

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

  // 18: the number of child records that this system holds for the element
  // (its differences from the base's child list); 0 if the system holds no
  // record of it.
  virtual Result<size_t> GetChildRecordCount(const GNode& node) const = 0;
  // 19: the handle of the root, the empty path.
  virtual GNode GetRoot() const = 0;

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
  virtual Result<void> EndModification(ChangeList* changeList, FINALIZE_FLAGS flags) = 0;

  // 43: rebuilds a deep node map as two layers; does nothing while the map is
  // shallow. The system stays as it was if memory runs out.
  virtual Result<void> Compact() = 0;

 protected:
  NodeSystem() = default;
  ~NodeSystem() override = default;
};

}  // namespace orvix::nodes
