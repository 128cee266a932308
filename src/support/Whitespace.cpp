#include "support/Whitespace.h"

#include <array>

namespace tavix {
namespace {

// Everything beyond ASCII that Unicode counts as a space or a line or paragraph break,
// as UTF-8.
constexpr std::array<std::string_view, 19> unicodeSpaces = {
    "\xC2\x85",     "\xC2\xA0",     "\xE1\x9A\x80", "\xE2\x80\x80", "\xE2\x80\x81",
    "\xE2\x80\x82", "\xE2\x80\x83", "\xE2\x80\x84", "\xE2\x80\x85", "\xE2\x80\x86",
    "\xE2\x80\x87", "\xE2\x80\x88", "\xE2\x80\x89", "\xE2\x80\x8A", "\xE2\x80\xA8",
    "\xE2\x80\xA9", "\xE2\x80\xAF", "\xE2\x81\x9F", "\xE3\x80\x80"};

} // namespace

size_t whitespaceLengthAt(std::string_view text, size_t position) {
  if (position >= text.size())
    return 0;
  const char c = text[position];
  if (c == ' ' || (c >= '\t' && c <= '\r'))
    return 1;
  const std::string_view rest = text.substr(position);
  for (std::string_view space : unicodeSpaces)
    if (rest.starts_with(space))
      return space.size();
  return 0;
}

bool containsWhitespace(std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i)
    if (whitespaceLengthAt(text, i) > 0)
      return true;
  return false;
}

std::string_view trimmedWhitespaceAndNewlines(std::string_view text) {
  size_t start = 0;
  while (size_t length = whitespaceLengthAt(text, start))
    start += length;
  text.remove_prefix(start);
  // Scan forward for the end of the last non-space character: UTF-8 cannot be read
  // reliably backwards for a multi-byte space.
  size_t end = 0;
  for (size_t i = 0; i < text.size();) {
    if (size_t length = whitespaceLengthAt(text, i)) {
      i += length;
    } else {
      end = ++i;
    }
  }
  return text.substr(0, end);
}

std::optional<std::string> trimmedNonEmpty(const std::string *text) {
  if (text == nullptr)
    return std::nullopt;
  const std::string_view trimmed = trimmedWhitespaceAndNewlines(*text);
  if (trimmed.empty())
    return std::nullopt;
  return std::string(trimmed);
}

std::string asciiLowercased(std::string_view text) {
  std::string result(text);
  for (char &c : result)
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  return result;
}

} // namespace tavix
