#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/host/format.h"

namespace orvix {

// Failures show paths in their string form. Internal linkage, found by
// argument-dependent lookup.
static void PrintTo(const NodePath& path, std::ostream* os) {
  *os << '"' << path.ToString() << '"';
}

namespace {

using namespace std::string_literals;

InternedId Id(std::string_view text) {
  return InternedId::Get(text);
}

NodePath P(std::string_view text) {
  Result<NodePath> r = NodePath::Parse(text);
  EXPECT_TRUE(r) << "parse of '" << text << "': " << (r ? "" : r.GetError().GetMessage());
  return r ? *r : NodePath();
}

NodePath Make(std::vector<InternedId> parts) {
  Result<NodePath> r = NodePath::CreateUnchecked(parts);
  EXPECT_TRUE(r);
  return r ? *r : NodePath();
}

std::string ErrorOf(const Result<NodePath>& r) {
  return r ? "(no error: " + r->ToString() + ")" : r.GetError().GetMessage();
}

std::vector<std::string> Texts(const NodePath& path) {
  std::vector<std::string> out;
  for (InternedId part : path.ToBlock()) out.emplace_back(part.GetString());
  return out;
}

// --- Kinds and flag words.

TEST(NodeKind, TextFormsNameEverySetBit) {
  EXPECT_EQ(ToString(NODE_KIND::NONE), "NONE");
  EXPECT_EQ(ToString(static_cast<NODE_KIND>(0x41)), "NODE|0x40");
  using F = GNODE_FLAGS_IMPL;
  // Bit 19 takes its name from the kind kept in the same word; bit order holds.
  EXPECT_EQ(ToString(WithKind(F::DIRECT_INSTANCE | F::SHORTCUT_STOP, NODE_KIND::NODE)),
            "NODE|SHORTCUT_STOP|DIRECT_INSTANCE");
  EXPECT_EQ(ToString(WithKind(F::HAS_SOURCE_SHORTCUTS | F::TAPPING_PORT, NODE_KIND::INPORT)),
            "INPORT|TAPPING_PORT|HAS_SOURCE_SHORTCUTS");
}

TEST(NodeKind, StoredWordKeepsKindAndPublicFlagsApart) {
  using F = GNODE_FLAGS_IMPL;
  F word = WithKind(F::TAPPING_PORT | F::MODIFIED_TOPOLOGY | F::SHORTCUT_STOP, NODE_KIND::OUTPORT);
  EXPECT_EQ(ToPublicFlags(word), GNODE_FLAGS::TAPPING_PORT);
  word = WithKind(word, NODE_KIND::NODE);
  EXPECT_EQ(GetKind(word), NODE_KIND::NODE);
  EXPECT_TRUE(HasAll(word, F::TAPPING_PORT | F::MODIFIED_TOPOLOGY | F::SHORTCUT_STOP));
}

// --- Parsing and the string form.

TEST(NodePathParse, KindsOfTheEdgeCases) {
  const std::pair<const char*, NODE_KIND> cases[] = {
      {"<", NODE_KIND::INPUTS},    {">", NODE_KIND::OUTPUTS},    {"<a", NODE_KIND::INPORT},
      {"<a/b", NODE_KIND::INPORT}, {">a", NODE_KIND::OUTPORT},   {"a", NODE_KIND::NODE},
      {"a/b", NODE_KIND::NODE},    {"a/b>", NODE_KIND::OUTPUTS}, {"a>x/y", NODE_KIND::OUTPORT},
  };
  for (auto [text, kind] : cases) {
    NodePath path = P(text);
    EXPECT_EQ(path.GetKindRaw(), kind) << text;
    EXPECT_EQ(path.GetKind(), kind) << text;
    EXPECT_EQ(path.GetKindRaw(), NodePath::KindOfBlock(path.ToBlock())) << text;
    EXPECT_EQ(path.ToString(), text);
  }
}

TEST(NodePathParse, EmptyStringIsTheRootAndEqualsOnlyEmptyPaths) {
  NodePath root = P("");
  EXPECT_TRUE(root.IsNull());
  EXPECT_EQ(root.ToString(), "");
  EXPECT_EQ(root.GetKindRaw(), NODE_KIND::NODE);
  EXPECT_EQ(root.GetKind(), NODE_KIND::NONE);
  EXPECT_EQ(root.GetKind(true), NODE_KIND::NODE);
  EXPECT_EQ(root.GetHashCode(), 0u);
  NodePath allocated = *NodePath::Alloc();
  EXPECT_FALSE(allocated.IsNull());
  EXPECT_EQ(allocated, root);
  EXPECT_EQ(allocated.GetHashCode(), 0u);
  EXPECT_EQ(allocated.Compare(root), 0);
  EXPECT_NE(root, P("a"));
  EXPECT_NE(P("a"), root);
  EXPECT_EQ(P("a").Compare(root), 1);
  EXPECT_EQ(root.Compare(P("a")), -1);
}

// The random round trips cover escapes; these are the forms that don't come back.
TEST(NodePathParse, SeparatorsAndMarkers) {
  EXPECT_EQ(Texts(P("a</b")), (std::vector<std::string>{"a", "<", "b"}));
  // A NUL ends the scan; an escaped one stays in the part.
  EXPECT_EQ(Texts(P("a\0b"s)), (std::vector<std::string>{"a"}));
  EXPECT_EQ(Texts(P("a\\\0b"s)), (std::vector<std::string>{"a\0b"s}));
  // An escaped marker interns to the reserved id, so it is the marker.
  EXPECT_EQ(P("a/\\<"), P("a<"));
  EXPECT_EQ(P("a/\\<").GetKindRaw(), NODE_KIND::INPUTS);
}

TEST(NodePathParse, EveryMessageWordForWord) {
  const std::pair<const char*, const char*> cases[] = {
      {"a//b", "Path a//b contains an empty part."},
      {"/a", "Path /a contains an empty part."},
      {"a/", "Path a/ contains an empty part."},
      {"a<//b", "Path a<//b contains an empty part."},
      {"a<b>c", "Path a<b>c contains more than one port list identifier."},
      {"a<b/\\>", "Path a<b/\\> contains more than one port list identifier."},
      {"a\\", "Path a\\ contains escape character at the end."},
  };
  for (auto [text, message] : cases) {
    Result<NodePath> r = NodePath::Parse(text);
    EXPECT_EQ(ErrorOf(r), message);
    if (!r) {
      EXPECT_EQ(r.GetError().GetClass(), ERROR_CLASS::ILLEGAL_ARGUMENT);
    }
  }
  EXPECT_EQ(ErrorOf(NodePath::Parse("a<b", false)), "Path a<b contains port list identifier.");
  EXPECT_EQ(ErrorOf(NodePath::Parse("a/\\<", false)), "Path a/\\< contains port list identifier.");
  EXPECT_TRUE(NodePath::Parse("a/b\\/c", false));

  EXPECT_EQ(ErrorOf(NodePath::Create(std::vector<InternedId>{Id("a"), InternedId()})),
            "The path contains an empty part.");
  EXPECT_EQ(ErrorOf(P("a").Append(InternedId())),
            "Illegal argument: Condition node.IsPopulated() not fulfilled. ");
  EXPECT_EQ(ErrorOf(P("a").Prepend(std::vector<InternedId>{InternedId()})),
            "The path contains an empty part.");
  EXPECT_EQ(ErrorOf(P("a/b").GetTopLevelPort()), "Path a/b doesn't point to a port.");
  EXPECT_EQ(ErrorOf(P("a<").GetTopLevelPort()), "Path a< doesn't point to a port.");
  EXPECT_EQ(ErrorOf(P("a/b").Slice(3, NodePath::SliceCount(0))), "Start position 3 out of bounds.");
  EXPECT_EQ(ErrorOf(P("a/b").Slice(-5, NodePath::SliceCount(0))),
            "Start position -5 out of bounds.");
}

TEST(NodePathParse, ParseToArrayAppendsAndLeavesTheArrayOnFailure) {
  std::vector<InternedId> parts{Id("a"), NodePath::GetInputsId()};
  ASSERT_TRUE(NodePath::ParseToArray("b/c", parts));
  EXPECT_EQ(*NodePath::Create(parts), P("a<b/c"));
  const std::vector<InternedId> before = parts;
  Result<void> r = NodePath::ParseToArray("d>e", parts);
  ASSERT_FALSE(r);
  EXPECT_EQ(r.GetError().GetMessage(), "Path d>e contains more than one port list identifier.");
  EXPECT_EQ(parts, before);
  EXPECT_FALSE(NodePath::ParseToArray("x\\", parts));
  EXPECT_EQ(parts, before);
}

// Seeded, so that a failure repeats: random part names over an alphabet that
// is mostly the characters the string form escapes (and NUL, which ends a scan).
class RandomText {
 public:
  explicit RandomText(uint32_t seed) : _rng(seed) {}

  std::string Text(size_t maxLength, bool withMarkers) {
    static constexpr char ALPHABET[] = {'/', '\\', 'a', 'b', '.', '\0', '<', '>'};
    const size_t letters = withMarkers ? 8 : 6;
    std::string s(_rng() % (maxLength + 1), ' ');
    for (char& c : s) c = ALPHABET[_rng() % letters];
    return s;
  }
  // A non-empty name that isn't one of the reserved ids.
  std::string PartName() {
    for (;;) {
      std::string s = Text(6, true);
      if (!s.empty() && s != "<" && s != ">") return s;
    }
  }
  uint32_t Below(uint32_t n) { return _rng() % n; }

 private:
  std::mt19937 _rng;
};

TEST(NodePathRoundTrip, PartsSurviveStringFormAndParse) {
  RandomText random(7001);
  for (int round = 0; round < 3000; ++round) {
    std::vector<InternedId> parts;
    for (uint32_t i = random.Below(4); i > 0; --i) parts.push_back(Id(random.PartName()));
    const uint32_t marker = random.Below(3);  // none, "<", ">"
    if (marker != 0) {
      parts.push_back(marker == 1 ? NodePath::GetInputsId() : NodePath::GetOutputsId());
      for (uint32_t i = random.Below(4); i > 0; --i) parts.push_back(Id(random.PartName()));
    }
    const NodePath path = *NodePath::Create(parts);
    const std::string text = path.ToString();
    const Result<NodePath> back = NodePath::Parse(text, marker != 0);
    ASSERT_TRUE(back) << text << ": " << ErrorOf(back);
    ASSERT_EQ(*back, path) << text;
    EXPECT_EQ(back->Compare(path), 0);
    EXPECT_EQ(back->GetHashCode(), path.GetHashCode());
    EXPECT_EQ(back->GetKindRaw(), path.GetKindRaw());
    EXPECT_EQ(*path.ToCString(), text);
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
    const std::string text = random.Text(8, true);
    const Result<NodePath> first = NodePath::Parse(text);
    if (!first) continue;
    ++parsed;
    const Result<NodePath> second = NodePath::Parse(first->ToString());
    ASSERT_TRUE(second) << text << " -> " << first->ToString();
    ASSERT_EQ(*second, *first) << text;
    EXPECT_EQ(second->ToString(), first->ToString());
  }
  EXPECT_GT(parsed, 1000);  // the alphabet must not make nearly everything fail
}

// --- Hash and equality.

TEST(NodePathHash, FollowsTheFormulaAndMatchesTheBlock) {
  const InternedId a = Id("a"), b = Id("b");
  const uint64_t k = 0xbf58476d1ce4e5b9ULL;
  const uint64_t va = a.GetHashWord() & ~(uint64_t(1) << 43);
  const uint64_t vb = b.GetHashWord() & ~(uint64_t(1) << 43);
  EXPECT_EQ(P("a/b").GetHashCode(), (va + 1) * k + vb + 1);
  EXPECT_EQ(NodePath::HashBlock(std::vector<InternedId>{a, InternedId()}), (va + 1) * k + 1);

  const NodePath x = P("n/m<p/q");
  const NodePath y =
      *NodePath::Create(std::vector<InternedId>(x.ToBlock().begin(), x.ToBlock().end()));
  EXPECT_FALSE(x.IsSameObject(y));
  EXPECT_EQ(std::hash<NodePath>()(x), y.GetHashCode());
  std::unordered_set<NodePath> set{x, P("n/m"), P("")};
  EXPECT_EQ(set.count(y), 1u);
  EXPECT_EQ(set.count(NodePath()), 1u);
  EXPECT_EQ(set.count(P("n/m<p")), 0u);
}

TEST(NodePathHash, IncrementalBuildsAgreeWithWholeBlocks) {
  std::mt19937 rng(20240611);
  const InternedId pool[] = {Id("a"), Id("b"), Id("c"), NodePath::GetInputsId(),
                             NodePath::GetOutputsId()};
  for (int round = 0; round < 300; ++round) {
    NodePath built;
    std::vector<InternedId> parts;
    const int n = int(rng() % 7);
    for (int i = 0; i < n; ++i) {
      std::vector<InternedId> chunk;
      for (int j = int(rng() % 3); j > 0; --j) chunk.push_back(pool[rng() % 5]);
      switch (rng() % 3) {
        case 0:
          if (chunk.empty()) break;
          chunk.resize(1);
          built = *built.Append(chunk[0]);
          break;
        case 1:
          built = *built.AppendBlock(chunk);
          break;
        default: {
          NodePath front = *NodePath::CreateUnchecked(chunk);
          built = *front.AppendPath(built);
          parts.insert(parts.begin(), chunk.begin(), chunk.end());
          chunk.clear();
        }
      }
      parts.insert(parts.end(), chunk.begin(), chunk.end());
    }
    ASSERT_EQ(Texts(built), Texts(Make(parts)));
    EXPECT_EQ(built.GetHashCode(), NodePath::HashBlock(parts));
    EXPECT_EQ(built.GetKindRaw(), NodePath::KindOfBlock(parts));
    EXPECT_EQ(built, Make(parts));
  }
}

// --- Order.

TEST(NodePathOrder, FollowsThePartStringsNotTheHash) {
  EXPECT_EQ(P("a").Compare(P("a/b")), -1);
  EXPECT_EQ(P("a/b").Compare(P("a")), 1);
  EXPECT_EQ(P("b").Compare(P("a/z")), 1);
  EXPECT_EQ(P("B").Compare(P("a")), -1);  // bytewise
  EXPECT_EQ(P("a<x").Compare(P("a>x")), -1);
  EXPECT_EQ(P("ab").Compare(P("a/b")), 1);
  EXPECT_TRUE(P("a").LessThan(P("b")));
  EXPECT_TRUE(P("a").LessThanOrEqual(P("a")));
  EXPECT_FALSE(P("b").LessThanOrEqual(P("a")));
  EXPECT_TRUE(P("a") < P("a/b"));
  // A null part sorts before any other, the empty id included.
  EXPECT_EQ(Make({InternedId()}).Compare(Make({Id("")})), -1);

  // Sorting by Compare gives the order of the joined strings' parts, whatever
  // the hashes say.
  std::vector<std::string> names;
  for (int i = 0; i < 200; ++i) names.push_back("n" + std::to_string(i * 7919 % 1000));
  std::vector<NodePath> paths;
  for (const auto& n : names) paths.push_back(P(n));
  std::sort(paths.begin(), paths.end());
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return std::strcmp(a.c_str(), b.c_str()) < 0;
  });
  for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(paths[i].ToString(), names[i]);
}

// --- Slicing and sections.

TEST(NodePathSlice, StartCountEndAndSharing) {
  const NodePath path = P("a/b/c/d");
  auto slice = [&](int64_t start, int64_t packed) { return Texts(*path.Slice(start, packed)); };
  using V = std::vector<std::string>;
  EXPECT_EQ(slice(1, NodePath::SliceCount(2)), (V{"b", "c"}));
  EXPECT_EQ(slice(1, NodePath::SliceEnd(-2)), (V{"b", "c"}));
  EXPECT_EQ(slice(-3, NodePath::SliceCount(2)), (V{"c", "d"}));
  EXPECT_EQ(P("a<b/c").Slice(1, NodePath::SliceCount(2))->GetKindRaw(), NODE_KIND::INPORT);
  EXPECT_EQ(path.Slice(2, NodePath::SliceCount(2))->GetHashCode(), P("c/d").GetHashCode());
  EXPECT_TRUE(path.Slice(-5, NodePath::SliceCount(4))->IsSameObject(path));
  EXPECT_TRUE(path.Slice(4, NodePath::SliceCount(0))->IsNull());
  EXPECT_EQ(ErrorOf(path.Slice(-2, NodePath::SliceCount(2))),
            "Count 2 out of bounds for start position 3.");
  EXPECT_EQ(ErrorOf(path.Slice(3, NodePath::SliceEnd(2))),
            "Count -1 out of bounds for start position 3.");
}

TEST(NodePathSections, PortAndNodeParts) {
  const NodePath path = P("a<b/c");
  EXPECT_EQ(path.GetPortPart()->ToString(), "<b/c");
  EXPECT_EQ(path.GetPortPart()->GetKindRaw(), NODE_KIND::INPORT);
  EXPECT_EQ(path.GetNodePart()->ToString(), "a");
  EXPECT_EQ(path.GetTopLevelPort()->ToString(), "a<b");
  EXPECT_TRUE(path.GetPart(9).IsNull());
  const NodePath node = P("x/y");
  EXPECT_TRUE(node.GetNodePart()->IsSameObject(node));
  EXPECT_TRUE(node.GetPortPart()->IsNull());
  const NodePath rootPort = P(">o/p");
  EXPECT_TRUE(rootPort.GetPortPart()->IsSameObject(rootPort));
  EXPECT_TRUE(rootPort.GetNodePart()->IsNull());
  EXPECT_EQ(rootPort.GetTopLevelPort()->ToString(), ">o");
  const NodePath top = P("a<b");
  EXPECT_TRUE(top.GetTopLevelPort()->IsSameObject(top));
  EXPECT_FALSE(P("a<").IsTopLevelPort());
  EXPECT_TRUE(P(">b/c").IsRootPort());
  EXPECT_FALSE(P("<").IsRootPort());
  EXPECT_FALSE(P("a<b").IsRootPort());
  EXPECT_EQ(NodePath::CreateOutputPort(std::vector<InternedId>{Id("x"), Id("y")})->ToString(),
            ">x/y");
}

TEST(NodePathSections, StartsWithAndConcatenation) {
  const NodePath path = P("a/b<c");
  const std::vector<InternedId> ab{Id("a"), Id("b")};
  const std::vector<InternedId> portC{NodePath::GetInputsId(), Id("c")};
  EXPECT_TRUE(path.StartsWith(ab));
  EXPECT_FALSE(path.StartsWith(P("a/b<c/d")));
  EXPECT_TRUE(path.EqualsConcatenation(ab, portC));
  EXPECT_FALSE(path.EqualsConcatenation(portC, ab));
  EXPECT_FALSE(NodePath().EqualsConcatenation(ab, {}));
  EXPECT_TRUE(NodePath().EqualsConcatenation(ab, {}, true));
  EXPECT_FALSE(NodePath().EqualsConcatenation({}, portC, true));
}

TEST(NodePathCreate, EmptyArgumentsHandBackTheSameObject) {
  const NodePath path = P("a/b");
  EXPECT_TRUE(path.AppendBlock({})->IsSameObject(path));
  EXPECT_TRUE(path.Prepend({})->IsSameObject(path));
  EXPECT_TRUE(NodePath().AppendPath(path)->IsSameObject(path));
  EXPECT_EQ(*path.Prepend(std::vector<InternedId>{Id("r")}), P("r/a/b"));
  std::vector<InternedId> array{Id("a"), Id("b")};
  EXPECT_EQ(*NodePath::CreateFromArray(std::move(array)), path);
  EXPECT_TRUE(array.empty());
}

// --- Stored form and sharing.

TEST(NodePathStoredForm, DeclaresPathAndRebuildsFromIt) {
  IoDescription<NodePath> description;
  ASSERT_TRUE(NodePath::DescribeIO(description));
  ASSERT_EQ(description.GetMembers().size(), 1u);
  const auto& member = description.GetMembers()[0];
  EXPECT_EQ(member.name, "path");

  const NodePath original = P("n\\/1>o/p");
  const std::string stored = member.write(original);
  EXPECT_EQ(stored, "n\\/1>o/p");
  NodePath read;
  ASSERT_TRUE(member.read(read, stored));
  EXPECT_EQ(read, original);
  EXPECT_EQ(read.GetKindRaw(), NODE_KIND::OUTPORT);
  EXPECT_EQ(read.GetHashCode(), original.GetHashCode());

  Result<void> bad = member.read(read, "a<b<c");
  ASSERT_FALSE(bad);
  EXPECT_EQ(bad.GetError().GetMessage(), "Path a<b<c contains more than one port list identifier.");
  EXPECT_EQ(read, original);
}

// Run under the thread sanitizer (preset tsan) for the reference count.
TEST(NodePathSharing, HandlesCopiedAcrossThreadsReleaseTheirReferences) {
  const NodePath path = P("shared/path<x");
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        NodePath copy = path;
        NodePath moved = std::move(copy);
        if (!(moved == path) || moved.GetTopLevelPort()->ToString() != "shared/path<x")
          ++mismatches;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(path.GetReferenceCount(), 1u);
}

}  // namespace
}  // namespace orvix
