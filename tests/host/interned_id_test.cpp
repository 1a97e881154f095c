#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "orvix/host/interned_id.h"

namespace orvix {
namespace {

// Run under the thread sanitizer (preset tsan) to check the pool for races.
// Equal strings interned anywhere share one pointer.
TEST(InternedId, ConcurrentInterningAgrees) {
  constexpr int kIds = 2000;
  // Each thread walks the ids in another order so that inserts collide.
  auto name = [](int t, int i) { return "concurrent-" + std::to_string(t % 2 ? kIds - 1 - i : i); };
  std::vector<std::vector<const void*>> seen(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kIds; ++i) seen[t].push_back(InternedId::Get(name(t, i)).GetPointer());
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < kIds; ++i) EXPECT_EQ(seen[t][i], InternedId::Find(name(t, i)).GetPointer());
  }
  EXPECT_TRUE(InternedId::Find("never-interned-anywhere").IsNull());
  EXPECT_TRUE(InternedId::Get("").IsPopulated());
}

}  // namespace
}  // namespace orvix
