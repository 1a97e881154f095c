// quickstart: the node core from first call to last, top to bottom.
//
// We build the graph  out = (x * y) + y  from two small operators, give a
// port a value, then edit a copy into  x * x  and see that the original
// keeps its state.
// Every call that can fail returns a Result; Run() hands the first failure
// back to main, which prints it and exits with 1.

#include <cstdint>
#include <iostream>
#include <string>
#include <string_view>

#include "orvix/graph/wires.h"
#include "orvix/host/object_system.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/module.h"
#include "orvix/nodes/node_system.h"
#include "orvix/nodes/node_system_class.h"

namespace {

using namespace orvix;
using namespace orvix::nodes;

// An error of our own, for a step that ran but gave the wrong answer.
Error Unexpected(std::string message) {
  return Error(ERROR_CLASS::UNEXPECTED, std::move(message));
}

// Elements are named by paths: "n1<a" is input port a of node n1, ">out" the
// root's output port out. FindByPath gives an empty handle for a missing
// element; we make that an error so that a typo names itself.
Result<GNode> Find(const NodeSystem& system, std::string_view text) {
  ORVIX_TRY_ASSIGN(NodePath path, NodePath::Parse(text));
  GNode node = system.FindByPath(path);
  if (!node) return Unexpected("no element " + std::string(text));
  return node;
}

// An operator is just a finished system with ports. What it computes is the
// business of whoever evaluates the graph, not of the store.
Result<Ref<NodeSystem>> MakeOperator(NodeSystemClass& cls, std::string_view output) {
  // A new system comes open for editing: a MutableRoot owns it until the end.
  ORVIX_TRY_ASSIGN(MutableRoot root, cls.CreateNodeSystem());
  NodeSystem& s = *root._system;
  ORVIX_TRY_ASSIGN(GNode in, s.GetPortList(root._root, PORT_DIR::INPUT));
  ORVIX_TRY_ASSIGN(GNode out, s.GetPortList(root._root, PORT_DIR::OUTPUT));
  ORVIX_TRY(s.AddPort(in, "a", GNODE_FLAGS::NONE, nullptr));
  ORVIX_TRY(s.AddPort(in, "b", GNODE_FLAGS::NONE, nullptr));
  ORVIX_TRY(s.AddPort(out, output, GNODE_FLAGS::NONE, nullptr));
  // Ending validates the system and makes it immutable, hence shareable.
  // CLEANUP is the normal end; the change list (null) would record undo.
  return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
}

// A wire has eight channels; we use channel 0 only. NORMAL is the mode of an
// ordinary wire; REMOVE takes a wire away, so disconnecting is a Connect too.
Result<void> Connect(NodeSystem& s, std::string_view from, std::string_view to,
                     WIRE_MODE mode = WIRE_MODE::NORMAL) {
  ORVIX_TRY_ASSIGN(GNode source, Find(s, from));
  ORVIX_TRY_ASSIGN(GNode target, Find(s, to));
  return s.Connect(source, target, Wires().With(0, mode), nullptr);
}

// The value of attribute `id` at `path`; an empty Data if none is set.
Result<Data> Read(const NodeSystem& s, std::string_view path, std::string_view id) {
  ORVIX_TRY_ASSIGN(GNode node, Find(s, path));
  ORVIX_TRY_ASSIGN(const Data* value, s.GetValue(node, InternedId::Get(id)));
  return *value;  // the pointer is only good while the system is unchanged
}

Result<void> Run() {
  // The default class is found by its id, as any class of the host is. A
  // node space of its own would register a class derived from it.
  ORVIX_TRY_ASSIGN(Ref<RefCounted> object, CreateObject(NODE_SYSTEM_CLASS_IMPL_ID));
  Ref<NodeSystemClass> cls = DynamicRefCast<NodeSystemClass>(object);
  if (!cls) return Unexpected("the default class is no NodeSystemClass");

  ORVIX_TRY_ASSIGN(Ref<NodeSystem> multiply, MakeOperator(*cls, "product"));
  ORVIX_TRY_ASSIGN(Ref<NodeSystem> add, MakeOperator(*cls, "sum"));

  // The graph. A node made from an operator stores only its differences from
  // it, so n1 and n2 cost a record each whatever the operators hold.
  ORVIX_TRY_ASSIGN(MutableRoot root, cls->CreateNodeSystem());
  NodeSystem& g = *root._system;
  ORVIX_TRY(g.AddChild("n1", multiply, nullptr));
  ORVIX_TRY(g.AddChild("n2", add, nullptr));
  ORVIX_TRY_ASSIGN(GNode in, g.GetPortList(root._root, PORT_DIR::INPUT));
  ORVIX_TRY_ASSIGN(GNode out, g.GetPortList(root._root, PORT_DIR::OUTPUT));
  ORVIX_TRY_ASSIGN(GNode x, g.AddPort(in, "x", GNODE_FLAGS::NONE, nullptr));
  ORVIX_TRY(g.AddPort(in, "y", GNODE_FLAGS::NONE, nullptr));
  ORVIX_TRY(g.AddPort(out, "out", GNODE_FLAGS::NONE, nullptr));
  ORVIX_TRY(Connect(g, "<x", "n1<a"));
  ORVIX_TRY(Connect(g, "<y", "n1<b"));
  ORVIX_TRY(Connect(g, "n1>product", "n2<a"));
  ORVIX_TRY(Connect(g, "<y", "n2<b"));
  ORVIX_TRY(Connect(g, "n2>sum", ">out"));
  // Values are attributes of an element, by id, of any registered type.
  ORVIX_TRY(g.SetValue(x, InternedId::Get("default"), Data(2.5), nullptr));
  // The end hands the system over and leaves the MutableRoot empty: `graph`
  // is the only reference, so a later edit needs no copy.
  ORVIX_TRY_ASSIGN(Ref<NodeSystem> graph, root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));

  ORVIX_TRY_ASSIGN(Data xDefault, Read(*graph, "<x", "default"));
  ORVIX_TRY_ASSIGN(GNode n1a, Find(*graph, "n1<a"));
  ORVIX_TRY_ASSIGN(GNode n1b, Find(*graph, "n1<b"));
  ORVIX_TRY_ASSIGN(Wires wire, graph->GetConnection(x, n1a));
  std::cout << "graph: <x default " << xDefault.ToString() << ", <x -> n1<a " << wire.ToString()
            << "\n";

  // Copy-on-write. Whoever holds `graph` keeps seeing it as it is: a second
  // reference makes BeginModification edit a copy, which shares the frozen
  // storage with the original and costs no record.
  Ref<NodeSystem> copy = graph;
  ORVIX_TRY_ASSIGN(MutableRoot edit, BeginModification(copy));
  NodeSystem& c = *edit._system;
  ORVIX_TRY_ASSIGN(GNode cx, Find(c, "<x"));
  ORVIX_TRY(c.SetValue(cx, InternedId::Get("default"), Data(7.0), nullptr));
  // n1 squares x in the copy: its b input comes from x instead of y.
  ORVIX_TRY(Connect(c, "<y", "n1<b", WIRE_MODE::REMOVE));
  ORVIX_TRY(Connect(c, "<x", "n1<b"));
  // Removing a node takes its ports and every wire to them along.
  ORVIX_TRY_ASSIGN(GNode n2, Find(c, "n2"));
  ORVIX_TRY(c.Remove(n2, nullptr));
  ORVIX_TRY_ASSIGN(copy, edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));

  ORVIX_TRY_ASSIGN(Data copyDefault, Read(*copy, "<x", "default"));
  ORVIX_TRY_ASSIGN(GNode copyX, Find(*copy, "<x"));
  ORVIX_TRY_ASSIGN(GNode copyB, Find(*copy, "n1<b"));
  ORVIX_TRY_ASSIGN(Wires copyXtoB, copy->GetConnection(copyX, copyB));
  std::cout << "copy:  <x default " << copyDefault.ToString() << ", <x -> n1<b "
            << copyXtoB.ToString() << ", n2 "
            << (copy->FindByPath(n2.path) ? "present" : "removed") << "\n";

  // The original is as it was. Handles made on it before the copy still
  // name the same elements there.
  ORVIX_TRY_ASSIGN(Data oldDefault, Read(*graph, "<x", "default"));
  ORVIX_TRY_ASSIGN(Wires oldXtoB, graph->GetConnection(x, n1b));
  if (oldDefault != xDefault || !graph->FindByPath(n2.path) || oldXtoB != Wires()) {
    return Unexpected("the edit of the copy reached the original");
  }
  std::cout << "original: <x default " << oldDefault.ToString() << ", n2 present, unchanged\n";

  // Failures are Results too, never exceptions. A finished system is
  // immutable: editing it outside a modification is refused with a message.
  Result<GNode> refused = graph->AddChild("n3", add, nullptr);
  if (refused) return Unexpected("a finished system took an edit");
  std::cout << "refused: " << refused.GetError().GetMessage() << "\n";
  return Ok();
}

}  // namespace

int main() {
  // The module registers its classes with the host's object system; nothing
  // of the node core can be created by id before this.
  if (Result<void> loaded = orvix::nodes::LoadNodesModule(); !loaded) {
    std::cerr << "quickstart: " << loaded.GetError().GetMessage() << "\n";
    return 1;
  }
  const Result<void> ran = Run();
  orvix::nodes::UnloadNodesModule();
  if (!ran) {
    std::cerr << "quickstart failed: " << ran.GetError().GetMessage() << "\n";
    return 1;
  }
  return 0;
}
