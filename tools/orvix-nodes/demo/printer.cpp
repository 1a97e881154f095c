// The demo's printer: text chapter by chapter, or one JSON document.

#include <ostream>

#include "demo.h"
#include "tool.h"

namespace orvix::tool::demo {

std::string Str(const Json& j) {
  return j.is_string() ? j.get<std::string>() : j.dump();
}

void Printer::Add(int number, const Chapter& chapter, Json reading) {
  _sections.push_back({number, &chapter, std::move(reading)});
}

void Printer::Finish() {
  if (_context.json) {
    Json document = Json::object();
    for (Section& s : _sections) document[s.chapter->name] = std::move(s.reading);
    document["error"] = nullptr;
    _context.EmitJson(document);
    return;
  }
  *_context.out << "demo: the road of a client, through the published operations\n";
  for (const Section& s : _sections) {
    _number = s.number;
    s.chapter->print(*this, s.reading);
  }
}

void Printer::Fail(const Error& error) const {
  // Some rules fail with the bare error class and no text.
  const std::string message =
      error.GetMessage().empty() ? std::string(error.GetClassId()) : error.GetMessage();
  if (_context.json)
    _context.EmitJson({{"error", message}});
  else
    *_context.err << "demo failed: " << message << "\n";
}

void Printer::Labeled(std::string_view label, std::string_view text) {
  Write(fmt::format("   {:<8}{}", label, text));
}

void Printer::Wrapped(std::string_view label, const std::vector<std::string>& items,
                      std::string_view separator) {
  constexpr size_t WIDTH = 96;
  const std::string head = fmt::format("   {:<8}", label);
  const std::string indent(head.size(), ' ');
  std::string line = head;
  bool first = true;
  for (const std::string& item : items) {
    if (!first && line.size() + separator.size() + item.size() > WIDTH) {
      // The separator ends the line without its trailing blanks.
      Write(line + std::string(separator.substr(0, separator.find_last_not_of(' ') + 1)));
      line = indent;
      first = true;
    }
    if (!first) line += separator;
    line += item;
    first = false;
  }
  Write(line);
}

void Printer::Write(std::string_view line) {
  *_context.out << line << "\n";
}

}  // namespace orvix::tool::demo
