// The bridge executable with the runtime simulator on a private session bus, driven over
// its standard input as a host drives it: tool calls reach the runtime, the heartbeat
// follows, a cancelled call cancels its request in the runtime, a crashed runtime is
// replaced, and the request queue's limits hold while the runtime is slow.

#include "support/JSON.h"
#include "TestPaths.h"
#include "testing/ChildProcess.h"
#include "testing/PrivateSessionBus.h"
#include "testing/RuntimeSimulatorProcess.h"
#include "testing/SimulatorControl.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

namespace tavix::test {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

constexpr const char *busName = "com.tavix.computeruse";
constexpr const char *getState = "ComputerUseIPCAppGetStateRequest";

struct BridgeRuntimeFixture : ::testing::Test {
  PrivateSessionBus bus;
  TemporaryDirectory logs;

  std::unique_ptr<ChildProcess> startBridge(std::map<std::string, std::string> env = {}) {
    env.emplace("TAVIX_CU_LOG_DIR", logs.path());
    env.emplace("DBUS_SESSION_BUS_ADDRESS", bus.address());
    env.emplace("TAVIX_COMPUTER_USE_RUNTIME_PATH", logs.path() + "/no-runtime");
    return std::make_unique<ChildProcess>(std::vector<std::string>{TAVIX_BRIDGE_EXECUTABLE, "mcp"}, env,
                                          std::vector<std::string>{"TAVIX_COMPUTER_USE_LOG_LEVEL", "XDG_CONFIG_HOME",
                                                                   "TAVIX_IDE_LOGS_HOME"});
  }
  std::string log() const { return readFile(logs.path() + "/computer-use-runtime.log"); }

  static std::string call(int id, const std::string &tool, const std::string &arguments) {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"tools/call","params":{"name":")" + tool +
           R"(","arguments":)" + arguments + "}}\n";
  }
  static std::string cancel(int id) {
    return R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":)" + std::to_string(id) +
           "}}\n";
  }
  static nlohmann::json answer(ChildProcess &bridge) {
    auto line = bridge.readLine(30s);
    if (!line)
      return nullptr;
    return parseJSON(*line).value_or(nullptr);
  }

  static std::string readFile(const std::string &path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
};

TEST_F(BridgeRuntimeFixture, AToolCallReachesTheRuntimeAndStartsTheHeartbeat) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl control(bus.address(), simulator.uniqueName());
  auto bridge = startBridge();
  bridge->write(call(1, "get_app_state", R"({"app":"Notes"})"));
  const auto reply = answer(*bridge);
  ASSERT_TRUE(reply.is_object()) << log();
  const auto &content = reply["result"]["content"];
  EXPECT_FALSE(reply["result"].contains("isError")) << reply.dump();
  bool sawState = false, sawImage = false;
  for (const auto &item : content) {
    sawState = sawState || (item["type"] == "text" && item["text"].get<std::string>().starts_with("<app_state>"));
    sawImage = sawImage || (item["type"] == "image" && item["mimeType"] == "image/png");
  }
  EXPECT_TRUE(sawState && sawImage) << reply.dump().substr(0, 2000);
  const auto heartbeat = control.awaitEvents("ComputerUseIPCHealthRequest", 1).value();
  EXPECT_EQ(heartbeat[0]["body"], nlohmann::json::parse(R"({"refreshClientActivity":true})"));
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
}

TEST_F(BridgeRuntimeFixture, ACancelledToolCallSendsOneCancelNamingItsEvent) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl control(bus.address(), simulator.uniqueName());
  ASSERT_TRUE(control.setFaults(R"([{"requestType":"ComputerUseIPCAppGetStateRequest","delayMs":60000}])"));
  auto bridge = startBridge();
  bridge->write(call(7, "get_app_state", R"({"app":"Notes"})"));
  const auto sent = control.awaitEvents(getState, 1).value();
  bridge->write(cancel(7));
  const auto cancels = control.awaitEvents("ComputerUseIPCCancelRequest", 1).value();
  ASSERT_EQ(cancels.size(), 1u);
  EXPECT_EQ(cancels[0]["body"]["requestID"], sent[0]["requestID"]);
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
  size_t besidesHeartbeats = 0;
  for (const auto &event : control.events())
    besidesHeartbeats += event["requestType"] != "ComputerUseIPCHealthRequest";
  EXPECT_EQ(besidesHeartbeats, 2u) << "the event and its one cancel";
}

TEST_F(BridgeRuntimeFixture, ACrashedRuntimeFailsItsCallAndTheNextCallLaunchesAnother) {
  auto crashing = std::make_unique<RuntimeSimulatorProcess>(bus.address());
  {
    SimulatorControl control(bus.address(), crashing->uniqueName());
    ASSERT_TRUE(control.setFaults(R"([{"requestType":"ComputerUseIPCListAppsRequest","crash":true}])"));
  }
  auto bridge = startBridge({{"TAVIX_COMPUTER_USE_RUNTIME_PATH", RuntimeSimulatorProcess::defaultExecutable()}});
  bridge->write(call(1, "list_apps", "{}"));
  const auto failed = answer(*bridge);
  EXPECT_EQ(failed["result"]["isError"], true) << failed.dump();
  EXPECT_THAT(failed["result"]["content"][0]["text"].get<std::string>(),
              HasSubstr("ComputerUseIPCListAppsRequest; TavixComputerUseRuntime did not reply"));
  EXPECT_EQ(crashing->waitForExit(), 70);
  bridge->write(call(2, "list_apps", "{}"));
  const auto answered = answer(*bridge);
  EXPECT_FALSE(answered["result"].contains("isError")) << answered.dump() << log();
  SimulatorControl launched(bus.address(), busName);
  ASSERT_EQ(launched.queuedOwners(busName).value().size(), 1u);
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
}

TEST_F(BridgeRuntimeFixture, WhileTheRuntimeIsSlowOneCallRunsEightWaitAndTheTenthIsRefused) {
  RuntimeSimulatorProcess simulator(bus.address());
  SimulatorControl control(bus.address(), simulator.uniqueName());
  ASSERT_TRUE(control.setFaults(R"([{"requestType":"ComputerUseIPCAppGetStateRequest","delayMs":60000}])"));
  auto bridge = startBridge();
  for (int id = 1; id <= 10; ++id)
    bridge->write(call(id, "get_app_state", R"({"app":"Notes"})"));
  EXPECT_EQ(bridge->readLine(30s), R"({"error":{"code":-32000,"message":"Request queue is full; retry after the )"
                                   R"(active request finishes."},"id":10,"jsonrpc":"2.0"})");
  control.awaitEvents(getState, 1).value();
  // A waiting call that is cancelled never reaches the runtime; cancelling the running one
  // cancels its request there and lets the next waiting call start.
  bridge->write(cancel(2));
  bridge->write(cancel(1));
  control.awaitEvents("ComputerUseIPCCancelRequest", 1).value();
  ASSERT_EQ(control.awaitEvents(getState, 2).value().size(), 2u);
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
  size_t states = 0;
  for (const auto &event : control.events())
    states += event["requestType"] == getState;
  EXPECT_EQ(states, 2u) << "call 2 was dropped before it started; call 3 took its turn";
}

} // namespace
} // namespace tavix::test
