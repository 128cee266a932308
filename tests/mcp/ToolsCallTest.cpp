// "tools/call" in the server: the correlation id of each call, the host's turn context,
// the start and end of every call in the log, and every failure as an error result.

#include "mcp/ToolsCall.h"

#include "fakes/BlockingToolDispatcher.h"
#include "fakes/CapturedLog.h"
#include "fakes/FakeMessageTransport.h"
#include "testing/ToolCallHarness.h"

#include <gtest/gtest.h>

#include <barrier>
#include <future>
#include <stdexcept>
#include <thread>

namespace tavix::test {
namespace {

using nlohmann::json;


std::string fieldsOf(const std::string &line, std::string_view event) {
  const std::string marker = " event=" + std::string(event) + " ";
  const size_t at = line.find(marker);
  std::string fields = at == std::string::npos ? line : line.substr(at + marker.size());
  if (fields.ends_with('\n'))
    fields.pop_back();
  return fields;
}

TEST(ReadTurnContext, OnlyANonBlankSessionMakesAContext) {
  const struct {
    const char *meta;
    std::optional<ComputerUseHostTurnContext> context;
  } cases[] = {
      {R"({"com.tavix/turnContext":{"sessionId":"s","turnId":"t"}})", ComputerUseHostTurnContext{"s", "t"}},
      {R"({"com.tavix/turnContext":{"sessionId":" s\n","turnId":"\tt "}})", ComputerUseHostTurnContext{"s", "t"}},
      {R"({"com.tavix/turnContext":{"sessionId":"s","turnId":"  "}})", ComputerUseHostTurnContext{"s", std::nullopt}},
      {R"({"com.tavix/turnContext":{"sessionId":"s","turnId":7}})", ComputerUseHostTurnContext{"s", std::nullopt}},
      {R"({"com.tavix/turnContext":{"sessionId":"s"}})", ComputerUseHostTurnContext{"s", std::nullopt}},
      {R"({"com.tavix/turnContext":{"sessionId":"  ","turnId":"t"}})", std::nullopt},
      {R"({"com.tavix/turnContext":{"sessionId":""}})", std::nullopt},
      {R"({"com.tavix/turnContext":{"sessionId":1}})", std::nullopt},
      {R"({"com.tavix/turnContext":{"turnId":"t"}})", std::nullopt},
      {R"({"com.tavix/turnContext":"s"})", std::nullopt},
      {R"({"com.tavix/turncontext":{"sessionId":"s"}})", std::nullopt},
      {R"({"sessionId":"s"})", std::nullopt},
      {R"("s")", std::nullopt},
      {"null", std::nullopt},
  };
  for (const auto &c : cases) {
    const json meta = json::parse(c.meta);
    EXPECT_EQ(readTurnContext(&meta), c.context) << c.meta;
  }
  EXPECT_EQ(readTurnContext(nullptr), std::nullopt);
}

TEST(ToolsCall, DurationsAreRoundedToTheNearestMillisecond) {
  using std::chrono::microseconds;
  const std::pair<std::chrono::steady_clock::duration, int64_t> cases[] = {
      {microseconds(0), 0},    {microseconds(499), 0},      {microseconds(500), 1},
      {microseconds(1499), 1}, {microseconds(1500), 2},     {std::chrono::seconds(120), 120000},
  };
  for (const auto &[elapsed, milliseconds] : cases)
    EXPECT_EQ(roundedMilliseconds(elapsed), milliseconds) << elapsed.count();
}

TEST(ToolsCall, TheStartOfEachCallIsLoggedWithItsToolIdAndApp) {
  const std::string app120 = std::string(119, 'a') + "\xc3\xa9";     // 120 characters, 121 bytes
  const std::string app121 = std::string(120, 'a') + "e\xcc\x81";    // 121 characters: e and its accent are one
  const struct {
    json params;
    std::optional<JSONRPCId> id;
    std::string fields;
  } cases[] = {
      {{{"name", "click"}, {"arguments", {{"app", "Notes"}}}}, JSONRPCId(1), "appBundleID=Notes mcpRequestID=1 tool=click"},
      {{{"name", "click"}, {"arguments", {{"app", 7}}}}, JSONRPCId("abc"), "appBundleID=<none> mcpRequestID=abc tool=click"},
      {{{"name", "list_apps"}}, std::nullopt, "appBundleID=<none> mcpRequestID=notification tool=list_apps"},
      {{{"name", "click"}, {"arguments", {{"app", app120}}}}, JSONRPCId(2), "appBundleID=" + app120 + " mcpRequestID=2 tool=click"},
      {{{"name", "click"}, {"arguments", {{"app", app121}}}}, JSONRPCId(3),
       "appBundleID=" + std::string(120, 'a') + "... mcpRequestID=3 tool=click"},
  };
  for (const auto &c : cases) {
    CapturedLog log;
    ToolCallHarness harness;
    harness.runtime().scriptDefault(textReply);
    harness.call(c.params, c.id);
    const auto started = log.withEvent("tool_call_started");
    ASSERT_EQ(started.size(), 1u);
    EXPECT_NE(started[0].find(" level=info "), std::string::npos);
    EXPECT_NE(started[0].find(" category=transport "), std::string::npos);
    EXPECT_EQ(fieldsOf(started[0], "tool_call_started").substr(fieldsOf(started[0], "tool_call_started").find(' ') + 1),
              c.fields);
  }
}

// Tools that throw, for the one outcome a gateway never produces.
class ThrowingTools final : public MCPTools {
public:
  const json &list() const override {
    static const json none = json::array();
    return none;
  }
  ToolCallResult dispatch(const std::string &, const json &, const std::optional<ComputerUseHostTurnContext> &) override {
    throw std::runtime_error("exploded");
  }
};

TEST(ToolsCall, EveryOutcomeIsAResultAndItsEndIsLoggedAtItsLevel) {
  const struct {
    const char *name;
    json params;
    ScriptedRequestTransport::Reply reply;
    std::string result;
    std::string level;
    std::string fields; // after durationMs
  } cases[] = {
      {"success", {{"name", "list_apps"}}, textReply, R"({"content":[{"text":"done","type":"text"}]})", "info",
       "outcome=success tool=list_apps"},
      {"runtime failure in the response",
       {{"name", "list_apps"}},
       std::string(R"({"content":[{"type":"text","text":"no"}],"isError":true})"),
       R"({"content":[{"text":"no","type":"text"}],"isError":true})",
       "info",
       "outcome=tool_error tool=list_apps"},
      {"argument error",
       {{"name", "type_text"}, {"arguments", {{"app", "Notes"}}}},
       textReply,
       R"({"content":[{"text":"Missing required argument: text","type":"text"}],"isError":true})",
       "warning",
       "error=\"ToolError(domain=tavix.tools,code=0)\" outcome=tool_error tool=type_text"},
      {"client failure",
       {{"name", "list_apps"}},
       tl::unexpected(ClientFailure(ClientError::runtimeNotRunning())),
       R"({"content":[{"text":"Internal error: TavixComputerUseRuntime is not running","type":"text"}],"isError":true})",
       "error",
       "error=\"ClientError(domain=tavix.client,code=4)\" outcome=internal_error tool=list_apps"},
      {"reply that is not the response",
       {{"name", "list_apps"}},
       std::string(R"({"content":"x","isError":false})"),
       R"({"content":[{"text":"Internal error: Response decoding failed for ComputerUseIPCListAppsRequest: Expected an array for \"content\"","type":"text"}],"isError":true})",
       "error",
       "error=\"ComputerUseClientError(domain=tavix.client,code=0)\" outcome=internal_error tool=list_apps"},
      {"arguments that are not an object count as none",
       {{"name", "get_app_state"}, {"arguments", "Notes"}},
       textReply,
       R"({"content":[{"text":"Missing required argument: app","type":"text"}],"isError":true})",
       "warning",
       "error=\"ToolError(domain=tavix.tools,code=0)\" outcome=tool_error tool=get_app_state"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    CapturedLog log;
    ToolCallHarness harness;
    harness.runtime().scriptDefault(c.reply);
    EXPECT_EQ(harness.call(c.params), answer(c.result));
    const auto finished = log.withEvent("tool_call_finished");
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_NE(finished[0].find(" level=" + c.level + " "), std::string::npos) << finished[0];
    const std::string fields = fieldsOf(finished[0], "tool_call_finished");
    const std::string afterRequest = fields.substr(fields.find(' ') + 1); // requestId first
    ASSERT_TRUE(afterRequest.starts_with("durationMs=")) << fields;
    EXPECT_EQ(afterRequest.substr(afterRequest.find(' ') + 1), c.fields);
  }
}

TEST(ToolsCall, AToolThatThrowsIsAnInternalErrorResult) {
  CapturedLog log;
  ComputerUseMCPServer server(MCPServerMode::computerUse, std::make_shared<ThrowingTools>());
  FakeMessageTransport output;
  const JSONRPCRequest request{"2.0", JSONRPCId(4), "tools/call", json{{"name", "x"}}};
  server.methods().at("tools/call")(request, JSONRPCReply(request.id, request.method,
                                                          std::make_shared<JSONRPCResponseChannel>(output)));
  EXPECT_EQ(output.takeSent(),
            std::vector<std::string>{
                R"({"id":4,"jsonrpc":"2.0","result":{"content":[{"text":"Internal error: exploded","type":"text"}],"isError":true}})"});
  const auto finished = log.withEvent("tool_call_finished");
  ASSERT_EQ(finished.size(), 1u);
  EXPECT_NE(finished[0].find(" level=error "), std::string::npos);
  EXPECT_NE(finished[0].find(" outcome=internal_error tool=x"), std::string::npos) << finished[0];
}

TEST(ToolsCall, AMissingToolNameIsTheOnlyJSONRPCError) {
  ToolCallHarness harness;
  for (const json &params : {json::object(), json{{"name", 7}}, json{{"name", nullptr}}, json{{"arguments", {}}}})
    EXPECT_EQ(harness.call(params), R"({"error":{"code":-32602,"message":"Invalid params: missing tool name"},"id":1,"jsonrpc":"2.0"})");
  EXPECT_TRUE(harness.runtime().sent().empty());
}

TEST(ToolsCall, ANotificationStillRunsItsTool) {
  ToolCallHarness harness;
  harness.runtime().scriptDefault(textReply);
  EXPECT_EQ(harness.call({{"name", "press_key"}, {"arguments", {{"app", "Notes"}, {"key", "a"}}}}, std::nullopt), std::nullopt);
  EXPECT_EQ(harness.runtime().sentTypes(), std::vector<std::string>{"ComputerUseIPCAppPerformActionRequest"});
}

TEST(ToolsCall, ACallOutsideARequestGetsACorrelationIdOfItsOwn) {
  CapturedLog log;
  ToolCallHarness harness;
  harness.runtime().scriptDefault(textReply);
  harness.call({{"name", "list_apps"}});
  harness.call({{"name", "list_apps"}});
  const auto sent = harness.runtime().sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].correlationID.size(), 36u);
  EXPECT_NE(sent[0].correlationID, sent[1].correlationID);
  const auto started = log.withEvent("tool_call_started");
  ASSERT_EQ(started.size(), 2u);
  EXPECT_NE(started[0].find(" requestId=" + sent[0].correlationID + " "), std::string::npos) << started[0];
  EXPECT_NE(log.withEvent("tool_call_finished").at(1).find(" requestId=" + sent[1].correlationID + " "), std::string::npos);
  EXPECT_EQ(RequestContext::current()->correlationID(), ""); // nothing left behind
}

TEST(ToolsCall, TheRequestQueuesCorrelationIdFollowsTheCallToTheRuntime) {
  CapturedLog log;
  ToolCallHarness harness;
  harness.runtime().scriptDefault(textReply);
  FakeMessageTransport messages;
  JSONRPCDispatcher dispatcher(messages, harness.server().methods());
  auto serving = std::async(std::launch::async, [&] { dispatcher.serve(); });
  messages.deliver(R"({"jsonrpc":"2.0","id":9,"method":"tools/call","params":{"name":"list_apps"}})");
  EXPECT_EQ(messages.sent(1).at(0), R"({"id":9,"jsonrpc":"2.0","result":{"content":[{"text":"done","type":"text"}]}})");
  messages.endInput();
  serving.wait();
  const std::string correlation = harness.runtime().sent().at(0).correlationID;
  EXPECT_EQ(correlation.size(), 36u);
  for (const auto event : {"tool_call_started", "tool_call_finished"})
    EXPECT_NE(log.withEvent(event).at(0).find(" requestId=" + correlation + " "), std::string::npos) << event;
}

TEST(ToolsCall, ConcurrentCallsNeverSeeEachOthersCorrelationOrSession) {
  constexpr int calls = 6;
  ToolCallHarness harness;
  harness.runtime().scriptDefault(textReply);
  harness.runtime().hold(); // every call waits in the runtime until all are in flight
  std::vector<std::string> correlations(calls);
  std::vector<std::jthread> threads;
  for (int i = 0; i < calls; ++i)
    threads.emplace_back([&, i] {
      correlations[i] = "correlation-" + std::to_string(i);
      WithRequestContext scope(std::make_shared<const RequestContext>(correlations[i], std::stop_token()));
      const json arguments = {{"app", "Notes"}, {"key", "k" + std::to_string(i)}, {"_meta", {{"sessionId", "s" + std::to_string(i)}}}};
      harness.call({{"name", "press_key"}, {"arguments", arguments}});
    });
  const auto inFlight = harness.runtime().waitForSent(calls);
  harness.runtime().release();
  threads.clear();
  ASSERT_EQ(inFlight.size(), size_t(calls));
  std::set<std::string> seen;
  for (const auto &request : inFlight) {
    const json body = json::parse(request.body);
    const std::string key = body["action"]["pressKey"]["_0"]["key"];
    const std::string i = key.substr(1);
    EXPECT_EQ(body["sessionId"], "s" + i);
    EXPECT_EQ(request.sessionID, "s" + i);
    EXPECT_EQ(request.correlationID, "correlation-" + i);
    seen.insert(i);
  }
  EXPECT_EQ(seen.size(), size_t(calls));
}

} // namespace
} // namespace tavix::test
