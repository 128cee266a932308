// The simulator executable on a private session bus, driven as the bridge drives a
// runtime: the health of a run, the journal, both forms of payload at their size
// boundary, malformed calls, cancellation, scripted faults, the reply cache, queueing for
// the name, the window before the handler exists, and how the process ends; then appshot
// captures, whose next-updates wait outside the workers and end by a cancel of their
// capture, a cancel of the call, a change of the desktop or their deadline.
//
// One bus and one simulator serve the suite; a test that needs other options starts its
// own beside it. Tests wait on the simulator's ready line and its journal (a parked
// next-update journals a "captureUpdateWaiting" event), never on the clock.

#include "contracts/AppshotContracts.h"
#include "contracts/ComputerUseRequests.h"
#include "platform/linux/SealedMemfd.h"
#include "runtime/DecodedPng.h"
#include "support/JSON.h"
#include "testing/ChildProcess.h"
#include "testing/PrivateSessionBus.h"
#include "testing/RuntimeSimulatorProcess.h"
#include "testing/SimulatorControl.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <map>
#include <set>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using Form = RuntimeReply::Form;
using Reply = tl::expected<RuntimeReply, BusError>;
using ToolResult = ComputerUseIPCToolResultResponse;
using Health = ComputerUseIPCHealthResponse;

constexpr const char *busName = "com.tavix.computeruse", *waiting = "captureUpdateWaiting";
// Request types by their names on the wire, as the bridge sends them.
constexpr std::string_view healthType = "ComputerUseIPCHealthRequest", listAppsType = "ComputerUseIPCListAppsRequest",
                           getStateType = "ComputerUseIPCAppGetStateRequest", performType = "ComputerUseIPCAppPerformActionRequest",
                           usageType = "ComputerUseIPCAppUsageRequest", cancelType = "ComputerUseIPCCancelRequest",
                           startType = "ComputerUseIPCAppStartFrontmostCaptureRequest",
                           nextType = "ComputerUseIPCAppNextCaptureUpdateRequest", cancelCaptureType = "ComputerUseIPCAppCancelCaptureRequest";

// A reply in one line: its D-Bus error, else its runtime error, else its response ("none"
// when it carries none); a runtime error beside a response shows both.
std::string describe(const Reply &reply) {
  if (!reply)
    return reply.error().name + ": " + reply.error().message;
  const std::string error = reply->errn ? std::to_string(*reply->errn) + " " + reply->errs.value_or("") : "";
  return reply->errn && reply->form == Form::none ? error : error + (error.empty() ? "" : " + ") + reply->bytes.value_or("none");
}

nlohmann::json replyJSON(const Reply &reply) {
  if (!reply || reply->errn)
    throw std::runtime_error(describe(reply));
  return parseJSON(reply->bytes.value_or("")).value_or(nlohmann::json());
}
template <typename Record> Record decoded(const Reply &reply) { return Record::fromJSON(replyJSON(reply)).value(); }

std::string updateType(const Reply &reply) {
  const auto json = replyJSON(reply);
  return json.contains("update") ? json["update"].value("type", "") : json.dump();
}

std::string idBody(const std::string &id) { return R"({"requestId":")" + id + R"("})"; }
std::string nextBody(const std::string &id, std::string_view more = "") { return R"({"requestId":")" + id + "\"" + std::string(more) + "}"; }
std::string clickBody(const char *app, int element) {
  return R"({"app":")" + std::string(app) + R"(","action":{"click":{"_0":{"elementIndex":)" + std::to_string(element) +
         R"(,"clickCount":1,"mouseButton":0}}}})";
}
std::string setValueBody(int element, const std::string &value) {
  return R"({"app":"Notes","action":{"setValue":{"_0":{"elementIndex":)" + std::to_string(element) + R"(,"value":")" + value + R"("}}}})";
}

// A memfd holding "{}" with exactly `seals` added.
int memfdWithSeals(int seals) {
  const int fd = memfd_create("tavix-test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0 || ::write(fd, "{}", 2) != 2 || (seals != 0 && fcntl(fd, F_ADD_SEALS, seals) != 0))
    throw std::runtime_error("cannot make the test memfd");
  return fd;
}

class SimulatorServiceTest : public testing::Test {
protected:
  // Stored PNGs make every state with a screenshot megabytes, a reply in a memfd.
  static void SetUpTestSuite() {
    bus = std::make_unique<PrivateSessionBus>();
    simulator = std::make_unique<RuntimeSimulatorProcess>(bus->address(), std::vector<std::string>{"--png-level", "0"});
  }

  // SIGTERM ends the simulator with status 0 and says nothing, after all the suite did to
  // it: a sanitizer's report would show on its standard error.
  static void TearDownTestSuite() {
    EXPECT_EQ(simulator->stop(), 0);
    EXPECT_EQ(simulator->process().errorOutput(), "");
    simulator.reset();
    bus.reset();
  }

  void SetUp() override {
    control.clearEvents();
    ASSERT_TRUE(control.setFaults("[]"));
  }

  // Starts the capture `id` and takes its first update, so that the next one waits.
  static void startCapture(SimulatorControl &client, const std::string &id) {
    ASSERT_FALSE(replyJSON(client.send(startType, idBody(id))).contains("error"));
    ASSERT_EQ(updateType(client.send(nextType, nextBody(id, R"(,"timeoutMs":0)"))), "snapshot");
  }

  static inline std::unique_ptr<PrivateSessionBus> bus;
  static inline std::unique_ptr<RuntimeSimulatorProcess> simulator;
  SimulatorControl control{bus->address(), busName};
};

// ---- a run, the journal and the payload forms ----

// A run with options of its own: the bus name it queues for, unhealthy, a small screen,
// the handler installed a second late (a call before finds no object and never reaches
// it), and a scripted crash, which ends the process in the middle of its call.
TEST_F(SimulatorServiceTest, EachCommandLineOptionShapesTheRunAndTheJournalKeepsTheCalls) {
  RuntimeSimulatorProcess other(bus->address(), {"--bus-name", "org.example.Runtime", "--unhealthy", "--screen-size", "400x320",
                                                 "--late-handler-ms", "1000", "--faults",
                                                 R"([{"requestType":"ComputerUseIPCAppUsageRequest","crash":true}])"});
  SimulatorControl client(bus->address(), "org.example.Runtime");
  EXPECT_TRUE(describe(client.send(healthType, "{}")).starts_with("org.freedesktop.DBus.Error.Unknown"));
  EXPECT_EQ(other.process().readLine(20s), "installed");
  const auto first = decoded<Health>(client.send(healthType, "{}"));
  const auto second = decoded<Health>(client.send(healthType, R"({"refreshClientActivity":true})", "HEALTH-2"));
  const std::string resolved = std::filesystem::canonical(RuntimeSimulatorProcess::defaultExecutable());
  EXPECT_EQ(first.generationID.size(), 36u);
  EXPECT_EQ(first, (Health{first.generationID, other.pid(), "org.example.Runtime", resolved, false, 0, first.heartbeatTimeoutSeconds}));
  EXPECT_EQ(second, (Health{first.generationID, other.pid(), "org.example.Runtime", resolved, false, 1, first.heartbeatTimeoutSeconds}));
  // Another run is another generation, healthy unless told otherwise.
  const auto shared = decoded<Health>(control.send(healthType, "{}"));
  EXPECT_NE(shared.generationID, first.generationID);
  EXPECT_TRUE(shared.isHealthy);
  // The screen size reaches the desktop.
  const auto state = decoded<ToolResult>(client.send(getStateType, R"({"app":"Notes","observation":"state"})"));
  EXPECT_NE(state.content.at(0).text->find("400x320 pixels"), std::string::npos);
  // The journal has the calls the handler saw, as they were sent.
  const auto events = client.events();
  EXPECT_EQ(events.size(), 3u);
  EXPECT_EQ(events.at(1), parseJSON(R"({"requestType":"ComputerUseIPCHealthRequest","requestID":"HEALTH-2",
      "clientVersion":"1.0","payload":"inline","bodyBytes":30,"body":{"refreshClientActivity":true}})").value());
  EXPECT_TRUE(describe(client.send(usageType, "{}")).starts_with("org.freedesktop.DBus.Error.NoReply: "));
  EXPECT_EQ(other.waitForExit(), 70);
}

TEST_F(SimulatorServiceTest, RequestsAndRepliesTravelInlineUpTo64KiBAndInAMemfdAbove) {
  // The reply echoes the value, so its size is the value's plus a constant.
  const size_t fits = 65536 - (control.send(performType, setValueBody(1, std::string(1000, 'a'))).value().bytes.value().size() - 1000);
  const auto atLimit = control.send(performType, setValueBody(1, std::string(fits, 'a')));
  EXPECT_EQ(std::pair(atLimit.value().form, atLimit->bytes.value_or("").size()), std::pair(Form::directObject, size_t{65536}));
  const auto overLimit = control.send(performType, setValueBody(1, std::string(fits + 1, 'a')));
  EXPECT_EQ(std::pair(overLimit.value().form, overLimit->bytes.value_or("").size()), std::pair(Form::responseFile, size_t{65537}))
      << "RspF is not a sealed memfd";
  EXPECT_FALSE(decoded<ToolResult>(overLimit).isError);
  // A four-megabyte paste goes in a memfd both ways, and is journalled without its body.
  ASSERT_TRUE(control.send(performType, clickBody("Notes", 2)));
  const std::string body = R"({"app":"Notes","action":{"paste":{"_0":{"text":")" + std::string(4000000, 'q') + R"(","format":"text"}}}})";
  const auto reply = control.send(performType, body, "PASTE");
  EXPECT_EQ(reply.value().form, Form::responseFile);
  EXPECT_FALSE(decoded<ToolResult>(reply).isError);
  EXPECT_EQ(control.events().back(), (nlohmann::json{{"requestType", performType}, {"requestID", "PASTE"}, {"clientVersion", "1.0"},
                                                     {"payload", "memfd"}, {"bodyBytes", body.size()}}));
  ASSERT_TRUE(control.send(performType, setValueBody(2, ""))); // the next tests' Notes stays small
}

// Each change to a well-formed Send of a health request, and the runtime error it answers
// without a response. A request file must be a memfd sealed against every change.
TEST_F(SimulatorServiceTest, MalformedSendsAreRefusedWithTheirErrorNumbers) {
  const auto inFile = [](int fd) { return [fd](SendArguments &a) { a.requestData.reset(); a.requestFile = fd; }; };
  const auto ofType = [](std::string_view t, std::string body) { return [=](SendArguments &a) { a.requestType = t; a.requestData = body; }; };
  const std::string notSealed = "-1700 ReqF is not a memfd sealed against writing, shrinking and growing of at most 64 MiB";
  const std::pair<std::function<void(SendArguments &)>, std::string> rows[] = {
      {[](SendArguments &a) { a.eventClass = "aevt"; a.eventID = "odoc"; }, "-1708 Event not handled: aevt/odoc"},
      {[](SendArguments &a) { a.eventID = "SndX"; }, "-1708 Event not handled: ZlCu/SndX"},
      {[](SendArguments &a) { a.requestType.reset(); }, "-1701 The request has no RspT parameter"},
      {[](SendArguments &a) { a.requestData.reset(); }, "-1701 The request has neither ReqD nor ReqF"},
      {[](SendArguments &a) { a.requestFile = makeSealedMemfd("tavix-test", "{}"); }, "-1700 A request carries either ReqD or ReqF, not both"},
      {inFile(memfdWithSeals(0)), notSealed},
      {inFile(memfdWithSeals(F_SEAL_SHRINK | F_SEAL_GROW)), notSealed}, // may still be written
      {inFile(memfdWithSeals(F_SEAL_WRITE | F_SEAL_SHRINK)), notSealed}, // may still grow
      {inFile(::open(RuntimeSimulatorProcess::defaultExecutable().c_str(), O_RDONLY | O_CLOEXEC)), notSealed}, // a regular file
      // A next-update the service reads itself, before any look: its refusals are runtime
      // errors too.
      {ofType(nextType, nextBody("ghost", R"(,"timeoutMs":60000)")), "-1728 No capture is running with requestId \"ghost\""},
      {ofType(nextType, "{"), "-50 Invalid ComputerUseIPCAppNextCaptureUpdateRequest: the body is not JSON"},
  };
  for (const auto &[change, refusal] : rows) {
    SendArguments arguments{.requestType = std::string(healthType), .requestData = "{}"};
    change(arguments);
    EXPECT_EQ(describe(control.sendArguments(arguments)), refusal);
    if (arguments.requestFile >= 0)
      ::close(arguments.requestFile);
  }
  // Every one was journalled, even those refused before their type was known.
  EXPECT_EQ(control.events().size(), std::size(rows));
  // A sealed memfd is read as the body.
  SendArguments sealed{.requestType = std::string(listAppsType), .requestFile = makeSealedMemfd("tavix-test", "{}")};
  EXPECT_FALSE(decoded<ToolResult>(control.sendArguments(sealed)).isError);
  ::close(sealed.requestFile);
  EXPECT_EQ(control.events().back()["body"], nlohmann::json::object());
}

// ---- cancellation ----

TEST_F(SimulatorServiceTest, ACancelEndsTheRequestItNamesAtOnceWhileOthersAreServed) {
  ASSERT_TRUE(control.setFaults(R"([{"requestType":"ComputerUseIPCAppGetStateRequest","delayMs":600000},
    {"requestType":"ComputerUseIPCAppUsageRequest","neverAnswer":true}, {"requestType":"ComputerUseIPCListAppsRequest","delayMs":100}])"));
  SimulatorControl slow(bus->address(), busName);
  ASSERT_TRUE(slow.sendWithoutWaiting(getStateType, R"({"app":"Notes"})", "DELAYED", 20s));
  ASSERT_TRUE(slow.sendWithoutWaiting(usageType, "{}", "UNANSWERED", 20s));
  ASSERT_TRUE(slow.sendWithoutWaiting(listAppsType, "{}", "SHORT"));
  ASSERT_TRUE(control.awaitEvents(listAppsType, 1).has_value());
  // The slow requests hold nothing up; a cancel naming none of them ends none, and the
  // cancel of each of the first two ends it well before its time-out, leaving the short
  // delay to finish.
  EXPECT_EQ(control.send(healthType, "{}").value().errn, std::nullopt);
  for (const std::string id : {"OTHER", "DELAYED", "UNANSWERED"})
    EXPECT_EQ(describe(control.send(cancelType, R"({"requestID":")" + id + "\"}")), "{}") << id;
  std::map<std::string, std::string> ends;
  for (const auto &[callID, reply] : slow.awaitReplies())
    ends[callID] = reply && !reply->errn ? "served" : describe(reply);
  EXPECT_EQ(ends, (std::map<std::string, std::string>{
                      {"DELAYED", "-128 Request cancelled"}, {"UNANSWERED", "-128 Request cancelled"}, {"SHORT", "served"}}));
}

// ---- faults ----

// The control interface: a fault script's replies and errors, and a wait for journal
// entries that times out saying how many arrived.
TEST_F(SimulatorServiceTest, ScriptedRepliesBusErrorsAndAwaitedEvents) {
  ASSERT_TRUE(control.setFaults(R"([
    {"requestType":"ComputerUseIPCHealthRequest","dbusError":"org.freedesktop.DBus.Error.AccessDenied","errs":"no"},
    {"requestType":"ComputerUseIPCListAppsRequest","noDirectObject":true},
    {"requestType":"ComputerUseIPCAppUsageRequest","errn":-1743,"times":1}])"));
  EXPECT_EQ(describe(control.send(healthType, "{}")), "org.freedesktop.DBus.Error.AccessDenied: no");
  EXPECT_EQ(describe(control.send(listAppsType, "{}")), "none");
  EXPECT_EQ(describe(control.send(usageType, "{}")), "-1743 Simulated error -1743");
  // A rule used up, and requests no rule names, are served.
  EXPECT_EQ(describe(control.send(usageType, "{}")), "{}");
  EXPECT_EQ(describe(control.send(ComputerUseIPCAppStartRequest::requestType, R"({"app":"Notes"})")), "{}");
  // An invalid script is refused and the old one stays.
  const auto invalid = control.setFaults(R"([{"times":0}])");
  ASSERT_FALSE(invalid.has_value());
  EXPECT_EQ(invalid.error().name + ": " + invalid.error().message,
            "org.freedesktop.DBus.Error.InvalidArgs: Fault rule 1: \"times\" must be an integer from 1 to 1000000");
  EXPECT_EQ(describe(control.send(listAppsType, "{}")), "none");
  const auto two = control.awaitEvents(healthType, 2, 1ms);
  ASSERT_FALSE(two.has_value());
  EXPECT_EQ(two.error().name + ": " + two.error().message,
            "com.tavix.computeruse.Simulator1.Error.TimedOut: 1 of 2 ComputerUseIPCHealthRequest events arrived in time");
}

// ---- the reply cache ----

TEST_F(SimulatorServiceTest, ARepeatedStateAnswersTheSameUntilTheDesktopChanges) {
  const auto ask = [&] { return control.send(getStateType, R"({"app":"Notes"})").value().bytes; };
  // Asked again, the same reply (in a memfd), twice so that a kept one is read a second
  // time whole; a press of Save between, another.
  EXPECT_EQ(control.send(getStateType, R"({"app":"Notes"})").value().form, Form::responseFile);
  const auto first = ask();
  EXPECT_EQ(std::vector({ask(), ask()}), std::vector(2, first));
  ASSERT_FALSE(decoded<ToolResult>(control.send(performType, clickBody("Notes", 3))).isError);
  const auto changed = ask();
  EXPECT_NE(changed, first);
  EXPECT_EQ(std::vector({ask(), ask()}), std::vector(2, changed));
  // A stored PNG of the default screen: three bytes a pixel, four thirds of that in base64.
  const auto screenshot = decoded<ToolResult>(control.send(getStateType, R"({"app":"Files","observation":"screenshot"})")).content.at(0).data.value();
  EXPECT_GT(screenshot.size(), 1024u * 768 * 3 * 4 / 3);
  const DecodedPng png = decodePng(decodeBase64(screenshot));
  EXPECT_EQ(std::tuple(png.problem, png.width, png.height), std::tuple("", 1024u, 768u));
}

// ---- the name ----

TEST_F(SimulatorServiceTest, InstancesQueueForTheNameAndSIGINTEndsOne) {
  RuntimeSimulatorProcess second(bus->address());
  EXPECT_EQ(control.queuedOwners(busName).value(), (std::vector{simulator->uniqueName(), second.uniqueName()}));
  // Calls to the name reach the owner; the queued one can be addressed by its unique name.
  EXPECT_EQ(decoded<Health>(control.send(healthType, "{}")).runtimePID, simulator->pid());
  SimulatorControl direct(bus->address(), second.uniqueName());
  EXPECT_EQ(decoded<Health>(direct.send(healthType, "{}")).runtimePID, second.pid());
  second.process().signal(SIGINT);
  EXPECT_EQ(second.waitForExit(), 0);
}

// ---- how the process ends ----

// Several clients at once, delays, a request never answered and two parked next-updates,
// then SIGTERM: the process ends with status 0 and says nothing, and the callers left
// waiting see it leave the bus.
TEST_F(SimulatorServiceTest, ABusySessionEndsCleanly) {
  RuntimeSimulatorProcess busy(bus->address(), {"--bus-name", "org.example.Busy", "--faults", R"([
    {"requestType":"ComputerUseIPCListAppsRequest","delayMs":20},
    {"requestType":"ComputerUseIPCAppUsageRequest","neverAnswer":true}])"});
  std::atomic<int> failures{0};
  std::vector<std::thread> clients;
  for (int client = 0; client < 4; ++client)
    clients.emplace_back([&, client] {
      SimulatorControl connection(bus->address(), "org.example.Busy");
      for (int round = 0; round < 5; ++round)
        for (const auto &[type, body] : {std::pair{getStateType, std::string(R"({"app":"Notes"})")},
                                         std::pair{performType, clickBody("Notes", client + 1)},
                                         std::pair{listAppsType, std::string("{}")}})
          if (const auto reply = connection.send(type, body); !reply || reply->errn)
            ++failures;
    });
  SimulatorControl left(bus->address(), "org.example.Busy");
  const bool sent = left.sendWithoutWaiting(usageType, "{}", "LEFT-1").has_value();
  for (auto &client : clients)
    client.join();
  ASSERT_TRUE(sent);
  // Parked once the clicks are over, which would each have answered them.
  startCapture(left, "left");
  for (const char *callID : {"LEFT-2", "LEFT-3"})
    ASSERT_TRUE(left.sendWithoutWaiting(nextType, nextBody("left", R"(,"timeoutMs":60000)"), callID));
  ASSERT_TRUE(left.awaitEvents(usageType, 1).has_value());
  ASSERT_TRUE(left.awaitEvents(waiting, 2).has_value());
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(busy.stop(), 0);
  EXPECT_EQ(busy.process().errorOutput(), "");
  const auto replies = left.awaitReplies();
  ASSERT_EQ(replies.size(), 3u);
  for (const auto &reply : replies)
    EXPECT_FALSE(reply.reply.has_value()) << reply.requestID;
}

// A lost bus ends the process with status 1; bad options print the usage and exit with
// status 2, with nothing on standard output.
TEST_F(SimulatorServiceTest, AProcessThatCannotServeExitsSayingWhy) {
  auto lost = std::make_unique<PrivateSessionBus>();
  RuntimeSimulatorProcess orphan(lost->address());
  lost.reset();
  EXPECT_EQ(orphan.waitForExit(), 1);
  EXPECT_NE(orphan.process().errorOutput().find("the bus connection was lost"), std::string::npos);
  for (const char *option : {"--png-level=10", "--faults=[{\"crash\":1}]"}) {
    ChildProcess process({RuntimeSimulatorProcess::defaultExecutable(), option}, {{"DBUS_SESSION_BUS_ADDRESS", bus->address()}});
    EXPECT_EQ(process.wait(), 2) << option;
    EXPECT_NE(process.errorOutput().find("Usage: TavixComputerUseRuntimeSimulator"), std::string::npos) << option;
    EXPECT_EQ(process.readRemainingOutput(), "") << option;
  }
}

// ---- appshot captures ----

// As many parked next-updates as the simulator has workers, from as many clients: each is
// journalled with its clamped wait once parked, other requests are served meanwhile, and
// one change answers them all. Parked again, they end by a cancel of their capture (whose
// own reply leaves first), of the call, or by their deadline.
TEST_F(SimulatorServiceTest, EightParkedNextUpdatesHoldBackNothingAndEachEnds) {
  constexpr size_t clients = 8;
  std::vector<std::unique_ptr<SimulatorControl>> waiters;
  const auto park = [&](size_t client, const std::string &timeout, const std::string &callID) {
    ASSERT_TRUE(waiters[client]->sendWithoutWaiting(nextType, nextBody("many-" + std::to_string(client), timeout), callID));
  };
  for (size_t client = 0; client < clients; ++client) {
    waiters.push_back(std::make_unique<SimulatorControl>(bus->address(), busName));
    startCapture(*waiters.back(), "many-" + std::to_string(client));
  }
  // Absent, the wait is 30 s; more than 60 s is clamped to 60 s; none answers at once.
  EXPECT_EQ(updateType(waiters[0]->send(nextType, nextBody("many-0", R"(,"timeoutMs":-1)"))), "timeout");
  for (size_t client = 0; client < clients; ++client)
    park(client, client == 0 ? "" : R"(,"timeoutMs":60001)", "MANY-1-" + std::to_string(client));
  std::set<std::string> parked;
  const auto events = control.awaitEvents(waiting, clients).value();
  for (const auto &event : events)
    parked.insert(event.value("requestID", "") + " " + event.value("captureRequestId", "") + " " + event["timeoutMs"].dump());
  EXPECT_EQ(parked, (std::set<std::string>{"MANY-1-0 many-0 30000", "MANY-1-1 many-1 60000", "MANY-1-2 many-2 60000", "MANY-1-3 many-3 60000",
                                           "MANY-1-4 many-4 60000", "MANY-1-5 many-5 60000", "MANY-1-6 many-6 60000", "MANY-1-7 many-7 60000"}));
  // Were the waits holding workers, these would queue behind them for a minute.
  EXPECT_EQ(control.send(healthType, "{}", "HEALTH", 10s).value().errn, std::nullopt);
  EXPECT_FALSE(replyJSON(control.send(startType, idBody("ninth"), "NINTH", 10s)).contains("error"));
  ASSERT_TRUE(control.send(performType, clickBody("Notes", 1), "CHANGE", 10s));
  for (auto &waiter : waiters) {
    const auto replies = waiter->awaitReplies();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(updateType(replies[0].reply), "frame");
    EXPECT_TRUE(replyJSON(replies[0].reply)["update"].contains("screenshotDataURL"));
  }
  // The last waits 1 ms, and may time out before it is parked: it is not awaited.
  for (size_t client = 0; client < clients; ++client)
    park(client, client + 1 < clients ? R"(,"timeoutMs":60000)" : R"(,"timeoutMs":1)", "MANY-2-" + std::to_string(client));
  ASSERT_TRUE(control.awaitEvents(waiting, 2 * clients - 1).has_value());
  for (size_t client = 0; client < 5; ++client)
    EXPECT_EQ(control.send(cancelCaptureType, idBody("many-" + std::to_string(client)), "", 10s).value().bytes, "{}");
  EXPECT_EQ(control.send(cancelType, R"({"requestID":"MANY-2-5"})", "", 10s).value().bytes, "{}");
  ASSERT_TRUE(waiters[6]->sendWithoutWaiting(cancelCaptureType, idBody("many-6"), "CANCEL-6"));
  std::vector<std::string> ends;
  for (auto &waiter : waiters)
    for (const auto &[callID, reply] : waiter->awaitReplies())
      ends.push_back(callID + " " + (!reply || reply->errn ? describe(reply) : updateType(reply)));
  EXPECT_EQ(ends, (std::vector<std::string>{"MANY-2-0 cancelled", "MANY-2-1 cancelled", "MANY-2-2 cancelled",
                                            "MANY-2-3 cancelled", "MANY-2-4 cancelled", "MANY-2-5 -128 Request cancelled",
                                            "CANCEL-6 {}", "MANY-2-6 cancelled", "MANY-2-7 timeout"}));
  for (const char *id : {"many-5", "many-7", "ninth"})
    ASSERT_TRUE(control.send(cancelCaptureType, idBody(id)));
}

} // namespace
} // namespace tavix::test
