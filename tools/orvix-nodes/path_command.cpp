// orvix-nodes path PATH...: what the system makes of each path.

#include <ostream>

#include "orvix/graph/node_path.h"
#include "tool.h"

namespace orvix::tool {

namespace {

nlohmann::ordered_json DescribePath(const std::string& input, const NodePath& path) {
  nlohmann::ordered_json parts = nlohmann::ordered_json::array();
  for (InternedId part : path.ToBlock()) parts.push_back(std::string(part.GetString()));
  Result<NodePath> topLevel = path.GetTopLevelPort();
  Result<NodePath> nodePart = path.GetNodePart();
  Result<NodePath> portPart = path.GetPortPart();
  return {
      {"input", input},
      {"string", path.ToString()},
      {"parts", parts},
      {"kind", ToString(path.GetKind(true))},
      {"nodePart", nodePart ? nlohmann::ordered_json(nodePart->ToString()) : nlohmann::ordered_json(nullptr)},
      {"portPart", portPart ? nlohmann::ordered_json(portPart->ToString()) : nlohmann::ordered_json(nullptr)},
      {"topLevelPort", topLevel ? nlohmann::ordered_json(topLevel->ToString()) : nlohmann::ordered_json(nullptr)},
      {"topLevelPortError",
       topLevel ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(topLevel.GetError().GetMessage())},
      {"nodeCount", path.GetNodeCount()},
      {"error", nullptr},
  };
}

void PrintText(std::ostream& out, const nlohmann::ordered_json& d) {
  out << "path '" << d["input"].get<std::string>() << "'\n";
  out << "  string:         " << d["string"].get<std::string>() << "\n";
  out << "  parts:          ";
  bool first = true;
  for (const auto& part : d["parts"]) {
    out << (first ? "" : " ") << part.dump();
    first = false;
  }
  out << (first ? "(none)" : "") << "\n";
  out << "  kind:           " << d["kind"].get<std::string>() << "\n";
  // The empty path is the root; say so rather than print nothing.
  auto shown = [](const nlohmann::ordered_json& p, const char* empty) {
    return p.get<std::string>().empty() ? std::string(empty) : p.get<std::string>();
  };
  out << "  node part:      " << shown(d["nodePart"], "(root)") << "\n";
  out << "  port part:      " << shown(d["portPart"], "(none)") << "\n";
  if (d["topLevelPort"].is_null())
    out << "  top-level port: (none: " << d["topLevelPortError"].get<std::string>() << ")\n";
  else
    out << "  top-level port: " << d["topLevelPort"].get<std::string>() << "\n";
  out << "  node count:     " << d["nodeCount"].get<size_t>() << "\n";
}

}  // namespace

void AddPathCommand(CLI::App& app, Context& context, int& result) {
  auto* cmd = app.add_subcommand("path", "Parse paths and show their parts, kind and sections");
  auto inputs = std::make_shared<std::vector<std::string>>();
  auto noPortLists = std::make_shared<bool>(false);
  cmd->add_option("paths", *inputs, "Paths in their string form, e.g. 'a/b<c/d'")->required();
  cmd->add_flag("--no-port-lists", *noPortLists, "Refuse paths with '<' or '>'");
  cmd->callback([&context, &result, inputs, noPortLists] {
    for (const std::string& input : *inputs) {
      Result<NodePath> path = NodePath::Parse(input, !*noPortLists);
      if (!path) {
        result = EXIT_FAILED;
        const std::string& message = path.GetError().GetMessage();
        if (context.json) {
          context.EmitJson({{"input", input}, {"string", nullptr}, {"parts", nullptr},
                            {"kind", nullptr}, {"nodePart", nullptr}, {"portPart", nullptr},
                            {"topLevelPort", nullptr}, {"nodeCount", nullptr},
                            {"error", message}});
        } else {
          *context.err << "path '" << input << "': " << message << "\n";
        }
        continue;
      }
      nlohmann::ordered_json d = DescribePath(input, *path);
      if (context.json) {
        d.erase("topLevelPortError");
        context.EmitJson(d);
      } else {
        PrintText(*context.out, d);
      }
    }
  });
}

}  // namespace orvix::tool
