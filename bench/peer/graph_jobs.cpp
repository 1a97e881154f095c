#include "peer/graph_jobs.h"

#include <string_view>
#include <utility>

#include "bench_support.h"
#include "orvix/nodes/modification.h"
#include "store/node_system_impl.h"

namespace orvix::nodes::peer {

using bench::Name;
using bench::Path;

namespace {

Ref<NodeSystem> MakeOperator(NodeSystemClass& cls, InternedId valueId) {
  MutableRoot root = cls.CreateNodeSystem().Value();
  NodeSystem& s = *root._system;
  GNode in = s.GetPortList(root._root, PORT_DIR::INPUT).Value();
  GNode out = s.GetPortList(root._root, PORT_DIR::OUTPUT).Value();
  GNode a = s.AddPort(in, "a", GNODE_FLAGS::NONE, nullptr).Value();
  GNode b = s.AddPort(in, "b", GNODE_FLAGS::NONE, nullptr).Value();
  (void)s.AddPort(in, "c", GNODE_FLAGS::NONE, nullptr).Value();
  (void)s.AddPort(out, "out", GNODE_FLAGS::NONE, nullptr).Value();
  (void)s.SetValue(a, valueId, Data(1.0), nullptr).Value();
  (void)s.SetValue(b, valueId, Data(2.0), nullptr).Value();
  return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
}

PeerNode MakePeerOperator() {
  PeerNode node;
  node.type = "operator";
  node.ports.push_back({"a", false, {{"value", 1.0}}});
  node.ports.push_back({"b", false, {{"value", 2.0}}});
  node.ports.push_back({"c", false, {}});
  node.ports.push_back({"out", true, {}});
  return node;
}

const PeerPort* FindPort(const PeerNode& node, std::string_view name) {
  for (const PeerPort& port : node.ports) {
    if (port.name == name) return &port;
  }
  return nullptr;
}

}  // namespace

Inputs::Inputs(int64_t n) : count(n) {
  names.reserve(size_t(n));
  outPaths.reserve(size_t(n));
  inPaths.reserve(size_t(n));
  inTexts.reserve(size_t(n));
  for (int64_t i = 0; i < n; ++i) {
    names.push_back(Name("n", i));
    outPaths.push_back(Path(Name("n", i, ">out")));
    inTexts.push_back(Name("n", i, "<a"));
    inPaths.push_back(Path(inTexts.back()));
  }
  valueId = InternedId::Get("value");
  cls = CreateDefaultNodeSystemClass().Value();
  op = MakeOperator(*cls, valueId);
  peerOp = MakePeerOperator();
}

Ref<NodeSystem> BuildLibrary(const Inputs& in) {
  Result<MutableRoot> made = in.cls->CreateNodeSystem();
  if (!made) return {};
  MutableRoot root = std::move(made).Value();
  NodeSystem& s = *root._system;
  for (int64_t i = 0; i < in.count; ++i) {
    if (!s.AddChild(in.names[size_t(i)], in.op, nullptr)) return {};
    if (i == 0) continue;
    const GNode source = s.FindByPath(in.outPaths[size_t(i - 1)]);
    const GNode target = s.FindByPath(in.inPaths[size_t(i)]);
    if (!s.Connect(source, target, Wires(0x10), nullptr)) return {};
  }
  Result<Ref<NodeSystem>> done = root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  return done ? std::move(done).Value() : Ref<NodeSystem>();
}

bool BuildPeer(const Inputs& in, PeerGraph& graph) {
  for (int64_t i = 0; i < in.count; ++i) {
    if (!graph.emplace(in.names[size_t(i)], in.peerOp).second) return false;
    if (i == 0) continue;
    auto source = graph.find(in.names[size_t(i - 1)]);
    auto target = graph.find(in.names[size_t(i)]);
    if (source == graph.end() || target == graph.end()) return false;
    if (!FindPort(source->second, "out") || !FindPort(target->second, "a")) return false;
    target->second.wires.push_back({in.names[size_t(i - 1)], "out", "a"});
  }
  return true;
}

double ReadHeldLibrary(const NodeSystem& system, const std::vector<GNode>& held, int64_t rounds,
                       InternedId valueId) {
  double sum = 0;
  for (int64_t r = 0; r < rounds; ++r) {
    for (const GNode& node : held) {
      Result<const Data*> value = system.GetValue(node, valueId);
      if (!value || !value.Value()) continue;
      if (const double* d = value.Value()->GetPtr<double>()) sum += *d;
    }
  }
  return sum;
}

double ReadHeldPeer(const std::vector<const PeerNode*>& held, int64_t rounds) {
  double sum = 0;
  for (int64_t r = 0; r < rounds; ++r) {
    for (const PeerNode* node : held) {
      const PeerPort* port = FindPort(*node, "a");
      if (!port) continue;
      for (const PeerValue& value : port->values) {
        if (value.name == "value") {
          sum += value.value;
          break;
        }
      }
    }
  }
  return sum;
}

int64_t LookupLibrary(const NodeSystem& system, const std::vector<NodePath>& paths) {
  int64_t found = 0;
  for (const NodePath& path : paths) found += system.FindByPath(path).IsPopulated() ? 1 : 0;
  return found;
}

int64_t LookupTextLibrary(const NodeSystem& system, const std::vector<std::string>& texts) {
  int64_t found = 0;
  for (const std::string& text : texts) {
    Result<NodePath> path = NodePath::Parse(text);
    if (path) found += system.FindByPath(path.Value()).IsPopulated() ? 1 : 0;
  }
  return found;
}

int64_t LookupTextPeer(const PeerGraph& graph, const std::vector<std::string>& texts) {
  int64_t found = 0;
  for (const std::string& text : texts) {
    const size_t split = text.find_first_of("<>");
    if (split == std::string::npos) continue;
    // The Debian build of absl has a string_view of its own.
    auto node = graph.find(absl::string_view(text.data(), split));
    if (node == graph.end()) continue;
    found += FindPort(node->second, std::string_view(text).substr(split + 1)) ? 1 : 0;
  }
  return found;
}

std::vector<GNode> HoldLibrary(const NodeSystem& system, const Inputs& in, int64_t stride) {
  std::vector<GNode> held;
  for (int64_t i = 0; i < in.count; i += stride) {
    held.push_back(system.FindByPath(in.inPaths[size_t(i)]));
  }
  return held;
}

std::vector<const PeerNode*> HoldPeer(const PeerGraph& graph, const Inputs& in, int64_t stride) {
  std::vector<const PeerNode*> held;
  for (int64_t i = 0; i < in.count; i += stride) {
    held.push_back(&graph.find(in.names[size_t(i)])->second);
  }
  return held;
}

Ref<NodeSystem> DeriveLibrary(const Ref<NodeSystem>& base) {
  Ref<NodeSystemImpl> impl(static_cast<NodeSystemImpl*>(base.Get()));
  Result<Ref<NodeSystemImpl>> derived = NodeSystemImpl::CreateDerived(std::move(impl));
  return derived ? Ref<NodeSystem>(std::move(derived).Value()) : Ref<NodeSystem>();
}

}  // namespace orvix::nodes::peer
