// Chapter 1, start: the module is loaded, the class created by its registered
// id, and two operators made with it.

#include "demo.h"
#include "orvix/host/format.h"
#include "orvix/host/object_system.h"
#include "orvix/nodes/modification.h"

namespace orvix::tool::demo {

namespace {

using nodes::FINALIZE_FLAGS;
using nodes::GNode;
using nodes::MutableRoot;
using nodes::NodeSystem;
using nodes::NodeSystemClass;

// The class object a client starts from, created by its registered id.
Result<Ref<NodeSystemClass>> ClassById(std::string_view id) {
  ORVIX_TRY_ASSIGN(Ref<RefCounted> object, CreateObject(id));
  Ref<NodeSystemClass> cls = DynamicRefCast<NodeSystemClass>(object);
  if (!cls) return DemoError(FormatMessage("Class @ is not a node system class.", id));
  return cls;
}

// A finished system with nothing but ports, a label and a default on each
// input: what a node of that kind computes is no business of the store.
Result<Ref<NodeSystem>> MakeOperator(NodeSystemClass& cls, const Operator& op) {
  ORVIX_TRY_ASSIGN(MutableRoot root, cls.CreateNodeSystem());
  NodeSystem& s = *root._system;
  ORVIX_TRY(s.SetValue(root._root, Id(LABEL), Data(op.name), nullptr));
  ORVIX_TRY_ASSIGN(GNode in, s.GetPortList(root._root, PORT_DIR::INPUT));
  ORVIX_TRY_ASSIGN(GNode out, s.GetPortList(root._root, PORT_DIR::OUTPUT));
  for (const Input& input : op.inputs) {
    ORVIX_TRY_ASSIGN(GNode port, s.AddPort(in, input.id, GNODE_FLAGS::NONE, nullptr));
    ORVIX_TRY(s.SetValue(port, Id(DEFAULT), Data(input.fallback), nullptr));
  }
  for (std::string_view id : op.outputs) ORVIX_TRY(s.AddPort(out, id, GNODE_FLAGS::NONE, nullptr));
  return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
}

// The operator as its finished system reports it.
Result<Json> ReadOperator(const Operator& op) {
  const NodeSystem& s = *op.system;
  ORVIX_TRY_ASSIGN(Json label, ReadValue(s, "", LABEL));
  Json inputs = Json::array();
  for (const Input& input : op.inputs) {
    ORVIX_TRY_ASSIGN(Json fallback, ReadValue(s, fmt::format("<{}", input.id), DEFAULT));
    inputs.push_back({{"id", input.id}, {"default", fallback["value"]}});
  }
  return Json{{"name", op.name},
              {"label", label["value"]},
              {"inputs", std::move(inputs)},
              {"outputs", op.outputs}};
}

Result<Json> Walk(Road& road) {
  ORVIX_TRY(nodes::LoadNodesModule());
  road.module.loaded = true;
  const std::string_view classId = nodes::NODE_SYSTEM_CLASS_IMPL_ID;
  ORVIX_TRY_ASSIGN(road.cls, ClassById(classId));
  road.operators = {{"multiply", {{"a", 1}, {"b", 1}}, {"product"}, {}},
                    {"add", {{"a", 0}, {"b", 0}}, {"sum"}, {}}};
  Json operators = Json::array();
  for (Operator& op : road.operators) {
    ORVIX_TRY_ASSIGN(op.system, MakeOperator(*road.cls, op));
    ORVIX_TRY_ASSIGN(Json read, ReadOperator(op));
    operators.push_back(std::move(read));
  }
  return Json{{"module", "loaded"}, {"class", classId}, {"operators", std::move(operators)}};
}

void Print(Printer& p, const Json& start) {
  p.Heading("start: LoadNodesModule, CreateObject(\"{}\"), and per operator", Str(start["class"]));
  p.Line("CreateNodeSystem, AddPort, SetValue, EndModification(CLEANUP)");
  for (const Json& op : start["operators"]) {
    std::string ports;
    for (const Json& in : op["inputs"])
      ports += fmt::format(" <{}={}", Str(in["id"]), Str(in["default"]));
    for (const Json& out : op["outputs"]) ports += fmt::format(" >{}", Str(out));
    p.Line("{:<9} label \"{}\"{}", Str(op["name"]), Str(op["label"]), ports);
  }
}

}  // namespace

const Chapter START = {"start", "load the module, create the class by its id, make two operators",
                       Walk, Print};

}  // namespace orvix::tool::demo
