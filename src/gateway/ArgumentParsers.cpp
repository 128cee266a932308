#include "gateway/ArgumentParsers.h"

#include "logging/Logger.h"
#include "support/JSON.h"
#include "support/Whitespace.h"

#include <charconv>
#include <cmath>
#include <cstdlib>

namespace tavix {
namespace {

tl::unexpected<ToolError> rejected(std::string message) {
  return tl::unexpected(ToolError::actionRejected(std::move(message)));
}

bool isNumber(const nlohmann::json *value) { return value != nullptr && value->is_number(); }

// A base-10 integer with at most one leading sign and digits only, that fits 64 bits.
std::optional<int64_t> parseDecimalInteger(std::string_view text) {
  const bool negative = text.starts_with('-');
  if (text.starts_with('+') || negative)
    text.remove_prefix(1);
  if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos)
    return std::nullopt;
  // Read as unsigned so that the magnitude of the most negative value fits.
  uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  if (error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  constexpr uint64_t maxMagnitude = uint64_t(INT64_MAX);
  if (!negative)
    return magnitude <= maxMagnitude ? std::optional<int64_t>(int64_t(magnitude)) : std::nullopt;
  if (magnitude > maxMagnitude + 1)
    return std::nullopt;
  return magnitude == maxMagnitude + 1 ? INT64_MIN : -int64_t(magnitude);
}

// A number's integer value, fractions cut off; nothing when it does not fit 64 bits.
// Booleans are numbers here, as true and false were 1 and 0 to the host's JSON reader.
std::optional<int64_t> truncatedInteger(const nlohmann::json &value) {
  if (value.is_boolean())
    return value.get<bool>() ? 1 : 0;
  if (value.is_number_unsigned())
    return value.get<uint64_t>() <= uint64_t(INT64_MAX) ? std::optional<int64_t>(value.get<int64_t>())
                                                       : std::nullopt;
  if (value.is_number_integer())
    return value.get<int64_t>();
  const double number = std::trunc(value.get<double>());
  if (!(number >= -9223372036854775808.0 && number < 9223372036854775808.0))
    return std::nullopt;
  return static_cast<int64_t>(number);
}

// The element-index rules; `invalid` is the error for a value that is there but unusable.
Parsed<std::optional<int64_t>> readElementIndex(const nlohmann::json *value, const ToolError &invalid) {
  if (value == nullptr || value->is_null())
    return std::optional<int64_t>();
  if (value->is_number() || value->is_boolean()) {
    if (auto index = truncatedInteger(*value))
      return index;
    return tl::unexpected(invalid);
  }
  if (value->is_string()) {
    const std::string_view text = trimmedWhitespaceAndNewlines(value->get_ref<const std::string &>());
    if (text.empty())
      return std::optional<int64_t>();
    if (auto index = parseDecimalInteger(text))
      return index;
  }
  return tl::unexpected(invalid);
}

} // namespace

const nlohmann::json *argument(const ToolArgumentsObject &arguments, std::string_view key) {
  if (!arguments.is_object())
    return nullptr;
  const auto found = arguments.find(key);
  return found == arguments.end() ? nullptr : &*found;
}

Parsed<std::string> requiredString(std::string_view key, const ToolArgumentsObject &arguments) {
  const nlohmann::json *value = argument(arguments, key);
  if (value == nullptr || !value->is_string() || value->get_ref<const std::string &>().empty())
    return tl::unexpected(ToolError::missingRequiredArgument(std::string(key)));
  return value->get<std::string>();
}

Parsed<std::optional<int64_t>> parseOptionalElementIndex(const nlohmann::json *value) {
  return readElementIndex(value, ToolError::missingExpectedArgument("element_index"));
}

Parsed<int64_t> parseRequiredElementIndex(const nlohmann::json *value) {
  auto index = parseOptionalElementIndex(value);
  if (!index)
    return tl::unexpected(index.error());
  if (!*index)
    return tl::unexpected(ToolError::missingRequiredArgument("element_index"));
  return **index;
}

std::optional<double> parseOptionalDouble(const nlohmann::json *value) {
  if (value == nullptr)
    return std::nullopt;
  if (value->is_number())
    return value->get<double>();
  if (value->is_boolean())
    return value->get<bool>() ? 1.0 : 0.0;
  if (!value->is_string())
    return std::nullopt;
  const std::string text(trimmedWhitespaceAndNewlines(value->get_ref<const std::string &>()));
  if (text.empty())
    return std::nullopt;
  // strtod in the C locale, which the bridge never leaves: decimal, exponent, hexadecimal,
  // "inf" and "nan" forms, the whole text consumed.
  char *end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size())
    return std::nullopt;
  return number;
}

Parsed<double> parseClickCoordinate(const nlohmann::json *value, std::string_view name) {
  if (isNumber(value) && std::isfinite(value->get<double>()))
    return value->get<double>();
  return rejected("Invalid " + std::string(name) +
                  ". Provide a finite number such as 10, not a string, in screenshot pixel coordinates.");
}

Parsed<ClickTarget> parseClickTarget(std::string_view toolName, const ToolArgumentsObject &arguments) {
  const auto index = readElementIndex(
      argument(arguments, "element_index"),
      ToolError::actionRejected("Invalid element_index. Provide an integer string such as \"7\", or "
                                "omit element_index and provide numeric x and y."));
  if (!index)
    return tl::unexpected(index.error());
  const nlohmann::json *x = argument(arguments, "x");
  const nlohmann::json *y = argument(arguments, "y");
  if (*index) {
    if (x != nullptr || y != nullptr)
      Log::info(LogCategory::tools, std::string(toolName) + "_coordinates_ignored",
                {{"elementIndex", **index}, {"reason", "valid_element_index"}});
    return ClickTarget(**index);
  }
  if (x == nullptr || y == nullptr)
    return rejected(std::string(toolName) +
                    " requires an element_index string or both numeric x and y in screenshot pixel "
                    "coordinates.");
  const auto pointX = parseClickCoordinate(x, "x");
  if (!pointX)
    return tl::unexpected(pointX.error());
  const auto pointY = parseClickCoordinate(y, "y");
  if (!pointY)
    return tl::unexpected(pointY.error());
  return ClickTarget(ClickPoint{*pointX, *pointY});
}

Parsed<int64_t> parseClickCount(const nlohmann::json *value) {
  if (value == nullptr)
    return 1;
  if (value->is_number_unsigned()) {
    if (value->get<uint64_t>() >= 1 && value->get<uint64_t>() <= uint64_t(INT64_MAX))
      return value->get<int64_t>();
  } else if (value->is_number_integer() && value->get<int64_t>() >= 1) {
    return value->get<int64_t>();
  }
  if (value->is_number_float()) {
    const double number = value->get<double>();
    if (number >= 1 && number < 9223372036854775808.0 && std::trunc(number) == number)
      return static_cast<int64_t>(number);
  }
  return rejected("Invalid click_count. Provide a positive integer such as 1 or 2, or omit it for 1.");
}

Parsed<MouseButton> parseMouseButton(const nlohmann::json *value) {
  if (value == nullptr)
    return MouseButton::left;
  if (value->is_string()) {
    const std::string &name = value->get_ref<const std::string &>();
    if (name == "left")
      return MouseButton::left;
    if (name == "right")
      return MouseButton::right;
    if (name == "middle")
      return MouseButton::middle;
  }
  return rejected("Invalid mouse_button. Use \"left\", \"right\", or \"middle\", or omit it for left.");
}

Parsed<ScrollDirection> parseScrollDirection(std::string_view text) {
  const std::string word = asciiLowercased(trimmedWhitespaceAndNewlines(text));
  if (word == "up" || word == "u")
    return ScrollDirection::up;
  if (word == "down" || word == "d")
    return ScrollDirection::down;
  if (word == "left" || word == "l")
    return ScrollDirection::left;
  if (word == "right" || word == "r")
    return ScrollDirection::right;
  return tl::unexpected(ToolError::invalidScrollDirection(std::string(text)));
}

Parsed<double> parseScrollPages(const nlohmann::json *value) {
  if (value == nullptr)
    return 1.0;
  if (isNumber(value))
    return value->get<double>();
  return rejected("pages must be a finite number in (0, 100].");
}

Parsed<TextSelectionMode> parseTextSelectionMode(const nlohmann::json *value) {
  if (value == nullptr)
    return TextSelectionMode::text;
  if (!value->is_string())
    return rejected("Invalid text selection mode: " + serializeJSON(*value).value_or("?"));
  const std::string &text = value->get_ref<const std::string &>();
  if (const auto mode = fromRawValue<TextSelectionMode>(trimmedWhitespaceAndNewlines(text)))
    return *mode;
  return rejected("Invalid text selection mode: " + text);
}

Parsed<PasteFormat> parsePasteFormat(const nlohmann::json *value) {
  if (value == nullptr)
    return PasteFormat::text;
  if (value->is_string())
    if (const auto format = fromRawValue<PasteFormat>(value->get_ref<const std::string &>()))
      return *format;
  return rejected("Invalid paste format. Use text, md, or html.");
}

} // namespace tavix
