#pragma once

#include <string_view>

namespace tavix {

// Whether `text` is base64 in the standard alphabet with padding and nothing else: no line
// breaks or spaces, a length that is a multiple of four, and "=" only as the last one or
// two characters. The empty text is the encoding of no bytes.
bool isStandardBase64(std::string_view text);

} // namespace tavix
