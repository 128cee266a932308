#pragma once
// The apps of the virtual desktop: Notes, Calculator and Files, each laid out for a
// screen of the given size (at least `minimumWidth` by `minimumHeight`), each with one
// window whose id stays the same from run to run.

#include "runtime/VirtualApp.h"

#include <cstdint>
#include <vector>

namespace tavix::runtime {

class VirtualAppCatalogue {
public:
  static constexpr int minimumWidth = 400;
  static constexpr int minimumHeight = 320;
  static constexpr uint32_t notesWindowID = 1001;
  static constexpr uint32_t calculatorWindowID = 1002;
  static constexpr uint32_t filesWindowID = 1003;

  static std::vector<VirtualApp> makeApps(int width, int height);

  static VirtualApp makeNotes(int width, int height);
  static VirtualApp makeCalculator(int width, int height);
  static VirtualApp makeFiles(int width, int height);
};

} // namespace tavix::runtime
