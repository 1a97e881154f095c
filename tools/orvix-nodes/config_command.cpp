// orvix-nodes config: the configuration variables with their defaults and help.

#include <ostream>

#include "orvix/host/config.h"
#include "tool.h"

namespace orvix::tool {

void AddConfigCommand(CLI::App& app, Context& context, int& result) {
  auto* cmd = app.add_subcommand(
      "config", "List the configuration variables (set them with --config g_name=value)");
  cmd->callback([&context, &result] {
    result = EXIT_OK;
    for (const ConfigVariableInfo& v : ListConfigVariables()) {
      if (context.json) {
        context.EmitJson({{"name", v.name}, {"type", v.typeName}, {"default", v.defaultText},
                          {"value", v.valueText}, {"range", v.rangeText.empty() ? nlohmann::ordered_json(nullptr)
                                                               : nlohmann::ordered_json(v.rangeText)},
                          {"help", v.help}});
        continue;
      }
      *context.out << v.name << " (" << v.typeName;
      if (!v.rangeText.empty()) *context.out << ", " << v.rangeText;
      *context.out << ") = " << v.valueText;
      if (v.valueText != v.defaultText) *context.out << " (default " << v.defaultText << ")";
      *context.out << "\n    " << v.help << "\n";
    }
  });
}

}  // namespace orvix::tool
