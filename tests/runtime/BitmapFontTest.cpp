// The screenshot font: a distinct, non-empty glyph for every printable character, a box
// for anything else, counting characters rather than bytes, and drawing that stops at the
// right edge it is given.

#include "runtime/BitmapFont.h"

#include <gtest/gtest.h>

#include <set>

namespace tavix::test {
namespace {

using runtime::BitmapFont;
using runtime::Rgb;
using runtime::RgbImage;

constexpr Rgb black{0, 0, 0}, white{255, 255, 255};

TEST(BitmapFont, PrintableCharactersHaveDistinctGlyphsAndOthersAreBoxes) {
  std::set<BitmapFont::Glyph> seen{BitmapFont::Glyph{}, BitmapFont::missingGlyph()};
  for (char32_t c = 0x21; c < 0x7F; ++c) {
    const auto &glyph = BitmapFont::glyph(c);
    for (uint8_t row : glyph)
      EXPECT_LT(row, 0x20) << static_cast<char>(c) << " is wider than five columns";
    EXPECT_TRUE(seen.insert(glyph).second) << static_cast<char>(c) << " is blank, a box or another's glyph";
  }
  EXPECT_EQ(BitmapFont::glyph(U' '), BitmapFont::Glyph{});
  for (char32_t c : {char32_t(0x1F), char32_t(0x7F), char32_t(0xE9), char32_t(0x4E2D)})
    EXPECT_EQ(BitmapFont::glyph(c), BitmapFont::missingGlyph()) << static_cast<uint32_t>(c);
  const std::pair<const char *, size_t> counts[] = {
      {"", 0}, {"abc", 3}, {"caf\xc3\xa9", 4}, {"\xe4\xb8\xad\xf0\x9f\x98\x80", 2}};
  for (const auto &[text, count] : counts)
    EXPECT_EQ(BitmapFont::characterCount(text), count) << text;
}

TEST(BitmapFont, DrawsUntilTheRightEdge) {
  // At scale 2 a glyph is 10 pixels wide and a cell 12: three glyphs from x 0 end at 34.
  const std::pair<int, size_t> rows[] = {{33, 2}, {34, 3}, {45, 3}, {46, 4}};
  for (const auto &[right, drawn] : rows) {
    RgbImage image(100, 20, white);
    EXPECT_EQ(BitmapFont::draw(image, 0, 0, "HHHH", black, 2, right), drawn) << right;
    // The last column of the last glyph drawn is inked, the next cell's first is not.
    EXPECT_EQ(image.pixel(static_cast<int>(drawn) * 12 - 3, 2), black) << right;
    EXPECT_EQ(image.pixel(static_cast<int>(drawn) * 12, 2), white) << right;
  }
  // A multi-byte character is one box, whose top row is full; the "!" sits in the second cell.
  RgbImage image(40, 20, white);
  EXPECT_EQ(BitmapFont::draw(image, 0, 0, "\xc3\xa9!", black, 1, 40), 3u);
  for (int x = 0; x < 5; ++x)
    EXPECT_EQ(image.pixel(x, 0), black) << x;
  EXPECT_EQ(image.pixel(6 + 2, 0), black);
  EXPECT_EQ(image.pixel(6 + 2, 5), white);
}

} // namespace
} // namespace tavix::test
