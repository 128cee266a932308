// The bridge executable in its appshot mode, with the runtime simulator on a private
// session bus, driven over standard input as a host drives it: exact answer lines for bad
// input (which never reaches the runtime), a capture from start to cancel, a cancel that
// is answered while an update still waits, and the end of input or a signal while one
// waits.

#include "support/JSON.h"
#include "TestPaths.h"
#include "testing/ChildProcess.h"
#include "testing/PrivateSessionBus.h"
#include "testing/RuntimeSimulatorProcess.h"
#include "testing/SimulatorControl.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <set>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr const char *startType = "ComputerUseIPCAppStartFrontmostCaptureRequest";
constexpr const char *nextType = "ComputerUseIPCAppNextCaptureUpdateRequest";
constexpr const char *cancelType = "ComputerUseIPCAppCancelCaptureRequest";
constexpr const char *transportCancelType = "ComputerUseIPCCancelRequest";
constexpr const char *cancelledText = "Runtime IPC error cancelled (-10012)";

struct AppshotBridgeFixture : ::testing::Test {
  PrivateSessionBus bus;
  TemporaryDirectory logs;
  RuntimeSimulatorProcess simulator{bus.address()};
  SimulatorControl control{bus.address(), simulator.uniqueName()};

  std::unique_ptr<ChildProcess> startBridge() {
    const std::map<std::string, std::string> env = {{"TAVIX_CU_LOG_DIR", logs.path()},
                                                    {"DBUS_SESSION_BUS_ADDRESS", bus.address()},
                                                    {"TAVIX_COMPUTER_USE_RUNTIME_PATH", logs.path() + "/no-runtime"}};
    return std::make_unique<ChildProcess>(std::vector<std::string>{TAVIX_BRIDGE_EXECUTABLE, "appshot-stdio"}, env,
                                          std::vector<std::string>{"TAVIX_COMPUTER_USE_LOG_LEVEL", "XDG_CONFIG_HOME",
                                                                   "TAVIX_IDE_LOGS_HOME"});
  }
  std::string log() const {
    std::ifstream in(logs.path() + "/computer-use-runtime.log");
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  static std::string line(const json &id, std::string_view method, const std::string &params) {
    return R"({"id":)" + id.dump() + R"(,"method":")" + std::string(method) + R"(","params":)" + params + "}\n";
  }
  static json answer(ChildProcess &bridge) {
    const auto read = bridge.readLine(30s);
    return read ? parseJSON(*read).value_or(json("not JSON: " + *read)) : json("no answer");
  }
  // Starts capture `requestId` and takes its first update, so that nothing more is due.
  void startCapture(ChildProcess &bridge, const std::string &requestId) {
    bridge.write(line("start", "startFrontmostAppshotCapture", R"({"requestId":")" + requestId + R"("})"));
    ASSERT_TRUE(answer(bridge)["result"].contains("target")) << log();
    bridge.write(line("first", "nextAppshotCaptureUpdate", R"({"requestId":")" + requestId + R"(","timeoutMs":0})"));
    ASSERT_EQ(answer(bridge)["result"]["update"]["type"], "snapshot") << log();
  }
};

TEST_F(AppshotBridgeFixture, BadInputGetsItsExactAnswerAndNeverReachesTheRuntime) {
  auto bridge = startBridge();
  const std::pair<std::string, std::string> exchanges[] = {
      {"[1,2]\n", R"({"error":{"code":"invalid_json","message":"Request must be a JSON object"},"id":null})"},
      // Blank lines are skipped: the next answer is the next request's.
      {"\n   \n\t\r\n" + line(5, "computer-use-cancel-capture", R"({"requestId":"r1"})"), R"({"id":5,"result":{}})"},
      {line("a", "startFrontmostAppshotCapture", "[]"),
       R"({"error":{"code":"invalid_params","message":"params must be a JSON object"},"id":"a"})"},
      {line("a", "nextAppshotCaptureUpdate", "{}"),
       R"({"error":{"code":"request_failed","message":"Missing required key \"requestId\""},"id":"a"})"},
      {line("w", "startFrontmostAppshotCapture", R"({"requestId":"r1","windowID":4294967296})"),
       R"({"error":{"code":"request_failed","message":"Expected an integer in range for \"windowID\""},"id":"w"})"},
      {line(6, "startAppshotCapture", "{}"),
       R"({"error":{"code":"unknown_method","message":"Unknown method: startAppshotCapture"},"id":6})"},
      {"{\"id\":7,\"params\":{}}\n", R"({"error":{"code":"invalid_request","message":"Missing method"},"id":7})"},
      {"{\"id\":8,\n",
       R"({"error":{"code":"invalid_json","message":"parse error at line 1, column 9: syntax error while parsing object key - unexpected end of input; expected string literal"},"id":null})"},
      {line(9, "cancelAppshotCapture", R"({"requestId":"r1"})"), R"({"id":9,"result":{}})"},
  };
  for (const auto &[request, expected] : exchanges) {
    bridge->write(request);
    EXPECT_EQ(bridge->readLine(30s), expected) << request << log();
  }
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
  EXPECT_EQ(bridge->readRemainingOutput(), "");
  // Only the two cancels reached the runtime.
  std::vector<std::string> types;
  for (const auto &event : control.events())
    types.push_back(event.value("requestType", json("no type")).dump());
  const std::string cancel = json(cancelType).dump();
  EXPECT_EQ(types, (std::vector<std::string>{cancel, cancel}));
}

TEST_F(AppshotBridgeFixture, ACaptureFromStartToCancel) {
  auto bridge = startBridge();
  bridge->write(line(1, "startFrontmostAppshotCapture", R"({"requestId":"r1"})"));
  const json started = answer(*bridge);
  ASSERT_TRUE(started.contains("result")) << started << log();
  EXPECT_EQ(started["id"], 1);
  const json &target = started["result"]["target"];
  EXPECT_EQ(target["bundleIdentifier"], "com.tavix.sim.notes");
  EXPECT_EQ(target["name"], "Notes");
  EXPECT_EQ(target["windowTitle"], "Notes - Untitled");
  EXPECT_TRUE(target["iconSmallDataURL"].get<std::string>().starts_with("data:image/png;base64,iVBORw0KGgo"));
  EXPECT_GT(started["result"]["transitionSnapshotHeight"].get<double>(), 0);

  const std::pair<std::string, std::string> exchanges[] = {
      {line(2, "computer-use-start-capture", R"({"requestId":"r1"})"), "capture_already_running"},
      {line(3, "startFrontmostAppshotCapture", R"({"requestId":"r2","bundleIdentifier":"com.example.none"})"),
       "app_not_found"},
      {line(4, "startFrontmostAppshotCapture", R"({"requestId":"r2","windowID":4294967295})"), "window_not_found"},
  };
  for (const auto &[request, code] : exchanges) {
    bridge->write(request);
    const json refused = answer(*bridge);
    EXPECT_EQ(refused["result"]["error"]["code"], code) << refused;
    EXPECT_FALSE(refused["result"].contains("target")) << refused;
  }

  bridge->write(line(5, "computer-use-next-capture-update", R"({"requestId":"r1","timeoutMs":0})"));
  const json snapshot = answer(*bridge);
  EXPECT_EQ(snapshot["result"]["requestId"], "r1") << snapshot;
  EXPECT_EQ(snapshot["result"]["update"]["type"], "snapshot");
  EXPECT_TRUE(snapshot["result"]["update"]["transitionSnapshotDataURL"].get<std::string>().starts_with(
      "data:image/png;base64,"));

  const std::pair<std::string, std::string> exact[] = {
      {line(6, "nextAppshotCaptureUpdate", R"({"requestId":"r1","timeoutMs":0})"),
       R"({"id":6,"result":{"requestId":"r1","update":{"type":"timeout"}}})"},
      {line(7, "cancelAppshotCapture", R"({"requestId":"r1"})"), R"({"id":7,"result":{}})"},
      {line(8, "nextAppshotCaptureUpdate", R"({"requestId":"r1","timeoutMs":0})"),
       R"({"error":{"code":"request_failed","message":"Server error -1728: No capture is running with requestId \"r1\""},"id":8})"},
  };
  for (const auto &[request, expected] : exact) {
    bridge->write(request);
    EXPECT_EQ(bridge->readLine(30s), expected) << request;
  }
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
}

TEST_F(AppshotBridgeFixture, ACancelIsAnsweredWhileAnUpdateForTheSameCaptureStillWaits) {
  auto bridge = startBridge();
  startCapture(*bridge, "r1");
  // The runtime keeps this update until the bridge gives up on it.
  ASSERT_TRUE(control.setFaults(R"([{"requestType":")" + std::string(nextType) + R"(","neverAnswer":true,"times":1}])"));
  bridge->write(line(3, "nextAppshotCaptureUpdate", R"({"requestId":"r1"})"));
  const auto waiting = control.awaitEvents(nextType, 2).value();
  bridge->write(line(4, "cancelAppshotCapture", R"({"requestId":"r1"})"));
  EXPECT_EQ(bridge->readLine(30s), R"({"id":4,"result":{}})");

  // The end of input gives the update a second, then cancels it, in the runtime too.
  const auto ended = std::chrono::steady_clock::now();
  bridge->closeInput();
  EXPECT_EQ(bridge->readLine(30s),
            R"({"error":{"code":"request_failed","message":")" + std::string(cancelledText) + R"("},"id":3})");
  EXPECT_EQ(bridge->wait(), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - ended, 1s);
  const auto cancels = control.awaitEvents(transportCancelType, 1).value();
  EXPECT_EQ(cancels[0]["body"]["requestID"], waiting[1]["requestID"]);
}

TEST_F(AppshotBridgeFixture, ACancelEndsAnUpdateWaitingInTheRuntime) {
  auto bridge = startBridge();
  startCapture(*bridge, "r1");
  bridge->write(line(3, "nextAppshotCaptureUpdate", R"({"requestId":"r1","timeoutMs":60000})"));
  ASSERT_TRUE(control.awaitEvents("captureUpdateWaiting", 1).has_value());
  bridge->write(line(4, "cancelAppshotCapture", R"({"requestId":"r1"})"));
  std::set<std::string> answers;
  for (int i = 0; i < 2; ++i)
    answers.insert(bridge->readLine(30s).value_or("no answer"));
  EXPECT_EQ(answers, (std::set<std::string>{R"({"id":3,"result":{"requestId":"r1","update":{"type":"cancelled"}}})",
                                           R"({"id":4,"result":{}})"}));
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
  for (const auto &event : control.events())
    EXPECT_NE(event.value("requestType", json()), transportCancelType) << "nothing was left to cancel";
}

TEST_F(AppshotBridgeFixture, TheEndOfInputWhileAnUpdateWaitsCancelsItAfterASecond) {
  auto bridge = startBridge();
  startCapture(*bridge, "r1");
  bridge->write(line(3, "nextAppshotCaptureUpdate", R"({"requestId":"r1","timeoutMs":60000})"));
  const auto waiting = control.awaitEvents("captureUpdateWaiting", 1).value();
  const auto ended = std::chrono::steady_clock::now();
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - ended, 1s);
  EXPECT_EQ(bridge->readRemainingOutput(),
            R"({"error":{"code":"request_failed","message":")" + std::string(cancelledText) + R"("},"id":3})" "\n");
  const auto cancels = control.awaitEvents(transportCancelType, 1).value();
  EXPECT_EQ(cancels[0]["body"]["requestID"], waiting[0]["requestID"]);
}

TEST_F(AppshotBridgeFixture, ATerminationSignalExitsAtOnceWithStatusZero) {
  for (const int number : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(number);
    control.clearEvents();
    auto bridge = startBridge();
    startCapture(*bridge, "s" + std::to_string(number));
    bridge->write(line(3, "nextAppshotCaptureUpdate", R"({"requestId":"s)" + std::to_string(number) + R"(","timeoutMs":60000})"));
    ASSERT_TRUE(control.awaitEvents("captureUpdateWaiting", 1).has_value());
    bridge->signal(number);
    EXPECT_EQ(bridge->wait(), 0);
    EXPECT_EQ(bridge->readRemainingOutput(), "");
    const auto lines = logLinesWithEvent(log(), "signal_received");
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(lines.back().ends_with("category=lifecycle event=signal_received outcome=exiting signal=" +
                                       std::to_string(number)))
        << lines.back();
  }
}

} // namespace
} // namespace tavix::test
