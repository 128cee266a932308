#pragma once
// An app's small icon, as a host shows it beside a capture: a square of the app's colour
// with the first letter of its name in white.

#include "runtime/RgbImage.h"
#include "runtime/VirtualApp.h"

namespace tavix::runtime {

class AppIcon {
public:
  static constexpr int side = 16;
  static constexpr Rgb letter{255, 255, 255};

  static RgbImage render(const VirtualApp &app);
};

} // namespace tavix::runtime
