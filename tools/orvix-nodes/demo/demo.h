#pragma once
// The chapters of `orvix-nodes demo` and what they share.
//
// The demo is the road a client of the node core takes, through the published
// operations only. Each chapter walks one stretch of it in a file of its own
// (demo/<chapter>.cpp), builds on what the chapters before it left on the
// Road, and returns what it read back as JSON; its printer turns that reading
// into text. Everything shown is read back through the published queries
// rather than taken from the list of edits, so the output is a check of the
// store as much as an illustration.
//
// A new capability is a new chapter: a file defining a Chapter, its
// declaration below, its place in the list of demo_command.cpp, and its source
// in tools/orvix-nodes/CMakeLists.txt.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/graph/wires.h"
#include "orvix/host/data.h"
#include "orvix/host/error.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/result.h"
#include "orvix/nodes/gnode.h"
#include "orvix/nodes/module.h"
#include "orvix/nodes/node_system.h"
#include "orvix/nodes/node_system_class.h"

namespace orvix::tool {
struct Context;  // tool.h
}  // namespace orvix::tool

namespace orvix::tool::demo {

using Json = nlohmann::ordered_json;

// The value ids the demo sets and reads.
inline constexpr std::string_view LABEL = "label";
inline constexpr std::string_view DEFAULT = "default";

// The port whose default the copy erases, and that the bases chapter reads
// through the base operator.
inline constexpr std::string_view ERASED = "n2<b";

// --- The road: what the chapters leave for the ones after them.

// The demo's own load of the module, undone when the demo ends. Loads count,
// so a module that someone else loaded stays, and `run` may call the demo
// again.
struct LoadedModule {
  bool loaded = false;
  ~LoadedModule() {
    if (loaded) nodes::UnloadNodesModule();
  }
};

struct Input {
  std::string_view id;
  int64_t fallback;
};

// An operator: a finished system with nothing but ports, a label and a
// default on each input.
struct Operator {
  std::string_view name;
  std::vector<Input> inputs;
  std::vector<std::string_view> outputs;
  Ref<nodes::NodeSystem> system;
};

struct Road {
  explicit Road(NodePath port) : port(std::move(port)) {}

  NodePath port;                    // the port that the port chapter shows (--port)
  LoadedModule module;              // start; before any system, so that it goes last
  Ref<nodes::NodeSystemClass> cls;  // start
  std::vector<Operator> operators;  // start
  Ref<nodes::NodeSystem> graph;     // graph
  Json graphReading;                // graph: the graph read back (ReadGraph) before the copy
  Ref<nodes::NodeSystem> copy;      // copy; the bases chapter resets a value in it
  bool checkFailed = false;         // copy: the copy's edits reached the original
};

// --- The chapters.

class Printer;

struct Chapter {
  std::string_view name;     // on the command line, and the chapter's member in the JSON document
  std::string_view summary;  // in the help
  Result<Json> (*walk)(Road& road);
  void (*print)(Printer& printer, const Json& reading);
};

// In the order of the road.
extern const Chapter START;  // demo/start.cpp
extern const Chapter GRAPH;  // demo/graph.cpp
extern const Chapter COPY;   // demo/copy.cpp
extern const Chapter BASES;  // demo/bases.cpp
extern const Chapter PORT;   // demo/port.cpp
extern const Chapter ORDER;  // demo/order.cpp

// --- Shared reads (demo/reading.cpp).

InternedId Id(std::string_view text);

// Ordinary wires on one channel.
Wires Normal(uint32_t channel);

Error DemoError(std::string message);

// The element at `text` in `system`; an error naming the path if it is
// missing, so that a failed step says which one it was.
Result<nodes::GNode> Find(const nodes::NodeSystem& system, std::string_view text);

// The path's text, "(root)" for the empty one.
std::string Shown(const NodePath& path);

// A value for the JSON document: numbers and strings as themselves, null for
// none, anything else in its text form.
Json ValueJson(const Data* value);

// One value as a reader sees it: {path, id, value, text, prefix}, with the
// prefix that tells where it was found: 0 for the element's own path, more
// when the read crossed into the node's base; null when there is no element.
Result<Json> ReadValue(const nodes::NodeSystem& s, std::string_view path, std::string_view id);

// Every element below `parent`, parents first, each with the kind of its
// parent.
struct Element {
  nodes::GNode node;
  NODE_KIND parentKind;
};
Result<void> CollectElements(const nodes::NodeSystem& s, const nodes::GNode& parent,
                             std::vector<Element>& out);

// What a graph holds, read back: {nodes, ports, wires, values, elements}, its
// nodes with the operator each stands on, the ports the graph made itself
// (its own and the nested ones), the stored wires and the watched values. Two
// of these compare equal when the graph reads alike.
Result<Json> ReadGraph(const nodes::NodeSystem& s);

// --- The printer (demo/printer.cpp).

// A JSON value as text: a string as itself, anything else in JSON form.
std::string Str(const Json& j);

// Where the demo writes. As text: a title line, then each chapter shown,
// printed by the chapter under its number on the road. With --json: one
// document with a member per chapter shown, named after the chapter, and
// "error": null. Nothing is written before the demo has walked all of its
// road, so that a failure shows its message alone.
class Printer {
 public:
  explicit Printer(const Context& context) : _context(context) {}

  // A chapter to show, with what it read; `number` is its place on the road.
  void Add(int number, const Chapter& chapter, Json reading);
  // Writes out the chapters added.
  void Finish();
  // The demo failed: says why, as text on the error stream or as
  // {"error": message}.
  void Fail(const Error& error) const;

  // For a chapter's text. The chapter's heading under its number:
  template <typename... Args>
  void Heading(fmt::format_string<Args...> format, Args&&... args) {
    Write(fmt::format("\n{}. ", _number) + fmt::format(format, std::forward<Args>(args)...));
  }
  // A line of the chapter:
  template <typename... Args>
  void Line(fmt::format_string<Args...> format, Args&&... args) {
    Write("   " + fmt::format(format, std::forward<Args>(args)...));
  }
  // A line in the label column ("   nodes   ..."), or below it with an empty
  // label:
  void Labeled(std::string_view label, std::string_view text);
  // Items joined by `separator` after a label, broken into lines that
  // continue below the label:
  void Wrapped(std::string_view label, const std::vector<std::string>& items,
               std::string_view separator);

 private:
  struct Section {
    int number;
    const Chapter* chapter;
    Json reading;
  };

  void Write(std::string_view line);

  const Context& _context;
  std::vector<Section> _sections;
  int _number = 0;  // of the chapter being printed
};

}  // namespace orvix::tool::demo
