// Chapter 5, port: the effective connections of one port (--port) and its
// nested ports, implicit wires included, in the original and in the copy.

#include <algorithm>

#include "demo.h"
#include "orvix/graph/connection.h"
#include "orvix/host/format.h"

namespace orvix::tool::demo {

namespace {

using nodes::GNode;
using nodes::NodeSystem;

// One entry per effective connection of `port`: its sources, then its
// targets.
Result<Json> ReadConnections(const NodeSystem& s, const GNode& port, Wires mask) {
  Json list = Json::array();
  for (const PORT_DIR dir : {PORT_DIR::INPUT, PORT_DIR::OUTPUT}) {
    ORVIX_TRY(s.GetConnections(
        port, dir, mask, GET_CONNECTIONS_MODE::CONNECTIONS,
        [&](const GNode& other, Wires wires, const Ref<ConnectionAttributes>&) -> Result<bool> {
          list.push_back({{"port", port.path.ToString()},
                          {"direction", dir == PORT_DIR::INPUT ? "source" : "target"},
                          {"other", other.path.ToString()},
                          {"wires", wires.ToString()},
                          {"implicit", wires.HasImplicit()}});
          return true;
        }));
  }
  return list;
}

// The effective connections of the port at `path` and its nested ports,
// implicit wires included.
Result<Json> ReadPortView(const NodeSystem& s, const NodePath& path) {
  GNode port = s.FindByPath(path);
  if (!port || !HasAny(port.GetKind(), NODE_KIND::PORT_MASK)) {
    return DemoError(FormatMessage("@ is not a port of the demo graph.", Shown(path)));
  }
  std::vector<Element> ports{{port, NODE_KIND::NONE}};
  ORVIX_TRY(CollectElements(s, port, ports));
  Json all = Json::array();
  for (const Element& p : ports) {
    ORVIX_TRY_ASSIGN(Json list, ReadConnections(s, p.node, WIRES_FILTER_ALL_INCLUDING_IMPLICIT));
    for (Json& entry : list) all.push_back(std::move(entry));
  }
  return all;
}

Result<Json> Walk(Road& road) {
  ORVIX_TRY_ASSIGN(Json original, ReadPortView(*road.graph, road.port));
  // The same port in the copy: what it takes over from the original, and
  // what it has of its own.
  ORVIX_TRY_ASSIGN(Json inCopy, ReadPortView(*road.copy, road.port));
  for (Json& entry : inCopy) {
    const bool inherited = std::find(original.begin(), original.end(), entry) != original.end();
    entry["origin"] = inherited ? "inherited from the original" : "new in the copy";
  }
  return Json{{"path", road.port.ToString()},
              {"connections", std::move(original)},
              {"inCopy", std::move(inCopy)}};
}

void Print(Printer& p, const Json& port) {
  p.Heading("port {} and its nested ports: effective sources (<-) and targets (->)",
            Str(port["path"]));
  auto arrow = [](const Json& c) { return c["direction"] == "source" ? "<-" : "->"; };
  if (port["connections"].empty()) p.Line("(no connections)");
  for (const Json& c : port["connections"]) {
    p.Line("{:<10} {} {:<10} {}{}", Str(c["port"]), arrow(c), Str(c["other"]), Str(c["wires"]),
           c["implicit"].get<bool>() ? "  implicit" : "");
  }
  p.Line("in the copy:");
  for (const Json& c : port["inCopy"]) {
    p.Line("{:<10} {} {:<10} {}  {}", Str(c["port"]), arrow(c), Str(c["other"]), Str(c["wires"]),
           Str(c["origin"]));
  }
}

}  // namespace

const Chapter PORT = {
    "port", "the effective connections of one port (--port), in the original and the copy", Walk,
    Print};

}  // namespace orvix::tool::demo
