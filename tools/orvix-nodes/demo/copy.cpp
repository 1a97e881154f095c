// Chapter 3, copy: BeginModification on a graph held twice edits a copy. The
// chapter shows what the copy changed, and checks that the original reads as
// it did: the demo fails if the copy's edits reach it.

#include <algorithm>
#include <initializer_list>

#include "demo.h"
#include "orvix/nodes/modification.h"

namespace orvix::tool::demo {

namespace {

using nodes::FINALIZE_FLAGS;
using nodes::GNode;
using nodes::MODIFIED;
using nodes::MutableRoot;
using nodes::NodeSystem;

// The copy's edits: a value changed, a base's value erased (ERASED), a node
// removed...
constexpr std::string_view RENAMED = "n1";
constexpr std::string_view NEW_LABEL = "x times y";
constexpr std::string_view REMOVED = "n4";
// ... and a wire of its own into a nested port that already has an implicit
// one on channel 0.
constexpr std::string_view WIRED_FROM = "<y";
constexpr std::string_view WIRED_TO = "n1<a/gain";

// Makes the edits in `c`; true when EraseValue hid a value.
Result<bool> Edit(NodeSystem& c) {
  ORVIX_TRY_ASSIGN(GNode renamed, Find(c, RENAMED));
  ORVIX_TRY(c.SetValue(renamed, Id(LABEL), Data(NEW_LABEL), nullptr));
  ORVIX_TRY_ASSIGN(GNode erased, Find(c, ERASED));
  ORVIX_TRY_ASSIGN(bool hidden, c.EraseValue(erased, Id(DEFAULT), nullptr));
  ORVIX_TRY_ASSIGN(GNode removed, Find(c, REMOVED));
  ORVIX_TRY(c.Remove(removed, nullptr));
  ORVIX_TRY_ASSIGN(GNode wireFrom, Find(c, WIRED_FROM));
  ORVIX_TRY_ASSIGN(GNode wireTo, Find(c, WIRED_TO));
  ORVIX_TRY(c.Connect(wireFrom, wireTo, Normal(1), nullptr));
  return hidden;
}

Json EditList() {
  return {fmt::format("SetValue {} {} \"{}\"", RENAMED, LABEL, NEW_LABEL),
          fmt::format("EraseValue {} {}", ERASED, DEFAULT), fmt::format("Remove {}", REMOVED),
          fmt::format("Connect {} -> {} on channel 1", WIRED_FROM, WIRED_TO)};
}

std::vector<std::string> ModifiedNames(MODIFIED what) {
  static constexpr std::pair<MODIFIED, std::string_view> NAMES[] = {
      {MODIFIED::COMPLETE, "COMPLETE"},
      {MODIFIED::DIRECT_ATTRIBUTE, "DIRECT_ATTRIBUTE"},
      {MODIFIED::DIRECT_META_ATTRIBUTE, "DIRECT_META_ATTRIBUTE"},
      {MODIFIED::INHERITED_ATTRIBUTE, "INHERITED_ATTRIBUTE"},
      {MODIFIED::SYNTHESIZED_ATTRIBUTE, "SYNTHESIZED_ATTRIBUTE"},
      {MODIFIED::USER_STATE_ATTRIBUTE, "USER_STATE_ATTRIBUTE"},
      {MODIFIED::NODE_ADDED, "NODE_ADDED"},
      {MODIFIED::CHILD_REMOVED, "CHILD_REMOVED"},
      {MODIFIED::CONNECTION_SOURCES, "CONNECTION_SOURCES"},
      {MODIFIED::CONNECTION_TARGETS, "CONNECTION_TARGETS"},
      {MODIFIED::SPECIAL0, "SPECIAL0"},
      {MODIFIED::SPECIAL1, "SPECIAL1"},
  };
  std::vector<std::string> names;
  for (const auto& [bit, name] : NAMES) {
    if ((uint64_t(what) & uint64_t(bit)) != 0) names.emplace_back(name);
  }
  return names;
}

// What changed in `copy` after the stamp `taken` (EnumerateChanges).
Result<Json> ChangesSince(const NodeSystem& copy, uint64_t taken) {
  Json changed = Json::array();
  ORVIX_TRY(copy.EnumerateChanges(taken, [&](const GNode& node, MODIFIED what) -> Result<bool> {
    changed.push_back({{"path", Shown(node.path)}, {"what", ModifiedNames(what)}});
    return true;
  }));
  return changed;
}

// The entries of a list by their text, for comparing two readings.
std::vector<std::string> Keys(const Json& list) {
  std::vector<std::string> keys;
  for (const Json& entry : list) keys.push_back(entry.dump());
  return keys;
}

// Where the copy reads otherwise than the original (two ReadGraph readings):
// values, nodes and wires. A value of an element that the copy removed goes
// with the element.
Json Differences(const Json& original, const Json& copy) {
  Json differences = Json::array();
  for (size_t i = 0; i < original["values"].size(); ++i) {
    const Json& a = original["values"][i];
    const Json& b = copy["values"][i];
    if (a["value"] != b["value"] && !b["prefix"].is_null()) {
      differences.push_back({{"what", "value"},
                             {"path", a["path"]},
                             {"id", a["id"]},
                             {"original", a["text"]},
                             {"copy", b["text"]}});
    }
  }
  for (const char* list : {"nodes", "wires"}) {
    const std::vector<std::string> a = Keys(original[list]);
    const std::vector<std::string> b = Keys(copy[list]);
    auto missing = [](const std::vector<std::string>& in, const std::string& key) {
      return std::find(in.begin(), in.end(), key) == in.end();
    };
    for (size_t i = 0; i < a.size(); ++i) {
      if (missing(b, a[i])) differences.push_back({{"what", list}, {"removed", original[list][i]}});
    }
    for (size_t i = 0; i < b.size(); ++i) {
      if (missing(a, b[i])) differences.push_back({{"what", list}, {"added", copy[list][i]}});
    }
  }
  return differences;
}

Result<Json> Walk(Road& road) {
  // The graph is held twice, so BeginModification edits a copy and leaves the
  // original as it is.
  Ref<NodeSystem> second = road.graph;
  ORVIX_TRY_ASSIGN(MutableRoot edit, nodes::BeginModification(second));
  const bool copied = edit._system.Get() != road.graph.Get();
  // What changed after this stamp is the copy's own doing.
  const uint64_t taken = edit._system->GetModificationStamp();
  ORVIX_TRY_ASSIGN(bool hidden, Edit(*edit._system));
  ORVIX_TRY_ASSIGN(road.copy, edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));

  ORVIX_TRY_ASSIGN(Json changed, ChangesSince(*road.copy, taken));
  ORVIX_TRY_ASSIGN(Json original, ReadGraph(*road.graph));
  ORVIX_TRY_ASSIGN(Json copy, ReadGraph(*road.copy));
  ORVIX_TRY_ASSIGN(size_t originalRecords, road.graph->GetChildRecordCount(road.graph->GetRoot()));
  ORVIX_TRY_ASSIGN(size_t copyRecords, road.copy->GetChildRecordCount(road.copy->GetRoot()));
  const bool unchanged = original == road.graphReading;
  if (!unchanged) road.checkFailed = true;
  return Json{{"copied", copied},
              {"edits", EditList()},
              {"erased", hidden},
              {"differences", Differences(road.graphReading, copy)},
              {"changed", std::move(changed)},
              {"elements", copy["elements"]},
              {"rootChildRecords", {{"original", originalRecords}, {"copy", copyRecords}}},
              {"original",
               {{"nodes", original["nodes"].size()},
                {"wires", original["wires"].size()},
                {"values", original["values"].size()}}},
              {"originalUnchanged", unchanged}};
}

// One entry of Differences as a line.
std::string DifferenceText(const Json& diff) {
  if (diff["what"] == "value") {
    return fmt::format("{} {}: {} -> {}", Str(diff["path"]), Str(diff["id"]), Str(diff["original"]),
                       Str(diff["copy"]));
  }
  const bool removed = diff.contains("removed");
  const Json& item = removed ? diff["removed"] : diff["added"];
  const std::string what =
      diff["what"] == "nodes"
          ? fmt::format("node {}", Str(item["id"]))
          : fmt::format("wire {} -> {}", Str(item["source"]), Str(item["target"]));
  return fmt::format("{}: {}", what, removed ? "removed" : "added");
}

void Print(Printer& p, const Json& copy) {
  p.Heading("copy: BeginModification on a second reference {}, then",
            copy["copied"].get<bool>() ? "copies first" : "did NOT copy");
  std::vector<std::string> edits;
  for (const Json& e : copy["edits"]) edits.push_back(Str(e));
  p.Wrapped("edits", edits, "; ");
  std::string_view label = "copy";
  for (const Json& diff : copy["differences"]) {
    p.Labeled(label, DifferenceText(diff));
    label = "";
  }
  const Json& original = copy["original"];
  p.Line("original {}: {} nodes, {} wires, {} watched values read as before",
         copy["originalUnchanged"].get<bool>() ? "unchanged" : "CHANGED",
         original["nodes"].get<size_t>(), original["wires"].get<size_t>(),
         original["values"].get<size_t>());
  std::vector<std::string> changed;
  for (const Json& c : copy["changed"]) {
    std::string what;
    for (const Json& name : c["what"]) {
      if (!what.empty()) what += '|';
      what += Str(name);
    }
    changed.push_back(fmt::format("{} {}", Str(c["path"]), what));
  }
  p.Line("changed since the copy was taken (EnumerateChanges): {} of {} elements",
         copy["changed"].size(), copy["elements"].get<size_t>());
  p.Wrapped("", changed, ", ");
  p.Line("root child records (GetChildRecordCount): original {}, copy {}",
         copy["rootChildRecords"]["original"].get<size_t>(),
         copy["rootChildRecords"]["copy"].get<size_t>());
}

}  // namespace

const Chapter COPY = {
    "copy", "edit a copy of the graph and show what changed, the original unchanged", Walk, Print};

}  // namespace orvix::tool::demo
