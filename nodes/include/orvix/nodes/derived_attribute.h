#pragma once
// DerivedAttribute: an attribute that validation works out at ports from
// other attributes of the same port, of its sources (inherited) or of its
// targets (synthesized); type flow along wires is the main example.

#include <cstdint>
#include <optional>
#include <span>

#include "orvix/graph/flags.h"
#include "orvix/graph/graph_attribute.h"
#include "orvix/host/data.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"

namespace orvix::nodes {

class NodeSystem;
class NodeSystemClass;

enum class DERIVED_ATTRIBUTE_KIND : uint32_t {
  NONE = 0x0,
  INHERITED = 0x1,             // derived from the sources, in ascending order
  SYNTHESIZED = 0x2,           // derived from the targets, in descending order
  COMPUTED = 0x4,              // not stored: each read computes it; can't be set
  SHORTCUT = 0x8,              // derived over shortcut connections
  INDUCED_DEPENDENCIES = 0x10, // also follows induced dependencies
  POST_ORDER = 0x20,           // derived after the nested ports
  DERIVED_MASK = 0x3,
};
ORVIX_FLAG_SET_OPERATORS(DERIVED_ATTRIBUTE_KIND)

// A derived attribute is a graph attribute too: one object answers both.
class DerivedAttribute : public GraphAttribute {
 public:
  virtual DERIVED_ATTRIBUTE_KIND GetKind() const = 0;
  // Whether the attribute takes part in systems of `cls`.
  virtual bool IsSupportedBy(const NodeSystemClass& cls) const = 0;
  // The attributes that the derivation reads.
  virtual std::span<const InternedId> GetDependencies() const = 0;
  // Whether `a`, with its paths relative to the port `port`, means the same
  // as `b`, which was found `prefixCount` path parts further up.
  virtual bool IsEqual(const Data& a, const GNode& port, const Data& b,
                       int64_t prefixCount) const = 0;
  // The value at the last port of `portStack` (the top-level port first, the
  // nested ports between); nothing if the port has no value.
  virtual Result<std::optional<Data>> Derive(std::span<const GNode> portStack) const = 0;
  // The value of a COMPUTED attribute at `port`, in the type wanted; an
  // empty value if there is none. The pointer stays valid without an owner.
  virtual Result<const Data*> Compute(const NodeSystem& system, const GNode& port,
                                      const DataType* type) const = 0;

 protected:
  DerivedAttribute() = default;
  ~DerivedAttribute() override = default;
};

}  // namespace orvix::nodes
