#pragma once
// The node core as a module of the host: at load it registers its classes,
// interfaces, registries and configuration variables; at unload they go.
// Loading twice counts: the registrations go with the last unload.

#include <string_view>

#include "orvix/host/result.h"

namespace orvix::nodes {

// The registry of attribute objects, by attribute id.
inline constexpr std::string_view ATTRIBUTE_REGISTRY_ID = "net.orvix.node.registry.attributes";
// The class ids and interface ids of the module.
inline constexpr std::string_view NODE_SYSTEM_INTERFACE_ID = "net.orvix.node.interface.nodesystem";
inline constexpr std::string_view NODE_TEMPLATE_INTERFACE_ID = "net.orvix.node.interface.nodetemplate";
inline constexpr std::string_view DERIVATION_HANDLER_INTERFACE_ID =
    "net.orvix.node.interface.nodesystemderivationhandler";
inline constexpr std::string_view DERIVED_ATTRIBUTE_INTERFACE_ID =
    "net.orvix.node.interface.derivedattribute";

Result<void> LoadNodesModule();
void UnloadNodesModule();

}  // namespace orvix::nodes
