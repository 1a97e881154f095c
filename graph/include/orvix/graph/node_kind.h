#pragma once
// The vocabulary of the node tree: what kind an element is, which direction a
// port faces, and the flag words stored per element and per child record.

#include <cstdint>
#include <string>
#include <string_view>

#include "orvix/graph/flags.h"

namespace orvix {

// The kind of a tree element. An element has exactly one of the five single
// bits; the masks are for tests such as "is this any port".
enum class NODE_KIND : uint32_t {
  NONE = 0x0,      // no element
  NODE = 0x1,      // a node, the root included
  INPUTS = 0x2,    // the input port list of a node
  OUTPUTS = 0x4,   // the output port list of a node
  INPORT = 0x8,    // a port below INPUTS, at any depth
  OUTPORT = 0x10,  // a port below OUTPUTS, at any depth

  IN_MASK = 0xa,
  OUT_MASK = 0x14,
  PORTLIST_MASK = 0x6,
  PORT_MASK = 0x18,
  ALL_MASK = 0x1f,
};
ORVIX_FLAG_SET_OPERATORS(NODE_KIND)

static_assert(NODE_KIND::IN_MASK == (NODE_KIND::INPUTS | NODE_KIND::INPORT));
static_assert(NODE_KIND::OUT_MASK == (NODE_KIND::OUTPUTS | NODE_KIND::OUTPORT));
static_assert(NODE_KIND::PORTLIST_MASK == (NODE_KIND::INPUTS | NODE_KIND::OUTPUTS));
static_assert(NODE_KIND::PORT_MASK == (NODE_KIND::INPORT | NODE_KIND::OUTPORT));
static_assert(NODE_KIND::ALL_MASK ==
              (NODE_KIND::NODE | NODE_KIND::PORTLIST_MASK | NODE_KIND::PORT_MASK));

// The enumeration name of a kind; a combination is its names joined by "|"
// ("INPUTS|INPORT"), bits without a name follow in hex.
std::string ToString(NODE_KIND kind);

// The direction of a port. BEGIN and END bound a loop over both directions:
//   for (PORT_DIR dir = PORT_DIR::BEGIN; dir < PORT_DIR::END; ++dir)
enum class PORT_DIR : int64_t {
  INPUT = 0,
  OUTPUT = 1,
  BEGIN = 0,
  END = 2,
};

constexpr PORT_DIR& operator++(PORT_DIR& dir) noexcept {
  return dir = static_cast<PORT_DIR>(static_cast<int64_t>(dir) + 1);
}

// "INPUT", "OUTPUT" or "END"; other values yield "?".
std::string_view ToString(PORT_DIR dir);

// The public flags of a node or port. The values are those of the same bits in
// GNODE_FLAGS_IMPL, so reading the public flags from a stored word is one mask.
enum class GNODE_FLAGS : uint64_t {
  NONE = 0x0,
  DIRECT_PORT = 0x80,              // made by an explicit add-port call
  DERIVED_PORT_INHERITED = 0x100,  // made by derivation; not removable by ordinary calls
  DERIVED_PORT_SYNTHESIZED = 0x200,
  CONTEXT_SOURCE = 0x400,
  CONTEXT_TARGET = 0x800,
  FUNCTION_INSTANTIATION = 0x1000,
  CONTEXT_PARAMETER_PORT = 0x2000,
  TAPPING_PORT = 0x4000,
  FILTER_SHORTCUT_SOURCE = 0x8000,
  FILTER_SHORTCUT_TARGET = 0x10000,
  ALL_MASK = 0x1ff80,
};
ORVIX_FLAG_SET_OPERATORS(GNODE_FLAGS)

static_assert(GNODE_FLAGS::ALL_MASK ==
              (GNODE_FLAGS::DIRECT_PORT | GNODE_FLAGS::DERIVED_PORT_INHERITED |
               GNODE_FLAGS::DERIVED_PORT_SYNTHESIZED | GNODE_FLAGS::CONTEXT_SOURCE |
               GNODE_FLAGS::CONTEXT_TARGET | GNODE_FLAGS::FUNCTION_INSTANTIATION |
               GNODE_FLAGS::CONTEXT_PARAMETER_PORT | GNODE_FLAGS::TAPPING_PORT |
               GNODE_FLAGS::FILTER_SHORTCUT_SOURCE | GNODE_FLAGS::FILTER_SHORTCUT_TARGET));

// The set flag names joined by "|" ("DIRECT_PORT|TAPPING_PORT"), "NONE" for no
// flag; bits without a name follow in hex.
std::string ToString(GNODE_FLAGS flags);

// The word that each stored element keeps as its first field.
//   bits 0-4    the element's NODE_KIND (so a record can be told without its path)
//   bits 7-16   the GNODE_FLAGS, same names and values
//   bit 18      SHORTCUT_STOP
//   bit 19      HAS_SOURCE_SHORTCUTS on a port, DIRECT_INSTANCE on a node
//   bits 24-47  the MODIFIED_... bits
//   bit 48      INDUCED_DEPENDENCIES
// Bits 5, 6, 17 and 20-23 stay 0.
enum class GNODE_FLAGS_IMPL : uint64_t {
  NONE = 0x0,
  DIRECT_PORT = 0x80,
  DERIVED_PORT_INHERITED = 0x100,
  DERIVED_PORT_SYNTHESIZED = 0x200,
  CONTEXT_SOURCE = 0x400,
  CONTEXT_TARGET = 0x800,
  FUNCTION_INSTANTIATION = 0x1000,
  CONTEXT_PARAMETER_PORT = 0x2000,
  TAPPING_PORT = 0x4000,
  FILTER_SHORTCUT_SOURCE = 0x8000,
  FILTER_SHORTCUT_TARGET = 0x10000,

  SHORTCUT_STOP = 0x40000,
  // One bit, two names: which one applies depends on the element's kind.
  HAS_SOURCE_SHORTCUTS = 0x80000,  // on a port
  DIRECT_INSTANCE = 0x80000,       // on a node: its content is a nested node system

  // topology
  MODIFIED_TOPOLOGY = 0x1000000,
  MODIFIED_NESTED_TOPOLOGY = 0x2000000,

  // port validation
  MODIFIED_PV_CHILDREN = 0x4000000,
  MODIFIED_PV_SOURCES = 0x8000000,
  MODIFIED_PV_TARGETS = 0x10000000,
  MODIFIED_PV_SHORTCUT = 0x20000000,
  MODIFIED_PV_NESTED_INHERITED = 0x40000000,
  MODIFIED_PV_NESTED_SYNTHESIZED = 0x80000000,
  MODIFIED_PV_INHERITED = 0x2c000000,
  MODIFIED_PV_SYNTHESIZED = 0x14000000,
  MODIFIED_PV_ALL = 0xfc000000,

  // attribute validation
  MODIFIED_AV_ATTRIBUTES = 0x100000000,
  MODIFIED_AV_SOURCES = 0x200000000,
  MODIFIED_AV_TARGETS = 0x400000000,
  MODIFIED_AV_NESTED_ATTRIBUTES = 0x800000000,
  MODIFIED_AV_NESTED_SOURCES = 0x1000000000,
  MODIFIED_AV_NESTED_TARGETS = 0x2000000000,
  MODIFIED_AV_INHERITED = 0x300000000,
  MODIFIED_AV_SYNTHESIZED = 0x500000000,
  MODIFIED_AV_NESTED_INHERITED = 0x1800000000,
  MODIFIED_AV_NESTED_SYNTHESIZED = 0x2800000000,
  MODIFIED_AV_ALL = 0x3f00000000,

  // second attribute validation
  MODIFIED_SAV_ATTRIBUTES = 0x4000000000,
  MODIFIED_SAV_SOURCES = 0x8000000000,
  MODIFIED_SAV_TARGETS = 0x10000000000,
  MODIFIED_SAV_NESTED_ATTRIBUTES = 0x20000000000,
  MODIFIED_SAV_NESTED_SOURCES = 0x40000000000,
  MODIFIED_SAV_NESTED_TARGETS = 0x80000000000,
  MODIFIED_SAV_LOOP_DEPENDENCIES_CHANGE = 0x100000000000,
  MODIFIED_SAV_INHERITED = 0xc000000000,
  MODIFIED_SAV_SYNTHESIZED = 0x14000000000,
  MODIFIED_SAV_NESTED_INHERITED = 0x60000000000,
  MODIFIED_SAV_NESTED_SYNTHESIZED = 0xa0000000000,
  MODIFIED_SAV_ALL = 0x1fc000000000,

  // garbage
  MODIFIED_G_GARBAGE = 0x200000000000,
  MODIFIED_G_VALUES_MIGHT_BE_REFERENCED = 0x400000000000,
  MODIFIED_G_NESTED_GARBAGE = 0x800000000000,
  MODIFIED_G_ALL = 0xe00000000000,

  // across the groups
  MODIFIED_MASK = 0xffffffffff000000,
  MODIFIED_ATTRIBUTES = 0x4100000000,
  MODIFIED_SOURCES = 0x8208000000,
  MODIFIED_TARGETS = 0x10410000000,

  INDUCED_DEPENDENCIES = 0x1000000000000,

  // masks that are not about modification
  DERIVED_PORT_MASK = 0x300,
  SHORTCUT_STOP_MASK = 0x5dc00,
  INHERIT_MASK = 0x5ff80,  // taken over from the base element at creation
  TOP_LEVEL_PORT_INHERIT_MASK = 0x5ff80,
  INHERIT_FROM_PARENT_MASK = 0x5c00,  // taken over from the parent by a new child
};
ORVIX_FLAG_SET_OPERATORS(GNODE_FLAGS_IMPL)

// Bits 0-4 of a GNODE_FLAGS_IMPL word.
inline constexpr uint64_t GNODE_KIND_BITS = 0x1f;

// The kind kept in a stored word.
constexpr NODE_KIND GetKind(GNODE_FLAGS_IMPL flags) noexcept {
  return static_cast<NODE_KIND>(ToBits(flags) & GNODE_KIND_BITS);
}
// `flags` with its kind bits replaced by `kind`.
constexpr GNODE_FLAGS_IMPL WithKind(GNODE_FLAGS_IMPL flags, NODE_KIND kind) noexcept {
  return static_cast<GNODE_FLAGS_IMPL>((ToBits(flags) & ~GNODE_KIND_BITS) |
                                       (ToBits(kind) & GNODE_KIND_BITS));
}
// The public flags of a stored word: one mask.
constexpr GNODE_FLAGS ToPublicFlags(GNODE_FLAGS_IMPL flags) noexcept {
  return static_cast<GNODE_FLAGS>(ToBits(flags) & ToBits(GNODE_FLAGS::ALL_MASK));
}
constexpr GNODE_FLAGS_IMPL ToImplFlags(GNODE_FLAGS flags) noexcept {
  return static_cast<GNODE_FLAGS_IMPL>(ToBits(flags) & ToBits(GNODE_FLAGS::ALL_MASK));
}

// The layout promises, checked where they are made.
namespace detail {
using GFI = GNODE_FLAGS_IMPL;
static_assert(ToBits(GFI::DIRECT_PORT) == ToBits(GNODE_FLAGS::DIRECT_PORT) &&
              ToBits(GFI::DERIVED_PORT_INHERITED) == ToBits(GNODE_FLAGS::DERIVED_PORT_INHERITED) &&
              ToBits(GFI::DERIVED_PORT_SYNTHESIZED) ==
                  ToBits(GNODE_FLAGS::DERIVED_PORT_SYNTHESIZED) &&
              ToBits(GFI::CONTEXT_SOURCE) == ToBits(GNODE_FLAGS::CONTEXT_SOURCE) &&
              ToBits(GFI::CONTEXT_TARGET) == ToBits(GNODE_FLAGS::CONTEXT_TARGET) &&
              ToBits(GFI::FUNCTION_INSTANTIATION) == ToBits(GNODE_FLAGS::FUNCTION_INSTANTIATION) &&
              ToBits(GFI::CONTEXT_PARAMETER_PORT) == ToBits(GNODE_FLAGS::CONTEXT_PARAMETER_PORT) &&
              ToBits(GFI::TAPPING_PORT) == ToBits(GNODE_FLAGS::TAPPING_PORT) &&
              ToBits(GFI::FILTER_SHORTCUT_SOURCE) == ToBits(GNODE_FLAGS::FILTER_SHORTCUT_SOURCE) &&
              ToBits(GFI::FILTER_SHORTCUT_TARGET) == ToBits(GNODE_FLAGS::FILTER_SHORTCUT_TARGET));
static_assert((ToBits(GNODE_FLAGS::ALL_MASK) & GNODE_KIND_BITS) == 0);
static_assert(GFI::HAS_SOURCE_SHORTCUTS == GFI::DIRECT_INSTANCE);

static_assert(GFI::MODIFIED_PV_INHERITED ==
              (GFI::MODIFIED_PV_CHILDREN | GFI::MODIFIED_PV_SOURCES | GFI::MODIFIED_PV_SHORTCUT));
static_assert(GFI::MODIFIED_PV_SYNTHESIZED ==
              (GFI::MODIFIED_PV_CHILDREN | GFI::MODIFIED_PV_TARGETS));
static_assert(GFI::MODIFIED_PV_ALL ==
              (GFI::MODIFIED_PV_CHILDREN | GFI::MODIFIED_PV_SOURCES | GFI::MODIFIED_PV_TARGETS |
               GFI::MODIFIED_PV_SHORTCUT | GFI::MODIFIED_PV_NESTED_INHERITED |
               GFI::MODIFIED_PV_NESTED_SYNTHESIZED));

static_assert(GFI::MODIFIED_AV_INHERITED ==
              (GFI::MODIFIED_AV_ATTRIBUTES | GFI::MODIFIED_AV_SOURCES));
static_assert(GFI::MODIFIED_AV_SYNTHESIZED ==
              (GFI::MODIFIED_AV_ATTRIBUTES | GFI::MODIFIED_AV_TARGETS));
static_assert(GFI::MODIFIED_AV_NESTED_INHERITED ==
              (GFI::MODIFIED_AV_NESTED_ATTRIBUTES | GFI::MODIFIED_AV_NESTED_SOURCES));
static_assert(GFI::MODIFIED_AV_NESTED_SYNTHESIZED ==
              (GFI::MODIFIED_AV_NESTED_ATTRIBUTES | GFI::MODIFIED_AV_NESTED_TARGETS));
static_assert(GFI::MODIFIED_AV_ALL ==
              (GFI::MODIFIED_AV_INHERITED | GFI::MODIFIED_AV_SYNTHESIZED |
               GFI::MODIFIED_AV_NESTED_INHERITED | GFI::MODIFIED_AV_NESTED_SYNTHESIZED));

static_assert(GFI::MODIFIED_SAV_INHERITED ==
              (GFI::MODIFIED_SAV_ATTRIBUTES | GFI::MODIFIED_SAV_SOURCES));
static_assert(GFI::MODIFIED_SAV_SYNTHESIZED ==
              (GFI::MODIFIED_SAV_ATTRIBUTES | GFI::MODIFIED_SAV_TARGETS));
static_assert(GFI::MODIFIED_SAV_NESTED_INHERITED ==
              (GFI::MODIFIED_SAV_NESTED_ATTRIBUTES | GFI::MODIFIED_SAV_NESTED_SOURCES));
static_assert(GFI::MODIFIED_SAV_NESTED_SYNTHESIZED ==
              (GFI::MODIFIED_SAV_NESTED_ATTRIBUTES | GFI::MODIFIED_SAV_NESTED_TARGETS));
static_assert(GFI::MODIFIED_SAV_ALL ==
              (GFI::MODIFIED_SAV_INHERITED | GFI::MODIFIED_SAV_SYNTHESIZED |
               GFI::MODIFIED_SAV_NESTED_INHERITED | GFI::MODIFIED_SAV_NESTED_SYNTHESIZED |
               GFI::MODIFIED_SAV_LOOP_DEPENDENCIES_CHANGE));

static_assert(GFI::MODIFIED_G_ALL ==
              (GFI::MODIFIED_G_GARBAGE | GFI::MODIFIED_G_VALUES_MIGHT_BE_REFERENCED |
               GFI::MODIFIED_G_NESTED_GARBAGE));

static_assert(GFI::MODIFIED_ATTRIBUTES ==
              (GFI::MODIFIED_AV_ATTRIBUTES | GFI::MODIFIED_SAV_ATTRIBUTES));
static_assert(GFI::MODIFIED_SOURCES ==
              (GFI::MODIFIED_PV_SOURCES | GFI::MODIFIED_AV_SOURCES | GFI::MODIFIED_SAV_SOURCES));
static_assert(GFI::MODIFIED_TARGETS ==
              (GFI::MODIFIED_PV_TARGETS | GFI::MODIFIED_AV_TARGETS | GFI::MODIFIED_SAV_TARGETS));
// Every modified bit lies inside MODIFIED_MASK, and nothing below bit 24 does.
static_assert(HasAll(GFI::MODIFIED_MASK, GFI::MODIFIED_TOPOLOGY | GFI::MODIFIED_NESTED_TOPOLOGY |
                                             GFI::MODIFIED_PV_ALL | GFI::MODIFIED_AV_ALL |
                                             GFI::MODIFIED_SAV_ALL | GFI::MODIFIED_G_ALL));
static_assert((ToBits(GFI::MODIFIED_MASK) & 0xffffff) == 0);

static_assert(GFI::DERIVED_PORT_MASK ==
              (GFI::DERIVED_PORT_INHERITED | GFI::DERIVED_PORT_SYNTHESIZED));
static_assert(GFI::SHORTCUT_STOP_MASK ==
              (GFI::SHORTCUT_STOP | GFI::FILTER_SHORTCUT_SOURCE | GFI::FILTER_SHORTCUT_TARGET |
               GFI::TAPPING_PORT | GFI::FUNCTION_INSTANTIATION | GFI::CONTEXT_TARGET |
               GFI::CONTEXT_SOURCE));
static_assert(GFI::INHERIT_MASK == (ToImplFlags(GNODE_FLAGS::ALL_MASK) | GFI::SHORTCUT_STOP));
static_assert(GFI::TOP_LEVEL_PORT_INHERIT_MASK == GFI::INHERIT_MASK);
static_assert(GFI::INHERIT_FROM_PARENT_MASK == (GFI::TAPPING_PORT | GFI::FUNCTION_INSTANTIATION |
                                                GFI::CONTEXT_TARGET | GFI::CONTEXT_SOURCE));
}  // namespace detail

// The set flag names joined by "|", in bit order. The kind bits are written as
// the kind's name, and bit 19 by the name that fits the kind (DIRECT_INSTANCE
// on a node, HAS_SOURCE_SHORTCUTS otherwise). "NONE" for an empty word; bits
// without a name follow in hex.
std::string ToString(GNODE_FLAGS_IMPL flags);

// The flags of a child record.
enum class CHILD_FLAGS : uint32_t {
  NONE = 0x0,        // without ADDED: the child of that id is absent here, whatever the base has
  ADDED = 0x1,       // the child was added in this system
  SYNTHETIC = 0x2,   // made by the system's own working, not by an edit; not stored
  IO_REMOVED = 0x4,  // persistent form only: the stored entry states a removal
};
ORVIX_FLAG_SET_OPERATORS(CHILD_FLAGS)

std::string ToString(CHILD_FLAGS flags);

// Text forms in messages: FormatMessage("... @ ...", kind).
inline void AppendText(std::string& out, NODE_KIND kind) {
  out += ToString(kind);
}
inline void AppendText(std::string& out, PORT_DIR dir) {
  out += ToString(dir);
}
inline void AppendText(std::string& out, GNODE_FLAGS flags) {
  out += ToString(flags);
}
inline void AppendText(std::string& out, GNODE_FLAGS_IMPL flags) {
  out += ToString(flags);
}
inline void AppendText(std::string& out, CHILD_FLAGS flags) {
  out += ToString(flags);
}

}  // namespace orvix
