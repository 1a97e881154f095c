#pragma once
// NodeInfo: the stored record of one element of a node system, with the
// extension that its kind needs.
//
// A record is allocated with the size of its kind: a NODE record carries the
// nested system, a port record its connections and connection stamps, a port
// list nothing more. Code that reads an extension tests the kind first, which
// AsNode() and AsPort() do. A record never moves while it is in a map: other
// records (of derived systems) point at it through `base`, and handles cache
// its address.

#include <cstddef>
#include <cstdint>
#include <limits>

#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/host/data.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/base_reference.h"
#include "orvix/nodes/node_system.h"
#include "store/connection_table.h"
#include "store/sorted_table.h"

namespace orvix::nodes {

class NodeSystemImpl;
struct NodeInfo;

// The end of every modified list: not null (null means "on no list") and not a
// record.
inline NodeInfo* const g_modifiedListEnd = reinterpret_cast<NodeInfo*>(uintptr_t{1});

// One entry of a child table: how this element's child list differs from the
// base's at the id.
struct ChildRecord {
  InternedId id;
  CHILD_FLAGS flags = CHILD_FLAGS::NONE;
};

// One attribute value set at an element. The operations on values come with
// the attribute subsystem; the store only holds the records.
struct AttributeRecord {
  // The two values of `derivedStamp` that mean "not derived".
  static constexpr uint64_t NOT_DERIVED = std::numeric_limits<uint64_t>::max();
  static constexpr uint64_t NOT_DERIVED_ALT = std::numeric_limits<uint64_t>::max() - 1;

  InternedId id;
  Data value;
  uint64_t stamp = 0;
  uint64_t derivedStamp = NOT_DERIVED;

  bool IsDerived() const noexcept { return derivedStamp < NOT_DERIVED_ALT; }
};

// The attribute table of a record, allocated on its own: a write that replaces
// the table may have to keep the old one alive while readers hold references
// into it.
class AttributeTable : public RefCounted {
 public:
  SortedTable<AttributeRecord> records;
};

struct NodeRecord;
struct PortRecord;

// The common part of every record.
struct NodeInfo {
  GNODE_FLAGS_IMPL flags = GNODE_FLAGS_IMPL::NONE;
  // The path of the element, set when the record is made and never changed:
  // handles and modified-list walks read it instead of keeping their own.
  NodePath _path;
  // The record of the same element in the base, and the system holding it.
  NodeInfo* base = nullptr;
  NodeSystemImpl* baseSystem = nullptr;
  // The differences of this element's child list from the base's.
  SortedTable<ChildRecord> children;
  // Null while no value is set here.
  Ref<AttributeTable> attributes;
  uint64_t _childRemovedStamp = 0;
  uint64_t _addedStamp = 0;
  uint64_t _directAttributeStamp = 0;
  uint64_t _inheritedAttributeStamp = 0;
  uint64_t _synthesizedAttributeStamp = 0;
  uint64_t _metaAttributeStamp = 0;
  // Link of the modified list: null when on no list.
  NodeInfo* _nextModified = nullptr;

  NODE_KIND GetKind() const noexcept { return orvix::GetKind(flags); }
  bool IsOnModifiedList() const noexcept { return _nextModified != nullptr; }
  bool HasFlags(GNODE_FLAGS_IMPL mask) const noexcept { return HasAny(flags, mask); }

  // The extension, or null if the kind has none of that sort.
  NodeRecord* AsNode() noexcept;
  const NodeRecord* AsNode() const noexcept;
  PortRecord* AsPort() noexcept;
  const PortRecord* AsPort() const noexcept;

  // A new, empty record of `kind` (one single kind) for `path`, with the
  // kind in its flags; null when memory runs out.
  static NodeInfo* Allocate(NODE_KIND kind, const NodePath& path) noexcept;
  // A copy of `source` whole: flags, tables, stamps, connections, extension.
  // The attribute table is copied, not shared. Null when memory runs out.
  static NodeInfo* Clone(const NodeInfo& source) noexcept;
  // Destroys a record of any kind. Null is allowed.
  static void Free(NodeInfo* info) noexcept;

  // True if the record holds neither modified bits nor list links: the state
  // in which it may be copied into another layer.
  bool IsClean() const noexcept;

  // Drops the child table, the attribute table and the extension's content.
  void ClearContent() noexcept;

  // Bytes of the record object for a kind.
  static size_t GetRecordSize(NODE_KIND kind) noexcept;

 protected:
  NodeInfo() = default;
  NodeInfo(const NodeInfo&) = default;
  NodeInfo& operator=(const NodeInfo&) = default;
  ~NodeInfo() = default;
};

// The extension of a NODE record.
struct NodeRecord : NodeInfo {
  // With DIRECT_INSTANCE set, the content of this node is this system. The
  // root of a derived system is such a node, with its base here.
  Ref<NodeSystem> _nestedSystem;
  // What the node keeps about where its nested system came from; stored with
  // it. Null for a system that no asset made.
  Ref<BaseReference> _nestedData;

  NodeSystemImpl* GetNestedSystemImpl() const noexcept;

 private:
  friend struct NodeInfo;
  NodeRecord() = default;
  NodeRecord(const NodeRecord&) = default;
  ~NodeRecord() = default;
};

// The extension of an INPORT or OUTPORT record.
struct PortRecord : NodeInfo {
  ConnectionTable connections;
  uint64_t _sourcesStamp = 0;
  uint64_t _targetsStamp = 0;
  // Head of the list of modified nested ports of this (top-level) port.
  NodeInfo* _firstNestedModified = g_modifiedListEnd;

 private:
  friend struct NodeInfo;
  PortRecord() = default;
  PortRecord(const PortRecord&) = default;
  ~PortRecord() = default;
};

// Plain records: the port lists.
struct PlainRecord : NodeInfo {
 private:
  friend struct NodeInfo;
  PlainRecord() = default;
  PlainRecord(const PlainRecord&) = default;
  ~PlainRecord() = default;
};

inline NodeRecord* NodeInfo::AsNode() noexcept {
  return GetKind() == NODE_KIND::NODE ? static_cast<NodeRecord*>(this) : nullptr;
}
inline const NodeRecord* NodeInfo::AsNode() const noexcept {
  return GetKind() == NODE_KIND::NODE ? static_cast<const NodeRecord*>(this) : nullptr;
}
inline PortRecord* NodeInfo::AsPort() noexcept {
  return HasAny(GetKind(), NODE_KIND::PORT_MASK) ? static_cast<PortRecord*>(this) : nullptr;
}
inline const PortRecord* NodeInfo::AsPort() const noexcept {
  return HasAny(GetKind(), NODE_KIND::PORT_MASK) ? static_cast<const PortRecord*>(this) : nullptr;
}

}  // namespace orvix::nodes
