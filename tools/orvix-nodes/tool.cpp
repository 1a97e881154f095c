#include "tool.h"

#include <algorithm>
#include <ostream>

#include "orvix/host/config.h"
#include "orvix/nodes/config_variables.h"

namespace orvix::tool {

void Context::EmitJson(const nlohmann::ordered_json& object) const { *out << object.dump() << "\n"; }

int RunTool(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  nodes::RegisterConfigVariables();

  CLI::App app{"orvix-nodes: node systems from the command line", "orvix-nodes"};
  app.require_subcommand(1);
  app.fallthrough();

  Context context{&out, &err};
  std::vector<std::string> assignments;
  app.add_flag("--json", context.json, "Machine-readable output: one JSON object per input");
  app.add_option("--config", assignments,
                 "Set a configuration variable for this run: g_name=value (repeatable)");

  int result = EXIT_OK;
  AddPathCommand(app, context, result);
  AddWiresCommand(app, context, result);
  AddConfigCommand(app, context, result);
  AddRunCommand(app, context, result);
  AddDemoCommand(app, context, result);

  // The environment first, so that the command line wins.
  if (auto env = ApplyConfigFromEnvironment(); !env) {
    err << "orvix-nodes: " << env.GetError().GetMessage() << "\n";
    return EXIT_USAGE;
  }
  app.parse_complete_callback([&] {
    for (const std::string& assignment : assignments) {
      if (auto r = ApplyConfigAssignment(assignment); !r)
        throw CLI::ValidationError("--config", r.GetError().GetMessage());
    }
  });

  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    out << app.help();
    return EXIT_OK;
  } catch (const CLI::CallForAllHelp&) {
    out << app.help("", CLI::AppFormatMode::All);
    return EXIT_OK;
  } catch (const CLI::ParseError& e) {
    err << "orvix-nodes: " << e.what() << "\n";
    return EXIT_USAGE;
  }
  return result;
}

}  // namespace orvix::tool
