// Drives the real bridge executable over pipes, as a host does.

#include "testing/ChildProcess.h"
#include "TestPaths.h"
#include "testing/PropertyListWriter.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;

const std::string bridgePath = TAVIX_BRIDGE_EXECUTABLE;

struct LogDirectory {
  TemporaryDirectory logs;
};

// The bridge as a host starts it, with a log directory of its own: the bridge sends its
// standard error there. Unless a test says otherwise, it finds no session bus and no
// runtime app to launch, whatever the machine has.
class Bridge : private LogDirectory, public ChildProcess {
public:
  Bridge(std::vector<std::string> modeWords, std::map<std::string, std::string> env,
         const std::string &executable)
      : ChildProcess(withExecutable(std::move(modeWords), executable),
                     withLogDirectory(std::move(env), logs.path()),
                     {"TAVIX_COMPUTER_USE_LOG_LEVEL", "TAVIX_COMPUTER_USE_OSLOG_MIRROR_LEVEL",
                      "TAVIX_IDE_LOGS_HOME", "XDG_CONFIG_HOME"}) {}

  // The log file as it stands (complete once the bridge has exited).
  std::string log() const { return readFile(logs / "computer-use-runtime.log"); }

private:
  static std::vector<std::string> withExecutable(std::vector<std::string> words,
                                                 const std::string &executable) {
    words.insert(words.begin(), executable);
    return words;
  }
  static std::map<std::string, std::string> withLogDirectory(std::map<std::string, std::string> env,
                                                             const std::string &directory) {
    env.emplace("TAVIX_CU_LOG_DIR", directory);
    env.emplace("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + directory + "/no-bus");
    env.emplace("TAVIX_COMPUTER_USE_RUNTIME_PATH", directory + "/no-runtime");
    return env;
  }
};

std::unique_ptr<Bridge> startBridge(std::vector<std::string> modeWords,
                                    std::map<std::string, std::string> env = {},
                                    const std::string &executable = bridgePath) {
  return std::make_unique<Bridge>(std::move(modeWords), std::move(env), executable);
}

std::string contentLengthFrame(std::string_view body) {
  return "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

TEST(BridgeModeWords, AnythingButAKnownModeIsAUsageErrorLoggedOnlyToTheLogFile) {
  const std::vector<std::vector<std::string>> cases = {
      {}, {"mcp", "extra"}, {"event-stream"}, {"mcp", "event-stream"}, {"MCP"}, {""},
      {"event-stream", "mcp", "x"}, {"appshot-stdio", "mcp"}, {"appshot"}, {"Appshot-stdio"}};
  for (const auto &words : cases) {
    SCOPED_TRACE(::testing::PrintToString(words));
    auto bridge = startBridge(words);
    EXPECT_EQ(bridge->wait(), 1);
    EXPECT_EQ(bridge->readRemainingOutput(), "");
    EXPECT_EQ(bridge->errorOutput(), "");
    const auto lines = logLinesWithEvent(bridge->log(), "invalid_command");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" level=error process=Bridge pid="), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find(" category=lifecycle event=invalid_command "
                            "executable=TavixComputerUseBridge"),
              std::string::npos)
        << lines[0];
  }
}

TEST(BridgeLifecycle, EndOfInputEndsEitherModeWithStatusZero) {
  for (const auto &words : std::vector<std::vector<std::string>>{{"mcp"}, {"event-stream", "mcp"}}) {
    auto bridge = startBridge(words);
    bridge->write("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"}\n");
    EXPECT_EQ(bridge->readLine(), R"({"id":1,"jsonrpc":"2.0","result":{}})");
    bridge->closeInput();
    EXPECT_EQ(bridge->wait(), 0);
    const std::string log = bridge->log();
    EXPECT_EQ(logLinesWithEvent(log, "transport_started").size(), 1u) << log;
    EXPECT_EQ(logLinesWithEvent(log, "framing_detected").size(), 1u) << log;
    EXPECT_NE(log.find("framing=newline-delimited"), std::string::npos) << log;
  }
}

struct Exchange {
  std::string request;
  std::string response; // empty: no answer at all
};

// Every answer of the method table and the error table, byte for byte. A request that
// must stay unanswered is followed by a ping, whose answer must come next.
const std::vector<Exchange> &errorTable() {
  static const std::vector<Exchange> table = {
      {R"({"jsonrpc":"2.0","id":1,"method":"ping"})", R"({"id":1,"jsonrpc":"2.0","result":{}})"},
      {R"({"jsonrpc":"2.0","id":"abc","method":"initialize","params":{"protocolVersion":"1999-01-01"}})",
       R"({"id":"abc","jsonrpc":"2.0","result":{"capabilities":{"tools":{}},"protocolVersion":"2024-11-05","serverInfo":{"name":"computer-use","version":"1.0.0"}}})"},
      {R"({"jsonrpc":"2.0","method":"notifications/initialized"})", ""},
      {R"(not json)", R"({"error":{"code":-32700,"message":"Parse error"},"jsonrpc":"2.0"})"},
      {R"({"jsonrpc":"2.0","id":2,"method":"ping")", R"({"error":{"code":-32700,"message":"Parse error"},"jsonrpc":"2.0"})"},
      {R"([1,2])", R"({"error":{"code":-32600,"message":"Invalid Request"},"jsonrpc":"2.0"})"},
      {R"({"jsonrpc":"1.0","id":1,"method":"ping"})", R"({"error":{"code":-32600,"message":"Invalid Request"},"jsonrpc":"2.0"})"},
      {R"({"id":1,"method":"ping"})", R"({"error":{"code":-32600,"message":"Invalid Request"},"jsonrpc":"2.0"})"},
      {R"({"jsonrpc":"2.0","id":1,"method":7})", R"({"error":{"code":-32600,"message":"Invalid Request"},"jsonrpc":"2.0"})"},
      {R"({"jsonrpc":"2.0","id":3,"method":"no/such"})", R"({"error":{"code":-32601,"message":"Method not found: no/such"},"id":3,"jsonrpc":"2.0"})"},
      {R"({"jsonrpc":"2.0","id":4,"method":"Tools/List"})", R"({"error":{"code":-32601,"message":"Method not found: Tools/List"},"id":4,"jsonrpc":"2.0"})"},
      {R"({"jsonrpc":"2.0","id":5,"method":"notifications/cancelled","params":{"requestId":1}})",
       R"({"error":{"code":-32601,"message":"Method not found: notifications/cancelled"},"id":5,"jsonrpc":"2.0"})"},
      {R"({"jsonrpc":"2.0","id":6,"method":"tools/call"})", R"({"error":{"code":-32602,"message":"Invalid params: missing tool name"},"id":6,"jsonrpc":"2.0"})"},
      {R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":7}})", R"({"error":{"code":-32602,"message":"Invalid params: missing tool name"},"id":7,"jsonrpc":"2.0"})"},
      {R"({"jsonrpc":"2.0","id":1.5,"method":"no/such"})", ""},
      {R"({"jsonrpc":"2.0","id":null,"method":"ping"})", ""},
      {R"({"jsonrpc":"2.0","method":"no/such"})", ""},
      {R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":99}})", ""},
      {R"({"jsonrpc":"2.0","id":8.0,"method":"ping"})", R"({"id":8,"jsonrpc":"2.0","result":{}})"},
      {R"({"jsonrpc":"2.0","id":-9,"method":"ping","params":[1]})", R"({"id":-9,"jsonrpc":"2.0","result":{}})"},
  };
  return table;
}

constexpr std::string_view followUpPing = R"({"jsonrpc":"2.0","id":"follow-up","method":"ping"})";
constexpr std::string_view followUpPong = R"({"id":"follow-up","jsonrpc":"2.0","result":{}})";

TEST(BridgeJSONRPC, NewlineFramedAnswersMatchByteForByte) {
  auto bridge = startBridge({"mcp"});
  // A first message that starts with "{" fixes newline framing.
  for (const auto &exchange : errorTable()) {
    SCOPED_TRACE(exchange.request);
    bridge->write(exchange.request + "\n");
    if (exchange.response.empty()) {
      bridge->write(std::string(followUpPing) + "\n");
      EXPECT_EQ(bridge->readLine(), followUpPong);
    } else {
      EXPECT_EQ(bridge->readLine(), exchange.response);
    }
  }
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
}

TEST(BridgeToolCalls, WithoutARuntimeToLaunchEveryToolCallIsAnErrorResultFramedInTheLog) {
  const struct {
    std::vector<std::string> mode;
    std::string tool;
  } cases[] = {{{"mcp"}, "list_apps"}, {{"event-stream", "mcp"}, "event_stream_status"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tool);
    auto bridge = startBridge(c.mode);
    bridge->write(R"({"jsonrpc":"2.0","id":9,"method":"tools/call","params":{"name":")" + c.tool +
                  R"(","arguments":{"app":"Notes"}}})" "\n");
    EXPECT_EQ(bridge->readLine(), R"({"id":9,"jsonrpc":"2.0","result":{"content":[{"text":"Internal error: Failed )"
                                  R"(to launch TavixComputerUseRuntime: set TAVIX_COMPUTER_USE_RUNTIME_PATH to )"
                                  R"(Tavix Computer Use.app in development","type":"text"}],"isError":true}})");
    bridge->closeInput();
    EXPECT_EQ(bridge->wait(), 0);
    const std::string log = bridge->log();
    const auto started = logLinesWithEvent(log, "tool_call_started");
    ASSERT_EQ(started.size(), 1u) << log;
    EXPECT_NE(started[0].find(" appBundleID=Notes mcpRequestID=9 tool=" + c.tool), std::string::npos) << started[0];
    const auto finished = logLinesWithEvent(log, "tool_call_finished");
    ASSERT_EQ(finished.size(), 1u) << log;
    EXPECT_NE(finished[0].find(" outcome=internal_error tool=" + c.tool), std::string::npos) << finished[0];
  }
}

TEST(BridgeJSONRPC, ContentLengthFramedAnswersMatchByteForByte) {
  auto bridge = startBridge({"mcp"});
  for (const auto &exchange : errorTable()) {
    SCOPED_TRACE(exchange.request);
    bridge->write(contentLengthFrame(exchange.request));
    std::string expected = exchange.response;
    if (expected.empty()) {
      bridge->write(contentLengthFrame(followUpPing));
      expected = followUpPong;
    }
    const std::string header = "Content-Length: " + std::to_string(expected.size()) + "\r\n\r\n";
    EXPECT_EQ(bridge->readBytes(header.size() + expected.size()), header + expected);
  }
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
  EXPECT_NE(bridge->log().find("framing=content-length"), std::string::npos);
}

TEST(BridgeJSONRPC, ContentLengthHeadersAreCaseInsensitiveAndMayArriveTogether) {
  auto bridge = startBridge({"mcp"});
  const std::string ping1 = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";
  const std::string ping2 = R"({"jsonrpc":"2.0","id":2,"method":"ping"})";
  bridge->write("content-length: \t" + std::to_string(ping1.size()) +
                " \r\nContent-Type: application/json\r\n\r\n" + ping1 +
                "CONTENT-LENGTH:" + std::to_string(ping2.size()) + "\r\n\r\n" + ping2);
  const std::string pong1 = R"({"id":1,"jsonrpc":"2.0","result":{}})";
  const std::string pong2 = R"({"id":2,"jsonrpc":"2.0","result":{}})";
  const std::string expected = contentLengthFrame(pong1) + contentLengthFrame(pong2);
  EXPECT_EQ(bridge->readBytes(expected.size()), expected);
  // A newline-delimited message on a content-length connection is misread, by design:
  // the line becomes part of a header that never gets a valid length.
  bridge->write(ping1 + "\n\r\n\r\n");
  EXPECT_EQ(bridge->wait(), 0);
  EXPECT_EQ(bridge->readRemainingOutput(), "");
  EXPECT_EQ(logLinesWithEvent(bridge->log(), "content_length_invalid").size(), 1u);
}

TEST(BridgeJSONRPC, BrokenHeadersEndTheConnection) {
  const std::vector<std::string> brokenHeaders = {
      "Content-Length: 5\r\nX-Pad: " + std::string(16400, 'a') + "\r\n\r\n",
      "X-Only: 1\r\n\r\n",
      "Content-Length: -3\r\n\r\n",
      "Content-Length: 12abc\r\n\r\n",
      "Content-Length: 2\r\nX-Bad: \xff\xfe\r\n\r\n{}",
  };
  for (const auto &header : brokenHeaders) {
    SCOPED_TRACE(header.substr(0, 40));
    auto bridge = startBridge({"mcp"});
    bridge->write(header);
    // The bridge ends by itself, standard input still open.
    EXPECT_EQ(bridge->wait(), 0);
    EXPECT_EQ(bridge->readRemainingOutput(), "");
  }
}

TEST(BridgeJSONRPC, SeveralMessagesInOneWriteAreAnsweredInOrder) {
  auto bridge = startBridge({"mcp"});
  std::string batch;
  for (int i = 0; i < 12; ++i)
    batch += R"({"jsonrpc":"2.0","id":)" + std::to_string(i) + R"(,"method":"ping"})" + "\n";
  bridge->write(batch);
  for (int i = 0; i < 12; ++i)
    ASSERT_EQ(bridge->readLine(), R"({"id":)" + std::to_string(i) + R"(,"jsonrpc":"2.0","result":{}})");
}

// Waits until the bridge serves, so that a signal finds its handler installed.
std::unique_ptr<Bridge> startServingBridge() {
  auto bridge = startBridge({"mcp"});
  bridge->write("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"}\n");
  EXPECT_TRUE(bridge->readLine().has_value());
  return bridge;
}

TEST(BridgeSignals, TerminationSignalsCancelTheSessionAndExitWithStatusZero) {
  for (const int number : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(number);
    auto bridge = startServingBridge();
    bridge->signal(number);
    EXPECT_EQ(bridge->wait(), 0);
    const auto lines = logLinesWithEvent(bridge->log(), "signal_received");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with("category=lifecycle event=signal_received "
                                   "outcome=cancelling_transport signal=" +
                                   std::to_string(number)))
        << lines[0];
  }
}

TEST(BridgeSignals, ASecondSignalDuringTheWindDownIsIgnored) {
  auto bridge = startServingBridge();
  bridge->signal(SIGTERM);
  bridge->signal(SIGINT);
  bridge->signal(SIGTERM);
  EXPECT_EQ(bridge->wait(), 0);
  const std::string log = bridge->log();
  EXPECT_EQ(logLinesWithEvent(log, "signal_received").size(), 1u) << log;
  EXPECT_TRUE(logLinesWithEvent(log, "shutdown_grace_expired").empty()) << log;
}

TEST(BridgeOutput, AHostThatStopsReadingLosesTheConnection) {
  auto bridge = startServingBridge();
  bridge->setOutputPipeSize(4096);
  // Nobody reads the answers: the pipe fills after a few, sixteen more wait, and the
  // next one ends the connection, though the bridge's input stays open.
  const std::string longId(1000, 'i');
  std::string batch;
  for (int i = 0; i < 40; ++i)
    batch += R"({"jsonrpc":"2.0","id":")" + longId + std::to_string(i) + R"(","method":"ping"})" + "\n";
  bridge->write(batch);
  EXPECT_EQ(bridge->wait(), 0);
  const std::string output = bridge->readRemainingOutput();
  EXPECT_LT(std::count(output.begin(), output.end(), '\n'), 40);
}

TEST(BridgeOutput, AClosedOutputPipeEndsTheSession) {
  auto bridge = startServingBridge();
  bridge->closeOutput();
  bridge->write("{\"jsonrpc\":\"2.0\",\"id\":2,\"method\":\"ping\"}\n");
  EXPECT_EQ(bridge->wait(), 0);
  const auto closed = logLinesWithEvent(bridge->log(), "transport_closed");
  ASSERT_EQ(closed.size(), 1u);
  EXPECT_TRUE(closed[0].ends_with("errno=32 transport=stdio")) << closed[0];
}

TEST(BridgeLogFile, WithoutAnExplicitDirectoryTheLogJoinsTheHostsNewestSession) {
  TemporaryDirectory home;
  const std::string sessions = home / ".config/Tavix/logs";
  std::filesystem::create_directories(sessions + "/20260101T000000");
  std::filesystem::create_directories(sessions + "/20260102T000000");
  writeFile(sessions + "/20260101T000000/main.log", "");
  auto bridge = startBridge({"mcp"}, {{"HOME", home.path()}, {"TAVIX_CU_LOG_DIR", " "}});
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
  EXPECT_EQ(bridge->errorOutput(), "");
  const auto attached = logLinesWithEvent(
      readFile(sessions + "/20260101T000000/computer-use-runtime.log"), "stderr_sink_attached");
  ASSERT_EQ(attached.size(), 1u);
  EXPECT_TRUE(attached[0].ends_with(
      " logPath=~/.config/Tavix/logs/20260101T000000/computer-use-runtime.log"))
      << attached[0];
}

// A copy of the executable in a directory of its own, with or without an information
// dictionary beside it.
struct BridgeCopy {
  explicit BridgeCopy(std::optional<PropertyListDictionary> info,
                      std::string_view subdirectory = "") {
    executable = directory / (std::string(subdirectory) + "TavixComputerUseBridge");
    std::filesystem::create_directories(std::filesystem::path(executable).parent_path());
    std::filesystem::copy_file(bridgePath, executable);
    if (info)
      writePropertyList(directory / "Info.plist", *info, PropertyListFormat::xml);
  }
  TemporaryDirectory directory;
  std::string executable;
};

TEST(BridgeParentAuthorization, WithTheCheckOnAnUnsignedParentIsRefused) {
  const std::vector<std::optional<PropertyListDictionary>> infos = {
      PropertyListDictionary{{"TavixComputerUseEnforceSenderAuthorization", true}},
      std::nullopt, // no information dictionary: the check is on by default
  };
  for (const auto &info : infos) {
    SCOPED_TRACE(info ? "enforcing Info.plist" : "no Info.plist");
    const BridgeCopy copy(info);
    auto bridge = startBridge({"mcp"}, {}, copy.executable);
    EXPECT_EQ(bridge->wait(), 1);
    EXPECT_EQ(bridge->readRemainingOutput(), "");
    const auto lines = logLinesWithEvent(bridge->log(), "startup_rejected");
    ASSERT_EQ(lines.size(), 1u) << bridge->log();
    // The error's text never reaches the log: error texts can quote anything.
    EXPECT_NE(lines[0].find(" level=error process=Bridge pid="), std::string::npos) << lines[0];
    EXPECT_TRUE(lines[0].ends_with(" category=lifecycle event=startup_rejected "
                                   "error=[redacted-string-error] reason=parent_authorization"))
        << lines[0];
    EXPECT_TRUE(logLinesWithEvent(bridge->log(), "transport_started").empty());
  }
}

TEST(BridgeParentAuthorization, WithoutAModeWordTheUsageErrorComesBeforeAnyCheck) {
  const BridgeCopy copy(PropertyListDictionary{{"TavixComputerUseEnforceSenderAuthorization", true}});
  auto bridge = startBridge({}, {}, copy.executable);
  EXPECT_EQ(bridge->wait(), 1);
  EXPECT_EQ(logLinesWithEvent(bridge->log(), "invalid_command").size(), 1u);
  EXPECT_TRUE(logLinesWithEvent(bridge->log(), "startup_rejected").empty());
}

TEST(BridgeParentAuthorization, TheInstalledLayoutFindsTheShippedInformation) {
  // bin/ and share/<executable name>/, as an install lays them out.
  const BridgeCopy copy(std::nullopt, "bin/");
  std::filesystem::create_directories(copy.directory / "share/TavixComputerUseBridge");
  std::filesystem::copy_file(std::filesystem::path(bridgePath).parent_path() / "Info.plist",
                             copy.directory / "share/TavixComputerUseBridge/Info.plist");
  auto bridge = startBridge({"mcp"}, {}, copy.executable);
  bridge->write("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"}\n");
  EXPECT_EQ(bridge->readLine(), R"({"id":1,"jsonrpc":"2.0","result":{}})");
  bridge->closeInput();
  EXPECT_EQ(bridge->wait(), 0);
}

} // namespace
} // namespace tavix::test
