#pragma once
// Configuration variables: named, typed settings with a default and a help text,
// changed from outside by name (environment, command line) and read cheaply by
// the code that owns them.
//
// A variable is defined in the library that reads it, and registers itself when
// it is constructed (at static initialization for a namespace-scope variable, or
// when its library is loaded):
//
//   inline ConfigVariable<bool> g_showValidationTime{"g_showValidationTime", false,
//                                                    "Prints the time of each validation stage."};
//   ...
//   if (g_showValidationTime.Get()) ...

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "orvix/host/result.h"

namespace orvix {

enum class CONFIG_TYPE : uint8_t { BOOL, INT, FLOAT, STRING };

// "Bool", "Int", "Float", "String".
std::string_view ToString(CONFIG_TYPE type);

// The name of a configuration variable: a literal that begins with "g_",
// checked when the program is compiled. Its text has static storage.
struct ConfigName {
  consteval ConfigName(const char* name) : text(name) {
    if (!(name[0] == 'g' && name[1] == '_' && name[2] != '\0'))
      throw "the name of a configuration variable begins with g_";
  }
  std::string_view text;
};

// What the registry holds of every variable; see the typed ConfigVariable<T>.
// Registration and all access by name are thread-safe; a variable that is
// destroyed leaves the registry first.
class ConfigVariableBase {
 public:
  ConfigVariableBase(const ConfigVariableBase&) = delete;
  ConfigVariableBase& operator=(const ConfigVariableBase&) = delete;

  std::string_view GetName() const { return _name; }
  CONFIG_TYPE GetType() const { return _type; }
  std::string_view GetHelp() const { return _help; }

  // Text forms: "true"/"false", decimal integers, the shortest text that reads
  // back as the same double, strings as they are.
  virtual std::string GetDefaultText() const = 0;
  virtual std::string GetValueText() const = 0;
  // Parses `text` for the variable's type and sets it; see SetConfigVariable.
  virtual Result<void> SetFromText(std::string_view text) = 0;
  // Back to the default.
  virtual void Reset() = 0;
  // "10 to 100000" for a number with a range, else empty.
  virtual std::string GetRangeText() const { return {}; }

 protected:
  ConfigVariableBase(ConfigName name, CONFIG_TYPE type, std::string_view help)
      : _name(name.text), _type(type), _help(help) {}
  virtual ~ConfigVariableBase();

  // Called by the derived class once it is whole, and first thing when it is
  // destroyed, so that a setter by name never reaches a half-built variable.
  // A second variable of a name already registered writes a critical line and
  // stays out of the registry.
  void _Register();
  void _Unregister();

 private:
  std::string_view _name;
  CONFIG_TYPE _type;
  std::string_view _help;
  bool _registered = false;
};

namespace detail {
template <typename T>
constexpr CONFIG_TYPE ConfigTypeOf() {
  if constexpr (std::is_same_v<T, bool>) {
    return CONFIG_TYPE::BOOL;
  } else if constexpr (std::is_same_v<T, int64_t>) {
    return CONFIG_TYPE::INT;
  } else {
    static_assert(std::is_same_v<T, double>, "a variable is bool, int64_t, double or string");
    return CONFIG_TYPE::FLOAT;
  }
}
}  // namespace detail

// A variable of type bool, int64_t or double. Get() is one relaxed atomic load.
// A number may have a range, from `minimum` to `maximum` inclusive, that
// SetFromText keeps it in; Set is the owner's own business and isn't checked.
template <typename T>
class ConfigVariable final : public ConfigVariableBase {
 public:
  ConfigVariable(ConfigName name, T defaultValue, std::string_view help)
      : ConfigVariableBase(name, detail::ConfigTypeOf<T>(), help),
        _default(defaultValue),
        _value(defaultValue) {
    _Register();
  }
  // clang-format off
  ConfigVariable(ConfigName name, T defaultValue, std::string_view help, T minimum, T maximum)
    requires(!std::is_same_v<T, bool>)
      : ConfigVariableBase(name, detail::ConfigTypeOf<T>(), help),
        _default(defaultValue),
        _value(defaultValue),
        _hasRange(true),
        _minimum(minimum),
        _maximum(maximum) {
    _Register();
  }
  // clang-format on
  ~ConfigVariable() override { _Unregister(); }

  T Get() const { return _value.load(std::memory_order_relaxed); }
  void Set(T value) { _value.store(value, std::memory_order_relaxed); }
  T GetDefault() const { return _default; }

  std::string GetDefaultText() const override;
  std::string GetValueText() const override;
  Result<void> SetFromText(std::string_view text) override;
  void Reset() override { Set(_default); }
  std::string GetRangeText() const override;

 private:
  const T _default;
  std::atomic<T> _value;
  const bool _hasRange = false;
  const T _minimum{};
  const T _maximum{};
};

// A string variable. Get() copies the text under a lock.
template <>
class ConfigVariable<std::string> final : public ConfigVariableBase {
 public:
  ConfigVariable(ConfigName name, std::string defaultValue, std::string_view help);
  ~ConfigVariable() override;

  std::string Get() const;
  void Set(std::string value);
  const std::string& GetDefault() const { return _default; }

  std::string GetDefaultText() const override { return _default; }
  std::string GetValueText() const override { return Get(); }
  Result<void> SetFromText(std::string_view text) override;
  void Reset() override { Set(_default); }

 private:
  const std::string _default;
  mutable std::mutex _mutex;
  std::string _value;
};

extern template class ConfigVariable<bool>;
extern template class ConfigVariable<int64_t>;
extern template class ConfigVariable<double>;

// One variable as the registry lists it.
struct ConfigVariableInfo {
  std::string name;
  CONFIG_TYPE type = CONFIG_TYPE::BOOL;
  std::string typeName;
  std::string defaultText;
  std::string valueText;
  std::string help;
  // "10 to 100000", or empty for a variable without a range.
  std::string rangeText;
};

// All registered variables, sorted by name.
std::vector<ConfigVariableInfo> ListConfigVariables();
// One variable, or "Unknown configuration variable @.".
Result<ConfigVariableInfo> GetConfigVariableInfo(std::string_view name);

// Sets a variable by name from text. Bool takes true/false, 1/0, yes/no, on/off
// in any case; Int takes a decimal or 0x-hexadecimal integer with an optional
// sign; Float takes a decimal number; blanks around a number or a Bool are
// ignored. A String takes the text as it is. Errors:
//   "Unknown configuration variable @."
//   "Value "@" for configuration variable @ can't be read as @." (with the type name)
//   "Value "@" for configuration variable @ is outside its range @ to @."
Result<void> SetConfigVariable(std::string_view name, std::string_view value);

// Applies "g_name=value"; blanks around the name are ignored. Without "=":
//   "Missing "=" in configuration assignment "@"."
Result<void> ApplyConfigAssignment(std::string_view assignment);

// Sets every variable for which the environment has a variable of exactly the
// same name. Good values are applied even when others are bad; the error then
// carries the messages of all bad ones, separated by blanks.
Result<void> ApplyConfigFromEnvironment();

// Puts every registered variable back to its default.
void ResetConfigVariables();

}  // namespace orvix
