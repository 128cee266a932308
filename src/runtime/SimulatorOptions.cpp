#include "runtime/SimulatorOptions.h"

#include "runtime/PngEncoder.h"

#include <charconv>
#include <optional>
#include <string_view>

namespace tavix::runtime {
namespace {

using Parsed = tl::expected<SimulatorOptions, std::string>;

// A whole decimal number within [lowest, highest], or nothing.
std::optional<int64_t> numberIn(std::string_view text, int64_t lowest, int64_t highest) {
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < lowest || value > highest)
    return std::nullopt;
  return value;
}

bool parseScreenSize(std::string_view text, SimulatorOptions &options) {
  const size_t x = text.find('x');
  if (x == std::string_view::npos)
    return false;
  const auto width = numberIn(text.substr(0, x), SimulatorOptions::smallestScreenWidth,
                              SimulatorOptions::largestScreenSide);
  const auto height = numberIn(text.substr(x + 1), SimulatorOptions::smallestScreenHeight,
                               SimulatorOptions::largestScreenSide);
  if (!width || !height)
    return false;
  options.screenWidth = static_cast<int>(*width);
  options.screenHeight = static_cast<int>(*height);
  return true;
}

// Applies one option with its value; an error text when either is wrong.
std::optional<std::string> apply(std::string_view name, std::string_view value, SimulatorOptions &options) {
  if (name == "--bus-name") {
    if (!isWellKnownBusName(value))
      return "--bus-name needs a well-known D-Bus name, not \"" + std::string(value) + "\"";
    options.busName = value;
  } else if (name == "--late-handler-ms") {
    const auto ms = numberIn(value, 0, SimulatorOptions::longestLateHandlerMs);
    if (!ms)
      return "--late-handler-ms needs a whole number of milliseconds from 0 to " +
             std::to_string(SimulatorOptions::longestLateHandlerMs);
    options.lateHandlerMs = static_cast<uint32_t>(*ms);
  } else if (name == "--screen-size") {
    if (!parseScreenSize(value, options))
      return "--screen-size needs WIDTHxHEIGHT from " + std::to_string(SimulatorOptions::smallestScreenWidth) + "x" +
             std::to_string(SimulatorOptions::smallestScreenHeight) + " to " +
             std::to_string(SimulatorOptions::largestScreenSide) + "x" +
             std::to_string(SimulatorOptions::largestScreenSide);
  } else if (name == "--png-level") {
    const auto level = numberIn(value, PngEncoder::fastestLevel, PngEncoder::smallestLevel);
    if (!level)
      return std::string("--png-level needs a zlib level from 0 to 9");
    options.pngLevel = static_cast<int>(*level);
  } else if (name == "--faults") {
    auto script = FaultScript::parse(value);
    if (!script)
      return "--faults: " + script.error();
    options.faults = std::move(*script);
  } else {
    return "Unknown option " + std::string(name);
  }
  return std::nullopt;
}

} // namespace

bool isWellKnownBusName(std::string_view name) {
  if (name.empty() || name.size() > 255 || name.front() == ':' || name.find('.') == std::string_view::npos)
    return false;
  bool elementStart = true;
  for (char c : name) {
    if (c == '.') {
      if (elementStart)
        return false;
      elementStart = true;
      continue;
    }
    const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == '-';
    const bool digit = c >= '0' && c <= '9';
    if (!letter && !(digit && !elementStart))
      return false;
    elementStart = false;
  }
  return !elementStart;
}

Parsed SimulatorOptions::parse(const std::vector<std::string> &arguments) {
  SimulatorOptions options;
  for (size_t at = 0; at < arguments.size(); ++at) {
    std::string_view argument = arguments[at];
    if (argument == "--unhealthy") {
      options.unhealthy = true;
      continue;
    }
    std::string_view name = argument, value;
    if (const size_t equals = argument.find('='); equals != std::string_view::npos && argument.starts_with("--")) {
      name = argument.substr(0, equals);
      value = argument.substr(equals + 1);
    } else if (at + 1 < arguments.size() && argument.starts_with("--")) {
      value = arguments[++at];
    } else {
      return tl::unexpected(argument.starts_with("--") ? "Option " + std::string(argument) + " needs a value"
                                                       : "Unexpected argument " + std::string(argument));
    }
    if (auto problem = apply(name, value, options))
      return tl::unexpected(std::move(*problem));
  }
  return options;
}

std::string SimulatorOptions::usage() {
  return "Usage: TavixComputerUseRuntimeSimulator [--bus-name NAME] [--late-handler-ms N] [--unhealthy]\n"
         "                                        [--screen-size WxH] [--png-level 0-9] [--faults JSON]\n"
         "Serves the runtime's D-Bus interface on the session bus from a virtual desktop.\n";
}

} // namespace tavix::runtime
