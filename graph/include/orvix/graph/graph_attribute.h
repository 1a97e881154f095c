#pragma once
// The flags that describe an attribute of a graph element: how it comes about
// (set directly, derived, user state), whether it is kept, and whether a
// change of it is a meta change.

#include <cstdint>

#include "orvix/graph/flags.h"

namespace orvix {

enum class ATTRIBUTE_FLAGS : uint32_t {
  NONE = 0x0,
  DIRECT = 0x1,      // set by clients
  DERIVED = 0x2,     // worked out by validation
  USER_STATE = 0x4,  // worked out by the user state derivation
  TRANSIENT = 0x8,   // not stored with the system
  IMMUTABLE = 0x10,
  META = 0x20,       // a change is a meta change (names, order, previews)
  ROOT = 0x40,       // read at the root node, whatever element is asked
  WARNING = 0x10000,
  ERROR = 0x20000,
  TYPE_MASK = 0x7,
  MESSAGE_MASK = 0x30000,
};
ORVIX_FLAG_SET_OPERATORS(ATTRIBUTE_FLAGS)

}  // namespace orvix
