#pragma once
// What tests and benchmarks may see and set inside a NodeSystemImpl.
//
// Reads are of whole groups, const. Writes are few and named after the
// situation they stage (a stage installed, a derivation running, a system
// word set by hand to test a refusal); a test that needs another one adds it
// here, so that every test that reaches past the operations is found in one
// place when the state changes shape.

#include <cstdint>

#include "must.h"
#include "orvix/host/ref.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

class NodeSystemTestProbe {
 public:
  static const StoreState& Store(const NodeSystemImpl& system) { return system._store; }
  static const StampState& Stamps(const NodeSystemImpl& system) { return system._stamps; }
  static const ValidationState& Validation(const NodeSystemImpl& system) {
    return system._validation;
  }
  static const AttributeState& Attributes(const NodeSystemImpl& system) {
    return system._attributes;
  }
  static bool IsMutable(const NodeSystemImpl& system) { return system._store._mutable; }

  // Installs the stages that validation runs; done before Init, as the class
  // of a real system does.
  static void InstallStages(NodeSystemImpl& system, const ValidationStages* stages) {
    system._validation._stages = stages;
  }
  // What attribute validation holds while it runs: its setup (null when it
  // ends) and the mask of its running stage.
  static void SetAttributeSetup(NodeSystemImpl& system, AttributeSetup* setup) {
    system._attributes._attribSetup = setup;
  }
  static void SetValidationMask(NodeSystemImpl& system, uint64_t mask) {
    system._validation._validationMask = mask;
  }
  // The system word of modified bits, set without marking any record.
  static void SetSystemFlags(NodeSystemImpl& system, GNODE_FLAGS_IMPL flags) {
    system._validation._systemFlags = flags;
  }
  // The stamps that an add and a wire move, as those edits move them.
  static void StampStructureChange(NodeSystemImpl& system) {
    system._stamps._structureStamp = system._stamps._modificationStamp;
  }
  static void StampConnectionChange(NodeSystemImpl& system) {
    system._stamps._connectionStamp = system._stamps._modificationStamp;
  }
  // The loop tables, made if missing, for a test that plants loop records or
  // induced dependencies the way attribute validation would build them.
  static LoopTables& LoopTablesForWriting(NodeSystemImpl& system) {
    return *Must(system._WritableLoopTables());
  }
};

}  // namespace orvix::nodes
