// A handle names its holder by a bare pointer. A system may take such a
// handle at its word only when the holder is one that a lookup from this
// system can end in (its bases and the nested systems on the way) and that is
// therefore kept alive by it. Handles of other systems, of freed systems and
// of records freed since are looked up again by path, never dereferenced.

#include <gtest/gtest.h>

#include <vector>

#include <fmt/format.h>

#include "edits_test_support.h"
#include "orvix/host/data.h"

namespace orvix::nodes::test {
namespace {

const InternedId kValue = Id("value");

// A finished system with the input port "<a".
Ref<NodeSystem> WithPortA() {
  MutableRoot root = OpenEmpty();
  EXPECT_TRUE(AddPortAt(*root._system, "<", "a"));
  return Finish(root);
}

TEST(HandleTrust, AHandleOfASystemOutsideTheChainIsLookedUpAgain) {
  Ref<NodeSystem> s = WithPortA();
  // A copy edited and finished: its stamps start above those of s.
  Ref<NodeSystem> c = s;
  {
    MutableRoot edit = Open(c);
    ASSERT_TRUE(AddPortAt(*edit._system, "<", "b"));
    c = Finish(edit);
  }
  // s, edited in place by its sole holder, overtakes the copy's stamps.
  GNode foreign;
  {
    MutableRoot edit = Open(s);
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(AddPortAt(*edit._system, ">", fmt::format("n{}", i)));
    s = Finish(edit);
    foreign = s->FindByPath(P(">n2"));
    ASSERT_TRUE(foreign);
  }
  EXPECT_FALSE(c->IsValid(foreign));
  EXPECT_EQ(Message(c->GetValue(foreign, kValue)), "Node with path >n2 doesn't exist any longer.");
  MutableRoot edit = Open(c);
  EXPECT_EQ(Message(edit._system->SetValue(foreign, kValue, Data(int64_t{1}), nullptr)),
            "Node with path >n2 doesn't exist any longer.");
  EXPECT_FALSE(edit._system->FindByPath(P(">n2")));
  // A handle of s for a path that c has too names c's own element.
  const GNode shared = s->FindByPath(P("<a"));
  ASSERT_TRUE(edit._system->SetValue(shared, kValue, Data(int64_t{2}), nullptr));
  Ref<NodeSystem> done = Finish(edit);
  s.Reset();  // the foreign holder goes; nothing of c may point into it
  const Result<const Data*> read = done->GetValue(done->FindByPath(P("<a")), kValue);
  ASSERT_TRUE(read && *read);
  EXPECT_EQ((*read)->ToString(), "2");
}

TEST(HandleTrust, AHandleOfAFreedRecordIsNotTrustedThroughACopyOfADerivedSystem) {
  Ref<NodeSystem> s = WithPortA();
  GNode kept;
  {
    MutableRoot edit = Open(s);
    kept = Must(AddPortAt(*edit._system, ">", "x"));
    ASSERT_TRUE(RemoveAt(*edit._system, ">x"));
    s = Finish(edit);  // the removed record is purged and freed here
  }
  Ref<NodeSystem> copy = s;
  {
    MutableRoot edit = Open(copy);  // a copy, since s holds it too
    ASSERT_TRUE(AddPortAt(*edit._system, "<", "b"));
    copy = Finish(edit);
  }
  MutableRoot derived = OpenDerived(copy);
  Ref<NodeSystem> d = Finish(derived);
  s.Reset();
  Ref<NodeSystem> dCopy = d;
  MutableRoot edit = Open(dCopy);
  EXPECT_FALSE(edit._system->IsValid(kept));
  EXPECT_EQ(Message(edit._system->SetValue(kept, kValue, Data(int64_t{1}), nullptr)),
            "Node with path >x doesn't exist any longer.");
  // Handles into the base chain are still taken as they are.
  const GNode inBase = d->FindByPath(P("<b"));
  ASSERT_TRUE(inBase);
  EXPECT_TRUE(edit._system->SetValue(inBase, kValue, Data(int64_t{3}), nullptr));
  EXPECT_TRUE(Finish(edit));
}

TEST(HandleTrust, AHandleThatABaseMadeBeforeItLostTheElementIsLookedUpAgain) {
  // The base's stamps say nothing in the derived system: the derived system
  // removed nothing since its own start, but the base did, before.
  const Ref<NodeSystem> op = WithPortA();
  Ref<NodeSystem> base = WithPortA();
  GNode kept;
  {
    MutableRoot edit = Open(base);
    kept = Must(edit._system->AddChild("n0", op, nullptr));
    ASSERT_TRUE(RemoveAt(*edit._system, "n0"));
    base = Finish(edit);
  }
  MutableRoot derived = OpenDerived(base);
  EXPECT_FALSE(derived._system->IsValid(kept));
  EXPECT_EQ(Message(derived._system->Remove(kept, nullptr)),
            "Node with path n0 doesn't exist any longer.");
  // A handle the base made of an element it still has names that element.
  const GNode port = base->FindByPath(P("<a"));
  EXPECT_TRUE(derived._system->IsValid(port));
  EXPECT_TRUE(derived._system->SetValue(port, kValue, Data(int64_t{4}), nullptr));
  EXPECT_TRUE(Finish(derived));
}

TEST(HandleTrust, AHandleOutlivesItsSystemEvenWhenAnotherTakesItsPlace) {
  // A new system may be allocated where a freed one was; the stamps of every
  // new system start above those of every system gone, so the old handle
  // can't pass for the new system's own.
  std::vector<Ref<NodeSystem>> keep;
  bool reused = false;
  for (int round = 0; round < 16 && !reused; ++round) {
    Ref<NodeSystem> old = WithPortA();
    MutableRoot edit = Open(old);
    for (int i = 0; i < 40; ++i) ASSERT_TRUE(AddPortAt(*edit._system, ">", fmt::format("o{}", i)));
    old = Finish(edit);
    const GNode stale = old->FindByPath(P(">o7"));
    const NodeSystem* address = old.Get();
    old.Reset();
    Ref<NodeSystem> fresh = WithPortA();
    if (fresh.Get() != address) {
      keep.push_back(fresh);
      continue;
    }
    reused = true;
    EXPECT_FALSE(fresh->IsValid(stale));
    EXPECT_EQ(Message(fresh->GetValue(stale, kValue)),
              "Node with path >o7 doesn't exist any longer.");
  }
  if (!reused) GTEST_SKIP() << "the allocator never handed the same address out again";
}

}  // namespace
}  // namespace orvix::nodes::test
