#pragma once
// ValidationQueue: the ordered work queue of the port passes and of attribute
// validation. Ports are keyed by their topological index, relative to `base`
// and in the queue's direction, and come out in key order.
//
// Work may be queued while the queue is processed. A port ahead of the sweep
// joins the main entries; a port at or behind it can't wait for the sweep to
// come round, so it goes to the late entries and is processed right after the
// current port, before the sweep moves on. Each key is held once: queuing a
// port again replaces the handle.
//
// The queue holds few ports compared with the system; std::map gives the
// order at a cost that follows the number of queued ports only.

#include <cstdint>
#include <map>
#include <optional>

#include "orvix/host/function_ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"

namespace orvix::nodes {

class ValidationQueue {
 public:
  // Taken by reference: passing one allocates nothing and so can't throw.
  using Step = FunctionRef<Result<void>(GNode& port)>;

  // An ascending queue (base 0), or a descending one whose base is
  // `indexCount` - 1.
  ValidationQueue(NodeSystemImpl& system, bool descending, uint64_t indexCount);

  // Queues the top-level port `port` under its topological index. A port
  // without an index is a broken invariant: "Stop: Internal error." is
  // written and the result is an error.
  Result<void> Put(const GNode& port);
  // Queues under a topological index directly.
  Result<void> PutAt(uint64_t index, const GNode& port);

  // Runs `step` on every entry in key order, late entries included, until
  // the queue is through or a step fails. Entries stay in the queue.
  Result<void> Process(Step step);

  bool IsDescending() const noexcept { return _descending; }
  bool IsProcessing() const noexcept { return _lateEntries.has_value(); }
  size_t GetCount() const noexcept { return _entries.size(); }
  bool IsEmpty() const noexcept { return _entries.empty(); }
  // The relative key of an index.
  uint64_t RelativeKey(uint64_t index) const noexcept {
    return _descending ? _base - index : index - _base;
  }

 private:
  std::map<uint64_t, GNode> _entries;
  uint64_t _base = 0;
  bool _descending = false;
  bool _insertDuringRun = true;
  uint64_t _current = 0;
  std::optional<std::map<uint64_t, GNode>> _lateEntries;
  bool _dirty = false;
  NodeSystemImpl* _system = nullptr;
};

}  // namespace orvix::nodes
