// orvix-nodes demo [--port PATH]: the road a client of the node core takes,
// through the published operations only. It loads the module, gets the class
// by its registered id, makes two operators, builds a graph on them with
// values on nodes and ports, edits a copy of the graph, reads values through
// the bases, and asks for the effective connections of one port.
//
// Everything shown is read back through the published queries rather than
// taken from the list of edits, so the output is a check of the store as much
// as an illustration. The demo fails if the copy's edits reach the original.

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/graph/wires.h"
#include "orvix/host/data.h"
#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/object_system.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/module.h"
#include "orvix/nodes/node_system.h"
#include "orvix/nodes/node_system_class.h"
#include "tool.h"

namespace orvix::tool {

namespace {

using nodes::FINALIZE_FLAGS;
using nodes::GNode;
using nodes::MODIFIED;
using nodes::MutableRoot;
using nodes::NodeSystem;
using nodes::NodeSystemClass;
using Json = nlohmann::ordered_json;

// The port shown when none is asked for: a child's input whose nested port
// sees the implicit wire.
constexpr std::string_view DEFAULT_PORT = "n1<a";

constexpr std::string_view LABEL = "label";
constexpr std::string_view DEFAULT = "default";

InternedId Id(std::string_view text) {
  return InternedId::Get(text);
}

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

// A value for the JSON document: numbers and strings as themselves, null for
// none, anything else in its text form.
Json ValueJson(const Data* value) {
  if (!value || !value->GetType()) return nullptr;
  if (const auto* i = value->GetPtr<int64_t>()) return *i;
  if (const auto* f = value->GetPtr<double>()) return *f;
  if (const auto* s = value->GetPtr<std::string>()) return *s;
  return value->ToString();
}

std::string ValueText(const Data* value) {
  return value && value->GetType() ? value->ToString() : std::string("(none)");
}

// One value as a reader sees it, with the prefix that tells where it was
// found: 0 for the element's own path, more when the read crossed into the
// node's base.
Result<Json> ReadValue(const NodeSystem& s, std::string_view path, std::string_view id) {
  ORVIX_TRY_ASSIGN(NodePath parsed, NodePath::Parse(path));
  const GNode node = s.FindByPath(parsed);
  Json reading = {{"path", path}, {"id", id}};
  if (!node) {
    reading.update({{"value", nullptr}, {"text", "(no element)"}, {"prefix", nullptr}});
    return reading;
  }
  int64_t prefix = 0;
  ORVIX_TRY_ASSIGN(const Data* value, s.GetValue(node, Id(id), &prefix, false));
  reading.update({{"value", ValueJson(value)}, {"text", ValueText(value)}, {"prefix", prefix}});
  return reading;
}

// --- Step 1: the module, the class, the operators.

// The demo's own load of the module, undone when the demo ends. Loads count,
// so a module that someone else loaded stays, and `run` may call the demo
// again. Declared before any system, so that it goes last.
struct LoadedModule {
  bool loaded = false;
  ~LoadedModule() {
    if (loaded) nodes::UnloadNodesModule();
  }
};

// The class object a client starts from, created by its registered id.
Result<Ref<NodeSystemClass>> ClassById(std::string_view id) {
  ORVIX_TRY_ASSIGN(Ref<RefCounted> object, CreateObject(id));
  Ref<NodeSystemClass> cls = DynamicRefCast<NodeSystemClass>(object);
  if (!cls) return DemoError(FormatMessage("Class @ is not a node system class.", id));
  return cls;
}

struct Input {
  std::string_view id;
  int64_t fallback;
};

struct Operator {
  std::string_view name;
  std::vector<Input> inputs;
  std::vector<std::string_view> outputs;
  Ref<NodeSystem> system;
};

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

// --- Step 2: the graph.

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

// What the demo reads to tell whether the copy reached the original, and what
// the copy changed: own values, a base's values, and the one the copy erases.
struct Watched {
  std::string_view path;
  std::string_view id;
};
constexpr Watched WATCHED[] = {{"n1", LABEL},    {"n2", LABEL},     {"n4", LABEL},
                               {"<x", DEFAULT},  {"n2<a", DEFAULT}, {"n2<b", DEFAULT},
                               {"n3<b", DEFAULT}};

Result<Ref<NodeSystem>> BuildGraph(NodeSystemClass& cls, const std::vector<Operator>& operators) {
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

// Every element below `parent`, parents first, each with the kind of its
// parent.
struct Element {
  GNode node;
  NODE_KIND parentKind;
};
Result<void> CollectElements(const NodeSystem& s, const GNode& parent, std::vector<Element>& out) {
  nodes::ChildIterator it;
  ORVIX_TRY_ASSIGN(GNode child, s.GetFirstChild(parent, it));
  while (child) {
    out.push_back({child, parent.GetKind()});
    ORVIX_TRY(CollectElements(s, child, out));
    ORVIX_TRY_ASSIGN(child, s.GetNextChild(it));
  }
  return Ok();
}

// What the graph holds, read back: its nodes with the operator each stands
// on, the ports the graph made itself (its own and the nested ones), the
// stored wires and the watched values. Two of these compare equal when the
// graph reads alike.
Result<Json> ReadGraph(const NodeSystem& s) {
  std::vector<Element> elements;
  ORVIX_TRY(CollectElements(s, s.GetRoot(), elements));
  Json nodeList = Json::array(), ports = Json::array(), wires = Json::array();
  for (const Element& e : elements) {
    const NODE_KIND kind = e.node.GetKind();
    if (kind == NODE_KIND::NODE) {
      // The node's content is a private copy of its operator, so the operator
      // shows as the farthest label along the node's chain.
      Json base = nullptr;
      ORVIX_TRY(s.GetValueWithCallback(e.node, Id(LABEL),
                                       [&](const Data& value, int64_t) -> Result<bool> {
                                         base = ValueJson(&value);
                                         return true;
                                       }));
      nodeList.push_back({{"id", e.node.ToString()}, {"base", base}});
      continue;
    }
    if (!HasAny(kind, NODE_KIND::PORT_MASK)) continue;
    ORVIX_TRY_ASSIGN(NodePath nodePart, e.node.path.GetNodePart());
    if (nodePart.IsEmpty() || HasAny(e.parentKind, NODE_KIND::PORT_MASK)) {
      ports.push_back(e.node.ToString());
    }
    // Each stored wire once, from its source's side, without the implicit
    // ones that the stored wires make.
    ORVIX_TRY(s.GetConnections(
        e.node, PORT_DIR::OUTPUT, WIRES_FILTER_ALL_EXPLICIT, GET_CONNECTIONS_MODE::CONNECTIONS,
        [&](const GNode& other, Wires w, const Ref<ConnectionAttributes>&) -> Result<bool> {
          wires.push_back({{"source", e.node.ToString()},
                           {"target", other.ToString()},
                           {"wires", w.ToString()}});
          return true;
        }));
  }
  Json values = Json::array();
  for (const Watched& w : WATCHED) {
    ORVIX_TRY_ASSIGN(Json reading, ReadValue(s, w.path, w.id));
    values.push_back(std::move(reading));
  }
  return Json{{"nodes", std::move(nodeList)},
              {"ports", std::move(ports)},
              {"wires", std::move(wires)},
              {"values", std::move(values)},
              {"elements", elements.size() + 1}};
}

// --- Step 3: a copy.

std::vector<std::string> ModifiedNames(MODIFIED what) {
  static constexpr std::pair<MODIFIED, std::string_view> NAMES[] = {
      {MODIFIED::COMPLETE, "COMPLETE"},
      {MODIFIED::DIRECT_ATTRIBUTE, "DIRECT_ATTRIBUTE"},
      {MODIFIED::DIRECT_META_ATTRIBUTE, "DIRECT_META_ATTRIBUTE"},
      {MODIFIED::INHERITED_ATTRIBUTE, "INHERITED_ATTRIBUTE"},
      {MODIFIED::SYNTHESIZED_ATTRIBUTE, "SYNTHESIZED_ATTRIBUTE"},
      {MODIFIED::USER_STATE_ATTRIBUTE, "USER_STATE_ATTRIBUTE"},
      {MODIFIED::NODE_ADDED, "NODE_ADDED"},
      {MODIFIED::CHILD_REMOVED, "CHILD_REMOVED"},
      {MODIFIED::CONNECTION_SOURCES, "CONNECTION_SOURCES"},
      {MODIFIED::CONNECTION_TARGETS, "CONNECTION_TARGETS"},
      {MODIFIED::SPECIAL0, "SPECIAL0"},
      {MODIFIED::SPECIAL1, "SPECIAL1"},
  };
  std::vector<std::string> names;
  for (const auto& [bit, name] : NAMES) {
    if ((uint64_t(what) & uint64_t(bit)) != 0) names.emplace_back(name);
  }
  return names;
}

// The entries of a list by their text, for comparing two readings.
std::vector<std::string> Keys(const Json& list) {
  std::vector<std::string> keys;
  for (const Json& entry : list) keys.push_back(entry.dump());
  return keys;
}

// Where the copy reads otherwise than the original: values, nodes and wires.
// A value of an element that the copy removed goes with the element.
Json Differences(const Json& original, const Json& copy) {
  Json differences = Json::array();
  for (size_t i = 0; i < original["values"].size(); ++i) {
    const Json& a = original["values"][i];
    const Json& b = copy["values"][i];
    if (a["value"] != b["value"] && !b["prefix"].is_null()) {
      differences.push_back({{"what", "value"},
                             {"path", a["path"]},
                             {"id", a["id"]},
                             {"original", a["text"]},
                             {"copy", b["text"]}});
    }
  }
  for (const char* list : {"nodes", "wires"}) {
    const std::vector<std::string> a = Keys(original[list]);
    const std::vector<std::string> b = Keys(copy[list]);
    auto missing = [](const std::vector<std::string>& in, const std::string& key) {
      return std::find(in.begin(), in.end(), key) == in.end();
    };
    for (size_t i = 0; i < a.size(); ++i) {
      if (missing(b, a[i])) differences.push_back({{"what", list}, {"removed", original[list][i]}});
    }
    for (size_t i = 0; i < b.size(); ++i) {
      if (missing(a, b[i])) differences.push_back({{"what", list}, {"added", copy[list][i]}});
    }
  }
  return differences;
}

// The copy's edits: a value changed, a base's value erased, a node removed.
constexpr std::string_view RENAMED = "n1";
constexpr std::string_view NEW_LABEL = "x times y";
constexpr std::string_view ERASED = "n2<b";
constexpr std::string_view REMOVED = "n4";
// ... and a wire of its own into a nested port that already has an implicit
// one on channel 0.
constexpr std::string_view WIRED_FROM = "<y";
constexpr std::string_view WIRED_TO = "n1<a/gain";

struct CopyResult {
  Ref<NodeSystem> copy;
  Json json;
};

// The graph is held twice, so BeginModification edits a copy and leaves the
// original as it is.
Result<CopyResult> EditCopy(const Ref<NodeSystem>& graph, const Json& before) {
  Ref<NodeSystem> second = graph;
  ORVIX_TRY_ASSIGN(MutableRoot edit, nodes::BeginModification(second));
  NodeSystem& c = *edit._system;
  const bool copied = edit._system.Get() != graph.Get();
  // What changed after this stamp is the copy's own doing.
  const uint64_t taken = c.GetModificationStamp();
  ORVIX_TRY_ASSIGN(GNode renamed, Find(c, RENAMED));
  ORVIX_TRY(c.SetValue(renamed, Id(LABEL), Data(NEW_LABEL), nullptr));
  ORVIX_TRY_ASSIGN(GNode erased, Find(c, ERASED));
  ORVIX_TRY_ASSIGN(bool hidden, c.EraseValue(erased, Id(DEFAULT), nullptr));
  ORVIX_TRY_ASSIGN(GNode removed, Find(c, REMOVED));
  ORVIX_TRY(c.Remove(removed, nullptr));
  ORVIX_TRY_ASSIGN(GNode wireFrom, Find(c, WIRED_FROM));
  ORVIX_TRY_ASSIGN(GNode wireTo, Find(c, WIRED_TO));
  ORVIX_TRY(c.Connect(wireFrom, wireTo, Normal(1), nullptr));
  ORVIX_TRY_ASSIGN(Ref<NodeSystem> copy, edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));

  Json changed = Json::array();
  ORVIX_TRY(copy->EnumerateChanges(taken, [&](const GNode& node, MODIFIED what) -> Result<bool> {
    changed.push_back({{"path", Shown(node.path)}, {"what", ModifiedNames(what)}});
    return true;
  }));
  ORVIX_TRY_ASSIGN(Json after, ReadGraph(*graph));
  ORVIX_TRY_ASSIGN(Json read, ReadGraph(*copy));
  ORVIX_TRY_ASSIGN(size_t originalRecords, graph->GetChildRecordCount(graph->GetRoot()));
  ORVIX_TRY_ASSIGN(size_t copyRecords, copy->GetChildRecordCount(copy->GetRoot()));
  Json json = {
      {"copied", copied},
      {"edits",
       {fmt::format("SetValue {} {} \"{}\"", RENAMED, LABEL, NEW_LABEL),
        fmt::format("EraseValue {} {}", ERASED, DEFAULT), fmt::format("Remove {}", REMOVED),
        fmt::format("Connect {} -> {} on channel 1", WIRED_FROM, WIRED_TO)}},
      {"erased", hidden},
      {"differences", Differences(before, read)},
      {"changed", std::move(changed)},
      {"elements", read["elements"]},
      {"rootChildRecords", {{"original", originalRecords}, {"copy", copyRecords}}},
      {"original",
       {{"nodes", after["nodes"].size()},
        {"wires", after["wires"].size()},
        {"values", after["values"].size()}}},
      {"originalUnchanged", after == before}};
  return CopyResult{std::move(copy), std::move(json)};
}

// --- Step 4: reading through the bases.

// Own values against the base operator's, then the value the copy erased:
// hidden while the base still has it, and back after ResetValue.
Result<Json> ReadThroughBases(const NodeSystem& graph, Ref<NodeSystem> copy) {
  Json readings = Json::array();
  for (const Watched& w : {Watched{"n1", LABEL}, Watched{"n2", LABEL}, Watched{"n2<a", DEFAULT},
                           Watched{"n3<b", DEFAULT}}) {
    ORVIX_TRY_ASSIGN(Json reading, ReadValue(graph, w.path, w.id));
    readings.push_back(std::move(reading));
  }
  ORVIX_TRY_ASSIGN(Json inOriginal, ReadValue(graph, ERASED, DEFAULT));
  ORVIX_TRY_ASSIGN(Json erased, ReadValue(*copy, ERASED, DEFAULT));
  // The demo holds the copy's only reference: this modification needs no
  // further copy.
  ORVIX_TRY_ASSIGN(MutableRoot edit, nodes::BeginModification(copy));
  ORVIX_TRY_ASSIGN(GNode node, Find(*edit._system, ERASED));
  ORVIX_TRY_ASSIGN(bool reset, edit._system->ResetValue(node, Id(DEFAULT), nullptr));
  ORVIX_TRY_ASSIGN(copy, edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  ORVIX_TRY_ASSIGN(Json back, ReadValue(*copy, ERASED, DEFAULT));
  return Json{{"readings", std::move(readings)},
              {"erased", {{"copy", std::move(erased)}, {"original", std::move(inOriginal)}}},
              {"reset", {{"removed", reset}, {"copy", std::move(back)}}}};
}

// --- Step 5: the effective connections of a port.

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

// The effective connections of the chosen port and its nested ports, implicit
// wires included.
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

Result<Json> RunDemo(const std::string& portText) {
  ORVIX_TRY_ASSIGN(NodePath path, NodePath::Parse(portText));
  LoadedModule module;
  ORVIX_TRY(nodes::LoadNodesModule());
  module.loaded = true;

  const std::string_view classId = nodes::NODE_SYSTEM_CLASS_IMPL_ID;
  ORVIX_TRY_ASSIGN(Ref<NodeSystemClass> cls, ClassById(classId));
  std::vector<Operator> operators = {{"multiply", {{"a", 1}, {"b", 1}}, {"product"}, {}},
                                     {"add", {{"a", 0}, {"b", 0}}, {"sum"}, {}}};
  Json operatorList = Json::array();
  for (Operator& op : operators) {
    ORVIX_TRY_ASSIGN(op.system, MakeOperator(*cls, op));
    ORVIX_TRY_ASSIGN(Json read, ReadOperator(op));
    operatorList.push_back(std::move(read));
  }

  ORVIX_TRY_ASSIGN(Ref<NodeSystem> graph, BuildGraph(*cls, operators));
  ORVIX_TRY_ASSIGN(Json before, ReadGraph(*graph));
  Json set = Json::array();
  for (const Value& v : GraphValues()) {
    set.push_back({{"path", v.path},
                   {"id", v.id},
                   {"value", ValueJson(&v.value)},
                   {"text", v.value.ToString()}});
  }

  ORVIX_TRY_ASSIGN(CopyResult copy, EditCopy(graph, before));
  ORVIX_TRY_ASSIGN(Json port, ReadPortView(*graph, path));
  // The same port in the copy: what it takes over from the original, and
  // what it has of its own.
  ORVIX_TRY_ASSIGN(Json inCopy, ReadPortView(*copy.copy, path));
  for (Json& entry : inCopy) {
    const bool inherited = std::find(port.begin(), port.end(), entry) != port.end();
    entry["origin"] = inherited ? "inherited from the original" : "new in the copy";
  }
  ORVIX_TRY_ASSIGN(Json bases, ReadThroughBases(*graph, std::move(copy.copy)));
  return Json{
      {"start", {{"module", "loaded"}, {"class", classId}, {"operators", std::move(operatorList)}}},
      {"graph",
       {{"nodes", before["nodes"]},
        {"ports", before["ports"]},
        {"wires", before["wires"]},
        {"values", std::move(set)}}},
      {"copy", std::move(copy.json)},
      {"bases", std::move(bases)},
      {"port",
       {{"path", path.ToString()},
        {"connections", std::move(port)},
        {"inCopy", std::move(inCopy)}}},
      {"error", nullptr}};
}

// --- Text output.

std::string Str(const Json& j) {
  return j.is_string() ? j.get<std::string>() : j.dump();
}

// Items joined by `separator`, broken into lines that begin with `indent`.
void PrintWrapped(std::ostream& out, std::string_view head, const std::vector<std::string>& items,
                  std::string_view separator) {
  constexpr size_t WIDTH = 96;
  const std::string indent(head.size(), ' ');
  std::string line(head);
  bool first = true;
  for (const std::string& item : items) {
    if (!first && line.size() + separator.size() + item.size() > WIDTH) {
      out << line << separator.substr(0, separator.find_last_not_of(' ') + 1) << "\n";
      line = indent;
      first = true;
    }
    if (!first) line += separator;
    line += item;
    first = false;
  }
  out << line << "\n";
}

std::string FromWhere(const Json& reading) {
  if (reading["prefix"].is_null()) return "no such element";
  const int64_t prefix = reading["prefix"].get<int64_t>();
  return prefix > 0 ? fmt::format("from the base operator (prefix {})", prefix)
                    : fmt::format("own value (prefix {})", prefix);
}

void PrintText(std::ostream& out, const Json& d) {
  out << "demo: the road of a client, through the published operations\n";

  const Json& start = d["start"];
  out << "\n1. start: LoadNodesModule, CreateObject(\"" << Str(start["class"])
      << "\"), and per operator\n   CreateNodeSystem, AddPort, SetValue, "
         "EndModification(CLEANUP)\n";
  for (const Json& op : start["operators"]) {
    std::string ports;
    for (const Json& in : op["inputs"])
      ports += fmt::format(" <{}={}", Str(in["id"]), Str(in["default"]));
    for (const Json& o : op["outputs"]) ports += " >" + Str(o);
    out << fmt::format("   {:<9} label \"{}\"{}\n", Str(op["name"]), Str(op["label"]), ports);
  }

  const Json& graph = d["graph"];
  out << "\n2. graph: AddChild on an operator, AddPort, Connect, SetValue, "
         "EndModification(CLEANUP)\n";
  std::vector<std::string> items;
  for (const Json& n : graph["nodes"]) items.push_back(Str(n["id"]) + " on " + Str(n["base"]));
  PrintWrapped(out, "   nodes   ", items, ", ");
  items.clear();
  for (const Json& p : graph["ports"]) items.push_back(Str(p));
  PrintWrapped(out, "   ports   ", items, " ");
  items.clear();
  const std::string normal = Normal(0).ToString();
  for (const Json& w : graph["wires"]) {
    std::string item = Str(w["source"]) + " -> " + Str(w["target"]);
    if (w["wires"] != normal) item += " " + Str(w["wires"]);
    items.push_back(std::move(item));
  }
  PrintWrapped(out, "   wires   ", items, ", ");
  if (std::all_of(graph["wires"].begin(), graph["wires"].end(),
                  [&](const Json& w) { return w["wires"] == normal; })) {
    out << "           (each NORMAL on channel 0)\n";
  }
  items.clear();
  for (const Json& v : graph["values"]) {
    items.push_back(Str(v["path"]) + " " + Str(v["id"]) + " " + Str(v["text"]));
  }
  PrintWrapped(out, "   values  ", items, ", ");

  const Json& copy = d["copy"];
  out << "\n3. copy: BeginModification on a second reference "
      << (copy["copied"].get<bool>() ? "copies first" : "did NOT copy") << ", then\n";
  items.clear();
  for (const Json& e : copy["edits"]) items.push_back(Str(e));
  PrintWrapped(out, "   edits   ", items, "; ");
  bool first = true;
  for (const Json& diff : copy["differences"]) {
    std::string line;
    if (diff["what"] == "value") {
      line = fmt::format("{} {}: {} -> {}", Str(diff["path"]), Str(diff["id"]),
                         Str(diff["original"]), Str(diff["copy"]));
    } else {
      const bool removed = diff.contains("removed");
      const Json& item = removed ? diff["removed"] : diff["added"];
      const std::string what = diff["what"] == "nodes"
                                   ? "node " + Str(item["id"])
                                   : "wire " + Str(item["source"]) + " -> " + Str(item["target"]);
      line = what + (removed ? ": removed" : ": added");
    }
    out << (first ? "   copy    " : "           ") << line << "\n";
    first = false;
  }
  const Json& original = copy["original"];
  out << fmt::format("   original {}: {} nodes, {} wires, {} watched values read as before\n",
                     copy["originalUnchanged"].get<bool>() ? "unchanged" : "CHANGED",
                     original["nodes"].get<size_t>(), original["wires"].get<size_t>(),
                     original["values"].get<size_t>());
  items.clear();
  for (const Json& c : copy["changed"]) {
    std::string what;
    for (const Json& name : c["what"]) what += (what.empty() ? "" : "|") + Str(name);
    items.push_back(Str(c["path"]) + " " + what);
  }
  out << fmt::format("   changed since the copy was taken (EnumerateChanges): {} of {} elements\n",
                     copy["changed"].size(), copy["elements"].get<size_t>());
  PrintWrapped(out, "           ", items, ", ");
  out << fmt::format("   root child records (GetChildRecordCount): original {}, copy {}\n",
                     copy["rootChildRecords"]["original"].get<size_t>(),
                     copy["rootChildRecords"]["copy"].get<size_t>());

  const Json& bases = d["bases"];
  out << "\n4. reading through the bases: GetValue with prefixCount\n";
  for (const Json& r : bases["readings"]) {
    out << fmt::format("   {:<15} {:<10} {}\n", Str(r["path"]) + " " + Str(r["id"]), Str(r["text"]),
                       FromWhere(r));
  }
  const Json& erased = bases["erased"];
  out << fmt::format("   {:<15} {:<10} in the copy: EraseValue hides the base's {}\n",
                     Str(erased["copy"]["path"]) + " " + Str(erased["copy"]["id"]),
                     Str(erased["copy"]["text"]), Str(erased["original"]["text"]));
  const Json& reset = bases["reset"]["copy"];
  out << fmt::format("   {:<15} {:<10} in the copy after ResetValue: back {}\n",
                     Str(reset["path"]) + " " + Str(reset["id"]), Str(reset["text"]),
                     FromWhere(reset));

  out << "\n5. port " << Str(d["port"]["path"])
      << " and its nested ports: effective sources (<-) and targets (->)\n";
  if (d["port"]["connections"].empty()) out << "   (no connections)\n";
  for (const Json& c : d["port"]["connections"]) {
    const bool source = c["direction"] == "source";
    out << fmt::format("   {:<10} {} {:<10} {}{}\n", Str(c["port"]), source ? "<-" : "->",
                       Str(c["other"]), Str(c["wires"]),
                       c["implicit"].get<bool>() ? "  implicit" : "");
  }
  out << "   in the copy:\n";
  for (const Json& c : d["port"]["inCopy"]) {
    const bool source = c["direction"] == "source";
    out << fmt::format("   {:<10} {} {:<10} {}  {}\n", Str(c["port"]), source ? "<-" : "->",
                       Str(c["other"]), Str(c["wires"]), Str(c["origin"]));
  }
}

}  // namespace

void AddDemoCommand(CLI::App& app, Context& context, int& result) {
  auto* cmd = app.add_subcommand(
      "demo",
      "Walk the road of a client: module, class, operators, a graph with values, a copy, reads "
      "through the bases, and the connections of one port");
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
