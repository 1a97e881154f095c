// Topology validation beside a general graph library's sort, in one binary.
//
// The graph: N child nodes, each on one small operator (inputs a and b,
// output out; a and b both pass to out inside it), and about 2N wires:
// node i's out feeds node i+1's a and node i+2's b. It has no loop, which is
// the common case: the sort is one pass over the children of the root.
//
// Three jobs, each per node:
// - library: ValidateTopology of the whole system (every run sorts all of
//   it: a port is marked for topology first);
// - sort: Boost.Graph's strong_components plus topological_sort over an
//   adjacency list that it gets ready-made;
// - build+sort: the same, with the adjacency list built first from the wires
//   the store holds (walking the children and asking each output port for
//   its targets), which is what a user of the library would have to do.
// Counter `base_reads` is the number of times the sort read a base's order
// for more than its size; the common case reads none.
//
// Times wander on a shared machine, so the binary also runs one job alone
// for callgrind, as scripts/topology-instructions.sh does:
//
//   orvix_topology_bench --count JOB N      (JOB: library, sort, build+sort)

#include <benchmark/benchmark.h>

#include "peer/callgrind_collect.h"

#include <boost/graph/adjacency_list.hpp>
#include <boost/graph/strong_components.hpp>
#include <boost/graph/topological_sort.hpp>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench_support.h"
#include "orvix/graph/wires.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"
#include "store/topology_data.h"

namespace orvix::nodes {
namespace {

using bench::ThreadNanoseconds;
using BoostGraph = boost::adjacency_list<boost::vecS, boost::vecS, boost::directedS>;

NodePath Path(const std::string& text) {
  return NodePath::Parse(text).Value();
}

GNode Port(const NodeSystemImpl& s, const std::string& text) {
  return s.FindByPath(Path(text));
}

// The operator: <a and <b both reach >out.
Ref<NodeSystemImpl> MakeOperator() {
  Ref<NodeSystemImpl> s = MakeRef<NodeSystemImpl>();
  (void)s->Init(CreateDefaultNodeSystemClass().Value());
  (void)s->BeginModification();
  GNode root = s->GetRoot();
  GNode in = s->GetPortList(root, PORT_DIR::INPUT).Value();
  GNode out = s->GetPortList(root, PORT_DIR::OUTPUT).Value();
  (void)s->AddPort(in, "a", GNODE_FLAGS::NONE, nullptr);
  (void)s->AddPort(in, "b", GNODE_FLAGS::NONE, nullptr);
  (void)s->AddPort(out, "out", GNODE_FLAGS::NONE, nullptr);
  (void)s->Connect(Port(*s, "<a"), Port(*s, ">out"), Wires(0x3f), nullptr);
  (void)s->Connect(Port(*s, "<b"), Port(*s, ">out"), Wires(0x3f), nullptr);
  (void)s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  return s;
}

std::string NodeName(int64_t i) {
  return bench::Name("n", i);
}

// The graph, under modification and validated, with the wires also as an
// edge list for the peer.
struct Graph {
  Ref<NodeSystemImpl> system;
  std::vector<std::pair<int64_t, int64_t>> edges;
};

Graph MakeGraph(int64_t n) {
  static const Ref<NodeSystemImpl> op = MakeOperator();
  Graph g;
  g.system = MakeRef<NodeSystemImpl>();
  NodeSystemImpl& s = *g.system;
  (void)s.Init(CreateDefaultNodeSystemClass().Value());
  (void)s.BeginModification();
  for (int64_t i = 0; i < n; ++i) (void)s.AddChild(NodeName(i), op, nullptr);
  for (int64_t i = 0; i < n; ++i) {
    const GNode out = s.FindByPath(bench::Path(bench::Name("n", i, ">out")));
    if (i + 1 < n) {
      (void)s.Connect(out, s.FindByPath(bench::Path(bench::Name("n", i + 1, "<a"))), Wires(0x3f),
                      nullptr);
      g.edges.emplace_back(i, i + 1);
    }
    if (i + 2 < n) {
      (void)s.Connect(out, s.FindByPath(bench::Path(bench::Name("n", i + 2, "<b"))), Wires(0x3f),
                      nullptr);
      g.edges.emplace_back(i, i + 2);
    }
  }
  if (!s.Validate(nullptr)) std::abort();
  return g;
}

// Marks the system for a full sort again.
void Touch(NodeSystemImpl& s) {
  GNode port = Port(s, "n0>out");
  (void)s.SetModified(port, GNODE_FLAGS_IMPL::MODIFIED_TOPOLOGY);
}

void LibrarySort(NodeSystemImpl& s) {
  if (!s.ValidateTopology()) std::abort();
}

BoostGraph PeerGraph(int64_t n, const std::vector<std::pair<int64_t, int64_t>>& edges) {
  BoostGraph g{static_cast<size_t>(n)};
  for (const auto& [a, b] : edges) boost::add_edge(size_t(a), size_t(b), g);
  return g;
}

size_t PeerSort(const BoostGraph& g) {
  std::vector<size_t> component(boost::num_vertices(g));
  const size_t count = boost::strong_components(
      g, boost::make_iterator_property_map(component.begin(), boost::get(boost::vertex_index, g)));
  std::vector<size_t> order;
  order.reserve(boost::num_vertices(g));
  boost::topological_sort(g, std::back_inserter(order));
  return count + order.size();
}

// The adjacency list from the wires the store holds: one vertex per child
// node, an edge for each target of each of its outputs.
BoostGraph PeerGraphFromStore(const NodeSystemImpl& s) {
  std::unordered_map<NodePath, size_t> vertexOf;
  std::vector<GNode> nodes;
  ChildIterator it;
  for (GNode child = s.GetFirstChild(s.GetRoot(), it).Value(); child;
       child = s.GetNextChild(it).Value()) {
    if (child.GetKind() != NODE_KIND::NODE) continue;
    vertexOf.emplace(child.path, nodes.size());
    nodes.push_back(child);
  }
  BoostGraph g(nodes.size());
  ConnectionQuery query;
  size_t from = 0;
  query.callback = [&](ConnectionQuery& q) -> Result<bool> {
    const auto v = vertexOf.find(q.other.path.GetNodePart().Value());
    if (v != vertexOf.end()) boost::add_edge(from, v->second, g);
    return true;
  };
  for (from = 0; from < nodes.size(); ++from) {
    const GNode outputs = s.GetPortList(nodes[from], PORT_DIR::OUTPUT).Value();
    ChildIterator ports;
    for (GNode port = s.GetFirstChild(outputs, ports).Value(); port;
         port = s.GetNextChild(ports).Value()) {
      query.port = port;
      query.seen.clear();
      (void)s.GetConnections(
          ALL_WIRES_MASK, GET_CONNECTIONS_FLAGS::TARGETS | GET_CONNECTIONS_FLAGS::TOP_LEVEL_PORTS,
          query, UNLIMITED_DEPTH);
    }
  }
  return g;
}

void BM_TopologySort(benchmark::State& state) {
  const int64_t n = state.range(0);
  Graph graph = MakeGraph(n);
  NodeSystemImpl& s = *graph.system;
  const BoostGraph ready = PeerGraph(n, graph.edges);
  double time[3] = {};
  const uint64_t readsBefore = g_topologyBaseReads.load();
  for (auto _ : state) {
    Touch(s);
    const double t0 = ThreadNanoseconds();
    LibrarySort(s);
    const double t1 = ThreadNanoseconds();
    benchmark::DoNotOptimize(PeerSort(ready));
    const double t2 = ThreadNanoseconds();
    benchmark::DoNotOptimize(PeerSort(PeerGraphFromStore(s)));
    const double t3 = ThreadNanoseconds();
    time[0] += t1 - t0;
    time[1] += t2 - t1;
    time[2] += t3 - t2;
  }
  const double count = double(state.iterations()) * double(n);
  state.counters["lib_ns"] = time[0] / count;
  state.counters["sort_ns"] = time[1] / count;
  state.counters["build+sort_ns"] = time[2] / count;
  state.counters["ratio_sort"] = time[0] / time[1];
  state.counters["ratio_build+sort"] = time[0] / time[2];
  state.counters["base_reads"] = double(g_topologyBaseReads.load() - readsBefore);
}
BENCHMARK(BM_TopologySort)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// One job alone, with callgrind collecting only around it; prints the node
// count, the divisor for instructions per node.
int Count(const char* job, int64_t n) {
  Graph graph = MakeGraph(n);
  NodeSystemImpl& s = *graph.system;
  const BoostGraph ready = PeerGraph(n, graph.edges);
  Touch(s);
  if (std::strcmp(job, "library") == 0) {
    ORVIX_COLLECT_ON();
    LibrarySort(s);
    ORVIX_COLLECT_OFF();
  } else if (std::strcmp(job, "sort") == 0) {
    ORVIX_COLLECT_ON();
    benchmark::DoNotOptimize(PeerSort(ready));
    ORVIX_COLLECT_OFF();
  } else if (std::strcmp(job, "build+sort") == 0) {
    ORVIX_COLLECT_ON();
    benchmark::DoNotOptimize(PeerSort(PeerGraphFromStore(s)));
    ORVIX_COLLECT_OFF();
  } else {
    std::fprintf(stderr, "unknown job %s: library, sort or build+sort\n", job);
    return 2;
  }
  std::printf("%lld\n", static_cast<long long>(n));
  return 0;
}

}  // namespace
}  // namespace orvix::nodes

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--count") == 0) {
    return orvix::nodes::Count(argv[2], std::atoll(argv[3]));
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
