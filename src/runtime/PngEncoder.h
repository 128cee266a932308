#pragma once
// Encodes a picture as a PNG file: 8-bit RGB, no interlacing, every row unfiltered, the
// samples deflated by zlib at the chosen level. Level 0 stores the rows uncompressed,
// which makes the file about three bytes a pixel: a benchmark picks the size of the
// screenshot it wants by the size of the screen.

#include "runtime/RgbImage.h"

#include <string>

namespace tavix::runtime {

class PngEncoder {
public:
  static constexpr int fastestLevel = 0;
  static constexpr int smallestLevel = 9;
  static constexpr int defaultLevel = 6;

  // `level` is zlib's, 0 to 9.
  explicit PngEncoder(int level = defaultLevel);

  // The bytes of the PNG file.
  std::string encode(const RgbImage &image) const;

private:
  int level_;
};

} // namespace tavix::runtime
