// JSON-RPC over a transport without descriptors: the reply that answers each request
// exactly once (or never, for a notification or a cancelled request), and the dispatcher
// that answers each message, runs one request at a time and refuses or cancels the rest.

#include "mcp/JSONRPCDispatcher.h"

#include "fakes/FakeMessageTransport.h"
#include "fakes/ReleaseGate.h"
#include "mcp/LogLines.h"
#include "support/RequestContext.h"

#include <gtest/gtest.h>

#include <future>
#include <latch>
#include <set>
#include <stdexcept>
#include <thread>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Strings = std::vector<std::string>;

// The reply to request 7, with what it sent, logged and did to its transport.
struct Replying {
  CapturedLog log;
  FakeMessageTransport transport;
  std::shared_ptr<JSONRPCResponseChannel> channel = std::make_shared<JSONRPCResponseChannel>(transport);
  std::stop_source cancellation;
  std::optional<JSONRPCReply> reply{std::in_place, JSONRPCId(7), "m", channel, cancellation.get_token()};
  void answer(json result = json::object()) { (*reply)(std::move(result)); }
};

TEST(JSONRPCReply, AnswersExactlyOnceAndNeverACancelledRequestThatEndsWithoutOne) {
  const std::string ok = R"({"id":7,"jsonrpc":"2.0","result":{}})", eight = R"({"id":8,"jsonrpc":"2.0","result":{}})";
  const std::string unanswered =
      R"({"error":{"code":-32603,"message":"Internal error: the server failed to answer this request."},"id":7,"jsonrpc":"2.0"})";
  const std::string unansweredLog = "level=error category=transport event=mcp_request_unanswered mcpRequestID=7 method=m";
  const std::string refusedLog = "level=error category=transport event=mcp_response_refused mcpRequestID=7 method=m reason=already_answered";
  // Each case does something with the reply, which is then dropped.
  const struct { const char *name; void (*handle)(Replying &); Strings sent, logged = {}; bool closesTransport = false; } cases[] = {
      {"answered", [](Replying &r) { r.answer(); }, {ok}},
      {"answered with an error", [](Replying &r) { r.reply->error(-1, "no"); }, {R"({"error":{"code":-1,"message":"no"},"id":7,"jsonrpc":"2.0"})"}},
      {"dropped", [](Replying &) {}, {unanswered}, {unansweredLog}},
      {"dropped after cancellation", [](Replying &r) { r.cancellation.request_stop(); }, {}},
      {"answered after cancellation", [](Replying &r) { r.cancellation.request_stop(), r.answer(); }, {ok}},
      {"answered twice", [](Replying &r) { r.reply->error(-1, "no"), r.answer(); },
       {R"({"error":{"code":-1,"message":"no"},"id":7,"jsonrpc":"2.0"})"}, {refusedLog}},
      {"moved to a thread and dropped there", [](Replying &r) { std::thread([m = std::move(*r.reply)] {}).join(); },
       {unanswered}, {unansweredLog}},
      {"answered, moved and answered again", [](Replying &r) { r.answer(), JSONRPCReply(std::move(*r.reply))({}); }, {ok}, {refusedLog}},
      {"replaced unanswered", [](Replying &r) { *r.reply = JSONRPCReply(JSONRPCId(8), "m", r.channel), r.answer(); },
       {unanswered, eight}, {unansweredLog}},
      {"replaced after answering", [](Replying &r) { r.answer(), *r.reply = JSONRPCReply(JSONRPCId(8), "m", r.channel), r.answer(); },
       {ok, eight}},
      {"answered after the channel closed", [](Replying &r) { r.channel->close(), r.answer(); }, {},
       {"level=warning category=transport event=mcp_response_dropped mcpRequestID=7 method=m reason=connection_closed"}},
      {"answered with text that is not UTF-8", [](Replying &r) { r.answer({{"text", "\xff\xfe"}}); }, {},
       {"level=error category=transport event=response_serialization_failed"}, true},
  };
  for (const auto &c : cases) {
    Replying r;
    c.handle(r);
    r.reply.reset();
    EXPECT_EQ(r.transport.takeSent(), c.sent) << c.name;
    EXPECT_EQ(logLines(r.log), c.logged) << c.name;
    EXPECT_EQ(r.transport.closing().stop_requested(), c.closesTransport) << c.name;
  }
}

// Under TSan above all: two handlers racing to answer one request still send one answer.
TEST(JSONRPCReply, TwoThreadsAnsweringAtOnceSendOneAnswer) {
  CapturedLog log;
  FakeMessageTransport transport;
  for (int round = 0; round < 50; ++round) {
    JSONRPCReply reply(JSONRPCId(round), "x", std::make_shared<JSONRPCResponseChannel>(transport));
    std::latch start(2);
    const auto answer = [&](const char *who) { start.arrive_and_wait(); reply({{"by", who}}); };
    std::thread first(answer, "first"), second(answer, "second");
    first.join();
    second.join();
    EXPECT_EQ(transport.takeSent().size(), 1u) << round;
  }
  EXPECT_EQ(log.withEvent("mcp_response_refused").size(), 50u);
}

// A dispatcher serving a fake transport on its own thread, with methods that answer with
// their params ("echo"), throw, keep their reply for the test, or hold their request
// until released or cancelled and then answer only when it was not cancelled ("hold")
// or either way ("hold-answer").
struct Served : ReleaseGate {
  JSONRPCDispatcher::MethodTable methods() {
    const auto hold = [this](const JSONRPCRequest &request) {
      const auto context = RequestContext::current();
      return pass(request.params->at("name"), context->correlationID(), context->cancellation());
    };
    return {{"echo", [](const JSONRPCRequest &request, JSONRPCReply reply) { reply(request.params.value_or(json::object())); }},
            {"throw", [](const JSONRPCRequest &, JSONRPCReply) { throw std::runtime_error("boom"); }},
            {"keep", [this](const JSONRPCRequest &, JSONRPCReply reply) { kept.emplace(std::move(reply)); }},
            {"hold", [hold](const JSONRPCRequest &request, JSONRPCReply reply) {
               if (!hold(request))
                 reply({{"name", request.params->at("name")}});
             }},
            {"hold-answer", [hold](const JSONRPCRequest &request, JSONRPCReply reply) { reply({{"cancelled", hold(request)}}); }}};
  }
  ~Served() { transport.endInput(), serving.wait(); }
  // A null id makes the request a notification.
  void request(const json &id, const std::string &name, const char *method = "hold") {
    transport.deliver(json{{"jsonrpc", "2.0"}, {"method", method}, {"params", {{"name", name}}}, {"id", id}}.dump());
  }
  void cancel(const json &params) { transport.deliver(json{{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", params}}.dump()); }
  // Everything sent before the answer to a request that the reader takes after the
  // messages before: "ping" is answered at once, even while a request runs, "echo" only
  // after the requests in line before it.
  Strings sentSoFar(const std::string &sync = "ping") {
    const std::string id = std::to_string(-++syncs); // an id of its own: the last may not have left the queue yet
    transport.deliver(R"({"jsonrpc":"2.0","method":")" + sync + R"(","id":)" + id + "}");
    Strings sent = transport.sentThrough(R"({"id":)" + id + R"(,"jsonrpc":"2.0","result":{}})");
    transport.takeSent();
    sent.pop_back();
    return sent;
  }

  int syncs = 1000;
  std::optional<JSONRPCReply> kept;
  FakeMessageTransport transport;
  JSONRPCDispatcher dispatcher{transport, methods()};
  std::future<void> serving = std::async(std::launch::async, [this] { dispatcher.serve(); });
};

TEST(JSONRPCDispatcher, AnswersEachMessageExactly) {
  std::vector<std::pair<std::string, Strings>> cases = {
      {R"({"jsonrpc":"2.0","id":1,"method":"echo","params":{"x":[1,"é"]}})", {R"({"id":1,"jsonrpc":"2.0","result":{"x":[1,"é"]}})"}},
      {R"({"jsonrpc":"2.0","id":2,"method":"echo","params":[1,2]})", {R"({"id":2,"jsonrpc":"2.0","result":{}})"}},
      {R"({"jsonrpc":"2.0","id":"t","method":"throw"})",
       {R"({"error":{"code":-32603,"message":"Internal error: the server failed to answer this request."},"id":"t","jsonrpc":"2.0"})"}},
      {R"({"jsonrpc":"2.0","id":6,"method":"Echo"})", {R"({"error":{"code":-32601,"message":"Method not found: Echo"},"id":6,"jsonrpc":"2.0"})"}},
      {R"({"jsonrpc":"2.0","id":7,"method":"notifications/cancelled","params":{"requestId":1}})",
       {R"({"error":{"code":-32601,"message":"Method not found: notifications/cancelled"},"id":7,"jsonrpc":"2.0"})"}},
      {R"({"jsonrpc":"2.0","id":8,"method":"ping","params":{"ignored":true}})", {R"({"id":8,"jsonrpc":"2.0","result":{}})"}},
      {"not json", {R"({"error":{"code":-32700,"message":"Parse error"},"jsonrpc":"2.0"})"}},
  };
  // Notifications are never answered; "keep" is answered after the connection ends, below.
  for (const char *unanswered : {R"({"jsonrpc":"2.0","method":"echo"})", R"({"jsonrpc":"2.0","method":"throw"})",
                                 R"({"jsonrpc":"2.0","method":"ping"})", R"({"jsonrpc":"2.0","id":9,"method":"keep"})"})
    cases.push_back({unanswered, {}});
  for (const char *notARequest : {"[1]", R"("echo")", R"({"id":1,"method":"echo"})", R"({"jsonrpc":2.0,"id":1,"method":"echo"})",
                                  R"({"jsonrpc":"2.0 ","id":1,"method":"echo"})", R"({"jsonrpc":"2.0","id":1})",
                                  R"({"jsonrpc":"2.0","id":1,"method":null})", R"({"jsonrpc":"2.0","id":1,"method":["echo"]})"})
    cases.push_back({notARequest, {R"({"error":{"code":-32600,"message":"Invalid Request"},"jsonrpc":"2.0"})"}});
  // Ids are 64-bit integers (a number without a fraction counts) or texts, 7 and "7"
  // apart; anything else makes the request a notification.
  for (const auto &[id, echoed] : std::vector<std::pair<std::string, std::string>>{
           {"7", "7"}, {"-12", "-12"}, {"\"7\"", "\"7\""}, {"\"\"", "\"\""}, {"3.0", "3"},
           {"9223372036854775807", "9223372036854775807"}, {"9223372036854775808", ""},
           {"-9223372036854775808", "-9223372036854775808"}, {"9223372036854774784.0", "9223372036854774784"},
           {"9223372036854775808.0", ""}, {"-9223372036854775808.0", "-9223372036854775808"},
           {"-9223372036854777856.0", ""}, {"1.5", ""}, {"1e300", ""}, {"null", ""}, {"true", ""}, {"[1]", ""}, {R"({"a":1})", ""}})
    cases.push_back({R"({"jsonrpc":"2.0","method":"echo","id":)" + id + "}",
                     echoed.empty() ? Strings{} : Strings{R"({"id":)" + echoed + R"(,"jsonrpc":"2.0","result":{}})"}});
  CapturedLog log;
  Served s;
  for (const auto &[message, answers] : cases) {
    s.transport.deliver(message);
    EXPECT_EQ(s.sentSoFar("echo"), answers) << message;
  }
  // A request that throws is logged, and when it has an id answered as unanswered.
  EXPECT_EQ(log.withEvent("mcp_request_failed").size(), 2u);
  EXPECT_EQ(log.withEvent("mcp_request_unanswered").size(), 1u);
  // A reply completed after the connection ended is dropped.
  s.transport.endInput();
  s.serving.wait();
  s.kept->operator()(json::object());
  EXPECT_EQ(s.transport.takeSent(), Strings{});
  EXPECT_EQ(log.withEvent("mcp_response_dropped").size(), 1u);
}

std::string answer(int id, const std::string &name) {
  return R"({"id":)" + std::to_string(id) + R"(,"jsonrpc":"2.0","result":{"name":")" + name + "\"}}";
}
std::string refusal(const std::string &id, int code, const std::string &message) {
  return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message + R"("},"id":)" + id + R"(,"jsonrpc":"2.0"})";
}

TEST(JSONRPCDispatcher, OneRequestRunsEightWaitAndTheRestAreRefusedAtOnce) {
  const std::string full = "Request queue is full; retry after the active request finishes.";
  const std::string duplicate = "Request ID is already active on this connection.";
  Served s;
  Strings order, answers;
  for (int i = 1; i <= 9; ++i) {
    s.request(i, order.emplace_back(std::to_string(i)));
    answers.push_back(answer(i, order.back()));
  }
  s.request(10, "over");
  s.request(json(), "quiet"); // a notification over the limit is refused silently
  s.request(1, "same as running");
  s.request(9, "same as waiting");
  s.request("1", "a text id is another id");
  EXPECT_EQ(s.sentSoFar(), (Strings{refusal("10", -32000, full), refusal("1", -32600, duplicate),
                                    refusal("9", -32600, duplicate), refusal(R"("1")", -32000, full)}));
  EXPECT_EQ(s.started(1), Strings{"1"});
  s.release("1");
  s.started(2); // the first has finished, so its id is free again
  s.request(1, order.emplace_back("again"));
  answers.push_back(answer(1, "again"));
  for (const auto &name : order)
    s.release(name);
  EXPECT_EQ(s.transport.sentThrough(answers.back()), answers);
  EXPECT_EQ(s.started(10), order); // one at a time, in arrival order, each under an id of its own
  const auto ids = s.correlationIDs();
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), 10u);
}

TEST(JSONRPCDispatcher, CancelledRequestsStayUnansweredAndCancellationsOfNoRequestChangeNothing) {
  CapturedLog log;
  Served s;
  s.request(1, "running");
  s.request(2, "waiting");
  s.request(3, "next");
  s.started(1);
  for (const json &params : {json(), json::object(), json{{"requestId", nullptr}}, json{{"requestId", 1.5}},
                             json{{"requestId", {{"id", 1}}}}, json{{"requestId", "1"}}, json{{"requestId", 4}}, json{{"id", 1}}})
    s.cancel(params);
  s.cancel({{"requestId", 2}, {"reason", "user"}});
  s.cancel({{"requestId", 1}});
  EXPECT_EQ(s.started(2), (Strings{"running", "next"}));
  s.release("next");
  EXPECT_EQ(s.sentSoFar("echo"), Strings{answer(3, "next")});
  EXPECT_EQ(s.cancelled(), Strings{"running"});
  const std::string cancelled = "level=info category=transport event=mcp_request_cancelled mcpRequestID=";
  const auto lines = logLines(log, "mcp_request_cancelled");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].starts_with(cancelled + "2 requestID=")) << lines[0];
  EXPECT_EQ(lines[1], cancelled + "1 requestID=" + s.correlationIDs().at(0));
}

TEST(JSONRPCDispatcher, TheEndOfTheConnectionCancelsTheRunningRequestAndDropsTheWaiting) {
  const std::string cancelledAnswer = R"({"id":1,"jsonrpc":"2.0","result":{"cancelled":true}})";
  const struct { const char *name; void (*end)(Served &); Strings sent, cancelled; } cases[] = {
      // A cancelled request whose work still produced a result gets it.
      {"end of input", [](Served &s) { s.transport.endInput(); }, {cancelledAnswer}, {"running"}},
      {"transport closed", [](Served &s) { s.transport.close(); }, {cancelledAnswer}, {"running"}},
      // Its answer closes the transport, on the request's thread, before the next can start.
      {"an answer the transport cannot take", [](Served &s) { s.transport.failSends(), s.release("running"); }, {}, {}},
  };
  for (const auto &c : cases) {
    Served s;
    s.request(1, "running", "hold-answer");
    s.request(2, "waiting", "hold-answer");
    s.started(1);
    c.end(s);
    EXPECT_EQ(s.serving.wait_for(10s), std::future_status::ready) << c.name;
    EXPECT_EQ(s.transport.takeSent(), c.sent) << c.name;
    EXPECT_EQ(s.started(1), Strings{"running"}) << c.name;
    EXPECT_EQ(s.cancelled(), c.cancelled) << c.name;
  }
}

} // namespace
} // namespace tavix::test
