#include "orvix/graph/wires.h"

#include <array>
#include <string_view>

namespace orvix {

namespace {

struct NamedMode {
  uint8_t value;
  std::string_view name;
};

// Every named value, for the exact match of a whole byte.
constexpr std::array<NamedMode, 17> NAMED_MODES{{
    {0x00, "NONE"},
    {0x01, "FLAG0"},
    {0x02, "FLAG1"},
    {0x03, "FLAGS_MASK"},
    {0x08, "MIN"},
    {0x10, "NORMAL"},
    {0x20, "PROPAGATION"},
    {0x28, "AUTO_PROPAGATION"},
    {0x30, "MAX"},
    {0x3c, "PRIORITY_MASK"},
    {0x3d, "AMBIGUOUS"},
    {0x3e, "REMOVE"},
    {0x3f, "ALL"},
    {0x40, "IMPLICIT"},
    {0x7f, "ALL_INCLUDING_IMPLICIT"},
    {0x80, "INHERIT"},
    {0xff, "FULL_MASK"},
}};

std::string_view FindName(uint8_t value) {
  for (const NamedMode& m : NAMED_MODES) {
    if (m.value == value) return m.name;
  }
  return {};
}

void AppendPart(std::string& out, std::string_view part) {
  if (!out.empty()) out.push_back('|');
  out.append(part);
}

// The low six bits of a byte that isn't named as a whole: their own name if
// they have one, else priority and flags.
void AppendLowBits(std::string& out, uint8_t low) {
  if (low == 0) return;
  std::string_view name = FindName(low);
  if (!name.empty()) {
    AppendPart(out, name);
    return;
  }
  const uint8_t priority = low & uint8_t(WIRE_MODE::PRIORITY_MASK);
  if (priority != 0) {
    std::string_view priorityName = FindName(priority);
    if (!priorityName.empty()) {
      AppendPart(out, priorityName);
    } else {
      constexpr std::string_view DIGITS = "0123456789abcdef";
      const char hex[] = {'0', 'x', DIGITS[priority >> 4], DIGITS[priority & 0xf]};
      AppendPart(out, std::string_view(hex, sizeof(hex)));
    }
  }
  if (low & uint8_t(WIRE_MODE::FLAG0)) AppendPart(out, "FLAG0");
  if (low & uint8_t(WIRE_MODE::FLAG1)) AppendPart(out, "FLAG1");
}

}  // namespace

std::string ToString(WIRE_MODE mode) {
  const uint8_t value = uint8_t(mode);
  std::string_view name = FindName(value);
  if (!name.empty()) return std::string(name);
  std::string out;
  AppendLowBits(out, value & uint8_t(WIRE_MODE::ALL));
  if (value & uint8_t(WIRE_MODE::IMPLICIT)) AppendPart(out, "IMPLICIT");
  if (value & uint8_t(WIRE_MODE::INHERIT)) AppendPart(out, "INHERIT");
  return out;
}

void AppendText(std::string& out, WIRE_MODE mode) {
  out.append(ToString(mode));
}

std::string Wires::ToString() const {
  std::string out;
  out.reserve(8 * 8);
  out.push_back('(');
  for (uint32_t channel = 0; channel < WIRE_CHANNEL_COUNT; ++channel) {
    if (channel != 0) out.push_back(',');
    out.append(orvix::ToString(Get(channel)));
  }
  out.push_back(')');
  return out;
}

}  // namespace orvix
