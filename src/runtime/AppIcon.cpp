#include "runtime/AppIcon.h"

#include "runtime/BitmapFont.h"

namespace tavix::runtime {
namespace {

// The letter at twice the font's size, 10 by 14 pixels, in the middle of the square.
constexpr int scale = 2;
constexpr int left = (AppIcon::side - BitmapFont::glyphWidth * scale) / 2;
constexpr int top = (AppIcon::side - BitmapFont::glyphHeight * scale) / 2;

} // namespace

RgbImage AppIcon::render(const VirtualApp &app) {
  RgbImage image(side, side, app.iconColour());
  BitmapFont::draw(image, left, top, std::string_view(app.name()).substr(0, 1), letter, scale, side);
  return image;
}

} // namespace tavix::runtime
