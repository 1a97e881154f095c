#pragma once
// The orvix-nodes command line: one CLI11 app whose subcommands each register
// themselves here and print text or, with --json, one JSON object per input.

#include <iosfwd>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace orvix::tool {

// What every subcommand shares: where to write, and the output form.
struct Context {
  std::ostream* out;
  std::ostream* err;
  bool json = false;

  // One JSON object as a line of its own.
  void EmitJson(const nlohmann::ordered_json& object) const;
};

// Exit codes.
inline constexpr int EXIT_OK = 0;
inline constexpr int EXIT_FAILED = 1;  // some input was bad; the others were done
inline constexpr int EXIT_USAGE = 2;   // the command line itself was wrong

// A subcommand adds itself to the app and sets `result` when it runs.
void AddPathCommand(CLI::App& app, Context& context, int& result);
void AddWiresCommand(CLI::App& app, Context& context, int& result);
void AddConfigCommand(CLI::App& app, Context& context, int& result);
void AddRunCommand(CLI::App& app, Context& context, int& result);
void AddDemoCommand(CLI::App& app, Context& context, int& result);

// Runs the tool on `args` (without the program name). `run` calls it again for
// each line of its file.
int RunTool(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace orvix::tool
