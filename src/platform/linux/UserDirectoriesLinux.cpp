#include "platform/UserDirectories.h"

namespace tavix {

// The XDG base directory for configuration; a relative value is invalid there and is
// ignored, as the XDG rules ask.
std::string applicationSupportDirectory(std::string_view home, const EnvironmentLookup &environment) {
  if (const auto configured = environment("XDG_CONFIG_HOME");
      configured && configured->starts_with('/')) {
    std::string directory = *configured;
    while (directory.size() > 1 && directory.back() == '/')
      directory.pop_back();
    return directory;
  }
  return std::string(home) + "/.config";
}

} // namespace tavix
