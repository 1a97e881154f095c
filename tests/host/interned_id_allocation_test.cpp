#include <gtest/gtest.h>

#include <string>

#include "failing_allocator.h"
#include "orvix/host/interned_id.h"

namespace orvix {
namespace {

// Each allocation of Create fails in turn (this binary's operator new is the
// failing allocator): Create must give the out-of-memory error, not throw, and
// leave the pool as it was. The names outgrow the string's own buffer, and
// there are enough of them that shards grow their tables along the way.
TEST(InternedIdAllocation, AFailedCreateLeavesThePoolAsItWas) {
  int grown = 0;  // Creates whose third allocation failed: only growing a table makes one
  for (int i = 0; i < 600; ++i) {
    const std::string text = "allocation-failure-" + std::to_string(i);
    for (uint64_t n = 1;; ++n) {
      const size_t size = InternedId::PoolSize();
      const Result<InternedId> result = [&] {
        test::FailAllocation fail(n);
        return InternedId::Create(text);
      }();
      if (!test::FailingAllocator::Failed()) {
        ASSERT_TRUE(result);
        EXPECT_EQ(InternedId::PoolSize(), size + 1);
        EXPECT_EQ(InternedId::Find(text), *result);
        break;
      }
      ASSERT_FALSE(result) << text << ", allocation " << n;
      EXPECT_EQ(result.GetError().GetClass(), ERROR_CLASS::OUT_OF_MEMORY);
      EXPECT_EQ(InternedId::PoolSize(), size);
      EXPECT_TRUE(InternedId::Find(text).IsNull());
      grown += n == 3;
    }
  }
  EXPECT_GT(grown, 0);
}

}  // namespace
}  // namespace orvix
