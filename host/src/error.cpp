#include "orvix/host/error.h"

#include <fmt/format.h>

namespace orvix {

namespace {
std::string_view ClassIdOf(ERROR_CLASS cls) {
  switch (cls) {
    case ERROR_CLASS::ILLEGAL_STATE: return ERROR_ID_ILLEGAL_STATE;
    case ERROR_CLASS::ILLEGAL_ARGUMENT: return ERROR_ID_ILLEGAL_ARGUMENT;
    case ERROR_CLASS::NULL_OBJECT: return ERROR_ID_NULL_OBJECT;
    case ERROR_CLASS::OUT_OF_MEMORY: return ERROR_ID_OUT_OF_MEMORY;
    case ERROR_CLASS::FUNCTION_NOT_IMPLEMENTED: return ERROR_ID_FUNCTION_NOT_IMPLEMENTED;
    case ERROR_CLASS::UNEXPECTED: return ERROR_ID_UNEXPECTED;
    case ERROR_CLASS::UNSUPPORTED_OPERATION: return ERROR_ID_UNSUPPORTED_OPERATION;
    case ERROR_CLASS::REGISTERED: break;
  }
  return "net.orvix.error.registered";
}

ERROR_CLASS ClassOfId(std::string_view id) {
  for (ERROR_CLASS c :
       {ERROR_CLASS::ILLEGAL_STATE, ERROR_CLASS::ILLEGAL_ARGUMENT, ERROR_CLASS::NULL_OBJECT,
        ERROR_CLASS::OUT_OF_MEMORY, ERROR_CLASS::FUNCTION_NOT_IMPLEMENTED,
        ERROR_CLASS::UNEXPECTED, ERROR_CLASS::UNSUPPORTED_OPERATION}) {
    if (ClassIdOf(c) == id) return c;
  }
  return ERROR_CLASS::REGISTERED;
}
}  // namespace

// An error must be makeable when memory has run out: if its payload can't be
// allocated, the error becomes the shared out-of-memory error.
Error::Error(ERROR_CLASS cls, std::string message, SourceLocation where) noexcept {
  try {
    _payload = std::make_shared<const Payload>(
        Payload{cls, std::string(ClassIdOf(cls)), std::move(message), where});
  } catch (const std::bad_alloc&) {
    _payload = OutOfMemoryError()._payload;
  }
}

Error::Error(std::string classId, std::string message, SourceLocation where) noexcept {
  try {
    ERROR_CLASS cls = ClassOfId(classId);
    _payload = std::make_shared<const Payload>(
        Payload{cls, std::move(classId), std::move(message), where});
  } catch (const std::bad_alloc&) {
    _payload = OutOfMemoryError()._payload;
  }
}

std::string Error::Describe() const {
  return fmt::format("{} ({}:{})", _payload->message, _payload->where.file_name(),
                     _payload->where.line());
}

std::string_view ToString(ERROR_CLASS cls) {
  switch (cls) {
    case ERROR_CLASS::ILLEGAL_STATE: return "illegal state";
    case ERROR_CLASS::ILLEGAL_ARGUMENT: return "illegal argument";
    case ERROR_CLASS::NULL_OBJECT: return "null object";
    case ERROR_CLASS::OUT_OF_MEMORY: return "out of memory";
    case ERROR_CLASS::FUNCTION_NOT_IMPLEMENTED: return "function not implemented";
    case ERROR_CLASS::UNEXPECTED: return "unexpected";
    case ERROR_CLASS::UNSUPPORTED_OPERATION: return "unsupported operation";
    case ERROR_CLASS::REGISTERED: return "registered";
  }
  return "unknown";
}

Error OutOfMemoryError(SourceLocation where) {
  // Made once and shared: when memory is gone, building a fresh message is the
  // last thing that should be attempted.
  // Made at the first call, which the library provokes while it loads (below),
  // so that it exists before memory can run out.
  static const Error oom(std::make_shared<const Error::Payload>(Error::Payload{
      ERROR_CLASS::OUT_OF_MEMORY, std::string(ERROR_ID_OUT_OF_MEMORY), "Out of memory.", where}));
  return oom;
}

namespace {
[[maybe_unused]] const bool g_outOfMemoryErrorReady = !OutOfMemoryError().GetMessage().empty();
}  // namespace

std::string ConditionMessage(CONDITION_KIND kind, std::string_view conditionText) {
  std::string_view prefix;
  switch (kind) {
    case CONDITION_KIND::ILLEGAL_ARGUMENT: prefix = "Illegal argument: Condition "; break;
    case CONDITION_KIND::ILLEGAL_STATE: prefix = "Illegal state: Condition "; break;
    case CONDITION_KIND::ASSERTION: prefix = "Assertion failed: Condition "; break;
  }
  std::string out;
  out.reserve(prefix.size() + conditionText.size() + 16);
  out.append(prefix).append(conditionText).append(" not fulfilled. ");
  return out;
}

Error ConditionError(CONDITION_KIND kind, std::string_view conditionText,
                     SourceLocation where) {
  ERROR_CLASS cls = kind == CONDITION_KIND::ILLEGAL_ARGUMENT ? ERROR_CLASS::ILLEGAL_ARGUMENT
                    : kind == CONDITION_KIND::ILLEGAL_STATE  ? ERROR_CLASS::ILLEGAL_STATE
                                                             : ERROR_CLASS::UNEXPECTED;
  return Error(cls, ConditionMessage(kind, conditionText), where);
}

}  // namespace orvix
