#pragma once
// Shared helpers of the validation tests: systems with installed stages,
// adds and wires made the way the edit layer makes them, and a topology stage
// that numbers ports in a given order.

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "orvix/graph/node_path.h"
#include "store/node_system_impl.h"

namespace orvix::nodes::test {

using GFI = GNODE_FLAGS_IMPL;

inline NodePath P(std::string_view text) {
  return NodePath::Parse(text).Value();
}

// A finalized empty system of the default class, with `stages` installed.
inline Ref<NodeSystemImpl> NewSystem(const ValidationStages* stages = nullptr) {
  Ref<NodeSystemImpl> system = MakeRef<NodeSystemImpl>();
  system->_stages = stages;
  Result<Ref<NodeSystemClass>> cls = CreateDefaultNodeSystemClass();
  EXPECT_TRUE(cls);
  Result<GNode> root = system->Init(*cls);
  EXPECT_TRUE(root) << (root ? "" : root.GetError().GetMessage());
  return system;
}

// Adds the element `text` below its parent as an add operation does; a port
// is marked for topology as well, as an edit's add marks it.
inline GNode Add(NodeSystemImpl& system, std::string_view text) {
  const NodePath path = P(text);
  GNode parent =
      system.MakeHandle(path.Slice(0, NodePath::SliceCount(int64_t(path.GetCount()) - 1)).Value());
  Result<GNode> child =
      system.AddChildRecord(parent, path.GetKindRaw(), path.GetLastPart(), GNode(), GFI::NONE);
  EXPECT_TRUE(child) << text << ": " << (child ? "" : child.GetError().GetMessage());
  if (!child) return GNode();
  if (HasAny(path.GetKindRaw(), NODE_KIND::PORT_MASK)) {
    EXPECT_TRUE(system.SetModified(*child, GFI::MODIFIED_TOPOLOGY));
  }
  return *child;
}

// Stores a connection from `source` to `target` at both ends and marks both,
// as a wire edit does.
inline void Connect(NodeSystemImpl& system, std::string_view source, std::string_view target,
                    uint64_t wires = 0x3f) {
  GNode s = system.MakeHandle(P(source));
  GNode t = system.MakeHandle(P(target));
  NodeInfo* si = system.GetMutable(s, NODE_KIND::NONE).Value();
  NodeInfo* ti = system.GetMutable(t, NODE_KIND::NONE).Value();
  const ConnectionData data{Wires(wires), nullptr};
  EXPECT_TRUE(NodeSystemImpl::ConnectionTableOf(si)->Set(
      ConnectionKey::Make(t.path, CONNECTION_TYPE::NORMAL, CONNECTION_DIRECTION::TARGET), data));
  EXPECT_TRUE(NodeSystemImpl::ConnectionTableOf(ti)->Set(
      ConnectionKey::Make(s.path, CONNECTION_TYPE::NORMAL, CONNECTION_DIRECTION::SOURCE), data));
  EXPECT_TRUE(system.SetModified(s, GFI(0x10411000000)));
  EXPECT_TRUE(system.SetModified(t, GFI(0x8209000000)));
}

// A topology stage that numbers the top-level ports of `order` 0, 1, 2, ...
inline std::function<Result<void>(NodeSystemImpl&)> NumberPorts(std::vector<std::string> order) {
  return [order = std::move(order)](NodeSystemImpl& system) -> Result<void> {
    ORVIX_TRY_ASSIGN(Ref<TopologyData> topology, NewRef<TopologyData>());
    for (const std::string& port : order) {
      topology->_portIndices[P(port)] = topology->_indexCount++;
    }
    system._topology = std::move(topology);
    return Ok();
  };
}

// The paths on the system's modified list, front first.
inline std::vector<std::string> Listed(const NodeSystemImpl& system) {
  std::vector<std::string> paths;
  for (NodeInfo* r = system._firstModified; r && r != g_modifiedListEnd; r = r->_nextModified) {
    paths.push_back(r->_pathTmpHandle.ToString());
  }
  return paths;
}

// The paths on the nested list of the top-level port `port`.
inline std::vector<std::string> ListedNested(const NodeSystemImpl& system, std::string_view port) {
  std::vector<std::string> paths;
  const FoundNode found = system.FindNode(P(port));
  EXPECT_TRUE(found && found.info->AsPort());
  if (!found || !found.info->AsPort()) return paths;
  for (NodeInfo* r = found.info->AsPort()->_firstNestedModified; r && r != g_modifiedListEnd;
       r = r->_nextModified) {
    paths.push_back(r->_pathTmpHandle.ToString());
  }
  return paths;
}

inline GFI FlagsOf(const NodeSystemImpl& system, std::string_view path) {
  const FoundNode found = system.FindNode(P(path));
  return found ? found.info->flags : GFI::NONE;
}

template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("(ok)") : r.GetError().GetMessage();
}

}  // namespace orvix::nodes::test
