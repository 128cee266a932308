#include "support/Base64.h"

#include <cstdint>

namespace tavix {
namespace {

// Branch-free, so that the compiler checks many characters per instruction.
inline uint8_t inAlphabet(uint8_t c) {
  const bool upper = static_cast<uint8_t>(c - 'A') < 26;
  const bool lower = static_cast<uint8_t>(c - 'a') < 26;
  const bool digit = static_cast<uint8_t>(c - '0') < 10;
  return static_cast<uint8_t>(upper | lower | digit | (c == '+') | (c == '/'));
}

} // namespace

bool isStandardBase64(std::string_view text) {
  if (text.size() % 4 != 0)
    return false;
  size_t padding = 0;
  if (!text.empty() && text.back() == '=')
    padding = text[text.size() - 2] == '=' ? 2 : 1;
  const size_t body = text.size() - padding;
  // All of a megabytes-long screenshot is checked, so without a branch per character.
  uint8_t all = 1;
  for (size_t i = 0; i < body; ++i)
    all &= inAlphabet(static_cast<uint8_t>(text[i]));
  return all == 1;
}

} // namespace tavix
