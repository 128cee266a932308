// The PNG encoder read back by an independent decoder: the header and every pixel, at each
// level and from one pixel to a wide image; level 0 stores the rows so that the file's
// size follows the picture's; levels outside 0 to 9 are refused.

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
    EXPECT_EQ(png.width, static_cast<uint32_t>(width));
    EXPECT_EQ(png.height, static_cast<uint32_t>(height));
    EXPECT_EQ(png.format, static_cast<uint32_t>(PNG_FORMAT_RGB));
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

} // namespace
} // namespace tavix::test
