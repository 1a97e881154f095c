// The topology sort: one total order of a system's nodes and top-level
// ports, sources before targets, found hierarchically.
//
// The first level sorts the child nodes and root ports of the system, each
// node as one vertex. Where nodes form a strongly connected component the
// component is opened: its nodes are replaced by their own children and
// ports, and the level is searched again port by port, entering the nodes
// that stay closed through the port dependencies of their bases. Only a loop
// through ports is an error; nodes that merely feed each other through
// unrelated ports end up ordered port by port. A node that a loop of the
// outside leaves and enters again is split further; the others return whole.
//
// Two departures from the plain reading of the order's rules keep their
// promises (every loop through ports is reported, every port gets an index):
// - A component made only of ports is a loop through ports by itself (port
//   to port edges are wires), so its ports are reported as a cycle, also
//   when no port-level search ran before it: a loop of root ports and wires
//   that the connect rules allow never opens a node.
// - Narrowing a level takes out only what this level's openings made. A
//   port that came into the component as a member (made by an opening of an
//   earlier level) stays, since nothing would give it an index otherwise.
// A node without a base system has no order of its own to borrow, so it is
// open from the start: its children and ports are vertices of the level that
// holds it.

#include <algorithm>
#include <new>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "store/node_system_impl.h"
#include "validation/topology.h"
#include "validation/validation_access.h"

namespace orvix::nodes {

namespace {

using GCF = GET_CONNECTIONS_FLAGS;
using GFI = GNODE_FLAGS_IMPL;

constexpr GCF SUCCESSOR_FLAGS = GCF::TARGETS | GCF::TOP_LEVEL_PORTS;
// Levels of opening nest no deeper than the nodes do; this only guards the
// stack against a broken store.
constexpr size_t MAX_SORT_DEPTH = 512;

// The path without its last `n` parts (the empty path for a shorter one).
NodePath::Block Home(const NodePath& path) {
  const NodePath::Block parts = path.ToBlock();
  return parts.size() >= 2 ? parts.first(parts.size() - 2) : parts.first(0);
}

bool SameParts(NodePath::Block a, NodePath::Block b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}

bool StartsWith(NodePath::Block parts, NodePath::Block prefix) {
  return parts.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), parts.begin());
}

// Sorted sets of node paths: by hash, then by text.
bool PathLess(const NodePath& a, const NodePath& b) {
  if (a.GetHashCode() != b.GetHashCode()) return a.GetHashCode() < b.GetHashCode();
  return a.Compare(b) < 0;
}

// The nested system of a node record, null for a node without one.
const NodeSystemImpl* NestedSystemOf(const NodeInfo* info) {
  const NodeRecord* node = info ? info->AsNode() : nullptr;
  if (!node || !node->HasFlags(GFI::DIRECT_INSTANCE)) return nullptr;
  return node->GetNestedSystemImpl();
}

// The size of the range of a node vertex: the size of its base's order.
uint64_t RangeOf(const TopologyVertex& v) {
  const TopologyData* data = v.base ? ValidationAccess::State(*v.base)._topology.Get() : nullptr;
  return data && data->_nextIndex > 0 ? data->_nextIndex : 1;
}

// The working state of one sort.
class TopologyContext {
 public:
  TopologyContext(NodeSystemImpl& system, TopologyData& data) : _system(system), _data(data) {
    _query.callback = [this](ConnectionQuery& q) -> Result<bool> {
      ORVIX_TRY(Push(q.other.path));
      return true;
    };
  }

  Result<void> Run();
  const std::vector<NodePath>& Circular() const noexcept { return _circular; }

 private:
  // A component of a Tarjan run: a range of `_found`, in pop order.
  struct Found {
    size_t begin;
    size_t end;
  };

  Result<void> AddVertices(const GNode& node, TopologyVertex* parent);
  Result<void> AddVertex(const GNode& element, TopologyVertex* parent, bool isNode,
                         const NodeSystemImpl* base);
  void Reset(TopologyVertex& v) noexcept {
    v.index = TopologyVertex::UNVISITED;
    v.lowLink = -1;
    v._generation = _generation;
    v.successorsBegin = -1;
    v.successorCount = 0;
  }

  // Successors.
  Result<void> SuccessorsOf(TopologyVertex& v, bool onlyPorts);
  Result<void> FindSuccessors(const GNode& port, bool onlyPorts);
  Result<void> SearchFrom(const GNode& port, uint64_t maxDepth, bool onlyPorts);
  Result<void> Push(const NodePath& path);
  Result<void> TakeStack(bool onlyPorts);
  template <typename F>
  Result<void> ForEachPort(const GNode& node, PORT_DIR direction, F&& f);
  template <typename F>
  Result<void> ForEachNested(const GNode& port, F&& f);

  // The sort.
  Result<std::vector<TopologyComponent>> SortComponents(size_t depth);
  template <typename OnComponent>
  Result<void> Tarjan(bool onlyPorts, OnComponent&& onComponent);
  Result<void> Close(TopologyVertex& v, TopologyVertex& first);
  Result<void> Narrow(const std::vector<TopologyVertex*>& members);
  Result<void> NoteCircular(const NodePath& path);

  NodeSystemImpl& _system;
  TopologyData& _data;
  uint64_t _generation = 0;
  // The vertices of the level being sorted.
  std::vector<TopologyVertex*> list;
  // The work stack of the successor search, and what it pushed this search.
  std::vector<NodePath> _stack;
  std::vector<NodePath> _pushed;
  std::unordered_set<NodePath> _pushedMany;
  // Successors found for the vertices of the current level, each vertex's
  // run in one place.
  std::vector<TopologyVertex*> _pool;
  std::vector<uint64_t> _prefixHashes;
  ConnectionQuery _query;
  std::vector<NodePath> _circular;
  std::unordered_set<NodePath> _circularSet;
  bool splitMarked = false;
  // Nodes without a base system, open from the start.
  std::unordered_set<NodePath> _openNodes;
};

// --- Vertices

Result<void> TopologyContext::AddVertex(const GNode& element, TopologyVertex* parent, bool isNode,
                                        const NodeSystemImpl* base) {
  TopologyVertex* v = nullptr;
  if (TopologyVertex** found = _data._vertexIndices.Find(element.path)) {
    v = *found;
  } else {
    try {
      v = &_data._vertices.Add();
    } catch (const std::bad_alloc&) {
      return OutOfMemoryError();
    }
    ORVIX_TRY(_data._vertexIndices.Insert(element.path, v));
  }
  v->_pathTmpHandle = element;
  v->isNode = isNode;
  v->base = base;
  v->_baseHold = Ref<NodeSystem>(const_cast<NodeSystemImpl*>(base));
  v->parent = parent;
  v->_hasSelfEdge = false;
  v->_splitRequired = false;
  v->_openedHere = false;
  Reset(*v);
  try {
    list.push_back(v);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

Result<void> TopologyContext::AddVertices(const GNode& node, TopologyVertex* parent) {
  ChildIterator it;
  ORVIX_TRY_ASSIGN(GNode child, _system.GetFirstChild(node, it));
  for (; child;) {
    const NODE_KIND kind = child.GetKind();
    if (kind == NODE_KIND::NODE) {
      const NodeSystemImpl* base = NestedSystemOf(child.info);
      if (base) {
        ORVIX_TRY(AddVertex(child, parent, true, base));
      } else {
        try {
          _openNodes.insert(child.path);
        } catch (const std::bad_alloc&) {
          return OutOfMemoryError();
        }
        ORVIX_TRY(AddVertices(child, parent));
      }
    } else if (kind == NODE_KIND::INPUTS || kind == NODE_KIND::OUTPUTS) {
      ChildIterator ports;
      ORVIX_TRY_ASSIGN(GNode port, _system.GetFirstChild(child, ports));
      for (; port;) {
        ORVIX_TRY(AddVertex(port, parent, false, nullptr));
        ORVIX_TRY_ASSIGN(port, _system.GetNextChild(ports));
      }
    }
    ORVIX_TRY_ASSIGN(child, _system.GetNextChild(it));
  }
  return Ok();
}

// --- Successors

template <typename F>
Result<void> TopologyContext::ForEachPort(const GNode& node, PORT_DIR direction, F&& f) {
  ORVIX_TRY_ASSIGN(GNode list, _system.GetPortList(node, direction));
  if (!list) return Ok();
  ChildIterator it;
  ORVIX_TRY_ASSIGN(GNode port, _system.GetFirstChild(list, it));
  for (; port;) {
    ORVIX_TRY(f(port));
    ORVIX_TRY_ASSIGN(port, _system.GetNextChild(it));
  }
  return Ok();
}

template <typename F>
Result<void> TopologyContext::ForEachNested(const GNode& port, F&& f) {
  // Most ports have no nested ports: no record of the chain lists a child.
  bool any = !port.info;
  for (const NodeInfo* r = port.info; r && !any; r = r->base) any = r->children.GetCount() > 0;
  if (!any) return Ok();
  ChildIterator it;
  ORVIX_TRY_ASSIGN(GNode nested, _system.GetFirstChild(port, it));
  for (; nested;) {
    ORVIX_TRY(f(nested));
    ORVIX_TRY(ForEachNested(nested, f));
    ORVIX_TRY_ASSIGN(nested, _system.GetNextChild(it));
  }
  return Ok();
}

Result<void> TopologyContext::Push(const NodePath& path) {
  // Each port once per search. Most ports have a handful of targets; a set
  // takes over for the few with many.
  try {
    if (_pushed.size() < 16) {
      if (std::find(_pushed.begin(), _pushed.end(), path) != _pushed.end()) return Ok();
      _pushed.push_back(path);
    } else {
      if (_pushedMany.empty()) _pushedMany.insert(_pushed.begin(), _pushed.end());
      if (!_pushedMany.insert(path).second) return Ok();
    }
    _stack.push_back(path);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

Result<void> TopologyContext::SearchFrom(const GNode& port, uint64_t maxDepth, bool onlyPorts) {
  _query.port = port;
  _query.seen.clear();
  ORVIX_TRY(_system.GetConnections(ALL_WIRES_MASK, SUCCESSOR_FLAGS, _query, maxDepth));
  return TakeStack(onlyPorts);
}

Result<void> TopologyContext::TakeStack(bool onlyPorts) {
  const InternedId inputs = NodePath::GetInputsId();
  const InternedId outputs = NodePath::GetOutputsId();
  while (!_stack.empty()) {
    const NodePath path = std::move(_stack.back());
    _stack.pop_back();
    const NodePath::Block parts = path.ToBlock();
    if (parts.empty()) return ConditionError(CONDITION_KIND::ASSERTION, "path.IsPopulated()");

    // The vertex of the longest prefix. Cutting the id of an input port
    // remembers it: the wire enters the node in front of it.
    _prefixHashes.resize(parts.size() + 1);
    _prefixHashes[0] = 0;
    for (size_t i = 0; i < parts.size(); ++i) {
      _prefixHashes[i + 1] = NodePath::HashStep(_prefixHashes[i], parts[i]);
    }
    TopologyVertex* v = nullptr;
    size_t length = parts.size();
    InternedId enteredPort;
    size_t enteredAt = 0;
    for (; length > 0; --length) {
      if (TopologyVertex** found =
              _data._vertexIndices.Find(parts.first(length), _prefixHashes[length])) {
        v = *found;
        break;
      }
      if (length >= 2 && parts[length - 2] == inputs) {
        enteredPort = parts[length - 1];
        enteredAt = length - 1;
      }
    }
    if (!v) return ConditionError(CONDITION_KIND::ASSERTION, "path.IsPopulated()");
    if (v->_generation != _generation) continue;
    if (!onlyPorts) {
      try {
        _pool.push_back(v);
      } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
      }
      continue;
    }
    // The port right behind the node that was found, if the wire enters it.
    const bool entered = enteredPort.IsPopulated() && enteredAt == length + 1;
    if (!entered) {
      if (v->isNode) return ConditionError(CONDITION_KIND::ASSERTION, "!tv->isNode");
      try {
        _pool.push_back(v);
      } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
      }
      continue;
    }
    // A wire into a node that stays closed: go on from the outputs that the
    // entered input influences inside it, staying at the node's level.
    if (!v->isNode) return ConditionError(CONDITION_KIND::ASSERTION, "tv->isNode");
    if (!v->base) return ConditionError(CONDITION_KIND::ASSERTION, "base");
    ORVIX_TRY_ASSIGN(const PortDependencyMap* dependencies, PortDependenciesOf(*v->base));
    g_topologyBaseReads.fetch_add(1, std::memory_order_relaxed);
    const auto it = dependencies->find(enteredPort);
    if (it == dependencies->end()) continue;
    const NodePath& node = v->GetPath();
    for (const InternedId output : it->second) {
      const InternedId tail[] = {outputs, output};
      ORVIX_TRY_ASSIGN(NodePath outputPath, node.AppendBlock(tail));
      const GNode port = _system.MakeResolvedHandle(outputPath);
      if (!port) continue;
      _query.port = port;
      _query.seen.clear();
      ORVIX_TRY(
          _system.GetConnections(ALL_WIRES_MASK, SUCCESSOR_FLAGS, _query, node.GetCount() - 1));
    }
  }
  return Ok();
}

Result<void> TopologyContext::FindSuccessors(const GNode& port, bool onlyPorts) {
  _pushed.clear();
  _pushedMany.clear();
  ORVIX_TRY(SearchFrom(port, UNLIMITED_DEPTH, onlyPorts));
  // The wires of nested ports count for their top-level port.
  return ForEachNested(
      port, [&](const GNode& nested) { return SearchFrom(nested, UNLIMITED_DEPTH, onlyPorts); });
}

Result<void> TopologyContext::SuccessorsOf(TopologyVertex& v, bool onlyPorts) {
  const size_t begin = _pool.size();
  if (v.isNode) {
    ORVIX_TRY(ForEachPort(v._pathTmpHandle, PORT_DIR::OUTPUT,
                          [&](const GNode& port) { return FindSuccessors(port, onlyPorts); }));
  } else {
    ORVIX_TRY(FindSuccessors(v._pathTmpHandle, onlyPorts));
  }
  v.successorsBegin = int64_t(begin);
  v.successorCount = uint32_t(_pool.size() - begin);
  return Ok();
}

// --- The sort

// Tarjan's algorithm over `list` in list order, without recursion. Each
// component goes to `onComponent` as its vertices in pop order, sinks first.
template <typename OnComponent>
Result<void> TopologyContext::Tarjan(bool onlyPorts, OnComponent&& onComponent) {
  struct Frame {
    TopologyVertex* v;
    uint32_t next;
  };
  std::vector<Frame> frames;
  std::vector<TopologyVertex*> stack;
  int64_t counter = 0;
  _pool.clear();
  auto start = [&](TopologyVertex* v) -> Result<void> {
    v->index = (counter << 1) | 1;
    v->lowLink = counter;
    ++counter;
    ORVIX_TRY(SuccessorsOf(*v, onlyPorts));
    try {
      stack.push_back(v);
      frames.push_back({v, 0});
    } catch (const std::bad_alloc&) {
      return OutOfMemoryError();
    }
    return Ok();
  };
  // `list` may be long; index it, since nothing here changes it.
  for (size_t r = 0; r < list.size(); ++r) {
    if (list[r]->index != TopologyVertex::UNVISITED) continue;
    ORVIX_TRY(start(list[r]));
    while (!frames.empty()) {
      TopologyVertex* v = frames.back().v;
      if (frames.back().next < v->successorCount) {
        TopologyVertex* w = _pool[size_t(v->successorsBegin) + frames.back().next++];
        if (w == v) v->_hasSelfEdge = true;
        if (w->index == TopologyVertex::UNVISITED) {
          ORVIX_TRY(start(w));
        } else if (w->index & 1) {
          v->lowLink = std::min(v->lowLink, w->index >> 1);
        }
        continue;
      }
      frames.pop_back();
      if (!frames.empty()) {
        TopologyVertex* p = frames.back().v;
        p->lowLink = std::min(p->lowLink, v->lowLink);
      }
      if (v->lowLink != (v->index >> 1)) continue;
      size_t begin = stack.size();
      while (stack[--begin] != v) {
      }
      std::reverse(stack.begin() + ptrdiff_t(begin), stack.end());
      for (size_t i = begin; i < stack.size(); ++i) stack[i]->index &= ~int64_t{1};
      ORVIX_TRY(onComponent(
          std::span<TopologyVertex* const>(stack.data() + begin, stack.size() - begin)));
      stack.resize(begin);
    }
  }
  return Ok();
}

Result<void> TopologyContext::NoteCircular(const NodePath& path) {
  try {
    if (_circularSet.insert(path).second) _circular.push_back(path);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

// The closure step of the port-level search, for a vertex as Tarjan pops it:
// which nodes the vertex reaches, and whether one of them is its own.
Result<void> TopologyContext::Close(TopologyVertex& v, TopologyVertex& first) {
  if (&v != &first) {
    // Two vertices in one component at port level: a loop through ports.
    ORVIX_TRY(NoteCircular(first.GetPath()));
    return NoteCircular(v.GetPath());
  }
  const NodePath::Block home = Home(v.GetPath());
  std::vector<NodePath>& reach = v._reachableNodes;
  try {
    for (uint32_t i = 0; i < v.successorCount; ++i) {
      TopologyVertex& s = *_pool[size_t(v.successorsBegin) + i];
      const NodePath::Block shome = Home(s.GetPath());
      if (shome.size() == home.size()) {
        if (!SameParts(home, shome)) {
          ORVIX_TRY_ASSIGN(NodePath node, NodePath::CreateUnchecked(shome));
          reach.push_back(std::move(node));
        }
      } else if (shome.size() == home.size() + 1) {
        if (!StartsWith(shome, home)) {
          return ConditionError(CONDITION_KIND::ASSERTION, "targetNodePath.StartsWith(nodePath)");
        }
        ORVIX_TRY_ASSIGN(NodePath node, NodePath::CreateUnchecked(shome));
        reach.push_back(std::move(node));
      } else if (shome.size() + 1 != home.size()) {
        return ConditionError(CONDITION_KIND::ASSERTION, "false");
      }
      if (&s != &v) reach.insert(reach.end(), s._reachableNodes.begin(), s._reachableNodes.end());
    }
    std::sort(reach.begin(), reach.end(), PathLess);
    reach.erase(std::unique(reach.begin(), reach.end()), reach.end());
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  const auto own = std::find_if(reach.begin(), reach.end(),
                                [&](const NodePath& n) { return SameParts(n.ToBlock(), home); });
  if (own == reach.end()) return Ok();
  // The node `home` depends on itself through the outside: it must stay open.
  TopologyVertex* const* tn = _data._vertexIndices.Find(*own);
  if (!tn) {
    // A node without a base is open anyway.
    if (_openNodes.count(*own)) return Ok();
    return ConditionError(CONDITION_KIND::ASSERTION, "tn");
  }
  (*tn)->_splitRequired = true;
  splitMarked = true;
  return Ok();
}

// Takes the vertices of the openings of this level whose node needn't stay
// open out again, and lets those nodes return whole.
Result<void> TopologyContext::Narrow(const std::vector<TopologyVertex*>& members) {
  try {
    std::vector<TopologyVertex*> kept;
    kept.reserve(list.size());
    for (TopologyVertex* v : list) {
      if (v->parent && v->parent->_openedHere && !v->parent->_splitRequired) {
        _data._vertexIndices.Erase(v->GetPath());
        continue;
      }
      kept.push_back(v);
    }
    for (TopologyVertex* m : members) {
      if (m->isNode && !m->_splitRequired) kept.push_back(m);
    }
    list.swap(kept);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

Result<std::vector<TopologyComponent>> TopologyContext::SortComponents(size_t depth) {
  if (depth > MAX_SORT_DEPTH) return ConditionError(CONDITION_KIND::ASSERTION, "depth");
  // The components, sinks first: their vertices in one array.
  std::vector<TopologyVertex*> found;
  std::vector<Found> components;
  ORVIX_TRY(Tarjan(false, [&](std::span<TopologyVertex* const> members) -> Result<void> {
    try {
      components.push_back({found.size(), found.size() + members.size()});
      found.insert(found.end(), members.begin(), members.end());
    } catch (const std::bad_alloc&) {
      return OutOfMemoryError();
    }
    return Ok();
  }));

  std::vector<TopologyComponent> result;
  try {
    result.reserve(components.size());
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  // Sources first.
  for (auto c = components.rbegin(); c != components.rend(); ++c) {
    const size_t count = c->end - c->begin;
    TopologyVertex* single = found[c->begin];
    if (count == 1 && !single->_hasSelfEdge) {
      // A node owns as many indices as its base's order has.
      single->orderIndex = _data._nextIndex;
      _data._nextIndex += single->isNode ? RangeOf(*single) : 1;
      result.emplace_back().Add(single);
      continue;
    }

    // Open the component: a new level of its members' insides.
    std::vector<TopologyVertex*> members(found.begin() + ptrdiff_t(c->begin),
                                         found.begin() + ptrdiff_t(c->end));
    TopologyComponent& component = result.emplace_back();
    for (TopologyVertex* m : members) component.Add(m);
    list.clear();
    ++_generation;
    bool anyNode = false;
    for (TopologyVertex* m : members) {
      if (m->isNode) {
        anyNode = true;
        m->_openedHere = true;
        ORVIX_TRY(AddVertices(m->_pathTmpHandle, m));
      } else {
        Reset(*m);
        list.push_back(m);
      }
    }

    if (!anyNode) {
      // Ports alone: their edges are wires, so this is a loop through ports.
      for (TopologyVertex* m : members) {
        ORVIX_TRY(NoteCircular(m->GetPath()));
        m->orderIndex = _data._nextIndex++;
        component.children.emplace_back().Add(m);
      }
      continue;
    }

    const size_t circularBefore = _circular.size();
    splitMarked = false;
    for (TopologyVertex* v : list) Reset(*v);
    ORVIX_TRY(Tarjan(true, [&](std::span<TopologyVertex* const> popped) -> Result<void> {
      for (TopologyVertex* v : popped) ORVIX_TRY(Close(*v, *popped[0]));
      return Ok();
    }));
    if (_circular.size() == circularBefore && splitMarked) ORVIX_TRY(Narrow(members));
    for (TopologyVertex* m : members) m->_openedHere = false;
    for (TopologyVertex* v : list) Reset(*v);
    ORVIX_TRY_ASSIGN(component.children, SortComponents(depth + 1));
  }
  return result;
}

Result<void> TopologyContext::Run() {
  _data._nextIndex = 0;
  ORVIX_TRY(AddVertices(_system.GetRoot(), nullptr));
  ORVIX_TRY_ASSIGN(_data._components, SortComponents(0));
  return Ok();
}

}  // namespace

Result<void> SortTopology(NodeSystemImpl& system, TopologyData& data) {
  data._components.clear();
  data._vertexIndices.Clear();
  data._vertices.Clear();
  data._portDependencies.clear();
  data.dependenciesValid.store(false, std::memory_order_release);
  data._nextIndex = 0;

  TopologyContext context(system, data);
  Result<void> sorted = Ok();
  try {
    sorted = context.Run();
  } catch (const std::bad_alloc&) {
    // The containers of the sort that don't check their allocations.
    sorted = OutOfMemoryError();
  }
  // The working state goes; what stays is the order and the elements' paths,
  // with no record pointer that a later edit could leave dangling.
  for (size_t i = 0; i < data._vertices.GetCount(); ++i) {
    TopologyVertex& v = data._vertices[i];
    v._reachableNodes = std::vector<NodePath>();
    v._pathTmpHandle = GNode(std::move(v._pathTmpHandle.path));
    v.parent = nullptr;
    v.index = TopologyVertex::UNVISITED;
    v.lowLink = -1;
    v.successorsBegin = -1;
    v.successorCount = 0;
  }
  ORVIX_TRY(sorted);
  if (!context.Circular().empty()) {
    return Error(ERROR_CLASS::ILLEGAL_STATE,
                 FormatMessage("The ports @ form a cycle.", context.Circular()));
  }
  return Ok();
}

}  // namespace orvix::nodes
