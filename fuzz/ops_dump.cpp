// The dumps of ops_fuzz; see ops_dump.h.

#include "ops_dump.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <utility>

#include "orvix/graph/connection.h"
#include "orvix/graph/node_kind.h"
#include "orvix/graph/wires.h"
#include "orvix/host/data.h"
#include "orvix/nodes/gnode.h"

namespace orvix::nodes::fuzz {
namespace {

// No input gets near this many elements; a walk that does goes round in
// circles.
constexpr size_t kRunawayWalk = 4096;

template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("ok") : r.GetError().GetMessage();
}

struct Element {
  std::string path;
  std::string line;
};

// What the connection callback of one port writes to. The callback captures
// only a pointer to it, so that std::function keeps it inline.
struct PortReport {
  Dump* dump;
  const std::string* port;
  PORT_DIR dir;
  std::vector<std::string> ends;
};

}  // namespace

void Fail(const std::string& what) {
  std::fprintf(stderr, "ops_fuzz: broken promise: %s\n", what.c_str());
  std::abort();
}

std::string AttributesText(const Ref<ConnectionAttributes>& attributes) {
  std::string out;
  if (!attributes) return out;
  for (const ConnectionAttributes::Element& e : *attributes) {
    out += " [" + e.key.ToString() + "=" + e.value.ToString() + "]";
  }
  return out;
}

Dump TakeDump(const NodeSystem& system, bool withStamp) {
  Dump dump;
  std::vector<Element> elements;
  std::vector<GNode> pending{system.GetRoot()};
  ValueMap values;
  std::vector<std::string> valueTexts;
  PortReport report;
  report.dump = &dump;
  const ConnectionCallback onConnection =
      [r = &report](const GNode& other, Wires wires,
                    const Ref<ConnectionAttributes>& attributes) -> Result<bool> {
    std::string otherPath = other.ToString();
    const std::string w = wires.ToString();
    if (r->dir == PORT_DIR::INPUT) {
      r->dump->fromTargets.push_back(otherPath + " -> " + *r->port + " " + w);
    } else {
      r->dump->fromSources.push_back(*r->port + " -> " + otherPath + " " + w);
    }
    r->ends.push_back(std::move(otherPath) + " " + w + AttributesText(attributes));
    return true;
  };

  while (!pending.empty()) {
    const GNode node = std::move(pending.back());
    pending.pop_back();
    if (elements.size() >= kRunawayWalk) Fail("the child walk doesn't end");
    Element& e = elements.emplace_back();
    e.path = node.ToString();
    std::string& line = e.line;
    const NODE_KIND kind = node.GetKind();
    line = ToString(kind);
    const Result<GNODE_FLAGS> flags = system.GetFlags(node);
    line += " " + (flags ? ToString(*flags) : "error: " + Message(flags));

    values.clear();
    const Result<void> read = system.GetValues(node, VALUES_ALL, values, true, false);
    if (!read) line += " values error: " + Message(read);
    valueTexts.clear();
    for (const auto& entry : values) {
      valueTexts.push_back(std::string(entry.first.GetString()) + "=" + entry.second.ToString());
    }
    std::sort(valueTexts.begin(), valueTexts.end());
    for (const std::string& v : valueTexts) line += " " + v;

    if (HasAny(kind, NODE_KIND::PORT_MASK)) {
      report.port = &e.path;
      for (PORT_DIR dir : {PORT_DIR::INPUT, PORT_DIR::OUTPUT}) {
        report.dir = dir;
        report.ends.clear();
        const Result<bool> walked =
            system.GetConnections(node, dir, WIRES_FILTER_ALL_INCLUDING_IMPLICIT,
                                  GET_CONNECTIONS_MODE::CONNECTIONS, onConnection);
        if (!walked) report.ends.push_back("error: " + Message(walked));
        std::sort(report.ends.begin(), report.ends.end());
        for (const std::string& end : report.ends) {
          line += (dir == PORT_DIR::INPUT ? "\n  <- " : "\n  -> ") + end;
        }
      }
    }

    ChildIterator it;
    for (Result<GNode> child = system.GetFirstChild(node, it);; child = system.GetNextChild(it)) {
      if (!child) {
        line += " walk error: " + Message(child);
        break;
      }
      if (!*child) break;
      pending.push_back(*child);
    }
  }

  std::sort(elements.begin(), elements.end(),
            [](const Element& a, const Element& b) { return a.path < b.path; });
  const auto twice = std::adjacent_find(
      elements.begin(), elements.end(),
      [](const Element& a, const Element& b) { return a.path == b.path; });
  if (twice != elements.end()) Fail("the child walk reported " + twice->path + " twice");

  dump.elements = elements.size();
  if (withStamp) {
    dump.text = "stamp " + std::to_string(system.GetModificationStamp()) +
                (system.IsFinalized() ? " finalized\n" : " pending\n");
  }
  for (const Element& element : elements) {
    dump.text += element.path;
    dump.text += ' ';
    dump.text += element.line;
    dump.text += '\n';
  }
  std::sort(dump.fromSources.begin(), dump.fromSources.end());
  std::sort(dump.fromTargets.begin(), dump.fromTargets.end());
  return dump;
}

std::string WithoutStamp(const std::string& text) {
  if (!text.starts_with("stamp ")) return text;
  const size_t end = text.find('\n');
  return end == std::string::npos ? std::string() : text.substr(end + 1);
}

std::string FirstDifference(const std::string& before, const std::string& after) {
  size_t i = 0;
  while (i < before.size() && i < after.size() && before[i] == after[i]) ++i;
  const size_t newline = i == 0 ? std::string::npos : before.rfind('\n', i - 1);
  const size_t from = newline == std::string::npos ? 0 : newline + 1;
  auto lineAt = [from](const std::string& s) {
    if (from >= s.size()) return std::string("(end)");
    const size_t end = s.find('\n', from);
    return s.substr(from, end == std::string::npos ? std::string::npos : end - from);
  };
  return "\n  before: " + lineAt(before) + "\n  after:  " + lineAt(after);
}

std::string WireEndsDisagree(const Dump& dump) {
  std::vector<std::string> onlyOne;
  std::set_symmetric_difference(dump.fromSources.begin(), dump.fromSources.end(),
                                dump.fromTargets.begin(), dump.fromTargets.end(),
                                std::back_inserter(onlyOne));
  if (onlyOne.empty()) return std::string();
  const bool bySource =
      std::binary_search(dump.fromSources.begin(), dump.fromSources.end(), onlyOne[0]);
  return onlyOne[0] +
         (bySource ? " is reported by its source only" : " is reported by its target only");
}

}  // namespace orvix::nodes::fuzz
