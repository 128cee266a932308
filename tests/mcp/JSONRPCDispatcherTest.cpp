// The dispatcher over a transport without descriptors: what each message is answered
// with, exactly, and which requests stay unanswered.

#include "mcp/JSONRPCDispatcher.h"

#include "fakes/CapturedLog.h"
#include "fakes/FakeMessageTransport.h"
#include "fakes/ReleaseGate.h"
#include "support/RequestContext.h"

#include <gtest/gtest.h>

#include <future>
#include <set>
#include <stdexcept>
#include <thread>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

const std::string unanswered(const std::string &id) {
  return R"({"error":{"code":-32603,"message":"Internal error: the server failed to answer this request."},"id":)" +
         id + R"(,"jsonrpc":"2.0"})";
}

// Methods that do with their reply each thing a handler can do with it.
JSONRPCDispatcher::MethodTable replyingMethods() {
  return {
      {"echo",
       [](const JSONRPCRequest &request, JSONRPCReply reply) {
         reply({{"params", request.params.value_or(json())}});
       }},
      {"fail", [](const JSONRPCRequest &, JSONRPCReply reply) { reply.error(-32602, "Invalid params: no"); }},
      {"silent", [](const JSONRPCRequest &, JSONRPCReply) {}},
      {"throw", [](const JSONRPCRequest &, JSONRPCReply) { throw std::runtime_error("boom"); }},
      {"twice",
       [](const JSONRPCRequest &, JSONRPCReply reply) {
         reply(json::object());
         reply.error(-32000, "again");
       }},
      {"elsewhere",
       [](const JSONRPCRequest &, JSONRPCReply reply) {
         std::thread([moved = std::move(reply)]() mutable { moved({{"thread", "other"}}); }).join();
       }},
  };
}

// Serves one message, then a request that the queue runs after it, and returns what was
// sent before that request's answer. At end of input the dispatcher drops what has not
// started yet, so the input stays open until everything before the last request is done.
std::vector<std::string> serveOne(std::string message, JSONRPCDispatcher::MethodTable methods) {
  methods.emplace("sync", [](const JSONRPCRequest &, JSONRPCReply reply) { reply("done"); });
  const std::string syncAnswer = R"({"id":"sync","jsonrpc":"2.0","result":"done"})";
  FakeMessageTransport transport;
  JSONRPCDispatcher dispatcher(transport, std::move(methods));
  auto serving = std::async(std::launch::async, [&] { dispatcher.serve(); });
  transport.deliver(std::move(message));
  transport.deliver(R"({"jsonrpc":"2.0","id":"sync","method":"sync"})");
  transport.sentThrough(syncAnswer);
  transport.endInput();
  serving.wait();
  std::vector<std::string> sent = transport.takeSent();
  EXPECT_EQ(std::count(sent.begin(), sent.end(), syncAnswer), 1);
  std::erase(sent, syncAnswer);
  return sent;
}

struct IntakeCase {
  const char *message;
  std::vector<std::string> answers;
  std::set<std::string> loggedEvents = {};
};

TEST(JSONRPCDispatcher, AnswersEachMessageExactly) {
  const IntakeCase cases[] = {
      {R"({"jsonrpc":"2.0","id":1,"method":"echo","params":{"x":[1,"é"]}})",
       {R"({"id":1,"jsonrpc":"2.0","result":{"params":{"x":[1,"é"]}}})"}},
      {R"({"jsonrpc":"2.0","id":"s","method":"fail"})",
       {R"({"error":{"code":-32602,"message":"Invalid params: no"},"id":"s","jsonrpc":"2.0"})"}},
      {R"({"jsonrpc":"2.0","id":2,"method":"silent"})", {unanswered("2")}, {"mcp_request_unanswered"}},
      {R"({"jsonrpc":"2.0","id":"t","method":"throw"})", {unanswered(R"("t")")},
       {"mcp_request_failed", "mcp_request_unanswered"}},
      {R"({"jsonrpc":"2.0","id":4,"method":"twice"})", {R"({"id":4,"jsonrpc":"2.0","result":{}})"},
       {"mcp_response_refused"}},
      {R"({"jsonrpc":"2.0","id":5,"method":"elsewhere"})",
       {R"({"id":5,"jsonrpc":"2.0","result":{"thread":"other"}})"}},
      // Notifications, and ids that make a message one, are never answered.
      {R"({"jsonrpc":"2.0","method":"echo"})", {}},
      {R"({"jsonrpc":"2.0","method":"silent"})", {}},
      {R"({"jsonrpc":"2.0","method":"throw"})", {}, {"mcp_request_failed"}},
      {R"({"jsonrpc":"2.0","id":1.5,"method":"echo"})", {}},
      {R"({"jsonrpc":"2.0","id":null,"method":"silent"})", {}},
      {R"({"jsonrpc":"2.0","method":"nothing/such"})", {}},
      {R"({"jsonrpc":"2.0","method":"ping"})", {}},
      {R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":1}})", {}},
      // The method table.
      {R"({"jsonrpc":"2.0","id":6,"method":"Echo"})",
       {R"({"error":{"code":-32601,"message":"Method not found: Echo"},"id":6,"jsonrpc":"2.0"})"}},
      {R"({"jsonrpc":"2.0","id":7,"method":"notifications/cancelled","params":{"requestId":1}})",
       {R"({"error":{"code":-32601,"message":"Method not found: notifications/cancelled"},"id":7,"jsonrpc":"2.0"})"}},
      {R"({"jsonrpc":"2.0","id":8,"method":"ping","params":{"ignored":true}})",
       {R"({"id":8,"jsonrpc":"2.0","result":{}})"}},
      // Messages that are not requests.
      {"not json", {R"({"error":{"code":-32700,"message":"Parse error"},"jsonrpc":"2.0"})"}},
      {"", {R"({"error":{"code":-32700,"message":"Parse error"},"jsonrpc":"2.0"})"}},
      {"[1]", {R"({"error":{"code":-32600,"message":"Invalid Request"},"jsonrpc":"2.0"})"}},
      {R"({"jsonrpc":"1.0","id":9,"method":"echo"})",
       {R"({"error":{"code":-32600,"message":"Invalid Request"},"jsonrpc":"2.0"})"}},
      {R"({"jsonrpc":"2.0","id":10,"method":7})",
       {R"({"error":{"code":-32600,"message":"Invalid Request"},"jsonrpc":"2.0"})"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.message);
    CapturedLog log;
    EXPECT_EQ(serveOne(c.message, replyingMethods()), c.answers);
    for (const char *event : {"mcp_request_unanswered", "mcp_request_failed", "mcp_response_refused"})
      EXPECT_EQ(log.withEvent(event).size(), c.loggedEvents.count(event)) << event;
  }
}

// Methods that hold their requests in flight until released or cancelled. "hold" then
// answers only when it was not cancelled; "hold-answer" answers either way.
class HeldMethods : public ReleaseGate {
public:
  JSONRPCDispatcher::MethodTable table() {
    return {{"hold",
             [this](const JSONRPCRequest &request, JSONRPCReply reply) {
               if (!hold(request))
                 reply({{"name", request.params->at("name")}});
             }},
            {"hold-answer", [this](const JSONRPCRequest &request, JSONRPCReply reply) {
               reply({{"cancelled", hold(request)}});
             }}};
  }

private:
  bool hold(const JSONRPCRequest &request) {
    const auto context = RequestContext::current();
    return pass(request.params->at("name"), context->correlationID(), context->cancellation());
  }
};

// A dispatcher serving a fake transport on its own thread, with held methods.
class Served {
public:
  explicit Served(size_t capacity = MCPStdioRequestQueue::defaultCapacity)
      : dispatcher(transport, methods.table(), capacity),
        serving(std::async(std::launch::async, [this] { dispatcher.serve(); })) {}
  ~Served() {
    transport.endInput();
    serving.wait();
  }
  void request(const json &id, const std::string &name, const char *method = "hold") {
    json message = {{"jsonrpc", "2.0"}, {"method", method}, {"params", {{"name", name}}}};
    if (!id.is_null())
      message["id"] = id;
    transport.deliver(message.dump());
  }
  void cancel(const json &params) {
    json message = {{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}};
    if (!params.is_null())
      message["params"] = params;
    transport.deliver(message.dump());
  }
  // Everything sent so far, once the reader has handled what came before this call.
  std::vector<std::string> sentSoFar() {
    transport.deliver(R"({"jsonrpc":"2.0","id":"sync","method":"ping"})");
    auto sent = transport.sentThrough(R"({"id":"sync","jsonrpc":"2.0","result":{}})");
    transport.takeSent();
    sent.pop_back();
    return sent;
  }

  HeldMethods methods;
  FakeMessageTransport transport;
  JSONRPCDispatcher dispatcher;
  std::future<void> serving;
};

std::string refusal(const std::string &id, int code, const std::string &message) {
  return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message +
         R"("},"id":)" + id + R"(,"jsonrpc":"2.0"})";
}

TEST(JSONRPCDispatcherAdmission, RefusesOverflowAndDuplicatesAtOnceAndAcceptsAnIdAgainWhenItIsDone) {
  const std::string full = "Request queue is full; retry after the active request finishes.";
  const std::string duplicate = "Request ID is already active on this connection.";
  Served s(1);
  s.request(1, "running");
  s.methods.started(1);
  s.request(2, "waiting"); // the last place in line
  s.request(3, "over");
  s.request(json(), "quiet"); // a notification over the limit is refused silently
  s.request(1, "same as running");
  s.request(2, "same as waiting");
  s.request("1", "a text id is another id");
  EXPECT_EQ(s.sentSoFar(), (std::vector<std::string>{refusal("3", -32000, full),
                                                      refusal("1", -32600, duplicate),
                                                      refusal("2", -32600, duplicate),
                                                      refusal(R"("1")", -32000, full)}));
  s.methods.release("running");
  EXPECT_EQ(s.transport.sent(1).at(0), R"({"id":1,"jsonrpc":"2.0","result":{"name":"running"}})");
  s.methods.started(2);
  s.request(1, "again");
  s.methods.release("waiting");
  s.methods.release("again");
  EXPECT_EQ(s.transport.sent(3), (std::vector<std::string>{
                                     R"({"id":1,"jsonrpc":"2.0","result":{"name":"running"}})",
                                     R"({"id":2,"jsonrpc":"2.0","result":{"name":"waiting"}})",
                                     R"({"id":1,"jsonrpc":"2.0","result":{"name":"again"}})"}));
  EXPECT_EQ(s.methods.started(3), (std::vector<std::string>{"running", "waiting", "again"}));
}

TEST(JSONRPCDispatcherCancellation, CancelledRequestsStayUnanswered) {
  Served s;
  s.request(1, "running");
  s.request(2, "waiting");
  s.request(3, "next");
  s.methods.started(1);
  s.cancel({{"requestId", 2}});
  s.cancel({{"requestId", 1}});
  EXPECT_EQ(s.methods.started(2), (std::vector<std::string>{"running", "next"}));
  s.methods.release("next");
  EXPECT_EQ(s.transport.sent(1),
            std::vector<std::string>{R"({"id":3,"jsonrpc":"2.0","result":{"name":"next"}})"});
  EXPECT_EQ(s.methods.cancelled(), std::vector<std::string>{"running"});
  EXPECT_EQ(s.sentSoFar().size(), 1u);
}

TEST(JSONRPCDispatcherCancellation, CancellationsThatNameNoRequestChangeNothing) {
  Served s;
  s.request(1, "running");
  s.methods.started(1);
  for (const json &params : {json(), json::object(), json{{"requestId", nullptr}},
                             json{{"requestId", 1.5}}, json{{"requestId", {{"id", 1}}}},
                             json{{"requestId", "1"}}, json{{"requestId", 2}}, json{{"id", 1}}})
    s.cancel(params);
  EXPECT_EQ(s.sentSoFar(), std::vector<std::string>{});
  s.methods.release("running");
  EXPECT_EQ(s.transport.sent(1),
            std::vector<std::string>{R"({"id":1,"jsonrpc":"2.0","result":{"name":"running"}})"});
  EXPECT_EQ(s.methods.cancelled(), std::vector<std::string>{});
}

TEST(JSONRPCDispatcherCancellation, AtEndOfInputTheRunningRequestIsCancelledAndItsAnswerStillSent) {
  Served s;
  s.request(1, "running", "hold-answer");
  s.request(2, "waiting", "hold-answer");
  s.methods.started(1);
  s.transport.endInput();
  s.serving.wait();
  EXPECT_EQ(s.transport.takeSent(),
            std::vector<std::string>{R"({"id":1,"jsonrpc":"2.0","result":{"cancelled":true}})"});
  EXPECT_EQ(s.methods.started(1), std::vector<std::string>{"running"});
}

TEST(JSONRPCDispatcherCancellation, ClosingTheTransportCancelsTheRunningRequestAndDropsTheWaiting) {
  Served s;
  s.request(1, "running");
  s.request(2, "waiting");
  s.methods.started(1);
  s.transport.close();
  EXPECT_EQ(s.serving.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(s.methods.started(1), std::vector<std::string>{"running"});
  EXPECT_EQ(s.methods.cancelled(), std::vector<std::string>{"running"});
  EXPECT_EQ(s.transport.takeSent(), std::vector<std::string>{});
}

TEST(JSONRPCDispatcherCancellation, AnAnswerTheTransportCannotTakeStopsTheNextRequestFromStarting) {
  Served s;
  s.request(1, "first", "hold-answer");
  s.request(2, "second", "hold-answer");
  s.methods.started(1);
  s.transport.failSends();
  s.methods.release("first"); // its answer closes the transport, on the request's thread
  EXPECT_EQ(s.serving.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(s.methods.started(1), std::vector<std::string>{"first"});
}

TEST(JSONRPCDispatcher, AReplyCompletedAfterTheConnectionEndedIsDropped) {
  CapturedLog log;
  std::optional<JSONRPCReply> kept;
  JSONRPCDispatcher::MethodTable methods = {
      {"keep", [&](const JSONRPCRequest &, JSONRPCReply reply) { kept.emplace(std::move(reply)); }}};
  EXPECT_EQ(serveOne(R"({"jsonrpc":"2.0","id":1,"method":"keep"})", std::move(methods)),
            std::vector<std::string>{});
  ASSERT_TRUE(kept);
  (*kept)(json::object());
  EXPECT_EQ(log.withEvent("mcp_response_dropped").size(), 1u);
}

} // namespace
} // namespace tavix::test
