#pragma once
// How class and template code outside NodeSystemImpl reaches a system's
// state: the class group for writing, the store's for reading.

#include "store/node_system_impl.h"

namespace orvix::nodes {

struct ClassAccess {
  static ClassState& State(NodeSystemImpl& system) noexcept { return system._classState; }
  static const ClassState& State(const NodeSystemImpl& system) noexcept {
    return system._classState;
  }
  static const StoreState& Store(const NodeSystemImpl& system) noexcept { return system._store; }
};

}  // namespace orvix::nodes
