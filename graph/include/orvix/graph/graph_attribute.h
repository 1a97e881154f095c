#pragma once
// Attributes of graph elements: their flags (how the attribute comes about,
// whether it is kept, whether a change of it is a meta change) and the
// attribute object that answers for an id.

#include <cstdint>

#include "orvix/graph/flags.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"

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

// An attribute object, registered by id: what an attribute is, as graph
// models and node system classes ask it. The messages that an attribute
// reports at a port come with the graph model's ports.
class GraphAttribute : public RefCounted {
 public:
  virtual InternedId GetId() const = 0;
  // True if a change of `id` changes this attribute: its own id, and for a
  // computed attribute the ids it is computed from.
  virtual bool IsAffectedBy(InternedId id) const = 0;
  virtual ATTRIBUTE_FLAGS GetFlags() const = 0;

 protected:
  GraphAttribute() = default;
  ~GraphAttribute() override = default;
};

}  // namespace orvix
