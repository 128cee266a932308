#pragma once
// The simulator's command line:
//
//   --bus-name NAME         the well-known name to queue for (default com.tavix.computeruse)
//   --late-handler-ms N     request the name first and install the object N ms later
//   --unhealthy             health answers isHealthy false
//   --screen-size WxH       the screen the windows fill (default 1024x768)
//   --png-level L           zlib level of the screenshots, 0 to 9 (default 6)
//   --faults JSON           a fault script (see FaultScript.h)
//
// Each option with a value takes it as the next argument or after "=".

#include "runtime/FaultScript.h"

#include <tl/expected.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace tavix::runtime {

struct SimulatorOptions {
  static constexpr const char *defaultBusName = "com.tavix.computeruse";
  static constexpr int smallestScreenWidth = 400;
  static constexpr int smallestScreenHeight = 320;
  static constexpr int largestScreenSide = 4096;
  static constexpr uint32_t longestLateHandlerMs = 600000;

  std::string busName = defaultBusName;
  uint32_t lateHandlerMs = 0;
  bool unhealthy = false;
  int screenWidth = 1024;
  int screenHeight = 768;
  int pngLevel = 6;
  FaultScript faults;

  // The options of `arguments` (without the program's name), or why they are not.
  static tl::expected<SimulatorOptions, std::string> parse(const std::vector<std::string> &arguments);
  static std::string usage();
};

// Whether `name` is a well-formed D-Bus well-known name: two or more dot-separated
// elements of letters, digits, "_" and "-", none starting with a digit, 255 bytes at most.
bool isWellKnownBusName(std::string_view name);

} // namespace tavix::runtime
