#include "orvix/graph/node_kind.h"

#include <fmt/format.h>

#include <span>

namespace orvix {

namespace {

struct BitName {
  uint64_t bit;
  std::string_view name;
};

constexpr BitName KIND_NAMES[] = {
    {0x1, "NODE"}, {0x2, "INPUTS"}, {0x4, "OUTPUTS"}, {0x8, "INPORT"}, {0x10, "OUTPORT"},
};

constexpr BitName PUBLIC_FLAG_NAMES[] = {
    {0x80, "DIRECT_PORT"},
    {0x100, "DERIVED_PORT_INHERITED"},
    {0x200, "DERIVED_PORT_SYNTHESIZED"},
    {0x400, "CONTEXT_SOURCE"},
    {0x800, "CONTEXT_TARGET"},
    {0x1000, "FUNCTION_INSTANTIATION"},
    {0x2000, "CONTEXT_PARAMETER_PORT"},
    {0x4000, "TAPPING_PORT"},
    {0x8000, "FILTER_SHORTCUT_SOURCE"},
    {0x10000, "FILTER_SHORTCUT_TARGET"},
};

// The single bits of the stored word above the public flags. Bit 19 is named
// apart, since its name depends on the kind.
constexpr uint64_t SHARED_BIT_19 = ToBits(GNODE_FLAGS_IMPL::DIRECT_INSTANCE);

constexpr BitName IMPL_FLAG_NAMES[] = {
    {0x40000, "SHORTCUT_STOP"},
    {0x1000000, "MODIFIED_TOPOLOGY"},
    {0x2000000, "MODIFIED_NESTED_TOPOLOGY"},
    {0x4000000, "MODIFIED_PV_CHILDREN"},
    {0x8000000, "MODIFIED_PV_SOURCES"},
    {0x10000000, "MODIFIED_PV_TARGETS"},
    {0x20000000, "MODIFIED_PV_SHORTCUT"},
    {0x40000000, "MODIFIED_PV_NESTED_INHERITED"},
    {0x80000000, "MODIFIED_PV_NESTED_SYNTHESIZED"},
    {0x100000000, "MODIFIED_AV_ATTRIBUTES"},
    {0x200000000, "MODIFIED_AV_SOURCES"},
    {0x400000000, "MODIFIED_AV_TARGETS"},
    {0x800000000, "MODIFIED_AV_NESTED_ATTRIBUTES"},
    {0x1000000000, "MODIFIED_AV_NESTED_SOURCES"},
    {0x2000000000, "MODIFIED_AV_NESTED_TARGETS"},
    {0x4000000000, "MODIFIED_SAV_ATTRIBUTES"},
    {0x8000000000, "MODIFIED_SAV_SOURCES"},
    {0x10000000000, "MODIFIED_SAV_TARGETS"},
    {0x20000000000, "MODIFIED_SAV_NESTED_ATTRIBUTES"},
    {0x40000000000, "MODIFIED_SAV_NESTED_SOURCES"},
    {0x80000000000, "MODIFIED_SAV_NESTED_TARGETS"},
    {0x100000000000, "MODIFIED_SAV_LOOP_DEPENDENCIES_CHANGE"},
    {0x200000000000, "MODIFIED_G_GARBAGE"},
    {0x400000000000, "MODIFIED_G_VALUES_MIGHT_BE_REFERENCED"},
    {0x800000000000, "MODIFIED_G_NESTED_GARBAGE"},
    {0x1000000000000, "INDUCED_DEPENDENCIES"},
};

constexpr BitName CHILD_FLAG_NAMES[] = {
    {0x1, "ADDED"},
    {0x2, "SYNTHETIC"},
    {0x4, "IO_REMOVED"},
};

void AppendName(std::string& out, std::string_view name) {
  if (!out.empty()) out += '|';
  out += name;
}

// Appends the names of the bits of `bits` found in `names` and clears them.
void AppendNames(std::string& out, uint64_t& bits, std::span<const BitName> names) {
  for (const BitName& n : names) {
    if (bits & n.bit) {
      AppendName(out, n.name);
      bits &= ~n.bit;
    }
  }
}

std::string Finish(std::string out, uint64_t unnamed) {
  if (unnamed != 0) AppendName(out, fmt::format("{:#x}", unnamed));
  if (out.empty()) out = "NONE";
  return out;
}

}  // namespace

std::string ToString(NODE_KIND kind) {
  std::string out;
  uint64_t bits = ToBits(kind);
  AppendNames(out, bits, KIND_NAMES);
  return Finish(std::move(out), bits);
}

std::string_view ToString(PORT_DIR dir) {
  switch (dir) {
    case PORT_DIR::INPUT:
      return "INPUT";
    case PORT_DIR::OUTPUT:
      return "OUTPUT";
    case PORT_DIR::END:
      return "END";
  }
  return "?";
}

std::string ToString(GNODE_FLAGS flags) {
  std::string out;
  uint64_t bits = ToBits(flags);
  AppendNames(out, bits, PUBLIC_FLAG_NAMES);
  return Finish(std::move(out), bits);
}

std::string ToString(GNODE_FLAGS_IMPL flags) {
  std::string out;
  uint64_t bits = ToBits(flags);
  const NODE_KIND kind = GetKind(flags);
  uint64_t kindBits = bits & GNODE_KIND_BITS;
  bits &= ~GNODE_KIND_BITS;
  AppendNames(out, kindBits, KIND_NAMES);
  AppendNames(out, bits, PUBLIC_FLAG_NAMES);
  // Keep bit order: SHORTCUT_STOP (bit 18) comes before bit 19.
  AppendNames(out, bits, std::span<const BitName>(IMPL_FLAG_NAMES, 1));
  if (bits & SHARED_BIT_19) {
    AppendName(out, kind == NODE_KIND::NODE ? "DIRECT_INSTANCE" : "HAS_SOURCE_SHORTCUTS");
    bits &= ~SHARED_BIT_19;
  }
  AppendNames(out, bits, std::span<const BitName>(IMPL_FLAG_NAMES).subspan(1));
  return Finish(std::move(out), bits);
}

std::string ToString(CHILD_FLAGS flags) {
  std::string out;
  uint64_t bits = ToBits(flags);
  AppendNames(out, bits, CHILD_FLAG_NAMES);
  return Finish(std::move(out), bits);
}

}  // namespace orvix
