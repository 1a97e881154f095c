#include "orvix/graph/wires.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <array>
#include <random>
#include <set>

#include "orvix/host/format.h"

namespace orvix {
namespace {

// Words whose bytes are drawn mostly from the values that sit on the edges
// of the compares (0, the top bit, equal bytes), so that ties and borrows are
// exercised far more often than uniform words would.
constexpr std::array<uint8_t, 12> EDGE_BYTES = {0x00, 0x01, 0x10, 0x3f, 0x40, 0x7f,
                                                0x80, 0x81, 0xbf, 0xc0, 0xfe, 0xff};

uint64_t EdgyWord(std::mt19937_64& rng) {
  uint64_t w = 0;
  for (int i = 0; i < 8; ++i) {
    const uint64_t r = rng();
    const uint8_t byte = (r & 1) ? EDGE_BYTES[(r >> 1) % EDGE_BYTES.size()] : uint8_t(r >> 8);
    w |= uint64_t(byte) << (8 * i);
  }
  return w;
}

// The same words for the property tests, drawn from the generator's seed.
rc::Gen<Wires> GenWires() {
  return rc::gen::map(rc::gen::arbitrary<uint64_t>(), [](uint64_t seed) {
    std::mt19937_64 rng(seed);
    return Wires(EdgyWord(rng));
  });
}

// The word arithmetic against a byte-by-byte statement of each operation,
// written independently of it.
::testing::AssertionResult MatchesByteLoop(uint64_t a, uint64_t b) {
  const Wires wa(a), wb(b);
  const std::pair<uint64_t, uint8_t (*)(uint8_t, uint8_t)> ops[] = {
      {wa.Concat(wb).GetValue(), [](uint8_t x, uint8_t y) { return x < y ? x : y; }},
      {wa.Combine(wb).GetValue(), [](uint8_t x, uint8_t y) { return x < y ? y : x; }},
      {wa.MaskByPriority(wb).GetValue(),
       [](uint8_t x, uint8_t y) { return uint8_t(x >= y ? x : 0); }},
      {wa.ToMask().GetValue(), [](uint8_t x, uint8_t) { return uint8_t(x ? 0xff : 0); }},
      {wa.ClearInherited().GetValue(),
       [](uint8_t x, uint8_t) { return uint8_t(x & 0x80 ? 0x80 : x); }},
      {Wires(a, true).GetValue(), [](uint8_t x, uint8_t) { return uint8_t(x ? x | 0x80 : 0); }},
  };
  for (size_t op = 0; op < std::size(ops); ++op) {
    uint64_t expected = 0;
    for (int i = 0; i < 64; i += 8)
      expected |= uint64_t(ops[op].second(uint8_t(a >> i), uint8_t(b >> i))) << i;
    if (ops[op].first != expected)
      return ::testing::AssertionFailure() << "operation " << op << std::hex << " of " << a << " "
                                           << b << ": " << ops[op].first << " != " << expected;
  }
  return ::testing::AssertionSuccess();
}

TEST(WiresSwar, MatchesByteLoopOnSeededWords) {
  std::mt19937_64 rng(0x5eed1234u);
  for (int n = 0; n < 200000; ++n) {
    const uint64_t a = EdgyWord(rng);
    const uint64_t b = (n % 4 == 0) ? a ^ (uint64_t(0x80) << (8 * (n % 8))) : EdgyWord(rng);
    ASSERT_TRUE(MatchesByteLoop(a, b));
  }
}

TEST(WiresSwar, EveryBytePairInEveryChannel) {
  // All 65536 pairs of bytes (REMOVE, INHERIT and the rest), each placed in a channel of
  // its own and next to neighbours that would catch a carry or borrow leaking out of the byte.
  for (uint32_t x = 0; x < 256; ++x) {
    for (uint32_t y = 0; y < 256; ++y) {
      const uint32_t shift = 8 * ((x + y) % 8);
      const uint64_t fill = (x & 1) ? 0x00 : 0xff;
      const uint64_t keep = ~(uint64_t(0xff) << shift);
      const uint64_t a = (fill * Wires::LOW_BITS & keep) | (uint64_t(x) << shift);
      const uint64_t b = ((0xff - fill) * Wires::LOW_BITS & keep) | (uint64_t(y) << shift);
      ASSERT_TRUE(MatchesByteLoop(a, b));
    }
  }
}

// The laws of the algebra, on top of what the byte loop shows.
RC_GTEST_PROP(WiresLaws, ConcatAndCombineFormALattice, ()) {
  const Wires a = *GenWires(), b = *GenWires(), c = *GenWires();
  const Wires zero{0}, ones{~uint64_t(0)};
  RC_ASSERT(a.Concat(b) == b.Concat(a));
  RC_ASSERT(a.Combine(b) == b.Combine(a));
  RC_ASSERT(a.Concat(b).Concat(c) == a.Concat(b.Concat(c)));
  RC_ASSERT(a.Combine(b).Combine(c) == a.Combine(b.Combine(c)));
  RC_ASSERT(a.Concat(a.Combine(b)) == a);
  RC_ASSERT(a.Combine(a.Concat(b)) == a);
  RC_ASSERT(a.Concat(b.Combine(c)) == a.Concat(b).Combine(a.Concat(c)));
  RC_ASSERT(a.Combine(b.Concat(c)) == a.Combine(b).Concat(a.Combine(c)));
  RC_ASSERT(a.Combine(zero) == a && a.Concat(zero) == zero);
  RC_ASSERT(a.Concat(ones) == a && a.Combine(ones) == ones);
  RC_ASSERT(a.MaskByPriority(a) == a && a.MaskByPriority(zero) == a);
  RC_ASSERT(a.ClearInherited().ClearInherited() == a.ClearInherited());
}

RC_GTEST_PROP(WiresLaws, MasksAgreeWithTheOrder, ()) {
  const Wires a = *GenWires(), m = *GenWires();
  const Wires kept = a.MaskByPriority(m);
  // What survives is a part of a, and every surviving byte reaches m.
  RC_ASSERT((kept & a) == kept);
  RC_ASSERT(kept.Combine(m.Concat(kept.ToMask())) == kept);
  // ToMask marks exactly the channels that are in use.
  RC_ASSERT((a & a.ToMask()) == a);
  RC_ASSERT(a.SharesChannel(m) == !(a.ToMask() & m.ToMask()).IsEmpty());
  RC_ASSERT(a.IsEmpty() == a.ToMask().IsEmpty());
}

TEST(Wires, ChannelsAndText) {
  Wires w;
  w.Set(WireChannel::CHANNEL_2, WIRE_MODE::NORMAL);
  w.Set(7, WIRE_MODE::INHERIT | WIRE_MODE::IMPLICIT);
  EXPECT_EQ(w.GetValue(), 0xc000000000100000ULL);
  EXPECT_EQ(w.Get(WireChannel::CHANNEL_7), WIRE_MODE(0xc0));
  EXPECT_TRUE(w.HasImplicit());
  EXPECT_FALSE(Wires(0x3f3f3fbf).HasImplicit());
  EXPECT_EQ(w.With(2, WIRE_MODE::NONE).With(0, WIRE_MODE::REMOVE), Wires(0xc00000000000003eULL));
  EXPECT_EQ(Wires(0x8000000000500011ULL).ToString(),
            "(NORMAL|FLAG0,NONE,NORMAL|IMPLICIT,NONE,NONE,NONE,NONE,INHERIT)");

  // A byte without a name of its own: the name of its low bits or its
  // priority (in hex if unnamed), then the flags, IMPLICIT and INHERIT.
  EXPECT_EQ(FormatMessage("@ @ @", WIRE_MODE(0xbe), WIRE_MODE(0x13), WIRE_MODE(0xe9)),
            "REMOVE|INHERIT NORMAL|FLAG0|FLAG1 AUTO_PROPAGATION|FLAG0|IMPLICIT|INHERIT");
  EXPECT_EQ(FormatMessage("@ @ @", WIRE_MODE(0xc0), WIRE_MODE(0x04), WIRE_MODE(0x9a)),
            "IMPLICIT|INHERIT 0x04 0x18|FLAG1|INHERIT");
  // Every byte has a text of its own.
  std::set<std::string> texts;
  for (uint32_t b = 0; b < 256; ++b) texts.insert(ToString(WIRE_MODE(b)));
  EXPECT_EQ(texts.size(), 256u);
  EXPECT_EQ(texts.count(""), 0u);
}

}  // namespace
}  // namespace orvix
