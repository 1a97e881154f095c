// NodeSystemImpl: what changed since a stamp.

#include <optional>
#include <utility>

#include "store/node_system_impl.h"

namespace orvix::nodes {

MODIFIED NodeSystemImpl::GetModifications(uint64_t stamp) const {
  if (_stamps._completeStamp > stamp) return MODIFIED::COMPLETE;
  MODIFIED what = MODIFIED::NONE;
  if (_stamps._attributeStamp > stamp) what |= MODIFIED::DATA_ATTRIBUTE_MASK;
  if (_stamps._metaAttributeStamp > stamp) what |= MODIFIED::DIRECT_META_ATTRIBUTE;
  if (_stamps._special0Stamp > stamp) what |= MODIFIED::SPECIAL0;
  if (_stamps._special1Stamp > stamp) what |= MODIFIED::SPECIAL1;
  if (_stamps._structureStamp > stamp) what |= MODIFIED::NODE_MASK;
  if (_stamps._connectionStamp > stamp) what |= MODIFIED::CONNECTION_MASK;
  return what;
}

Result<bool> NodeSystemImpl::EnumerateChanges(uint64_t stamp,
                                              const ChangeCallback& callback) const {
  ORVIX_CHECK_ARGUMENT(callback);
  if (_stamps._completeStamp > stamp) return callback(GetRoot(), MODIFIED::COMPLETE);
  // A plain flag and an optional error rather than a Result<bool>: the walk
  // tests them once per entry.
  bool goOn = true;
  std::optional<Error> failure;
  for (const NodeMap* layer = _store._nodes.Get(); layer && goOn; layer = layer->GetParent()) {
    layer->ForEachEntry([&](const NodeMap::Entry& e) {
      if (!goOn || !e.IsPublished()) return;
      // A record that a higher layer replaces or hides is not this system's.
      for (const NodeMap* above = _store._nodes.Get(); above != layer; above = above->GetParent()) {
        if (above->FindInLayer(e.hash, e.path.ToBlock())) return;
      }
      const NodeInfo& r = *e.info;
      MODIFIED what = MODIFIED::NONE;
      if (r._directAttributeStamp > stamp) what |= MODIFIED::DIRECT_ATTRIBUTE;
      if (r._metaAttributeStamp > stamp) what |= MODIFIED::DIRECT_META_ATTRIBUTE;
      if (r._inheritedAttributeStamp > stamp) what |= MODIFIED::INHERITED_ATTRIBUTE;
      if (r._synthesizedAttributeStamp > stamp) what |= MODIFIED::SYNTHESIZED_ATTRIBUTE;
      if (r._childRemovedStamp > stamp) what |= MODIFIED::CHILD_REMOVED;
      if (r._addedStamp > stamp) what |= MODIFIED::NODE_ADDED;
      if (const PortRecord* port = r.AsPort()) {
        if (port->_sourcesStamp > stamp) what |= MODIFIED::CONNECTION_SOURCES;
        if (port->_targetsStamp > stamp) what |= MODIFIED::CONNECTION_TARGETS;
      }
      if (what == MODIFIED::NONE) return;
      Result<bool> answer = callback(
          GNode(e.path, e.info, const_cast<NodeSystemImpl*>(this), _stamps._movedStamp), what);
      if (!answer) {
        failure.emplace(std::move(answer).GetError());
        goOn = false;
      } else {
        goOn = *answer;
      }
    });
  }
  if (failure) return std::move(*failure);
  return goOn;
}

}  // namespace orvix::nodes
