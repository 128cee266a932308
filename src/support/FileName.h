#pragma once

#include <string_view>

namespace tavix {

// The last component of a slash-separated path: "TavixComputerUseBridge" of
// "/usr/bin/TavixComputerUseBridge"; the whole text when it has no slash, and empty when
// it ends with one.
constexpr std::string_view fileName(std::string_view path) {
  return path.substr(path.find_last_of('/') + 1);
}

} // namespace tavix
