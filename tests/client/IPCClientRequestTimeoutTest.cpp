// The race of one blocking send against its time-out and the cancellation of the calling
// request: what the caller gets, what is logged, which hook runs, and what the send sees
// of a caller that gave up.

#include "client/IPCClientRequestTimeout.h"

#include "fakes/CapturedLog.h"
#include "support/RequestContext.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class Signal {
public:
  void set() {
    std::lock_guard guard(lock_);
    set_ = true;
    changed_.notify_all();
  }
  void wait() {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [&] { return set_; });
  }
  bool isSet() {
    std::lock_guard guard(lock_);
    return set_;
  }

private:
  std::mutex lock_;
  std::condition_variable changed_;
  bool set_ = false;
};

// An operation that records what it sees of its ticket, and holds until released.
struct HeldOperation {
  Signal started, released, finished;
  std::atomic<int> runs{0};
  std::atomic<bool> cancelledAtStart{false}, cancelledAtEnd{false};

  IPCClientRequestTimeout::Operation operation(ClientResult<std::string> result = std::string("late reply")) {
    return [this, result](const IPCSendTicket &ticket) {
      ++runs;
      cancelledAtStart = ticket.isCancelled();
      started.set();
      released.wait();
      cancelledAtEnd = ticket.isCancelled();
      finished.set();
      return result;
    };
  }
};

// Opens a signal when the scope ends, so that no job is still held when the executor,
// declared before it, joins its threads.
struct OpenOnExit {
  Signal &signal;
  ~OpenOnExit() { signal.set(); }
};

struct HookCounts {
  std::atomic<int> timeouts{0}, cancelledWhileRunning{0};
  IPCClientRequestTimeout::Hooks hooks() {
    return {[this] { ++timeouts; }, [this] { ++cancelledWhileRunning; }};
  }
};

ClientResult<std::string> failed(ClientFailure failure) { return tl::unexpected(std::move(failure)); }

std::shared_ptr<const RequestContext> contextCancelledBy(const std::stop_source &source) {
  return std::make_shared<const RequestContext>("request-7", source.get_token());
}

// Whether the log line has ` key=value` as a whole field.
bool hasField(const std::string &line, const std::string &field) {
  return line.find(" " + field + " ") != std::string::npos || line.find(" " + field + "\n") != std::string::npos;
}

TEST(IPCClientRequestTimeout, ReturnsWhatTheOperationReturns) {
  const struct {
    const char *name;
    ClientResult<std::string> result;
  } cases[] = {
      {"a reply", std::string(R"({"ok":true})")},
      {"a server error", failed(ServerError{-1708, "no handler"})},
      {"a timed-out send", failed(ClientError::sendFailed(-1712, "ComputerUseIPCHealthRequest", 2))},
      {"an IPC error", failed(ComputerUseIPCError::rateLimited)},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    CapturedLog log;
    HookCounts counts;
    std::atomic<bool> cancelledAtStart{true};
    std::string correlationID;
    std::stop_source source;
    WithRequestContext scope(contextCancelledBy(source));
    ClientResult<std::string> result;
    {
      IPCBlockingSendExecutor executor("test.executor", 1, 1);
      result = IPCClientRequestTimeout::withTimeout(
          executor, 30, "ComputerUseIPCHealthRequest", counts.hooks(), [&](const IPCSendTicket &ticket) {
            cancelledAtStart = ticket.isCancelled();
            correlationID = RequestContext::current()->correlationID();
            return c.result;
          });
    }
    EXPECT_EQ(result, c.result);
    EXPECT_FALSE(cancelledAtStart);
    EXPECT_EQ(correlationID, "request-7"); // the send runs under the caller's request
    EXPECT_EQ(counts.timeouts, 0);
    EXPECT_EQ(counts.cancelledWhileRunning, 0);
    EXPECT_TRUE(log.withEvent("request_timeout").empty());
    EXPECT_TRUE(log.withEvent("request_cancelled").empty());
  }
}

TEST(IPCClientRequestTimeout, AnExecutorRefusalIsReturnedAsItIsWithoutRunningTheOperation) {
  CapturedLog log;
  HookCounts counts;
  HeldOperation blocker;
  std::atomic<int> runs{0};
  IPCBlockingSendExecutor executor("test.executor", 1, 0);
  OpenOnExit release{blocker.released};
  IPCBlockingSendExecutor::Job job;
  auto ticket = std::make_shared<IPCSendTicket>();
  job.ticket = ticket;
  job.run = [&blocker, ticket] { (void)blocker.operation()(*ticket); };
  job.reject = [](ClientFailure) {};
  executor.enqueue(std::move(job));
  blocker.started.wait();

  const auto result = IPCClientRequestTimeout::withTimeout(executor, 30, "ComputerUseIPCClickRequest", counts.hooks(),
                                                           [&](const IPCSendTicket &) {
                                                             ++runs;
                                                             return ClientResult<std::string>("reply");
                                                           });
  EXPECT_EQ(result, failed(ComputerUseIPCError::rateLimited));
  EXPECT_EQ(counts.timeouts, 0);
  EXPECT_EQ(counts.cancelledWhileRunning, 0);
  EXPECT_TRUE(log.withEvent("request_timeout").empty());
  blocker.released.set();
  blocker.finished.wait();
  EXPECT_EQ(runs, 0);
}

TEST(IPCClientRequestTimeout, ATimeOutAnswersWhileTheOperationRunsAndDropsItsLateResult) {
  const struct {
    double seconds;
    const char *timeoutMs; // rounded to the nearest millisecond
  } cases[] = {{0.0204, "timeoutMs=20"}, {0.0206, "timeoutMs=21"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.timeoutMs);
    CapturedLog log;
    HookCounts counts;
    HeldOperation held;
    {
      IPCBlockingSendExecutor executor("test.executor", 1, 0);
      OpenOnExit release{held.released};
      const auto before = Clock::now();
      const auto result = IPCClientRequestTimeout::withTimeout(executor, c.seconds, "ComputerUseIPCHealthRequest",
                                                               counts.hooks(), held.operation());
      const auto elapsed = Clock::now() - before;
      EXPECT_EQ(result, failed(ComputerUseIPCError::timeout));
      EXPECT_GE(elapsed, std::chrono::duration<double>(c.seconds));
      EXPECT_EQ(counts.timeouts, 1);
      EXPECT_EQ(counts.cancelledWhileRunning, 0);
      held.started.wait();
      EXPECT_FALSE(held.finished.isSet()); // the send is still blocked

      const auto lines = log.withEvent("request_timeout");
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_TRUE(hasField(lines[0], "level=error")) << lines[0];
      EXPECT_TRUE(hasField(lines[0], "category=ipc")) << lines[0];
      EXPECT_TRUE(hasField(lines[0], "requestType=ComputerUseIPCHealthRequest")) << lines[0];
      EXPECT_TRUE(hasField(lines[0], c.timeoutMs)) << lines[0];
      EXPECT_TRUE(log.withEvent("request_cancelled").empty());

      held.released.set();
      held.finished.wait();
    } // joins the executor's threads: the late result has been delivered and dropped
    EXPECT_TRUE(held.cancelledAtEnd); // the send can tell that its caller gave up
    EXPECT_EQ(held.runs, 1);
    EXPECT_EQ(counts.timeouts, 1);
    EXPECT_EQ(counts.cancelledWhileRunning, 0);
    EXPECT_EQ(log.withEvent("request_timeout").size(), 1u);
  }
}

TEST(IPCClientRequestTimeout, CancellingTheCallerWhileTheOperationRunsAnswersCancelled) {
  CapturedLog log;
  HookCounts counts;
  HeldOperation held;
  std::stop_source source;
  WithRequestContext scope(contextCancelledBy(source));
  {
    IPCBlockingSendExecutor executor("test.executor", 1, 0);
    OpenOnExit release{held.released};
    std::thread canceller([&] {
      held.started.wait();
      source.request_stop();
    });
    const auto before = Clock::now();
    const auto result = IPCClientRequestTimeout::withTimeout(executor, 600, "ComputerUseIPCClickRequest",
                                                             counts.hooks(), held.operation());
    canceller.join();
    EXPECT_EQ(result, failed(ComputerUseIPCError::cancelled));
    EXPECT_LT(Clock::now() - before, 300s); // not the time-out
    EXPECT_EQ(counts.cancelledWhileRunning, 1);
    EXPECT_EQ(counts.timeouts, 0);
    EXPECT_FALSE(held.cancelledAtStart);

    const auto lines = log.withEvent("request_cancelled");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(hasField(lines[0], "level=info")) << lines[0];
    EXPECT_TRUE(hasField(lines[0], "category=ipc")) << lines[0];
    EXPECT_TRUE(hasField(lines[0], "requestType=ComputerUseIPCClickRequest")) << lines[0];
    EXPECT_TRUE(log.withEvent("request_timeout").empty());

    held.released.set();
    held.finished.wait();
  }
  EXPECT_TRUE(held.cancelledAtEnd);
  EXPECT_EQ(counts.cancelledWhileRunning, 1);
}

TEST(IPCClientRequestTimeout, CancellingTheCallerWhileTheOperationWaitsRemovesItAndItNeverRuns) {
  const struct {
    const char *name;
    bool cancelBeforeTheCall;
  } cases[] = {{"cancelled before the call", true}, {"cancelled while waiting", false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    CapturedLog log;
    HookCounts counts;
    HeldOperation blocker, waiting;
    std::stop_source source;
    if (c.cancelBeforeTheCall)
      source.request_stop();
    WithRequestContext scope(contextCancelledBy(source));
    {
      IPCBlockingSendExecutor executor("test.executor", 1, 1);
      OpenOnExit release{blocker.released};
      IPCBlockingSendExecutor::Job job;
      auto ticket = std::make_shared<IPCSendTicket>();
      job.ticket = ticket;
      job.run = [&blocker, ticket] { (void)blocker.operation()(*ticket); };
      job.reject = [](ClientFailure) {};
      executor.enqueue(std::move(job));
      blocker.started.wait();

      std::thread canceller([&] {
        if (c.cancelBeforeTheCall)
          return;
        // The executor tells of no enqueue, so look until the send is in its list.
        while (executor.waitingCount() == 0)
          std::this_thread::yield();
        source.request_stop();
      });
      const auto result = IPCClientRequestTimeout::withTimeout(executor, 600, "ComputerUseIPCTypeTextRequest",
                                                               counts.hooks(), waiting.operation());
      canceller.join();
      EXPECT_EQ(result, failed(ComputerUseIPCError::cancelled));
      EXPECT_EQ(executor.waitingCount(), 0u); // taken out of the list
      EXPECT_EQ(counts.cancelledWhileRunning, 0);
      EXPECT_EQ(counts.timeouts, 0);
      EXPECT_EQ(log.withEvent("request_cancelled").size(), 1u);

      blocker.released.set();
      blocker.finished.wait();
    } // joins: anything still queued would have run by now
    EXPECT_EQ(waiting.runs, 0);
    EXPECT_EQ(counts.cancelledWhileRunning, 0);
  }
}

} // namespace
} // namespace tavix::test
