// The simulator's command line: each option, both spellings of a value, every range at
// its edges, and the refusals.

#include "runtime/SimulatorOptions.h"

#include <gtest/gtest.h>

#include <functional>

namespace tavix::test {
namespace {

using runtime::SimulatorOptions;

TEST(SimulatorOptions, Defaults) {
  const auto options = SimulatorOptions::parse({});
  ASSERT_TRUE(options.has_value());
  EXPECT_EQ(options->busName, "com.tavix.computeruse");
  EXPECT_EQ(options->lateHandlerMs, 0u);
  EXPECT_FALSE(options->unhealthy);
  EXPECT_EQ(options->screenWidth, 1024);
  EXPECT_EQ(options->screenHeight, 768);
  EXPECT_EQ(options->pngLevel, 6);
  EXPECT_EQ(options->faults.ruleCount(), 0u);
}

TEST(SimulatorOptions, AcceptedValues) {
  struct Row {
    std::vector<std::string> arguments;
    std::function<bool(const SimulatorOptions &)> holds;
  };
  const Row rows[] = {
      {{"--bus-name", "org.example.Runtime"}, [](const auto &o) { return o.busName == "org.example.Runtime"; }},
      {{"--bus-name=a.b-c._d"}, [](const auto &o) { return o.busName == "a.b-c._d"; }},
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
  for (const auto &row : rows) {
    const auto options = SimulatorOptions::parse(row.arguments);
    ASSERT_TRUE(options.has_value()) << row.arguments[0] << ": " << options.error();
    EXPECT_TRUE(row.holds(*options)) << row.arguments[0];
  }
}

TEST(SimulatorOptions, RefusedValues) {
  const std::string screen = "--screen-size needs WIDTHxHEIGHT from 400x320 to 4096x4096";
  const std::string late = "--late-handler-ms needs a whole number of milliseconds from 0 to 600000";
  const std::string level = "--png-level needs a zlib level from 0 to 9";
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
      {{"--bus-name", "nodots"}, "--bus-name needs a well-known D-Bus name, not \"nodots\""},
      {{"--bus-name", ":1.5"}, "--bus-name needs a well-known D-Bus name, not \":1.5\""},
      {{"--bus-name", "a.1b"}, "--bus-name needs a well-known D-Bus name, not \"a.1b\""},
      {{"--faults", "[{\"times\":0}]"}, "--faults: Fault rule 1: \"times\" must be an integer from 1 to 1000000"},
      {{"--faults", "nonsense"}, "--faults: Fault rules must be a JSON array of objects"},
      {{"--colour", "red"}, "Unknown option --colour"},
      {{"--png-level"}, "Option --png-level needs a value"},
      {{"serve"}, "Unexpected argument serve"},
  };
  for (const auto &[arguments, message] : rows) {
    const auto options = SimulatorOptions::parse(arguments);
    ASSERT_FALSE(options.has_value()) << arguments.back();
    EXPECT_EQ(options.error(), message) << arguments.back();
  }
}

TEST(SimulatorOptions, BusNameLength) {
  const std::string longest = "a." + std::string(253, 'b');
  EXPECT_TRUE(runtime::isWellKnownBusName(longest));
  EXPECT_FALSE(runtime::isWellKnownBusName(longest + "b"));
}

} // namespace
} // namespace tavix::test
