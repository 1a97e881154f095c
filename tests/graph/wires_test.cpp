#include "orvix/graph/wires.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <array>
#include <random>
#include <vector>

#include "orvix/host/format.h"

namespace orvix {
namespace {

// Byte-by-byte statements of the operations, written independently of the
// word arithmetic under test.
using ByteOp = uint8_t (*)(uint8_t, uint8_t);

uint64_t ByBytes(uint64_t a, uint64_t b, ByteOp op) {
  uint64_t out = 0;
  for (int i = 0; i < 8; ++i) {
    const uint8_t x = uint8_t(a >> (8 * i));
    const uint8_t y = uint8_t(b >> (8 * i));
    out |= uint64_t(op(x, y)) << (8 * i);
  }
  return out;
}
uint8_t ByteMin(uint8_t x, uint8_t y) {
  return x < y ? x : y;
}
uint8_t ByteMax(uint8_t x, uint8_t y) {
  return x < y ? y : x;
}
uint8_t ByteMaskByPriority(uint8_t x, uint8_t m) {
  return x >= m ? x : 0;
}
uint8_t ByteToMask(uint8_t x, uint8_t) {
  return x != 0 ? 0xff : 0;
}
uint8_t ByteClearInherited(uint8_t x, uint8_t) {
  return (x & 0x80) ? 0x80 : x;
}
uint8_t ByteInherited(uint8_t x, uint8_t) {
  return x != 0 ? x | 0x80 : 0;
}

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

rc::Gen<Wires> GenWires() {
  auto byte = rc::gen::oneOf(rc::gen::elementOf(EDGE_BYTES), rc::gen::arbitrary<uint8_t>());
  return rc::gen::map(rc::gen::container<std::vector<uint8_t>>(8, byte),
                      [](const std::vector<uint8_t>& bytes) {
                        uint64_t w = 0;
                        for (size_t i = 0; i < bytes.size(); ++i)
                          w |= uint64_t(bytes[i]) << (8 * i);
                        return Wires(w);
                      });
}

constexpr Wires ZERO{0};
constexpr Wires ONES{~uint64_t(0)};

// ---------------------------------------------------------------------------
// The word arithmetic against the byte loop.

TEST(WiresSwar, MatchesByteLoopOnSeededWords) {
  std::mt19937_64 rng(0x5eed1234u);
  for (int n = 0; n < 200000; ++n) {
    const uint64_t a = EdgyWord(rng);
    const uint64_t b = (n % 4 == 0) ? a ^ (uint64_t(0x80) << (8 * (n % 8))) : EdgyWord(rng);
    const Wires wa(a), wb(b);
    ASSERT_EQ(wa.Concat(wb).GetValue(), ByBytes(a, b, ByteMin)) << std::hex << a << " " << b;
    ASSERT_EQ(wa.Combine(wb).GetValue(), ByBytes(a, b, ByteMax)) << std::hex << a << " " << b;
    ASSERT_EQ(wa.MaskByPriority(wb).GetValue(), ByBytes(a, b, ByteMaskByPriority))
        << std::hex << a << " " << b;
    ASSERT_EQ(wa.ToMask().GetValue(), ByBytes(a, 0, ByteToMask)) << std::hex << a;
    ASSERT_EQ(wa.ClearInherited().GetValue(), ByBytes(a, 0, ByteClearInherited)) << std::hex << a;
    ASSERT_EQ(Wires(a, true).GetValue(), ByBytes(a, 0, ByteInherited)) << std::hex << a;
  }
}

TEST(WiresSwar, EveryBytePairInEveryChannel) {
  // All 65536 pairs of bytes, each placed in a channel of its own and next to
  // neighbours that would catch a carry or borrow leaking out of the byte.
  for (uint32_t x = 0; x < 256; ++x) {
    for (uint32_t y = 0; y < 256; ++y) {
      const uint32_t channel = (x + y) % 8;
      const uint64_t fill = (x & 1) ? 0x00 : 0xff;
      uint64_t a = fill * Wires::LOW_BITS, b = (0xff - fill) * Wires::LOW_BITS;
      a = (a & ~(uint64_t(0xff) << (8 * channel))) | (uint64_t(x) << (8 * channel));
      b = (b & ~(uint64_t(0xff) << (8 * channel))) | (uint64_t(y) << (8 * channel));
      ASSERT_EQ(Wires(a).Concat(Wires(b)).GetValue(), ByBytes(a, b, ByteMin));
      ASSERT_EQ(Wires(a).Combine(Wires(b)).GetValue(), ByBytes(a, b, ByteMax));
      ASSERT_EQ(Wires(a).MaskByPriority(Wires(b)).GetValue(), ByBytes(a, b, ByteMaskByPriority));
    }
  }
}

// ---------------------------------------------------------------------------
// The laws of the algebra.

RC_GTEST_PROP(WiresLaws, ConcatAndCombineAreCommutativeAndAssociative, ()) {
  const Wires a = *GenWires(), b = *GenWires(), c = *GenWires();
  RC_ASSERT(a.Concat(b) == b.Concat(a));
  RC_ASSERT(a.Combine(b) == b.Combine(a));
  RC_ASSERT(a.Concat(b).Concat(c) == a.Concat(b.Concat(c)));
  RC_ASSERT(a.Combine(b).Combine(c) == a.Combine(b.Combine(c)));
}

RC_GTEST_PROP(WiresLaws, IdentitiesAndIdempotence, ()) {
  const Wires a = *GenWires();
  RC_ASSERT(a.Combine(ZERO) == a);
  RC_ASSERT(a.Concat(ZERO) == ZERO);
  RC_ASSERT(a.Concat(ONES) == a);
  RC_ASSERT(a.Combine(ONES) == ONES);
  RC_ASSERT(a.Concat(a) == a);
  RC_ASSERT(a.Combine(a) == a);
  RC_ASSERT(a.MaskByPriority(a) == a);
  RC_ASSERT(a.MaskByPriority(ZERO) == a);
  RC_ASSERT(a.ToMask().ToMask() == a.ToMask());
  RC_ASSERT(a.ClearInherited().ClearInherited() == a.ClearInherited());
}

RC_GTEST_PROP(WiresLaws, AbsorptionAndDistributivity, ()) {
  const Wires a = *GenWires(), b = *GenWires(), c = *GenWires();
  RC_ASSERT(a.Concat(a.Combine(b)) == a);
  RC_ASSERT(a.Combine(a.Concat(b)) == a);
  RC_ASSERT(a.Concat(b.Combine(c)) == a.Concat(b).Combine(a.Concat(c)));
  RC_ASSERT(a.Combine(b.Concat(c)) == a.Combine(b).Concat(a.Combine(c)));
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

// ---------------------------------------------------------------------------
// Bytes, inherited values, text.

TEST(WiresBytes, GetAndSetByChannel) {
  Wires w;
  w.Set(WireChannel::CHANNEL_2, WIRE_MODE::NORMAL);
  EXPECT_EQ(w, Wires(0x100000));
  w.Set(7, WIRE_MODE::INHERIT | WIRE_MODE::IMPLICIT);
  EXPECT_EQ(w.GetValue(), 0xc000000000100000ULL);
  EXPECT_EQ(w.Get(WireChannel::CHANNEL_7), WIRE_MODE(0xc0));
  w.Set(2, WIRE_MODE::NONE);
  EXPECT_EQ(w.GetValue(), 0xc000000000000000ULL);
  EXPECT_EQ(w.With(0, WIRE_MODE::ALL), Wires(0xc00000000000003fULL));
  EXPECT_TRUE(Wires(0x400000).HasImplicit());
  EXPECT_FALSE(Wires(0x3f3f3fbf).HasImplicit());
}

TEST(WiresText, ModeNames) {
  // A byte without a name of its own: the name of its low bits or its
  // priority (in hex if unnamed), then the flags, IMPLICIT and INHERIT.
  EXPECT_EQ(ToString(WIRE_MODE::ALL_INCLUDING_IMPLICIT), "ALL_INCLUDING_IMPLICIT");
  EXPECT_EQ(ToString(WIRE_MODE(0x50)), "NORMAL|IMPLICIT");
  EXPECT_EQ(ToString(WIRE_MODE(0x13)), "NORMAL|FLAG0|FLAG1");
  EXPECT_EQ(ToString(WIRE_MODE(0xc0)), "IMPLICIT|INHERIT");
  EXPECT_EQ(ToString(WIRE_MODE(0xe9)), "AUTO_PROPAGATION|FLAG0|IMPLICIT|INHERIT");
  EXPECT_EQ(ToString(WIRE_MODE(0x04)), "0x04");
  EXPECT_EQ(ToString(WIRE_MODE(0x9a)), "0x18|FLAG1|INHERIT");
}

TEST(WiresText, EveryByteHasADistinctNonEmptyText) {
  std::vector<std::string> seen;
  for (uint32_t b = 0; b < 256; ++b) {
    const std::string text = ToString(WIRE_MODE(b));
    ASSERT_FALSE(text.empty()) << b;
    for (const std::string& other : seen) ASSERT_NE(text, other) << b;
    seen.push_back(text);
  }
}

TEST(WiresText, Bundles) {
  EXPECT_EQ(Wires(0x8000000000500011ULL).ToString(),
            "(NORMAL|FLAG0,NONE,NORMAL|IMPLICIT,NONE,NONE,NONE,NONE,INHERIT)");
  EXPECT_EQ(FormatMessage("Illegal wire mode @ for call to Connect().", WIRE_MODE(0x81)),
            "Illegal wire mode FLAG0|INHERIT for call to Connect().");
}

}  // namespace
}  // namespace orvix
