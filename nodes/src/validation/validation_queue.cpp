// ValidationQueue: keys, late entries and the processing loop.

#include "validation/validation_queue.h"

#include <new>

#include "orvix/host/diagnostics.h"
#include "store/node_system_impl.h"
#include "validation/validation_access.h"
#include "validation/validation_stages.h"

namespace orvix::nodes {

ValidationQueue::ValidationQueue(NodeSystemImpl& system, bool descending, uint64_t indexCount)
    : _base(descending ? indexCount - 1 : 0), _descending(descending), _system(&system) {}

Result<void> ValidationQueue::Put(const GNode& port) {
  GNode top = port;
  if (!port.path.IsTopLevelPort()) {
    ORVIX_TRY_ASSIGN(NodePath topPath, port.path.GetTopLevelPort());
    top = _system->MakeResolvedHandle(topPath);
  }
  const TopologyData* topology = ValidationAccess::State(*_system)._topology.Get();
  int64_t index = NO_TOPOLOGICAL_INDEX;
  if (top && topology) {
    ORVIX_TRY_ASSIGN(index, _system->GetTopologicalIndex(top.path, top.path.GetCount()));
  }
  if (index < 0 || uint64_t(index) >= topology->GetIndexCount()) {
    // Every top-level port of a validated topology has an index.
    ReportInternalError();
    return ConditionError(CONDITION_KIND::ASSERTION, "_topology->GetIndex(port)");
  }
  return PutAt(uint64_t(index), top);
}

Result<void> ValidationQueue::PutAt(uint64_t index, const GNode& port) {
  const uint64_t key = RelativeKey(index);
  try {
    if (_insertDuringRun && _lateEntries && key <= _current) {
      // At or behind the sweep: processed right after the current port.
      (*_lateEntries)[key] = port;
      return Ok();
    }
    _entries[key] = port;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  _dirty = true;
  return Ok();
}

Result<void> ValidationQueue::Process(Step step) {
  _lateEntries.emplace();
  struct DropLateEntries {
    std::optional<std::map<uint64_t, GNode>>& late;
    ~DropLateEntries() { late.reset(); }
  } drop{_lateEntries};

  auto it = _entries.begin();
  while (it != _entries.end()) {
    const uint64_t key = it->first;
    _dirty = false;
    _current = key;
    GNode port = it->second;
    ORVIX_TRY(step(port));
    while (!_lateEntries->empty()) {
      auto late = _lateEntries->begin();
      GNode latePort = std::move(late->second);
      _lateEntries->erase(late);
      ORVIX_TRY(step(latePort));
    }
    if (_dirty) {
      // The main map has changed under the sweep: find our place again.
      it = _entries.find(key);
      if (it == _entries.end()) {
        ReportInternalError();
        return ConditionError(CONDITION_KIND::ASSERTION, "_entries.find(key) != _entries.end()");
      }
    }
    ++it;
  }
  return Ok();
}

}  // namespace orvix::nodes
