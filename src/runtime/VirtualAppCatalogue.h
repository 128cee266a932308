#pragma once
// The apps of the virtual desktop: Notes, Calculator and Files, each laid out for a
// screen of the given size (at least `minimumWidth` by `minimumHeight`).

#include "runtime/VirtualApp.h"

#include <vector>

namespace tavix::runtime {

class VirtualAppCatalogue {
public:
  static constexpr int minimumWidth = 400;
  static constexpr int minimumHeight = 320;

  static std::vector<VirtualApp> makeApps(int width, int height);

  static VirtualApp makeNotes(int width, int height);
  static VirtualApp makeCalculator(int width, int height);
  static VirtualApp makeFiles(int width, int height);
};

} // namespace tavix::runtime
