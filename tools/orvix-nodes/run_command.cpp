// orvix-nodes run FILE: runs a file of tool commands, one per line, echoing each.
// A line that starts with "!" is expected to fail: the run fails if it doesn't.

#include <fstream>
#include <ostream>
#include <sstream>

#include "tool.h"

namespace orvix::tool {

namespace {

// Splits a line into words; single and double quotes group, as in a shell.
bool SplitWords(const std::string& line, std::vector<std::string>& words) {
  std::string word;
  bool inWord = false;
  char quote = 0;
  for (char c : line) {
    if (quote) {
      if (c == quote) quote = 0;
      else word.push_back(c);
    } else if (c == '\'' || c == '"') {
      quote = c;
      inWord = true;
    } else if (c == ' ' || c == '\t') {
      if (inWord) words.push_back(std::move(word));
      word.clear();
      inWord = false;
    } else {
      word.push_back(c);
      inWord = true;
    }
  }
  if (inWord) words.push_back(std::move(word));
  return quote == 0;
}

}  // namespace

void AddRunCommand(CLI::App& app, Context& context, int& result) {
  auto* cmd = app.add_subcommand("run", "Run a file of orvix-nodes commands, one per line");
  auto file = std::make_shared<std::string>();
  cmd->add_option("file", *file, "The command file; '#' starts a comment line")->required();
  cmd->callback([&context, &result, file] {
    // A command file may not run another one (nor itself): the lines run
    // in-process, so nesting would recurse without end.
    static thread_local bool running = false;
    if (running) {
      *context.err << "run: a command file can't run another command file\n";
      result = EXIT_FAILED;
      return;
    }
    running = true;
    struct Reset {
      ~Reset() { running = false; }
    } reset;
    std::ifstream in(*file);
    if (!in) {
      *context.err << "run: can't open " << *file << "\n";
      result = EXIT_FAILED;
      return;
    }
    std::string line;
    int lineNumber = 0;
    result = EXIT_OK;
    while (std::getline(in, line)) {
      ++lineNumber;
      size_t start = line.find_first_not_of(" \t");
      if (start == std::string::npos || line[start] == '#') continue;
      bool expectFailure = line[start] == '!';
      std::string command = line.substr(start + (expectFailure ? 1 : 0));
      command.erase(0, command.find_first_not_of(" \t"));
      std::vector<std::string> words;
      if (!SplitWords(command, words) || words.empty()) {
        *context.err << *file << ":" << lineNumber << ": not a command line\n";
        result = EXIT_FAILED;
        continue;
      }
      if (context.json) words.insert(words.begin(), "--json");
      if (!context.json) *context.out << "$ orvix-nodes " << command << "\n";
      std::ostringstream err;
      int code = RunTool(words, *context.out, err);
      // An expected failure's message is part of what the example shows.
      *(expectFailure ? context.out : context.err) << err.str();
      if ((code != EXIT_OK) != expectFailure) {
        *context.err << *file << ":" << lineNumber << ": "
                     << (expectFailure ? "succeeded, but was expected to fail"
                                       : "failed with exit code " + std::to_string(code))
                     << "\n";
        result = EXIT_FAILED;
      }
      if (!context.json) *context.out << "\n";
    }
  });
}

}  // namespace orvix::tool
