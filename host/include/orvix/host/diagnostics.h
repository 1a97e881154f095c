#pragma once
// The host's diagnostic output: three levels of formatted text, one redirectable sink.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orvix/host/format.h"

namespace orvix {

enum class OUTPUT_LEVEL {
  DIAGNOSTIC,  // information for developers
  CRITICAL,    // something went wrong that a user should hear of
  STOP,        // a critical stop record, written after a critical line that needs one
};

std::string_view ToString(OUTPUT_LEVEL level);

using OutputSink = std::function<void(OUTPUT_LEVEL, std::string_view)>;

// Replaces the sink and hands back the previous one. The default sink writes
// DIAGNOSTIC lines to stdout and the others to stderr. Thread-safe.
OutputSink SetOutputSink(OutputSink sink);

// Writes one line at the given level.
void Output(OUTPUT_LEVEL level, std::string_view text);

template <typename... Args>
void OutputFormatted(OUTPUT_LEVEL level, std::string_view pattern, const Args&... args) {
  Output(level, FormatMessage(pattern, args...));
}

template <typename... Args>
void DiagnosticOutput(std::string_view pattern, const Args&... args) {
  OutputFormatted(OUTPUT_LEVEL::DIAGNOSTIC, pattern, args...);
}

template <typename... Args>
void CriticalOutput(std::string_view pattern, const Args&... args) {
  OutputFormatted(OUTPUT_LEVEL::CRITICAL, pattern, args...);
}

// The text written when an operation finds a broken invariant.
inline constexpr std::string_view INTERNAL_ERROR_TEXT = "Stop: Internal error.";

// Writes "Stop: Internal error." to the critical output. The caller then
// yields an empty result; nothing is thrown and nothing aborts.
void ReportInternalError();

// Collects every line written while it lives, in place of the current sink.
// Meant for tests; restores the previous sink when destroyed.
class CapturedOutput {
 public:
  struct Line {
    OUTPUT_LEVEL level;
    std::string text;
  };

  CapturedOutput();
  ~CapturedOutput();
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  std::vector<Line> Lines() const;
  // Lines of one level, text only.
  std::vector<std::string> Texts(OUTPUT_LEVEL level) const;
  bool Contains(std::string_view text) const;
  void Clear();

 private:
  struct State;
  std::shared_ptr<State> _state;
  OutputSink _previous;
};

}  // namespace orvix
