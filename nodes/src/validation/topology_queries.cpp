// What reads the order of topology validation: the index of a port, the walk
// over all ports in order, and the port dependency map of a system, which
// says which inputs of its root influence which outputs.

#include <algorithm>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "orvix/host/diagnostics.h"
#include "orvix/host/error.h"
#include "store/node_system_impl.h"
#include "validation/topology.h"
#include "validation/validation_access.h"

namespace orvix::nodes {

namespace {

using GCF = GET_CONNECTIONS_FLAGS;

// A path's prefix hashes without allocating for the usual lengths.
class PrefixHashes {
 public:
  explicit PrefixHashes(NodePath::Block parts) {
    if (parts.size() + 1 > INLINE) _more.resize(parts.size() + 1);
    uint64_t* h = Data();
    h[0] = 0;
    for (size_t i = 0; i < parts.size(); ++i) h[i + 1] = NodePath::HashStep(h[i], parts[i]);
  }
  uint64_t operator[](size_t length) const {
    return _more.empty() ? _inline[length] : _more[length];
  }

 private:
  static constexpr size_t INLINE = 24;
  uint64_t* Data() { return _more.empty() ? _inline : _more.data(); }
  uint64_t _inline[INLINE];
  std::vector<uint64_t> _more;
};

// The sorted set of output ids that a vertex reaches.
using IdSet = std::vector<InternedId>;

void Merge(IdSet& into, const IdSet& from) {
  IdSet merged;
  merged.reserve(into.size() + from.size());
  std::set_union(into.begin(), into.end(), from.begin(), from.end(), std::back_inserter(merged),
                 [](InternedId a, InternedId b) { return InternedId::CompareText(a, b) < 0; });
  into.swap(merged);
}

// The walk of BuildPortDependencyMap over the order of one system, targets
// before their sources.
class DependencyWalk {
 public:
  DependencyWalk(const NodeSystemImpl& system, TopologyData& data) : _system(system), _data(data) {}

  Result<void> Run() {
    _data._portDependencies.clear();
    return Walk(_data._components);
  }

 private:
  Result<void> Walk(const std::vector<TopologyComponent>& components) {
    for (auto c = components.rbegin(); c != components.rend(); ++c) {
      if (!c->children.empty()) {
        ORVIX_TRY(Walk(c->children));
        continue;
      }
      if (c->GetCount() != 1)
        return ConditionError(CONDITION_KIND::ASSERTION, "tc.GetCount() == 1");
      ORVIX_TRY(Visit(*c->GetVertex(0)));
    }
    return Ok();
  }

  Result<void> Visit(const TopologyVertex& v) {
    const GNode h = _system.FindByPath(v.GetPath());
    if (!h) return ConditionError(CONDITION_KIND::ASSERTION, "h");
    const NodePath::Block parts = v.GetPath().ToBlock();
    if (!v.isNode) {
      IdSet& set = _portSets[&v];
      // An output of the root reaches itself, and through a wire that leaves
      // it again (into a child or an input of the root) what that reaches.
      if (parts.size() == 2 && parts[0] == NodePath::GetOutputsId()) {
        set.push_back(parts[1]);
      }
      ORVIX_TRY(CollectTargets(h, UNLIMITED_DEPTH, set));
      if (parts.size() == 2 && parts[0] == NodePath::GetInputsId()) {
        _data._portDependencies[parts[1]] = set;
      }
      return Ok();
    }
    if (!v.base) return Ok();
    ORVIX_TRY_ASSIGN(const PortDependencyMap* inner, PortDependenciesOf(*v.base));
    std::unordered_map<InternedId, IdSet>& sets = _nodeSets[&v];
    for (const auto& [input, outputs] : *inner) {
      IdSet& set = sets[input];
      for (const InternedId output : outputs) {
        const InternedId tail[] = {NodePath::GetOutputsId(), output};
        ORVIX_TRY_ASSIGN(NodePath path, v.GetPath().AppendBlock(tail));
        const GNode port = _system.MakeResolvedHandle(path);
        if (!port) continue;
        // The node's own inside is in its base's map already.
        ORVIX_TRY(CollectTargets(port, v.GetPath().GetCount() - 1, set));
      }
    }
    return Ok();
  }

  // Merges the sets of the targets of `port` and of its nested ports.
  Result<void> CollectTargets(const GNode& port, uint64_t maxDepth, IdSet& set) {
    std::vector<NodePath> targets;
    ConnectionQuery query;
    query.callback = [&](ConnectionQuery& q) -> Result<bool> {
      targets.push_back(q.other.path);
      return true;
    };
    std::vector<GNode> ports{port};
    for (size_t i = 0; i < ports.size(); ++i) {
      query.port = ports[i];
      query.seen.clear();
      ORVIX_TRY(_system.GetConnections(ALL_WIRES_MASK, GCF::TARGETS | GCF::TOP_LEVEL_PORTS, query,
                                       maxDepth));
      ChildIterator it;
      ORVIX_TRY_ASSIGN(GNode nested, _system.GetFirstChild(ports[i], it));
      for (; nested;) {
        ports.push_back(nested);
        ORVIX_TRY_ASSIGN(nested, _system.GetNextChild(it));
      }
    }
    for (const NodePath& t : targets) ORVIX_TRY(MergeTarget(t, set));
    return Ok();
  }

  Result<void> MergeTarget(const NodePath& t, IdSet& set) {
    if (const TopologyVertex* tv = _data.FindVertex(t.ToBlock(), t.GetHashCode())) {
      const auto it = _portSets.find(tv);
      if (it != _portSets.end()) Merge(set, it->second);
      return Ok();
    }
    ORVIX_TRY_ASSIGN(NodePath node, t.GetNodePart());
    const TopologyVertex* n = _data.FindVertex(node.ToBlock(), node.GetHashCode());
    if (!n) return ConditionError(CONDITION_KIND::ASSERTION, "n");
    const auto sets = _nodeSets.find(n);
    if (sets == _nodeSets.end()) return Ok();
    const auto it = sets->second.find(t.GetLastPart());
    if (it != sets->second.end()) Merge(set, it->second);
    return Ok();
  }

  const NodeSystemImpl& _system;
  TopologyData& _data;
  std::unordered_map<const TopologyVertex*, IdSet> _portSets;
  std::unordered_map<const TopologyVertex*, std::unordered_map<InternedId, IdSet>> _nodeSets;
};

}  // namespace

const TopologyVertex* FindLongestPrefix(const TopologyData& data, NodePath::Block parts,
                                        size_t* length) {
  const PrefixHashes hashes(parts);
  for (size_t k = parts.size(); k > 0; --k) {
    if (const TopologyVertex* v = data.FindVertex(parts.first(k), hashes[k])) {
      *length = k;
      return v;
    }
  }
  return nullptr;
}

Result<const PortDependencyMap*> PortDependenciesOf(const NodeSystemImpl& base) {
  ORVIX_TRY(base.BuildPortDependencyMap());
  const TopologyData* data = ValidationAccess::State(base)._topology.Get();
  static const PortDependencyMap empty;
  return data ? &data->GetPortDependencies() : &empty;
}

namespace {
// The maps being built on this thread. A node's base has an order of its
// own, so a build never needs its own map; finding it here means a broken
// store, which must not wait on its own lock.
thread_local std::vector<const TopologyData*> t_building;
}  // namespace

Result<void> NodeSystemImpl::BuildPortDependencyMap() const {
  TopologyData* data = _validation._topology.Get();
  if (!data || data->AreDependenciesValid()) return Ok();
  if (std::find(t_building.begin(), t_building.end(), data) != t_building.end()) {
    return ConditionError(CONDITION_KIND::ASSERTION, "!building");
  }
  // The system at the end of the chain of bases that share the order: the
  // elements of the order are its own.
  const NodeSystemImpl* system = this;
  for (const NodeSystemImpl* base = _BaseImpl(); base && base->_validation._topology.Get() == data;
       base = base->_BaseImpl()) {
    system = base;
  }
  std::lock_guard<std::mutex> lock(data->_lock);
  if (data->AreDependenciesValid()) return Ok();
  Result<void> built = Ok();
  try {
    t_building.push_back(data);
    built = DependencyWalk(*system, *data).Run();
  } catch (const std::bad_alloc&) {
    built = OutOfMemoryError();
  }
  if (!t_building.empty() && t_building.back() == data) t_building.pop_back();
  if (!built) {
    data->_portDependencies.clear();
    return built;
  }
  data->dependenciesValid.store(true, std::memory_order_release);
  return Ok();
}

Result<int64_t> NodeSystemImpl::GetTopologicalIndex(const GNode& port) const {
  if (port.path.IsNull() || port.path.IsEmpty()) {
    return Error(ERROR_CLASS::NULL_OBJECT, "Nullptr node");
  }
  return GetTopologicalIndex(port.path, port.path.GetCount());
}

Result<int64_t> NodeSystemImpl::GetTopologicalIndex(const NodePath& path, size_t length) const {
  ORVIX_CHECK_ARGUMENT(length <= path.GetCount());
  NodePath::Block parts = path.ToBlock().first(length);
  const NodeSystemImpl* system = this;
  uint64_t sum = 0;
  for (;;) {
    const TopologyData* data = system->_validation._topology.Get();
    size_t found = 0;
    const TopologyVertex* v = data ? FindLongestPrefix(*data, parts, &found) : nullptr;
    if (!v) {
      CriticalOutput("Stop");
      return NO_TOPOLOGICAL_INDEX;
    }
    sum += v->orderIndex;
    // A port, or a nested port below it: the index of the top-level port.
    if (found == parts.size() || !v->isNode || !v->base) return int64_t(sum);
    // Inside a node that stayed whole: its base's order, within its range.
    system = v->base;
    parts = parts.subspan(found);
  }
}

namespace {
// The walk of VisitInTopologicalOrder: the order of one system, with the
// path of the node it was entered through in front.
class OrderWalk {
 public:
  OrderWalk(const NodeSystemImpl& top, bool descending, const NodeVisitor& visitor)
      : _top(top), _descending(descending), _visitor(visitor) {}

  Result<bool> Walk(const std::vector<TopologyComponent>& components) {
    const size_t n = components.size();
    for (size_t i = 0; i < n; ++i) {
      const TopologyComponent& c = components[_descending ? n - 1 - i : i];
      if (!c.children.empty()) {
        ORVIX_TRY_ASSIGN(bool go, Walk(c.children));
        if (!go) return false;
        continue;
      }
      if (c.GetCount() != 1) return ConditionError(CONDITION_KIND::ASSERTION, "tc.GetCount() == 1");
      const TopologyVertex& v = *c.GetVertex(0);
      const NodePath::Block parts = v.GetPath().ToBlock();
      if (!v.isNode) {
        ORVIX_TRY_ASSIGN(NodePath path, NodePath::CreateUnchecked(Concatenated(parts)));
        const GNode port = _top.FindByPath(path);
        // A port that an edit since the order was made took away.
        if (!port) continue;
        ORVIX_TRY_ASSIGN(bool go, _visitor(port));
        if (!go) return false;
        continue;
      }
      const TopologyData* inner =
          v.base ? ValidationAccess::State(*v.base)._topology.Get() : nullptr;
      if (!inner) return ConditionError(CONDITION_KIND::ASSERTION, "data");
      const size_t mark = _prefix.size();
      _prefix.insert(_prefix.end(), parts.begin(), parts.end());
      Result<bool> go = Walk(inner->_components);
      _prefix.resize(mark);
      ORVIX_TRY(go);
      if (!*go) return false;
    }
    return true;
  }

 private:
  NodePath::Block Concatenated(NodePath::Block parts) {
    _scratch.assign(_prefix.begin(), _prefix.end());
    _scratch.insert(_scratch.end(), parts.begin(), parts.end());
    return NodePath::Block(_scratch.data(), _scratch.size());
  }

  const NodeSystemImpl& _top;
  const bool _descending;
  const NodeVisitor& _visitor;
  std::vector<InternedId> _prefix;
  std::vector<InternedId> _scratch;
};
}  // namespace

Result<bool> NodeSystemImpl::VisitInTopologicalOrder(bool descending,
                                                     const NodeVisitor& visitor) const {
  const TopologyData* data = _validation._topology.Get();
  if (!data) return true;
  try {
    return OrderWalk(*this, descending, visitor).Walk(data->_components);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

}  // namespace orvix::nodes
