// "tools/call" in the server: the host's turn context, the correlation id of each call,
// every outcome as a result framed by two log lines, and the heartbeat that the first
// call to reach the runtime app starts and the end of the connection stops. The
// heartbeat's waits are the test's to pass.

#include "mcp/ToolsCall.h"

#include "fakes/ReleaseGate.h"
#include "mcp/LogLines.h"
#include "testing/Pipe.h"
#include "testing/ToolCallHarness.h"

#include <gtest/gtest.h>

#include <future>
#include <regex>
#include <stdexcept>
#include <thread>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Strings = std::vector<std::string>;
const json listApps = {{"name", "list_apps"}};

TEST(ToolsCall, OnlyANonBlankSessionMakesATurnContext) {
  const std::pair<const char *, std::optional<ComputerUseHostTurnContext>> cases[] = {
      {R"({"com.tavix/turnContext":{"sessionId":" s\n","turnId":"\tt "}})", ComputerUseHostTurnContext{"s", "t"}},
      {R"({"com.tavix/turnContext":{"sessionId":"s","turnId":"  "}})", ComputerUseHostTurnContext{"s", std::nullopt}},
      {R"({"com.tavix/turnContext":{"sessionId":"s","turnId":7}})", ComputerUseHostTurnContext{"s", std::nullopt}},
      {R"({"com.tavix/turnContext":{"sessionId":"  ","turnId":"t"}})", std::nullopt},
      {R"({"com.tavix/turnContext":{"sessionId":1}})", std::nullopt},
      {R"({"com.tavix/turnContext":{"turnId":"t"}})", std::nullopt},
      {R"({"com.tavix/turnContext":"s"})", std::nullopt},
      {R"({"com.tavix/turncontext":{"sessionId":"s"}})", std::nullopt},
      {R"("s")", std::nullopt},
  };
  for (const auto &[text, context] : cases) {
    const json meta = json::parse(text);
    EXPECT_EQ(readTurnContext(&meta), context) << text;
  }
  EXPECT_EQ(readTurnContext(nullptr), std::nullopt);
}

TEST(ToolsCall, TheLogRoundsDurationsAndCutsTheAppAfter120Characters) {
  using std::chrono::microseconds;
  for (const auto &[elapsed, rounded] : {std::pair(microseconds(499), 0), std::pair(microseconds(500), 1),
                                         std::pair(microseconds(1499), 1), std::pair(microseconds(1500), 2)})
    EXPECT_EQ(roundedMilliseconds(elapsed), rounded) << elapsed.count();
  const std::string app120 = std::string(119, 'a') + "\xc3\xa9";  // 120 characters, 121 bytes
  const std::string app121 = std::string(120, 'a') + "e\xcc\x81"; // 121: e and its accent are one
  EXPECT_EQ(appLogText({{"app", app120}}), app120);
  EXPECT_EQ(appLogText({{"app", app121}}), std::string(120, 'a') + "...");
}

// The lines that frame each call, without its duration, which varies.
Strings callLines(const CapturedLog &log) {
  Strings lines;
  for (const char *event : {"tool_call_started", "tool_call_finished"})
    for (const auto &line : logLines(log, event))
      lines.push_back(std::regex_replace(line, std::regex(" durationMs=[^ ]*"), ""));
  return lines;
}

TEST(ToolsCall, EveryOutcomeIsAResultFramedByTwoLogLines) {
  const auto error = [](const std::string &text) { return answer(R"({"content":[{"text":")" + text + R"(","type":"text"}],"isError":true})"); };
  const std::string missingName = R"({"error":{"code":-32602,"message":"Invalid params: missing tool name"},"id":1,"jsonrpc":"2.0"})";
  // `started`, `level` and `finished`: the fields of the lines that frame the call, but the tool.
  const struct { json params; std::optional<JSONRPCId> id; ScriptedRequestTransport::Reply reply; std::optional<std::string> answer;
                 std::string started, level, finished; } cases[] = {
      {listApps, JSONRPCId(1), textReply, answer(doneResult), "appBundleID=<none> mcpRequestID=1", "info", "outcome=success"},
      {{{"name", "list_apps"}, {"arguments", {{"app", 7}}}}, JSONRPCId("abc"),
       std::string(R"({"content":[{"type":"text","text":"no"}],"isError":true})"),
       R"({"id":"abc","jsonrpc":"2.0","result":{"content":[{"text":"no","type":"text"}],"isError":true}})",
       "appBundleID=<none> mcpRequestID=abc", "info", "outcome=tool_error"},
      // A notification's tool still runs.
      {{{"name", "press_key"}, {"arguments", {{"app", "Notes"}, {"key", "a"}}}}, std::nullopt, textReply, std::nullopt,
       "appBundleID=Notes mcpRequestID=notification", "info", "outcome=success"},
      // Arguments that are not an object count as none.
      {{{"name", "get_app_state"}, {"arguments", "Notes"}}, JSONRPCId(1), textReply, error("Missing required argument: app"),
       "appBundleID=<none> mcpRequestID=1", "warning", "error=\"ToolError(domain=tavix.tools,code=0)\" outcome=tool_error"},
      {listApps, JSONRPCId(1), tl::unexpected(ClientFailure(ClientError::runtimeNotRunning())),
       error("Internal error: TavixComputerUseRuntime is not running"), "appBundleID=<none> mcpRequestID=1", "error",
       "error=\"ClientError(domain=tavix.client,code=4)\" outcome=internal_error"},
      // A missing or non-text name is the only JSON-RPC error; no tool runs.
      {json::object(), JSONRPCId(1), textReply, missingName},
      {{{"name", nullptr}, {"arguments", {{"app", "Notes"}}}}, JSONRPCId(1), textReply, missingName},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.params.dump());
    CapturedLog log;
    ToolCallHarness harness;
    harness.runtime().scriptDefault(c.reply);
    {
      // The call, its log lines and its requests to the runtime app carry the request's id.
      WithRequestContext request(std::make_shared<const RequestContext>("r1", std::stop_token()));
      EXPECT_EQ(harness.call(c.params, c.id), c.answer);
    }
    for (const auto &sent : harness.runtime().sent())
      EXPECT_EQ(sent.correlationID, "r1");
    const auto name = c.params.find("name");
    Strings lines; // none when no tool runs
    if (name != c.params.end() && name->is_string())
      lines = {"level=info category=transport event=tool_call_started requestId=r1 " + c.started + " tool=" + name->get<std::string>(),
               "level=" + c.level + " category=transport event=tool_call_finished requestId=r1 " + c.finished + " tool=" +
                   name->get<std::string>()};
    EXPECT_EQ(callLines(log), lines);
  }
}

TEST(ToolsCall, AToolThatThrowsIsAnInternalErrorResult) {
  struct ThrowingTools final : MCPTools {
    const json &list() const override { throw std::logic_error("not listed"); }
    ToolCallResult dispatch(const std::string &, const json &, const std::optional<ComputerUseHostTurnContext> &) override {
      throw std::runtime_error("exploded");
    }
  };
  CapturedLog log;
  ComputerUseMCPServer server(MCPServerMode::computerUse, std::make_shared<ThrowingTools>());
  FakeMessageTransport output;
  server.methods().at("tools/call")({"2.0", JSONRPCId(1), "tools/call", json{{"name", "x"}}},
                                    JSONRPCReply(JSONRPCId(1), "tools/call", std::make_shared<JSONRPCResponseChannel>(output)));
  EXPECT_EQ(output.takeSent(), Strings{answer(R"({"content":[{"text":"Internal error: exploded","type":"text"}],"isError":true})")});
  EXPECT_TRUE(callLines(log).at(1).ends_with(" error=\"std::exception(domain=tavix.tools,code=0)\" outcome=internal_error tool=x"));
  EXPECT_TRUE(callLines(log).at(1).starts_with("level=error category=transport event=tool_call_finished requestId="));
}

const std::string healthReply = R"({"generationID":"g","runtimePID":7,"bundleIdentifier":"b","bundlePath":"/r","isHealthy":true})";

// A server over a runtime that answers, and counts as connected once it has. The waits
// of its heartbeat are the gate's, named after their number and interval.
struct SteppedServer : ReleaseGate {
  explicit SteppedServer(ScriptedRequestTransport::Reply heartbeat = healthReply) {
    harness.runtime().establishOnReply(true);
    harness.runtime().scriptDefault(textReply);
    harness.runtime().script("ComputerUseIPCHealthRequest", {std::move(heartbeat)});
  }
  static std::string wait(int n, std::chrono::milliseconds interval = 30s) {
    return "wait " + std::to_string(n) + " of " + std::to_string(interval.count()) + " ms";
  }
  std::vector<ScriptedRequestTransport::Sent> heartbeats() {
    auto sent = harness.runtime().sent();
    std::erase_if(sent, [](const auto &request) { return request.requestType != "ComputerUseIPCHealthRequest"; });
    return sent;
  }

  int waits = 0; // counted on the heartbeat's thread
  ToolCallHarness harness{MCPServerMode::computerUse, {}, {.heartbeat = {.wait = [this](auto interval, std::stop_token stop) {
                                                             pass(wait(++waits, interval), "", std::move(stop));
                                                           }}}};
};

TEST(RuntimeHeartbeat, OnlyACallThatEstablishesTheConnectionStartsItAndOnlyOnce) {
  const struct { bool establishedBefore; ScriptedRequestTransport::Reply reply; bool starts; } cases[] = {
      {false, textReply, true},
      {false, std::string(R"({"content":[{"type":"text","text":"x"}],"isError":true})"), true},
      {true, textReply, false},
      {false, tl::unexpected(ClientFailure(ClientError::runtimeNotRunning())), false},
  };
  for (const auto &c : cases) {
    SteppedServer s;
    s.harness.runtime().setEstablished(c.establishedBefore);
    s.harness.runtime().scriptDefault(c.reply);
    s.harness.call(listApps);
    EXPECT_EQ(s.harness.server().isRuntimeHeartbeatRunning(), c.starts) << (&c - cases);
    if (!c.starts)
      continue;
    s.started(1); // the heartbeat waits, so nothing but the calls changes the connection
    for (int i = 0; i < 2; ++i)
      s.harness.runtime().setEstablished(false), s.harness.call(listApps); // each establishes it anew
    s.release(s.wait(1));
    s.release(s.wait(2));
    EXPECT_EQ(s.started(3), (Strings{s.wait(1), s.wait(2), s.wait(3)})); // sent at once, then after each
    const auto sent = s.heartbeats();
    ASSERT_EQ(sent.size(), 3u);
    for (const auto &request : sent) {
      EXPECT_EQ(request.body, R"({"refreshClientActivity":true})");
      EXPECT_EQ(request.timeoutSeconds, 2.0);
      EXPECT_NE(request.thread, std::this_thread::get_id());
      EXPECT_EQ(request.thread, sent[0].thread);
    }
  }
}

TEST(RuntimeHeartbeat, FailuresAreLoggedAtMostOnceEveryTwoMinutes) {
  std::atomic<std::chrono::steady_clock::duration> elapsed{};
  const auto start = std::chrono::steady_clock::now();
  CapturedLog log(nullptr, [&] { return start + elapsed.load(); });
  SteppedServer s(tl::unexpected(ClientFailure(ClientError::sendFailed(-1712, "ComputerUseIPCHealthRequest", 2))));
  s.harness.call(listApps);
  const std::string failure =
      "level=warning category=transport event=runtime_heartbeat_failed error=\"ClientError(domain=tavix.client,code=-1712)\"";
  const std::pair<std::chrono::steady_clock::duration, Strings> steps[] = {
      {0s, {failure}}, {0s, {failure}}, {119999ms, {failure}}, // the last moment inside the interval
      {120s, {failure, failure + " suppressedCount=2"}}};
  for (int i = 0; i < 4; ++i) {
    elapsed = steps[i].first;
    if (i > 0)
      s.release(s.wait(i));
    s.started(i + 1);
    EXPECT_EQ(logLines(log, "runtime_heartbeat_failed"), steps[i].second) << i;
  }
  EXPECT_EQ(s.heartbeats().size(), 4u); // the loop keeps running
}

// One connection over pipes, ended by the server's stop while a call and a heartbeat wait
// in the runtime: both are cancelled, and the heartbeat ends with the connection.
TEST(RuntimeHeartbeat, TheEndOfTheConnectionStopsItAndCancelsTheOneUnderWay) {
  CapturedLog log;
  SteppedServer s;
  Pipe input, output;
  std::promise<void> ended;
  std::jthread serving([&](std::stop_token stop) { // stopped also when an assertion ends the test early
    runStdioTransport(s.harness.server(), input.readEnd(), output.writeEnd(), stop);
    ended.set_value();
  });
  const auto framed = [](const std::string &body) { return "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body; };
  input.write(framed(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"list_apps"}})"));
  ASSERT_EQ(s.started(1), Strings{s.wait(1)}); // the call reached the runtime and started the heartbeat
  s.harness.runtime().hold();
  input.write(framed(R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"list_apps"}})"));
  s.release(s.wait(1));
  s.harness.runtime().waitForSent(4); // the second call and the second heartbeat wait in the runtime
  serving.request_stop();
  EXPECT_EQ(ended.get_future().wait_for(10s), std::future_status::ready);
  input.closeWrite(); // so that a connection the stop did not end still ends
  serving.join();
  EXPECT_FALSE(s.harness.server().isRuntimeHeartbeatRunning());
  EXPECT_EQ(s.started(1).size(), 1u);                              // it ended without waiting again
  EXPECT_EQ(logLines(log, "runtime_heartbeat_failed"), Strings{}); // a cancelled heartbeat is no failure
  // The answer goes out in the framing the host chose; the call the stop cancelled gets none.
  EXPECT_EQ(output.readAvailable(), framed(answer(doneResult)));
}

} // namespace
} // namespace tavix::test
