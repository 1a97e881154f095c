#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "orvix/host/interned_id.h"

namespace orvix {
namespace {

TEST(InternedId, EqualStringsArePointerEqual) {
  InternedId a = InternedId::Get("alpha");
  InternedId b = *InternedId::Create(std::string("alp") + "ha");
  EXPECT_EQ(a.GetPointer(), b.GetPointer());
  EXPECT_EQ(a.GetHashWord(), b.GetHashWord());
  EXPECT_NE(a, InternedId::Get("beta"));
  EXPECT_EQ(InternedId::Find("never-interned-anywhere"), InternedId());
}

TEST(InternedId, NullAndEmptyAreDistinct) {
  InternedId null;
  InternedId empty = InternedId::Get("");
  EXPECT_TRUE(null.IsNull());
  EXPECT_TRUE(empty.IsPopulated());
  EXPECT_EQ(null.GetHashWord(), 0u);
  EXPECT_EQ(empty.GetString(), "");
  EXPECT_STREQ(null.GetCString(), "");
}

TEST(InternedId, ReservedBitIsNotPartOfTheHash) {
  InternedId a = InternedId::Get("reserved");
  EXPECT_NE(a.GetHashWord() & InternedId::RESERVED_HASH_BIT, 0u);
  EXPECT_EQ(a.GetHashCode() & InternedId::RESERVED_HASH_BIT, 0u);
  EXPECT_EQ(a.GetHashCode() | InternedId::RESERVED_HASH_BIT, a.GetHashWord());
}

// Run under the thread sanitizer (preset tsan) to check the pool for races.
TEST(InternedId, ConcurrentInterningAgrees) {
  constexpr int kThreads = 4;
  constexpr int kIds = 2000;
  std::vector<std::vector<const void*>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &seen] {
      for (int i = 0; i < kIds; ++i) {
        // Each thread walks the ids in another order so that inserts collide.
        int k = (t % 2 == 0) ? i : kIds - 1 - i;
        seen[t].push_back(InternedId::Get("concurrent-" + std::to_string(k)).GetPointer());
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kIds; ++i) {
      int k = (t % 2 == 0) ? i : kIds - 1 - i;
      EXPECT_EQ(seen[t][i], InternedId::Find("concurrent-" + std::to_string(k)).GetPointer());
    }
  }
}

}  // namespace
}  // namespace orvix
