// Chapter 2, graph: a graph of nodes on the operators, with ports of its own,
// wires and values, read back once it is finished.

#include <algorithm>

#include "demo.h"
#include "orvix/nodes/modification.h"

namespace orvix::tool::demo {

namespace {

using nodes::FINALIZE_FLAGS;
using nodes::GNode;
using nodes::MutableRoot;
using nodes::NodeSystem;

struct Child {
  std::string_view id;
  std::string_view base;
};
constexpr Child CHILDREN[] = {{"n1", "multiply"}, {"n2", "multiply"}, {"n3", "add"}, {"n4", "add"}};

// result = x * y + y * y, and a preview node n4 on the sum that the copy
// removes again.
struct Wire {
  std::string_view source;
  std::string_view target;
};
constexpr Wire WIRES[] = {
    {"<x", "n1<a"},         {"<y", "n1<b"},         {"<y", "n2<a"},        {"<y", "n2<b"},
    {"n1>product", "n3<a"}, {"n2>product", "n3<b"}, {"n3>sum", ">result"}, {"n3>sum", "n4<a"},
};

struct Value {
  std::string_view path;
  std::string_view id;
  Data value;
};
std::vector<Value> GraphValues() {
  return {{"n1", LABEL, Data("x*y")},
          {"n4", LABEL, Data("preview")},
          {"<x", DEFAULT, Data(2.5)},
          {"n3<b", DEFAULT, Data(int64_t{10})}};
}

Result<Ref<NodeSystem>> BuildGraph(nodes::NodeSystemClass& cls,
                                   const std::vector<Operator>& operators) {
  ORVIX_TRY_ASSIGN(MutableRoot root, cls.CreateNodeSystem());
  NodeSystem& g = *root._system;
  for (const Child& child : CHILDREN) {
    for (const Operator& op : operators) {
      if (op.name == child.base) ORVIX_TRY(g.AddChild(child.id, op.system, nullptr));
    }
  }
  ORVIX_TRY_ASSIGN(GNode in, g.GetPortList(root._root, PORT_DIR::INPUT));
  ORVIX_TRY_ASSIGN(GNode out, g.GetPortList(root._root, PORT_DIR::OUTPUT));
  ORVIX_TRY_ASSIGN(GNode x, g.AddPort(in, "x", GNODE_FLAGS::NONE, nullptr));
  ORVIX_TRY(g.AddPort(in, "y", GNODE_FLAGS::NONE, nullptr));
  ORVIX_TRY(g.AddPort(out, "result", GNODE_FLAGS::NONE, nullptr));
  // Equally named nested ports at both ends of a wire: the wire between the
  // top-level ports reaches them without one of their own.
  ORVIX_TRY(g.AddPort(x, "gain", GNODE_FLAGS::NONE, nullptr));
  ORVIX_TRY_ASSIGN(GNode n1a, Find(g, "n1<a"));
  ORVIX_TRY(g.AddPort(n1a, "gain", GNODE_FLAGS::NONE, nullptr));
  for (const Wire& w : WIRES) {
    ORVIX_TRY_ASSIGN(GNode source, Find(g, w.source));
    ORVIX_TRY_ASSIGN(GNode target, Find(g, w.target));
    ORVIX_TRY(g.Connect(source, target, Normal(0), nullptr));
  }
  for (const Value& v : GraphValues()) {
    ORVIX_TRY_ASSIGN(GNode node, Find(g, v.path));
    ORVIX_TRY(g.SetValue(node, Id(v.id), v.value, nullptr));
  }
  return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
}

Result<Json> Walk(Road& road) {
  ORVIX_TRY_ASSIGN(road.graph, BuildGraph(*road.cls, road.operators));
  ORVIX_TRY_ASSIGN(road.graphReading, ReadGraph(*road.graph));
  Json set = Json::array();
  for (const Value& v : GraphValues()) {
    set.push_back({{"path", v.path},
                   {"id", v.id},
                   {"value", ValueJson(&v.value)},
                   {"text", v.value.ToString()}});
  }
  const Json& read = road.graphReading;
  return Json{{"nodes", read["nodes"]},
              {"ports", read["ports"]},
              {"wires", read["wires"]},
              {"values", std::move(set)}};
}

void Print(Printer& p, const Json& graph) {
  p.Heading("graph: AddChild on an operator, AddPort, Connect, SetValue, EndModification(CLEANUP)");
  std::vector<std::string> nodes, ports, wires, values;
  for (const Json& n : graph["nodes"])
    nodes.push_back(fmt::format("{} on {}", Str(n["id"]), Str(n["base"])));
  for (const Json& port : graph["ports"]) ports.push_back(Str(port));
  // Wires show their channels only when they are not the usual ones.
  const std::string normal = Normal(0).ToString();
  for (const Json& w : graph["wires"]) {
    std::string item = fmt::format("{} -> {}", Str(w["source"]), Str(w["target"]));
    if (w["wires"] != normal) item += fmt::format(" {}", Str(w["wires"]));
    wires.push_back(std::move(item));
  }
  for (const Json& v : graph["values"]) {
    values.push_back(fmt::format("{} {} {}", Str(v["path"]), Str(v["id"]), Str(v["text"])));
  }
  p.Wrapped("nodes", nodes, ", ");
  p.Wrapped("ports", ports, " ");
  p.Wrapped("wires", wires, ", ");
  if (std::all_of(graph["wires"].begin(), graph["wires"].end(),
                  [&](const Json& w) { return w["wires"] == normal; })) {
    p.Labeled("", "(each NORMAL on channel 0)");
  }
  p.Wrapped("values", values, ", ");
}

}  // namespace

const Chapter GRAPH = {"graph", "build a graph on the operators: nodes, ports, wires and values",
                       Walk, Print};

}  // namespace orvix::tool::demo
