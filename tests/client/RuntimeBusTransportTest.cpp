// The transport to the runtime app over a private session bus, against the runtime
// simulator and its fault script: the event a request becomes, how every answer and
// D-Bus error reads, the retries, the time-outs and cancellations the runtime is told
// of, the choice among running instances, and launching one.

#include "client/AppleEventComputerUseTransport.h"
#include "fakes/CapturedLog.h"
#include "support/JSON.h"
#include "support/RequestContext.h"
#include "testing/MapEnvironment.h"
#include "testing/RuntimeSimulatorProcess.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <future>
#include <poll.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace tavix::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace std::chrono_literals;
using Transport = AppleEventComputerUseTransport;

constexpr const char *busName = "com.tavix.computeruse";
constexpr const char *otherName = "org.example.Runtime"; // for simulators of a test's own
constexpr const char *listApps = "ComputerUseIPCListAppsRequest";
constexpr const char *healthType = "ComputerUseIPCHealthRequest";
constexpr const char *cancelType = "ComputerUseIPCCancelRequest";
const std::string notRunning = "Failed to launch TavixComputerUseRuntime: ";

// An answer the simulator never gives: error number 0, which is no error, beside a response.
struct ZeroErrorNumber final : RuntimeEventChannel {
  RuntimeEventOutcome send(int32_t, const RuntimeEvent &, double) override {
    RuntimeEventOutcome outcome;
    outcome.reply = {.errorNumber = 0, .directObject = "{}"};
    return outcome;
  }
};

// A launch that never reports back.
struct SilentLaunch final : RuntimeApplications {
  std::vector<RunningRuntimeInstance> runningInstances(const std::string &) override { return {}; }
  bool isRunning(int32_t, const std::string &) override { return false; }
  void launch(const std::string &, const LaunchEnvironment &, LaunchCompletion completion) override {
    late = std::move(completion);
  }
  LaunchCompletion late;
};

struct RuntimeBusTransport : ::testing::Test {
  // One bus and one simulator, large enough for a screenshot over 5 MB, for the suite.
  inline static std::unique_ptr<SimulatorOnPrivateBus> shared;
  static void SetUpTestSuite() {
    shared.reset(new SimulatorOnPrivateBus({"--png-level", "0", "--screen-size", "1300x1300"}));
  }
  static void TearDownTestSuite() { shared.reset(); }
  void SetUp() override {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", shared->bus.address().c_str(), 1); // the bus the transport uses
    ASSERT_TRUE(control.setFaults("[]"));
    control.clearEvents();
  }

  SimulatorControl &control = shared->control;
  TemporaryDirectory directory;
  std::map<std::string, std::string> environment;
  // Executors of the test's own: their threads, and so their bus connections, are new.
  IPCBlockingSendExecutor requests{"test.send", 2, 8};
  IPCBlockingSendExecutor cancellations{"test.cancel", 2, 8};
  CapturedLog log;

  static Transport::Timing fast() {
    Transport::Timing timing;
    timing.retryDelay = 1ms;
    timing.discovery.appearanceTimeout = 200ms;
    timing.discovery.launchCallbackTimeout = 30ms;
    return timing;
  }
  std::unique_ptr<Transport> transport(const std::string &name = busName, Transport::Timing timing = fast(),
                                       std::shared_ptr<RuntimeApplications> applications = nullptr,
                                       std::shared_ptr<RuntimeEventChannel> events = nullptr) {
    return std::make_unique<Transport>(
        "1.0",
        Transport::Services{
            .events = events ? events : makeSystemRuntimeEventChannel(name),
            .applications = applications ? applications : makeSystemRuntimeApplications(),
            .automation = makeSystemAutomationPermission(),
            .processes = makeSystemProcessInformation(),
            .bundleIdentifiers = BundleIdentifiers(std::make_shared<PropertyListSnapshot>(
                PropertyListDictionary{{"TavixComputerUseRuntimeBundleIdentifier", name}})),
            .locations = {lookupIn(environment), directory / "a/b/c/d", directory.path(), "Tavix Computer Use.app"},
            .requestExecutor = &requests,
            .cancellationExecutor = &cancellations,
        },
        timing);
  }
};

TEST_F(RuntimeBusTransport, ARequestIsOneEventAndLargeRequestsAndRepliesCrossTheBusWhole) {
  auto t = transport();
  WithRequestContext scope(std::make_shared<RequestContext>("CORR-1", std::stop_token{}));
  const std::string paste = R"({"action":{"paste":{"_0":{"format":"text","text":")" + std::string(4'000'000, 'p') +
                            R"("}}},"app":"Notes"})"; // the largest paste a tool call may carry
  ASSERT_TRUE(t->send("ComputerUseIPCAppPerformActionRequest", paste).has_value());
  auto state = t->send("ComputerUseIPCAppGetStateRequest", R"({"app":"Notes"})");
  ASSERT_TRUE(state.has_value()) << describe(state.error());
  EXPECT_GT(state->size(), 5'000'000u);
  EXPECT_TRUE(ComputerUseIPCToolResultResponse::fromJSON(parseJSON(*state).value()).has_value());
  const auto events = control.events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0]["payload"], "memfd");
  EXPECT_EQ(events[0]["bodyBytes"], paste.size());
  EXPECT_EQ(events[1]["body"], nlohmann::json::parse(R"({"app":"Notes"})"));
  EXPECT_EQ(events[1]["clientVersion"], "1.0");
  EXPECT_THAT(events[1]["requestID"].get<std::string>(),
              ::testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}"));
  EXPECT_NE(events[0]["requestID"], events[1]["requestID"]);
  EXPECT_THAT(log.withEvent("ipc_send_started").at(1),
              HasSubstr("requestId=CORR-1 requestBytes=15 requestType=ComputerUseIPCAppGetStateRequest"));
  EXPECT_THAT(log.withEvent("ipc_send_finished").at(1),
              ::testing::MatchesRegex(".* level=info .* requestId=CORR-1 durationMs=[0-9]+ outcome=success "
                                      "requestType=ComputerUseIPCAppGetStateRequest responseBytes=" +
                                      std::to_string(state->size()) + "\n"));
}

TEST_F(RuntimeBusTransport, EachErrorAnswerReadsAsItsFailureIsLoggedAndIsNotRetried) {
  const std::string timedOut = "Apple Event send timed out after 120.0s for ComputerUseIPCListAppsRequest; "
                               "TavixComputerUseRuntime did not reply";
  const std::string sendFailed = "Apple Event send failed for ComputerUseIPCListAppsRequest with status: ";
  const struct {
    std::string fault, text, logged; // the failure's log line holds `logged`
    const char *event = "apple_event_send_failed", *requestType = listApps;
  } cases[] = {
      {R"("dbusError":"org.freedesktop.DBus.Error.Timeout")", timedOut,
       "busError=org.freedesktop.DBus.Error.Timeout errorCode=-1712"},
      {R"("dbusError":"org.freedesktop.DBus.Error.NoReply")", timedOut,
       "busError=org.freedesktop.DBus.Error.NoReply errorCode=-1712"},
      {R"("dbusError":"org.freedesktop.DBus.Error.Timeout")",
       "Apple Event send timed out after 220.0s for ComputerUseIPCEventStreamStartRequest; TavixComputerUseRuntime "
       "did not reply",
       "errorCode=-1712 requestType=ComputerUseIPCEventStreamStartRequest timeoutMs=220000", "apple_event_send_failed",
       "ComputerUseIPCEventStreamStartRequest"},
      {R"("dbusError":"org.freedesktop.DBus.Error.ServiceUnknown")", sendFailed + "-600",
       "busError=org.freedesktop.DBus.Error.ServiceUnknown errorCode=-600"},
      {R"("dbusError":"org.freedesktop.DBus.Error.NameHasNoOwner")", sendFailed + "-600",
       "busError=org.freedesktop.DBus.Error.NameHasNoOwner errorCode=-600"},
      {R"("dbusError":"org.freedesktop.DBus.Error.Disconnected")", sendFailed + "-609",
       "busError=org.freedesktop.DBus.Error.Disconnected errorCode=-609"},
      {R"("dbusError":"org.example.Error.Strange")", sendFailed + "-1700",
       "busError=org.example.Error.Strange errorCode=-1700 requestType=ComputerUseIPCListAppsRequest timeoutMs=120000"},
      {R"("dbusError":"org.freedesktop.DBus.Error.AccessDenied")",
       "Computer Use is not authorized to control Tavix Computer Use through macOS Automation. macOS returned "
       "errAEEventNotPermitted (-1743).\n\nOpen System Settings > Privacy & Security > Automation, find the "
       "application that started this MCP server, and enable Tavix Computer Use underneath it. Then quit and "
       "relaunch the application that started this MCP server before retrying.",
       "errorCode=-1743 reason=automation-not-authorized requestType=ComputerUseIPCListAppsRequest "
       "responsibleIsSelf=false responsibleName=nil responsiblePID=nil",
       "apple_event_send_denied"},
      {R"("errn":5,"errs":"boom")", "Server error 5: boom", "outcome=failure", "ipc_send_finished"},
  };
  auto t = transport();
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fault);
    ASSERT_TRUE(control.setFaults("[{" + c.fault + R"(,"times":1}])"));
    control.clearEvents();
    CapturedLog log;
    auto reply = t->send(c.requestType, "{}");
    EXPECT_EQ(describe(reply.error()), c.text);
    EXPECT_THAT(log.withEvent(c.event), ElementsAre(HasSubstr(c.logged)));
    EXPECT_THAT(log.withEvent("apple_event_send_failed"), Each(HasSubstr(" level=error ")));
    // A request that timed out is abandoned in the runtime, by a cancel naming its event.
    const bool abandoned = isRequestTimeout(reply.error());
    const auto cancels = control.awaitEvents(cancelType, abandoned ? 1 : 0).value();
    ASSERT_EQ(cancels.size(), abandoned ? 1u : 0u);
    const auto sent = control.awaitEvents(c.requestType, 0).value();
    ASSERT_EQ(sent.size(), 1u) << "not retried";
    if (abandoned)
      EXPECT_EQ(cancels[0]["body"]["requestID"], sent[0]["requestID"]);
  }
  ASSERT_TRUE(t->send(listApps, "{}").has_value()) << "the connection recovers after Disconnected";
}

TEST_F(RuntimeBusTransport, NotReadyAndEmptyAnswersAreRetriedUpToTenAttemptsInAll) {
  const struct {
    std::string fault;
    int failures;
    std::string failure; // of the last attempt; empty when the next attempt is answered
  } cases[] = {
      {R"("errn":-1708)", 9, ""},
      {R"("errn":-1708)", 10, "Server error -1708: Simulated error -1708"},
      {R"("noDirectObject":true)", 9, ""},
      {R"("noDirectObject":true)", 10, "Invalid response from runtime"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fault + " x" + std::to_string(c.failures));
    ASSERT_TRUE(control.setFaults("[{" + c.fault + R"(,"times":)" + std::to_string(c.failures) + "}]"));
    control.clearEvents();
    CapturedLog log;
    auto reply = transport()->send(listApps, "{}");
    EXPECT_EQ(reply ? "" : describe(reply.error()), c.failure);
    const auto sent = control.awaitEvents(listApps, 0).value();
    EXPECT_EQ(sent.size(), 10u);
    std::set<std::string> ids; // every attempt is an event of its own
    for (const auto &event : sent)
      ids.insert(event["requestID"].get<std::string>());
    EXPECT_EQ(ids.size(), sent.size());
    // One request id, made for the send, marks its lines.
    const auto started = log.withEvent("ipc_send_started"), finished = log.withEvent("ipc_send_finished");
    ASSERT_EQ(started.size(), 1u);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_THAT(finished[0], HasSubstr(reply ? "outcome=success" : "outcome=retries_exhausted"));
    const auto requestId = started[0].substr(started[0].find(" requestId="), 48);
    EXPECT_THAT(requestId, ::testing::MatchesRegex(" requestId=[-0-9A-F]{36} ")) << started[0];
    EXPECT_THAT(finished[0], HasSubstr(requestId));
  }
  EXPECT_EQ(transport(busName, fast(), nullptr, std::make_shared<ZeroErrorNumber>())->send(listApps, "{}"), "{}");
}

TEST_F(RuntimeBusTransport, ARuntimeWithoutItsHandlerYetIsRetriedUntilItServes) {
  RuntimeSimulatorProcess late(shared->bus.address(), {"--bus-name", otherName, "--late-handler-ms", "150"});
  auto timing = fast();
  timing.retryDelay = 50ms; // ten attempts span 450 ms
  auto reply = transport(otherName, timing)->send(listApps, "{}");
  ASSERT_TRUE(reply.has_value()) << describe(reply.error());
  SimulatorControl lateControl(shared->bus.address(), late.uniqueName());
  EXPECT_EQ(lateControl.events().size(), 1u) << "only the attempt that found the handler reached it";
}

TEST_F(RuntimeBusTransport, AnExplicitTimeOutSendsOnceWithoutRetryAndARaceLostToItIsAbandoned) {
  auto t = transport();
  ASSERT_TRUE(control.setFaults(R"([{"noDirectObject":true,"times":1}])"));
  auto reply = t->send(healthType, R"({"refreshClientActivity":true})", 2.0);
  EXPECT_EQ(describe(reply.error()), "Invalid response from runtime");
  EXPECT_EQ(control.events().size(), 1u);
  EXPECT_TRUE(log.withEvent("ipc_send_started").empty()) << "the retrying path logs; this one does not";

  // A grace below zero ends the race before the bus call's own time-out, as when a send
  // never returns; the cancel that follows fails, and tells its own time-out.
  auto timing = fast();
  timing.raceGraceSeconds = -0.04;
  ASSERT_TRUE(control.setFaults(R"([{"requestType":"ComputerUseIPCHealthRequest","neverAnswer":true},)"
                                R"({"requestType":"ComputerUseIPCCancelRequest","dbusError":"org.example.Error.Cancel"}])"));
  control.clearEvents();
  reply = transport(busName, timing)->send(healthType, "{}", 0.05);
  ASSERT_FALSE(reply.has_value());
  EXPECT_EQ(std::get<ComputerUseIPCError>(reply.error()), ComputerUseIPCError::timeout);
  const auto timeouts = log.withEvent("request_timeout");
  ASSERT_EQ(timeouts.size(), 1u);
  EXPECT_THAT(timeouts[0], HasSubstr("requestType=ComputerUseIPCHealthRequest timeoutMs=10"));
  const auto cancels = control.awaitEvents(cancelType, 1).value();
  EXPECT_EQ(cancels[0]["body"]["requestID"], control.awaitEvents(healthType, 0).value().at(0)["requestID"]);
  cancellations.waitUntilIdle(std::chrono::steady_clock::now() + 10s);
  EXPECT_THAT(log.withEvent("apple_event_send_failed").back(),
              HasSubstr("requestType=ComputerUseIPCCancelRequest timeoutMs=5000"));
}

TEST_F(RuntimeBusTransport, ACancelledCallReturnsAtOnceAndSendsExactlyOneCancelAndACallCancelledEarlierNothing) {
  ASSERT_TRUE(control.setFaults(R"([{"requestType":"ComputerUseIPCListAppsRequest","delayMs":60000}])"));
  auto t = transport();
  std::stop_source stop;
  auto caller = std::async(std::launch::async, [&] {
    WithRequestContext scope(std::make_shared<RequestContext>("CORR", stop.get_token()));
    return t->send(listApps, "{}");
  });
  const auto sent = control.awaitEvents(listApps, 1).value();
  stop.request_stop();
  auto reply = caller.get();
  ASSERT_FALSE(reply.has_value());
  EXPECT_EQ(std::get<ComputerUseIPCError>(reply.error()), ComputerUseIPCError::cancelled);
  EXPECT_EQ(log.withEvent("request_cancelled").size(), 1u);
  const auto cancels = control.awaitEvents(cancelType, 1).value();
  EXPECT_EQ(cancels[0]["body"]["requestID"], sent[0]["requestID"]);
  EXPECT_EQ(control.awaitEvents("*", 2).value().size(), 2u) << "one event and one cancel, nothing else";

  WithRequestContext scope(std::make_shared<RequestContext>("CORR", stop.get_token()));
  reply = t->send(listApps, "{}");
  EXPECT_TRUE(std::holds_alternative<CancellationError>(reply.error()));
  EXPECT_EQ(control.events().size(), 2u);
}

TEST_F(RuntimeBusTransport, AmongQueuedInstancesOneThatAnswersItsHealthIsChosenAndKept) {
  RuntimeSimulatorProcess silent(shared->bus.address(), {"--bus-name", otherName});
  RuntimeSimulatorProcess healthy(shared->bus.address(), {"--bus-name", otherName});
  SimulatorControl silentControl(shared->bus.address(), silent.uniqueName());
  SimulatorControl healthyControl(shared->bus.address(), healthy.uniqueName());
  ASSERT_TRUE(silentControl.setFaults(R"([{"dbusError":"org.example.Error.Silent"}])"));
  auto t = transport(otherName);
  ASSERT_TRUE(t->send(listApps, "{}").has_value());
  ASSERT_TRUE(t->send(listApps, "{}").has_value());
  std::vector<std::string> types;
  for (const auto &event : healthyControl.events())
    types.push_back(event["requestType"]);
  EXPECT_EQ(types, (std::vector<std::string>{healthType, listApps, listApps})) << "the choice is remembered";
  EXPECT_EQ(silentControl.events().size(), 1u);
  EXPECT_THAT(log.withEvent("apple_event_send_failed").at(0),
              HasSubstr("requestType=ComputerUseIPCHealthRequest timeoutMs=1000"));
}

TEST_F(RuntimeBusTransport, ARuntimeThatCrashesMidCallFailsTheCallAndTheNextFindsAnother) {
  auto crashing = std::make_unique<RuntimeSimulatorProcess>(shared->bus.address(),
                                                            std::vector<std::string>{"--bus-name", otherName});
  ASSERT_TRUE(SimulatorControl(shared->bus.address(), crashing->uniqueName())
                  .setFaults(R"([{"requestType":"ComputerUseIPCListAppsRequest","crash":true}])"));
  auto t = transport(otherName);
  auto reply = t->send(listApps, "{}");
  ASSERT_FALSE(reply.has_value());
  EXPECT_EQ(describe(reply.error()), "Apple Event send timed out after 120.0s for ComputerUseIPCListAppsRequest; "
                                     "TavixComputerUseRuntime did not reply");
  EXPECT_EQ(crashing->waitForExit(), 70);
  RuntimeSimulatorProcess replacement(shared->bus.address(), {"--bus-name", otherName});
  ASSERT_TRUE(t->send(listApps, "{}").has_value());
  EXPECT_EQ(SimulatorControl(shared->bus.address(), replacement.uniqueName()).events().size(), 1u);
}

// The launched runtime runs detached: in a session of its own, with default signal handling
// although the bridge ignores SIGTERM and blocks signals on all but one thread, and with the
// bridge's log directory.
TEST_F(RuntimeBusTransport, WithNoneRunningTheRuntimeIsLaunchedFromTheOverrideOnceAndRunsOnItsOwn) {
  PrivateSessionBus empty; // a bus of its own, where no runtime runs yet
  ::setenv("DBUS_SESSION_BUS_ADDRESS", empty.address().c_str(), 1);
  environment["TAVIX_COMPUTER_USE_RUNTIME_PATH"] = RuntimeSimulatorProcess::defaultExecutable();
  environment["TAVIX_CU_LOG_DIR"] = " " + directory.path() + " ";
  auto t = transport();
  const auto previousTerm = ::signal(SIGTERM, SIG_IGN);
  sigset_t blocked, previousMask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2); // one the runtime leaves alone
  ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);
  auto reply = t->send(healthType, "{}");
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  ::signal(SIGTERM, previousTerm);
  ASSERT_TRUE(reply.has_value()) << describe(reply.error());
  ASSERT_TRUE(t->send(listApps, "{}").has_value());
  EXPECT_EQ(log.withEvent("runtime_launch_started").size(), 1u) << "the running instance is used, not launched again";

  const pid_t launched = parseJSON(*reply).value()["runtimePID"].get<pid_t>();
  const std::string proc = "/proc/" + std::to_string(launched), status = readFile(proc + "/status");
  const auto mask = [&](const char *name) { return std::stoull(status.substr(status.find(name) + 7), nullptr, 16); };
  EXPECT_EQ(mask("SigBlk:") & (1ull << (SIGUSR2 - 1)), 0u) << status;
  EXPECT_EQ(mask("SigIgn:") & (1ull << (SIGTERM - 1)), 0u) << status;
  std::istringstream stat(readFile(proc + "/stat").substr(readFile(proc + "/stat").rfind(')') + 2));
  std::string state, parent, group, session;
  stat >> state >> parent >> group >> session;
  EXPECT_EQ(session, std::to_string(launched)) << "a session of its own";
  EXPECT_THAT(readFile(proc + "/environ"), HasSubstr(std::string("TAVIX_CU_LOG_DIR=") + directory.path() + '\0'));
  // It stops on SIGTERM, which the bridge itself ignores.
  const int exited = static_cast<int>(::syscall(SYS_pidfd_open, launched, 0));
  ASSERT_EQ(::kill(launched, SIGTERM), 0);
  pollfd gone{exited, POLLIN, 0};
  EXPECT_EQ(::poll(&gone, 1, 10000), 1);
  ::close(exited);
}

TEST_F(RuntimeBusTransport, LaunchFailuresHaveTheirTexts) {
  const std::string plain = directory / "plain", exits = directory / "exits";
  writeFile(plain, "data");
  writeFile(exits, "#!/bin/sh\n");
  ::chmod(exits.c_str(), 0700);
  const struct {
    std::string path, text;
  } cases[] = {
      {directory / "missing",
       notRunning + "set TAVIX_COMPUTER_USE_RUNTIME_PATH to Tavix Computer Use.app in development"},
      {directory.path(), notRunning + directory.path() + ": not an executable file"},
      {plain, notRunning + plain + ": Permission denied"},
      {exits, "TavixComputerUseRuntime is not running"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path);
    environment["TAVIX_COMPUTER_USE_RUNTIME_PATH"] = c.path;
    auto reply = transport(otherName)->send(listApps, "{}");
    ASSERT_FALSE(reply.has_value());
    EXPECT_EQ(describe(reply.error()), c.text);
  }
  EXPECT_EQ(log.withEvent("runtime_launch_callback_failed").size(), 2u);

  // A launch that does not report in time, and a path gone before the launch.
  auto silent = std::make_shared<SilentLaunch>();
  EXPECT_EQ(describe(transport(otherName, fast(), silent)->send(listApps, "{}").error()),
            notRunning + "launch callback timed out");
  silent->late(std::nullopt); // is dropped
  std::optional<std::optional<std::string>> completion;
  makeSystemRuntimeApplications()->launch(directory / "missing", {}, [&](auto error) { completion = error; });
  EXPECT_EQ(completion, std::optional<std::optional<std::string>>(directory / "missing: No such file or directory"));
}

} // namespace
} // namespace tavix::test
