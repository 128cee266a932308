#pragma once
// White space in the Unicode sense (spaces, tabs, line and paragraph breaks), for
// trimming configuration values and deciding when a log value needs quotes.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

// The byte length of the white-space character that starts at `position`, or 0 when the
// character there is not white space.
size_t whitespaceLengthAt(std::string_view text, size_t position);

bool containsWhitespace(std::string_view text);

// `text` without the white space and line breaks at either end.
std::string_view trimmedWhitespaceAndNewlines(std::string_view text);

// `text` without the white space at either end, or nothing when it is missing or holds
// only white space: how configuration texts and environment variables are read.
std::optional<std::string> trimmedNonEmpty(const std::string *text);

// ASCII letters lower-cased; every other byte kept.
std::string asciiLowercased(std::string_view text);

} // namespace tavix
