#pragma once
// How validation code outside NodeSystemImpl (stages, queues, probes) reaches
// a system's state: the validation group for writing, the store's groups for
// reading. The store's groups change only through the store's operations.

#include "store/node_system_impl.h"

namespace orvix::nodes {

struct ValidationAccess {
  static ValidationState& State(NodeSystemImpl& system) noexcept { return system._validation; }
  static const ValidationState& State(const NodeSystemImpl& system) noexcept {
    return system._validation;
  }
  static const StoreState& Store(const NodeSystemImpl& system) noexcept { return system._store; }
  static const StampState& Stamps(const NodeSystemImpl& system) noexcept { return system._stamps; }
};

}  // namespace orvix::nodes
