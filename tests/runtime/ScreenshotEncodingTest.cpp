// What a screenshot is made of. The font: a distinct, non-empty glyph for every printable
// character, a box for anything else, counting characters rather than bytes, and drawing
// that stops at the right edge it is given. The PNG encoder, read back by an independent
// decoder: the header and every pixel, at each level and from one pixel to a wide image;
// level 0 stores the rows so that the file's size follows the picture's; levels outside 0
// to 9 are refused. Base64 against the RFC 4648 test vectors, each padding case, and every
// byte value read back.

#include "runtime/Base64Encoder.h"
#include "runtime/BitmapFont.h"
#include "runtime/DecodedPng.h"
#include "runtime/PngEncoder.h"
#include "support/Base64.h"

#include <gtest/gtest.h>

#include <numeric>
#include <set>

namespace tavix::test {
namespace {

using namespace runtime;

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

// A picture whose every pixel differs from its neighbours, so a swapped or shifted sample shows.
RgbImage gradient(int width, int height) {
  RgbImage image(width, height, Rgb{0, 0, 0});
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      image.fill({x, y, 1, 1}, Rgb{static_cast<uint8_t>(x * 7), static_cast<uint8_t>(y * 13), static_cast<uint8_t>(x + y)});
  return image;
}

TEST(PngEncoder, EveryLevelDecodesToTheSamePixels) {
  const std::tuple<int, int, int> rows[] = {{0, 37, 23}, {1, 37, 23}, {6, 37, 23}, {9, 37, 23}, {6, 1, 1}, {6, 3000, 2}};
  for (const auto &[level, width, height] : rows) {
    SCOPED_TRACE(testing::Message() << "level " << level << ", " << width << "x" << height);
    const RgbImage image = gradient(width, height);
    const std::string file = PngEncoder(level).encode(image);
    const DecodedPng png = decodePng(file);
    ASSERT_EQ(png.problem, "");
    EXPECT_EQ(std::tuple(png.width, png.height, png.format), (std::tuple<uint32_t, uint32_t, uint32_t>(width, height, PNG_FORMAT_RGB)));
    EXPECT_EQ(png.samples, image.samples());
    // libpng stops at the last row; the file must still end with its end chunk.
    EXPECT_TRUE(file.ends_with(std::string_view("\0\0\0\0IEND\xae\x42\x60\x82", 12)));
  }
}

TEST(PngEncoder, LevelZeroStoresTheRowsAndHigherLevelsCompress) {
  const RgbImage flat(400, 300, Rgb{236, 236, 236});
  const size_t rows = 300 * (400 * 3 + 1);
  const size_t stored = PngEncoder(0).encode(flat).size();
  // Stored blocks add five bytes each 64 KiB, the zlib wrapper six, and the chunks 57.
  EXPECT_GE(stored, rows);
  EXPECT_LE(stored, rows + 5 * (rows / 65535 + 1) + 6 + 57);
  EXPECT_LT(PngEncoder(6).encode(flat).size(), rows / 50);
  for (int level : {-1, 10})
    EXPECT_THROW(PngEncoder{level}, std::invalid_argument) << level;
}

TEST(Base64Encoder, KnownVectorsAndEveryByteValue) {
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},          {"f", "Zg=="},         {"fo", "Zm8="},           {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
      {std::string("\xfb\xff\xbf", 3), "+/+/"}, {std::string("\0\0", 2), "AAA="},
  };
  for (const auto &[bytes, text] : rows)
    EXPECT_EQ(base64Encode(bytes), text) << testing::PrintToString(bytes);
  std::string all(256, '\0');
  std::iota(all.begin(), all.end(), '\0');
  for (size_t length = 254; length <= 256; ++length) {
    const std::string text = base64Encode(std::string_view(all).substr(0, length));
    EXPECT_TRUE(isStandardBase64(text)) << length;
    EXPECT_EQ(decodeBase64(text), all.substr(0, length)) << length;
  }
}

} // namespace
} // namespace tavix::test
