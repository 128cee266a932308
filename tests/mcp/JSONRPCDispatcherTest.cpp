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

// Methods that hold their requests in flight until released or cancelled, and then
// answer only when they were not cancelled.
class HeldMethods : public ReleaseGate {
public:
  JSONRPCDispatcher::MethodTable table() {
    return {{"hold", [this](const JSONRPCRequest &request, JSONRPCReply reply) {
               const auto context = RequestContext::current();
               if (!pass(request.params->at("name"), context->correlationID(), context->cancellation()))
                 reply({{"name", request.params->at("name")}});
             }}};
  }
};

class JSONRPCDispatcherServing : public ::testing::Test {
protected:
  ~JSONRPCDispatcherServing() override {
    transport_.endInput();
    serving_.wait();
  }
  void hold(const json &id, const std::string &name) {
    transport_.deliver(json{{"jsonrpc", "2.0"}, {"id", id}, {"method", "hold"}, {"params", {{"name", name}}}}.dump());
  }
  void cancel(const json &id) {
    transport_.deliver(json{{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", {{"requestId", id}}}}.dump());
  }

  HeldMethods methods_;
  FakeMessageTransport transport_;
  JSONRPCDispatcher dispatcher_{transport_, methods_.table()};
  std::future<void> serving_ = std::async(std::launch::async, [this] { dispatcher_.serve(); });
};

TEST_F(JSONRPCDispatcherServing, CancelledRequestsStayUnanswered) {
  hold(1, "running");
  hold(2, "waiting");
  hold(3, "next");
  methods_.started(1);
  cancel(2);
  cancel(1);
  EXPECT_EQ(methods_.started(2), (std::vector<std::string>{"running", "next"}));
  methods_.release("next");
  EXPECT_EQ(transport_.sent(1), std::vector<std::string>{R"({"id":3,"jsonrpc":"2.0","result":{"name":"next"}})"});
  EXPECT_EQ(methods_.cancelled(), std::vector<std::string>{"running"});
  transport_.endInput();
  serving_.wait();
  EXPECT_EQ(transport_.takeSent().size(), 1u);
}

TEST_F(JSONRPCDispatcherServing, ClosingTheTransportCancelsTheRunningRequestAndDropsTheWaiting) {
  hold(1, "running");
  hold(2, "waiting");
  methods_.started(1);
  transport_.close();
  EXPECT_EQ(serving_.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(methods_.started(1), std::vector<std::string>{"running"});
  EXPECT_EQ(methods_.cancelled(), std::vector<std::string>{"running"});
  EXPECT_EQ(transport_.takeSent(), std::vector<std::string>{});
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
