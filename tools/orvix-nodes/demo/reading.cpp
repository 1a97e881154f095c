// The reads that the demo's chapters share: values, elements, a whole graph.

#include "demo.h"
#include "orvix/graph/connection.h"
#include "orvix/host/format.h"

namespace orvix::tool::demo {

using nodes::GNode;
using nodes::NodeSystem;

InternedId Id(std::string_view text) {
  return InternedId::Get(text);
}

Wires Normal(uint32_t channel) {
  return Wires().With(channel, WIRE_MODE::NORMAL);
}

Error DemoError(std::string message) {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, std::move(message));
}

Result<GNode> Find(const NodeSystem& system, std::string_view text) {
  ORVIX_TRY_ASSIGN(NodePath path, NodePath::Parse(text));
  GNode node = system.FindByPath(path);
  if (!node) return DemoError(FormatMessage("The demo graph has no element @.", path));
  return node;
}

std::string Shown(const NodePath& path) {
  return path.IsEmpty() ? std::string("(root)") : path.ToString();
}

Json ValueJson(const Data* value) {
  if (!value || !value->GetType()) return nullptr;
  if (const auto* i = value->GetPtr<int64_t>()) return *i;
  if (const auto* f = value->GetPtr<double>()) return *f;
  if (const auto* s = value->GetPtr<std::string>()) return *s;
  return value->ToString();
}

namespace {

std::string ValueText(const Data* value) {
  return value && value->GetType() ? value->ToString() : std::string("(none)");
}

// What the demo reads to tell whether the copy reached the original, and what
// the copy changed: own values, a base's values, and the one the copy erases.
struct Watched {
  std::string_view path;
  std::string_view id;
};
constexpr Watched WATCHED[] = {{"n1", LABEL},    {"n2", LABEL},     {"n4", LABEL},
                               {"<x", DEFAULT},  {"n2<a", DEFAULT}, {ERASED, DEFAULT},
                               {"n3<b", DEFAULT}};

}  // namespace

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

}  // namespace orvix::tool::demo
