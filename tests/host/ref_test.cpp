#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "orvix/host/ref.h"

namespace orvix {
namespace {

struct Counted : RefCounted {
  explicit Counted(std::atomic<int>* live) : live(live) { ++*live; }
  ~Counted() override { --*live; }
  std::atomic<int>* live;
};

// Run under the thread sanitizer: weak locks race against the last release,
// which must free the object once and never hand it out again.
TEST(Ref, CountsFreesAndWeakLocksNeverResurrect) {
  std::atomic<int> live{0};
  {
    Ref<Counted> a = MakeRef<Counted>(&live);
    Ref<RefCounted> base = a;
    Ref<Counted> moved = std::move(a);
    EXPECT_EQ(moved->GetReferenceCount(), 2u);
  }
  EXPECT_EQ(live, 0);
  for (int round = 0; round < 200; ++round) {
    Ref<Counted> strong = MakeRef<Counted>(&live);
    WeakRef<Counted> weak(strong);
    EXPECT_EQ(weak.Lock().Get(), strong.Get());
    std::thread locker([weak] {
      for (int i = 0; i < 50; ++i) {
        Ref<Counted> r = weak.Lock();
        EXPECT_TRUE(!r || r->GetReferenceCount() >= 1);
      }
    });
    strong.Reset();
    locker.join();
    EXPECT_TRUE(weak.IsExpired());
    EXPECT_FALSE(weak.Lock());
  }
  EXPECT_EQ(live, 0);
}

}  // namespace
}  // namespace orvix
