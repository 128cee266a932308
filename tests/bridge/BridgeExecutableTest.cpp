// The bridge program: its mode words and termination-signal handler in process, and the
// real executable over pipes, as a host drives it, for what only the whole program shows:
// which words it serves, the parent check before it serves, the framing it answers in and
// the log it writes, termination signals, and a host that closes its end. What it answers
// to each message is the mcp/ unit tests' subject; tests/e2e runs a session with the
// official client.

#include "bridge/ModeWords.h"
#include "bridge/TerminationSignals.h"
#include "fakes/CapturedLog.h"
#include "support/JSON.h"
#include "testing/ChildProcess.h"
#include "TestPaths.h"
#include "testing/PropertyListWriter.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <future>
#include <unistd.h>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using namespace ::testing;

TEST(BridgeModeWords, OnlyTheWholeWordsOfAModeNameIt) {
  using enum BridgeMode;
  const std::pair<std::vector<std::string>, std::optional<BridgeMode>> cases[] = {
      {{"mcp"}, computerUse}, {{"event-stream", "mcp"}, recordReplay}, {{"appshot-stdio"}, appshot}, {{}, std::nullopt},
      {{"mcp", "extra"}, std::nullopt}, {{"event-stream"}, std::nullopt}, {{"mcp", "event-stream"}, std::nullopt},
      {{"MCP"}, std::nullopt}, {{""}, std::nullopt}, {{"appshot-stdio", "mcp"}, std::nullopt}, {{"appshot"}, std::nullopt}};
  for (const auto &[words, mode] : cases)
    EXPECT_EQ(parseBridgeMode(words), mode) << PrintToString(words);
}

TEST(TerminationSignalHandler, TheFirstSignalCancelsTheTaskAndArmsTheGraceExitOrExitsAtOnce) {
  for (const bool withTask : {true, false}) {
    CapturedLog log;
    std::atomic<int> cancels = 0;
    std::promise<int> exitStatus;
    auto exited = exitStatus.get_future();
    TerminationSignalHandler handler({withTask ? std::function<void()>([&] { ++cancels; }) : nullptr,
                                      [&](int status) { exitStatus.set_value(status); }, 20ms});
    EXPECT_TRUE(handler.handle(SIGTERM));
    EXPECT_TRUE(withTask || exited.wait_for(0s) == std::future_status::ready) << "without a task it exits at once";
    // Later signals, of either kind, are ignored.
    EXPECT_FALSE(handler.handle(SIGINT));
    EXPECT_FALSE(handler.handle(SIGTERM));
    EXPECT_EQ(cancels, withTask ? 1 : 0);
    ASSERT_EQ(exited.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(exited.get(), 0);
    EXPECT_THAT(log.withEvent("signal_received"),
                ElementsAre(EndsWith(std::string(" category=lifecycle event=signal_received outcome=") +
                                     (withTask ? "cancelling_transport" : "exiting") + " signal=15\n")));
    const auto expired = log.withEvent("shutdown_grace_expired");
    EXPECT_EQ(expired.size(), withTask ? 1u : 0u);
    for (const auto &line : expired)
      EXPECT_THAT(line, AllOf(HasSubstr(" level=warning "), EndsWith(" event=shutdown_grace_expired graceMs=20\n")));
  }
}

const std::string bridgePath = TAVIX_BRIDGE_EXECUTABLE;
const std::string ping = R"({"jsonrpc":"2.0","id":1,"method":"ping"})", pong = R"({"id":1,"jsonrpc":"2.0","result":{}})";

// The bridge as a host starts it, with a log directory of its own, where its standard error
// goes. It finds no session bus and no runtime app to launch, whatever the machine has.
struct Bridge : TemporaryDirectory, ChildProcess {
  explicit Bridge(std::vector<std::string> words, const std::string &executable = bridgePath)
      : ChildProcess((words.insert(words.begin(), executable), words),
                     {{"TAVIX_CU_LOG_DIR", path()}, {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + path() + "/no-bus"},
                      {"TAVIX_COMPUTER_USE_RUNTIME_PATH", path() + "/no-runtime"}},
                     {"TAVIX_COMPUTER_USE_LOG_LEVEL", "TAVIX_COMPUTER_USE_OSLOG_MIRROR_LEVEL", "TAVIX_IDE_LOGS_HOME",
                      "XDG_CONFIG_HOME"}) {}
  // The lines of one event in the log file (complete once the bridge has exited).
  std::vector<std::string> logged(std::string_view event) const {
    return logLinesWithEvent(readFile(*this / "computer-use-runtime.log"), event);
  }
  // Waits until the bridge has answered a ping, so that its signal handling is in place.
  void serve() { write(ping + "\n"); EXPECT_EQ(readLine(), pong); }
};

TEST(BridgeExecutable, UnknownWordsAndAnUntrustedParentExitWithStatusOneAndOneLogLine) {
  // Beside the built executable, an information dictionary turns the parent check off;
  // copies have one that turns it on, or none, which leaves it on.
  TemporaryDirectory enforcing, bare;
  for (const auto *copy : {&enforcing, &bare}) std::filesystem::copy_file(bridgePath, *copy / "TavixComputerUseBridge");
  writePropertyList(enforcing / "Info.plist", {{"TavixComputerUseEnforceSenderAuthorization", true}}, PropertyListFormat::xml);
  const std::string usage = "invalid_command executable=TavixComputerUseBridge",
                    // The error's text never reaches the log: error texts can quote anything.
                    refused = "startup_rejected error=[redacted-string-error] reason=parent_authorization";
  const std::tuple<std::vector<std::string>, std::string, std::string> cases[] = {
      {{}, bridgePath, usage},
      {{"mcp", "extra"}, bridgePath, usage},
      {{}, enforcing / "TavixComputerUseBridge", usage}, // before the parent check
      {{"mcp"}, enforcing / "TavixComputerUseBridge", refused},
      {{"appshot-stdio"}, bare / "TavixComputerUseBridge", refused},
  };
  for (const auto &[words, executable, line] : cases) {
    Bridge bridge(words, executable);
    EXPECT_EQ(bridge.wait(), 1);
    EXPECT_EQ(bridge.readRemainingOutput() + bridge.errorOutput(), "") << line;
    EXPECT_THAT(bridge.logged(line.substr(0, line.find(' '))),
                ElementsAre(AllOf(HasSubstr(" level=error process=Bridge pid="),
                                  EndsWith(" category=lifecycle event=" + line))));
  }
}

TEST(BridgeExecutable, EachModeAnswersInTheFramingOfItsFirstByteUntilItsInputEnds) {
  const auto catalogue = parseJSON(readFile(TAVIX_TEST_DATA_DIR "/gateway/expected_tool_catalogue.json")).value();
  const std::tuple<std::vector<std::string>, std::string, std::string, bool> modes[] = {
      {{"mcp"}, "computer-use", "computerUse", true}, {{"event-stream", "mcp"}, "record-and-replay", "recordReplay", false}};
  for (const auto &[words, name, tools, withLength] : modes) {
    const bool contentLength = withLength; // clang 14 cannot capture a structured binding
    const auto frame = [&](const std::string &body) {
      return contentLength ? "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body : body + "\n";
    };
    Bridge bridge(words);
    // A ping is answered at once, the requests in turn; a notification is never answered.
    bridge.write(frame(ping) + frame(R"({"jsonrpc":"2.0","id":"i","method":"initialize","params":{"protocolVersion":"1999-01-01"}})") +
                 frame(R"({"jsonrpc":"2.0","method":"notifications/initialized"})") +
                 frame(R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})"));
    const std::string answers =
        frame(pong) +
        frame(R"({"id":"i","jsonrpc":"2.0","result":{"capabilities":{"tools":{}},"protocolVersion":"2024-11-05",)"
              R"("serverInfo":{"name":")" + name + R"(","version":"1.0.0"}}})") +
        frame(R"({"id":2,"jsonrpc":"2.0","result":{"tools":)" + catalogue[tools].dump() + "}}");
    EXPECT_EQ(bridge.readBytes(answers.size()), answers);
    // On a content-length connection a line is misread as a header that never gets a valid
    // length, which ends the connection as the end of the input does.
    contentLength ? bridge.write(ping + "\n\r\n\r\n") : bridge.closeInput();
    EXPECT_EQ(bridge.wait(), 0);
    EXPECT_EQ(bridge.readRemainingOutput(), "");
    EXPECT_EQ(bridge.logged("transport_started").size(), 1u);
    EXPECT_THAT(bridge.logged("framing_detected"),
                ElementsAre(EndsWith(contentLength ? "framing=content-length" : "framing=newline-delimited")));
    EXPECT_EQ(bridge.logged("content_length_invalid").size(), contentLength ? 1u : 0u);
  }
}

TEST(BridgeExecutable, AFirstTerminationSignalCancelsTheSessionAndLaterOnesAreIgnored) {
  // Signals that are pending at once are taken lowest first, so SIGINT leads the second row.
  for (const auto &signals : {std::vector{SIGTERM}, std::vector{SIGINT, SIGTERM, SIGINT}}) {
    Bridge bridge({"mcp"});
    bridge.serve();
    for (const int number : signals)
      bridge.signal(number);
    EXPECT_EQ(bridge.wait(), 0);
    EXPECT_THAT(bridge.logged("signal_received"),
                ElementsAre(EndsWith("outcome=cancelling_transport signal=" + std::to_string(signals.front()))));
    // The session wound down by itself, long before the grace exit.
    EXPECT_TRUE(bridge.logged("shutdown_grace_expired").empty());
  }
}

TEST(BridgeExecutable, AHostThatClosesItsEndEndsTheSessionAndNotTheProcessBySIGPIPE) {
  Bridge bridge({"mcp"});
  bridge.serve();
  bridge.closeOutput();
  bridge.write(ping + "\n");
  EXPECT_EQ(bridge.wait(), 0);
  EXPECT_EQ(bridge.logged("transport_closed").size(), 1u);
}

} // namespace
} // namespace tavix::test
