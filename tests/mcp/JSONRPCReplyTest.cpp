// The reply object's promise: one answer per request with an id, whatever the handler
// does with it, and never an answer to a notification or a cancelled request.

#include "mcp/JSONRPCReply.h"

#include "fakes/CapturedLog.h"
#include "fakes/FakeMessageTransport.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <latch>
#include <thread>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr std::string_view noResponse =
    R"({"error":{"code":-32603,"message":"Internal error: the server failed to answer this request."},"id":7,"jsonrpc":"2.0"})";

struct ReplyCase {
  const char *name;
  std::optional<JSONRPCId> id;
  bool cancelled;
  std::function<void(JSONRPCReply &)> handle; // the reply is dropped afterwards
  std::vector<std::string> sent;
  const char *loggedEvent; // nullptr: none of the reply's events
};

TEST(JSONRPCReply, AnswersExactlyOnceAndOnlyWhenItShould) {
  const auto nothing = [](JSONRPCReply &) {};
  const auto succeed = [](JSONRPCReply &reply) { reply({{"ok", true}}); };
  const auto fail = [](JSONRPCReply &reply) { reply.error(-32602, "Invalid params: x"); };
  const ReplyCase cases[] = {
      {"result", JSONRPCId(7), false, succeed, {R"({"id":7,"jsonrpc":"2.0","result":{"ok":true}})"}, nullptr},
      {"error with a text id", JSONRPCId("a"), false, fail,
       {R"({"error":{"code":-32602,"message":"Invalid params: x"},"id":"a","jsonrpc":"2.0"})"}, nullptr},
      {"dropped unanswered", JSONRPCId(7), false, nothing, {std::string(noResponse)}, "mcp_request_unanswered"},
      {"dropped after cancellation", JSONRPCId(7), true, nothing, {}, nullptr},
      {"answered after cancellation", JSONRPCId(7), true, succeed,
       {R"({"id":7,"jsonrpc":"2.0","result":{"ok":true}})"}, nullptr},
      {"second answer", JSONRPCId(7), false,
       [](JSONRPCReply &reply) { reply(json::object()); reply.error(-32000, "again"); },
       {R"({"id":7,"jsonrpc":"2.0","result":{}})"}, "mcp_response_refused"},
      {"second error", JSONRPCId(7), false,
       [](JSONRPCReply &reply) { reply.error(-32000, "first"); reply(json::object()); },
       {R"({"error":{"code":-32000,"message":"first"},"id":7,"jsonrpc":"2.0"})"}, "mcp_response_refused"},
      {"notification answered", std::nullopt, false, succeed, {}, nullptr},
      {"notification dropped", std::nullopt, false, nothing, {}, nullptr},
      {"moved away and answered there", JSONRPCId(7), false,
       [](JSONRPCReply &reply) {
         std::thread([moved = std::move(reply)]() mutable { moved({{"ok", true}}); }).join();
       },
       {R"({"id":7,"jsonrpc":"2.0","result":{"ok":true}})"}, nullptr},
      {"moved away and dropped there", JSONRPCId(7), false,
       [](JSONRPCReply &reply) { std::thread([moved = std::move(reply)] {}).join(); },
       {std::string(noResponse)}, "mcp_request_unanswered"},
      {"answered, then moved away and dropped", JSONRPCId(7), false,
       [](JSONRPCReply &reply) {
         reply({{"ok", true}});
         std::thread([moved = std::move(reply)] {}).join();
       },
       {R"({"id":7,"jsonrpc":"2.0","result":{"ok":true}})"}, nullptr},
      {"answered, moved, and answered again", JSONRPCId(7), false,
       [](JSONRPCReply &reply) {
         reply({{"ok", true}});
         JSONRPCReply moved = std::move(reply);
         moved(json::object());
       },
       {R"({"id":7,"jsonrpc":"2.0","result":{"ok":true}})"}, "mcp_response_refused"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    CapturedLog log;
    FakeMessageTransport transport;
    std::stop_source cancellation;
    if (c.cancelled)
      cancellation.request_stop();
    {
      JSONRPCReply reply(c.id, "tools/call", std::make_shared<JSONRPCResponseChannel>(transport),
                         cancellation.get_token());
      c.handle(reply);
    }
    EXPECT_EQ(transport.takeSent(), c.sent);
    for (const char *event : {"mcp_request_unanswered", "mcp_response_refused"})
      EXPECT_EQ(log.withEvent(event).size(),
                c.loggedEvent && event == std::string_view(c.loggedEvent) ? 1u : 0u)
          << event;
  }
}

TEST(JSONRPCReply, TheLogSaysWhichRequestWentUnansweredOrWasAnsweredTwice) {
  CapturedLog log;
  FakeMessageTransport transport;
  auto channel = std::make_shared<JSONRPCResponseChannel>(transport);
  { JSONRPCReply dropped(JSONRPCId("abc"), "initialize", channel); }
  JSONRPCReply twice(JSONRPCId(9), "tools/list", channel);
  twice(json::object());
  twice(json::object());
  const auto unanswered = log.withEvent("mcp_request_unanswered");
  ASSERT_EQ(unanswered.size(), 1u);
  EXPECT_NE(unanswered[0].find(" level=error "), std::string::npos) << unanswered[0];
  EXPECT_TRUE(unanswered[0].ends_with(
      " category=transport event=mcp_request_unanswered mcpRequestID=abc method=initialize\n"))
      << unanswered[0];
  const auto refused = log.withEvent("mcp_response_refused");
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_TRUE(refused[0].ends_with(
      " event=mcp_response_refused mcpRequestID=9 method=tools/list reason=already_answered\n"))
      << refused[0];
}

TEST(JSONRPCReply, CancellationThatComesWhileTheRequestRunsSilencesTheDrop) {
  FakeMessageTransport transport;
  std::stop_source cancellation;
  {
    JSONRPCReply reply(JSONRPCId(1), "x", std::make_shared<JSONRPCResponseChannel>(transport),
                       cancellation.get_token());
    cancellation.request_stop();
  }
  EXPECT_EQ(transport.takeSent(), std::vector<std::string>{});
}

TEST(JSONRPCReply, TwoThreadsAnsweringAtOnceSendOneAnswer) {
  CapturedLog log;
  FakeMessageTransport transport;
  for (int round = 0; round < 50; ++round) {
    JSONRPCReply reply(JSONRPCId(round), "x", std::make_shared<JSONRPCResponseChannel>(transport));
    std::latch start(2);
    const auto answer = [&](const char *who) {
      start.arrive_and_wait();
      reply({{"by", who}});
    };
    std::thread first(answer, "first"), second(answer, "second");
    first.join();
    second.join();
    EXPECT_EQ(transport.takeSent().size(), 1u) << round;
  }
  EXPECT_EQ(log.withEvent("mcp_response_refused").size(), 50u);
}

TEST(JSONRPCReply, MovingOntoAReplyThatWasAnsweredSendsNothingMoreForIt) {
  FakeMessageTransport transport;
  auto channel = std::make_shared<JSONRPCResponseChannel>(transport);
  JSONRPCReply first(JSONRPCId(1), "a", channel);
  first(json::object());
  first = JSONRPCReply(JSONRPCId(2), "b", channel);
  first.error(-32000, "x");
  EXPECT_EQ(transport.takeSent(),
            (std::vector<std::string>{R"({"id":1,"jsonrpc":"2.0","result":{}})",
                                      R"({"error":{"code":-32000,"message":"x"},"id":2,"jsonrpc":"2.0"})"}));
}

TEST(JSONRPCReply, MovingOverAnUnansweredReplyDropsIt) {
  FakeMessageTransport transport;
  auto channel = std::make_shared<JSONRPCResponseChannel>(transport);
  JSONRPCReply first(JSONRPCId(1), "a", channel);
  JSONRPCReply second(JSONRPCId(2), "b", channel);
  first = std::move(second);
  first(json::object());
  EXPECT_EQ(transport.takeSent(),
            (std::vector<std::string>{
                R"({"error":{"code":-32603,"message":"Internal error: the server failed to answer this request."},"id":1,"jsonrpc":"2.0"})",
                R"({"id":2,"jsonrpc":"2.0","result":{}})"}));
}

TEST(JSONRPCReply, AnswersAfterTheChannelClosedAreDroppedAndLogged) {
  CapturedLog log;
  FakeMessageTransport transport;
  auto channel = std::make_shared<JSONRPCResponseChannel>(transport);
  JSONRPCReply late(JSONRPCId(3), "tools/call", channel);
  {
    JSONRPCReply dropped(JSONRPCId(4), "tools/call", channel);
    channel->close();
    late(json::object());
  }
  EXPECT_EQ(transport.takeSent(), std::vector<std::string>{});
  const auto lines = log.withEvent("mcp_response_dropped");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find(" level=warning "), std::string::npos) << lines[0];
  EXPECT_TRUE(lines[0].ends_with(
      " category=transport event=mcp_response_dropped mcpRequestID=3 method=tools/call"
      " reason=connection_closed\n"))
      << lines[0];
  EXPECT_NE(lines[1].find(" mcpRequestID=4 "), std::string::npos) << lines[1];
}

// A transport whose sends hold until the test lets them go.
class HeldTransport final : public MessageTransport {
public:
  void run(MessageHandler &) override {}
  void close() override {}
  std::stop_token closing() const override { return {}; }
  void send(std::string message) override {
    entered_.set_value();
    release_.get_future().wait();
    sent_ = std::move(message);
  }
  std::promise<void> entered_, release_;
  std::string sent_;
};

TEST(JSONRPCResponseChannel, ClosingWaitsForTheSendUnderWay) {
  HeldTransport transport;
  auto channel = std::make_shared<JSONRPCResponseChannel>(transport);
  auto answering = std::async(std::launch::async, [&] {
    JSONRPCReply(JSONRPCId(1), "x", channel)(json::object());
  });
  transport.entered_.get_future().wait();
  auto closing = std::async(std::launch::async, [&] { channel->close(); });
  // Only "not yet after 50 ms" can be seen from outside; a close that did not wait would
  // almost always have returned by then.
  EXPECT_EQ(closing.wait_for(50ms), std::future_status::timeout);
  transport.release_.set_value();
  closing.wait();
  answering.wait();
  EXPECT_EQ(transport.sent_, R"({"id":1,"jsonrpc":"2.0","result":{}})");
}

TEST(JSONRPCResponseChannel, AResponseThatCannotBeSerialisedClosesTheTransport) {
  CapturedLog log;
  FakeMessageTransport transport;
  JSONRPCReply(JSONRPCId(1), "x", std::make_shared<JSONRPCResponseChannel>(transport))(
      {{"text", std::string("\xff\xfe")}});
  EXPECT_EQ(transport.takeSent(), std::vector<std::string>{});
  EXPECT_TRUE(transport.isClosed());
  EXPECT_EQ(log.withEvent("response_serialization_failed").size(), 1u);
}

} // namespace
} // namespace tavix::test
