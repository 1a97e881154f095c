#pragma once
// NodeSystemClass: what a node system belongs to. A class makes new systems,
// makes the copies that copy-on-write needs, and has the last word before a
// modification ends. Every system holds a reference to its class.
//
// Only the operations that the modification bracket calls are declared so
// far; the class's part in attributes and templates comes with those.

#include <cstdint>
#include <span>
#include <string_view>

#include "orvix/graph/flags.h"
#include "orvix/graph/graph_attribute.h"
#include "orvix/host/data.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/derived_attribute.h"
#include "orvix/nodes/gnode.h"
#include "orvix/nodes/node_system_types.h"
#include "orvix/nodes/node_template.h"

namespace orvix::nodes {

class ChangeList;
class NodeSystem;

// The id of the default class, NodeSystemClassImpl.
inline constexpr std::string_view NODE_SYSTEM_CLASS_IMPL_ID = "net.orvix.node.nodesystemclass";
inline constexpr std::string_view NODE_SYSTEM_CLASS_INTERFACE_ID =
    "net.orvix.node.interface.nodesystemclass";
// Names declared for the core node space's class and its base class.
inline constexpr std::string_view CORE_NODE_SYSTEM_CLASS_ID = "net.orvix.corenode.nodesystemclass";
inline constexpr std::string_view CORE_BASE_NODE_SYSTEM_CLASS_ID =
    "net.orvix.corenode.basenodesystemclass";

class NodeSystemClass : public RefCounted {
 public:
  // The id of the class object's class; two systems belong to the same class
  // when these ids are equal. Not an operation of the interface's table: the
  // host's object system answers it for every object.
  virtual std::string_view GetClassId() const = 0;

  // 0: a new empty system of this class, under modification, with the handle
  // of its root. Ending that modification with CLEANUP yields an empty,
  // validated system.
  virtual Result<MutableRoot> CreateNodeSystem() = 0;
  // 1: called by EndModification (unless its flags are NONE) before the
  // system is validated, also at the end of the bracket that makes a new
  // empty system. `root` is the system under modification with the handle of
  // its root; the class may still edit it through `root._system`, and its
  // edits are validated with the rest. The root is borrowed (see MutableRoot):
  // it holds the system without a count of its own, so that the edits pass
  // the reference test; it is valid during the call only, and ending the
  // modification from here is refused. `beginStamp` is the modification
  // stamp at BeginModification, so that the class can ask what changed
  // within the bracket. A failure ends EndModification and leaves the system
  // mutable.
  virtual Result<void> FinalizeModification(const MutableRoot& root, uint64_t beginStamp,
                                            FINALIZE_FLAGS flags, ChangeList* changeList) = 0;
  // 2: the attribute object registered for `id` (a DerivedAttribute for an
  // attribute that validation derives); null if there is none.
  virtual Ref<GraphAttribute> GetDerivedAttribute(InternedId id) const = 0;
  // 3: the flags of the attribute `id`; DIRECT for one that nobody declared.
  virtual ATTRIBUTE_FLAGS GetAttributeFlags(InternedId id) const = 0;
  // 4: whether the attribute takes part in systems of this class; false for
  // null.
  virtual bool SupportsAttribute(const GraphAttribute* attribute) const = 0;
  // 5: how a value of type `from` converts to `to`: 0 for the same type.
  virtual Result<uint32_t> GetTypeConversionFlags(const DataType* from,
                                                  const DataType* to) const = 0;
  // 6: `value` as a value of `type`.
  //   "Null object." without a type.
  virtual Result<Data> ConvertValue(const DataType* type, const Data& value) const = 0;
  // 7: the class's answer to whether `nodeTemplate` can make systems of it;
  // the default asks the template (SupportsImpl).
  virtual Result<bool> SupportsTemplate(const NodeTemplate& nodeTemplate) const = 0;
  // 8, 9: the hooks of the variant walk: whether the ids chosen so far are
  // acceptable, and which of the offered ids to take next (null: let the walk
  // decide).
  virtual Result<bool> CheckSelectors(const NodeTemplate& nodeTemplate,
                                      std::span<const InternedId> chosen) const = 0;
  virtual Result<InternedId> ResolveSelectors(const NodeTemplate& nodeTemplate,
                                              std::span<const InternedId> chosen,
                                              std::span<const InternedId> offered) const = 0;
  // 10: makes a system from `nodeTemplate`: the class's side of the double
  // dispatch, which calls the template's InstantiateImpl. A failure is
  // reported at the diagnostic level and handed back unchanged.
  //   "Node template is nullptr."
  virtual Result<Ref<NodeSystem>> InstantiateImpl(const InstantiationContext& context,
                                                  const NodeTemplate* nodeTemplate,
                                                  const Ref<TemplateArguments>& arguments) = 0;
  // 11: told before a value changes, with the element, the attribute, its
  // flags and both values (empty for none). The result is a word of MODIFIED
  // bits for the stamps (SPECIAL0, SPECIAL1); an error ends the write.
  virtual Result<uint64_t> AttributeChanged(NodeSystem& system, const GNode& node, InternedId id,
                                            ATTRIBUTE_FLAGS flags, const Data& newValue,
                                            const Data& oldValue) = 0;
  // The copy that BeginModification makes of a shared system: a new system of
  // this class holding the state of `source`, which must be finished. The
  // copy shares the source's node map and touches no record.
  virtual Result<Ref<NodeSystem>> CopyNodeSystem(const NodeSystem& source) = 0;

 protected:
  NodeSystemClass() = default;
  ~NodeSystemClass() override = default;
};

// A new object of the default class: it creates plain systems, copies them
// and finishes a modification without adding anything.
Result<Ref<NodeSystemClass>> CreateDefaultNodeSystemClass();

}  // namespace orvix::nodes
