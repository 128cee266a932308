// The PNG encoder read back by an independent decoder: the chunks and their CRCs, the
// header, and every pixel after inflating, at each level; level 0 stores the rows so that
// the file's size follows the picture's.

#include "runtime/PngEncoder.h"
#include "runtime/DecodedPng.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using runtime::PngEncoder;
using runtime::Rgb;
using runtime::RgbImage;

// A picture whose every pixel differs from its neighbours, so a swapped or shifted sample shows.
RgbImage gradient(int width, int height) {
  RgbImage image(width, height, Rgb{0, 0, 0});
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      image.fill({x, y, 1, 1}, Rgb{static_cast<uint8_t>(x * 7), static_cast<uint8_t>(y * 13),
                                   static_cast<uint8_t>(x + y)});
  return image;
}

TEST(PngEncoder, EveryLevelDecodesToTheSamePixels) {
  const RgbImage image = gradient(37, 23);
  for (int level : {0, 1, 6, 9}) {
    SCOPED_TRACE(level);
    const DecodedPng png = decodePng(PngEncoder(level).encode(image));
    ASSERT_EQ(png.problem, "");
    ASSERT_EQ(png.chunks.size(), 3u);
    EXPECT_EQ(png.chunks[0].type, "IHDR");
    EXPECT_EQ(png.chunks[1].type, "IDAT");
    EXPECT_EQ(png.chunks[2].type, "IEND");
    EXPECT_EQ(png.chunks[2].data, "");
    for (const auto &chunk : png.chunks)
      EXPECT_TRUE(chunk.crcMatches) << chunk.type;
    EXPECT_EQ(png.width, 37u);
    EXPECT_EQ(png.height, 23u);
    EXPECT_EQ(png.bitDepth, 8);
    EXPECT_EQ(png.colourType, 2);
    EXPECT_EQ(png.interlace, 0);
    EXPECT_EQ(png.samples, image.samples());
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
}

TEST(PngEncoder, LevelsOutsideZeroToNineAreRefused) {
  const std::pair<int, bool> rows[] = {{-1, false}, {0, true}, {9, true}, {10, false}};
  for (const auto &[level, accepted] : rows) {
    if (accepted)
      EXPECT_NO_THROW(PngEncoder{level}) << level;
    else
      EXPECT_THROW(PngEncoder{level}, std::invalid_argument) << level;
  }
}

TEST(PngEncoder, OnePixelAndWideImages) {
  for (const auto &[width, height] : {std::pair{1, 1}, std::pair{3000, 2}}) {
    const RgbImage image = gradient(width, height);
    const DecodedPng png = decodePng(PngEncoder(6).encode(image));
    ASSERT_EQ(png.problem, "") << width;
    EXPECT_EQ(png.samples, image.samples()) << width;
  }
}

} // namespace
} // namespace tavix::test
