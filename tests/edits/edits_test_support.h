#pragma once
// Helpers of the edit tests: paths and messages, small finished systems to add
// as nodes, systems opened for editing (plain, copied or derived), and reads
// of what the edits store: the tree, the connection tables and the flags.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "must.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/modified_bits_probe.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"

namespace orvix::nodes::test {

using GFI = GNODE_FLAGS_IMPL;

inline NodePath P(std::string_view text) {
  return Must(NodePath::Parse(text));
}
inline InternedId Id(std::string_view text) {
  return InternedId::Get(text);
}

// The message of a failed result, "(ok)" for a success, so that a mismatch
// shows what happened instead.
template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("(ok)") : r.GetError().GetMessage();
}

inline NodeSystemImpl& Impl(const MutableRoot& root) {
  return static_cast<NodeSystemImpl&>(*root._system);
}
inline const NodeSystemImpl& Impl(const Ref<NodeSystem>& system) {
  return static_cast<const NodeSystemImpl&>(*system);
}

inline Ref<NodeSystem> Finish(MutableRoot& root) {
  Result<Ref<NodeSystem>> done = root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  EXPECT_TRUE(done) << Message(done);
  if (!done) return Ref<NodeSystem>();
  EXPECT_TRUE((*done)->IsFinalized());
  return *done;
}

// An empty system of the default class, open for editing.
inline MutableRoot OpenEmpty() {
  return Must(Must(CreateDefaultNodeSystemClass())->CreateNodeSystem());
}

// A finished system opened again; it is copied if others hold it too.
inline MutableRoot Open(Ref<NodeSystem> system) {
  return Must(BeginModification(system, false));
}

// A system derived from the finished `base`, open for editing.
inline MutableRoot OpenDerived(const Ref<NodeSystem>& base) {
  Ref<NodeSystemImpl> b(static_cast<NodeSystemImpl*>(base.Get()));
  Ref<NodeSystem> derived = Must(NodeSystemImpl::CreateDerived(std::move(b)));
  return Must(BeginModification(derived, false));
}

// Edits that name their elements by path.
inline Result<GNode> AddPortAt(NodeSystem& s, std::string_view parent, std::string_view id) {
  return s.AddPort(s.FindByPath(P(parent)), id, GNODE_FLAGS::NONE, nullptr);
}
inline Result<void> RemoveAt(NodeSystem& s, std::string_view path) {
  return s.Remove(s.FindByPath(P(path)), nullptr);
}
inline Result<void> ConnectAt(NodeSystem& s, std::string_view from, std::string_view to,
                              uint64_t wires) {
  return s.Connect(s.FindByPath(P(from)), s.FindByPath(P(to)), Wires(wires), nullptr);
}

// A finished system with the given top-level input and output ports.
inline Ref<NodeSystem> MakeOperator(const std::vector<std::string>& inputs,
                                    const std::vector<std::string>& outputs) {
  MutableRoot root = OpenEmpty();
  for (const std::string& id : inputs) EXPECT_TRUE(AddPortAt(*root._system, "<", id));
  for (const std::string& id : outputs) EXPECT_TRUE(AddPortAt(*root._system, ">", id));
  return Finish(root);
}

// The effective sources (INPUT) or targets (OUTPUT) of a port, with their
// wires; `mask` 0x7f per channel takes the wires of the port's ancestors in.
inline std::map<std::string, uint64_t> Ends(const NodeSystem& s, std::string_view port,
                                            PORT_DIR dir, uint64_t mask = 0x3f3f3f3f3f3f3f3fULL) {
  std::map<std::string, uint64_t> ends;
  EXPECT_TRUE(s.GetConnections(
      s.FindByPath(P(port)), dir, Wires(mask), GET_CONNECTIONS_MODE::CONNECTIONS,
      [&](const GNode& other, Wires w, const Ref<ConnectionAttributes>&) -> Result<bool> {
        ends[other.path.ToString()] = w.GetValue();
        return true;
      }));
  return ends;
}

// The record that `system` itself holds for `path`; null if it holds none.
inline NodeInfo* OwnRecord(const NodeSystemImpl& system, std::string_view path) {
  const GNode node = system.FindByPath(P(path));
  return node.system == &system ? node.info : nullptr;
}
// The flags of that record; NONE if there is none.
inline GFI OwnFlags(const NodeSystemImpl& system, std::string_view path) {
  const NodeInfo* info = OwnRecord(system, path);
  return info ? info->flags : GFI::NONE;
}

// The marks that `system` holds for `path` (NONE if the path is gone), and
// those of the whole system, as the probe of modified bits reads them.
inline GFI MarksAt(const NodeSystem& system, std::string_view path) {
  return ProbeModifiedBits(system, system.FindByPath(P(path))).ValueOr(GFI::NONE);
}
inline GFI SystemMarks(const NodeSystem& system) {
  return Must(ProbeSystemModifiedBits(system));
}

// The connection entries stored in `system`'s own record of `path`, keyed
// "other>" for a target and "other<" for a source.
inline std::map<std::string, ConnectionData> StoredAt(const NodeSystemImpl& system,
                                                      std::string_view path) {
  std::map<std::string, ConnectionData> entries;
  if (const ConnectionTable* table = NodeSystemImpl::ConnectionTableOf(OwnRecord(system, path))) {
    table->ForEach([&](const ConnectionKey& key, const ConnectionData& data) {
      entries[key.other.ToString() + (key.IsOtherTarget() ? ">" : "<")] = data;
      return true;
    });
  }
  return entries;
}

// The present elements, by path, as the child walk finds them from the root.
inline std::map<std::string, NODE_KIND> Tree(const NodeSystem& system) {
  std::map<std::string, NODE_KIND> elements;
  std::vector<GNode> pending{system.GetRoot()};
  while (!pending.empty()) {
    const GNode node = std::move(pending.back());
    pending.pop_back();
    EXPECT_TRUE(elements.emplace(node.path.ToString(), node.GetKind()).second) << node.ToString();
    ChildIterator it;
    for (Result<GNode> child = system.GetFirstChild(node, it);; child = system.GetNextChild(it)) {
      EXPECT_TRUE(child) << Message(child);
      if (!child || !*child) break;
      pending.push_back(*child);
    }
  }
  return elements;
}

// What a failed edit must leave as it was: the stamp, the marks, the tree and
// every stored connection entry.
struct Snapshot {
  uint64_t stamp = 0;
  GFI systemFlags = GFI::NONE;
  std::map<std::string, NODE_KIND> tree;
  std::vector<std::string> entries;
  bool operator==(const Snapshot&) const = default;
};

inline Snapshot Take(const NodeSystemImpl& system) {
  Snapshot s{system.GetModificationStamp(), SystemMarks(system), Tree(system), {}};
  for (const auto& [path, kind] : s.tree) {
    if (!HasAny(kind, NODE_KIND::PORT_MASK)) continue;
    for (const auto& [key, data] : StoredAt(system, path)) {
      s.entries.push_back(path + " " + key + " " + data.ToString());
    }
  }
  return s;
}

}  // namespace orvix::nodes::test
