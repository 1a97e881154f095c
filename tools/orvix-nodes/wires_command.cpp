// orvix-nodes wires concat|combine|mask A B: the bytewise wire algebra.

#include <charconv>
#include <ostream>

#include <fmt/format.h>

#include "orvix/graph/wires.h"
#include "orvix/host/format.h"
#include "orvix/host/result.h"
#include "tool.h"

namespace orvix::tool {

namespace {

// A 64-bit word in decimal or 0x-hexadecimal, nothing else around it.
Result<Wires> ParseWord(const std::string& text) {
  std::string_view digits = text;
  int base = 10;
  if (digits.starts_with("0x") || digits.starts_with("0X")) {
    digits.remove_prefix(2);
    base = 16;
  }
  uint64_t value = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
  if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size())
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("\"@\" is not a 64-bit word (decimal, or hexadecimal with 0x).",
                               text));
  return Wires(value);
}

std::string Hex(Wires w) { return fmt::format("0x{:016x}", w.GetValue()); }

}  // namespace

void AddWiresCommand(CLI::App& app, Context& context, int& result) {
  auto* cmd = app.add_subcommand("wires", "Combine two wire words byte by byte");
  cmd->require_subcommand(1);
  struct Op {
    const char* name;
    const char* help;
    Wires (*apply)(Wires, Wires);
  };
  static const Op ops[] = {
      {"concat", "Chain: the smaller byte of each channel", &Wires::Concat},
      {"combine", "Parallel paths: the greater byte of each channel", &Wires::Combine},
      {"mask", "Keep the bytes of A that are not below those of B", &Wires::MaskByPriority},
  };
  for (const Op& op : ops) {
    auto* sub = cmd->add_subcommand(op.name, op.help);
    auto words = std::make_shared<std::vector<std::string>>();
    sub->add_option("words", *words, "The words A and B")->required()->expected(2);
    sub->callback([&context, &result, words, &op] {
      Result<Wires> a = ParseWord((*words)[0]);
      Result<Wires> b = ParseWord((*words)[1]);
      for (const Result<Wires>* r : {&a, &b}) {
        if (!*r) {
          result = EXIT_FAILED;
          if (context.json)
            context.EmitJson({{"word", nullptr}, {"text", nullptr},
                              {"error", r->GetError().GetMessage()}});
          else
            *context.err << "wires " << op.name << ": " << r->GetError().GetMessage() << "\n";
          return;
        }
      }
      Wires w = op.apply(*a, *b);
      if (context.json) {
        context.EmitJson({{"word", Hex(w)}, {"text", w.ToString()}});
      } else {
        *context.out << "wires " << op.name << " " << Hex(*a) << " " << Hex(*b) << "\n"
                     << "  " << Hex(w) << "\n  " << w.ToString() << "\n";
      }
    });
  }
}

}  // namespace orvix::tool
