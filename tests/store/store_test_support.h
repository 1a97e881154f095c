#pragma once
// Shared helpers of the store tests: paths from text, and the small
// structural edits (add, remove) made from the store's own writers, the way
// the edit layer will use them.

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "must.h"
#include "orvix/graph/node_path.h"
#include "store/node_system_impl.h"

namespace orvix::nodes::test {

inline NodePath P(std::string_view text) {
  return Must(NodePath::Parse(text));
}
inline InternedId Id(std::string_view text) {
  return InternedId::Get(text);
}
template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("(ok)") : r.GetError().GetMessage();
}
inline Ref<NodeSystemImpl> Empty() {
  return Must(NodeSystemImpl::CreateEmpty());
}
// A copy of `source` that shares its map.
inline Ref<NodeSystemImpl> Copy(const NodeSystemImpl& source) {
  Ref<NodeSystemImpl> copy = MakeRef<NodeSystemImpl>();
  EXPECT_TRUE(copy->CopyFrom(source));
  return copy;
}

// The record of the parent of `path`, fetched for writing.
inline NodeInfo* MutableParent(NodeSystemImpl& system, const NodePath& path) {
  GNode parent =
      system.MakeHandle(Must(path.Slice(0, NodePath::SliceCount(int64_t(path.GetCount()) - 1))));
  EXPECT_TRUE(parent.IsPopulated()) << path.ToString();
  return Must(system.GetMutable(parent, NODE_KIND::NONE));
}

// Adds the element `text` below its existing parent: an ADDED child record in
// the parent and a record of the path's kind, with `base` as its base record.
inline NodeInfo* Add(NodeSystemImpl& system, std::string_view text, GNode base = GNode()) {
  const NodePath path = P(text);
  EXPECT_TRUE(
      system.SetChildRecord(MutableParent(system, path), path.GetLastPart(), CHILD_FLAGS::ADDED));
  GNode handle(path, base.info, base.system, base.stamp);
  Result<NodeInfo*> info = system.GetMutable(handle, path.GetKindRaw());
  EXPECT_TRUE(info) << text;
  return info ? *info : nullptr;
}

using Strings = std::vector<std::string>;

// The ids of the present children of `text`, in walk order.
inline Strings Children(const NodeSystemImpl& system, std::string_view text) {
  Strings ids;
  ChildIterator it;
  Result<GNode> child = system.GetFirstChild(system.FindByPath(P(text)), it);
  for (; child && child->IsPopulated(); child = system.GetNextChild(it)) {
    ids.emplace_back(child->path.GetLastPart().GetString());
  }
  EXPECT_TRUE(child);
  return ids;
}

// Removes the element `text` with its subtree. The parent's child record says
// "absent" if a base still has the child, or goes if nothing below has it.
inline void Remove(NodeSystemImpl& system, std::string_view text, bool top = true) {
  const NodePath path = P(text);
  for (const std::string& id : Children(system, text)) {
    Remove(system, Must(path.Append(Id(id))).ToString(), false);
  }
  EXPECT_TRUE(system.RemoveEntry(path));
  if (!top) return;
  NodeInfo* parent = MutableParent(system, path);
  if (system.FindNode(path, NODE_KIND::ALL_MASK, true, true)) {
    EXPECT_TRUE(system.SetChildRecord(parent, path.GetLastPart(), CHILD_FLAGS::NONE));
  } else {
    system.EraseChildRecord(parent, path.GetLastPart());
  }
  system.NoteRemoval();
}

}  // namespace orvix::nodes::test
