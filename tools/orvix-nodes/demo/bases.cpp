// Chapter 4, bases: values read through the node's base, GetValue telling by
// its prefix where it found each; then the value the copy erased, hidden while
// the base still has it, and back after ResetValue.

#include "demo.h"
#include "orvix/nodes/modification.h"

namespace orvix::tool::demo {

namespace {

using nodes::FINALIZE_FLAGS;
using nodes::GNode;
using nodes::MutableRoot;

struct Reading {
  std::string_view path;
  std::string_view id;
};
// Own values and the base operator's, in the original.
constexpr Reading READINGS[] = {{"n1", LABEL}, {"n2", LABEL}, {"n2<a", DEFAULT}, {"n3<b", DEFAULT}};

Result<Json> Walk(Road& road) {
  Json readings = Json::array();
  for (const Reading& r : READINGS) {
    ORVIX_TRY_ASSIGN(Json reading, ReadValue(*road.graph, r.path, r.id));
    readings.push_back(std::move(reading));
  }
  ORVIX_TRY_ASSIGN(Json inOriginal, ReadValue(*road.graph, ERASED, DEFAULT));
  ORVIX_TRY_ASSIGN(Json erased, ReadValue(*road.copy, ERASED, DEFAULT));
  // The road holds the copy's only reference: this modification needs no
  // further copy.
  ORVIX_TRY_ASSIGN(MutableRoot edit, nodes::BeginModification(road.copy));
  ORVIX_TRY_ASSIGN(GNode node, Find(*edit._system, ERASED));
  ORVIX_TRY_ASSIGN(bool reset, edit._system->ResetValue(node, Id(DEFAULT), nullptr));
  ORVIX_TRY_ASSIGN(road.copy, edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  ORVIX_TRY_ASSIGN(Json back, ReadValue(*road.copy, ERASED, DEFAULT));
  return Json{{"readings", std::move(readings)},
              {"erased", {{"copy", std::move(erased)}, {"original", std::move(inOriginal)}}},
              {"reset", {{"removed", reset}, {"copy", std::move(back)}}}};
}

std::string FromWhere(const Json& reading) {
  if (reading["prefix"].is_null()) return "no such element";
  const int64_t prefix = reading["prefix"].get<int64_t>();
  return prefix > 0 ? fmt::format("from the base operator (prefix {})", prefix)
                    : fmt::format("own value (prefix {})", prefix);
}

// The path and id of a reading, as the first column.
std::string Where(const Json& reading) {
  return fmt::format("{} {}", Str(reading["path"]), Str(reading["id"]));
}

void Print(Printer& p, const Json& bases) {
  p.Heading("reading through the bases: GetValue with prefixCount");
  for (const Json& r : bases["readings"]) {
    p.Line("{:<15} {:<10} {}", Where(r), Str(r["text"]), FromWhere(r));
  }
  const Json& erased = bases["erased"];
  p.Line("{:<15} {:<10} in the copy: EraseValue hides the base's {}", Where(erased["copy"]),
         Str(erased["copy"]["text"]), Str(erased["original"]["text"]));
  const Json& reset = bases["reset"]["copy"];
  p.Line("{:<15} {:<10} in the copy after ResetValue: back {}", Where(reset), Str(reset["text"]),
         FromWhere(reset));
}

}  // namespace

const Chapter BASES = {"bases",
                       "read values through the nodes' bases; erase one in the copy, then reset it",
                       Walk, Print};

}  // namespace orvix::tool::demo
