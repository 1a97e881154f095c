#pragma once
// Wires: the bundle of up to eight wires that one connection carries, one
// WIRE_MODE byte per channel, held in a single 64-bit word.
//
// The algebra is bytewise: Concat (minimum) sums up a chain of links, Combine
// (maximum) sums up parallel paths, MaskByPriority drops what stays below a
// level, ToMask asks which channels are present at all. Compares are unsigned
// on whole bytes, so flags, IMPLICIT and INHERIT take part: a byte with
// INHERIT set is above every plain mode.
//
// The operations are inline on purpose: connection queries run them per
// record in their innermost loops, and each is a handful of word operations
// (SWAR) with no branch and no allocation.

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

namespace orvix {

// One wire of a connection: a priority in bits 2..5, two flags in bits 0 and
// 1, IMPLICIT in bit 6, INHERIT in bit 7. Some values are filters or
// instructions to Connect rather than modes a stored wire has.
enum class WIRE_MODE : uint8_t {
  NONE = 0x0,                     // no wire
  FLAG0 = 0x1,                    // flag bit
  FLAG1 = 0x2,                    // flag bit
  FLAGS_MASK = 0x3,               // both flags
  MIN = 0x8,                      // lowest named priority
  NORMAL = 0x10,                  // the priority of an ordinary connection
  PROPAGATION = 0x20,             // named priority above NORMAL
  AUTO_PROPAGATION = 0x28,        // named priority above PROPAGATION
  MAX = 0x30,                     // highest named priority
  PRIORITY_MASK = 0x3c,           // the priority bits
  AMBIGUOUS = 0x3d,               // above MAX; no priority bits alone give it
  REMOVE = 0x3e,                  // instruction to Connect: clear this wire
  ALL = 0x3f,                     // as a filter: every wire
  IMPLICIT = 0x40,                // the wire is implicit
  ALL_INCLUDING_IMPLICIT = 0x7f,  // as a filter: every wire, implicit ones too
  INHERIT = 0x80,                 // the value comes from the base / take the base's value
  FULL_MASK = 0xff,               // all bits
};

constexpr WIRE_MODE operator|(WIRE_MODE a, WIRE_MODE b) {
  return WIRE_MODE(uint8_t(a) | uint8_t(b));
}
constexpr WIRE_MODE operator&(WIRE_MODE a, WIRE_MODE b) {
  return WIRE_MODE(uint8_t(a) & uint8_t(b));
}
constexpr WIRE_MODE operator~(WIRE_MODE a) {
  return WIRE_MODE(uint8_t(~uint8_t(a)));
}
// Whether any bit of `bits` is set in `mode`.
constexpr bool HasAny(WIRE_MODE mode, WIRE_MODE bits) {
  return (mode & bits) != WIRE_MODE::NONE;
}

// The text form of one byte.
//  - A byte equal to a named value prints as that name ("NORMAL", "NONE",
//    "REMOVE", "FULL_MASK").
//  - Otherwise the byte is taken apart and its names are joined by "|", in
//    the order: the low six bits, then IMPLICIT, then INHERIT. The low six bits
//    print by their name if they have one ("NORMAL|IMPLICIT", "REMOVE|INHERIT"),
//    else as priority followed by the flags ("NORMAL|FLAG0|FLAG1").
//  - A priority without a name prints as the hexadecimal value of its bits
//    within the byte, two digits with "0x" ("0x0c|FLAG0" for the byte 0x0d), the
//    way wire words are written everywhere else.
std::string ToString(WIRE_MODE mode);
// Lets FormatMessage print a WIRE_MODE.
void AppendText(std::string& out, WIRE_MODE mode);

// Index of a channel within Wires. The channels carry no meaning of their
// own; what sets them apart is what the queries filter for. Two have a fixed
// reading everywhere, and get a name for it.
enum class WireChannel : uint8_t {
  CHANNEL_0 = 0,
  CHANNEL_1 = 1,
  CHANNEL_2 = 2,
  CHANNEL_3 = 3,
  CHANNEL_4 = 4,
  CHANNEL_5 = 5,
  CHANNEL_6 = 6,
  CHANNEL_7 = 7,
  CONTEXT = CHANNEL_3,    // a wire that hands on a context
  INHIBITED = CHANNEL_5,  // a record with this channel set is skipped by inhibiting queries
};

inline constexpr uint32_t WIRE_CHANNEL_COUNT = 8;

class Wires {
 public:
  // A word with 0x01 in every byte, and with 0x80 in every byte.
  static constexpr uint64_t LOW_BITS = 0x0101010101010101ULL;
  static constexpr uint64_t HIGH_BITS = 0x8080808080808080ULL;

  constexpr Wires() = default;
  // The bundle held by `value`, channel 0 in the lowest byte. With `inherited`
  // true, every byte that isn't 0 gets INHERIT or-ed in: that is the state of a
  // connection as a derived system sees it when it takes what its base yields.
  // Plain values, and all the laws of the algebra, use false.
  constexpr explicit Wires(uint64_t value, bool inherited = false)
      : _value(inherited ? value | (_NonZeroHighBits(value)) : value) {}

  // The whole word.
  constexpr uint64_t GetValue() const { return _value; }

  // No wire on any channel: the connection doesn't exist.
  constexpr bool IsEmpty() const { return _value == 0; }
  constexpr explicit operator bool() const { return _value != 0; }

  constexpr WIRE_MODE Get(WireChannel channel) const { return Get(uint32_t(channel)); }
  // Byte `channel`; channels are 0..7.
  constexpr WIRE_MODE Get(uint32_t channel) const {
    return WIRE_MODE(uint8_t(_value >> (8 * (channel & 7))));
  }
  constexpr void Set(WireChannel channel, WIRE_MODE mode) { Set(uint32_t(channel), mode); }
  constexpr void Set(uint32_t channel, WIRE_MODE mode) {
    const uint32_t shift = 8 * (channel & 7);
    _value = (_value & ~(uint64_t(0xff) << shift)) | (uint64_t(uint8_t(mode)) << shift);
  }
  // A copy with byte `channel` replaced.
  constexpr Wires With(uint32_t channel, WIRE_MODE mode) const {
    Wires w = *this;
    w.Set(channel, mode);
    return w;
  }

  // Per byte: the smaller of both. A chain is as strong as its weakest link.
  constexpr Wires Concat(Wires b) const {
    const uint64_t ge = _GreaterOrEqualMask(_value, b._value);
    return Wires(_value ^ ((_value ^ b._value) & ge));
  }
  // Per byte: the greater of both. Of parallel paths the stronger one wins.
  constexpr Wires Combine(Wires b) const {
    const uint64_t ge = _GreaterOrEqualMask(_value, b._value);
    return Wires(b._value ^ ((_value ^ b._value) & ge));
  }
  // Per byte: the byte itself if it is not below the byte of `m`, else 0.
  constexpr Wires MaskByPriority(Wires m) const {
    return Wires(_value & _GreaterOrEqualMask(_value, m._value));
  }
  // Per byte: 0xff if the byte isn't 0, else 0.
  constexpr Wires ToMask() const { return Wires(_SpreadHighBits(_NonZeroHighBits(_value))); }
  // A byte with INHERIT set becomes INHERIT alone (0x80), the others stay: the
  // form in which a change entry keeps its wires.
  constexpr Wires ClearInherited() const {
    const uint64_t inherit = _value & HIGH_BITS;
    return Wires((_value & ~_SpreadHighBits(inherit)) | inherit);
  }
  // Whether some byte has IMPLICIT set.
  constexpr bool HasImplicit() const;
  // Whether both have a non-zero byte in a common channel.
  constexpr bool SharesChannel(Wires b) const {
    return (_NonZeroHighBits(_value) & _NonZeroHighBits(b._value)) != 0;
  }

  static constexpr Wires Concat(Wires a, Wires b) { return a.Concat(b); }
  static constexpr Wires Combine(Wires a, Wires b) { return a.Combine(b); }
  static constexpr Wires MaskByPriority(Wires a, Wires m) { return a.MaskByPriority(m); }
  static constexpr Wires ToMask(Wires a) { return a.ToMask(); }

  // Bitwise forms, for filters and masks given as whole words.
  friend constexpr Wires operator&(Wires a, Wires b) { return Wires(a._value & b._value); }
  friend constexpr Wires operator|(Wires a, Wires b) { return Wires(a._value | b._value); }
  friend constexpr Wires operator~(Wires a) { return Wires(~a._value); }
  constexpr Wires& operator&=(Wires b) { return *this = *this & b; }
  constexpr Wires& operator|=(Wires b) { return *this = *this | b; }

  // Equality is that of the word; the order is that of the word as an
  // unsigned number, which lets Wires be sorted and used as a key.
  friend constexpr bool operator==(Wires a, Wires b) = default;
  friend constexpr auto operator<=>(Wires a, Wires b) = default;

  // "(@,@,@,@,@,@,@,@)", channel 0 first, each byte in the text form of
  // WIRE_MODE, e.g. "(NORMAL,NONE,NORMAL|IMPLICIT,NONE,NONE,NONE,NONE,NONE)".
  std::string ToString() const;

 private:
  // 0x80 in each byte that isn't 0. Adding 0x7f to the low seven bits carries
  // into bit 7 exactly when one of them is set; no carry leaves the byte.
  static constexpr uint64_t _NonZeroHighBits(uint64_t x) {
    return (((x & ~HIGH_BITS) + ~HIGH_BITS) | x) & HIGH_BITS;
  }
  // Turns 0x80 per byte into 0xff per byte: 0x80 - 0x01 is 0x7f, and each byte
  // is at least what is taken from it, so no borrow crosses a byte.
  static constexpr uint64_t _SpreadHighBits(uint64_t highBits) {
    return (highBits - (highBits >> 7)) | highBits;
  }
  // 0xff in each byte where a[i] >= b[i], unsigned, else 0. The low seven bits
  // are compared by a subtraction in which bit 7 of a is forced to 1, so that
  // no borrow leaves a byte; bit 7 of the difference then says low(a) >= low(b).
  // The top bits decide where they differ.
  static constexpr uint64_t _GreaterOrEqualMask(uint64_t a, uint64_t b) {
    const uint64_t lowGe = ((a | HIGH_BITS) - (b & ~HIGH_BITS)) & HIGH_BITS;
    const uint64_t ge = ((a & ~b) | (~(a ^ b) & lowGe)) & HIGH_BITS;
    return _SpreadHighBits(ge);
  }

  uint64_t _value = 0;
};

// The filter that lets everything pass except implicit wires.
inline constexpr Wires WIRES_FILTER_ALL_EXPLICIT{0x3f3f3f3f3f3f3f3fULL};
// The filter that lets every wire pass, implicit ones too.
inline constexpr Wires WIRES_FILTER_ALL_INCLUDING_IMPLICIT{0x7f7f7f7f7f7f7f7fULL};
// The IMPLICIT bit of every channel: a bundle masked with it is non-zero
// exactly when some wire is implicit.
inline constexpr Wires WIRES_IMPLICIT_BITS{0x4040404040404040ULL};

constexpr bool Wires::HasImplicit() const {
  return (_value & WIRES_IMPLICIT_BITS._value) != 0;
}

}  // namespace orvix

template <>
struct std::hash<orvix::Wires> {
  size_t operator()(orvix::Wires w) const noexcept {
    uint64_t x = w.GetValue();
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    return size_t(x);
  }
};
