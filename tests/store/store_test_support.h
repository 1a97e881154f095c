#pragma once
// Shared helpers of the store tests: paths from text, and the small
// structural edits (add, remove) made from the store's own writers, the way
// the edit layer will use them.

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "orvix/graph/node_path.h"
#include "store/node_system_impl.h"

namespace orvix::nodes::test {

inline NodePath P(std::string_view text) {
  return NodePath::Parse(text).Value();
}
inline InternedId Id(std::string_view text) {
  return InternedId::Get(text);
}
template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("(ok)") : r.GetError().GetMessage();
}

inline NodePath ParentOf(const NodePath& path) {
  return path.Slice(0, NodePath::SliceCount(int64_t(path.GetCount()) - 1)).Value();
}

// Adds the element `path` below its existing parent: an ADDED child record in
// the parent and a record of the path's kind, with `base` as its base record.
inline NodeInfo* Add(NodeSystemImpl& system, std::string_view text, GNode base = GNode()) {
  const NodePath path = P(text);
  GNode parent = system.MakeHandle(ParentOf(path));
  EXPECT_TRUE(parent.IsPopulated()) << text;
  NodeInfo* parentInfo = system.GetMutable(parent, NODE_KIND::NONE).Value();
  EXPECT_TRUE(system.SetChildRecord(parentInfo, path.GetLastPart(), CHILD_FLAGS::ADDED));
  GNode handle(path, base.info, base.system, base.stamp);
  Result<NodeInfo*> info = system.GetMutable(handle, path.GetKindRaw());
  EXPECT_TRUE(info) << text;
  return info ? *info : nullptr;
}

// Removes the element `path` with everything below it: the subtree's own
// entries go, and the parent's child record says "absent" if a base still has
// the child, or goes if nothing below has it.
inline void RemoveSubtree(NodeSystemImpl& system, const NodePath& path) {
  GNode node = system.FindByPath(path);
  if (node) {
    ChildIterator it;
    NodeSystemImpl::StartChildren(it, node);
    std::vector<InternedId> ids;
    for (InternedId id = system.NextChildId(it); id.IsPopulated(); id = system.NextChildId(it)) {
      ids.push_back(id);
    }
    for (InternedId id : ids) RemoveSubtree(system, path.Append(id).Value());
  }
  EXPECT_TRUE(system.RemoveEntry(path));
}

inline void Remove(NodeSystemImpl& system, std::string_view text) {
  const NodePath path = P(text);
  RemoveSubtree(system, path);
  GNode parent = system.MakeHandle(ParentOf(path));
  NodeInfo* parentInfo = system.GetMutable(parent, NODE_KIND::NONE).Value();
  const bool inBase = bool(system.FindNode(path, NODE_KIND::ALL_MASK, true, true));
  if (inBase) {
    EXPECT_TRUE(system.SetChildRecord(parentInfo, path.GetLastPart(), CHILD_FLAGS::NONE));
  } else {
    system.EraseChildRecord(parentInfo, path.GetLastPart());
  }
  system.NoteRemoval();
}

// The ids of the present children of `path`, in walk order.
inline std::vector<std::string> Children(const NodeSystemImpl& system, std::string_view text) {
  std::vector<std::string> ids;
  ChildIterator it;
  Result<GNode> child = system.GetFirstChild(system.FindByPath(P(text)), it);
  while (child && child->IsPopulated()) {
    ids.emplace_back(child->path.GetLastPart().GetString());
    child = system.GetNextChild(it);
  }
  EXPECT_TRUE(child);
  return ids;
}

// A copy of `source` that shares its map.
inline Ref<NodeSystemImpl> Copy(const NodeSystemImpl& source) {
  Ref<NodeSystemImpl> copy = MakeRef<NodeSystemImpl>();
  EXPECT_TRUE(copy->CopyFrom(source));
  return copy;
}

}  // namespace orvix::nodes::test
