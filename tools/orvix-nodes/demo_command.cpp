// orvix-nodes demo [--port PATH]: builds a small graph through the public
// operations of NodeSystem and shows what the system makes of it: the tree,
// the wires, and the effective connections of one port, in the graph and in
// a copy of it.
//
// Everything shown is read back through the published queries rather than
// taken from the list of edits, so the output is a check of the store as much
// as an illustration.

#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/graph/wires.h"
#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system.h"
#include "orvix/nodes/node_system_class.h"
#include "tool.h"

namespace orvix::tool {

namespace {

using nodes::FINALIZE_FLAGS;
using nodes::GNode;
using nodes::MutableRoot;
using nodes::NodeSystem;
using nodes::NodeSystemClass;
using Json = nlohmann::ordered_json;

// The port shown when none is asked for: a child's input whose nested port
// sees the implicit wire.
constexpr std::string_view DEFAULT_PORT = "n1<a";

// Ordinary wires on one channel.
Wires Normal(uint32_t channel) {
  return Wires().With(channel, WIRE_MODE::NORMAL);
}

Error DemoError(std::string message) {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, std::move(message));
}

// The element at `text` in `system`; an error naming the path if it is
// missing, so that a failed step says which one it was.
Result<GNode> Find(const NodeSystem& system, std::string_view text) {
  ORVIX_TRY_ASSIGN(NodePath path, NodePath::Parse(text));
  GNode node = system.FindByPath(path);
  if (!node) return DemoError(FormatMessage("The demo graph has no element @.", path));
  return node;
}

std::string Shown(const NodePath& path) {
  return path.IsEmpty() ? std::string("(root)") : path.ToString();
}

struct Operator {
  std::string_view name;
  std::vector<std::string_view> inputs;
  std::vector<std::string_view> outputs;
  Ref<NodeSystem> system;
};

// A finished system with nothing but ports: what a node of that kind
// computes is no business of the store.
Result<Ref<NodeSystem>> MakeOperator(NodeSystemClass& cls, const Operator& op) {
  ORVIX_TRY_ASSIGN(MutableRoot root, cls.CreateNodeSystem());
  NodeSystem& s = *root._system;
  ORVIX_TRY_ASSIGN(GNode in, s.GetPortList(root._root, PORT_DIR::INPUT));
  ORVIX_TRY_ASSIGN(GNode out, s.GetPortList(root._root, PORT_DIR::OUTPUT));
  for (std::string_view id : op.inputs) ORVIX_TRY(s.AddPort(in, id, GNODE_FLAGS::NONE, nullptr));
  for (std::string_view id : op.outputs) ORVIX_TRY(s.AddPort(out, id, GNODE_FLAGS::NONE, nullptr));
  return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
}

// The wiring of the graph: result = x * y + y * y, with an extra node n4
// that is removed again, and a nested port on each side of <x -> n1<a.
struct Wire {
  std::string_view source;
  std::string_view target;
};
constexpr Wire WIRES[] = {
    {"<x", "n1<a"},         {"<y", "n1<b"},         {"<y", "n2<a"},        {"<y", "n2<b"},
    {"n1>product", "n3<a"}, {"n2>product", "n3<b"}, {"n3>sum", ">result"}, {"n3>sum", "n4<a"},
};
constexpr std::string_view REMOVED_NODE = "n4";

struct Built {
  std::vector<Operator> operators;
  // Node id and the operator it was made from, in the order of adding.
  std::vector<std::pair<std::string_view, std::string_view>> nodes;
  Ref<NodeSystem> graph;
};

Result<Built> BuildGraph() {
  Built built;
  ORVIX_TRY_ASSIGN(Ref<NodeSystemClass> cls, nodes::CreateDefaultNodeSystemClass());
  built.operators = {{"multiply", {"a", "b"}, {"product"}, {}}, {"add", {"a", "b"}, {"sum"}, {}}};
  for (Operator& op : built.operators) {
    ORVIX_TRY_ASSIGN(op.system, MakeOperator(*cls, op));
  }
  built.nodes = {{"n1", "multiply"}, {"n2", "multiply"}, {"n3", "add"}, {"n4", "add"}};

  ORVIX_TRY_ASSIGN(MutableRoot root, cls->CreateNodeSystem());
  NodeSystem& g = *root._system;
  for (const auto& [id, opName] : built.nodes) {
    for (const Operator& op : built.operators) {
      if (op.name == opName) ORVIX_TRY(g.AddChild(id, op.system, nullptr));
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
  ORVIX_TRY_ASSIGN(GNode removed, Find(g, REMOVED_NODE));
  ORVIX_TRY(g.Remove(removed, nullptr));
  ORVIX_TRY_ASSIGN(built.graph, root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  return built;
}

// --- Reading the graph back.

Result<void> WalkTree(const NodeSystem& s, const GNode& parent, int depth, const Built& built,
                      Json& tree) {
  nodes::ChildIterator it;
  ORVIX_TRY_ASSIGN(GNode child, s.GetFirstChild(parent, it));
  while (child) {
    ORVIX_TRY_ASSIGN(GNODE_FLAGS flags, s.GetFlags(child));
    Json base = nullptr;
    if (child.GetKind() == NODE_KIND::NODE) {
      for (const auto& [id, opName] : built.nodes) {
        if (child.path.ToString() == id) base = std::string(opName);
      }
    }
    tree.push_back({{"path", child.path.ToString()},
                    {"depth", depth},
                    {"kind", ToString(child.GetKind())},
                    {"flags", ToString(flags)},
                    {"base", base}});
    ORVIX_TRY(WalkTree(s, child, depth + 1, built, tree));
    ORVIX_TRY_ASSIGN(child, s.GetNextChild(it));
  }
  return Ok();
}

Result<Json> ReadTree(const NodeSystem& s, const Built& built) {
  Json tree = Json::array();
  const GNode root = s.GetRoot();
  tree.push_back({{"path", ""},
                  {"depth", 0},
                  {"kind", ToString(root.GetKind())},
                  {"flags", "NONE"},
                  {"base", nullptr}});
  ORVIX_TRY(WalkTree(s, root, 1, built, tree));
  return tree;
}

bool IsPort(const Json& entry) {
  const std::string kind = entry["kind"].get<std::string>();
  return kind == "INPORT" || kind == "OUTPORT";
}

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

// The stored wires, each once: read from the source's side, without the
// implicit ones that the stored wires make.
Result<Json> ReadWires(const NodeSystem& s, const Json& tree) {
  Json wires = Json::array();
  for (const Json& entry : tree) {
    if (!IsPort(entry)) continue;
    ORVIX_TRY_ASSIGN(GNode port, Find(s, entry["path"].get<std::string>()));
    ORVIX_TRY(s.GetConnections(
        port, PORT_DIR::OUTPUT, WIRES_FILTER_ALL_EXPLICIT, GET_CONNECTIONS_MODE::CONNECTIONS,
        [&](const GNode& other, Wires w, const Ref<ConnectionAttributes>&) -> Result<bool> {
          wires.push_back({{"source", port.path.ToString()},
                           {"target", other.path.ToString()},
                           {"wires", w.ToString()}});
          return true;
        }));
  }
  return wires;
}

// The port and every port nested below it, parents first.
Result<void> CollectSubtree(const NodeSystem& s, const GNode& port, std::vector<GNode>& out) {
  out.push_back(port);
  nodes::ChildIterator it;
  ORVIX_TRY_ASSIGN(GNode child, s.GetFirstChild(port, it));
  while (child) {
    ORVIX_TRY(CollectSubtree(s, child, out));
    ORVIX_TRY_ASSIGN(child, s.GetNextChild(it));
  }
  return Ok();
}

// The effective connections of the chosen port and its nested ports, implicit
// wires included.
Result<Json> ReadPortView(const NodeSystem& s, const NodePath& path) {
  GNode port = s.FindByPath(path);
  if (!port || !HasAny(port.GetKind(), NODE_KIND::PORT_MASK)) {
    return DemoError(FormatMessage("@ is not a port of the demo graph.", Shown(path)));
  }
  std::vector<GNode> ports;
  ORVIX_TRY(CollectSubtree(s, port, ports));
  Json all = Json::array();
  for (const GNode& p : ports) {
    ORVIX_TRY_ASSIGN(Json list, ReadConnections(s, p, WIRES_FILTER_ALL_INCLUDING_IMPLICIT));
    for (Json& entry : list) all.push_back(std::move(entry));
  }
  return all;
}

// The copy: the graph is held twice, so BeginModification edits a copy and
// leaves the original as it is. The copy adds a wire of its own next to the
// ones it shares with the original.
constexpr Wire COPY_WIRE = {"<y", "n1<a/gain"};
constexpr uint32_t COPY_WIRE_CHANNEL = 1;

Result<Json> ReadCopy(const Ref<NodeSystem>& graph, const NodePath& path, const Json& before) {
  Ref<NodeSystem> shared = graph;
  ORVIX_TRY_ASSIGN(MutableRoot edit, nodes::BeginModification(shared));
  NodeSystem& c = *edit._system;
  ORVIX_TRY_ASSIGN(GNode source, Find(c, COPY_WIRE.source));
  ORVIX_TRY_ASSIGN(GNode target, Find(c, COPY_WIRE.target));
  ORVIX_TRY(c.Connect(source, target, Normal(COPY_WIRE_CHANNEL), nullptr));
  ORVIX_TRY_ASSIGN(Ref<NodeSystem> copy, edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));

  ORVIX_TRY_ASSIGN(Json connections, ReadPortView(*copy, path));
  // A connection that the original reports alike comes from the layers the
  // copy shares with it; anything else was made in the copy.
  for (Json& entry : connections) {
    std::string origin = "new in copy";
    for (const Json& old : before) {
      if (old["port"] == entry["port"] && old["direction"] == entry["direction"] &&
          old["other"] == entry["other"]) {
        origin = old["wires"] == entry["wires"] ? "inherited" : "changed in copy";
      }
    }
    entry["origin"] = origin;
  }
  ORVIX_TRY_ASSIGN(Json after, ReadPortView(*graph, path));
  return Json{{"change", fmt::format("Connect {} -> {} on channel {}", COPY_WIRE.source,
                                     COPY_WIRE.target, COPY_WIRE_CHANNEL)},
              {"connections", std::move(connections)},
              {"originalUnchanged", after == before}};
}

Result<Json> RunDemo(const std::string& portText) {
  ORVIX_TRY_ASSIGN(NodePath path, NodePath::Parse(portText));
  ORVIX_TRY_ASSIGN(Built built, BuildGraph());
  const NodeSystem& g = *built.graph;

  Json operators = Json::array();
  for (const Operator& op : built.operators) {
    operators.push_back({{"name", op.name}, {"inputs", op.inputs}, {"outputs", op.outputs}});
  }
  Json nodeList = Json::array();
  for (const auto& [id, opName] : built.nodes) {
    nodeList.push_back({{"id", id}, {"base", opName}, {"removed", id == REMOVED_NODE}});
  }
  ORVIX_TRY_ASSIGN(Json tree, ReadTree(g, built));
  ORVIX_TRY_ASSIGN(Json wires, ReadWires(g, tree));
  ORVIX_TRY_ASSIGN(Json port, ReadPortView(g, path));
  ORVIX_TRY_ASSIGN(Json copy, ReadCopy(built.graph, path, port));
  return Json{{"operators", std::move(operators)},
              {"nodes", std::move(nodeList)},
              {"tree", std::move(tree)},
              {"wires", std::move(wires)},
              {"port", {{"path", path.ToString()}, {"connections", std::move(port)}}},
              {"copy", std::move(copy)},
              {"error", nullptr}};
}

// --- Text output.

std::string Joined(const Json& list, std::string_view prefix) {
  std::string text;
  for (const Json& item : list) {
    if (!text.empty()) text += ' ';
    text += prefix;
    text += item.get<std::string>();
  }
  return text;
}

void PrintConnections(std::ostream& out, const Json& connections, bool withOrigin) {
  if (connections.empty()) out << "  (no connections)\n";
  for (const Json& c : connections) {
    const bool source = c["direction"] == "source";
    out << fmt::format("  {:<12} {} {:<12} {}", c["port"].get<std::string>(), source ? "<-" : "->",
                       c["other"].get<std::string>(), c["wires"].get<std::string>());
    if (withOrigin) out << "  " << c["origin"].get<std::string>();
    out << "\n";
  }
}

void PrintText(std::ostream& out, const Json& d) {
  out << "demo: a graph built through the public operations\n";
  out << "  operators:";
  for (const Json& op : d["operators"]) {
    out << "  " << op["name"].get<std::string>() << " (" << Joined(op["inputs"], "<") << " "
        << Joined(op["outputs"], ">") << ")";
  }
  out << "\n  nodes:    ";
  for (const Json& n : d["nodes"]) {
    out << " " << n["id"].get<std::string>() << "=" << n["base"].get<std::string>();
  }
  out << "\n  root ports <x <y >result, nested ports <x/gain n1<a/gain\n";
  out << "  " << std::size(WIRES) << " wires of mode NORMAL on channel 0; then Remove "
      << REMOVED_NODE << "\n\n";

  out << "tree (kind, public flags)\n";
  for (const Json& e : d["tree"]) {
    const std::string shown =
        std::string(2 * e["depth"].get<size_t>() + 2, ' ') +
        (e["path"].get<std::string>().empty() ? "(root)" : e["path"].get<std::string>());
    std::string line = fmt::format("{:<24} {:<8}", shown, e["kind"].get<std::string>());
    if (IsPort(e) || e["flags"] != "NONE") line += " " + e["flags"].get<std::string>();
    if (!e["base"].is_null()) line += " from " + e["base"].get<std::string>();
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << "\n";
  }

  out << "\nwires (Connect modes per channel)\n";
  for (const Json& w : d["wires"]) {
    out << fmt::format("  {:<12} -> {:<12} {}\n", w["source"].get<std::string>(),
                       w["target"].get<std::string>(), w["wires"].get<std::string>());
  }

  out << "\nport " << d["port"]["path"].get<std::string>()
      << " and its nested ports: effective sources (<-) and targets (->)\n";
  PrintConnections(out, d["port"]["connections"], false);

  const Json& copy = d["copy"];
  out << "\nin a copy (BeginModification on a shared reference) that does "
      << copy["change"].get<std::string>() << "\n";
  PrintConnections(out, copy["connections"], true);
  out << "  original " << (copy["originalUnchanged"].get<bool>() ? "unchanged" : "CHANGED") << "\n";
}

}  // namespace

void AddDemoCommand(CLI::App& app, Context& context, int& result) {
  auto* cmd = app.add_subcommand(
      "demo", "Build a small graph through the public operations and show its connections");
  auto port = std::make_shared<std::string>(DEFAULT_PORT);
  cmd->add_option("--port", *port, "The port whose effective connections are shown")
      ->capture_default_str();
  cmd->callback([&context, &result, port] {
    Result<Json> demo = RunDemo(*port);
    if (!demo) {
      result = EXIT_FAILED;
      const Error& e = demo.GetError();
      // Some rules fail with the bare error class and no text.
      const std::string message =
          e.GetMessage().empty() ? std::string(e.GetClassId()) : e.GetMessage();
      if (context.json)
        context.EmitJson({{"error", message}});
      else
        *context.err << "demo failed: " << message << "\n";
      return;
    }
    // The demo's own invariant: the copy must not have reached the original.
    if (!(*demo)["copy"]["originalUnchanged"].get<bool>()) result = EXIT_FAILED;
    if (context.json)
      context.EmitJson(*demo);
    else
      PrintText(*context.out, *demo);
  });
}

}  // namespace orvix::tool
