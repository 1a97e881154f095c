// Allocation failures on the paths of the connection queries and of the check
// of both ends. This binary's global operator new can be told to fail the
// n-th allocation from now (failing_allocator.h); a run fails each
// allocation of a call in turn, and the call must hand back the out-of-memory
// error every time, never let std::bad_alloc through.

#include <new>
#include <optional>

#include "connection_test_support.h"
#include "failing_allocator.h"
#include "node_system_probe.h"
#include "orvix/nodes/config_variables.h"

namespace orvix::nodes::test {
namespace {

// Runs `call` with its first allocation failing, then its second, and so on
// until a run meets no failure, which must give `expected`; every other run
// must give the out-of-memory error. `call` returns a Result.
template <typename Call>
void EachAllocationFails(Call call, const std::string& expected) {
  for (long n = 1;; ++n) {
    std::optional<decltype(call())> result;
    bool thrown = false;
    bool failed = false;
    {
      orvix::test::FailAllocation fail(static_cast<uint64_t>(n));
      try {
        result.emplace(call());
      } catch (const std::bad_alloc&) {
        thrown = true;
      }
      failed = orvix::test::FailingAllocator::Failed();
    }
    ASSERT_FALSE(thrown) << "std::bad_alloc escaped at allocation " << n;
    if (!failed) {
      EXPECT_EQ(Message(*result), expected) << "after " << n - 1 << " allocations";
      return;
    }
    ASSERT_EQ(Message(*result), "Out of memory.") << "allocation " << n;
  }
}

// A graph whose wires meet at nested levels: n1<a/x has its own source and
// its parent's wire; the adders' content has wires of its own.
Ref<NodeSystemImpl> Wired() {
  static const Ref<NodeSystemImpl> adder = MakeOperator(Adder());
  Ref<NodeSystemImpl> s = Open();
  AddPorts(*s, {"<r", "<r/x", "<s", ">q", ">q/x"});
  EXPECT_TRUE(s->AddChild("n1", adder, nullptr));
  EXPECT_TRUE(s->AddChild("n2", adder, nullptr));
  Wire(*s, "<r", "n1<a", 0x1010);
  Wire(*s, "<s", "n1<a/x", 0x10);
  Wire(*s, "n1>sum", "n2<a", 0x10);
  Wire(*s, "n2>sum", ">q", 0x10);
  return s;
}

TEST(ConnectionAllocation, TheCheckOfBothEndsGivesTheOutOfMemoryError) {
  Ref<NodeSystemImpl> s = Wired();
  Finish(*s);
  EachAllocationFails([&] { return s->CheckConnectionConsistency(); }, "(ok)");
  // The same check at the end of a modification, switched on.
  const bool was = g_testGetConnections.Get();
  g_testGetConnections.Set(true);
  EachAllocationFails(
      [&]() -> Result<void> {
        if (!NodeSystemTestProbe::IsMutable(*s)) ORVIX_TRY(s->BeginModification());
        return s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
      },
      "(ok)");
  g_testGetConnections.Set(was);
}

TEST(ConnectionAllocation, QueriesAndTheirNeighbourWalkGiveTheOutOfMemoryError) {
  Ref<NodeSystemImpl> s = Wired();
  Finish(*s);
  const GNode nested = s->FindByPath(P("n1<a/x"));
  const ConnectionCallback count = [](const GNode&, Wires, const Ref<ConnectionAttributes>&) {
    return Result<bool>(true);
  };
  EachAllocationFails(
      [&] {
        return s->GetConnections(nested, PORT_DIR::INPUT, Wires(ALL_WIRES_IMPLICIT_MASK),
                                 GET_CONNECTIONS_MODE::CONNECTIONS, count);
      },
      "(ok)");
  const GNode root = s->FindByPath(P("<r"));
  EachAllocationFails(
      [&] {
        return s->VisitConnectedTopLevelPorts(root, false, ALL_WIRES_MASK, NEIGHBOUR_FLAGS::NONE,
                                              [](const GNode&) { return Ok(); });
      },
      "(ok)");
  ASSERT_TRUE(s->BeginModification());
  const GNode node = s->FindByPath(P("n1"));
  EachAllocationFails([&] { return s->TouchConnectedPortsRecursive(node); }, "(ok)");
}

}  // namespace
}  // namespace orvix::nodes::test
