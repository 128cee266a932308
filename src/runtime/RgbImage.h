#pragma once
// A picture as 8-bit red, green and blue samples, row after row: what the virtual desktop
// draws its windows into and the PNG encoder reads.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tavix::runtime {

struct Rgb {
  uint8_t red = 0, green = 0, blue = 0;
  friend bool operator==(const Rgb &, const Rgb &) = default;
};

struct Rect {
  int x = 0, y = 0, width = 0, height = 0;
  bool contains(double px, double py) const {
    return px >= x && py >= y && px < x + width && py < y + height;
  }
  friend bool operator==(const Rect &, const Rect &) = default;
};

class RgbImage {
public:
  RgbImage(int width, int height, Rgb background) : width_(width), height_(height) {
    samples_.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
    fill({0, 0, width, height}, background);
  }

  int width() const { return width_; }
  int height() const { return height_; }
  // Row after row, three bytes a pixel.
  const std::string &samples() const { return samples_; }

  Rgb pixel(int x, int y) const {
    const size_t at = offset(x, y);
    return {static_cast<uint8_t>(samples_[at]), static_cast<uint8_t>(samples_[at + 1]),
            static_cast<uint8_t>(samples_[at + 2])};
  }

  // Fills `area` where it lies inside the image; anything outside is dropped.
  void fill(Rect area, Rgb colour) {
    const int left = std::max(area.x, 0), right = std::min(area.x + area.width, width_);
    const int top = std::max(area.y, 0), bottom = std::min(area.y + area.height, height_);
    if (left >= right || top >= bottom)
      return;
    // One row is painted pixel by pixel and copied to the others: a screen-sized
    // background is millions of pixels.
    const size_t first = offset(left, top);
    const size_t rowBytes = static_cast<size_t>(right - left) * 3;
    for (size_t at = first; at < first + rowBytes; at += 3) {
      samples_[at] = static_cast<char>(colour.red);
      samples_[at + 1] = static_cast<char>(colour.green);
      samples_[at + 2] = static_cast<char>(colour.blue);
    }
    for (int y = top + 1; y < bottom; ++y)
      std::copy_n(samples_.begin() + static_cast<std::ptrdiff_t>(first), rowBytes,
                  samples_.begin() + static_cast<std::ptrdiff_t>(offset(left, y)));
  }

  // A frame `thickness` pixels wide just inside `area`.
  void outline(Rect area, Rgb colour, int thickness = 1) {
    fill({area.x, area.y, area.width, thickness}, colour);
    fill({area.x, area.y + area.height - thickness, area.width, thickness}, colour);
    fill({area.x, area.y, thickness, area.height}, colour);
    fill({area.x + area.width - thickness, area.y, thickness, area.height}, colour);
  }

private:
  size_t offset(int x, int y) const {
    return (static_cast<size_t>(y) * static_cast<size_t>(width_) + static_cast<size_t>(x)) * 3;
  }

  int width_;
  int height_;
  std::string samples_;
};

} // namespace tavix::runtime
