#pragma once
// A small fixed-width font for the virtual desktop's screenshots: 5 by 7 pixel glyphs for
// printable ASCII, drawn at an integer scale, so that labels in a screenshot can be read
// by a person and located by a test. Anything else shows as a hollow box, one per
// character of UTF-8.

#include "runtime/RgbImage.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace tavix::runtime {

class BitmapFont {
public:
  static constexpr int glyphWidth = 5;
  static constexpr int glyphHeight = 7;
  // A glyph's cell: the glyph and one blank column and row.
  static constexpr int cellWidth = glyphWidth + 1;
  static constexpr int cellHeight = glyphHeight + 1;

  // The rows of a glyph, top first; bit 4 is the leftmost column.
  using Glyph = std::array<uint8_t, glyphHeight>;
  static const Glyph &glyph(char32_t character);
  // The glyph drawn for characters the font lacks.
  static const Glyph &missingGlyph();

  // How many characters `utf8` holds (continuation bytes do not count).
  static size_t characterCount(std::string_view utf8);

  // Draws `utf8` on one line from (x, y), the top left of the first cell, and stops before
  // a character that would reach past `right`. Returns how many bytes were drawn.
  static size_t draw(RgbImage &image, int x, int y, std::string_view utf8, Rgb colour, int scale,
                     int right);
};

} // namespace tavix::runtime
