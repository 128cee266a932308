// The screenshot font: a distinct, non-empty glyph for every printable character, a box
// for anything else, and drawing that stops at the right edge it is given.

#include "runtime/BitmapFont.h"

#include <gtest/gtest.h>

#include <set>

namespace tavix::test {
namespace {

using runtime::BitmapFont;
using runtime::Rgb;
using runtime::RgbImage;

TEST(BitmapFont, PrintableCharactersHaveDistinctGlyphs) {
  std::set<BitmapFont::Glyph> seen;
  for (char32_t c = 0x21; c < 0x7F; ++c) {
    const auto &glyph = BitmapFont::glyph(c);
    EXPECT_NE(glyph, BitmapFont::Glyph{}) << static_cast<char>(c) << " is blank";
    EXPECT_NE(glyph, BitmapFont::missingGlyph()) << static_cast<char>(c);
    for (uint8_t row : glyph)
      EXPECT_LT(row, 0x20) << static_cast<char>(c) << " is wider than five columns";
    EXPECT_TRUE(seen.insert(glyph).second) << static_cast<char>(c) << " repeats another glyph";
  }
  EXPECT_EQ(BitmapFont::glyph(U' '), BitmapFont::Glyph{});
}

TEST(BitmapFont, CharactersOutsidePrintableAsciiAreBoxes) {
  for (char32_t c : {char32_t(0x1F), char32_t(0x7F), char32_t(0xE9), char32_t(0x4E2D)})
    EXPECT_EQ(BitmapFont::glyph(c), BitmapFont::missingGlyph()) << static_cast<uint32_t>(c);
}

TEST(BitmapFont, CountsCharactersNotBytes) {
  EXPECT_EQ(BitmapFont::characterCount(""), 0u);
  EXPECT_EQ(BitmapFont::characterCount("abc"), 3u);
  EXPECT_EQ(BitmapFont::characterCount("caf\xc3\xa9"), 4u);
  EXPECT_EQ(BitmapFont::characterCount("\xe4\xb8\xad\xf0\x9f\x98\x80"), 2u);
}

TEST(BitmapFont, DrawsUntilTheRightEdge) {
  // At scale 2 a glyph is 10 pixels wide and a cell 12: three glyphs from x 0 end at 34.
  const std::pair<int, size_t> rows[] = {{33, 2}, {34, 3}, {45, 3}, {46, 4}};
  for (const auto &[right, drawn] : rows) {
    RgbImage image(100, 20, Rgb{255, 255, 255});
    EXPECT_EQ(BitmapFont::draw(image, 0, 0, "HHHH", Rgb{0, 0, 0}, 2, right), drawn) << right;
    // The last column of the last glyph drawn is inked, the next cell's first is not.
    EXPECT_EQ(image.pixel(static_cast<int>(drawn) * 12 - 3, 2), (Rgb{0, 0, 0})) << right;
    EXPECT_EQ(image.pixel(static_cast<int>(drawn) * 12, 2), (Rgb{255, 255, 255})) << right;
  }
}

TEST(BitmapFont, DrawsAMultiByteCharacterAsOneBox) {
  RgbImage image(40, 20, Rgb{255, 255, 255});
  EXPECT_EQ(BitmapFont::draw(image, 0, 0, "\xc3\xa9!", Rgb{0, 0, 0}, 1, 40), 3u);
  // The box's top row is full; the "!" sits in the second cell.
  for (int x = 0; x < 5; ++x)
    EXPECT_EQ(image.pixel(x, 0), (Rgb{0, 0, 0})) << x;
  EXPECT_EQ(image.pixel(6 + 2, 0), (Rgb{0, 0, 0}));
  EXPECT_EQ(image.pixel(6 + 2, 5), (Rgb{255, 255, 255}));
}

} // namespace
} // namespace tavix::test
