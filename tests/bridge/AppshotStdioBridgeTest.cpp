// The bridge executable in its appshot mode, with the runtime simulator on a private
// session bus, driven over standard input as a host drives it: an update waiting in the
// runtime ends by a cancel, or by the end of input (after its grace, and cancelled in the
// runtime too), and a termination signal ends the process at once.

#include "TestPaths.h"
#include "testing/RuntimeSimulatorProcess.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <set>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;

struct AppshotBridge : ::testing::Test {
  inline static std::unique_ptr<SimulatorOnPrivateBus> shared;
  static void SetUpTestSuite() { shared = std::make_unique<SimulatorOnPrivateBus>(); }
  static void TearDownTestSuite() { shared.reset(); }

  SimulatorControl &control = shared->control;
  TemporaryDirectory logs;
  std::unique_ptr<ChildProcess> bridge;

  // Starts the bridge, starts a capture and takes its first update, then asks for the next
  // one, which waits in the runtime.
  void startWithWaitingUpdate(const std::string &requestId) {
    control.clearEvents();
    bridge = std::make_unique<ChildProcess>(
        std::vector<std::string>{TAVIX_BRIDGE_EXECUTABLE, "appshot-stdio"},
        std::map<std::string, std::string>{{"TAVIX_CU_LOG_DIR", logs.path()},
                                           {"DBUS_SESSION_BUS_ADDRESS", shared->bus.address()},
                                           {"TAVIX_COMPUTER_USE_RUNTIME_PATH", logs / "no-runtime"}},
        std::vector<std::string>{"TAVIX_COMPUTER_USE_LOG_LEVEL", "XDG_CONFIG_HOME", "TAVIX_IDE_LOGS_HOME"});
    const std::string params = R"("params":{"requestId":")" + requestId + R"(","timeoutMs":)";
    bridge->write(R"({"id":1,"method":"startFrontmostAppshotCapture",)" + params + "0}}\n");
    ASSERT_NE(bridge->readLine(30s).value_or("").find(R"("target":)"), std::string::npos) << log();
    bridge->write(R"({"id":2,"method":"nextAppshotCaptureUpdate",)" + params + "0}}\n");
    ASSERT_NE(bridge->readLine(30s).value_or("").find(R"("type":"snapshot")"), std::string::npos);
    bridge->write(R"({"id":3,"method":"nextAppshotCaptureUpdate",)" + params + "60000}}\n");
    ASSERT_TRUE(control.awaitEvents("captureUpdateWaiting", 1).has_value());
  }
  std::string log() const { return readFile(logs / "computer-use-runtime.log"); }
};

TEST_F(AppshotBridge, AnUpdateWaitingInTheRuntimeEndsByACancel) {
  startWithWaitingUpdate("r1");
  bridge->write(R"({"id":4,"method":"cancelAppshotCapture","params":{"requestId":"r1"}})" "\n");
  std::set<std::string> answers{bridge->readLine(30s).value_or(""), bridge->readLine(30s).value_or("")};
  EXPECT_EQ(answers, (std::set<std::string>{R"({"id":3,"result":{"requestId":"r1","update":{"type":"cancelled"}}})",
                                           R"({"id":4,"result":{}})"}));
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
  EXPECT_EQ(control.events().back()["requestType"], "ComputerUseIPCAppCancelCaptureRequest")
      << "nothing was left for the runtime to abandon";
}

TEST_F(AppshotBridge, TheEndOfInputGivesAWaitingUpdateASecondThenCancelsItInTheRuntimeToo) {
  startWithWaitingUpdate("r2");
  const auto waiting = control.awaitEvents("captureUpdateWaiting", 1).value();
  const auto ended = std::chrono::steady_clock::now();
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - ended, 1s);
  EXPECT_EQ(bridge->readRemainingOutput(),
            R"x({"error":{"code":"request_failed","message":"Runtime IPC error cancelled (-10012)"},"id":3})x" "\n");
  const auto cancels = control.awaitEvents("ComputerUseIPCCancelRequest", 1).value();
  EXPECT_EQ(cancels[0]["body"]["requestID"], waiting[0]["requestID"]);
}

TEST_F(AppshotBridge, ATerminationSignalEndsItAtOnceWithStatusZero) {
  for (const int number : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(number);
    startWithWaitingUpdate("s" + std::to_string(number));
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
