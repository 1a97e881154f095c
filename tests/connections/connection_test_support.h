#pragma once
// Shared helpers of the connection tests: systems built with the public
// edits, and the two small operators that the graphs are made of.

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "must.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"

namespace orvix::nodes::test {

using GCF = GET_CONNECTIONS_FLAGS;
using GFI = GNODE_FLAGS_IMPL;

inline NodePath P(std::string_view text) {
  return Must(NodePath::Parse(text));
}

template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("(ok)") : r.GetError().GetMessage();
}

// The path without its last `n` parts.
inline NodePath Cut(const NodePath& path, size_t n) {
  return Must(path.Slice(0, NodePath::SliceCount(int64_t(path.GetCount() - n))));
}

// An empty system under modification, made as an implementation so that
// others can derive from it; or, given `base`, a system derived from that.
inline Ref<NodeSystemImpl> Open(const Ref<NodeSystemImpl>& base = nullptr) {
  Ref<NodeSystemImpl> s =
      base ? Must(NodeSystemImpl::CreateDerived(base)) : MakeRef<NodeSystemImpl>();
  if (!base) {
    EXPECT_TRUE(s->Init(Must(CreateDefaultNodeSystemClass())));
  }
  EXPECT_TRUE(s->BeginModification());
  return s;
}

// Adds each port of `paths`, parents before their nested ports.
inline void AddPorts(NodeSystemImpl& s, std::initializer_list<std::string_view> paths) {
  for (std::string_view text : paths) {
    const NodePath path = P(text);
    Result<GNode> port = s.AddPort(s.FindByPath(Cut(path, 1)), path.GetLastPart().GetString(),
                                   GNODE_FLAGS::NONE, nullptr);
    EXPECT_TRUE(port) << text << ": " << Message(port);
  }
}

inline void Wire(NodeSystemImpl& s, std::string_view from, std::string_view to, uint64_t wires) {
  Result<void> r = s.Connect(s.FindByPath(P(from)), s.FindByPath(P(to)), Wires(wires), nullptr);
  EXPECT_TRUE(r) << from << " -> " << to << ": " << Message(r);
}

inline void Finish(NodeSystemImpl& s) {
  Result<void> r = s.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  ASSERT_TRUE(r) << Message(r);
}

// The content of a node: its ports, and wires between its own ports.
struct OperatorShape {
  std::vector<std::string_view> ports;
  std::vector<std::tuple<std::string_view, std::string_view, uint64_t>> wires;
};

// Inputs a (with x, y), b and c, output sum (with x); b passes to sum, a/x
// to sum/x on channels 0 and 1, and sum feeds back into c on channel 3. The
// feedback goes into an input that reaches no output: into a it would close
// a loop through ports, which validation refuses.
inline const OperatorShape& Adder() {
  static const OperatorShape shape{
      {"<a", "<a/x", "<a/y", "<b", "<c", ">sum", ">sum/x"},
      {{"<b", ">sum", 0x10}, {"<a/x", ">sum/x", 0x0808}, {">sum", "<c", 0x10000000}}};
  return shape;
}

// Input i (with x), output o (with x, y); i passes to o on channel 0 and on
// the inhibit channel 5.
inline const OperatorShape& Gate() {
  static const OperatorShape shape{{"<i", "<i/x", ">o", ">o/x", ">o/y"},
                                   {{"<i", ">o", 0x100000000010}}};
  return shape;
}

inline Ref<NodeSystemImpl> MakeOperator(const OperatorShape& shape) {
  Ref<NodeSystemImpl> s = Open();
  for (std::string_view port : shape.ports) AddPorts(*s, {port});
  for (const auto& [from, to, wires] : shape.wires) Wire(*s, from, to, wires);
  Finish(*s);
  return s;
}

}  // namespace orvix::nodes::test
