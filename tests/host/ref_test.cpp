#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "orvix/host/ref.h"

namespace orvix {
namespace {

struct Counted : RefCounted {
  explicit Counted(std::atomic<int>* live) : live(live) { ++*live; }
  ~Counted() override { --*live; }
  std::atomic<int>* live;
};

TEST(Ref, CountsAndFrees) {
  std::atomic<int> live{0};
  {
    Ref<Counted> a = MakeRef<Counted>(&live);
    EXPECT_TRUE(a->HasSingleOwner());
    Ref<Counted> b = a;
    EXPECT_EQ(a->GetReferenceCount(), 2u);
    Ref<RefCounted> base = b;
    EXPECT_EQ(a->GetReferenceCount(), 3u);
    Ref<Counted> moved = std::move(b);
    EXPECT_EQ(a->GetReferenceCount(), 3u);
    EXPECT_EQ(live, 1);
  }
  EXPECT_EQ(live, 0);
}

TEST(Ref, WeakSeesDeathAndNeverResurrects) {
  std::atomic<int> live{0};
  WeakRef<Counted> weak;
  {
    Ref<Counted> a = MakeRef<Counted>(&live);
    weak = WeakRef<Counted>(a);
    Ref<Counted> locked = weak.Lock();
    EXPECT_EQ(locked.Get(), a.Get());
    EXPECT_EQ(a->GetReferenceCount(), 2u);
  }
  EXPECT_EQ(live, 0);
  EXPECT_TRUE(weak.IsExpired());
  EXPECT_FALSE(weak.Lock());
}

// Run under the thread sanitizer: locks race against the last release.
TEST(Ref, WeakLockRacesWithLastRelease) {
  std::atomic<int> live{0};
  for (int round = 0; round < 200; ++round) {
    Ref<Counted> strong = MakeRef<Counted>(&live);
    WeakRef<Counted> weak(strong);
    std::thread locker([weak] {
      for (int i = 0; i < 50; ++i) {
        Ref<Counted> r = weak.Lock();
        if (r) {
          EXPECT_GE(r->GetReferenceCount(), 1u);
        }
      }
    });
    strong.Reset();
    locker.join();
    EXPECT_TRUE(weak.IsExpired());
  }
  EXPECT_EQ(live, 0);
}

}  // namespace
}  // namespace orvix
