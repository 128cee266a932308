#include "config/UserDefaults.h"

#include "config/MainBundle.h"
#include "support/Whitespace.h"

#include <array>
#include <charconv>

namespace tavix {

std::shared_ptr<const UserDefaults> UserDefaults::standard() {
  static const auto defaults = std::make_shared<const UserDefaults>(
      std::make_shared<const PropertyListFileSource>(standardUserDefaultsPath()));
  return defaults;
}

std::optional<PropertyListValue> UserDefaults::object(std::string_view key) const {
  const PropertyListDictionary entries = store_->read();
  const auto found = entries.find(key);
  if (found == entries.end())
    return std::nullopt;
  return found->second;
}

bool UserDefaults::boolValue(std::string_view key) const {
  const auto value = object(key);
  return value && truthValue(*value);
}

bool UserDefaults::truthValue(const PropertyListValue &value) {
  if (const bool *flag = value.get<bool>())
    return *flag;
  if (const int64_t *number = value.get<int64_t>())
    return *number != 0;
  if (const double *number = value.get<double>())
    return *number != 0.0;
  if (const auto *text = value.get<std::string>()) {
    const std::string word = asciiLowercased(trimmedWhitespaceAndNewlines(*text));
    return word == "true" || word == "yes" || word == "1";
  }
  return false;
}

std::optional<std::string> UserDefaults::stringValue(std::string_view key) const {
  const auto value = object(key);
  if (!value)
    return std::nullopt;
  if (const auto *text = value->get<std::string>())
    return *text;
  if (const int64_t *number = value->get<int64_t>())
    return std::to_string(*number);
  if (const double *number = value->get<double>()) {
    std::array<char, 64> buffer{};
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), *number);
    return std::string(buffer.data(), result.ptr);
  }
  return std::nullopt;
}

} // namespace tavix
