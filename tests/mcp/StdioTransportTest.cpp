// One connection served in-process over pipes, with tool calls that stay in flight until
// the test lets them go.

#include "fakes/BlockingToolDispatcher.h"
#include "fakes/CapturedLog.h"
#include "mcp/ComputerUseMCPServer.h"
#include "mcp/StdioTransport.h"
#include "testing/Pipe.h"

#include <gtest/gtest.h>

#include <future>
#include <poll.h>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

class StdioTransportTest : public ::testing::Test {
protected:
  StdioTransportTest() {
    serving_ = std::async(std::launch::async, [this] {
      runStdioTransport(server_, input_.readEnd(), output_.writeEnd(), stop_.get_token());
    });
  }
  ~StdioTransportTest() override {
    stop_.request_stop();
    serving_.wait();
  }

  void send(const json &message) { input_.write(message.dump() + "\n"); }
  void callTool(const json &id, const std::string &tool) {
    send({{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"},
          {"params", {{"name", tool}, {"arguments", {{"app", tool}}}}}});
  }
  // The next response line, parsed.
  json nextResponse() {
    while (true) {
      if (const size_t end = buffer_.find('\n'); end != std::string::npos) {
        json response = json::parse(buffer_.substr(0, end));
        buffer_.erase(0, end + 1);
        return response;
      }
      pollfd fd{output_.readEnd(), POLLIN, 0};
      if (::poll(&fd, 1, 10000) <= 0)
        return nullptr;
      char chunk[65536];
      const ssize_t n = ::read(output_.readEnd(), chunk, sizeof chunk);
      if (n <= 0)
        return nullptr;
      buffer_.append(chunk, static_cast<size_t>(n));
    }
  }
  // A ping round trip: every answer produced before it has been written.
  void expectNothingElsePending() {
    send({{"jsonrpc", "2.0"}, {"id", "sync"}, {"method", "ping"}});
    EXPECT_EQ(nextResponse(), json::parse(R"({"id":"sync","jsonrpc":"2.0","result":{}})"));
  }
  static json toolResult(const json &id, const std::string &tool, const json &arguments,
                         bool cancelled = false) {
    const std::string text = tool + " " + arguments.dump() + (cancelled ? " cancelled" : "");
    return {{"jsonrpc", "2.0"}, {"id", id}, {"result", {{"content", json::array({{{"type", "text"}, {"text", text}}})}}}};
  }

  CapturedLog log_;
  std::shared_ptr<BlockingToolDispatcher> tools_ = std::make_shared<BlockingToolDispatcher>();
  ComputerUseMCPServer server_{ComputerUseMCPServer::Mode::computerUse, tools_};
  Pipe input_, output_;
  std::stop_source stop_;
  std::string buffer_;
  std::future<void> serving_;
};

TEST_F(StdioTransportTest, AdmissionRefusalsAreAnsweredAtOnceWhileARequestRuns) {
  callTool(1, "active");
  tools_->started(1);
  callTool("1", "text-id"); // a different id from 1
  callTool(1, "duplicate");
  EXPECT_EQ(nextResponse(), json::parse(R"({"error":{"code":-32600,"message":"Request ID is already active on this connection."},"id":1,"jsonrpc":"2.0"})"));
  for (int i = 2; i <= 8; ++i)
    callTool(i, "waiting-" + std::to_string(i));
  callTool(9, "overflow");
  EXPECT_EQ(nextResponse(), json::parse(R"({"error":{"code":-32000,"message":"Request queue is full; retry after the active request finishes."},"id":9,"jsonrpc":"2.0"})"));
  send({{"jsonrpc", "2.0"}, {"method", "tools/call"}, {"params", {{"name", "quiet"}}}});
  expectNothingElsePending(); // the refused notification got no answer

  tools_->release("active");
  EXPECT_EQ(nextResponse(), toolResult(1, "active", {{"app", "active"}}));
  tools_->release("text-id");
  EXPECT_EQ(nextResponse(), toolResult("1", "text-id", {{"app", "text-id"}}));
  EXPECT_EQ(tools_->started(3).at(2), "waiting-2");
}

TEST_F(StdioTransportTest, CancelledWaitingRequestsAreNeverAnsweredAndTheActiveOneIsStopped) {
  callTool("a", "active");
  callTool("b", "waiting");
  callTool(3, "next");
  tools_->started(1);
  send({{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"},
        {"params", {{"requestId", "b"}, {"reason", "user"}}}});
  send({{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", {{"requestId", "a"}}}});
  // The running call sees its cancellation; its answer is still written.
  EXPECT_EQ(nextResponse(), toolResult("a", "active", {{"app", "active"}}, true));
  EXPECT_EQ(tools_->started(2).at(1), "next");
  tools_->release("next");
  EXPECT_EQ(nextResponse(), toolResult(3, "next", {{"app", "next"}}));
  expectNothingElsePending();
  EXPECT_EQ(tools_->cancelled(), std::vector<std::string>{"active"});
  const auto correlation = tools_->correlationIDs().at(0);
  const auto cancelledLines = log_.withEvent("mcp_request_cancelled");
  ASSERT_EQ(cancelledLines.size(), 2u);
  EXPECT_NE(cancelledLines[1].find("mcpRequestID=a requestID=" + correlation), std::string::npos);
}

TEST_F(StdioTransportTest, ToolCallsRunWithTheirCorrelationIdInTheLogContext) {
  callTool(7, "tool");
  tools_->started(1);
  tools_->release("tool");
  EXPECT_EQ(nextResponse()["id"], 7);
  const std::string correlation = tools_->correlationIDs().at(0);
  EXPECT_EQ(correlation.size(), 36u);
  const auto lines = log_.withEvent("test_tool_dispatched");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(" event=test_tool_dispatched requestId=" + correlation + " tool=tool"),
            std::string::npos)
      << lines[0];
}

TEST_F(StdioTransportTest, StoppingTheServerEndsTheConnectionWithInputStillOpen) {
  callTool(1, "active");
  tools_->started(1);
  stop_.request_stop();
  EXPECT_EQ(serving_.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(tools_->cancelled(), std::vector<std::string>{"active"});
}

TEST_F(StdioTransportTest, EndOfInputClosesTheQueueAndDropsWaitingRequests) {
  callTool(1, "active");
  callTool(2, "waiting");
  tools_->started(1);
  input_.closeWrite();
  EXPECT_EQ(serving_.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(tools_->started(1), std::vector<std::string>{"active"});
  EXPECT_EQ(tools_->cancelled(), std::vector<std::string>{"active"});
}

} // namespace
} // namespace tavix::test
