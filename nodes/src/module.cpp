// Registration of the node core with the host.

#include "orvix/nodes/module.h"

#include <mutex>
#include <string>
#include <vector>

#include "orvix/host/object_system.h"
#include "orvix/nodes/config_variables.h"
#include "orvix/nodes/derivation_handler.h"
#include "orvix/nodes/node_system_class_impl.h"
#include "orvix/nodes/node_template.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

namespace {
std::mutex g_moduleMutex;
int g_loadCount = 0;

template <typename T>
ObjectFactory FactoryOf() {
  return []() -> Result<Ref<RefCounted>> {
    ORVIX_TRY_ASSIGN(Ref<T> object, NewRef<T>());
    return Ref<RefCounted>(std::move(object));
  };
}

// The asset interfaces that every template answers.
const std::vector<std::string>& TemplateInterfaces() {
  static const std::vector<std::string> interfaces = {
      std::string(NODE_TEMPLATE_INTERFACE_ID), "net.orvix.interface.assetidentifier",
      "net.orvix.interface.assetbase", "net.orvix.interface.assetbasewithupdate",
      "net.orvix.interface.asset"};
  return interfaces;
}

std::vector<ClassInfo> ModuleClasses() {
  std::vector<ClassInfo> classes;
  classes.push_back({std::string(NODE_SYSTEM_CLASS_IMPL_ID),
                     {std::string(NODE_SYSTEM_CLASS_INTERFACE_ID)},
                     FactoryOf<NodeSystemClassImpl>()});
  classes.push_back({std::string(NODE_SYSTEM_CLASS_ID),
                     {std::string(NODE_SYSTEM_INTERFACE_ID)},
                     FactoryOf<NodeSystemImpl>()});
  classes.push_back({std::string(DERIVATION_HANDLER_BASE_CLASS_ID),
                     {std::string(DERIVATION_HANDLER_INTERFACE_ID)},
                     FactoryOf<NodeSystemDerivationHandlerBase>()});
  // The template bases are bases of concrete templates only.
  classes.push_back({std::string(NODE_TEMPLATE_BASE_CLASS_ID), TemplateInterfaces(), nullptr});
  std::vector<std::string> decorator = TemplateInterfaces();
  decorator.push_back("net.orvix.interface.decorator");
  classes.push_back(
      {std::string(NODE_TEMPLATE_DECORATOR_BASE_CLASS_ID), std::move(decorator), nullptr});
  return classes;
}
}  // namespace

Result<void> LoadNodesModule() {
  std::lock_guard lock(g_moduleMutex);
  if (g_loadCount > 0) {
    ++g_loadCount;
    return Ok();
  }
  RegisterConfigVariables();
  std::vector<std::string> registered;
  for (ClassInfo& info : ModuleClasses()) {
    std::string id = info.id;
    if (Result<void> done = RegisterClass(std::move(info)); !done) {
      for (const std::string& r : registered) UnregisterClass(r);
      return done;
    }
    registered.push_back(std::move(id));
  }
  ++g_loadCount;
  return Ok();
}

void UnloadNodesModule() {
  std::lock_guard lock(g_moduleMutex);
  if (g_loadCount == 0 || --g_loadCount > 0) return;
  for (const ClassInfo& info : ModuleClasses()) UnregisterClass(info.id);
}

}  // namespace orvix::nodes
