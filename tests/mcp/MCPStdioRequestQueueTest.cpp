#include "mcp/MCPStdioRequestQueue.h"

#include "fakes/CapturedLog.h"
#include "fakes/ReleaseGate.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace tavix::test {
namespace {

using Admission = MCPStdioRequestQueue::Admission;

// Queue operations that hold until the test releases them.
class Operations : public ReleaseGate {
public:
  MCPStdioRequestQueue::Operation make(std::string name) {
    return [this, name](const std::string &correlationID, std::stop_token stop) {
      pass(name, correlationID, std::move(stop));
    };
  }
};

JSONRPCId id(int64_t value) { return JSONRPCId(value); }

TEST(MCPStdioRequestQueue, OneRunsEightWaitAndTheTenthIsRefused) {
  Operations ops;
  MCPStdioRequestQueue queue;
  for (int i = 1; i <= 9; ++i)
    EXPECT_EQ(queue.enqueue(id(i), ops.make(std::to_string(i))), Admission::accepted) << i;
  EXPECT_EQ(ops.started(1), std::vector<std::string>{"1"});
  EXPECT_EQ(queue.enqueue(id(10), ops.make("10")), Admission::queueFull);
  EXPECT_EQ(queue.enqueue(std::nullopt, ops.make("n")), Admission::queueFull);
  // Entries start strictly in arrival order, one at a time.
  for (int i = 1; i <= 9; ++i)
    ops.release(std::to_string(i));
  EXPECT_EQ(ops.finished(9),
            (std::vector<std::string>{"1", "2", "3", "4", "5", "6", "7", "8", "9"}));
  EXPECT_TRUE(ops.cancelled().empty());
  const auto ids = ops.correlationIDs();
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  for (const auto &correlation : ids)
    EXPECT_TRUE(std::regex_match(correlation, uuid)) << correlation;
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
}

TEST(MCPStdioRequestQueue, DuplicateIdsAreRefusedWhileInFlightOnly) {
  Operations ops;
  MCPStdioRequestQueue queue;
  ASSERT_EQ(queue.enqueue(id(5), ops.make("active")), Admission::accepted);
  ops.started(1);
  EXPECT_EQ(queue.enqueue(id(5), ops.make("dup-active")), Admission::duplicateID);
  EXPECT_EQ(queue.enqueue(JSONRPCId(std::string("5")), ops.make("text")), Admission::accepted);
  EXPECT_EQ(queue.enqueue(JSONRPCId(std::string("5")), ops.make("dup-waiting")),
            Admission::duplicateID);
  EXPECT_EQ(queue.enqueue(std::nullopt, ops.make("n1")), Admission::accepted);
  EXPECT_EQ(queue.enqueue(std::nullopt, ops.make("n2")), Admission::accepted);
  ops.release("active");
  ops.started(2);
  EXPECT_EQ(queue.enqueue(id(5), ops.make("again")), Admission::accepted);
  for (const char *name : {"text", "n1", "n2", "again"})
    ops.release(name);
  EXPECT_EQ(ops.finished(5), (std::vector<std::string>{"active", "text", "n1", "n2", "again"}));
}

TEST(MCPStdioRequestQueue, CancellingAWaitingRequestDropsItAndTheNextMovesUp) {
  CapturedLog log;
  Operations ops;
  MCPStdioRequestQueue queue;
  queue.enqueue(id(1), ops.make("1"));
  queue.enqueue(id(2), ops.make("2"));
  queue.enqueue(id(3), ops.make("3"));
  ops.started(1);
  queue.cancel(id(2));
  queue.cancel(JSONRPCId(std::string("3"))); // a different id: nothing happens
  queue.cancel(id(42));
  for (const char *name : {"1", "2", "3"})
    ops.release(name);
  EXPECT_EQ(ops.finished(2), (std::vector<std::string>{"1", "3"}));
  const auto lines = log.withEvent("mcp_request_cancelled");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(" level=info "), std::string::npos);
  EXPECT_NE(lines[0].find("event=mcp_request_cancelled mcpRequestID=2 requestID="), std::string::npos)
      << lines[0];
}

TEST(MCPStdioRequestQueue, CancellingTheActiveRequestStopsItsOperation) {
  CapturedLog log;
  Operations ops;
  MCPStdioRequestQueue queue;
  queue.enqueue(JSONRPCId(std::string("a")), ops.make("a"));
  queue.enqueue(id(2), ops.make("2"));
  const std::string correlation = (ops.started(1), ops.correlationIDs().at(0));
  queue.cancel(JSONRPCId(std::string("a")));
  ops.release("2");
  EXPECT_EQ(ops.finished(2), (std::vector<std::string>{"a", "2"}));
  EXPECT_EQ(ops.cancelled(), std::vector<std::string>{"a"});
  const auto lines = log.withEvent("mcp_request_cancelled");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].ends_with("mcpRequestID=a requestID=" + correlation + "\n")) << lines[0];
}

TEST(MCPStdioRequestQueue, ClosingDropsTheWaitingCancelsTheActiveAndRefusesTheRest) {
  Operations ops;
  {
    MCPStdioRequestQueue queue;
    queue.enqueue(id(1), ops.make("1"));
    queue.enqueue(id(2), ops.make("2"));
    ops.started(1);
    queue.close();
    EXPECT_TRUE(queue.isClosed());
    EXPECT_EQ(queue.enqueue(id(3), ops.make("3")), Admission::closed);
    EXPECT_EQ(ops.finished(1), std::vector<std::string>{"1"});
    ops.release("2");
    ops.release("3");
  } // joins the worker: whatever could still start has started
  EXPECT_EQ(ops.cancelled(), std::vector<std::string>{"1"});
  EXPECT_EQ(ops.started(1), std::vector<std::string>{"1"});
}

} // namespace
} // namespace tavix::test
