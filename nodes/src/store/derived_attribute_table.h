#pragma once
// DerivedAttributeTable: the derived attributes of a system's class in the
// order in which validation runs them, and what a direct change of each
// attribute asks validation to do. Built once when a system is made,
// immutable from then on, shared with the system's copies and derived
// systems.

#include <unordered_map>
#include <utility>
#include <vector>

#include "orvix/graph/node_kind.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/nodes/derived_attribute.h"

namespace orvix::nodes {

class DerivedAttributeTable : public RefCounted {
 public:
  // Dependencies before dependents; a null attribute is a plain one that a
  // derived attribute depends on.
  std::vector<std::pair<InternedId, Ref<DerivedAttribute>>> order;
  // The modified bits that a direct change of the attribute sets.
  std::unordered_map<InternedId, GNODE_FLAGS_IMPL> flags;

  GNODE_FLAGS_IMPL GetBits(InternedId id) const {
    const auto it = flags.find(id);
    return it == flags.end() ? GNODE_FLAGS_IMPL::NONE : it->second;
  }
};

}  // namespace orvix::nodes
