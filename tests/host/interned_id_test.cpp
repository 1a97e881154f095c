#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "orvix/host/interned_id.h"

namespace orvix {
namespace {

// Run under the thread sanitizer (preset tsan) to check the pool for races.
// Writers intern overlapping ranges of new ids, odd ones backwards, so that an
// id races into its shard from two threads while the shard's table grows; a
// reader looks them up meanwhile without the lock and may only ever see
// nothing or the one complete entry.
TEST(InternedId, ConcurrentInterningAgrees) {
  constexpr int kWriters = 4, kIds = 3000, kAll = kIds + (kWriters - 1) * kIds / 2;
  // Lengths on both sides of eight bytes and of the string's own buffer.
  std::vector<std::string> names;
  for (int i = 0; i < kAll; ++i) {
    names.push_back("concurrent-" + std::to_string(i) + std::string(i % 17, 'x'));
  }
  const size_t sizeBefore = InternedId::PoolSize();
  const auto fresh = std::count_if(names.begin(), names.end(), [](const std::string& n) {
    return InternedId::Find(n).IsNull();
  });
  std::vector<std::vector<const void*>> seen(kWriters + 1, std::vector<const void*>(kAll));
  std::atomic<int> writing{kWriters};
  std::vector<std::thread> threads;
  for (int t = 0; t < kWriters; ++t) {
    threads.emplace_back([&, t] {
      for (int k = 0; k < kIds; ++k) {
        const int i = t * kIds / 2 + (t % 2 ? kIds - 1 - k : k);
        seen[t][i] = InternedId::Get(names[i]).GetPointer();
      }
      writing.fetch_sub(1);
    });
  }
  threads.emplace_back([&] {
    std::vector<const void*>& read = seen[kWriters];
    while (writing.load() > 0) {
      for (int i = 0; i < kAll; ++i) {
        const InternedId id = InternedId::Find(names[i]);
        if (read[i]) {
          ASSERT_EQ(id.GetPointer(), read[i]) << "once there, an id stays";
        } else if (id) {
          ASSERT_EQ(id.GetString(), names[i]);
          read[i] = id.GetPointer();
        }
      }
    }
  });
  for (auto& th : threads) th.join();

  for (int i = 0; i < kAll; ++i) {
    const void* p = InternedId::Find(names[i]).GetPointer();
    ASSERT_NE(p, nullptr);
    for (const auto& s : seen) ASSERT_TRUE(!s[i] || s[i] == p) << names[i];
  }
  EXPECT_EQ(InternedId::PoolSize(), sizeBefore + size_t(fresh)) << "Find never adds";
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
