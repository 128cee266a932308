// The race of one blocking send against its time-out and the cancellation of the calling
// request: what the caller gets, what is logged, which hook runs, and what the send sees
// of a caller that gave up.

#include "client/IPCClientRequestTimeout.h"

#include "fakes/CapturedLog.h"
#include "support/RequestContext.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <optional>
#include <thread>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

ClientResult<std::string> failed(ClientFailure failure) { return tl::unexpected(std::move(failure)); }

// A caller's request that the test can cancel, an executor with one place to run and
// `waiting` to wait, the hooks' counts and the log. The destructor releases what it holds
// before the executor joins its threads.
struct Race {
  explicit Race(int waiting = 0) { executor.emplace("test.executor", 1, waiting); }
  ~Race() { join(); }
  // Releases the held operation and joins the executor's threads: a late result has then
  // been delivered, and anything still queued has run.
  void join() {
    std::call_once(released, [&] { release.set_value(); });
    executor.reset();
  }

  // An operation that records what it sees of its ticket and holds until released.
  IPCClientRequestTimeout::Operation held() {
    return [this](const IPCSendTicket &ticket) {
      ++runs;
      started.set_value(ticket.isCancelled());
      releasedFuture.wait();
      cancelledAtEnd = ticket.isCancelled();
      return ClientResult<std::string>("late reply");
    };
  }
  // Occupies the one place to run with a held job.
  void occupy() {
    auto ticket = std::make_shared<IPCSendTicket>();
    executor->enqueue({ticket, [this, ticket] { (void)held()(*ticket); }, [](ClientFailure) {}});
    startedFuture.get();
  }
  ClientResult<std::string> withTimeout(double seconds, IPCClientRequestTimeout::Operation operation) {
    return IPCClientRequestTimeout::withTimeout(*executor, seconds, "ComputerUseIPCHealthRequest",
                                                {[this] { ++timeouts; }, [this] { ++cancelledWhileRunning; }},
                                                std::move(operation));
  }

  CapturedLog log;
  std::stop_source caller;
  WithRequestContext scope{std::make_shared<const RequestContext>("request-7", caller.get_token())};
  std::promise<bool> started; // whether the ticket was marked when the operation started
  std::future<bool> startedFuture = started.get_future();
  std::promise<void> release;
  std::once_flag released;
  std::shared_future<void> releasedFuture = release.get_future().share();
  std::atomic<int> runs{0}, timeouts{0}, cancelledWhileRunning{0};
  std::atomic<bool> cancelledAtEnd{false};
  std::optional<IPCBlockingSendExecutor> executor;
};

TEST(IPCClientRequestTimeout, ReturnsWhatTheOperationOrTheExecutorReturns) {
  const ClientResult<std::string> results[] = {std::string(R"({"ok":true})"), failed(ServerError{-1708, "no handler"}),
                                               failed(ClientError::sendFailed(-1712, "ComputerUseIPCHealthRequest", 2)),
                                               failed(ComputerUseIPCError::rateLimited)};
  for (const auto &expected : results) {
    Race race(0);
    std::string correlationID;
    bool cancelledAtStart = true;
    const auto result = race.withTimeout(30, [&](const IPCSendTicket &ticket) {
      cancelledAtStart = ticket.isCancelled();
      correlationID = RequestContext::current()->correlationID();
      return expected;
    });
    EXPECT_EQ(result, expected);
    EXPECT_FALSE(cancelledAtStart);
    EXPECT_EQ(correlationID, "request-7"); // the send runs under the caller's request
    EXPECT_EQ(race.timeouts + race.cancelledWhileRunning, 0);
    EXPECT_TRUE(race.log.withEvent("request_timeout").empty());
    EXPECT_TRUE(race.log.withEvent("request_cancelled").empty());
  }
  // A refusal of the executor is returned as it is, and the operation never runs.
  Race race(0);
  race.occupy();
  bool ran = false;
  EXPECT_EQ(race.withTimeout(30, [&](const IPCSendTicket &) {
    ran = true;
    return ClientResult<std::string>("reply");
  }),
            failed(ComputerUseIPCError::rateLimited));
  EXPECT_FALSE(ran);
  EXPECT_EQ(race.timeouts + race.cancelledWhileRunning, 0);
  EXPECT_TRUE(race.log.withEvent("request_timeout").empty());
}

TEST(IPCClientRequestTimeout, ATimeOutAnswersWhileTheOperationRunsAndDropsItsLateResult) {
  const struct {
    double seconds;
    const char *timeoutMs; // rounded to the nearest millisecond
  } cases[] = {{0.0204, "timeoutMs=20"}, {0.0206, "timeoutMs=21"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.timeoutMs);
    Race race;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(race.withTimeout(c.seconds, race.held()), failed(ComputerUseIPCError::timeout));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::duration<double>(c.seconds));
    EXPECT_FALSE(race.startedFuture.get()); // it started, and is still held
    race.join(); // its late result is dropped: no second hook or log line
    EXPECT_TRUE(race.cancelledAtEnd); // the send could tell that its caller gave up
    EXPECT_EQ(race.runs, 1);
    EXPECT_EQ(race.timeouts, 1);
    EXPECT_EQ(race.cancelledWhileRunning, 0);
    const auto lines = race.log.withEvent("request_timeout");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr(" level=error "));
    EXPECT_THAT(lines[0], HasSubstr(" category=ipc "));
    EXPECT_THAT(lines[0], HasSubstr("requestType=ComputerUseIPCHealthRequest " + std::string(c.timeoutMs)));
    EXPECT_TRUE(race.log.withEvent("request_cancelled").empty());
  }
}

TEST(IPCClientRequestTimeout, CancellingTheCallerWhileTheOperationRunsAnswersCancelled) {
  Race race;
  std::thread canceller([&] {
    race.startedFuture.wait();
    race.caller.request_stop();
  });
  EXPECT_EQ(race.withTimeout(600, race.held()), failed(ComputerUseIPCError::cancelled)); // not the time-out
  canceller.join();
  EXPECT_EQ(race.cancelledWhileRunning, 1);
  EXPECT_EQ(race.timeouts, 0);
  EXPECT_FALSE(race.startedFuture.get());
  const auto lines = race.log.withEvent("request_cancelled");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], HasSubstr(" level=info "));
  EXPECT_THAT(lines[0], HasSubstr(" category=ipc "));
  EXPECT_THAT(lines[0], HasSubstr("requestType=ComputerUseIPCHealthRequest"));
  EXPECT_TRUE(race.log.withEvent("request_timeout").empty());
  race.join();
  EXPECT_TRUE(race.cancelledAtEnd);
  EXPECT_EQ(race.cancelledWhileRunning, 1);
}

TEST(IPCClientRequestTimeout, CancellingTheCallerWhileTheOperationWaitsRemovesItAndItNeverRuns) {
  for (const bool beforeTheCall : {true, false}) {
    SCOPED_TRACE(beforeTheCall ? "cancelled before the call" : "cancelled while waiting");
    Race race(1);
    race.occupy();
    if (beforeTheCall)
      race.caller.request_stop();
    std::thread canceller([&] {
      // The executor tells of no enqueue, so look until the send is in its list.
      while (!beforeTheCall && race.executor->waitingCount() == 0)
        std::this_thread::yield();
      race.caller.request_stop();
    });
    const auto result = race.withTimeout(600, [&](const IPCSendTicket &) { return ClientResult<std::string>(std::to_string(++race.runs)); });
    canceller.join();
    EXPECT_EQ(result, failed(ComputerUseIPCError::cancelled));
    EXPECT_EQ(race.executor->waitingCount(), 0u); // taken out of the list
    race.join();
    EXPECT_EQ(race.runs, 1) << "only the job that held the place ran";
    EXPECT_EQ(race.cancelledWhileRunning + race.timeouts, 0);
    EXPECT_EQ(race.log.withEvent("request_cancelled").size(), 1u);
  }
}

} // namespace
} // namespace tavix::test
