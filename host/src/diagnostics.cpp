#include "orvix/host/diagnostics.h"

#include <cstdio>
#include <mutex>

namespace orvix {

namespace {
std::mutex& SinkMutex() {
  static std::mutex m;
  return m;
}

void DefaultSink(OUTPUT_LEVEL level, std::string_view text) {
  // One locked write per line, so that lines from several threads stay whole.
  std::FILE* f = level == OUTPUT_LEVEL::DIAGNOSTIC ? stdout : stderr;
  flockfile(f);
  fwrite_unlocked(text.data(), 1, text.size(), f);
  fputc_unlocked('\n', f);
  funlockfile(f);
}

// The sink is held by a shared pointer so that a writer can call it outside
// the lock: a sink may itself write output, or be replaced meanwhile.
std::shared_ptr<const OutputSink>& CurrentSink() {
  static std::shared_ptr<const OutputSink> sink = std::make_shared<const OutputSink>(DefaultSink);
  return sink;
}
}  // namespace

std::string_view ToString(OUTPUT_LEVEL level) {
  switch (level) {
    case OUTPUT_LEVEL::DIAGNOSTIC: return "diagnostic";
    case OUTPUT_LEVEL::CRITICAL: return "critical";
    case OUTPUT_LEVEL::STOP: return "stop";
  }
  return "unknown";
}

OutputSink SetOutputSink(OutputSink sink) {
  auto fresh = std::make_shared<const OutputSink>(sink ? std::move(sink) : OutputSink(DefaultSink));
  std::lock_guard lock(SinkMutex());
  OutputSink previous = *CurrentSink();
  CurrentSink() = std::move(fresh);
  return previous;
}

void Output(OUTPUT_LEVEL level, std::string_view text) {
  std::shared_ptr<const OutputSink> sink;
  {
    std::lock_guard lock(SinkMutex());
    sink = CurrentSink();
  }
  (*sink)(level, text);
}

void ReportInternalError() { Output(OUTPUT_LEVEL::CRITICAL, INTERNAL_ERROR_TEXT); }

struct CapturedOutput::State {
  mutable std::mutex mutex;
  std::vector<Line> lines;
};

CapturedOutput::CapturedOutput() : _state(std::make_shared<State>()) {
  std::shared_ptr<State> state = _state;
  _previous = SetOutputSink([state](OUTPUT_LEVEL level, std::string_view text) {
    std::lock_guard lock(state->mutex);
    state->lines.push_back(Line{level, std::string(text)});
  });
}

CapturedOutput::~CapturedOutput() { SetOutputSink(std::move(_previous)); }

std::vector<CapturedOutput::Line> CapturedOutput::Lines() const {
  std::lock_guard lock(_state->mutex);
  return _state->lines;
}

std::vector<std::string> CapturedOutput::Texts(OUTPUT_LEVEL level) const {
  std::lock_guard lock(_state->mutex);
  std::vector<std::string> out;
  for (const Line& l : _state->lines)
    if (l.level == level) out.push_back(l.text);
  return out;
}

bool CapturedOutput::Contains(std::string_view text) const {
  std::lock_guard lock(_state->mutex);
  for (const Line& l : _state->lines)
    if (l.text == text) return true;
  return false;
}

void CapturedOutput::Clear() {
  std::lock_guard lock(_state->mutex);
  _state->lines.clear();
}

}  // namespace orvix
