// The simulator executable on a private session bus, driven as the bridge drives a
// runtime: every request type, both forms of payload at their size boundary, malformed
// calls, concurrency and cancellation, each scripted fault, queueing for the name, the
// window before the handler exists, and how the process ends. Tests wait on the
// simulator's ready line and its journal, never on the clock.

#include "contracts/AppshotContracts.h"
#include "contracts/ComputerUseRequests.h"
#include "contracts/EventStreamContracts.h"
#include "platform/linux/SealedMemfd.h"
#include "runtime/DecodedPng.h"
#include "support/JSON.h"
#include "testing/ChildProcess.h"
#include "testing/PrivateSessionBus.h"
#include "testing/RuntimeSimulatorProcess.h"
#include "testing/SimulatorControl.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;

constexpr const char *busName = "com.tavix.computeruse";

template <typename Request> std::function<bool(const std::string &)> decodesAs() {
  return [](const std::string &bytes) {
    const auto json = parseJSON(bytes);
    return json && Request::Response::fromJSON(*json).has_value();
  };
}

template <typename Record> Record decoded(const RuntimeReply &reply) {
  const auto json = parseJSON(reply.bytes.value_or(""));
  if (!json)
    throw std::runtime_error("the reply is not JSON");
  auto record = Record::fromJSON(*json);
  if (!record)
    throw std::runtime_error(record.error().description);
  return std::move(*record);
}

template <typename Record> Record decoded(const tl::expected<RuntimeReply, BusError> &reply) {
  if (!reply)
    throw std::runtime_error(reply.error().name + ": " + reply.error().message);
  return decoded<Record>(*reply);
}

std::string setTitle(size_t length) {
  return R"({"app":"Notes","action":{"setValue":{"_0":{"elementIndex":1,"value":")" + std::string(length, 'a') +
         R"("}}}})";
}

// A memfd holding `bytes` with exactly `seals` added.
int memfdWithSeals(std::string_view bytes, int seals) {
  const int fd = memfd_create("tavix-test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
      (seals != 0 && fcntl(fd, F_ADD_SEALS, seals) != 0))
    throw std::runtime_error("cannot make the test memfd");
  return fd;
}

class SimulatorServiceTest : public testing::Test {
protected:
  PrivateSessionBus bus;
};

// ---- every request ----

TEST_F(SimulatorServiceTest, EveryRequestTypeIsAnsweredWithItsResponse) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl client(bus.address(), busName);
  struct Row {
    std::string_view type;
    std::string body;
    std::function<bool(const std::string &)> decodes;
  };
  const Row rows[] = {
      {ComputerUseIPCHealthRequest::requestType, R"({"refreshClientActivity":true})",
       decodesAs<ComputerUseIPCHealthRequest>()},
      {ComputerUseIPCListAppsRequest::requestType, "{}", decodesAs<ComputerUseIPCListAppsRequest>()},
      {ComputerUseIPCAppGetStateRequest::requestType, R"({"app":"Files"})", decodesAs<ComputerUseIPCAppGetStateRequest>()},
      {ComputerUseIPCAppPerformActionRequest::requestType,
       R"({"app":"Notes","action":{"click":{"_0":{"elementIndex":1,"clickCount":1,"mouseButton":0}}}})",
       decodesAs<ComputerUseIPCAppPerformActionRequest>()},
      {ComputerUseIPCAppExecuteActionRequest::requestType, R"({"app":"Notes","action":{"typeText":{"_0":{"text":"hi"}}}})",
       decodesAs<ComputerUseIPCAppExecuteActionRequest>()},
      {ComputerUseIPCAppStartRequest::requestType, R"({"app":"Notes"})", decodesAs<ComputerUseIPCAppStartRequest>()},
      {ComputerUseIPCAppModifyRequest::requestType, R"({"app":"Notes","modification":"hide"})",
       decodesAs<ComputerUseIPCAppModifyRequest>()},
      {ComputerUseIPCAppUsageRequest::requestType, "{}", decodesAs<ComputerUseIPCAppUsageRequest>()},
      {ComputerUseIPCHostSessionObserveRequest::requestType, R"({"context":{"sessionId":"s","turnId":"t"}})",
       decodesAs<ComputerUseIPCHostSessionObserveRequest>()},
      {ComputerUseIPCEventStreamStartRequest::requestType, R"({"sessionId":"s","screenshotMode":"off"})",
       decodesAs<ComputerUseIPCEventStreamStartRequest>()},
      {ComputerUseIPCEventStreamStatusRequest::requestType, "{}", decodesAs<ComputerUseIPCEventStreamStatusRequest>()},
      {ComputerUseIPCEventStreamStopRequest::requestType, R"({"reason":"toolStopped"})",
       decodesAs<ComputerUseIPCEventStreamStopRequest>()},
      {ComputerUseIPCCancelRequest::requestType, R"({"requestID":"NOTHING-PENDING"})",
       [](const std::string &bytes) { return bytes == "{}"; }},
      {ComputerUseIPCAppStartFrontmostCaptureRequest::requestType, R"({"requestId":"CAPTURE-1"})",
       decodesAs<ComputerUseIPCAppStartFrontmostCaptureRequest>()},
      {ComputerUseIPCAppNextCaptureUpdateRequest::requestType, R"({"requestId":"CAPTURE-1","timeoutMs":0})",
       decodesAs<ComputerUseIPCAppNextCaptureUpdateRequest>()},
      {ComputerUseIPCAppCancelCaptureRequest::requestType, R"({"requestId":"CAPTURE-1"})",
       [](const std::string &bytes) { return bytes == "{}"; }},
  };
  int sent = 0;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.type);
    const std::string id = "REQUEST-" + std::to_string(++sent);
    const auto reply = client.send(row.type, row.body, id);
    ASSERT_TRUE(reply.has_value()) << reply.error().name << ": " << reply.error().message;
    EXPECT_EQ(reply->errn, std::nullopt) << reply->errs.value_or("");
    EXPECT_EQ(reply->form, RuntimeReply::Form::directObject);
    ASSERT_TRUE(reply->bytes.has_value());
    EXPECT_TRUE(row.decodes(*reply->bytes)) << reply->bytes->substr(0, 300);
    // The journal saw the call as it was sent.
    const auto events = client.awaitEvents(row.type, 1);
    ASSERT_TRUE(events.has_value());
    const auto &entry = events->back();
    EXPECT_EQ(entry["requestID"], id);
    EXPECT_EQ(entry["clientVersion"], "1.0");
    EXPECT_EQ(entry["payload"], "inline");
    EXPECT_EQ(entry["bodyBytes"], row.body.size());
    EXPECT_EQ(entry["body"], parseJSON(row.body).value());
  }
  EXPECT_EQ(client.events().size(), std::size(rows));
  // The two actions reached the same field, one after the other.
  const auto state = client.send(ComputerUseIPCAppGetStateRequest::requestType,
                                 R"({"app":"Notes","observation":"state"})");
  EXPECT_NE(decoded<ComputerUseIPCToolResultResponse>(state).content.at(0).text->find(
                "1 text field \"Title\" value: \"hi\" (focused"),
            std::string::npos);
}

TEST_F(SimulatorServiceTest, HealthDescribesTheRunningSimulator) {
  RuntimeSimulatorProcess simulator(bus.address(), {"--bus-name", "org.example.Runtime", "--unhealthy"});
  SimulatorControl client(bus.address(), "org.example.Runtime");
  const auto first = decoded<ComputerUseIPCHealthResponse>(client.send(ComputerUseIPCHealthRequest::requestType, "{}"));
  const auto second = decoded<ComputerUseIPCHealthResponse>(
      *client.send(ComputerUseIPCHealthRequest::requestType, R"({"refreshClientActivity":true})"));
  EXPECT_EQ(first.runtimePID, simulator.pid());
  EXPECT_EQ(first.bundleIdentifier, "org.example.Runtime");
  char resolved[PATH_MAX];
  ASSERT_NE(::realpath(RuntimeSimulatorProcess::defaultExecutable().c_str(), resolved), nullptr);
  EXPECT_EQ(first.bundlePath, resolved);
  EXPECT_FALSE(first.isHealthy);
  EXPECT_EQ(first.generationID.size(), 36u);
  EXPECT_EQ(second.generationID, first.generationID);
  EXPECT_EQ(first.activeClientCount, 0);
  EXPECT_EQ(second.activeClientCount, 1);
  // Another run is another generation.
  RuntimeSimulatorProcess other(bus.address(), {"--bus-name", "org.example.Other"});
  SimulatorControl otherClient(bus.address(), "org.example.Other");
  const auto third = decoded<ComputerUseIPCHealthResponse>(otherClient.send(ComputerUseIPCHealthRequest::requestType, "{}"));
  EXPECT_NE(third.generationID, first.generationID);
  EXPECT_TRUE(third.isHealthy);
}

// ---- payload forms ----

TEST_F(SimulatorServiceTest, RepliesTravelInlineUpTo64KiBAndInAMemfdAbove) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl client(bus.address(), busName);
  const auto perform = ComputerUseIPCAppPerformActionRequest::requestType;
  // The reply echoes the value, so its size is the value's plus a constant.
  const auto probe = client.send(perform, setTitle(1000));
  ASSERT_TRUE(probe && probe->bytes);
  const size_t constant = probe->bytes->size() - 1000;
  const size_t fits = 65536 - constant;
  const auto atLimit = client.send(perform, setTitle(fits));
  ASSERT_TRUE(atLimit.has_value());
  EXPECT_EQ(atLimit->form, RuntimeReply::Form::directObject);
  EXPECT_EQ(atLimit->bytes.value_or("").size(), 65536u);
  const auto overLimit = client.send(perform, setTitle(fits + 1));
  ASSERT_TRUE(overLimit.has_value());
  EXPECT_EQ(overLimit->form, RuntimeReply::Form::responseFile);
  ASSERT_TRUE(overLimit->bytes.has_value()) << "RspF is not a sealed memfd";
  EXPECT_EQ(overLimit->bytes->size(), 65537u);
  EXPECT_FALSE(decoded<ComputerUseIPCToolResultResponse>(*overLimit).isError);
}

TEST_F(SimulatorServiceTest, AFourMegabytePasteTravelsInMemfdsBothWays) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl client(bus.address(), busName);
  const auto perform = ComputerUseIPCAppPerformActionRequest::requestType;
  ASSERT_TRUE(client.send(perform, R"({"app":"Notes","action":{"click":{"_0":{"elementIndex":2,"clickCount":1,"mouseButton":0}}}})"));
  const std::string text(PasteParams::maxTextBytes, 'q');
  const std::string body = R"({"app":"Notes","action":{"paste":{"_0":{"text":")" + text + R"(","format":"text"}}}})";
  const auto reply = client.send(perform, body, "PASTE-1");
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->errn, std::nullopt) << reply->errs.value_or("");
  EXPECT_EQ(reply->form, RuntimeReply::Form::responseFile);
  const auto result = decoded<ComputerUseIPCToolResultResponse>(*reply);
  EXPECT_FALSE(result.isError);
  EXPECT_NE(result.content.at(1).text->find("value: \"" + std::string(128 * 1024, 'q') + "\" (cut; 4000000 bytes in all)"),
            std::string::npos);
  const auto events = client.awaitEvents(perform, 2);
  ASSERT_TRUE(events.has_value());
  EXPECT_EQ(events->back()["payload"], "memfd");
  EXPECT_EQ(events->back()["bodyBytes"], body.size());
  EXPECT_FALSE(events->back().contains("body"));
}

TEST_F(SimulatorServiceTest, ASmallRequestInASealedMemfdIsAccepted) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl client(bus.address(), busName);
  const int fd = makeSealedMemfd("tavix-test", "{}");
  SendArguments arguments;
  arguments.requestType = std::string(ComputerUseIPCListAppsRequest::requestType);
  arguments.requestFile = fd;
  const auto reply = client.sendArguments(arguments);
  ::close(fd);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->errn, std::nullopt);
  EXPECT_FALSE(decoded<ComputerUseIPCToolResultResponse>(*reply).isError);
  EXPECT_EQ(client.events().back()["body"], nlohmann::json::object());
}

TEST_F(SimulatorServiceTest, RequestFilesThatAreNotSealedMemfdsAreRefused) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl client(bus.address(), busName);
  TemporaryDirectory directory;
  writeFile(directory / "request.json", "{}");
  const std::pair<const char *, std::function<int()>> rows[] = {
      {"an unsealed memfd", [] { return memfdWithSeals("{}", 0); }},
      {"a memfd that may still be written", [] { return memfdWithSeals("{}", F_SEAL_SHRINK | F_SEAL_GROW); }},
      {"a memfd that may still grow", [] { return memfdWithSeals("{}", F_SEAL_WRITE | F_SEAL_SHRINK); }},
      {"a regular file", [&] { return ::open((directory / "request.json").c_str(), O_RDONLY | O_CLOEXEC); }},
  };
  for (const auto &[name, openFile] : rows) {
    SCOPED_TRACE(name);
    const int fd = openFile();
    ASSERT_GE(fd, 0);
    SendArguments arguments;
    arguments.requestType = std::string(ComputerUseIPCListAppsRequest::requestType);
    arguments.requestFile = fd;
    const auto reply = client.sendArguments(arguments);
    ::close(fd);
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply->errn, -1700);
    EXPECT_EQ(reply->errs, "ReqF is not a memfd sealed against writing, shrinking and growing of at most 64 MiB");
    EXPECT_EQ(reply->bytes, std::nullopt);
  }
}

TEST_F(SimulatorServiceTest, MalformedSendsAreRefusedWithTheirErrorNumbers) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl client(bus.address(), busName);
  const int sealed = makeSealedMemfd("tavix-test", "{}");
  struct Row {
    const char *name;
    SendArguments arguments;
    int32_t errn;
    std::string errs;
  };
  const auto withType = [](std::optional<std::string> data) {
    SendArguments arguments;
    arguments.requestType = "ComputerUseIPCHealthRequest";
    arguments.requestData = std::move(data);
    return arguments;
  };
  SendArguments otherEvent = withType("{}");
  otherEvent.eventClass = "aevt";
  otherEvent.eventID = "odoc";
  SendArguments otherID = withType("{}");
  otherID.eventID = "SndX";
  SendArguments noType;
  noType.requestData = "{}";
  SendArguments both = withType("{}");
  both.requestFile = sealed;
  SendArguments unknown = withType("{}");
  unknown.requestType = "ComputerUseIPCTeleportRequest";
  const Row rows[] = {
      {"another event", otherEvent, -1708, "Event not handled: aevt/odoc"},
      {"another event id", otherID, -1708, "Event not handled: ZlCu/SndX"},
      {"no request type", noType, -1701, "The request has no RspT parameter"},
      {"no body", withType(std::nullopt), -1701, "The request has neither ReqD nor ReqF"},
      {"both forms of body", both, -1700, "A request carries either ReqD or ReqF, not both"},
      {"an unknown request type", unknown, 1, "Unknown request type: ComputerUseIPCTeleportRequest"},
      {"a body that is not JSON", withType("{"), -50, "Invalid ComputerUseIPCHealthRequest: the body is not JSON"},
      {"a body that is not the record", withType(R"({"refreshClientActivity":"yes"})"), -50,
       "Invalid ComputerUseIPCHealthRequest: Expected a boolean for \"refreshClientActivity\""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    const auto reply = client.sendArguments(row.arguments);
    ASSERT_TRUE(reply.has_value()) << reply.error().name;
    EXPECT_EQ(reply->errn, row.errn);
    EXPECT_EQ(reply->errs, row.errs);
    EXPECT_EQ(reply->form, RuntimeReply::Form::none);
  }
  ::close(sealed);
  // Every one was journalled, even those refused before their type was known.
  EXPECT_EQ(client.events().size(), std::size(rows));
}

// ---- concurrency and cancellation ----

TEST_F(SimulatorServiceTest, ACancelEndsAWaitingRequestAtOnceWhileOthersAreServed) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl control(bus.address(), busName);
  const std::pair<const char *, std::string> rows[] = {
      {"a long delay", R"([{"requestType":"ComputerUseIPCAppGetStateRequest","delayMs":600000}])"},
      {"no answer at all", R"([{"requestType":"ComputerUseIPCAppGetStateRequest","neverAnswer":true}])"},
  };
  for (const auto &[name, faults] : rows) {
    SCOPED_TRACE(name);
    control.clearEvents();
    ASSERT_TRUE(control.setFaults(faults));
    tl::expected<RuntimeReply, BusError> waiting = tl::unexpected(BusError{});
    const auto start = std::chrono::steady_clock::now();
    std::thread caller([&] {
      SimulatorControl slow(bus.address(), busName);
      waiting = slow.send(ComputerUseIPCAppGetStateRequest::requestType, R"({"app":"Notes"})", "SLOW-1", 120s);
    });
    ASSERT_TRUE(control.awaitEvents(ComputerUseIPCAppGetStateRequest::requestType, 1).has_value());
    // The slow request holds nothing up.
    const auto health = control.send(ComputerUseIPCHealthRequest::requestType, "{}");
    EXPECT_TRUE(health && health->errn == std::nullopt);
    const auto cancel = control.send(ComputerUseIPCCancelRequest::requestType, R"({"requestID":"SLOW-1"})");
    caller.join();
    ASSERT_TRUE(cancel.has_value());
    EXPECT_EQ(cancel->bytes, "{}");
    ASSERT_TRUE(waiting.has_value()) << waiting.error().name;
    EXPECT_EQ(waiting->errn, -128);
    EXPECT_EQ(waiting->errs, "Request cancelled");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);
  }
}

TEST_F(SimulatorServiceTest, ACancelForAnotherRequestLeavesTheDelayedOneToFinish) {
  RuntimeSimulatorProcess simulator(bus.address(), {"--faults", R"([{"requestType":"ComputerUseIPCListAppsRequest","delayMs":300}])"});
  SimulatorControl control(bus.address(), busName);
  tl::expected<RuntimeReply, BusError> delayed = tl::unexpected(BusError{});
  std::thread caller([&] {
    SimulatorControl slow(bus.address(), busName);
    delayed = slow.send(ComputerUseIPCListAppsRequest::requestType, "{}", "SLOW-2");
  });
  ASSERT_TRUE(control.awaitEvents(ComputerUseIPCListAppsRequest::requestType, 1).has_value());
  const auto cancel = control.send(ComputerUseIPCCancelRequest::requestType, R"({"requestID":"SLOW-3"})");
  caller.join();
  EXPECT_EQ(cancel.value().bytes, "{}");
  ASSERT_TRUE(delayed.has_value());
  EXPECT_EQ(delayed->errn, std::nullopt);
  EXPECT_FALSE(decoded<ComputerUseIPCToolResultResponse>(*delayed).isError);
}

// ---- faults ----

TEST_F(SimulatorServiceTest, NotReadyForTheFirstCallsThenReady) {
  // From the command line and over the control interface, at two counts.
  const std::pair<int, bool> rows[] = {{3, true}, {1, false}};
  for (const auto &[times, onCommandLine] : rows) {
    SCOPED_TRACE(times);
    const std::string rules = R"([{"errn":-1708,"times":)" + std::to_string(times) + "}]";
    RuntimeSimulatorProcess simulator(bus.address(), onCommandLine ? std::vector<std::string>{"--faults", rules}
                                                                   : std::vector<std::string>{});
    SimulatorControl client(bus.address(), simulator.uniqueName());
    if (!onCommandLine)
      ASSERT_TRUE(client.setFaults(rules));
    for (int call = 1; call <= times + 1; ++call) {
      const auto reply = client.send(ComputerUseIPCHealthRequest::requestType, "{}");
      ASSERT_TRUE(reply.has_value());
      if (call <= times) {
        EXPECT_EQ(reply->errn, -1708) << "call " << call;
        EXPECT_EQ(reply->errs, "Simulated error -1708");
      } else {
        EXPECT_EQ(reply->errn, std::nullopt) << "call " << call;
        EXPECT_EQ(reply->form, RuntimeReply::Form::directObject);
      }
    }
  }
}

TEST_F(SimulatorServiceTest, ScriptedRepliesAndBusErrors) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl client(bus.address(), busName);
  ASSERT_TRUE(client.setFaults(R"([
    {"requestType":"ComputerUseIPCHealthRequest","dbusError":"org.freedesktop.DBus.Error.AccessDenied","errs":"no"},
    {"requestType":"ComputerUseIPCListAppsRequest","noDirectObject":true},
    {"requestType":"ComputerUseIPCAppUsageRequest","errn":-1743,"errs":"Not permitted"}])"));
  const auto denied = client.send(ComputerUseIPCHealthRequest::requestType, "{}");
  ASSERT_FALSE(denied.has_value());
  EXPECT_EQ(denied.error().name, "org.freedesktop.DBus.Error.AccessDenied");
  EXPECT_EQ(denied.error().message, "no");
  const auto empty = client.send(ComputerUseIPCListAppsRequest::requestType, "{}");
  ASSERT_TRUE(empty.has_value());
  EXPECT_EQ(empty->errn, std::nullopt);
  EXPECT_EQ(empty->form, RuntimeReply::Form::none);
  EXPECT_EQ(empty->bytes, std::nullopt);
  const auto refused = client.send(ComputerUseIPCAppUsageRequest::requestType, "{}");
  ASSERT_TRUE(refused.has_value());
  EXPECT_EQ(refused->errn, -1743);
  EXPECT_EQ(refused->errs, "Not permitted");
  // Requests no rule names are served.
  EXPECT_EQ(client.send(ComputerUseIPCAppStartRequest::requestType, R"({"app":"Notes"})")->bytes, "{}");
}

TEST_F(SimulatorServiceTest, InvalidFaultsAreRefusedAndTheOldScriptStays) {
  RuntimeSimulatorProcess simulator(bus.address(), {"--faults", R"([{"errn":-1708}])"});
  SimulatorControl client(bus.address(), busName);
  const auto refused = client.setFaults(R"([{"times":0}])");
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(refused.error().name, "org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(refused.error().message, "Fault rule 1: \"times\" must be an integer from 1 to 1000000");
  EXPECT_EQ(client.send(ComputerUseIPCHealthRequest::requestType, "{}")->errn, -1708);
  ASSERT_TRUE(client.setFaults("[]"));
  EXPECT_EQ(client.send(ComputerUseIPCHealthRequest::requestType, "{}")->errn, std::nullopt);
}

TEST_F(SimulatorServiceTest, ACrashEndsTheProcessInTheMiddleOfTheCall) {
  RuntimeSimulatorProcess simulator(bus.address(), {"--faults", R"([{"requestType":"ComputerUseIPCHealthRequest","crash":true}])"});
  SimulatorControl client(bus.address(), busName);
  EXPECT_EQ(client.send(ComputerUseIPCListAppsRequest::requestType, "{}")->errn, std::nullopt);
  const auto reply = client.send(ComputerUseIPCHealthRequest::requestType, "{}");
  ASSERT_FALSE(reply.has_value());
  EXPECT_EQ(reply.error().name, "org.freedesktop.DBus.Error.NoReply");
  EXPECT_EQ(simulator.waitForExit(), 70);
}

TEST_F(SimulatorServiceTest, RepliesOver48MiBAreRefused) {
  // A 4096 by 4096 screenshot stored uncompressed is 48 MiB of PNG before base64.
  RuntimeSimulatorProcess simulator(bus.address(), {"--screen-size", "4096x4096", "--png-level", "0"});
  SimulatorControl client(bus.address(), busName);
  const auto reply = client.send(ComputerUseIPCAppGetStateRequest::requestType, R"({"app":"Notes","observation":"screenshot"})");
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->errn, -1700);
  EXPECT_TRUE(reply->errs.value_or("").ends_with("bytes is over the limit of 50331648 bytes")) << reply->errs.value_or("");
  EXPECT_EQ(reply->bytes, std::nullopt);
}

TEST_F(SimulatorServiceTest, AnUncompressedScreenshotIsAsLargeAsTheScreen) {
  RuntimeSimulatorProcess simulator(bus.address(), {"--screen-size", "1320x1320", "--png-level", "0"});
  SimulatorControl client(bus.address(), busName);
  const auto reply = client.send(ComputerUseIPCAppGetStateRequest::requestType, R"({"app":"Calculator"})");
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->form, RuntimeReply::Form::responseFile);
  const auto result = decoded<ComputerUseIPCToolResultResponse>(*reply);
  ASSERT_EQ(result.content.size(), 2u);
  const std::string &data = *result.content[1].data;
  // About five megabytes of PNG, three bytes a pixel, four thirds of that in base64.
  EXPECT_GT(data.size(), 1320u * 1320 * 3 * 4 / 3);
  EXPECT_LT(data.size(), 1320u * 1320 * 3 * 4 / 3 + 1320 * 4 + 4096);
}

TEST_F(SimulatorServiceTest, ARepeatedStateAnswersTheSameUntilTheDesktopChanges) {
  RuntimeSimulatorProcess simulator(bus.address(), {"--png-level", "0"});
  SimulatorControl client(bus.address(), busName);
  const auto getState = ComputerUseIPCAppGetStateRequest::requestType;
  const auto perform = ComputerUseIPCAppPerformActionRequest::requestType;
  const std::string notes = R"({"app":"Notes"})";
  const std::string clickText =
      R"({"app":"Notes","action":{"click":{"_0":{"elementIndex":2,"clickCount":1,"mouseButton":0}}}})";
  struct Row {
    const char *name;
    std::optional<std::string> action; // sent between the two state requests
    std::string next;
    bool sameBytes;
  };
  const Row rows[] = {
      {"nothing between", std::nullopt, notes, true},
      {"a click", clickText, notes, false},
      {"another observation", std::nullopt, R"({"app":"Notes","observation":"state"})", false},
      {"another app", std::nullopt, R"({"app":"Files"})", false},
      {"nothing between, again", std::nullopt, notes, true},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    const auto before = client.send(getState, notes);
    ASSERT_TRUE(before && before->bytes) << "no sealed memfd";
    EXPECT_EQ(before->form, RuntimeReply::Form::responseFile);
    if (row.action)
      ASSERT_FALSE(decoded<ComputerUseIPCToolResultResponse>(client.send(perform, *row.action)).isError);
    // Sent twice, so that a reply kept from the first is read a second time whole.
    for (int time = 0; time < 2; ++time) {
      const auto after = client.send(getState, row.next);
      ASSERT_TRUE(after && after->bytes) << "no reply bytes";
      EXPECT_EQ(*after->bytes == *before->bytes, row.sameBytes);
      EXPECT_FALSE(decoded<ComputerUseIPCToolResultResponse>(*after).isError);
    }
  }
  // The click's focus shows in the state that follows it.
  const auto focused = decoded<ComputerUseIPCToolResultResponse>(client.send(getState, notes));
  EXPECT_NE(focused.content.at(0).text->find("(focused"), std::string::npos);
}

// ---- the name and the handler ----

TEST_F(SimulatorServiceTest, InstancesQueueForTheName) {
  RuntimeSimulatorProcess first(bus.address());
  RuntimeSimulatorProcess second(bus.address());
  SimulatorControl client(bus.address(), busName);
  EXPECT_EQ(client.queuedOwners(busName).value(), (std::vector<std::string>{first.uniqueName(), second.uniqueName()}));
  // Calls to the name reach the owner; the queued one can be addressed by its unique name.
  EXPECT_EQ(decoded<ComputerUseIPCHealthResponse>(client.send(ComputerUseIPCHealthRequest::requestType, "{}")).runtimePID,
            first.pid());
  SimulatorControl direct(bus.address(), second.uniqueName());
  EXPECT_EQ(decoded<ComputerUseIPCHealthResponse>(direct.send(ComputerUseIPCHealthRequest::requestType, "{}")).runtimePID,
            second.pid());
}

TEST_F(SimulatorServiceTest, ALateHandlerIsMissingUntilInstalled) {
  RuntimeSimulatorProcess simulator(bus.address(), {"--late-handler-ms", "1500"});
  SimulatorControl client(bus.address(), busName);
  const auto early = client.send(ComputerUseIPCHealthRequest::requestType, "{}");
  ASSERT_FALSE(early.has_value());
  EXPECT_TRUE(early.error().name == "org.freedesktop.DBus.Error.UnknownObject" ||
              early.error().name == "org.freedesktop.DBus.Error.UnknownMethod" ||
              early.error().name == "org.freedesktop.DBus.Error.UnknownInterface")
      << early.error().name;
  EXPECT_EQ(simulator.process().readLine(20s), "installed");
  const auto late = client.send(ComputerUseIPCHealthRequest::requestType, "{}");
  ASSERT_TRUE(late.has_value()) << late.error().name;
  EXPECT_EQ(late->errn, std::nullopt);
  // The early call never reached the handler.
  EXPECT_EQ(client.events().size(), 1u);
}

// ---- the journal ----

TEST_F(SimulatorServiceTest, AwaitingEventsAnswersAtTheCountOrTimesOut) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl client(bus.address(), busName);
  for (int call = 0; call < 2; ++call)
    ASSERT_TRUE(client.send(ComputerUseIPCHealthRequest::requestType, "{}"));
  ASSERT_TRUE(client.send(ComputerUseIPCListAppsRequest::requestType, "{}"));
  const auto two = client.awaitEvents(ComputerUseIPCHealthRequest::requestType, 2, 100ms);
  ASSERT_TRUE(two.has_value());
  EXPECT_EQ(two->size(), 2u);
  EXPECT_EQ(client.awaitEvents("*", 3, 100ms).value().size(), 3u);
  const auto three = client.awaitEvents(ComputerUseIPCHealthRequest::requestType, 3, 100ms);
  ASSERT_FALSE(three.has_value());
  EXPECT_EQ(three.error().name, "com.tavix.computeruse.Simulator1.Error.TimedOut");
  EXPECT_EQ(three.error().message, "2 of 3 ComputerUseIPCHealthRequest events arrived in time");
  client.clearEvents();
  EXPECT_EQ(client.events(), nlohmann::json::array());
}

// ---- how the process ends ----

TEST_F(SimulatorServiceTest, StopSignalsEndTheProcessCleanly) {
  for (int stopSignal : {SIGTERM, SIGINT}) {
    RuntimeSimulatorProcess simulator(bus.address());
    simulator.process().signal(stopSignal);
    EXPECT_EQ(simulator.waitForExit(), 0) << stopSignal << "\n" << simulator.process().errorOutput();
  }
}

// Several clients at once, delays, a cancel and a request left waiting, then SIGTERM: the
// process still ends with status 0 and says nothing, which a sanitizer's report would break.
TEST_F(SimulatorServiceTest, ABusySessionEndsCleanly) {
  RuntimeSimulatorProcess simulator(bus.address(), {"--faults", R"([
    {"requestType":"ComputerUseIPCListAppsRequest","delayMs":20},
    {"requestType":"ComputerUseIPCAppUsageRequest","neverAnswer":true}])"});
  std::vector<std::thread> clients;
  std::atomic<int> failures{0};
  for (int client = 0; client < 4; ++client)
    clients.emplace_back([&, client] {
      SimulatorControl control(bus.address(), busName);
      const std::string click = R"({"app":"Notes","action":{"click":{"_0":{"elementIndex":)" + std::to_string(client + 1) +
                                R"(,"clickCount":1,"mouseButton":0}}}})";
      for (int round = 0; round < 5; ++round)
        for (const auto &[type, body] : {std::pair{ComputerUseIPCAppGetStateRequest::requestType, std::string(R"({"app":"Notes"})")},
                                          std::pair{ComputerUseIPCAppPerformActionRequest::requestType, click},
                                          std::pair{ComputerUseIPCListAppsRequest::requestType, std::string("{}")}}) {
          const auto reply = control.send(type, body);
          if (!reply || reply->errn)
            ++failures;
        }
    });
  SimulatorControl control(bus.address(), busName);
  std::thread waiting([&] {
    SimulatorControl left(bus.address(), busName);
    // Unanswered until the simulator goes: the caller sees its connection's end.
    EXPECT_FALSE(left.send(ComputerUseIPCAppUsageRequest::requestType, "{}", "LEFT-1", 120s).has_value());
  });
  ASSERT_TRUE(control.awaitEvents(ComputerUseIPCAppUsageRequest::requestType, 1).has_value());
  for (auto &client : clients)
    client.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(simulator.stop(), 0);
  waiting.join();
  EXPECT_EQ(simulator.process().errorOutput(), "");
}

TEST_F(SimulatorServiceTest, ALostBusEndsTheProcess) {
  auto privateBus = std::make_unique<PrivateSessionBus>();
  RuntimeSimulatorProcess simulator(privateBus->address());
  privateBus.reset();
  EXPECT_EQ(simulator.waitForExit(), 1);
  EXPECT_TRUE(simulator.process().errorOutput().find("the bus connection was lost") != std::string::npos);
}

TEST_F(SimulatorServiceTest, BadOptionsPrintTheUsageAndExitWithStatus2) {
  for (const char *option : {"--png-level=10", "--colour", "--faults=[{\"crash\":1}]"}) {
    ChildProcess process({RuntimeSimulatorProcess::defaultExecutable(), option}, {{"DBUS_SESSION_BUS_ADDRESS", bus.address()}});
    EXPECT_EQ(process.wait(), 2) << option;
    const std::string error = process.errorOutput();
    EXPECT_NE(error.find("Usage: TavixComputerUseRuntimeSimulator"), std::string::npos) << option;
    EXPECT_EQ(process.readRemainingOutput(), "") << option;
  }
}

} // namespace
} // namespace tavix::test
