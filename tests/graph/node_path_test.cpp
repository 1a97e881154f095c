#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "must.h"
#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"

namespace orvix {

// Failures show paths in their string form. Internal linkage, found by
// argument-dependent lookup.
static void PrintTo(const NodePath& path, std::ostream* os) {
  *os << '"' << path.ToString() << '"';
}

namespace {

using namespace std::string_literals;
using Parts = std::vector<InternedId>;

InternedId Id(std::string_view text) {
  return InternedId::Get(text);
}

NodePath P(std::string_view text) {
  Result<NodePath> r = NodePath::Parse(text);
  EXPECT_TRUE(r) << "parse of '" << text << "': " << (r ? "" : r.GetError().GetMessage());
  return r ? *r : NodePath();
}

template <typename R>
std::string ErrorOf(const R& r) {
  return r ? "(no error)" : r.GetError().GetMessage();
}

TEST(NodeKind, FlagWordsKeepTheKindApart) {
  using F = GNODE_FLAGS_IMPL;
  F word =
      WithKind(F::TAPPING_PORT | F::MODIFIED_TOPOLOGY | F::HAS_SOURCE_SHORTCUTS, NODE_KIND::INPORT);
  EXPECT_EQ(ToPublicFlags(word), GNODE_FLAGS::TAPPING_PORT);
  // Bit 19 takes its name from the kind kept in the same word; bits print in their order.
  EXPECT_EQ(ToString(word), "INPORT|TAPPING_PORT|HAS_SOURCE_SHORTCUTS|MODIFIED_TOPOLOGY");
  EXPECT_EQ(ToString(WithKind(word, NODE_KIND::NODE)),
            "NODE|TAPPING_PORT|DIRECT_INSTANCE|MODIFIED_TOPOLOGY");
  EXPECT_EQ(ToString(static_cast<NODE_KIND>(0x41)), "NODE|0x40");
}

TEST(NodePathParse, KindsRootAndMarkers) {
  const std::pair<const char*, NODE_KIND> cases[] = {
      {"<", NODE_KIND::INPUTS},    {">", NODE_KIND::OUTPUTS},    {"<a", NODE_KIND::INPORT},
      {"<a/b", NODE_KIND::INPORT}, {">a", NODE_KIND::OUTPORT},   {"a", NODE_KIND::NODE},
      {"a/b", NODE_KIND::NODE},    {"a/b>", NODE_KIND::OUTPUTS}, {"a>x/y", NODE_KIND::OUTPORT},
  };
  for (auto [text, kind] : cases) {
    EXPECT_EQ(P(text).GetKind(), kind) << text;
    EXPECT_EQ(NodePath::KindOfBlock(P(text).ToBlock()), kind) << text;
    EXPECT_EQ(P(text).ToString(), text);
  }
  // The root: null, or allocated without parts; equal either way, and to nothing else.
  EXPECT_TRUE(P("").IsNull());
  EXPECT_EQ(P("").GetKind(), NODE_KIND::NONE);
  EXPECT_EQ(P("").GetKind(true), NODE_KIND::NODE);
  EXPECT_EQ(Must(NodePath::Alloc()), P(""));
  EXPECT_NE(P("a"), P(""));
  // A NUL ends the scan, an escaped one stays in the part, and an escaped marker interns to
  // the reserved id, so it is the marker.
  EXPECT_EQ(P("a</b"), P("a<b"));
  EXPECT_EQ(P("a\0b"s), P("a"));
  EXPECT_EQ(P("a\\\0b"s).GetLastPart().GetString(), "a\0b"s);
  EXPECT_EQ(P("a/\\<"), P("a<"));
}

TEST(NodePathParse, EveryMessageWordForWord) {
  EXPECT_EQ(NodePath::Parse("a//b").GetError().GetClass(), ERROR_CLASS::ILLEGAL_ARGUMENT);
  IoDescription<NodePath> io;
  ASSERT_TRUE(NodePath::DescribeIO(io));
  NodePath read;
  ASSERT_TRUE(io.GetMembers()[0].read(read, "n\\/1>o/p"));
  EXPECT_EQ(io.GetMembers()[0].write(read), "n\\/1>o/p");
  const std::pair<std::string, const char*> cases[] = {
      {ErrorOf(NodePath::Parse("a//b")), "Path a//b contains an empty part."},
      {ErrorOf(NodePath::Parse("/a")), "Path /a contains an empty part."},
      {ErrorOf(NodePath::Parse("a/")), "Path a/ contains an empty part."},
      {ErrorOf(NodePath::Parse("a<//b")), "Path a<//b contains an empty part."},
      {ErrorOf(NodePath::Parse("a<b>c")),
       "Path a<b>c contains more than one port list identifier."},
      {ErrorOf(NodePath::Parse("a<b/\\>")),
       "Path a<b/\\> contains more than one port list identifier."},
      {ErrorOf(NodePath::Parse("a\\")), "Path a\\ contains escape character at the end."},
      {ErrorOf(NodePath::Parse("a/\\<", false)), "Path a/\\< contains port list identifier."},
      {ErrorOf(io.GetMembers()[0].read(read, "a<b<c")),
       "Path a<b<c contains more than one port list identifier."},
      {ErrorOf(NodePath::Create(Parts{Id("a"), InternedId()})), "The path contains an empty part."},
      {ErrorOf(P("a").Prepend(Parts{InternedId()})), "The path contains an empty part."},
      {ErrorOf(P("a").Append(InternedId())),
       "Illegal argument: Condition node.IsPopulated() not fulfilled. "},
      {ErrorOf(P("a/b").GetTopLevelPort()), "Path a/b doesn't point to a port."},
      {ErrorOf(P("a<").GetTopLevelPort()), "Path a< doesn't point to a port."},
      {ErrorOf(P("a/b").Slice(3, NodePath::SliceCount(0))), "Start position 3 out of bounds."},
      {ErrorOf(P("a/b").Slice(-5, NodePath::SliceCount(0))), "Start position -5 out of bounds."},
      {ErrorOf(P("a/b").Slice(-2, NodePath::SliceCount(2))),
       "Count 2 out of bounds for start position 1."},
      {ErrorOf(P("a/b").Slice(2, NodePath::SliceEnd(1))),
       "Count -1 out of bounds for start position 2."},
  };
  for (const auto& [message, expected] : cases) EXPECT_EQ(message, expected);
  EXPECT_EQ(read, P("n\\/1>o/p"));  // the failed read left the path alone
  EXPECT_TRUE(NodePath::Parse("a/b\\/c", false));
}

TEST(NodePathParse, ParseToArrayAppendsAndLeavesTheArrayOnFailure) {
  Parts parts{Id("a"), NodePath::GetInputsId()};
  ASSERT_TRUE(NodePath::ParseToArray("b/c", parts));
  EXPECT_EQ(Must(NodePath::Create(parts)), P("a<b/c"));
  const Parts before = parts;
  // The marker already in the array counts for the one-marker rule.
  EXPECT_EQ(ErrorOf(NodePath::ParseToArray("d>e", parts)),
            "Path d>e contains more than one port list identifier.");
  EXPECT_FALSE(NodePath::ParseToArray("x\\", parts));
  EXPECT_EQ(parts, before);
}

// Seeded, so that a failure repeats: random part names over an alphabet that
// is mostly the characters the string form escapes (and NUL, which ends a scan).
class RandomText {
 public:
  explicit RandomText(uint32_t seed) : _rng(seed) {}

  std::string Text(size_t maxLength) {
    static constexpr char ALPHABET[] = {'/', '\\', 'a', 'b', '.', '\0', '<', '>'};
    std::string s(_rng() % (maxLength + 1), ' ');
    for (char& c : s) c = ALPHABET[_rng() % 8];
    return s;
  }
  // A non-empty name that isn't one of the reserved ids.
  InternedId PartName() {
    for (;;) {
      std::string s = Text(6);
      if (!s.empty() && s != "<" && s != ">") return Id(s);
    }
  }
  uint32_t Below(uint32_t n) { return _rng() % n; }

 private:
  std::mt19937 _rng;
};

TEST(NodePathRoundTrip, PartsSurviveStringFormAndParse) {
  RandomText random(7001);
  for (int round = 0; round < 3000; ++round) {
    Parts parts;
    for (uint32_t i = random.Below(4); i > 0; --i) parts.push_back(random.PartName());
    const uint32_t marker = random.Below(3);  // none, "<", ">"
    if (marker != 0) {
      parts.push_back(marker == 1 ? NodePath::GetInputsId() : NodePath::GetOutputsId());
      for (uint32_t i = random.Below(4); i > 0; --i) parts.push_back(random.PartName());
    }
    const NodePath path = Must(NodePath::Create(parts));
    const std::string text = path.ToString();
    const Result<NodePath> back = NodePath::Parse(text, marker != 0);
    ASSERT_TRUE(back) << text << ": " << ErrorOf(back);
    ASSERT_EQ(*back, path) << text;
    EXPECT_EQ(back->GetKindRaw(), path.GetKindRaw());
    EXPECT_EQ(path.GetHashCode(), NodePath::HashBlock(parts));
    if (marker != 0) {
      EXPECT_EQ(ErrorOf(NodePath::Parse(text, false)),
                "Path " + text + " contains port list identifier.");
    }
  }
}

TEST(NodePathRoundTrip, WhatParsesReparsesFromItsStringForm) {
  RandomText random(7002);
  int parsed = 0;
  for (int round = 0; round < 20000; ++round) {
    const Result<NodePath> first = NodePath::Parse(random.Text(8));
    if (!first) continue;
    ++parsed;
    const Result<NodePath> second = NodePath::Parse(first->ToString());
    ASSERT_TRUE(second) << first->ToString();
    ASSERT_EQ(*second, *first);
    EXPECT_EQ(second->ToString(), first->ToString());
  }
  EXPECT_GT(parsed, 1000);  // the alphabet must not make nearly everything fail
}

TEST(NodePathHash, FollowsTheFormulaAndFindsEqualPathsInASet) {
  const uint64_t va = Id("a").GetHashWord() & ~(uint64_t(1) << 43);
  const uint64_t vb = Id("b").GetHashWord() & ~(uint64_t(1) << 43);
  EXPECT_EQ(P("a/b").GetHashCode(), (va + 1) * 0xbf58476d1ce4e5b9ULL + vb + 1);
  EXPECT_EQ(NodePath::HashBlock(Parts{Id("a"), InternedId()}),
            (va + 1) * 0xbf58476d1ce4e5b9ULL + 1);
  std::unordered_set<NodePath> set{P("n/m<p/q"), P("")};
  EXPECT_EQ(set.count(P("n/m<p/q")) + set.count(Must(NodePath::Alloc())), 2u);
  EXPECT_EQ(set.count(P("n/m<p")), 0u);
}

// Paths grown by Append, AppendBlock and AppendPath (in front) carry the hash
// and the kind of the whole block, and equal a path made of it in one go.
TEST(NodePathHash, IncrementalBuildsAgreeWithWholeBlocks) {
  std::mt19937 rng(20240611);
  const InternedId pool[] = {Id("a"), Id("b"), Id("c"), NodePath::GetInputsId(),
                             NodePath::GetOutputsId()};
  for (int round = 0; round < 300; ++round) {
    NodePath built;
    Parts parts;
    for (int i = int(rng() % 7); i > 0; --i) {
      Parts chunk;
      for (int j = int(rng() % 3); j > 0; --j) chunk.push_back(pool[rng() % 5]);
      const uint32_t how = rng() % 3;
      if (how == 0 && !chunk.empty()) {
        chunk.resize(1);
        built = Must(built.Append(chunk[0]));
      } else if (how == 2) {
        built = Must(Must(NodePath::CreateUnchecked(chunk)).AppendPath(built));
        parts.insert(parts.begin(), chunk.begin(), chunk.end());
        continue;
      } else {
        built = Must(built.AppendBlock(chunk));
      }
      parts.insert(parts.end(), chunk.begin(), chunk.end());
    }
    const NodePath whole = Must(NodePath::CreateUnchecked(parts));
    ASSERT_EQ(built.ToString(), whole.ToString());
    EXPECT_EQ(built.GetHashCode(), NodePath::HashBlock(parts));
    EXPECT_EQ(built.GetKindRaw(), NodePath::KindOfBlock(parts));
    EXPECT_EQ(built, whole);
  }
}

TEST(NodePathOrder, FollowsThePartStringsNotTheHash) {
  EXPECT_LT(P("a"), P("a/b"));
  EXPECT_LT(P("B"), P("a"));  // bytewise
  EXPECT_LT(P("a<x"), P("a>x"));
  EXPECT_GT(P("ab"), P("a/b"));
  // A null part sorts before any other, the empty id included.
  EXPECT_LT(Must(NodePath::CreateUnchecked(Parts{InternedId()})),
            Must(NodePath::CreateUnchecked(Parts{Id("")})));
  std::vector<std::string> names;
  std::vector<NodePath> paths;
  for (int i = 0; i < 200; ++i) {
    names.push_back("n" + std::to_string(i * 7919 % 1000));
    paths.push_back(P(names.back()));
  }
  std::sort(paths.begin(), paths.end());
  std::sort(names.begin(), names.end());
  for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(paths[i].ToString(), names[i]);
}

TEST(NodePathSections, SlicesCountFromTheEndAndShareWhatTheyCan) {
  const NodePath path = P("a/b/c/d");
  EXPECT_EQ(Must(path.Slice(1, NodePath::SliceEnd(-2))).ToString(), "b/c");
  EXPECT_EQ(Must(path.Slice(-3, NodePath::SliceCount(2))).ToString(), "c/d");
  EXPECT_EQ(Must(P("a<b/c").Slice(1, NodePath::SliceCount(2))).GetKindRaw(), NODE_KIND::INPORT);
  EXPECT_TRUE(Must(path.Slice(-5, NodePath::SliceCount(4))).IsSameObject(path));
  EXPECT_TRUE(Must(path.Slice(4, NodePath::SliceCount(0))).IsNull());
  EXPECT_TRUE(Must(Must(NodePath().AppendPath(path)).AppendBlock({})).IsSameObject(path));
  EXPECT_EQ(Must(P(">o/p").GetTopLevelPort()).ToString(), ">o");
  EXPECT_TRUE(P("a<b").EqualsConcatenation(Parts{Id("a")}, P("<b").ToBlock()));
  EXPECT_FALSE(NodePath().EqualsConcatenation(Parts{Id("a")}, {}));
  EXPECT_TRUE(NodePath().EqualsConcatenation(Parts{Id("a")}, {}, true));
}

// Run under the thread sanitizer (preset tsan) for the reference count.
TEST(NodePathSharing, HandlesCopiedAcrossThreadsReleaseTheirReferences) {
  const NodePath path = P("shared/path<x");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        NodePath copy = path;
        NodePath moved = std::move(copy);
        EXPECT_EQ(Must(moved.GetTopLevelPort()).ToString(), "shared/path<x");
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(path.GetReferenceCount(), 1u);
}

}  // namespace
}  // namespace orvix
