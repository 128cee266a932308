// The simulator's command line: the defaults, each option, both spellings of a value,
// every range at its edges, and the refusals.

#include "runtime/SimulatorOptions.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using runtime::SimulatorOptions;

// The options in one line: bus name, late handler, health, screen, PNG level, fault rules.
std::string shown(const SimulatorOptions &o) {
  return o.busName + " late " + std::to_string(o.lateHandlerMs) + (o.unhealthy ? " unhealthy " : " healthy ") +
         std::to_string(o.screenWidth) + "x" + std::to_string(o.screenHeight) + " png " + std::to_string(o.pngLevel) +
         " rules " + std::to_string(o.faults.ruleCount());
}

TEST(SimulatorOptions, AcceptedAndRefusedValues) {
  const std::string longestName = "a." + std::string(253, 'b'), tooLong = "a." + std::string(254, 'b');
  const std::string screen = "--screen-size needs WIDTHxHEIGHT from 400x320 to 4096x4096";
  const std::string late = "--late-handler-ms needs a whole number of milliseconds from 0 to 600000";
  const std::string level = "--png-level needs a zlib level from 0 to 9";
  const auto busName = [](const std::string &name) { return "--bus-name needs a well-known D-Bus name, not \"" + name + "\""; };
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      // The defaults, then each option changing its own part.
      {{}, "com.tavix.computeruse late 0 healthy 1024x768 png 6 rules 0"},
      {{"--bus-name", "org.example.Runtime"}, "org.example.Runtime late 0 healthy 1024x768 png 6 rules 0"},
      {{"--bus-name=a.b-c._d"}, "a.b-c._d late 0 healthy 1024x768 png 6 rules 0"},
      {{"--bus-name", longestName}, longestName + " late 0 healthy 1024x768 png 6 rules 0"},
      {{"--late-handler-ms", "0"}, "com.tavix.computeruse late 0 healthy 1024x768 png 6 rules 0"},
      {{"--late-handler-ms=600000"}, "com.tavix.computeruse late 600000 healthy 1024x768 png 6 rules 0"},
      {{"--unhealthy"}, "com.tavix.computeruse late 0 unhealthy 1024x768 png 6 rules 0"},
      {{"--screen-size", "400x320"}, "com.tavix.computeruse late 0 healthy 400x320 png 6 rules 0"},
      {{"--screen-size=4096x4096"}, "com.tavix.computeruse late 0 healthy 4096x4096 png 6 rules 0"},
      {{"--png-level", "0"}, "com.tavix.computeruse late 0 healthy 1024x768 png 0 rules 0"},
      {{"--png-level", "9"}, "com.tavix.computeruse late 0 healthy 1024x768 png 9 rules 0"},
      {{"--faults", R"([{"errn":-1708,"times":3},{"delayMs":5}])"}, "com.tavix.computeruse late 0 healthy 1024x768 png 6 rules 2"},
      {{"--unhealthy", "--png-level", "1", "--screen-size", "800x600"}, "com.tavix.computeruse late 0 unhealthy 800x600 png 1 rules 0"},
      // Refusals.
      {{"--screen-size", "399x320"}, screen},
      {{"--screen-size", "400x319"}, screen},
      {{"--screen-size", "4097x4096"}, screen},
      {{"--screen-size", "4096x4097"}, screen},
      {{"--screen-size", "800*600"}, screen},
      {{"--screen-size", "800x600x2"}, screen},
      {{"--screen-size", " 800x600"}, screen},
      {{"--late-handler-ms", "600001"}, late},
      {{"--late-handler-ms", "-1"}, late},
      {{"--late-handler-ms", "5ms"}, late},
      {{"--png-level", "-1"}, level},
      {{"--png-level", "10"}, level},
      {{"--bus-name", "nodots"}, busName("nodots")},
      {{"--bus-name", ":1.5"}, busName(":1.5")},
      {{"--bus-name", "a.1b"}, busName("a.1b")},
      {{"--bus-name", tooLong}, busName(tooLong)},
      {{"--faults", "nonsense"}, "--faults: Fault rules must be a JSON array of objects"},
      {{"--colour", "red"}, "Unknown option --colour"},
      {{"--png-level"}, "Option --png-level needs a value"},
      {{"serve"}, "Unexpected argument serve"},
  };
  for (const auto &[arguments, expected] : rows) {
    const auto options = SimulatorOptions::parse(arguments);
    EXPECT_EQ(options ? shown(*options) : options.error(), expected) << (arguments.empty() ? "(none)" : arguments.back().substr(0, 40));
  }
}

} // namespace
} // namespace tavix::test
