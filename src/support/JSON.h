#pragma once
// The one way the bridge turns bytes into a JSON value and a JSON value into bytes.
//
// Parsing goes through simdjson, which reads multi-megabyte screenshots and pastes in
// about a millisecond, and builds the nlohmann value the rest of the code works with.
// Whatever simdjson refuses (an integer beyond 64 bits, nesting deeper than it goes,
// anything malformed) is decided by nlohmann's own parser, so every input gets exactly
// the decision and the value nlohmann alone would give it.
//
// Writing is compact, with object keys in sorted order, byte for byte what
// `nlohmann::json::dump()` writes, but copying runs of characters that need no escaping
// in bulk and without recursion, however deep the value.

#include <nlohmann/json.hpp>
#include <tl/expected.hpp>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

// How many readable bytes past its end let a text be parsed where it lies.
inline constexpr size_t jsonParsePadding = 64;

enum class JSONInput {
  copied, // nothing is known past the text: a large one is copied into a padded buffer
  padded, // at least `jsonParsePadding` bytes after the text are readable
};

// The value of `text`, or nothing when it is not JSON.
std::optional<nlohmann::json> parseJSON(std::string_view text,
                                        JSONInput input = JSONInput::copied);

// The value of `text`, or the parser's account of why it is not JSON (where and what),
// for an answer that tells the sender what was wrong with its input.
tl::expected<nlohmann::json, std::string> parseJSONExplained(std::string_view text,
                                                             JSONInput input = JSONInput::copied);

// What to do with a NaN or an infinity, which JSON cannot hold.
enum class NonFiniteNumbers {
  asNull, // as dump() writes them
  refuse, // nothing is written: for requests, whose receiver would misread a null
};

// The compact text of `value`; nothing when one of its texts is not UTF-8, which
// `dump()` refuses too, or when it holds a non-finite number that is to be refused.
std::optional<std::string> serializeJSON(const nlohmann::json &value,
                                         NonFiniteNumbers nonFinite = NonFiniteNumbers::asNull);

// An indented text of a small value, for the model to read: two spaces a level, keys in
// sorted order. Nothing when a text in it is not UTF-8.
std::optional<std::string> prettyJSON(const nlohmann::json &value);

} // namespace tavix
