// The simulator's command line: the defaults, each option, both spellings of a value,
// every range at its edges, and the refusals.

#include "runtime/SimulatorOptions.h"

#include <gtest/gtest.h>

#include <functional>

namespace tavix::test {
namespace {

using runtime::SimulatorOptions;

TEST(SimulatorOptions, AcceptedValues) {
  const std::string longestName = "a." + std::string(253, 'b');
  const std::pair<std::vector<std::string>, std::function<bool(const SimulatorOptions &)>> rows[] = {
      {{}, [](const auto &o) {
         return o.busName == "com.tavix.computeruse" && o.lateHandlerMs == 0 && !o.unhealthy && o.screenWidth == 1024 &&
                o.screenHeight == 768 && o.pngLevel == 6 && o.faults.ruleCount() == 0;
       }},
      {{"--bus-name", "org.example.Runtime"}, [](const auto &o) { return o.busName == "org.example.Runtime"; }},
      {{"--bus-name=a.b-c._d"}, [](const auto &o) { return o.busName == "a.b-c._d"; }},
      {{"--bus-name", longestName}, [&](const auto &o) { return o.busName == longestName; }},
      {{"--late-handler-ms", "0"}, [](const auto &o) { return o.lateHandlerMs == 0; }},
      {{"--late-handler-ms=600000"}, [](const auto &o) { return o.lateHandlerMs == 600000; }},
      {{"--unhealthy"}, [](const auto &o) { return o.unhealthy; }},
      {{"--screen-size", "400x320"}, [](const auto &o) { return o.screenWidth == 400 && o.screenHeight == 320; }},
      {{"--screen-size=4096x4096"}, [](const auto &o) { return o.screenWidth == 4096 && o.screenHeight == 4096; }},
      {{"--png-level", "0"}, [](const auto &o) { return o.pngLevel == 0; }},
      {{"--png-level", "9"}, [](const auto &o) { return o.pngLevel == 9; }},
      {{"--faults", R"([{"errn":-1708,"times":3},{"delayMs":5}])"}, [](const auto &o) { return o.faults.ruleCount() == 2; }},
      {{"--unhealthy", "--png-level", "1", "--screen-size", "800x600"},
       [](const auto &o) { return o.unhealthy && o.pngLevel == 1 && o.screenWidth == 800; }},
  };
  for (const auto &[arguments, holds] : rows) {
    const std::string shown = arguments.empty() ? "(none)" : arguments[0];
    const auto options = SimulatorOptions::parse(arguments);
    ASSERT_TRUE(options.has_value()) << shown << ": " << options.error();
    EXPECT_TRUE(holds(*options)) << shown;
  }
}

TEST(SimulatorOptions, RefusedValues) {
  const std::string screen = "--screen-size needs WIDTHxHEIGHT from 400x320 to 4096x4096";
  const std::string late = "--late-handler-ms needs a whole number of milliseconds from 0 to 600000";
  const std::string level = "--png-level needs a zlib level from 0 to 9";
  const auto busName = [](const std::string &name) {
    return "--bus-name needs a well-known D-Bus name, not \"" + name + "\"";
  };
  const std::string tooLong = "a." + std::string(254, 'b');
  const std::pair<std::vector<std::string>, std::string> rows[] = {
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
  for (const auto &[arguments, message] : rows) {
    const auto options = SimulatorOptions::parse(arguments);
    ASSERT_FALSE(options.has_value()) << arguments.back();
    EXPECT_EQ(options.error(), message) << arguments.back().substr(0, 40);
  }
}

} // namespace
} // namespace tavix::test
