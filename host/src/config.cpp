#include "orvix/host/config.h"

#include <cctype>
#include <charconv>
#include <cstdlib>
#include <iterator>
#include <map>
#include <optional>

#include <fmt/format.h>

#include "orvix/host/diagnostics.h"
#include "orvix/host/format.h"

namespace orvix {

namespace {

struct ConfigRegistry {
  std::mutex mutex;
  std::map<std::string_view, ConfigVariableBase*> variables;
};

ConfigRegistry& TheConfigRegistry() {
  // Never destroyed: variables of any library may unregister from static
  // destructors that run after this file's would have.
  static ConfigRegistry* registry = new ConfigRegistry();
  return *registry;
}

std::string_view Trim(std::string_view text) {
  auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

Error BadValue(std::string_view text, std::string_view name, CONFIG_TYPE type) {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               FormatMessage("Value \"@\" for configuration variable @ can't be read as @.", text,
                             name, ToString(type)));
}

std::optional<bool> ParseBool(std::string_view text) {
  text = Trim(text);
  for (std::string_view yes : {"true", "1", "yes", "on"})
    if (EqualsIgnoringCase(text, yes)) return true;
  for (std::string_view no : {"false", "0", "no", "off"})
    if (EqualsIgnoringCase(text, no)) return false;
  return std::nullopt;
}

std::optional<int64_t> ParseInt(std::string_view text) {
  text = Trim(text);
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  // from_chars would take a second sign; only digits may follow.
  if (text.empty() || !std::isxdigit(static_cast<unsigned char>(text.front()))) return std::nullopt;
  uint64_t magnitude = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  constexpr uint64_t LIMIT = uint64_t(INT64_MAX);
  if (negative) {
    if (magnitude > LIMIT + 1) return std::nullopt;
    return magnitude == LIMIT + 1 ? INT64_MIN : -int64_t(magnitude);
  }
  if (magnitude > LIMIT) return std::nullopt;
  return int64_t(magnitude);
}

std::optional<double> ParseFloat(std::string_view text) {
  text = Trim(text);
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    // from_chars takes a minus of its own; a second sign isn't a number.
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) return std::nullopt;
  }
  double value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

template <typename T>
std::optional<T> Parse(std::string_view text) {
  if constexpr (std::is_same_v<T, bool>) {
    return ParseBool(text);
  } else if constexpr (std::is_same_v<T, int64_t>) {
    return ParseInt(text);
  } else {
    return ParseFloat(text);
  }
}

template <typename T>
std::string TextOf(T value) {
  if constexpr (std::is_same_v<T, bool>) {
    return value ? "true" : "false";
  } else {
    return fmt::format("{}", value);
  }
}

}  // namespace

std::string_view ToString(CONFIG_TYPE type) {
  switch (type) {
    case CONFIG_TYPE::BOOL:
      return "Bool";
    case CONFIG_TYPE::INT:
      return "Int";
    case CONFIG_TYPE::FLOAT:
      return "Float";
    case CONFIG_TYPE::STRING:
      return "String";
  }
  return "unknown";
}

// ---- variables ----

ConfigVariableBase::~ConfigVariableBase() {
  _Unregister();
}

void ConfigVariableBase::_Register() {
  ConfigRegistry& registry = TheConfigRegistry();
  std::unique_lock lock(registry.mutex);
  auto [it, inserted] = registry.variables.emplace(_name, this);
  _registered = inserted;
  if (!inserted) {
    lock.unlock();
    CriticalOutput("Configuration variable @ is defined more than once; only the first is used.",
                   _name);
  }
}

void ConfigVariableBase::_Unregister() {
  if (!_registered) return;
  ConfigRegistry& registry = TheConfigRegistry();
  std::lock_guard lock(registry.mutex);
  registry.variables.erase(_name);
  _registered = false;
}

template <typename T>
std::string ConfigVariable<T>::GetDefaultText() const {
  return TextOf(_default);
}

template <typename T>
std::string ConfigVariable<T>::GetValueText() const {
  return TextOf(Get());
}

template <typename T>
Result<void> ConfigVariable<T>::SetFromText(std::string_view text) {
  std::optional<T> value = Parse<T>(text);
  if (!value) return BadValue(text, GetName(), GetType());
  // Written so that a NaN is outside every range.
  if (_hasRange && !(*value >= _minimum && *value <= _maximum))
    return Error(
        ERROR_CLASS::ILLEGAL_ARGUMENT,
        FormatMessage("Value \"@\" for configuration variable @ is outside its range @ to @.", text,
                      GetName(), TextOf(_minimum), TextOf(_maximum)));
  Set(*value);
  return Ok();
}

template <typename T>
std::string ConfigVariable<T>::GetRangeText() const {
  if (!_hasRange) return {};
  return TextOf(_minimum) + " to " + TextOf(_maximum);
}

template class ConfigVariable<bool>;
template class ConfigVariable<int64_t>;
template class ConfigVariable<double>;

ConfigVariable<std::string>::ConfigVariable(ConfigName name, std::string defaultValue,
                                            std::string_view help)
    : ConfigVariableBase(name, CONFIG_TYPE::STRING, help),
      _default(std::move(defaultValue)),
      _value(_default) {
  _Register();
}

ConfigVariable<std::string>::~ConfigVariable() {
  _Unregister();
}

std::string ConfigVariable<std::string>::Get() const {
  std::lock_guard lock(_mutex);
  return _value;
}

void ConfigVariable<std::string>::Set(std::string value) {
  std::lock_guard lock(_mutex);
  _value = std::move(value);
}

Result<void> ConfigVariable<std::string>::SetFromText(std::string_view text) {
  try {
    Set(std::string(text));
    return Ok();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

// ---- access by name ----

namespace {

ConfigVariableInfo InfoOf(const ConfigVariableBase& v) {
  ConfigVariableInfo info;
  info.name = v.GetName();
  info.type = v.GetType();
  info.typeName = ToString(v.GetType());
  info.defaultText = v.GetDefaultText();
  info.valueText = v.GetValueText();
  info.help = v.GetHelp();
  info.rangeText = v.GetRangeText();
  return info;
}

Error UnknownVariable(std::string_view name) {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               FormatMessage("Unknown configuration variable @.", name));
}

}  // namespace

std::vector<ConfigVariableInfo> ListConfigVariables() {
  ConfigRegistry& registry = TheConfigRegistry();
  std::lock_guard lock(registry.mutex);
  std::vector<ConfigVariableInfo> out;
  out.reserve(registry.variables.size());
  for (const auto& [name, variable] : registry.variables) out.push_back(InfoOf(*variable));
  return out;
}

Result<ConfigVariableInfo> GetConfigVariableInfo(std::string_view name) {
  ConfigRegistry& registry = TheConfigRegistry();
  std::lock_guard lock(registry.mutex);
  auto it = registry.variables.find(name);
  if (it == registry.variables.end()) return UnknownVariable(name);
  return InfoOf(*it->second);
}

Result<void> SetConfigVariable(std::string_view name, std::string_view value) {
  ConfigRegistry& registry = TheConfigRegistry();
  // Held while setting, so that the variable can't be destroyed under us.
  std::lock_guard lock(registry.mutex);
  auto it = registry.variables.find(name);
  if (it == registry.variables.end()) return UnknownVariable(name);
  return it->second->SetFromText(value);
}

Result<void> ApplyConfigAssignment(std::string_view assignment) {
  size_t at = assignment.find('=');
  if (at == std::string_view::npos)
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("Missing \"=\" in configuration assignment \"@\".", assignment));
  return SetConfigVariable(Trim(assignment.substr(0, at)), assignment.substr(at + 1));
}

Result<void> ApplyConfigFromEnvironment() {
  ConfigRegistry& registry = TheConfigRegistry();
  std::lock_guard lock(registry.mutex);
  std::string messages;
  for (const auto& [name, variable] : registry.variables) {
    // The names come from literals, so they are NUL-terminated.
    const char* value = std::getenv(name.data());
    if (!value) continue;
    Result<void> applied = variable->SetFromText(value);
    if (!applied) {
      if (!messages.empty()) messages.push_back(' ');
      messages.append(applied.GetError().GetMessage());
    }
  }
  if (!messages.empty()) return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, std::move(messages));
  return Ok();
}

void ResetConfigVariables() {
  ConfigRegistry& registry = TheConfigRegistry();
  std::lock_guard lock(registry.mutex);
  for (const auto& [name, variable] : registry.variables) variable->Reset();
}

}  // namespace orvix
