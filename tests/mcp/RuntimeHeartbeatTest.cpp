// The heartbeat to the runtime app: started by the first call that reaches it, at most
// once, sent at its interval with a two-second time-out, its failures logged at most once
// every two minutes, and stopped with the connection.

#include "mcp/RuntimeHeartbeat.h"

#include "fakes/CapturedLog.h"
#include "testing/Pipe.h"
#include "testing/ToolCallHarness.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

const std::string healthReply =
    R"({"generationID":"g","runtimePID":7,"bundleIdentifier":"b","bundlePath":"/r","isHealthy":true})";
const json listApps = {{"name", "list_apps"}};

// Waits that the test lets pass one at a time; each records the interval it was asked for.
class SteppedWaits {
public:
  RuntimeHeartbeat::Wait wait() {
    return [this](std::chrono::milliseconds interval, std::stop_token stop) {
      std::unique_lock guard(lock_);
      intervals_.push_back(interval);
      changed_.notify_all();
      changed_.wait(guard, stop, [&] { return allowed_ > 0; });
      if (allowed_ > 0)
        --allowed_;
    };
  }
  void pass(int count) {
    std::lock_guard guard(lock_);
    allowed_ += count;
    changed_.notify_all();
  }
  // Waits until `count` waits have begun.
  std::vector<std::chrono::milliseconds> begun(size_t count) {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [&] { return intervals_.size() >= count; });
    return intervals_;
  }

private:
  std::mutex lock_;
  std::condition_variable_any changed_;
  std::vector<std::chrono::milliseconds> intervals_;
  int allowed_ = 0;
};

ComputerUseMCPServer::Options steppedBy(SteppedWaits &waits) {
  ComputerUseMCPServer::Options options;
  options.heartbeat.wait = waits.wait();
  return options;
}

// A server whose heartbeat steps when the test says, over a runtime that answers tools and
// heartbeats and counts as connected once it has answered.
struct SteppedServer {
  explicit SteppedServer(ScriptedRequestTransport::Reply heartbeat = healthReply) {
    harness.runtime().establishOnReply(true);
    harness.runtime().scriptDefault(textReply);
    harness.runtime().script("ComputerUseIPCHealthRequest", {std::move(heartbeat)});
  }
  SteppedWaits waits;
  ToolCallHarness harness{MCPServerMode::computerUse, {}, steppedBy(waits)};
};

std::vector<ScriptedRequestTransport::Sent> heartbeats(const ScriptedRequestTransport &runtime) {
  std::vector<ScriptedRequestTransport::Sent> found;
  for (const auto &request : runtime.sent())
    if (request.requestType == "ComputerUseIPCHealthRequest")
      found.push_back(request);
  return found;
}

TEST(RuntimeHeartbeat, TheFirstCallThatReachesTheRuntimeStartsItAtItsInterval) {
  SteppedServer stepped;
  SteppedWaits &waits = stepped.waits;
  ToolCallHarness &harness = stepped.harness;
  EXPECT_FALSE(harness.server().isRuntimeHeartbeatRunning());
  harness.call(listApps);
  EXPECT_TRUE(harness.server().isRuntimeHeartbeatRunning());
  waits.pass(2);
  // Sent at once, then after each interval.
  EXPECT_EQ(waits.begun(3), (std::vector<std::chrono::milliseconds>{30s, 30s, 30s}));
  const auto sent = heartbeats(harness.runtime());
  ASSERT_EQ(sent.size(), 3u);
  for (const auto &request : sent) {
    EXPECT_EQ(request.body, R"({"refreshClientActivity":true})");
    EXPECT_EQ(request.timeoutSeconds, 2.0);
    EXPECT_NE(request.thread, std::this_thread::get_id());
  }
  harness.server().stopRuntimeHeartbeat();
  EXPECT_FALSE(harness.server().isRuntimeHeartbeatRunning());
}

TEST(RuntimeHeartbeat, OnlyACallThatEstablishesTheConnectionStartsIt) {
  const struct {
    const char *name;
    bool establishedBefore;
    ScriptedRequestTransport::Reply reply;
    bool starts;
  } cases[] = {
      {"connection made by the call", false, textReply, true},
      {"connection made by a call that ends in a tool error", false,
       std::string(R"({"content":[{"type":"text","text":"x"}],"isError":true})"), true},
      {"connection already there", true, textReply, false},
      {"runtime not reached", false, tl::unexpected(ClientFailure(ClientError::runtimeNotRunning())), false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    SteppedWaits waits;
    ToolCallHarness harness(MCPServerMode::computerUse, {}, steppedBy(waits));
    harness.runtime().establishOnReply(true);
    harness.runtime().setEstablished(c.establishedBefore);
    harness.runtime().scriptDefault(c.reply);
    harness.call(listApps);
    EXPECT_EQ(harness.server().isRuntimeHeartbeatRunning(), c.starts);
    if (c.starts)
      waits.begun(1);
    harness.server().stopRuntimeHeartbeat();
    EXPECT_EQ(heartbeats(harness.runtime()).size(), c.starts ? 1u : 0u);
  }
}

TEST(RuntimeHeartbeat, ItStartsAtMostOnce) {
  SteppedServer stepped;
  SteppedWaits &waits = stepped.waits;
  ToolCallHarness &harness = stepped.harness;
  harness.call(listApps);
  waits.begun(1); // the heartbeat waits, so nothing but the calls changes the connection
  for (int i = 0; i < 2; ++i) {
    harness.runtime().setEstablished(false); // each call establishes the connection anew
    harness.call(listApps);
  }
  waits.pass(3);
  waits.begun(4);
  std::set<std::thread::id> senders;
  for (const auto &request : heartbeats(harness.runtime()))
    senders.insert(request.thread);
  EXPECT_EQ(heartbeats(harness.runtime()).size(), 4u);
  EXPECT_EQ(senders.size(), 1u);
}

TEST(RuntimeHeartbeat, FailuresAreLoggedAtMostOnceEveryTwoMinutes) {
  std::atomic<std::chrono::steady_clock::duration> elapsed{};
  const auto start = std::chrono::steady_clock::now();
  CapturedLog log(nullptr, [&] { return start + elapsed.load(); });
  SteppedServer stepped(tl::unexpected(ClientFailure(ClientError::sendFailed(-1712, "ComputerUseIPCHealthRequest", 2))));
  SteppedWaits &waits = stepped.waits;
  ToolCallHarness &harness = stepped.harness;
  harness.call(listApps);
  const auto failureLines = [&](size_t waitsBegun) {
    waits.begun(waitsBegun);
    return log.withEvent("runtime_heartbeat_failed");
  };
  EXPECT_EQ(failureLines(1).size(), 1u);
  waits.pass(1);
  EXPECT_EQ(failureLines(2).size(), 1u);
  elapsed = std::chrono::milliseconds(119999); // the last moment still inside the interval
  waits.pass(1);
  EXPECT_EQ(failureLines(3).size(), 1u);
  elapsed = 120s;
  waits.pass(1);
  const auto lines = failureLines(4);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find(" level=warning "), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find(" category=transport event=runtime_heartbeat_failed error="), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find(" error=\"ClientError(domain=tavix.client,code=-1712)\""), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find(" suppressedCount=2"), std::string::npos) << lines[1];
  EXPECT_EQ(heartbeats(harness.runtime()).size(), 4u); // the loop keeps running
}

TEST(RuntimeHeartbeat, StoppingCancelsTheHeartbeatUnderWay) {
  CapturedLog log;
  SteppedServer stepped;
  SteppedWaits &waits = stepped.waits;
  ToolCallHarness &harness = stepped.harness;
  harness.call(listApps);
  waits.begun(1);
  harness.runtime().hold();
  waits.pass(1);
  harness.runtime().waitForSent(3); // the second heartbeat waits in the runtime
  harness.server().stopRuntimeHeartbeat();
  EXPECT_FALSE(harness.server().isRuntimeHeartbeatRunning());
  EXPECT_EQ(waits.begun(1).size(), 1u); // it ended without waiting again
  EXPECT_TRUE(log.withEvent("runtime_heartbeat_failed").empty()); // a cancelled heartbeat is no failure
}

TEST(RuntimeHeartbeat, ACancelledRequestDoesNotStartIt) {
  CapturedLog log;
  auto client = std::make_shared<ComputerUseClient>(std::make_unique<ScriptedRequestTransport>());
  RuntimeHeartbeat heartbeat(client, {});
  std::stop_source cancelled;
  cancelled.request_stop();
  {
    WithRequestContext scope(std::make_shared<const RequestContext>("r", cancelled.get_token()));
    heartbeat.startIfNeeded();
  }
  EXPECT_FALSE(heartbeat.isRunning());
  heartbeat.startIfNeeded();
  EXPECT_TRUE(heartbeat.isRunning());
}

TEST(RuntimeHeartbeat, TheConnectionsEndStopsIt) {
  CapturedLog log;
  SteppedWaits waits;
  ToolCallHarness harness(MCPServerMode::computerUse, {}, steppedBy(waits));
  harness.runtime().establishOnReply(true);
  harness.runtime().scriptDefault(textReply);
  Pipe input, output;
  auto serving = std::async(std::launch::async, [&] {
    runStdioTransport(harness.server(), input.readEnd(), output.writeEnd(), std::stop_token());
  });
  writeAll(input.writeEnd(), R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"list_apps"}})" "\n");
  waits.begun(1); // the call reached the runtime and started the heartbeat
  EXPECT_TRUE(harness.server().isRuntimeHeartbeatRunning());
  input.closeWrite();
  EXPECT_EQ(serving.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(harness.server().isRuntimeHeartbeatRunning());
}

} // namespace
} // namespace tavix::test
