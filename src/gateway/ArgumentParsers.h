#pragma once
// Reading single tool arguments into typed values. The tool schemas are advice to the
// model; these rules are what is enforced, lenient in places (element indices as numbers
// or text, drag coordinates as text) and strict in others (click coordinates must be
// numbers). Each parser returns its value or the ToolError the model reads.

#include "contracts/ComputerUseIPCAction.h"
#include "contracts/ToolError.h"

#include <nlohmann/json.hpp>
#include <tl/expected.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace tavix {

template <typename T> using Parsed = tl::expected<T, ToolError>;

// The tool's arguments object; a key it lacks is absent.
using ToolArgumentsObject = nlohmann::json;

// `arguments[key]`, or null when absent: parsers treat both as absent where the rules say so.
const nlohmann::json *argument(const ToolArgumentsObject &arguments, std::string_view key);

// A non-empty text, as given (not trimmed).
Parsed<std::string> requiredString(std::string_view key, const ToolArgumentsObject &arguments);

// An element index from a number (fractions cut off) or a text holding a base-10 integer
// (trimmed; blank means none). Null or absent is none.
Parsed<std::optional<int64_t>> parseOptionalElementIndex(const nlohmann::json *value);
Parsed<int64_t> parseRequiredElementIndex(const nlohmann::json *value);

// A number, or a text holding one; anything else is none. Never fails by itself.
std::optional<double> parseOptionalDouble(const nlohmann::json *value);

// A finite number, not a text or a boolean.
Parsed<double> parseClickCoordinate(const nlohmann::json *value, std::string_view name);

// Where a click or scroll lands: an element, or a point in screenshot pixels.
struct ClickPoint {
  double x, y;
  friend bool operator==(const ClickPoint &, const ClickPoint &) = default;
};
using ClickTarget = std::variant<int64_t, ClickPoint>;

// "element_index" wins over "x" and "y" (and says so in the log when both are given).
Parsed<ClickTarget> parseClickTarget(std::string_view toolName, const ToolArgumentsObject &arguments);

Parsed<int64_t> parseClickCount(const nlohmann::json *value);

enum class MouseButton { left = 0, right = 1, middle = 2 };
Parsed<MouseButton> parseMouseButton(const nlohmann::json *value);

enum class ScrollDirection { up = 0, down = 1, left = 2, right = 3 };
Parsed<ScrollDirection> parseScrollDirection(std::string_view text);

Parsed<double> parseScrollPages(const nlohmann::json *value);

Parsed<TextSelectionMode> parseTextSelectionMode(const nlohmann::json *value);

Parsed<PasteFormat> parsePasteFormat(const nlohmann::json *value);

} // namespace tavix
