// The simulator's command line: the defaults, each option, both spellings of a value,
// every range at its edges, and the refusals. Then the fault scripts it (or the control
// interface) takes: what each rule means, which rules are refused and why, and how
// matching rules are used up, with every limit tried at its last accepted and first
// refused value.

#include "runtime/FaultScript.h"
#include "runtime/SimulatorOptions.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using namespace runtime;

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
      // Refusals: each side of the screen just outside its range, then malformed.
      {{"--screen-size", "399x320"}, screen}, {{"--screen-size", "400x319"}, screen},
      {{"--screen-size", "4097x4096"}, screen}, {{"--screen-size", "4096x4097"}, screen},
      {{"--screen-size", "800*600"}, screen}, {{"--screen-size", "800x600x2"}, screen}, {{"--screen-size", " 800x600"}, screen},
      {{"--late-handler-ms", "600001"}, late}, {{"--late-handler-ms", "-1"}, late}, {{"--late-handler-ms", "5ms"}, late},
      {{"--png-level", "-1"}, level}, {{"--png-level", "10"}, level},
      {{"--bus-name", "nodots"}, busName("nodots")}, {{"--bus-name", ":1.5"}, busName(":1.5")},
      {{"--bus-name", "a.1b"}, busName("a.1b")}, {{"--bus-name", tooLong}, busName(tooLong)},
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

using Effect = Fault::Effect;

constexpr std::string_view health = "ComputerUseIPCHealthRequest", getState = "ComputerUseIPCAppGetStateRequest",
                           cancel = "ComputerUseIPCCancelRequest";

FaultScript parsed(std::string_view json) {
  auto script = FaultScript::parse(json);
  EXPECT_TRUE(script.has_value()) << json << ": " << (script ? "" : script.error());
  return script ? std::move(*script) : FaultScript();
}

TEST(FaultScript, EachRuleBecomesItsFault) {
  const std::pair<std::string, Fault> rows[] = {
      {R"([{"errn":-1708}])", {0, Effect::error, -1708, "Simulated error -1708", ""}},
      {R"([{"errn":-1743,"errs":"Not allowed","delayMs":5}])", {5, Effect::error, -1743, "Not allowed", ""}},
      {R"([{"noDirectObject":true}])", {0, Effect::noDirectObject, 0, "", ""}},
      {R"([{"dbusError":"org.freedesktop.DBus.Error.AccessDenied"}])",
       {0, Effect::dbusError, 0, "Simulated org.freedesktop.DBus.Error.AccessDenied", "org.freedesktop.DBus.Error.AccessDenied"}},
      {R"([{"dbusError":"a.b","errs":"why"}])", {0, Effect::dbusError, 0, "why", "a.b"}},
      {R"([{"neverAnswer":true}])", {0, Effect::neverAnswer, 0, "", ""}},
      {R"([{"crash":true,"delayMs":20}])", {20, Effect::crash, 0, "", ""}},
      {R"([{"delayMs":600000}])", {600000, Effect::none, 0, "", ""}},
      {R"([{"crash":false,"neverAnswer":false}])", {0, Effect::none, 0, "", ""}},
      {R"([{"errn":-2147483648}])", {0, Effect::error, INT32_MIN, "Simulated error -2147483648", ""}},
      {R"([{"errn":2147483647}])", {0, Effect::error, INT32_MAX, "Simulated error 2147483647", ""}},
  };
  for (const auto &[json, fault] : rows) {
    FaultScript script = parsed(json);
    EXPECT_EQ(script.take(health), fault) << json;
  }
}

TEST(FaultScript, RefusesWhatIsNotARule) {
  const std::string notRules = "Fault rules must be a JSON array of objects", rule = "Fault rule 1: ";
  const std::string times = rule + "\"times\" must be an integer from 1 to 1000000",
                    delay = rule + "\"delayMs\" must be an integer from 0 to 600000",
                    errn = rule + "\"errn\" must be an integer from -2147483648 to 2147483647",
                    oneEffect = rule + "choose one of errn, dbusError, noDirectObject, neverAnswer and crash";
  const std::pair<std::string, std::string> rows[] = {
      {"", notRules}, {"{}", notRules},
      {"[1]", rule + "must be an object"},
      {R"([{},{"when":1}])", "Fault rule 2: unknown key \"when\""},
      {R"([{"times":0}])", times}, {R"([{"times":1000001}])", times}, {R"([{"times":1.5}])", times},
      {R"([{"delayMs":-1}])", delay}, {R"([{"delayMs":600001}])", delay},
      {R"([{"errn":2147483648}])", errn}, {R"([{"errn":-2147483649}])", errn}, {R"([{"errn":"1"}])", errn},
      {R"([{"errn":0}])", rule + "\"errn\" must not be 0, which means success"},
      {R"([{"errs":"x"}])", rule + "\"errs\" needs \"errn\" or \"dbusError\""},
      {R"([{"crash":1}])", rule + "\"crash\" must be true or false"},
      {R"([{"requestType":7}])", rule + "\"requestType\" must be a string"},
      {R"([{"requestType":""}])", rule + "\"requestType\" must name a request type or be \"*\""},
      {R"([{"errn":1,"crash":true}])", oneEffect}, {R"([{"neverAnswer":true,"noDirectObject":true}])", oneEffect},
      {R"([{"dbusError":"AccessDenied"}])", rule + "\"dbusError\" is not a D-Bus error name: \"AccessDenied\""},
  };
  for (const auto &[json, message] : rows) {
    const auto script = FaultScript::parse(json);
    ASSERT_FALSE(script.has_value()) << json;
    EXPECT_EQ(script.error(), message) << json;
  }
}

// A script and the calls it meets in order, each with the errn of the fault it takes (0:
// none, since every rule here has one).
TEST(FaultScript, MatchingRulesAreTakenInOrderUntilUsedUp) {
  const std::pair<std::string, std::vector<std::pair<std::string_view, int32_t>>> rows[] = {
      // "times" bounds the calls a rule applies to.
      {R"([{"errn":-1708,"times":1}])", {{health, -1708}, {health, 0}}},
      {R"([{"errn":-1708,"times":3}])", {{health, -1708}, {health, -1708}, {health, -1708}, {health, 0}}},
      // The first live matching rule wins; a named rule does not match another type, whose
      // calls leave it alive.
      {R"([{"requestType":"ComputerUseIPCHealthRequest","errn":1,"times":1},
           {"requestType":"ComputerUseIPCHealthRequest","errn":2,"times":2}, {"errn":3}])",
       {{getState, 3}, {health, 1}, {health, 2}, {health, 2}, {health, 3}, {getState, 3}}},
      // Any type spares the cancel, which does not use the rule up; a named rule catches it.
      {R"([{"errn":-1708,"times":1}])", {{cancel, 0}, {health, -1708}}},
      {R"([{"requestType":"ComputerUseIPCCancelRequest","errn":5}])", {{cancel, 5}, {health, 0}}},
  };
  for (const auto &[json, calls] : rows) {
    FaultScript script = parsed(json);
    for (const auto &[type, errn] : calls)
      EXPECT_EQ(script.take(type).value_or(Fault{}).errn, errn) << json << " " << type;
  }
  // Without "times", a rule applies to every call.
  FaultScript forever = parsed(R"([{"errn":-1708}])");
  for (int call = 0; call < 1000; ++call)
    ASSERT_TRUE(forever.take(health).has_value());
}

TEST(FaultScript, BusErrorNames) {
  // Up to 255 characters.
  const std::pair<std::string, bool> rows[] = {
      {"org.freedesktop.DBus.Error.AccessDenied", true}, {"a.b", true}, {"_x.y_2", true}, {"a-b.c", false},
      {"a", false}, {"a..b", false}, {".a.b", false}, {"a.b.", false}, {"a.2b", false}, {"", false},
      {"a." + std::string(253, 'b'), true}, {"a." + std::string(254, 'b'), false},
  };
  for (const auto &[name, valid] : rows)
    EXPECT_EQ(runtime::isBusErrorName(name), valid) << name;
}

} // namespace
} // namespace tavix::test
