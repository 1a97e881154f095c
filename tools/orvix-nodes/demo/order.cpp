// Chapter 6, order: the topological order of the graph, every port with its
// index (sources before targets, the ports of a node within its range); then
// loops. A loop through ports is refused when the modification ends; two
// nodes that feed each other through unrelated ports are not a loop.

#include "demo.h"
#include "orvix/nodes/modification.h"

namespace orvix::tool::demo {

namespace {

using nodes::FINALIZE_FLAGS;
using nodes::GNode;
using nodes::MutableRoot;
using nodes::NodeSystem;

// Every port of `s` in order, with its index.
Result<Json> Order(const NodeSystem& s) {
  Json order = Json::array();
  ORVIX_TRY(s.VisitInTopologicalOrder(false, [&](const GNode& port) -> Result<bool> {
    ORVIX_TRY_ASSIGN(int64_t index, s.GetTopologicalIndex(port));
    order.push_back({{"port", Shown(port.path)}, {"index", index}});
    return true;
  }));
  return order;
}

// True if every wire of the graph goes from a lower index to a higher one.
Result<bool> WiresAscend(const NodeSystem& s, const Json& wires) {
  for (const Json& w : wires) {
    ORVIX_TRY_ASSIGN(GNode from, Find(s, Str(w["source"])));
    ORVIX_TRY_ASSIGN(GNode to, Find(s, Str(w["target"])));
    ORVIX_TRY_ASSIGN(int64_t a, s.GetTopologicalIndex(from));
    ORVIX_TRY_ASSIGN(int64_t b, s.GetTopologicalIndex(to));
    if (a >= b) return false;
  }
  return true;
}

// An operator whose input passes to its output, and two nodes on it, or on
// the demo's "add" (whose inputs reach nothing inside), wired both ways.
// Yields the message of the end, or "validated".
Result<std::string> TwoNodesFeedingEachOther(Road& road, bool passThrough) {
  Ref<NodeSystem> op;
  for (const Operator& o : road.operators) {
    if (o.name == "add") op = o.system;
  }
  if (passThrough) {
    ORVIX_TRY_ASSIGN(MutableRoot m, road.cls->CreateNodeSystem());
    ORVIX_TRY_ASSIGN(GNode in, m._system->GetPortList(m._root, PORT_DIR::INPUT));
    ORVIX_TRY_ASSIGN(GNode out, m._system->GetPortList(m._root, PORT_DIR::OUTPUT));
    ORVIX_TRY_ASSIGN(GNode a, m._system->AddPort(in, "a", GNODE_FLAGS::NONE, nullptr));
    ORVIX_TRY(m._system->AddPort(in, "b", GNODE_FLAGS::NONE, nullptr));
    ORVIX_TRY_ASSIGN(GNode sum, m._system->AddPort(out, "sum", GNODE_FLAGS::NONE, nullptr));
    ORVIX_TRY(m._system->Connect(a, sum, Normal(0), nullptr));
    ORVIX_TRY_ASSIGN(op, m.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  }
  if (!op) return DemoError("the demo has no operator \"add\"");
  ORVIX_TRY_ASSIGN(MutableRoot g, road.cls->CreateNodeSystem());
  ORVIX_TRY(g._system->AddChild("p", op, nullptr));
  ORVIX_TRY(g._system->AddChild("q", op, nullptr));
  ORVIX_TRY_ASSIGN(GNode pOut, Find(*g._system, "p>sum"));
  ORVIX_TRY_ASSIGN(GNode qIn, Find(*g._system, "q<a"));
  ORVIX_TRY_ASSIGN(GNode qOut, Find(*g._system, "q>sum"));
  ORVIX_TRY_ASSIGN(GNode pIn, Find(*g._system, "p<a"));
  ORVIX_TRY(g._system->Connect(pOut, qIn, Normal(0), nullptr));
  ORVIX_TRY(g._system->Connect(qOut, pIn, Normal(0), nullptr));
  Result<Ref<NodeSystem>> ended = g.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  return ended ? std::string("validated") : ended.GetError().GetMessage();
}

Result<Json> Walk(Road& road) {
  ORVIX_TRY_ASSIGN(Json order, Order(*road.graph));
  ORVIX_TRY_ASSIGN(bool ascend, WiresAscend(*road.graph, road.graphReading["wires"]));
  if (!ascend) road.checkFailed = true;
  ORVIX_TRY_ASSIGN(std::string loop, TwoNodesFeedingEachOther(road, true));
  ORVIX_TRY_ASSIGN(std::string noLoop, TwoNodesFeedingEachOther(road, false));
  return Json{{"order", std::move(order)},
              {"wiresAscend", ascend},
              {"loop",
               {{"wires", {"p>sum -> q<a", "q>sum -> p<a"}},
                {"throughPorts", std::move(loop)},
                {"unrelatedPorts", std::move(noLoop)}}}};
}

void Print(Printer& p, const Json& reading) {
  p.Heading("topological order: sources first, a node's ports within its range");
  std::vector<std::string> items;
  for (const Json& e : reading["order"]) {
    items.push_back(fmt::format("{} {}", e["index"].get<int64_t>(), Str(e["port"])));
  }
  p.Wrapped("order", items, ", ");
  p.Labeled("check", reading["wiresAscend"].get<bool>()
                         ? "every wire goes from a lower index to a higher one"
                         : "A WIRE GOES AGAINST THE ORDER");
  const Json& loop = reading["loop"];
  p.Line("two nodes p and q wired both ways ({}, {}):", Str(loop["wires"][0]),
         Str(loop["wires"][1]));
  p.Line("  on an operator that passes a to sum:   {}", Str(loop["throughPorts"]));
  p.Line("  on add, whose a reaches nothing inside: {}", Str(loop["unrelatedPorts"]));
}

}  // namespace

const Chapter ORDER = {
    "order", "the topological order of the graph; a loop through ports is refused", Walk, Print};

}  // namespace orvix::tool::demo
