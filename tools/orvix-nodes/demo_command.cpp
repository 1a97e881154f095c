// orvix-nodes demo [CHAPTER] [--port PATH]: the road a client of the node core
// takes, through the published operations only, in chapters (demo/): it loads
// the module, gets the class by its registered id, makes two operators, builds
// a graph on them with values on nodes and ports, edits a copy of the graph,
// reads values through the bases, and asks for the effective connections of
// one port. The demo fails if the copy's edits reach the original.

#include <memory>
#include <string>
#include <vector>

#include "demo/demo.h"
#include "tool.h"

namespace orvix::tool {

namespace {

using demo::Chapter;

// The chapters, in the order of the road.
const std::vector<Chapter>& Chapters() {
  static const std::vector<Chapter> chapters = {demo::START, demo::GRAPH, demo::COPY,
                                                demo::BASES, demo::PORT,  demo::ORDER};
  return chapters;
}

// The port shown when none is asked for: a child's input whose nested port
// sees the implicit wire.
constexpr std::string_view DEFAULT_PORT = "n1<a";

std::string ChapterNames() {
  std::string names;
  for (const Chapter& c : Chapters()) names += (names.empty() ? "" : ", ") + std::string(c.name);
  return names;
}

// The help's list of chapters, and the form of --json.
std::string ChaptersHelp() {
  std::string help =
      "Chapters, in the order of the road; each builds on the ones before it, so showing one\n"
      "walks those before it without showing them:\n";
  for (const Chapter& c : Chapters()) help += fmt::format("  {:<7} {}\n", c.name, c.summary);
  return help +
         "\nWith --json, one document with a member per chapter shown, named after the chapter,\n"
         "and \"error\": null; or {\"error\": message} alone when the demo fails.\n";
}

// An unknown chapter is an error of the command line.
std::string CheckChapter(const std::string& name) {
  for (const Chapter& c : Chapters()) {
    if (c.name == name) return "";
  }
  return fmt::format("unknown chapter '{}'; the chapters are: {}", name, ChapterNames());
}

// Walks the road through the chapter `only` (all of it when empty), each
// chapter on what the ones before it left; the chapters shown go to the
// printer. True when every chapter's check held.
Result<bool> Walk(std::string_view only, const std::string& portText, demo::Printer& printer) {
  ORVIX_TRY_ASSIGN(NodePath port, NodePath::Parse(portText));
  demo::Road road(std::move(port));
  for (size_t i = 0; i < Chapters().size(); ++i) {
    const Chapter& chapter = Chapters()[i];
    ORVIX_TRY_ASSIGN(demo::Json reading, chapter.walk(road));
    if (only.empty() || only == chapter.name) printer.Add(int(i) + 1, chapter, std::move(reading));
    if (only == chapter.name) break;
  }
  return !road.checkFailed;
}

}  // namespace

void AddDemoCommand(CLI::App& app, Context& context, int& result) {
  auto* cmd = app.add_subcommand(
      "demo",
      "Walk the road of a client: module, class, operators, a graph with values, a copy, reads "
      "through the bases, and the connections of one port");
  auto chapter = std::make_shared<std::string>();
  cmd->add_option("chapter", *chapter, "The chapter to show; all of them when none is given")
      ->type_name("CHAPTER")
      ->check(CLI::Validator(CheckChapter, ""));
  auto port = std::make_shared<std::string>(DEFAULT_PORT);
  cmd->add_option("--port", *port, "The port whose effective connections the port chapter shows")
      ->capture_default_str();
  cmd->footer(ChaptersHelp());
  cmd->callback([&context, &result, chapter, port] {
    demo::Printer printer(context);
    Result<bool> held = Walk(*chapter, *port, printer);
    if (!held) {
      result = EXIT_FAILED;
      printer.Fail(held.GetError());
      return;
    }
    printer.Finish();
    // The demo's own invariant: the copy must not have reached the original.
    if (!*held) result = EXIT_FAILED;
  });
}

}  // namespace orvix::tool
