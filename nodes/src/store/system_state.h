#pragma once
// The state of a node system, in groups by the area that owns each.
//
// NodeSystemImpl holds one of each, privately. The owner of a group is the
// area that writes it and keeps its invariants; the other areas read it.
// Code that isn't a member of NodeSystemImpl reaches a group through the
// access type of its own area (ValidationAccess, AttributeAccess,
// ClassAccess), tests through NodeSystemTestProbe. A new area brings its
// state as a new group with its access type, not as loose members.
//
// Every node of a graph holds a system of its own (the private copy of its
// content), so what is rare lives behind a pointer made on first use.

#include <cstdint>
#include <memory>
#include <vector>

#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/host/ref.h"
#include "store/derived_attribute_table.h"
#include "store/loop_tables.h"
#include "store/node_info.h"
#include "store/node_map.h"
#include "store/topology_data.h"

namespace orvix::nodes {

class AttributeTable;
class NodeSystem;
class NodeSystemClass;
class NodeSystemDerivationHandler;
class NodeTemplate;
class TemplateArguments;
class ValidationQueue;
struct AttributeSetup;
struct ValidationStages;

// Owner: the store. The layered map, the bases, and what lookups and the
// modification bracket need.
struct StoreState {
  Ref<NodeMap> _nodes;
  // `_bases[0]` is the direct base (null for a system without one).
  std::vector<Ref<NodeSystem>> _bases;
  uint64_t _level = 1;
  // Set while the loader builds the system; the reference test is skipped
  // then, since the loader's own references reach the system.
  Ref<RefCounted> _loadContext;
  bool _mutable = false;
  // Set while the class's FinalizeModification runs; an EndModification then
  // is refused.
  bool _finalizing = false;
  // False while no system that this one reaches (itself, its bases, the
  // nested systems of its nodes, and theirs) holds a child record that hides
  // or takes back an element of a lower level. Lookups then trust a hit in
  // another system without IsRemovedAbove's walk over every prefix. Set by
  // every write of such a record and taken over from a source, a base or a
  // node's content; never cleared, so it may be true when nothing hides.
  bool _mayHideBelow = false;
  // The elements whose child tables adds of this modification left unsorted;
  // the end of the modification sorts them. Made on first use.
  std::unique_ptr<std::vector<NodePath>> _unsortedChildTables;
};

// Owner: the store. What readers compare to learn what changed (see
// GetModifications), and the stamps that tell a handle whether it must look
// its path up again.
struct StampState {
  uint64_t _createdStamp = 0;
  uint64_t _removedStamp = 0;
  uint64_t _movedStamp = 0;
  uint64_t _modificationStamp = 1;
  uint64_t _beginStamp = 0;
  uint64_t _attributeStamp = 0;
  uint64_t _metaAttributeStamp = 0;
  uint64_t _special0Stamp = 0;
  uint64_t _special1Stamp = 0;
  uint64_t _structureStamp = 0;
  uint64_t _connectionStamp = 0;
  uint64_t _completeStamp = 0;
  // The first handle stamp of this system: every handle it makes carries one
  // at least as high, every handle of its source one below.
  uint64_t _firstHandleStamp = 0;
};

// Owner: validation. The edits mark records through SetModified; validation
// reads the marks, runs its stages and clears them.
struct ValidationState {
  // Head of the modified list of nodes, port lists and top-level ports.
  NodeInfo* _firstModified = g_modifiedListEnd;
  GNODE_FLAGS_IMPL _systemFlags = GNODE_FLAGS_IMPL::NONE;
  // The bits of the port pass or attribute stage that runs now.
  uint64_t _validationMask = 0;
  // The result of the last topology validation.
  Ref<TopologyData> _topology;
  // The installed stages; null runs none (see ValidationStages).
  const ValidationStages* _stages = nullptr;
  // Set while a port pass processes its queue.
  ValidationQueue* _portValidation = nullptr;
};

// One record per loop source, and the induced dependencies built from them.
struct LoopTables {
  LoopDependencyTable _loopDependencies;
  InducedSourceTable _inducedSources;
  InducedTargetTable _inducedTargets;
};

// Owner: attributes. The derived attributes of the class, the context of a
// derivation while it runs, and the loop tables it builds (which the
// structural edits carry along with the ports they name).
struct AttributeState {
  // The derived attributes of the class and the bits of their changes.
  Ref<DerivedAttributeTable> _derivedAttributes;
  // Set while attribute validation runs.
  AttributeSetup* _attribSetup = nullptr;
  uint64_t _attribValidationCount = 0;
  // Attribute tables that readers may still reference: replaced during the
  // modification, freed when it ends.
  std::vector<Ref<AttributeTable>> _retiredTables;
  // Null while the system has no loop record: few systems have one.
  std::unique_ptr<LoopTables> _loops;
};

// Owner: classes and templates. What made the system and what it answers to.
struct ClassState {
  Ref<NodeSystemClass> _class;
  // The handler a class put on the system; null runs the default.
  Ref<NodeSystemDerivationHandler> _derivationHandler;
  // The template this system was instantiated from, and its arguments; the
  // first modification drops both.
  Ref<NodeTemplate> _template;
  Ref<TemplateArguments> _templateArguments;
  // Where the template came from (the repository of the instantiation), set
  // with it. Weak: a repository caches the systems it made, and a strong
  // reference back would keep both alive.
  WeakRef<RefCounted> _templateOwner;
};

}  // namespace orvix::nodes
