// Running out of memory in the middle of an edit. A scenario of edits on a
// copy of a finished graph runs once per allocation it makes, with that one
// allocation failing. Every run must end in success or in the out-of-memory
// error; the failed edit must leave a system on which every invariant of a
// successful one holds (what changed is marked for validation, both ends of
// every wire agree, the tree walks without an internal error), the modification
// must still end once memory is back, the original must not change, and
// nothing may leak.

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "edits_test_support.h"
#include "failing_allocator.h"
#include "orvix/host/data.h"
#include "orvix/host/diagnostics.h"

namespace orvix::nodes::test {
namespace {

using orvix::test::FailAllocation;
using orvix::test::FailingAllocator;

// What a reader sees of one element: kind, flags, values and effective ends.
struct Element {
  std::string kind;
  std::map<std::string, std::string> values;
  std::map<std::string, uint64_t> sources, targets;
  bool operator==(const Element&) const = default;
};
using Dump = std::map<std::string, Element>;

Dump Visible(const NodeSystem& s) {
  Dump dump;
  for (const auto& [path, kind] : Tree(s)) {
    Element& e = dump[path];
    const GNode node = s.FindByPath(P(path));
    EXPECT_TRUE(node) << path;
    const Result<GNODE_FLAGS> flags = s.GetFlags(node);
    e.kind = fmt::format("{}/{:x}", uint64_t(kind), flags ? uint64_t(*flags) : ~0ULL);
    ValueMap values;
    EXPECT_TRUE(s.GetValues(node, VALUES_ALL, values, true, false));
    for (const auto& [id, value] : values) e.values[std::string(id.GetString())] = value.ToString();
    if (HasAny(kind, NODE_KIND::PORT_MASK)) {
      e.sources = Ends(s, path, PORT_DIR::INPUT);
      e.targets = Ends(s, path, PORT_DIR::OUTPUT);
    }
  }
  return dump;
}

template <typename T>
Result<void> Void(Result<T> r) {
  if (!r) return std::move(r).GetError();
  return Ok();
}

// The edits of the scenario. Each step is prepared with memory to spare
// (paths parsed, handles made) and yields the edit itself, which runs with the
// chosen allocation failing.
using Edit = std::function<Result<void>()>;
using Step = std::function<Edit(NodeSystem&)>;
struct Scenario {
  std::vector<std::pair<std::string, Step>> steps;
};

Step AddPortStep(std::string parent, std::string id) {
  return [parent, id](NodeSystem& g) -> Edit {
    const GNode at = g.FindByPath(P(parent));
    return [&g, at, id] { return Void(g.AddPort(at, id, GNODE_FLAGS::NONE, nullptr)); };
  };
}
Step ConnectStep(std::string from, std::string to, uint64_t wires) {
  return [from, to, wires](NodeSystem& g) -> Edit {
    const GNode a = g.FindByPath(P(from));
    const GNode b = g.FindByPath(P(to));
    return [&g, a, b, wires] { return g.Connect(a, b, Wires(wires), nullptr); };
  };
}
Step RemoveStep(std::string path) {
  return [path](NodeSystem& g) -> Edit {
    const GNode at = g.FindByPath(P(path));
    return [&g, at] { return g.Remove(at, nullptr); };
  };
}

Scenario MakeScenario(const Ref<NodeSystem>& op) {
  Scenario s;
  auto add = [&s](std::string name, Step step) { s.steps.emplace_back(std::move(name), step); };
  add("AddChild n3", [op](NodeSystem& g) -> Edit {
    return [&g, op] { return Void(g.AddChild("n3", op, nullptr)); };
  });
  add("AddPort <z", AddPortStep("<", "z"));
  add("AddPort <z/p", AddPortStep("<z", "p"));
  add("Connect <z n3<a", ConnectStep("<z", "n3<a", 0x10));
  add("Connect n2>out n3<b", ConnectStep("n2>out", "n3<b", 0x1010));
  add("SetValue n3<b", [](NodeSystem& g) -> Edit {
    const GNode at = g.FindByPath(P("n3<b"));
    const InternedId value = Id("value");
    return [&g, at, value] { return Void(g.SetValue(at, value, Data(int64_t{7}), nullptr)); };
  });
  add("Remove n1", RemoveStep("n1"));
  add("ResetChild n1", [](NodeSystem& g) -> Edit {
    const GNode root = g.GetRoot();
    const InternedId n1 = Id("n1");
    return [&g, root, n1] { return g.ResetChild(root, n1, nullptr); };
  });
  add("Remove <x", RemoveStep("<x"));
  add("Remove n2", RemoveStep("n2"));
  add("Connect <z/p n3<a/p", ConnectStep("<z/p", "n3<a/p", 0x10));
  add("Remove <z", RemoveStep("<z"));
  return s;
}

// The finished graph that the scenario edits a copy of: two nodes wired
// through, a root input wired in, an output wired out.
Ref<NodeSystem> MakeGraph(const Ref<NodeSystem>& op) {
  MutableRoot g = OpenEmpty();
  NodeSystem& s = *g._system;
  EXPECT_TRUE(s.AddChild("n1", op, nullptr));
  EXPECT_TRUE(s.AddChild("n2", op, nullptr));
  EXPECT_TRUE(AddPortAt(s, "<", "x"));
  EXPECT_TRUE(AddPortAt(s, "<x", "p"));
  EXPECT_TRUE(AddPortAt(s, ">", "y"));
  EXPECT_TRUE(ConnectAt(s, "<x", "n1<a", 0x10));
  EXPECT_TRUE(ConnectAt(s, "n1>out", "n2<a", 0x10));
  EXPECT_TRUE(ConnectAt(s, "n1>out", "n2<b", 0x1000));
  EXPECT_TRUE(ConnectAt(s, "n2>out", ">y", 0x10));
  EXPECT_TRUE(s.SetValue(s.FindByPath(P("n1<b")), Id("value"), Data(int64_t{3}), nullptr));
  return Finish(g);
}

// Every element that a reader sees differently after the failed edit must be
// marked, so that validation visits it.
std::vector<std::string> Unmarked(const NodeSystemImpl& s, const Dump& before, const Dump& after) {
  std::vector<std::string> unmarked;
  for (const auto& [path, element] : after) {
    const auto old = before.find(path);
    if (old != before.end() && old->second == element) continue;
    if (path.empty()) continue;  // the root's marks are the system word
    if (!HasAny(OwnFlags(s, path), GFI::MODIFIED_MASK)) unmarked.push_back(path);
  }
  return unmarked;
}

// How one run ended.
enum class Outcome { NOT_REACHED, SUCCEEDED, ALL_OR_NOTHING, PARTIAL, BROKEN };

struct Tally {
  int runs = 0, succeeded = 0, allOrNothing = 0, partial = 0, broken = 0;
  std::map<std::string, int> partialBySteps;
};

// One run of the scenario with the `failAt`-th allocation failing.
Outcome RunBody(const Ref<NodeSystem>& op, bool derived, uint64_t failAt, std::string& failedStep) {
  const Ref<NodeSystem> graph = MakeGraph(op);
  const Dump original = Visible(*graph);
  Scenario scenario = MakeScenario(op);
  Ref<NodeSystem> copy = graph;
  MutableRoot open = derived ? OpenDerived(graph) : Open(copy);
  NodeSystemImpl& s = Impl(open);
  CapturedOutput output;
  bool reached = false;
  Dump before;
  Dump after;
  bool broken = false;
  for (const auto& [name, step] : scenario.steps) {
    before = Visible(s);
    const Edit edit = step(s);
    Result<void> done = Ok();
    {
      FailAllocation fail(failAt);
      done = edit();
      reached = FailingAllocator::Failed();
    }
    if (done) {
      if (reached) break;  // the failure was absorbed; the edit still succeeded
      failAt = failAt > FailingAllocator::Count() ? failAt - FailingAllocator::Count() : 0;
      continue;
    }
    failedStep = name;
    EXPECT_TRUE(reached) << name << ": " << Message(done);
    EXPECT_EQ(done.GetError().GetClass(), ERROR_CLASS::OUT_OF_MEMORY) << name << ": " << Message(done);
    after = Visible(s);
    const std::vector<std::string> unmarked = Unmarked(s, before, after);
    const Result<void> consistent = s.CheckConnectionConsistency();
    if (!unmarked.empty() || !consistent) {
      broken = true;
      ADD_FAILURE() << name << " failing at allocation " << failAt << " left "
                    << (unmarked.empty() ? std::string() : fmt::format("unmarked {} ", unmarked.front()))
                    << Message(consistent);
    }
    break;
  }
  // The end of the modification may run out of memory as well: the system
  // then stays open, and ends once memory is back.
  Result<Ref<NodeSystem>> finished = Error(ERROR_CLASS::UNEXPECTED, "not ended");
  if (!reached) {
    FailAllocation fail(failAt);
    finished = open.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
    reached = FailingAllocator::Failed();
    if (reached && !finished) {
      failedStep = "EndModification";
      EXPECT_EQ(finished.GetError().GetClass(), ERROR_CLASS::OUT_OF_MEMORY) << Message(finished);
      // The check of both ends of every wire runs once the bracket is closed:
      // when it fails, the system is finished all the same.
      // Counted as partial: the bracket closed, but the end reported a failure.
      // A system kept open has lost nothing and is ended again below.
      if (open._system->IsFinalized()) {
        finished = std::move(open._system);
      } else {
        after = before;
      }
    }
  }
  if (!reached) return Outcome::NOT_REACHED;
  if (!finished) finished = open.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  EXPECT_TRUE(finished) << failedStep << " at " << failAt << ": " << Message(finished);
  open._system.Reset();
  if (finished) {
    EXPECT_TRUE((*finished)->IsFinalized());
    EXPECT_EQ(Message(Impl(*finished).CheckConnectionConsistency()), "(ok)");
  }
  EXPECT_EQ(Visible(*graph), original) << failedStep << " at " << failAt;
  if (output.Contains("Internal error")) {
    broken = true;
    ADD_FAILURE() << failedStep << " at " << failAt << " wrote an internal error";
  }
  if (broken || !finished) return Outcome::BROKEN;
  if (failedStep.empty()) return Outcome::SUCCEEDED;
  return before == after ? Outcome::ALL_OR_NOTHING : Outcome::PARTIAL;
}

// One run, counted in `tally`. What the run allocated must all be given back
// once its objects are gone; a failure path may fill a cache of the process
// once (an interned id, say), so a run that keeps memory is repeated, and a
// leak is what grows again. Returns false when the armed allocation was never
// reached.
bool RunOnce(const Ref<NodeSystem>& op, bool derived, uint64_t failAt, Tally& tally) {
  // The names of failed steps are kept in buffers made before counting.
  std::string failedStep(64, ' ');
  std::string again(64, ' ');
  failedStep.clear();
  again.clear();
  int64_t start = FailingAllocator::Live();
  Outcome outcome = RunBody(op, derived, failAt, failedStep);
  if (outcome != Outcome::NOT_REACHED && FailingAllocator::Live() != start) {
    start = FailingAllocator::Live();
    RunBody(op, derived, failAt, again);
    EXPECT_EQ(FailingAllocator::Live(), start) << "leak with allocation " << failAt << " failing";
  }
  switch (outcome) {
    case Outcome::NOT_REACHED: return false;
    case Outcome::SUCCEEDED: ++tally.succeeded; break;
    case Outcome::ALL_OR_NOTHING: ++tally.allOrNothing; break;
    case Outcome::PARTIAL:
      ++tally.partial;
      ++tally.partialBySteps[failedStep];
      break;
    case Outcome::BROKEN: ++tally.broken; break;
  }
  ++tally.runs;
  return true;
}

class AllocationFailure : public ::testing::TestWithParam<bool> {};

TEST_P(AllocationFailure, EveryAllocationOfAnEditScenarioMayFail) {
  const bool derived = GetParam();
  MutableRoot build = OpenEmpty();
  for (const char* port : {"a", "b"}) ASSERT_TRUE(AddPortAt(*build._system, "<", port));
  ASSERT_TRUE(AddPortAt(*build._system, "<a", "p"));
  ASSERT_TRUE(AddPortAt(*build._system, ">", "out"));
  const Ref<NodeSystem> op = Finish(build);
  ASSERT_TRUE(op);
  Tally warmUp;
  // Interns every id and fills every pool once.
  ASSERT_FALSE(RunOnce(op, derived, 0, warmUp));
  Tally tally;
  for (uint64_t failAt = 1; RunOnce(op, derived, failAt, tally); ++failAt) {
    if (HasFailure()) break;
  }
  EXPECT_GT(tally.runs, 100);
  EXPECT_EQ(tally.broken, 0);
  std::string partial;
  for (const auto& [step, count] : tally.partialBySteps) partial += fmt::format(" {}: {}", step, count);
  std::printf("%s: allocation points %d: %d edit still succeeded, %d all-or-nothing, %d partial,"
              " %d broken;%s\n",
              derived ? "derived" : "copy", tally.runs, tally.succeeded, tally.allOrNothing,
              tally.partial, tally.broken, partial.c_str());
}

INSTANTIATE_TEST_SUITE_P(OnACopyAndOnADerivedSystem, AllocationFailure, ::testing::Bool());

}  // namespace
}  // namespace orvix::nodes::test
