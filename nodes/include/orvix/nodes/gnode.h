#pragma once
// GNode: the handle by which everything outside the store names an element of
// a node system (a node, a port list or a port).
//
// A handle caches where the element's record was found: the record, the
// system that holds it (this system, a base, or a nested system) and a stamp
// of that moment. It stays usable across changes: the system revalidates it
// by comparing stamps, and only looks the path up again when the stamps say
// that records may have moved. A handle whose stamp is current is therefore
// resolved without any hashing.

#include <cstddef>
#include <cstdint>
#include <string>

#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"

namespace orvix::nodes {

class ChangeList;
class NodeSystem;
class NodeSystemImpl;
struct NodeInfo;
enum class FINALIZE_FLAGS : uint32_t;

struct GNode {
  // The element's path in the system that made the handle.
  NodePath path;
  // The record; null if the handle is unresolved or the element is gone.
  NodeInfo* info = nullptr;
  // The system that holds `info`.
  NodeSystemImpl* system = nullptr;
  // When `info` was last known to be right (see NodeSystemImpl::Refresh).
  uint64_t stamp = 0;

  GNode() = default;
  explicit GNode(NodePath p, NodeInfo* i = nullptr, NodeSystemImpl* s = nullptr, uint64_t st = 0)
      : path(std::move(p)), info(i), system(s), stamp(st) {}

  // True if the handle has a record.
  bool IsPopulated() const noexcept { return info != nullptr; }
  explicit operator bool() const noexcept { return IsPopulated(); }
  // The kind that the path names; the root is NODE only when populated.
  NODE_KIND GetKind() const noexcept { return path.GetKind(info != nullptr); }
  std::string ToString() const { return path.ToString(); }
};

// The state of a walk over the children of an element: GetFirstChild starts
// it, GetNextChild moves it on. The walk reads the element's record and its
// base chain. An edit between two steps is noticed by the system's stamps:
// the walk finds its place again from the parent, just after the child
// reported last, so that no freed record is read and no child is reported
// twice.
struct ChildIterator {
  GNode parent;
  // The element's own record, and the record whose child table is walked.
  const NodeInfo* own = nullptr;
  const NodeInfo* current = nullptr;
  size_t index = 0;
  // How many base hops `current` lies below `own`.
  size_t depth = 0;
  // The system walked, its stamps when the walk last looked, and the child
  // reported last.
  const NodeSystem* system = nullptr;
  uint64_t movedStamp = 0;
  uint64_t createdStamp = 0;
  InternedId last;
};

// A system under modification, with the handle of its root: what creating a
// system for editing, or BeginModification (modification.h), yields.
//
// An owning MutableRoot holds the modification's one counted reference, and
// EndModification hands it over: on success the finished system is the
// result and the MutableRoot is left empty, so that the caller's reference is
// the only one and the next BeginModification needs no copy. On failure the
// system stays here, still under modification, for the caller to repair and
// end again.
//
// A borrowed MutableRoot is the one that EndModification of the system gives
// to its class's FinalizeModification. The owner of the system is further up
// the call, and a second counted reference would make every edit of the class
// fail the reference test, so a borrowed root holds its system without a
// count. It must not release or end what it doesn't own, and it can't: it is
// handed out only as a const reference, so its `_system` can't be reset,
// moved from or replaced, and EndModification can't be called on it. It is
// valid for the call it is given to and must not be kept. A copy of it owns a
// reference of its own: it is an ordinary MutableRoot of a system that is
// then shared, whose edits the reference test refuses.
struct MutableRoot {
  Ref<NodeSystem> _system;
  GNode _root;

  MutableRoot() = default;
  // Copies and moves take ownership of their own: a copy counts one more
  // reference, and so does anything made from a borrowed root.
  MutableRoot(const MutableRoot& other);
  MutableRoot(MutableRoot&& other) noexcept;
  MutableRoot& operator=(const MutableRoot& other);
  MutableRoot& operator=(MutableRoot&& other) noexcept;
  ~MutableRoot();

  // True for the root given to FinalizeModification.
  bool IsBorrowed() const noexcept { return _borrowed; }

  // Ends the modification (NodeSystem::EndModification). On success yields
  // the finished system and leaves this MutableRoot empty; on failure the
  // system stays here, under modification.
  //   "Illegal state: Condition _system not fulfilled. " without a system,
  //   e.g. on a second end.
  //   "Illegal state: Condition !_borrowed not fulfilled. " on a borrowed root.
  Result<Ref<NodeSystem>> EndModification(ChangeList* changeList, FINALIZE_FLAGS flags);

 private:
  friend class NodeSystemImpl;
  // A borrowed root of `system`, which the caller owns; see above.
  MutableRoot(NodeSystem& system, GNode root) noexcept;
  // Lets go of the system: releases an owned reference, forgets a borrowed one.
  void _Drop() noexcept;

  bool _borrowed = false;
};

}  // namespace orvix::nodes
