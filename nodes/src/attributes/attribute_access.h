#pragma once
// How attribute code outside NodeSystemImpl (derivation stages, rules,
// catalogue entries) reaches a system's state: the attribute group for
// writing, the validation and store groups for reading.

#include "store/node_system_impl.h"

namespace orvix::nodes {

struct AttributeAccess {
  static AttributeState& State(NodeSystemImpl& system) noexcept { return system._attributes; }
  static const AttributeState& State(const NodeSystemImpl& system) noexcept {
    return system._attributes;
  }
  static const ValidationState& Validation(const NodeSystemImpl& system) noexcept {
    return system._validation;
  }
  static const StoreState& Store(const NodeSystemImpl& system) noexcept { return system._store; }
  static const StampState& Stamps(const NodeSystemImpl& system) noexcept { return system._stamps; }
};

}  // namespace orvix::nodes
