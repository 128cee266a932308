#pragma once
// Draws a virtual app's window as a screenshot shows it: a title bar, the elements as
// filled rectangles with their labels and values in the bitmap font, the focused field
// outlined and its caret drawn, the selected row highlighted.

#include "runtime/RgbImage.h"
#include "runtime/VirtualApp.h"

namespace tavix::runtime {

class WindowRenderer {
public:
  // The font is drawn at twice its size: readable, and a glyph is a 10 by 14 pixel block.
  static constexpr int textScale = 2;
  static constexpr int titleBarHeight = 32;

  static constexpr Rgb background{236, 236, 236};
  static constexpr Rgb titleBar{44, 62, 80};
  static constexpr Rgb titleText{255, 255, 255};
  static constexpr Rgb ink{20, 20, 20};
  static constexpr Rgb fieldFill{255, 255, 255};
  static constexpr Rgb border{150, 150, 150};
  static constexpr Rgb focusBorder{30, 110, 220};
  static constexpr Rgb buttonFill{214, 214, 214};
  static constexpr Rgb selectionFill{30, 110, 220};
  static constexpr Rgb selectedText{255, 255, 255};
  static constexpr Rgb textSelection{170, 200, 240};

  static RgbImage render(const VirtualApp &app);
};

} // namespace tavix::runtime
