#pragma once
// The ports that the topology sort names when it refuses a loop through
// ports: "The ports [a, b] form a cycle."

#include <set>
#include <sstream>
#include <string>

namespace orvix::nodes::test {

// The ports of a cycle message, as text; nothing for any other message.
inline std::set<std::string> PortsOfCycleMessage(const std::string& message) {
  static const std::string prefix = "The ports [", suffix = "] form a cycle.";
  std::set<std::string> ports;
  if (message.rfind(prefix, 0) != 0 || message.size() < prefix.size() + suffix.size()) return ports;
  std::stringstream list(
      message.substr(prefix.size(), message.size() - prefix.size() - suffix.size()));
  for (std::string p; std::getline(list, p, ',');) ports.insert(p.substr(p.find_first_not_of(' ')));
  return ports;
}

}  // namespace orvix::nodes::test
