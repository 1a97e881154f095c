#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
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

// CompareText mostly decides on the first eight bytes; these texts aim at
// where that could go wrong: bytes that sort differently signed and unsigned,
// NULs inside and at the end (like the padding), lengths around eight, and
// texts that are prefixes of each other or differ past their eighth byte.
TEST(InternedId, CompareTextOrdersLikeTheBytes) {
  std::mt19937_64 rng(20261122);
  const std::string alphabet{'\0', '\x01', 'a', 'b', '\x7f', '\x80', '\xff'};
  auto text = [&](size_t maxSize) {
    std::string s(rng() % (maxSize + 1), '\0');
    for (char& c : s) c = alphabet[rng() % alphabet.size()];
    return s;
  };
  std::vector<std::string> texts;
  for (int k = 0; k < 4000; ++k) {
    const std::string a = text(12);
    std::string b = a;
    switch (rng() % 4) {
      case 0: b = text(12); break;
      case 1: b.resize(rng() % (a.size() + 1)); break;
      case 2: b += text(4); break;
      default: if (!b.empty()) b[rng() % b.size()] = alphabet[rng() % alphabet.size()];
    }
    const int c = a.compare(b);
    ASSERT_EQ(InternedId::CompareText(InternedId::Get(a), InternedId::Get(b)), (c > 0) - (c < 0))
        << ::testing::PrintToString(a) << " vs " << ::testing::PrintToString(b);
    texts.push_back(a);
    texts.push_back(b);
  }
  // Sorting by it sorts by text, which a comparison that broke transitivity or
  // called two ids equal would upset; the null id goes before the empty text.
  std::vector<InternedId> ids{InternedId()};
  for (const std::string& t : texts) ids.push_back(InternedId::Get(t));
  std::sort(ids.begin(), ids.end(),
            [](InternedId a, InternedId b) { return InternedId::CompareText(a, b) < 0; });
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  std::sort(texts.begin(), texts.end());
  texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
  ASSERT_EQ(ids.size(), texts.size() + 1);
  EXPECT_TRUE(ids[0].IsNull());
  for (size_t i = 0; i < texts.size(); ++i) EXPECT_EQ(ids[i + 1].GetString(), texts[i]);
}

}  // namespace
}  // namespace orvix
