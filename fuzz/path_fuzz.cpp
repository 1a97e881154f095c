// Fuzzes the parsing of paths. Every input is parsed twice, with port lists
// allowed and forbidden; every path that parses must keep the promises of
// NodePath: its string form parses back to an equal path, its stored hash and
// kind are those of its parts, and the section operations agree with Slice and
// with each other. A broken promise aborts, which libFuzzer reports.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "orvix/graph/node_path.h"

namespace orvix {
namespace {

#define FUZZ_CHECK(cond)                                                              \
  do {                                                                                \
    if (!(cond)) {                                                                    \
      std::fprintf(stderr, "%s:%d: broken promise: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                   \
    }                                                                                 \
  } while (0)

bool StartsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

bool EndsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// A parse may fail only with one of the four parse messages about the input.
void CheckParseError(const Error& error, std::string_view text) {
  const std::string& m = error.GetMessage();
  FUZZ_CHECK(error.GetClass() == ERROR_CLASS::ILLEGAL_ARGUMENT);
  FUZZ_CHECK(StartsWith(m, "Path "));
  FUZZ_CHECK(m.size() >= 5 + text.size() && m.compare(5, text.size(), text) == 0);
  const std::string_view rest = std::string_view(m).substr(5 + text.size());
  FUZZ_CHECK(rest == " contains an empty part." || rest == " contains port list identifier." ||
             rest == " contains more than one port list identifier." ||
             rest == " contains escape character at the end.");
}

NodePath Must(Result<NodePath> r) {
  FUZZ_CHECK(r.HasValue());
  return std::move(r).Value();
}

// Slice with arguments taken from the input: either the right error or the
// sub-path that the parts say.
void CheckSlice(const NodePath& path, int64_t start, int64_t packed) {
  const int64_t count = static_cast<int64_t>(path.GetCount());
  int64_t s = start < 0 ? count + start + 1 : start;
  Result<NodePath> r = path.Slice(start, packed);
  if (s < 0 || s > count) {
    FUZZ_CHECK(!r.HasValue());
    FUZZ_CHECK(EndsWith(r.GetError().GetMessage(), " out of bounds."));
    FUZZ_CHECK(StartsWith(r.GetError().GetMessage(), "Start position "));
    return;
  }
  int64_t n = packed >> 1;
  if (!(packed & 1)) n = (n < 0 ? count + n + 1 : n) - s;
  if (n < 0 || n > count - s) {
    FUZZ_CHECK(!r.HasValue());
    FUZZ_CHECK(StartsWith(r.GetError().GetMessage(), "Count "));
    return;
  }
  const NodePath slice = Must(std::move(r));
  FUZZ_CHECK(slice.GetCount() == static_cast<size_t>(n));
  FUZZ_CHECK(slice == Must(NodePath::CreateUnchecked(
                          path.ToBlock().subspan(static_cast<size_t>(s), static_cast<size_t>(n)))));
  FUZZ_CHECK(slice.GetHashCode() == NodePath::HashBlock(slice.ToBlock()));
  FUZZ_CHECK(slice.GetKindRaw() == NodePath::KindOfBlock(slice.ToBlock()));
  if (n == count) FUZZ_CHECK(slice.IsSameObject(path));
  if (n == 0) FUZZ_CHECK(slice.IsNull());
}

void CheckPath(const NodePath& path, bool allowPortLists, std::string_view input) {
  const NodePath::Block parts = path.ToBlock();
  const size_t count = path.GetCount();

  // Stored hash and kind are those of the parts.
  FUZZ_CHECK(path.GetHashCode() == NodePath::HashBlock(parts));
  FUZZ_CHECK(path.GetKindRaw() == NodePath::KindOfBlock(parts));
  FUZZ_CHECK(path == Must(NodePath::CreateUnchecked(parts)));
  size_t markers = 0;
  for (InternedId part : parts) {
    FUZZ_CHECK(part.IsPopulated() && !part.GetString().empty());
    markers += NodePath::IsPortListPart(part) ? 1 : 0;
  }
  FUZZ_CHECK(markers <= (allowPortLists ? 1u : 0u));

  // The string form parses back to an equal path.
  const std::string text = path.ToString();
  const NodePath back = Must(NodePath::Parse(text, allowPortLists));
  FUZZ_CHECK(back == path && path == back);
  FUZZ_CHECK(back.GetHashCode() == path.GetHashCode());
  FUZZ_CHECK(back.GetKindRaw() == path.GetKindRaw());
  FUZZ_CHECK(back.Compare(path) == 0 && path.Compare(back) == 0);
  FUZZ_CHECK(back.ToString() == text);
  FUZZ_CHECK(text.size() <= input.size());

  // Sections agree with each other and with Slice.
  const size_t nodeCount = path.GetNodeCount();
  const NodePath nodePart = Must(path.GetNodePart());
  const NodePath portPart = Must(path.GetPortPart());
  FUZZ_CHECK(nodePart.GetCount() == nodeCount);
  FUZZ_CHECK(nodePart.GetCount() + portPart.GetCount() == count);
  FUZZ_CHECK(nodePart.GetKindRaw() == NODE_KIND::NODE);
  FUZZ_CHECK(path.EqualsConcatenation(nodePart.ToBlock(), portPart.ToBlock()));
  FUZZ_CHECK(Must(nodePart.AppendPath(portPart)) == path);
  FUZZ_CHECK(nodePart == Must(path.Slice(0, NodePath::SliceCount(int64_t(nodeCount)))));
  FUZZ_CHECK(portPart == Must(path.Slice(int64_t(nodeCount), NodePath::SliceEnd(-1))));
  FUZZ_CHECK(path.StartsWith(nodePart));
  if (nodeCount == count) {
    FUZZ_CHECK(nodePart.IsSameObject(path) && portPart.IsNull());
  } else {
    FUZZ_CHECK(NodePath::IsPortListPart(portPart.GetPart(0)));
    FUZZ_CHECK(portPart.GetKindRaw() == path.GetKindRaw());
  }
  FUZZ_CHECK(path.IsRootPort() == (nodeCount == 0 && count >= 2));

  Result<NodePath> top = path.GetTopLevelPort();
  const bool pointsToPort = nodeCount + 2 <= count;
  FUZZ_CHECK(top.HasValue() == pointsToPort);
  if (pointsToPort) {
    FUZZ_CHECK(top->IsTopLevelPort());
    FUZZ_CHECK(top->GetCount() == nodeCount + 2);
    FUZZ_CHECK(path.StartsWith(*top));
    FUZZ_CHECK(*top == Must(path.Slice(0, NodePath::SliceCount(int64_t(nodeCount) + 2))));
    FUZZ_CHECK((path.IsTopLevelPort()) == (count == nodeCount + 2));
    FUZZ_CHECK(path.GetKindRaw() == (NodePath::GetInputsId() == path.GetPart(nodeCount)
                                         ? NODE_KIND::INPORT
                                         : NODE_KIND::OUTPORT));
  } else {
    FUZZ_CHECK(top.GetError().GetMessage() == "Path " + text + " doesn't point to a port.");
    FUZZ_CHECK(!path.IsTopLevelPort());
  }

  // Order: a proper prefix sorts first.
  if (count > 0) {
    const NodePath shorter = Must(path.Slice(0, NodePath::SliceCount(int64_t(count) - 1)));
    FUZZ_CHECK(shorter.Compare(path) == -1 && path.Compare(shorter) == 1);
    FUZZ_CHECK(shorter.LessThan(path) && !path.LessThanOrEqual(shorter));
    FUZZ_CHECK(Must(shorter.Append(path.GetLastPart())) == path);
  }

  // Slices with start and end taken from the input's first bytes.
  const auto byte = [&](size_t i) -> int64_t {
    return i < input.size() ? static_cast<unsigned char>(input[i]) : 0;
  };
  const int64_t span = int64_t(count) + 3;
  const int64_t start = byte(0) % (2 * span) - span;
  const int64_t value = byte(1) % (2 * span) - span;
  CheckSlice(path, start, NodePath::SliceCount(value));
  CheckSlice(path, start, NodePath::SliceEnd(value));
}

}  // namespace
}  // namespace orvix

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orvix;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  Result<NodePath> allowed = NodePath::Parse(input, true);
  Result<NodePath> forbidden = NodePath::Parse(input, false);
  if (allowed) {
    CheckPath(*allowed, true, input);
  } else {
    CheckParseError(allowed.GetError(), input);
  }
  if (forbidden) {
    CheckPath(*forbidden, false, input);
    // Forbidding port lists only adds a failure; it never changes a result.
    FUZZ_CHECK(allowed.HasValue() && *allowed == *forbidden);
  } else {
    CheckParseError(forbidden.GetError(), input);
  }

  // Parsing into an array that already holds parts appends them, or leaves
  // the array as it was.
  std::vector<InternedId> array{InternedId::Get("fuzz")};
  Result<void> appended = NodePath::ParseToArray(input, array);
  FUZZ_CHECK(appended.HasValue() == allowed.HasValue());
  if (appended) {
    FUZZ_CHECK(array.size() == 1 + allowed->GetCount());
    FUZZ_CHECK(Must(NodePath::Create(array)) == Must(allowed->Prepend(std::vector{array[0]})));
  } else {
    FUZZ_CHECK(array.size() == 1);
  }
  return 0;
}
