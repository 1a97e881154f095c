#pragma once
// NodeSystemDerivationHandler: the object that runs the derivations for the
// ports of a node. A class puts its own on a system to take part in how
// attributes are derived; the default runs each attribute's own derivation.

#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "orvix/host/data.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/derived_attribute.h"
#include "orvix/nodes/gnode.h"

namespace orvix::nodes {

inline constexpr std::string_view DERIVATION_HANDLER_BASE_CLASS_ID =
    "net.orvix.node.class.nodesystemderivationhandlerbase";

// What is known of a port's value before run time.
enum class VALUEMODE : uint8_t {
  NONE = 0,      // nothing is known
  DYNAMIC = 1,   // known only at run time
  CONSTANT = 2,  // the port holds a constant value
};

class NodeSystemDerivationHandler : public RefCounted {
 public:
  // 0: the value of `attribute` at the last port of `portStack`.
  virtual Result<std::optional<Data>> DeriveAttribute(std::span<const GNode> portStack,
                                                      const DerivedAttribute* attribute) const = 0;
  // 1: what is known of the value at `port`.
  virtual Result<std::pair<VALUEMODE, Data>> GetDynamicValue(const GNode& port) const = 0;
  // 2: whether the stored shortcut from `source` to `target`, two filter
  // ports, counts.
  virtual bool FilterShortcut(const GNode& source, const GNode& target) const = 0;

 protected:
  NodeSystemDerivationHandler() = default;
  ~NodeSystemDerivationHandler() override = default;
};

// The default handler: the attribute derives itself, values are dynamic,
// every shortcut counts.
class NodeSystemDerivationHandlerBase : public NodeSystemDerivationHandler {
 public:
  //   "Null object." for a null attribute.
  Result<std::optional<Data>> DeriveAttribute(std::span<const GNode> portStack,
                                              const DerivedAttribute* attribute) const override;
  Result<std::pair<VALUEMODE, Data>> GetDynamicValue(const GNode& port) const override;
  bool FilterShortcut(const GNode& source, const GNode& target) const override;

  // The one shared default object.
  static const Ref<NodeSystemDerivationHandler>& GetDefault();
};

}  // namespace orvix::nodes
