// The transport over the real session-bus carrier, against the runtime simulator on a
// private dbus-daemon: how each D-Bus error reads, the retries, the choice among queued
// instances, launching, and cancellation reaching the runtime.

#include "client/AppleEventComputerUseTransport.h"
#include "fakes/CapturedLog.h"
#include "support/JSON.h"
#include "support/RequestContext.h"
#include "testing/PrivateSessionBus.h"
#include "testing/RuntimeSimulatorProcess.h"
#include "testing/SimulatorControl.h"
#include "testing/MapEnvironment.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <future>
#include <thread>

namespace tavix::test {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

constexpr const char *busName = "com.tavix.computeruse";
constexpr const char *getState = "ComputerUseIPCAppGetStateRequest";
constexpr const char *listApps = "ComputerUseIPCListAppsRequest";

struct RuntimeBusFixture : ::testing::Test {
  PrivateSessionBus bus;
  TemporaryDirectory directory;
  std::map<std::string, std::string> environment;
  // Executors of the test's own: their threads, and so their bus connections, are new.
  IPCBlockingSendExecutor requests{"test.send", 2, 8};
  IPCBlockingSendExecutor cancellations{"test.cancel", 2, 8};
  CapturedLog log;

  RuntimeBusFixture() { ::setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), 1); }

  std::unique_ptr<AppleEventComputerUseTransport> makeTransport() {
    AppleEventComputerUseTransport::Services services{
        .events = makeSystemRuntimeEventChannel(busName),
        .applications = makeSystemRuntimeApplications(),
        .automation = makeSystemAutomationPermission(),
        .processes = makeSystemProcessInformation(),
        .bundleIdentifiers = BundleIdentifiers(std::make_shared<PropertyListSnapshot>(PropertyListDictionary{})),
        .locations = {lookupIn(environment), directory.path() + "/a/b/c/d", directory.path(),
                      "Tavix Computer Use.app"},
        .requestExecutor = &requests,
        .cancellationExecutor = &cancellations,
    };
    AppleEventComputerUseTransport::Timing timing;
    timing.retryDelay = 50ms; // ten attempts span 450 ms: longer than the late handler below
    return std::make_unique<AppleEventComputerUseTransport>("1.0", std::move(services), timing);
  }
};

TEST_F(RuntimeBusFixture, EachDBusErrorReadsAsTheTransportsError) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl control(bus.address(), simulator.uniqueName());
  const std::string sendFailed = "Apple Event send failed for ComputerUseIPCListAppsRequest with status: ";
  const struct {
    const char *errorName;
    std::string text;
  } cases[] = {
      {"org.freedesktop.DBus.Error.Timeout",
       "Apple Event send timed out after 120.0s for ComputerUseIPCListAppsRequest; TavixComputerUseRuntime did not "
       "reply"},
      {"org.freedesktop.DBus.Error.NoReply",
       "Apple Event send timed out after 120.0s for ComputerUseIPCListAppsRequest; TavixComputerUseRuntime did not "
       "reply"},
      {"org.freedesktop.DBus.Error.ServiceUnknown", sendFailed + "-600"},
      {"org.freedesktop.DBus.Error.NameHasNoOwner", sendFailed + "-600"},
      {"org.freedesktop.DBus.Error.Disconnected", sendFailed + "-609"},
      {"org.example.Error.Strange", sendFailed + "-1700"},
      {"org.freedesktop.DBus.Error.AccessDenied",
       "Computer Use is not authorized to control Tavix Computer Use through macOS Automation. macOS returned "
       "errAEEventNotPermitted (-1743).\n\nOpen System Settings > Privacy & Security > Automation, find the "
       "application that started this MCP server, and enable Tavix Computer Use underneath it. Then quit and "
       "relaunch the application that started this MCP server before retrying."},
  };
  auto transport = makeTransport();
  for (const auto &c : cases) {
    SCOPED_TRACE(c.errorName);
    ASSERT_TRUE(control.setFaults(R"([{"requestType":"ComputerUseIPCListAppsRequest","dbusError":")" +
                                  std::string(c.errorName) + R"(","times":1}])"));
    control.clearEvents();
    auto reply = transport->send(listApps, "{}");
    ASSERT_FALSE(reply.has_value());
    EXPECT_EQ(describe(reply.error()), c.text);
    // A timed-out request is also cancelled in the runtime; nothing is retried.
    const bool timedOut = isRequestTimeout(reply.error());
    EXPECT_EQ(control.awaitEvents("ComputerUseIPCCancelRequest", timedOut ? 1 : 0).value().size(),
              timedOut ? 1u : 0u);
    EXPECT_EQ(control.awaitEvents(listApps, 1).value().size(), 1u) << "not retried";
  }
  ASSERT_TRUE(transport->send(listApps, "{}").has_value()) << "the connection recovers after Disconnected";
}

TEST_F(RuntimeBusFixture, NotReadyAnswersAndAMissingHandlerAreRetriedUntilTheRuntimeServes) {
  const struct {
    const char *name;
    std::vector<std::string> arguments;
    std::string faults;
    // How many events reach the handler: the three refused and the answered one; a
    // missing handler sees none of the early ones.
    size_t handled;
  } cases[] = {
      {"-1708 for the first three calls", {}, R"([{"errn":-1708,"times":3}])", 4},
      {"handler installed late", {"--late-handler-ms", "150"}, "[]", 1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    RuntimeSimulatorProcess simulator(bus.address(), c.arguments);
    SimulatorControl control(bus.address(), simulator.uniqueName());
    if (c.faults != "[]")
      ASSERT_TRUE(control.setFaults(c.faults));
    auto transport = makeTransport();
    auto reply = transport->send(listApps, "{}");
    ASSERT_TRUE(reply.has_value()) << describe(reply.error());
    EXPECT_EQ(control.events().size(), c.handled);
  }
}

TEST_F(RuntimeBusFixture, TenRepliesWithoutAResponseAreInvalidAfterTenAttempts) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl control(bus.address(), simulator.uniqueName());
  ASSERT_TRUE(control.setFaults(R"([{"noDirectObject":true,"times":10}])"));
  auto transport = makeTransport();
  auto reply = transport->send(listApps, "{}");
  ASSERT_FALSE(reply.has_value());
  EXPECT_EQ(describe(reply.error()), "Invalid response from runtime");
  EXPECT_EQ(control.events().size(), 10u);
  const auto finished = log.withEvent("ipc_send_finished");
  ASSERT_EQ(finished.size(), 1u);
  EXPECT_THAT(finished[0], HasSubstr("outcome=retries_exhausted"));
  ASSERT_TRUE(transport->send(listApps, "{}").has_value()) << "the eleventh call is answered";
}

TEST_F(RuntimeBusFixture, LargeRequestsAndRepliesCrossTheBusWhole) {
  RuntimeSimulatorProcess simulator(bus.address(), {"--png-level", "0", "--screen-size", "1300x1300"});
  SimulatorControl control(bus.address(), simulator.uniqueName());
  auto transport = makeTransport();
  const std::string text(4'000'000, 'p'); // the largest paste a tool call may carry
  const std::string paste = R"({"action":{"paste":{"_0":{"format":"text","text":")" + text + R"("}}},"app":"Notes"})";
  auto pasted = transport->send("ComputerUseIPCAppPerformActionRequest", paste);
  ASSERT_TRUE(pasted.has_value()) << describe(pasted.error());
  const auto events = control.events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]["payload"], "memfd");
  EXPECT_EQ(events[0]["bodyBytes"], paste.size());
  auto state = transport->send(getState, R"({"app":"Notes"})");
  ASSERT_TRUE(state.has_value()) << describe(state.error());
  EXPECT_GT(state->size(), 5'000'000u);
  auto decoded = parseJSON(*state);
  ASSERT_TRUE(decoded.has_value());
  EXPECT_TRUE(ComputerUseIPCToolResultResponse::fromJSON(std::move(*decoded)).has_value());
}

TEST_F(RuntimeBusFixture, AmongQueuedInstancesTheHealthyOneIsChosen) {
  RuntimeSimulatorProcess unhealthy(bus.address(), {"--unhealthy"});
  RuntimeSimulatorProcess healthy(bus.address());
  SimulatorControl control(bus.address(), healthy.uniqueName());
  ASSERT_EQ(control.queuedOwners(busName).value(),
            (std::vector<std::string>{unhealthy.uniqueName(), healthy.uniqueName()}));
  auto transport = makeTransport();
  ASSERT_TRUE(transport->send(listApps, "{}").has_value());
  const auto events = control.events();
  ASSERT_EQ(events.size(), 2u) << events.dump();
  EXPECT_EQ(events[0]["requestType"], "ComputerUseIPCHealthRequest");
  EXPECT_EQ(events[1]["requestType"], listApps);
}

TEST_F(RuntimeBusFixture, WithNoneRunningTheRuntimeIsLaunchedFromTheOverrideAndStopsOnSignals) {
  environment["TAVIX_COMPUTER_USE_RUNTIME_PATH"] = RuntimeSimulatorProcess::defaultExecutable();
  auto transport = makeTransport();
  auto reply = transport->send(listApps, "{}");
  ASSERT_TRUE(reply.has_value()) << describe(reply.error());
  SimulatorControl control(bus.address(), busName);
  const auto owners = control.queuedOwners(busName).value();
  ASSERT_EQ(owners.size(), 1u);
  EXPECT_EQ(control.events().size(), 1u);
  EXPECT_EQ(log.withEvent("runtime_launch_started").size(), 1u);
  const auto health = parseJSON(transport->send("ComputerUseIPCHealthRequest", "{}").value()).value();
  const pid_t launched = health["runtimePID"].get<pid_t>();
  // It runs on its own and stops on SIGTERM: its name leaves the bus.
  ASSERT_EQ(::kill(launched, SIGTERM), 0);
  auto gone = [&] { return control.queuedOwners(busName).value_or(std::vector<std::string>{}).empty(); };
  for (int i = 0; i < 500 && !gone(); ++i)
    std::this_thread::sleep_for(10ms); // the bus has no signal to await for a name's end here
  EXPECT_TRUE(gone());
}

TEST_F(RuntimeBusFixture, ACancelledCallSendsExactlyOneCancelNamingItsEvent) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl control(bus.address(), simulator.uniqueName());
  ASSERT_TRUE(control.setFaults(R"([{"requestType":"ComputerUseIPCAppGetStateRequest","delayMs":60000}])"));
  auto transport = makeTransport();
  std::stop_source stop;
  auto caller = std::async(std::launch::async, [&] {
    WithRequestContext scope(std::make_shared<RequestContext>("CORR", stop.get_token()));
    return transport->send(getState, R"({"app":"Notes"})");
  });
  const auto sent = control.awaitEvents(getState, 1).value();
  stop.request_stop();
  auto reply = caller.get();
  ASSERT_FALSE(reply.has_value());
  EXPECT_EQ(std::get<ComputerUseIPCError>(reply.error()), ComputerUseIPCError::cancelled);
  const auto cancels = control.awaitEvents("ComputerUseIPCCancelRequest", 1).value();
  ASSERT_EQ(cancels.size(), 1u);
  EXPECT_EQ(cancels[0]["body"]["requestID"], sent[0]["requestID"]);
  EXPECT_EQ(control.awaitEvents("*", 2).value().size(), 2u) << "one event and one cancel, nothing else";
}

TEST_F(RuntimeBusFixture, ARuntimeThatCrashesMidCallFailsTheCallAndTheNextFindsAnother) {
  auto crashing = std::make_unique<RuntimeSimulatorProcess>(bus.address());
  {
    SimulatorControl control(bus.address(), crashing->uniqueName());
    ASSERT_TRUE(control.setFaults(R"([{"requestType":"ComputerUseIPCListAppsRequest","crash":true}])"));
  }
  auto transport = makeTransport();
  auto reply = transport->send(listApps, "{}");
  ASSERT_FALSE(reply.has_value());
  EXPECT_EQ(describe(reply.error()), "Apple Event send timed out after 120.0s for ComputerUseIPCListAppsRequest; "
                                     "TavixComputerUseRuntime did not reply");
  EXPECT_EQ(crashing->waitForExit(), 70);
  RuntimeSimulatorProcess replacement(bus.address());
  ASSERT_TRUE(transport->send(listApps, "{}").has_value());
  SimulatorControl control(bus.address(), replacement.uniqueName());
  EXPECT_EQ(control.events().size(), 1u);
}

} // namespace
} // namespace tavix::test
