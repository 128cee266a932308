#pragma once
// Counting and cutting UTF-8 text by user-perceived characters, so that a shortened log
// value never ends inside a UTF-8 sequence or separates a base character from its marks.

#include <cstddef>
#include <string>
#include <string_view>

namespace tavix {

// The byte length of the longest prefix of `text` that holds at most `limit`
// user-perceived characters; `text.size()` when the whole text fits.
size_t prefixLengthForCharacters(std::string_view text, size_t limit);

// Whether the bytes are well-formed UTF-8 (no overlong forms, surrogates or values past
// U+10FFFF).
bool isValidUTF8(std::string_view text);

// `text` with each byte that does not start a well-formed sequence replaced by U+FFFD,
// so that a text quoting arbitrary input can still travel as JSON.
std::string replacingInvalidUTF8(std::string_view text);

} // namespace tavix
