// The transport's logic over a scripted event channel and fake running applications: the
// wire parameters, retries, time-outs, failures and their texts, discovery and launch,
// and the cancellation of a request its caller gave up on.

#include "client/AppleEventComputerUseTransport.h"
#include "fakes/CapturedLog.h"
#include "fakes/FakeRuntimeApplications.h"
#include "fakes/ScriptedEventChannel.h"
#include "support/JSON.h"
#include "support/RequestContext.h"
#include "testing/MapEnvironment.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <future>

namespace tavix::test {
namespace {

using ::testing::HasSubstr;
using Outcome = FakeRuntimeApplications::LaunchOutcome;

constexpr const char *getState = "ComputerUseIPCAppGetStateRequest";
constexpr const char *cancelType = "ComputerUseIPCCancelRequest";
constexpr const char *healthType = "ComputerUseIPCHealthRequest";

class AllowingPermission final : public AutomationPermission {
public:
  int32_t probe(int32_t, bool) override { return 0; }
};

class NoResponsibleProcess final : public ProcessInformation {
public:
  int32_t currentProcessIdentifier() override { return 100; }
  std::optional<int32_t> responsibleProcess(int32_t) override { return std::nullopt; }
  std::optional<std::string> localizedName(int32_t) override { return std::nullopt; }
  std::optional<std::string> executablePath(int32_t) override { return std::nullopt; }
};

std::string healthJSON(int32_t pid, bool healthy) {
  return R"({"bundleIdentifier":"com.tavix.computeruse","bundlePath":"/x","generationID":"g","isHealthy":)" +
         std::string(healthy ? "true" : "false") + R"(,"runtimePID":)" + std::to_string(pid) + "}";
}

struct TransportFixture : ::testing::Test {
  std::shared_ptr<ScriptedEventChannel> channel = std::make_shared<ScriptedEventChannel>();
  std::shared_ptr<FakeRuntimeApplications> applications = std::make_shared<FakeRuntimeApplications>();
  IPCBlockingSendExecutor requests{"test.send", 2, 8};
  IPCBlockingSendExecutor cancellations{"test.cancel", 2, 8};
  TemporaryDirectory directory;
  std::map<std::string, std::string> environment;
  CapturedLog log;

  std::unique_ptr<AppleEventComputerUseTransport> makeTransport(AppleEventComputerUseTransport::Timing timing = fast()) {
    AppleEventComputerUseTransport::Services services{
        .events = channel,
        .applications = applications,
        .automation = std::make_shared<AllowingPermission>(),
        .processes = std::make_shared<NoResponsibleProcess>(),
        .bundleIdentifiers = BundleIdentifiers(std::make_shared<PropertyListSnapshot>(PropertyListDictionary{})),
        .locations = {lookupIn(environment), directory.path() + "/a/b/c/d", directory.path(),
                      "Tavix Computer Use.app"},
        .requestExecutor = &requests,
        .cancellationExecutor = &cancellations,
    };
    return std::make_unique<AppleEventComputerUseTransport>("1.0", std::move(services), timing);
  }

  static AppleEventComputerUseTransport::Timing fast() {
    AppleEventComputerUseTransport::Timing timing;
    timing.retryDelay = std::chrono::milliseconds(1);
    timing.discovery.launchCallbackTimeout = std::chrono::milliseconds(30);
    timing.discovery.appearanceTimeout = std::chrono::milliseconds(30);
    timing.discovery.appearancePollInterval = std::chrono::milliseconds(1);
    return timing;
  }

  void oneRuntime(int32_t pid = 41) { applications->setInstances({{pid, "/opt/runtime"}}); }
};

// ---- Wire parameters and replies ----

TEST_F(TransportFixture, OneEventCarriesTheTypeTheBytesAFreshRequestIDAndTheClientVersion) {
  oneRuntime();
  auto transport = makeTransport();
  channel->script(getState, {ScriptedEventChannel::reply(R"({"ok":1})")});
  auto reply = transport->send(getState, R"({"app":"Notes"})");
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(*reply, R"({"ok":1})");
  const auto events = channel->events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].pid, 41);
  EXPECT_EQ(events[0].eventClass, "ZlCu");
  EXPECT_EQ(events[0].eventID, "SndR");
  EXPECT_EQ(events[0].requestData, R"({"app":"Notes"})");
  EXPECT_EQ(events[0].clientVersion, "1.0");
  EXPECT_EQ(events[0].timeoutSeconds, 120.0);
  EXPECT_THAT(events[0].requestID, ::testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}"));
  EXPECT_NE(events[0].thread, std::this_thread::get_id()) << "blocking sends run on the executor";
  EXPECT_TRUE(transport->hasEstablishedConnection());
  EXPECT_EQ(transport->transportName(), "apple-events");
}

TEST_F(TransportFixture, RepliesAndStatusesBecomeTheTransportsErrorsWithTheirTexts) {
  const struct {
    const char *name;
    RuntimeEventOutcome outcome;
    std::string text;
  } cases[] = {
      {"server error with text", ScriptedEventChannel::errorReply(5, "boom"), "Server error 5: boom"},
      {"server error without text", ScriptedEventChannel::errorReply(-42), "Server error -42"},
      {"timed out", ScriptedEventChannel::status(-1712),
       "Apple Event send timed out after 120.0s for ComputerUseIPCAppGetStateRequest; TavixComputerUseRuntime did "
       "not reply"},
      {"connection invalid", ScriptedEventChannel::status(-609),
       "Apple Event send failed for ComputerUseIPCAppGetStateRequest with status: -609"},
      {"process not found", ScriptedEventChannel::status(-600),
       "Apple Event send failed for ComputerUseIPCAppGetStateRequest with status: -600"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    oneRuntime();
    auto transport = makeTransport();
    channel->script(getState, {c.outcome});
    const size_t before = channel->eventsOfType(getState).size();
    auto reply = transport->send(getState, "{}");
    ASSERT_FALSE(reply.has_value());
    EXPECT_EQ(describe(reply.error()), c.text);
    EXPECT_EQ(channel->eventsOfType(getState).size(), before + 1) << "not retried";
  }
}

TEST_F(TransportFixture, ErrorNumberZeroWithADirectObjectIsSuccess) {
  oneRuntime();
  auto transport = makeTransport();
  RuntimeEventOutcome outcome = ScriptedEventChannel::reply("{}");
  outcome.reply.errorNumber = 0;
  channel->script(getState, {outcome});
  EXPECT_EQ(transport->send(getState, "{}").value(), "{}");
}

TEST_F(TransportFixture, AFailedSendIsLoggedWithItsCodeAndTimeOutInMilliseconds) {
  oneRuntime();
  auto transport = makeTransport();
  channel->script(getState, {ScriptedEventChannel::status(-1700, "org.example.Error.Strange")});
  ASSERT_FALSE(transport->send(getState, "{}").has_value());
  const auto lines = log.withEvent("apple_event_send_failed");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], HasSubstr("level=error"));
  EXPECT_THAT(lines[0], HasSubstr("busError=org.example.Error.Strange errorCode=-1700"));
  EXPECT_THAT(lines[0], HasSubstr("requestType=ComputerUseIPCAppGetStateRequest timeoutMs=120000"));
}

TEST_F(TransportFixture, NotPermittedBecomesTheRemediationMessageAndIsNeverRetried) {
  oneRuntime();
  auto transport = makeTransport();
  channel->script(getState, {ScriptedEventChannel::status(-1743)});
  auto reply = transport->send(getState, "{}");
  ASSERT_FALSE(reply.has_value());
  const auto *error = std::get_if<ClientError>(&reply.error());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->kind(), ClientError::Kind::automationNotAuthorized);
  EXPECT_THAT(error->description(), HasSubstr("find the application that started this MCP server, and enable "
                                              "Tavix Computer Use underneath it."));
  EXPECT_EQ(channel->eventsOfType(getState).size(), 1u);
  const auto denied = log.withEvent("apple_event_send_denied");
  ASSERT_EQ(denied.size(), 1u);
  EXPECT_THAT(denied[0], HasSubstr("errorCode=-1743 reason=automation-not-authorized"));
  EXPECT_THAT(denied[0], HasSubstr("responsibleIsSelf=false"));
  EXPECT_TRUE(log.withEvent("apple_event_send_failed").empty());
}

// ---- Retries ----

TEST_F(TransportFixture, NotReadyAndEmptyRepliesAreRetriedUpToTenAttemptsInAll) {
  const struct {
    const char *name;
    RuntimeEventOutcome retried;
    size_t failures;
    bool succeeds;
  } cases[] = {
      {"nine not-ready replies, then the answer", ScriptedEventChannel::errorReply(-1708), 9, true},
      {"ten not-ready replies", ScriptedEventChannel::errorReply(-1708), 10, false},
      {"nine empty replies, then the answer", ScriptedEventChannel::emptyReply(), 9, true},
      {"ten empty replies", ScriptedEventChannel::emptyReply(), 10, false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    channel = std::make_shared<ScriptedEventChannel>();
    oneRuntime();
    auto transport = makeTransport();
    channel->script(getState, std::vector<RuntimeEventOutcome>(c.failures, c.retried));
    channel->script(getState, {ScriptedEventChannel::reply("{}")});
    const size_t linesBefore = log.withEvent("ipc_send_finished").size();
    auto reply = transport->send(getState, "{}");
    EXPECT_EQ(reply.has_value(), c.succeeds);
    EXPECT_EQ(channel->eventsOfType(getState).size(), std::min<size_t>(c.failures + 1, 10));
    const auto finished = log.withEvent("ipc_send_finished");
    ASSERT_EQ(finished.size(), linesBefore + 1);
    EXPECT_THAT(finished.back(), HasSubstr(c.succeeds ? "outcome=success" : "outcome=retries_exhausted"));
    if (!c.succeeds)
      EXPECT_EQ(describe(reply.error()), c.failures == 10 && c.retried.reply.errorNumber
                                             ? "Server error -1708"
                                             : "Invalid response from runtime");
    // Every attempt is a new event with a request id of its own.
    std::set<std::string> ids;
    for (const auto &event : channel->eventsOfType(getState))
      ids.insert(event.requestID);
    EXPECT_EQ(ids.size(), channel->eventsOfType(getState).size());
  }
}

TEST_F(TransportFixture, StartedAndFinishedLinesShareTheCallsRequestID) {
  oneRuntime();
  auto transport = makeTransport();
  channel->script(getState, {ScriptedEventChannel::reply("12345")});
  WithRequestContext scope(std::make_shared<RequestContext>("CORR-1", std::stop_token{}));
  ASSERT_TRUE(transport->send(getState, "{\"app\":\"N\"}").has_value());
  const auto started = log.withEvent("ipc_send_started");
  ASSERT_EQ(started.size(), 1u);
  EXPECT_THAT(started[0], HasSubstr("requestId=CORR-1 requestBytes=11 requestType=ComputerUseIPCAppGetStateRequest"));
  const auto finished = log.withEvent("ipc_send_finished");
  ASSERT_EQ(finished.size(), 1u);
  EXPECT_THAT(finished[0], HasSubstr("level=info"));
  EXPECT_THAT(finished[0], HasSubstr("requestId=CORR-1"));
  EXPECT_THAT(finished[0], HasSubstr("outcome=success requestType=ComputerUseIPCAppGetStateRequest responseBytes=5"));
}

TEST_F(TransportFixture, ASendWithoutARequestIDGetsOneForAllItsLines) {
  oneRuntime();
  auto transport = makeTransport();
  ASSERT_TRUE(transport->send(getState, "{}").has_value());
  const auto started = log.withEvent("ipc_send_started");
  const auto finished = log.withEvent("ipc_send_finished");
  ASSERT_EQ(started.size(), 1u);
  ASSERT_EQ(finished.size(), 1u);
  auto requestID = [](const std::string &line) {
    auto at = line.find(" requestId=");
    return at == std::string::npos ? std::string() : line.substr(at, line.find(' ', at + 1) - at);
  };
  EXPECT_FALSE(requestID(started[0]).empty());
  EXPECT_EQ(requestID(started[0]), requestID(finished[0]));
}

TEST_F(TransportFixture, EachAttemptWaitsTheRequestTypesTimeOut) {
  oneRuntime();
  auto transport = makeTransport();
  ASSERT_TRUE(transport->send("ComputerUseIPCEventStreamStartRequest", "{}").has_value());
  ASSERT_TRUE(transport->send("ComputerUseIPCEventStreamStopRequest", "{}").has_value());
  const auto events = channel->events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].timeoutSeconds, 220.0);
  EXPECT_EQ(events[1].timeoutSeconds, 120.0);
}

// ---- An explicit time-out ----

TEST_F(TransportFixture, AnExplicitTimeOutSendsOnceToTheSelectedRuntimeWithoutRetry) {
  oneRuntime();
  auto transport = makeTransport();
  channel->script(healthType, {ScriptedEventChannel::emptyReply()});
  auto reply = transport->send(healthType, R"({"refreshClientActivity":true})", 2.0);
  ASSERT_FALSE(reply.has_value());
  EXPECT_EQ(describe(reply.error()), "Invalid response from runtime");
  const auto events = channel->eventsOfType(healthType);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].timeoutSeconds, 2.0);
  EXPECT_TRUE(log.withEvent("ipc_send_started").empty()) << "the retrying path logs; this one does not";
}

TEST_F(TransportFixture, AnExplicitTimeOutWithNoRuntimeSelectedFirstEnsuresOneRuns) {
  auto transport = makeTransport();
  const std::string runtime = directory.path() + "/runtime";
  std::ofstream(runtime) << "";
  environment["TAVIX_COMPUTER_USE_RUNTIME_PATH"] = runtime;
  applications->scriptLaunch(Outcome::started, RunningRuntimeInstance{77, runtime});
  ASSERT_TRUE(transport->send(healthType, "{}", 2.0).has_value());
  ASSERT_EQ(applications->launches().size(), 1u);
  const auto events = channel->eventsOfType(healthType);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].pid, 77);
}

// ---- Discovery and launch ----

TEST_F(TransportFixture, LaunchFailuresHaveTheirTexts) {
  const std::string runtime = directory.path() + "/runtime";
  std::ofstream(runtime) << "";
  const struct {
    const char *name;
    std::string path;
    Outcome outcome;
    std::string text;
  } cases[] = {
      {"no candidate on disk", directory.path() + "/missing", Outcome::started,
       "Failed to launch TavixComputerUseRuntime: set TAVIX_COMPUTER_USE_RUNTIME_PATH to Tavix Computer Use.app in "
       "development"},
      {"the launch reports an error", runtime, Outcome::failed, "Failed to launch TavixComputerUseRuntime: no luck"},
      {"the launch never reports", runtime, Outcome::neverCompletes,
       "Failed to launch TavixComputerUseRuntime: launch callback timed out"},
      {"started, but never appears", runtime, Outcome::started, "TavixComputerUseRuntime is not running"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    applications = std::make_shared<FakeRuntimeApplications>();
    applications->scriptLaunch(c.outcome, std::nullopt, "no luck");
    environment["TAVIX_COMPUTER_USE_RUNTIME_PATH"] = c.path;
    auto transport = makeTransport();
    auto reply = transport->send(getState, "{}");
    ASSERT_FALSE(reply.has_value());
    EXPECT_EQ(describe(reply.error()), c.text);
    EXPECT_EQ(applications->launches().size(), c.path == runtime ? 1u : 0u);
    EXPECT_TRUE(channel->events().empty());
    applications->completeLateLaunches();
  }
  EXPECT_EQ(log.withEvent("runtime_launch_callback_failed").size(), 1u);
}

TEST_F(TransportFixture, ALaunchPassesTheLogDirectoryOnAndTheLaunchedRuntimeIsUsed) {
  const std::string runtime = directory.path() + "/runtime";
  std::ofstream(runtime) << "";
  environment["TAVIX_COMPUTER_USE_RUNTIME_PATH"] = runtime;
  environment["TAVIX_CU_LOG_DIR"] = " /var/log/host ";
  applications->scriptLaunch(Outcome::started, RunningRuntimeInstance{88, runtime});
  auto transport = makeTransport();
  ASSERT_TRUE(transport->send(getState, "{}").has_value());
  const auto launches = applications->launches();
  ASSERT_EQ(launches.size(), 1u);
  EXPECT_EQ(launches[0].path, runtime);
  EXPECT_EQ(launches[0].environment, (LaunchEnvironment{{"TAVIX_CU_LOG_DIR", "/var/log/host"}}));
  EXPECT_EQ(channel->events().at(0).pid, 88);
  ASSERT_TRUE(transport->send(getState, "{}").has_value());
  EXPECT_EQ(applications->launches().size(), 1u) << "the running instance is used, not launched again";
}

TEST_F(TransportFixture, AmongSeveralInstancesTheHealthyOneIsChosenAndKept) {
  applications->setInstances({{10, "/elsewhere/a"}, {20, "/elsewhere/b"}, {30, "/elsewhere/c"}});
  auto transport = makeTransport();
  channel->script(healthType, {ScriptedEventChannel::reply(healthJSON(10, false)),
                               ScriptedEventChannel::status(-1712), ScriptedEventChannel::reply(healthJSON(30, true))});
  ASSERT_TRUE(transport->send(getState, "{}").has_value());
  const auto probes = channel->eventsOfType(healthType);
  ASSERT_EQ(probes.size(), 3u);
  EXPECT_EQ(probes[0].timeoutSeconds, 1.0);
  EXPECT_EQ(channel->eventsOfType(getState).at(0).pid, 30);
  ASSERT_TRUE(transport->send(getState, "{}").has_value());
  EXPECT_EQ(channel->eventsOfType(healthType).size(), 3u) << "the choice is remembered while it runs";
  EXPECT_EQ(channel->eventsOfType(getState).at(1).pid, 30);
}

TEST_F(TransportFixture, WhenTheSelectedRuntimeIsGoneAnotherIsChosen) {
  oneRuntime(41);
  auto transport = makeTransport();
  ASSERT_TRUE(transport->send(getState, "{}").has_value());
  applications->setInstances({{42, "/opt/runtime"}});
  ASSERT_TRUE(transport->send(getState, "{}").has_value());
  EXPECT_EQ(channel->eventsOfType(getState).at(1).pid, 42);
  transport->forgetSelectedRuntime();
  EXPECT_FALSE(transport->hasSelectedRuntime());
  EXPECT_FALSE(transport->hasEstablishedConnection());
}

// ---- Time-outs and cancellation ----

TEST_F(TransportFixture, ATimedOutEventAsksTheRuntimeToAbandonIt) {
  oneRuntime();
  auto transport = makeTransport();
  channel->script(getState, {ScriptedEventChannel::status(-1712)});
  ASSERT_FALSE(transport->send(getState, "{}").has_value());
  channel->waitForEvents(cancelType, 1);
  const auto sent = channel->eventsOfType(getState).at(0);
  const auto cancel = channel->eventsOfType(cancelType).at(0);
  EXPECT_EQ(cancel.requestData, R"({"requestID":")" + sent.requestID + R"("})");
  EXPECT_EQ(cancel.pid, sent.pid);
  EXPECT_EQ(cancel.timeoutSeconds, 5.0);
}

TEST_F(TransportFixture, AnEventThatNeverReturnsTimesOutAfterItsGraceAndIsCancelled) {
  oneRuntime();
  auto timing = fast();
  timing.raceGraceSeconds = 0.02;
  auto transport = makeTransport(timing);
  channel->hold(healthType);
  auto reply = transport->send(healthType, "{}", 0.01);
  ASSERT_FALSE(reply.has_value());
  EXPECT_EQ(std::get<ComputerUseIPCError>(reply.error()), ComputerUseIPCError::timeout);
  EXPECT_TRUE(isRequestTimeout(reply.error()));
  const auto lines = log.withEvent("request_timeout");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], HasSubstr("requestType=ComputerUseIPCHealthRequest timeoutMs=30"));
  channel->waitForEvents(cancelType, 1);
  channel->release(healthType);
}

TEST_F(TransportFixture, CancellingARunningSendReturnsAtOnceAndSendsExactlyOneCancel) {
  oneRuntime();
  auto transport = makeTransport();
  channel->hold(getState);
  std::stop_source stop;
  auto caller = std::async(std::launch::async, [&] {
    WithRequestContext scope(std::make_shared<RequestContext>("CORR-9", stop.get_token()));
    return transport->send(getState, "{}");
  });
  channel->waitForEvents(getState, 1);
  stop.request_stop();
  auto reply = caller.get();
  ASSERT_FALSE(reply.has_value());
  EXPECT_EQ(std::get<ComputerUseIPCError>(reply.error()), ComputerUseIPCError::cancelled);
  channel->waitForEvents(cancelType, 1);
  const auto cancels = channel->eventsOfType(cancelType);
  ASSERT_EQ(cancels.size(), 1u);
  EXPECT_EQ(cancels[0].requestData,
            R"({"requestID":")" + channel->eventsOfType(getState).at(0).requestID + R"("})");
  EXPECT_EQ(log.withEvent("request_cancelled").size(), 1u);
  channel->release(getState);
  EXPECT_EQ(channel->eventsOfType(getState).size(), 1u) << "a cancelled call is not retried";
}

TEST_F(TransportFixture, ACallCancelledBeforeItStartsSendsNothing) {
  oneRuntime();
  auto transport = makeTransport();
  std::stop_source stop;
  stop.request_stop();
  WithRequestContext scope(std::make_shared<RequestContext>("CORR-0", stop.get_token()));
  auto reply = transport->send(getState, "{}");
  ASSERT_FALSE(reply.has_value());
  EXPECT_TRUE(std::holds_alternative<CancellationError>(reply.error()));
  EXPECT_TRUE(channel->events().empty());
}

} // namespace
} // namespace tavix::test
