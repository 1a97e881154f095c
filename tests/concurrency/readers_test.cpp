// Readers of a finished system on several threads while another thread
// copies it and edits the copies. A finished system is read without locks,
// and a copy shares the frozen layers of its map with the original, so every
// read must see exactly what it saw before any thread started, whatever the
// writer does to its copies. Meant to run under the thread sanitizer too.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <latch>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"

namespace orvix::nodes::test {
namespace {

constexpr int NODES = 6;
constexpr int READERS = 4;
// Fixed counts, not durations: readers go on until the writer is through and
// they have done at least MIN_PASSES each.
constexpr int WRITER_ROUNDS = 120;
constexpr int MIN_PASSES = 20;
// Enough stacked copies for Compact to flatten the map.
constexpr int64_t DEPTH_FOR_COMPACT = 6;
constexpr int STACK_EVERY = 4;
const char* const VALUE_IDS[] = {"default", "label", "scale"};

NodePath P(std::string_view text) { return NodePath::Parse(text).Value(); }
InternedId Id(std::string_view text) { return InternedId::Get(text); }
std::string N(int i) { return "n" + std::to_string(i); }
Wires Channel(uint32_t channel, WIRE_MODE mode = WIRE_MODE::NORMAL) {
  return Wires().With(channel, mode);
}

template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("(ok)") : r.GetError().GetMessage();
}

Result<void> Connect(NodeSystem& s, std::string_view from, std::string_view to, Wires w) {
  return s.Connect(s.FindByPath(P(from)), s.FindByPath(P(to)), w, nullptr);
}
Result<bool> Set(NodeSystem& s, std::string_view path, std::string_view id, Data value) {
  return s.SetValue(s.FindByPath(P(path)), Id(id), std::move(value), nullptr);
}

// <x -> n0<a, n(i)>o -> n(i+1)<a, n5>o -> >out, <y -> n(i)<b, and nested
// ports at both ends of <x -> n0<a so that an implicit wire is read too.
Result<Ref<NodeSystem>> MakeGraph() {
  ORVIX_TRY_ASSIGN(Ref<NodeSystemClass> cls, CreateDefaultNodeSystemClass());
  ORVIX_TRY_ASSIGN(MutableRoot op, cls->CreateNodeSystem());
  for (auto [list, id] : {std::pair{"<", "a"}, {"<", "b"}, {">", "o"}}) {
    ORVIX_TRY(op._system->AddPort(op._system->FindByPath(P(list)), id, GNODE_FLAGS::NONE, nullptr));
  }
  ORVIX_TRY_ASSIGN(Ref<NodeSystem> operation, op.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));

  ORVIX_TRY_ASSIGN(MutableRoot root, cls->CreateNodeSystem());
  NodeSystem& g = *root._system;
  for (auto [list, id] : {std::pair{"<", "x"}, {"<", "y"}, {">", "out"}, {"<x", "gain"}}) {
    ORVIX_TRY(g.AddPort(g.FindByPath(P(list)), id, GNODE_FLAGS::NONE, nullptr));
  }
  for (int i = 0; i < NODES; ++i) {
    ORVIX_TRY(g.AddChild(N(i), operation, nullptr));
    ORVIX_TRY(Connect(g, "<y", N(i) + "<b", Channel(0)));
    ORVIX_TRY(Set(g, N(i), "label", Data("node " + std::to_string(i))));
    ORVIX_TRY(Set(g, N(i) + "<b", "scale", Data(int64_t{i})));
    if (i > 0) ORVIX_TRY(Connect(g, N(i - 1) + ">o", N(i) + "<a", Channel(0)));
  }
  ORVIX_TRY(g.AddPort(g.FindByPath(P("n0<a")), "gain", GNODE_FLAGS::NONE, nullptr));
  ORVIX_TRY(Connect(g, "<x", "n0<a", Channel(0)));
  ORVIX_TRY(Connect(g, N(NODES - 1) + ">o", ">out", Channel(0)));
  ORVIX_TRY(Set(g, "<x", "default", Data(2.5)));
  return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
}

// A system derived from `graph` with a small delta: a value overridden, a
// node hidden, a wire and a port of its own. Everything else is read through
// the base.
Result<Ref<NodeSystem>> MakeDerived(const Ref<NodeSystem>& graph) {
  Ref<NodeSystemImpl> base(static_cast<NodeSystemImpl*>(graph.Get()));
  ORVIX_TRY_ASSIGN(Ref<NodeSystemImpl> made, NodeSystemImpl::CreateDerived(std::move(base)));
  Ref<NodeSystem> derived = made;
  made.Reset();
  ORVIX_TRY_ASSIGN(MutableRoot root, BeginModification(derived));
  NodeSystem& d = *root._system;
  ORVIX_TRY(Set(d, "<x", "default", Data(9.0)));
  ORVIX_TRY(d.Remove(d.FindByPath(P("n3")), nullptr));
  ORVIX_TRY(Connect(d, "<x", "n4<a", Channel(1)));
  ORVIX_TRY(d.AddPort(d.FindByPath(P("<")), "z", GNODE_FLAGS::NONE, nullptr));
  return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
}

// Everything a reader can learn about a system, one line per fact: each
// element the child walk finds, looked up again by path, with its flags,
// values and effective connections (implicit ones too), and each connection
// read once more from its pair of ends.
using Picture = std::map<std::string, std::string>;

Result<void> Describe(const NodeSystem& s, const GNode& parent, Picture& out) {
  ChildIterator it;
  ORVIX_TRY_ASSIGN(GNode child, s.GetFirstChild(parent, it));
  while (child) {
    const std::string path = child.path.ToString();
    const GNode found = s.FindByPath(child.path);
    ORVIX_TRY_ASSIGN(GNODE_FLAGS flags, s.GetFlags(found));
    std::string& line = out[path];
    line = std::string(ToString(found.GetKind())) + " " + std::string(ToString(flags));
    for (const char* id : VALUE_IDS) {
      ORVIX_TRY_ASSIGN(const Data* value, s.GetValue(found, Id(id)));
      if (!value->IsEmpty()) line += std::string(" ") + id + "=" + value->ToString();
    }
    if (HasAny(found.GetKind(), NODE_KIND::PORT_MASK)) {
      for (const PORT_DIR dir : {PORT_DIR::INPUT, PORT_DIR::OUTPUT}) {
        const bool in = dir == PORT_DIR::INPUT;
        ORVIX_TRY(s.GetConnections(
            found, dir, WIRES_FILTER_ALL_INCLUDING_IMPLICIT, GET_CONNECTIONS_MODE::CONNECTIONS,
            [&](const GNode& other, Wires w, const Ref<ConnectionAttributes>&) -> Result<bool> {
              ORVIX_TRY_ASSIGN(Wires stored, in ? s.GetConnection(other, found)
                                                : s.GetConnection(found, other));
              out[path + (in ? " <- " : " -> ") + other.path.ToString()] =
                  w.ToString() + " stored " + stored.ToString();
              return true;
            }));
      }
    }
    ORVIX_TRY(Describe(s, child, out));
    ORVIX_TRY_ASSIGN(child, s.GetNextChild(it));
  }
  return Ok();
}

Result<Picture> Take(const NodeSystem& s) {
  Picture picture{{"(stamp)", std::to_string(s.GetModificationStamp())}};
  ORVIX_TRY(Describe(s, s.GetRoot(), picture));
  return picture;
}

// The first difference of two pictures, for the failure message.
std::string FirstDifference(const Picture& expected, const Picture& actual) {
  for (const auto& [key, line] : expected) {
    auto it = actual.find(key);
    if (it == actual.end()) return "missing " + key;
    if (it->second != line) return key + ": " + it->second + ", expected " + line;
  }
  for (const auto& [key, line] : actual) {
    if (!expected.contains(key)) return "extra " + key + ": " + line;
  }
  return "(none)";
}

// One round of the writer: copy `source` by beginning to modify it, make a
// few random edits, end, and check that the copy took them.
Result<void> EditCopy(const Ref<NodeSystem>& source, std::mt19937& random, int round) {
  Ref<NodeSystem> mine = source;
  ORVIX_TRY_ASSIGN(MutableRoot edit, BeginModification(mine));
  if (edit._system.Get() == source.Get()) {
    return Error(ERROR_CLASS::UNEXPECTED, "a shared system was edited in place");
  }
  NodeSystem& c = *edit._system;
  const std::string node = N(std::uniform_int_distribution<int>(0, NODES - 1)(random));
  const bool removeNode = c.FindByPath(P(node)) && random() % 3 == 0;
  const double value = round + 0.5;
  ORVIX_TRY(Set(c, "<x", "default", Data(value)));
  ORVIX_TRY(Set(c, "<y", "label", Data("round " + std::to_string(round))));
  switch (random() % 4) {
    case 0:
      ORVIX_TRY(c.AddPort(c.FindByPath(P("<y")), "extra", GNODE_FLAGS::NONE, nullptr));
      break;
    case 1:
      if (c.FindByPath(P("<x/gain"))) ORVIX_TRY(c.Remove(c.FindByPath(P("<x/gain")), nullptr));
      break;
    case 2:
      ORVIX_TRY(c.ResetValue(c.FindByPath(P("n1")), Id("label"), nullptr));
      break;
    default:
      ORVIX_TRY(c.SetValue(c.FindByPath(P("<x")), Id("scale"), Data(), nullptr));
      break;
  }
  if (c.FindByPath(P(node + "<b"))) {
    // Unwire the node from <y, and wire it on a channel of its own.
    ORVIX_TRY(Connect(c, "<y", node + "<b", Channel(0, WIRE_MODE::REMOVE)));
    ORVIX_TRY(Connect(c, "<x", node + "<b", Channel(2)));
  }
  if (removeNode) ORVIX_TRY(c.Remove(c.FindByPath(P(node)), nullptr));
  ORVIX_TRY_ASSIGN(mine, edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  edit._system.Reset();

  const Data* read = mine->GetValue(mine->FindByPath(P("<x")), Id("default")).Value();
  if (*read != Data(value) || (removeNode && mine->FindByPath(P(node)))) {
    return Error(ERROR_CLASS::UNEXPECTED, "the copy lost an edit in round " + std::to_string(round));
  }
  // Now and then: copies of the copy, each edited while the one before is
  // still held, stack a layer apiece; once they are dropped the deep map is
  // compacted, which reads the layers it shares with `source`.
  if (round % STACK_EVERY != 0) return Ok();
  std::vector<Ref<NodeSystem>> older;
  for (int64_t layer = 0; layer < DEPTH_FOR_COMPACT; ++layer) {
    older.push_back(mine);
    ORVIX_TRY_ASSIGN(MutableRoot again, BeginModification(mine));
    ORVIX_TRY(Set(*again._system, "<x", "label", Data(layer)));
    ORVIX_TRY_ASSIGN(mine, again.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  }
  older.clear();
  ORVIX_TRY(mine->Compact());
  if (static_cast<const NodeSystemImpl&>(*mine).GetDepth() > 2) {
    return Error(ERROR_CLASS::UNEXPECTED, "the stacked copies weren't compacted");
  }
  return Ok();
}

struct Reader {
  int passes = 0;
  int mismatches = 0;
  std::string first;
};

TEST(ConcurrentReaders, SeeTheStateTheyStartedWithWhileCopiesAreEdited) {
  const Result<Ref<NodeSystem>> madeGraph = MakeGraph();
  ASSERT_TRUE(madeGraph) << Message(madeGraph);
  const Ref<NodeSystem> graph = *madeGraph;
  const Result<Ref<NodeSystem>> madeDerived = MakeDerived(graph);
  ASSERT_TRUE(madeDerived) << Message(madeDerived);
  const Ref<NodeSystem> derived = *madeDerived;

  const Picture graphBefore = Take(*graph).Value();
  const Picture derivedBefore = Take(*derived).Value();
  // The derived system shows its delta over what the base shows.
  ASSERT_TRUE(graphBefore.contains("n3<a"));
  ASSERT_FALSE(derivedBefore.contains("n3<a"));
  ASSERT_TRUE(derivedBefore.contains("<x -> n4<a"));
  ASSERT_TRUE(derivedBefore.contains("n0<a/gain <- <x/gain"));
  ASSERT_NE(graphBefore.at("<x"), derivedBefore.at("<x"));
  // Handles made before the threads start, shared by all of them: current
  // handles are read without a lookup.
  const GNode sharedX = derived->FindByPath(P("<x"));
  const GNode sharedLabel = derived->FindByPath(P("n5"));

  std::latch start(READERS + 1);
  std::atomic<bool> writerDone = false;
  std::vector<Reader> readers(READERS);
  std::vector<std::thread> threads;
  for (int r = 0; r < READERS; ++r) {
    threads.emplace_back([&, r] {
      Reader& me = readers[r];
      start.arrive_and_wait();
      while (!writerDone.load() || me.passes < MIN_PASSES) {
        const bool ofDerived = (me.passes + r) % 2 == 1;
        const Result<Picture> now = Take(ofDerived ? *derived : *graph);
        const Picture& expected = ofDerived ? derivedBefore : graphBefore;
        std::string difference;
        if (!now) difference = Message(now);
        else if (*now != expected) difference = FirstDifference(expected, *now);
        else if (*derived->GetValue(sharedX, Id("default")).Value() != Data(9.0) ||
                 *derived->GetValue(sharedLabel, Id("label")).Value() != Data("node 5")) {
          difference = "a shared handle read another value";
        }
        if (!difference.empty() && me.mismatches++ == 0) me.first = difference;
        ++me.passes;
      }
    });
  }
  Result<void> written = Ok();
  threads.emplace_back([&] {
    std::mt19937 random(20261122);
    start.arrive_and_wait();
    for (int round = 0; round < WRITER_ROUNDS && written; ++round) {
      written = EditCopy(round % 2 == 0 ? graph : derived, random, round);
    }
    writerDone = true;
  });
  for (std::thread& t : threads) t.join();

  EXPECT_TRUE(written) << Message(written);
  for (const Reader& reader : readers) {
    EXPECT_GE(reader.passes, MIN_PASSES);
    EXPECT_EQ(reader.mismatches, 0) << reader.first;
  }
  EXPECT_EQ(Take(*graph).Value(), graphBefore);
  EXPECT_EQ(Take(*derived).Value(), derivedBefore);
}

}  // namespace
}  // namespace orvix::nodes::test
