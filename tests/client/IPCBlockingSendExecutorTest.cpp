// The executor for blocking sends: how many run and wait at once (and the refusal of the
// first job beyond that), the order in which waiting jobs start, the removal of a waiting
// job, jobs whose caller already gave up, and callbacks that call back into the executor.

#include "client/IPCBlockingSendExecutor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace tavix::test {
namespace {

using Job = IPCBlockingSendExecutor::Job;
using namespace std::literals;

// An executor and named jobs that record when they start, wait until the test releases
// them, and record when they finish; rejections are recorded with their failure. Every
// held job is released before the executor joins its threads.
class Bench {
public:
  Bench(int maxActive, int maxQueued) : executor("test.executor", maxActive, maxQueued) {}
  ~Bench() { release(""); }

  Job job(const std::string &name, std::shared_ptr<IPCSendTicket> ticket = std::make_shared<IPCSendTicket>()) {
    return {std::move(ticket),
            [this, name] {
              std::unique_lock guard(lock_);
              started_.push_back(name);
              changed_.notify_all();
              changed_.wait(guard, [&] { return released_.contains("") || released_.contains(name); });
              finished_.push_back(name);
              changed_.notify_all();
            },
            [this, name](ClientFailure failure) {
              std::lock_guard guard(lock_);
              rejected_.emplace_back(name, std::move(failure));
            }};
  }
  void enqueue(const std::string &name) { executor.enqueue(job(name)); }
  // Releases one job, or every job for "".
  void release(const std::string &name) {
    std::lock_guard guard(lock_);
    released_.insert(name);
    changed_.notify_all();
  }
  // Waits until `count` jobs have started / finished.
  std::vector<std::string> started(size_t count) { return waitFor(started_, count); }
  std::vector<std::string> finished(size_t count) { return waitFor(finished_, count); }
  std::vector<std::pair<std::string, ClientFailure>> rejected() {
    std::lock_guard guard(lock_);
    return rejected_;
  }
  void expectCounts(size_t active, size_t waiting) const {
    EXPECT_EQ(executor.activeCount(), active);
    EXPECT_EQ(executor.waitingCount(), waiting);
  }

private:
  std::vector<std::string> waitFor(const std::vector<std::string> &list, size_t count) {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [&] { return list.size() >= count; });
    return list;
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::set<std::string> released_;
  std::vector<std::string> started_, finished_;
  std::vector<std::pair<std::string, ClientFailure>> rejected_;

public:
  IPCBlockingSendExecutor executor; // last, so that its threads are joined before the rest goes
};

TEST(IPCBlockingSendExecutor, RunsAndQueuesUpToItsLimitsAndRefusesTheNextJobAtOnce) {
  const struct {
    int maxActive, maxQueued;
    size_t running, waiting; // what the limits allow
  } cases[] = {{2, 8, 2, 8}, {2, 0, 2, 0}, {1, 1, 1, 1}, {0, 1, 1, 1}, {-3, 2, 1, 2}, {1, -1, 1, 0}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.maxActive) + " running, " + std::to_string(c.maxQueued) + " waiting");
    Bench bench(c.maxActive, c.maxQueued);
    for (size_t i = 0; i < c.running + c.waiting; ++i)
      bench.enqueue("job" + std::to_string(i));
    EXPECT_TRUE(bench.rejected().empty()); // the last one the limits allow is accepted
    bench.started(c.running);
    bench.expectCounts(c.running, c.waiting);
    bench.enqueue("refused");
    const auto rejected = bench.rejected(); // refused before enqueue returned
    ASSERT_EQ(rejected.size(), 1u);
    EXPECT_EQ(rejected[0], std::pair("refused"s, ClientFailure(ComputerUseIPCError::rateLimited)));
    bench.expectCounts(c.running, c.waiting);
    bench.release("");
    const auto finished = bench.finished(c.running + c.waiting);
    EXPECT_EQ(std::count(finished.begin(), finished.end(), "refused"), 0);
  }
}

TEST(IPCBlockingSendExecutor, AFinishedJobMakesRoomForTheLongestWaitingOneAndIdleMeansNoneRunsOrWaits) {
  Bench bench(2, 3);
  EXPECT_TRUE(bench.executor.waitUntilIdle(std::chrono::steady_clock::now()));
  for (const char *name : {"a", "b", "w1", "w2", "w3"})
    bench.enqueue(name);
  auto first = bench.started(2);
  EXPECT_EQ(std::set(first.begin(), first.end()), (std::set<std::string>{"a", "b"}));
  const struct {
    const char *release, *startsNext;
    size_t stillWaiting;
  } steps[] = {{"a", "w1", 2}, {"b", "w2", 1}, {"w1", "w3", 0}};
  for (size_t step = 0; step < 3; ++step) {
    SCOPED_TRACE(steps[step].release);
    EXPECT_FALSE(bench.executor.waitUntilIdle(std::chrono::steady_clock::now() + 10ms));
    bench.release(steps[step].release);
    EXPECT_EQ(bench.started(3 + step).back(), steps[step].startsNext);
    bench.expectCounts(2, steps[step].stillWaiting); // the freed place went to the waiting job
  }
  std::thread releaser([&] { bench.release(""); });
  EXPECT_TRUE(bench.executor.waitUntilIdle(std::chrono::steady_clock::now() + 60s));
  EXPECT_EQ(bench.finished(5).size(), 5u);
  releaser.join();
  EXPECT_TRUE(bench.rejected().empty());
}

TEST(IPCBlockingSendExecutor, CancellingAWaitingJobRejectsItAtOnceAndItNeverRunsWhileOthersAreLeftAlone) {
  Bench bench(1, 2);
  auto finishedTicket = std::make_shared<IPCSendTicket>(), runningTicket = std::make_shared<IPCSendTicket>(),
       cancelledTicket = std::make_shared<IPCSendTicket>();
  bench.executor.enqueue(bench.job("finished", finishedTicket));
  bench.release("finished");
  // Idle, not just finished: until its worker is free again, "kept" would find no place.
  ASSERT_TRUE(bench.executor.waitUntilIdle(std::chrono::steady_clock::now() + 60s));
  bench.executor.enqueue(bench.job("running", runningTicket));
  bench.executor.enqueue(bench.job("cancelled", cancelledTicket));
  bench.enqueue("kept");
  bench.started(2);
  // Tickets of jobs that run, have finished or were never enqueued are not waiting.
  for (const auto &ticket : {runningTicket, finishedTicket, std::make_shared<IPCSendTicket>()})
    bench.executor.cancelWaiting(ticket);
  EXPECT_TRUE(bench.rejected().empty());

  bench.executor.cancelWaiting(cancelledTicket);
  ASSERT_EQ(bench.rejected().size(), 1u);
  EXPECT_EQ(bench.rejected()[0], std::pair("cancelled"s, ClientFailure(CancellationError{})));
  bench.expectCounts(1, 1);
  // Its place in the list is free again, and cancelling it a second time does nothing.
  bench.enqueue("later");
  bench.executor.cancelWaiting(cancelledTicket);
  EXPECT_EQ(bench.rejected().size(), 1u);
  bench.expectCounts(1, 2);
  bench.release("running");
  EXPECT_EQ(bench.started(3).back(), "kept");
  bench.release("");
  EXPECT_EQ(bench.finished(4), (std::vector<std::string>{"finished", "running", "kept", "later"}));
}

TEST(IPCBlockingSendExecutor, AJobWhoseCallerAlreadyGaveUpIsRejectedAsCancelledWithoutTakingAPlace) {
  const struct {
    size_t running, waiting; // already, on an executor with one place to run and one to wait
  } cases[] = {{0, 0}, {1, 0}, {1, 1}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.running) + " running, " + std::to_string(c.waiting) + " waiting");
    Bench bench(1, 1);
    for (size_t i = 0; i < c.running + c.waiting; ++i)
      bench.enqueue("job" + std::to_string(i));
    bench.started(c.running);
    auto ticket = std::make_shared<IPCSendTicket>();
    ticket->markCancelled();
    bench.executor.enqueue(bench.job("given-up", ticket));
    ASSERT_EQ(bench.rejected().size(), 1u);
    EXPECT_EQ(bench.rejected()[0], std::pair("given-up"s, ClientFailure(CancellationError{})));
    bench.expectCounts(c.running, c.waiting);
    bench.enqueue("next"); // fits where the limits say
    EXPECT_EQ(bench.rejected().size(), c.waiting == 1 ? 2u : 1u);
    bench.release("");
    const auto finished = bench.finished(c.running + c.waiting + (c.waiting == 1 ? 0 : 1));
    EXPECT_EQ(std::count(finished.begin(), finished.end(), "given-up"), 0);
  }
}

// A callback that calls into the executor would deadlock (or fail under the sanitizers)
// were the executor's lock held while it runs.
TEST(IPCBlockingSendExecutor, JobsAndRejectionsRunOutsideTheExecutorsLock) {
  Bench bench(1, 1);
  std::map<std::string, size_t> waitingSeen;
  auto reentrant = [&](const std::string &name, std::shared_ptr<IPCSendTicket> ticket) {
    Job job = bench.job(name, std::move(ticket));
    job.reject = [&, name](ClientFailure) {
      waitingSeen[name] = bench.executor.waitingCount();
      bench.executor.cancelWaiting(std::make_shared<IPCSendTicket>());
    };
    return job;
  };
  std::promise<std::pair<size_t, size_t>> seen; // active and waiting, as the job saw them
  bench.executor.enqueue({std::make_shared<IPCSendTicket>(),
                          [&] {
                            bench.enqueue("inner"); // waits until this one finishes
                            seen.set_value({bench.executor.activeCount(), bench.executor.waitingCount()});
                          },
                          [](ClientFailure) {}});
  EXPECT_EQ(seen.get_future().get(), (std::pair<size_t, size_t>{1, 1}));
  EXPECT_EQ(bench.started(1), std::vector<std::string>{"inner"});

  auto waitingTicket = std::make_shared<IPCSendTicket>(), givenUp = std::make_shared<IPCSendTicket>();
  bench.executor.enqueue(reentrant("waiting", waitingTicket));
  bench.executor.enqueue(reentrant("refused", std::make_shared<IPCSendTicket>()));
  givenUp->markCancelled();
  bench.executor.enqueue(reentrant("given-up", givenUp));
  bench.executor.cancelWaiting(waitingTicket);
  EXPECT_EQ(waitingSeen, (std::map<std::string, size_t>{{"given-up", 1}, {"refused", 1}, {"waiting", 0}}));
}

} // namespace
} // namespace tavix::test
