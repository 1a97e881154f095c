#pragma once
// The visible graph of a node system as text, for ops_fuzz to compare: what
// public reads say, nothing of how it is stored. Built without the fuzzer's
// coverage instrumentation (see CMakeLists.txt): the sorting and string
// building here say nothing about the code under test, and their counters
// would only swell the corpus. The reads they call in the library do count.

#include <cstddef>
#include <string>
#include <vector>

#include "orvix/nodes/node_system.h"

namespace orvix::nodes::fuzz {

// Prints "ops_fuzz: broken promise: <what>" and aborts, which libFuzzer
// reports as a crash.
[[noreturn]] void Fail(const std::string& what);

struct Dump {
  // Every element the child walk reaches from the root, sorted by path: kind,
  // GetFlags, values (GetValues with bases), and for a port its sources and
  // targets (GetConnections, implicit wires included) with wires and
  // connection attributes. With a stamp, the modification stamp and whether
  // the system is finalized come first.
  std::string text;
  size_t elements = 0;
  // Each wire as the two ends report it, "source -> target wires", sorted.
  std::vector<std::string> fromSources;
  std::vector<std::string> fromTargets;
};

Dump TakeDump(const NodeSystem& system, bool withStamp);

// `text` without the stamp line that TakeDump(..., true) puts first.
std::string WithoutStamp(const std::string& text);

// The first line in which two dumps differ, both versions, for a message.
std::string FirstDifference(const std::string& before, const std::string& after);

// A wire that one end reports and the other doesn't (or with other wires),
// or "" if both ends of every wire agree.
std::string WireEndsDisagree(const Dump& dump);

// The attributes of a connection as text: " [kind:id=value]" each.
std::string AttributesText(const Ref<ConnectionAttributes>& attributes);

}  // namespace orvix::nodes::fuzz
