#pragma once
// Shared helpers of the validation tests: systems with installed stages,
// adds and wires made the way the edit layer makes them, and a topology stage
// that numbers ports in a given order.

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "must.h"
#include "node_system_probe.h"
#include "orvix/graph/node_path.h"
#include "orvix/nodes/modified_bits_probe.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"
#include "validation/validation_stages.h"

namespace orvix::nodes::test {

using GFI = GNODE_FLAGS_IMPL;
// The flag names stand alone: the tests are full of them.
using enum GNODE_FLAGS_IMPL;
using Strings = std::vector<std::string>;

inline NodePath P(std::string_view text) {
  return Must(NodePath::Parse(text));
}
template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("(ok)") : r.GetError().GetMessage();
}

// A finalized empty system of the default class, with `stages` installed.
inline Ref<NodeSystemImpl> NewSystem(const ValidationStages* stages = nullptr) {
  Ref<NodeSystemImpl> system = MakeRef<NodeSystemImpl>();
  NodeSystemTestProbe::InstallStages(*system, stages);
  EXPECT_TRUE(system->Init(Must(CreateDefaultNodeSystemClass())));
  return system;
}

// Adds the elements `paths`, each below its parent, as an add operation does;
// a port is marked for topology as well, as an edit's add marks it.
inline void Add(NodeSystemImpl& system, std::initializer_list<std::string_view> paths) {
  for (std::string_view text : paths) {
    const NodePath path = P(text);
    GNode parent =
        system.MakeHandle(Must(path.Slice(0, NodePath::SliceCount(int64_t(path.GetCount()) - 1))));
    Result<GNode> child =
        system.AddChildRecord(parent, path.GetKindRaw(), path.GetLastPart(), GNode(), GFI::NONE);
    ASSERT_TRUE(child) << text << ": " << Message(child);
    if (HasAny(path.GetKindRaw(), NODE_KIND::PORT_MASK)) {
      EXPECT_TRUE(system.SetModified(*child, MODIFIED_TOPOLOGY));
    }
  }
}

inline void Mark(NodeSystemImpl& system, std::string_view path, GFI bits) {
  GNode h = system.MakeHandle(P(path));
  ASSERT_TRUE(system.SetModified(h, bits)) << path;
}

// Stores a connection from `source` to `target` at both ends and marks both,
// as a wire edit does.
inline void Connect(NodeSystemImpl& system, std::string_view source, std::string_view target) {
  GNode ends[] = {system.MakeHandle(P(source)), system.MakeHandle(P(target))};
  const ConnectionData data{Wires(0x3f), nullptr};
  for (int i = 0; i < 2; ++i) {
    NodeInfo* info = Must(system.GetMutable(ends[i], NODE_KIND::NONE));
    EXPECT_TRUE(NodeSystemImpl::ConnectionTableOf(info)->Set(
        ConnectionKey::Make(ends[1 - i].path, CONNECTION_TYPE::NORMAL,
                            i ? CONNECTION_DIRECTION::SOURCE : CONNECTION_DIRECTION::TARGET),
        data));
  }
  Mark(system, source, GFI(0x10411000000));
  Mark(system, target, GFI(0x8209000000));
}

// The paths on the modified list that starts at `first` (the system's, or a
// top-level port's nested list), front first.
inline Strings Listed(const NodeInfo* first) {
  Strings paths;
  for (const NodeInfo* r = first; r && r != g_modifiedListEnd; r = r->_nextModified) {
    paths.push_back(r->_path.ToString());
  }
  return paths;
}
inline GFI ModifiedOf(const NodeSystem& system, std::string_view path) {
  return Must(ProbeModifiedBits(system, system.FindByPath(P(path))));
}

}  // namespace orvix::nodes::test
