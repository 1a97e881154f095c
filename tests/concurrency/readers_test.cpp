// Readers of a finished system on several threads while another thread
// copies it and edits the copies. A finished system is read without locks,
// and a copy shares the frozen layers of its map with the original, so every
// read must see exactly what it saw before any thread started, whatever the
// writer does to its copies. Meant to run under the thread sanitizer too.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <latch>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "must.h"
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

NodePath P(std::string_view text) {
  return Must(NodePath::Parse(text));
}
std::string N(int i) {
  return "n" + std::to_string(i);
}
template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("(ok)") : r.GetError().GetMessage();
}

Result<void> Connect(NodeSystem& s, std::string_view from, std::string_view to, uint32_t channel,
                     WIRE_MODE mode = WIRE_MODE::NORMAL) {
  return s.Connect(s.FindByPath(P(from)), s.FindByPath(P(to)), Wires().With(channel, mode),
                   nullptr);
}
Result<bool> Set(NodeSystem& s, std::string_view path, std::string_view id, Data value) {
  return s.SetValue(s.FindByPath(P(path)), InternedId::Get(id), std::move(value), nullptr);
}
Result<GNode> AddPort(NodeSystem& s, std::string_view parent, std::string_view id) {
  return s.AddPort(s.FindByPath(P(parent)), id, GNODE_FLAGS::NONE, nullptr);
}
Result<void> Remove(NodeSystem& s, std::string_view path) {
  return s.FindByPath(P(path)) ? s.Remove(s.FindByPath(P(path)), nullptr) : Ok();
}

// <x -> n0<a, n(i)>o -> n(i+1)<a, n5>o -> >out, <y -> n(i)<b, and nested
// ports at both ends of <x -> n0<a so that an implicit wire is read too.
Result<Ref<NodeSystem>> MakeGraph() {
  ORVIX_TRY_ASSIGN(Ref<NodeSystemClass> cls, CreateDefaultNodeSystemClass());
  ORVIX_TRY_ASSIGN(MutableRoot op, cls->CreateNodeSystem());
  for (const char* port : {"a", "b"}) ORVIX_TRY(AddPort(*op._system, "<", port));
  ORVIX_TRY(AddPort(*op._system, ">", "o"));
  ORVIX_TRY_ASSIGN(Ref<NodeSystem> operation, op.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));

  ORVIX_TRY_ASSIGN(MutableRoot root, cls->CreateNodeSystem());
  NodeSystem& g = *root._system;
  for (auto [list, id] : {std::pair{"<", "x"}, {"<", "y"}, {">", "out"}, {"<x", "gain"}}) {
    ORVIX_TRY(AddPort(g, list, id));
  }
  for (int i = 0; i < NODES; ++i) {
    ORVIX_TRY(g.AddChild(N(i), operation, nullptr));
    ORVIX_TRY(Connect(g, "<y", N(i) + "<b", 0));
    ORVIX_TRY(Set(g, N(i), "label", Data("node " + std::to_string(i))));
    ORVIX_TRY(Set(g, N(i) + "<b", "scale", Data(int64_t{i})));
    if (i > 0) ORVIX_TRY(Connect(g, N(i - 1) + ">o", N(i) + "<a", 0));
  }
  ORVIX_TRY(AddPort(g, "n0<a", "gain"));
  ORVIX_TRY(Connect(g, "<x", "n0<a", 0));
  ORVIX_TRY(Connect(g, N(NODES - 1) + ">o", ">out", 0));
  ORVIX_TRY(Set(g, "<x", "default", Data(2.5)));
  return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
}

// A system derived from `graph` with a small delta: a value overridden, a
// node hidden, a wire and a port of its own. Everything else is read through
// the base.
Result<Ref<NodeSystem>> MakeDerived(const Ref<NodeSystem>& graph) {
  Ref<NodeSystemImpl> base(static_cast<NodeSystemImpl*>(graph.Get()));
  ORVIX_TRY_ASSIGN(Ref<NodeSystem> derived, NodeSystemImpl::CreateDerived(std::move(base)));
  ORVIX_TRY_ASSIGN(MutableRoot root, BeginModification(derived));
  NodeSystem& d = *root._system;
  ORVIX_TRY(Set(d, "<x", "default", Data(9.0)));
  ORVIX_TRY(Remove(d, "n3"));
  ORVIX_TRY(Connect(d, "<x", "n4<a", 1));
  ORVIX_TRY(AddPort(d, "<", "z"));
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
    for (const char* id : {"default", "label", "scale"}) {
      ORVIX_TRY_ASSIGN(const Data* value, s.GetValue(found, InternedId::Get(id)));
      if (!value->IsEmpty()) line += std::string(" ") + id + "=" + value->ToString();
    }
    for (const PORT_DIR dir : {PORT_DIR::INPUT, PORT_DIR::OUTPUT}) {
      if (!HasAny(found.GetKind(), NODE_KIND::PORT_MASK)) break;
      const bool in = dir == PORT_DIR::INPUT;
      ORVIX_TRY(s.GetConnections(
          found, dir, WIRES_FILTER_ALL_INCLUDING_IMPLICIT, GET_CONNECTIONS_MODE::CONNECTIONS,
          [&](const GNode& other, Wires w, const Ref<ConnectionAttributes>&) -> Result<bool> {
            ORVIX_TRY_ASSIGN(Wires stored,
                             in ? s.GetConnection(other, found) : s.GetConnection(found, other));
            out[path + (in ? " <- " : " -> ") + other.path.ToString()] =
                w.ToString() + " stored " + stored.ToString();
            return true;
          }));
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
  const uint32_t kind = random() % 4;
  if (kind == 0) ORVIX_TRY(AddPort(c, "<y", "extra"));
  if (kind == 1) ORVIX_TRY(Remove(c, "<x/gain"));
  if (kind == 2) ORVIX_TRY(c.ResetValue(c.FindByPath(P("n1")), InternedId::Get("label"), nullptr));
  if (kind == 3) ORVIX_TRY(Set(c, "<x", "scale", Data()));
  if (c.FindByPath(P(node + "<b"))) {
    // Unwire the node from <y, and wire it on a channel of its own.
    ORVIX_TRY(Connect(c, "<y", node + "<b", 0, WIRE_MODE::REMOVE));
    ORVIX_TRY(Connect(c, "<x", node + "<b", 2));
  }
  if (removeNode) ORVIX_TRY(Remove(c, node));
  ORVIX_TRY_ASSIGN(mine, edit.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));

  const Data* read = Must(mine->GetValue(mine->FindByPath(P("<x")), InternedId::Get("default")));
  if (*read != Data(value) || (removeNode && mine->FindByPath(P(node)))) {
    return Error(ERROR_CLASS::UNEXPECTED,
                 "the copy lost an edit in round " + std::to_string(round));
  }
  // Every fourth round: copies of the copy, each edited while the one before
  // is still held, stack a layer apiece; once they are dropped the deep map
  // is compacted, which reads the layers it shares with `source`.
  if (round % 4 != 0) return Ok();
  std::vector<Ref<NodeSystem>> older;
  for (int64_t layer = 0; layer < 6; ++layer) {
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

TEST(ConcurrentReaders, SeeTheStateTheyStartedWithWhileCopiesAreEdited) {
  const Result<Ref<NodeSystem>> graph = MakeGraph();
  ASSERT_TRUE(graph) << Message(graph);
  const Result<Ref<NodeSystem>> derived = MakeDerived(*graph);
  ASSERT_TRUE(derived) << Message(derived);
  const Ref<NodeSystem> systems[2] = {*graph, *derived};
  const Picture before[2] = {Must(Take(*systems[0])), Must(Take(*systems[1]))};
  // The derived system shows its delta over what the base shows.
  ASSERT_TRUE(before[0].contains("n3<a") && !before[1].contains("n3<a"));
  ASSERT_TRUE(before[1].contains("<x -> n4<a") && before[1].contains("n0<a/gain <- <x/gain"));
  // Handles made before the threads start, shared by all of them: current
  // handles are read without a lookup, one of them in the base's record.
  const std::tuple<GNode, const char*, Data> shared[] = {
      {systems[1]->FindByPath(P("<x")), "default", Data(9.0)},
      {systems[1]->FindByPath(P("n5")), "label", Data("node 5")}};

  std::latch start(READERS + 1);
  std::atomic<bool> writerDone = false;
  std::vector<std::string> mismatches(READERS);  // the first one each reader saw
  std::vector<std::thread> threads;
  for (int r = 0; r < READERS; ++r) {
    threads.emplace_back([&, r] {
      start.arrive_and_wait();
      for (int passes = 0; !writerDone.load() || passes < MIN_PASSES; ++passes) {
        const int which = (passes + r) % 2;
        const Result<Picture> now = Take(*systems[which]);
        std::string difference = now ? "" : Message(now);
        if (now && *now != before[which]) {
          const auto [want, got] =
              std::mismatch(before[which].begin(), before[which].end(), now->begin(), now->end());
          difference = want == before[which].end() ? "extra " + got->first : "at " + want->first;
        }
        for (const auto& [handle, id, value] : shared) {
          const Data* read = Must(systems[1]->GetValue(handle, InternedId::Get(id)));
          if (*read != value) difference = std::string("a shared handle read another ") + id;
        }
        if (mismatches[r].empty()) mismatches[r] = difference;
      }
    });
  }
  Result<void> written = Ok();
  threads.emplace_back([&] {
    std::mt19937 random(20261122);
    start.arrive_and_wait();
    for (int round = 0; round < WRITER_ROUNDS && written; ++round) {
      written = EditCopy(systems[round % 2], random, round);
    }
    writerDone = true;
  });
  for (std::thread& t : threads) t.join();

  EXPECT_TRUE(written) << Message(written);
  EXPECT_EQ(mismatches, std::vector<std::string>(READERS));
  for (int i : {0, 1}) EXPECT_EQ(Must(Take(*systems[i])), before[i]);
}

}  // namespace
}  // namespace orvix::nodes::test
