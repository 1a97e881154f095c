#pragma once
// Error: what a failed operation hands back instead of a value.

#include <memory>
#include <source_location>
#include <string>
#include <string_view>

namespace orvix {

// Where an error was made. libstdc++ offers std::source_location only to
// compilers with __builtin_source_location, which clang 14 (the fuzz targets'
// compiler) lacks; the older builtins give the same facts.
#if defined(__cpp_lib_source_location)
using SourceLocation = std::source_location;
#else
class SourceLocation {
 public:
  static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                          const char* function = __builtin_FUNCTION(),
                                          unsigned line = __builtin_LINE(),
                                          unsigned column = __builtin_COLUMN()) noexcept {
    SourceLocation l;
    l._file = file;
    l._function = function;
    l._line = line;
    l._column = column;
    return l;
  }
  constexpr const char* file_name() const noexcept { return _file; }
  constexpr const char* function_name() const noexcept { return _function; }
  constexpr unsigned line() const noexcept { return _line; }
  constexpr unsigned column() const noexcept { return _column; }

 private:
  const char* _file = "";
  const char* _function = "";
  unsigned _line = 0;
  unsigned _column = 0;
};
#endif

// The classes an error can have. REGISTERED stands for an error class that a
// module registered under an id of its own (see Error::GetClassId).
enum class ERROR_CLASS {
  ILLEGAL_STATE,
  ILLEGAL_ARGUMENT,
  NULL_OBJECT,
  OUT_OF_MEMORY,
  FUNCTION_NOT_IMPLEMENTED,
  UNEXPECTED,
  UNSUPPORTED_OPERATION,
  REGISTERED,
};

// Ids of the built-in error classes.
inline constexpr std::string_view ERROR_ID_ILLEGAL_STATE = "net.orvix.error.illegalstate";
inline constexpr std::string_view ERROR_ID_ILLEGAL_ARGUMENT = "net.orvix.error.illegalargument";
inline constexpr std::string_view ERROR_ID_NULL_OBJECT = "net.orvix.error.nullobject";
inline constexpr std::string_view ERROR_ID_OUT_OF_MEMORY = "net.orvix.error.outofmemory";
inline constexpr std::string_view ERROR_ID_FUNCTION_NOT_IMPLEMENTED =
    "net.orvix.error.functionnotimplemented";
inline constexpr std::string_view ERROR_ID_UNEXPECTED = "net.orvix.error.unexpected";
inline constexpr std::string_view ERROR_ID_UNSUPPORTED_OPERATION =
    "net.orvix.error.unsupportedoperation";

// An immutable error: class, message, and where it was made. Copies share one
// payload, so passing an error up through many results costs a reference count.
class Error {
 public:
  Error(ERROR_CLASS cls, std::string message,
        SourceLocation where = SourceLocation::current()) noexcept;
  // An error of a registered class, named by its id.
  Error(std::string classId, std::string message,
        SourceLocation where = SourceLocation::current()) noexcept;

  ERROR_CLASS GetClass() const { return _payload->cls; }
  // The id of the class: one of the ERROR_ID_... constants or a registered id.
  std::string_view GetClassId() const { return _payload->classId; }
  const std::string& GetMessage() const { return _payload->message; }
  const SourceLocation& GetLocation() const { return _payload->where; }

  // "message (file:line)", for diagnostics.
  std::string Describe() const;

  friend bool operator==(const Error& a, const Error& b) {
    return a._payload == b._payload ||
           (a._payload->classId == b._payload->classId && a._payload->message == b._payload->message);
  }

 private:
  struct Payload {
    ERROR_CLASS cls;
    std::string classId;
    std::string message;
    SourceLocation where;
  };
  friend Error OutOfMemoryError(SourceLocation where);
  explicit Error(std::shared_ptr<const Payload> payload) noexcept : _payload(std::move(payload)) {}
  std::shared_ptr<const Payload> _payload;
};

std::string_view ToString(ERROR_CLASS cls);

// The out-of-memory error, made without allocating a new payload.
Error OutOfMemoryError(SourceLocation where = SourceLocation::current());

// The text of a failed condition: "<prefix>: Condition <text> not fulfilled. ".
// The trailing blank is part of the system's message.
enum class CONDITION_KIND { ILLEGAL_ARGUMENT, ILLEGAL_STATE, ASSERTION };
std::string ConditionMessage(CONDITION_KIND kind, std::string_view conditionText);
Error ConditionError(CONDITION_KIND kind, std::string_view conditionText,
                     SourceLocation where = SourceLocation::current());

}  // namespace orvix

// Returns the condition error from the enclosing function when `cond` is false.
#define ORVIX_CHECK_ARGUMENT(cond)                                                         \
  do {                                                                                     \
    if (!(cond)) return ::orvix::ConditionError(::orvix::CONDITION_KIND::ILLEGAL_ARGUMENT, \
                                                #cond);                                    \
  } while (0)
#define ORVIX_CHECK_STATE(cond)                                                                 \
  do {                                                                                          \
    if (!(cond)) return ::orvix::ConditionError(::orvix::CONDITION_KIND::ILLEGAL_STATE, #cond); \
  } while (0)
#define ORVIX_CHECK_ASSERT(cond)                                                            \
  do {                                                                                      \
    if (!(cond)) return ::orvix::ConditionError(::orvix::CONDITION_KIND::ASSERTION, #cond); \
  } while (0)
