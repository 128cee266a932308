#include "support/UserPerceivedText.h"

#include <cstdint>

namespace tavix {
namespace {

struct Decoded {
  char32_t codePoint;
  size_t length; // bytes consumed; an invalid byte is consumed alone
  bool valid;
};

Decoded decodeAt(std::string_view text, size_t at) {
  auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t lead = byte(at);
  if (lead < 0x80)
    return {lead, 1, true};
  size_t length = lead >= 0xF0 && lead <= 0xF4 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
  if (length == 0 || lead > 0xF4 || at + length > text.size())
    return {0xFFFD, 1, false};
  char32_t value = lead & (0x7F >> length);
  for (size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80)
      return {0xFFFD, 1, false};
    value = (value << 6) | (byte(at + i) & 0x3F);
  }
  const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
  if (overlong || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
    return {0xFFFD, 1, false};
  return {value, length, true};
}

bool inRange(char32_t c, char32_t low, char32_t high) { return c >= low && c <= high; }

// Code points that attach to the character before them: combining marks of the common
// blocks, joiners, variation selectors, emoji skin-tone modifiers and tag characters.
bool isExtend(char32_t c) {
  return inRange(c, 0x0300, 0x036F) || inRange(c, 0x0483, 0x0489) || inRange(c, 0x0591, 0x05BD) ||
         c == 0x05BF || inRange(c, 0x05C1, 0x05C2) || inRange(c, 0x05C4, 0x05C5) || c == 0x05C7 ||
         inRange(c, 0x0610, 0x061A) || inRange(c, 0x064B, 0x065F) || c == 0x0670 ||
         inRange(c, 0x06D6, 0x06DC) || inRange(c, 0x06DF, 0x06E4) || inRange(c, 0x06E7, 0x06E8) ||
         inRange(c, 0x06EA, 0x06ED) || inRange(c, 0x0900, 0x0903) || inRange(c, 0x093A, 0x094F) ||
         inRange(c, 0x0951, 0x0957) || inRange(c, 0x0962, 0x0963) || inRange(c, 0x0E31, 0x0E31) ||
         inRange(c, 0x0E34, 0x0E3A) || inRange(c, 0x0E47, 0x0E4E) || inRange(c, 0x1AB0, 0x1AFF) ||
         inRange(c, 0x1DC0, 0x1DFF) || inRange(c, 0x200C, 0x200D) || inRange(c, 0x20D0, 0x20FF) ||
         inRange(c, 0x302A, 0x302F) || inRange(c, 0x3099, 0x309A) || inRange(c, 0xFE00, 0xFE0F) ||
         inRange(c, 0xFE20, 0xFE2F) || inRange(c, 0x1F3FB, 0x1F3FF) ||
         inRange(c, 0xE0020, 0xE007F) || inRange(c, 0xE0100, 0xE01EF);
}

bool isRegionalIndicator(char32_t c) { return inRange(c, 0x1F1E6, 0x1F1FF); }

enum class Hangul { none, leading, vowel, trailing, syllableLV, syllableLVT };

Hangul hangulKind(char32_t c) {
  if (inRange(c, 0x1100, 0x115F) || inRange(c, 0xA960, 0xA97C))
    return Hangul::leading;
  if (inRange(c, 0x1160, 0x11A7) || inRange(c, 0xD7B0, 0xD7C6))
    return Hangul::vowel;
  if (inRange(c, 0x11A8, 0x11FF) || inRange(c, 0xD7CB, 0xD7FB))
    return Hangul::trailing;
  if (inRange(c, 0xAC00, 0xD7A3))
    return (c - 0xAC00) % 28 == 0 ? Hangul::syllableLV : Hangul::syllableLVT;
  return Hangul::none;
}

bool hangulJoins(char32_t before, char32_t after) {
  const Hangul b = hangulKind(before), a = hangulKind(after);
  switch (b) {
  case Hangul::leading:
    return a == Hangul::leading || a == Hangul::vowel || a == Hangul::syllableLV ||
           a == Hangul::syllableLVT;
  case Hangul::vowel:
  case Hangul::syllableLV:
    return a == Hangul::vowel || a == Hangul::trailing;
  case Hangul::trailing:
  case Hangul::syllableLVT:
    return a == Hangul::trailing;
  case Hangul::none:
    return false;
  }
  return false;
}

} // namespace

bool isValidUTF8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    const Decoded decoded = decodeAt(text, at);
    if (!decoded.valid)
      return false;
    at += decoded.length;
  }
  return true;
}

std::string replacingInvalidUTF8(std::string_view text) {
  if (isValidUTF8(text))
    return std::string(text);
  std::string repaired;
  repaired.reserve(text.size() + 16);
  for (size_t at = 0; at < text.size();) {
    const Decoded decoded = decodeAt(text, at);
    if (decoded.valid)
      repaired.append(text.substr(at, decoded.length));
    else
      repaired.append("\xEF\xBF\xBD");
    at += decoded.length;
  }
  return repaired;
}

size_t prefixLengthForCharacters(std::string_view text, size_t limit) {
  size_t characters = 0;
  size_t at = 0;
  char32_t previous = 0;
  bool previousValid = false;
  size_t regionalRun = 0; // regional indicators pair up into one flag
  while (at < text.size()) {
    const Decoded current = decodeAt(text, at);
    bool joins = false;
    if (current.valid && previousValid && at > 0) {
      joins = isExtend(current.codePoint) || previous == 0x200D ||
              hangulJoins(previous, current.codePoint) ||
              (isRegionalIndicator(current.codePoint) && regionalRun % 2 == 1);
    }
    if (!joins) {
      if (characters == limit)
        return at;
      ++characters;
    }
    regionalRun = current.valid && isRegionalIndicator(current.codePoint) ? regionalRun + 1 : 0;
    previous = current.codePoint;
    previousValid = current.valid;
    at += current.length;
  }
  return text.size();
}

} // namespace tavix
