#include <iostream>
#include <string>
#include <vector>

#include "tool.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  try {
    return orvix::tool::RunTool(args, std::cout, std::cerr);
  } catch (const std::exception& e) {
    // Nothing in the library throws; this guards the tool's own containers.
    std::cerr << "orvix-nodes: " << e.what() << "\n";
    return orvix::tool::EXIT_FAILED;
  }
}
