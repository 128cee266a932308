// The executor for blocking sends: how many run and wait at once (and the refusal of the
// first job beyond that), the order in which waiting jobs start, the removal of a waiting
// job, jobs whose caller already gave up, and callbacks that call back into the executor.

#include "client/IPCBlockingSendExecutor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tavix::test {
namespace {

using Job = IPCBlockingSendExecutor::Job;

// Named jobs that record when they start, wait until the test releases them, and record
// when they finish; rejections are recorded with their failure.
class HeldJobs {
public:
  Job job(const std::string &name, std::shared_ptr<IPCSendTicket> ticket = std::make_shared<IPCSendTicket>()) {
    Job job;
    job.ticket = std::move(ticket);
    job.run = [this, name] {
      std::unique_lock guard(lock_);
      started_.push_back(name);
      changed_.notify_all();
      changed_.wait(guard, [&] { return releasedAll_ || released_.contains(name); });
      finished_.push_back(name);
      changed_.notify_all();
    };
    job.reject = [this, name](ClientFailure failure) {
      std::lock_guard guard(lock_);
      rejected_.emplace_back(name, std::move(failure));
    };
    return job;
  }

  void release(const std::string &name) {
    std::lock_guard guard(lock_);
    released_.insert(name);
    changed_.notify_all();
  }
  void releaseAll() {
    std::lock_guard guard(lock_);
    releasedAll_ = true;
    changed_.notify_all();
  }

  // Waits until `count` jobs have started / finished.
  std::vector<std::string> started(size_t count) { return waitFor(started_, count); }
  std::vector<std::string> finished(size_t count) { return waitFor(finished_, count); }
  std::vector<std::string> startedNow() const { return snapshot(started_); }
  std::vector<std::string> finishedNow() const { return snapshot(finished_); }
  std::vector<std::pair<std::string, ClientFailure>> rejected() const {
    std::lock_guard guard(lock_);
    return rejected_;
  }

private:
  std::vector<std::string> waitFor(const std::vector<std::string> &list, size_t count) {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [&] { return list.size() >= count; });
    return list;
  }
  std::vector<std::string> snapshot(const std::vector<std::string> &list) const {
    std::lock_guard guard(lock_);
    return list;
  }

  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::set<std::string> released_;
  bool releasedAll_ = false;
  std::vector<std::string> started_, finished_;
  std::vector<std::pair<std::string, ClientFailure>> rejected_;
};

// Jobs and an executor; every held job is released before the executor joins its threads.
struct Bench {
  Bench(int maxActive, int maxQueued) : executor("test.executor", maxActive, maxQueued) {}
  ~Bench() { jobs.releaseAll(); }
  HeldJobs jobs;
  IPCBlockingSendExecutor executor;
};

std::string named(const char *prefix, size_t index) { return prefix + std::to_string(index); }

TEST(IPCBlockingSendExecutor, RunsAndQueuesUpToItsLimitsAndRefusesTheNextJobAtOnce) {
  const struct {
    const char *name;
    int maxActive, maxQueued;
    size_t running, waiting; // what the limits allow
  } cases[] = {
      {"two running and eight waiting", 2, 8, 2, 8},
      {"no waiting list", 2, 0, 2, 0},
      {"one running, one waiting", 1, 1, 1, 1},
      {"zero running counts as one", 0, 1, 1, 1},
      {"negative running counts as one", -3, 2, 1, 2},
      {"negative waiting counts as none", 1, -1, 1, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Bench bench(c.maxActive, c.maxQueued);
    const size_t accepted = c.running + c.waiting;
    for (size_t i = 0; i < accepted; ++i)
      bench.executor.enqueue(bench.jobs.job(named("job", i)));
    EXPECT_TRUE(bench.jobs.rejected().empty()); // the last one the limits allow is accepted
    EXPECT_EQ(bench.jobs.started(c.running).size(), c.running);
    EXPECT_EQ(bench.executor.activeCount(), c.running);
    EXPECT_EQ(bench.executor.waitingCount(), c.waiting);

    bench.executor.enqueue(bench.jobs.job("refused"));
    const auto rejected = bench.jobs.rejected(); // refused before enqueue returned
    ASSERT_EQ(rejected.size(), 1u);
    EXPECT_EQ(rejected[0].first, "refused");
    EXPECT_EQ(rejected[0].second, ClientFailure(ComputerUseIPCError::rateLimited));
    EXPECT_EQ(bench.executor.activeCount(), c.running);
    EXPECT_EQ(bench.executor.waitingCount(), c.waiting);
    EXPECT_EQ(bench.jobs.startedNow().size(), c.running);

    bench.jobs.releaseAll();
    const auto finished = bench.jobs.finished(accepted);
    EXPECT_EQ(finished.size(), accepted);
    EXPECT_EQ(std::count(finished.begin(), finished.end(), "refused"), 0);
  }
}

TEST(IPCBlockingSendExecutor, AFinishedJobMakesRoomForTheLongestWaitingOne) {
  Bench bench(2, 3);
  for (const char *name : {"a", "b", "w1", "w2", "w3"})
    bench.executor.enqueue(bench.jobs.job(name));
  auto first = bench.jobs.started(2);
  std::sort(first.begin(), first.end());
  EXPECT_EQ(first, (std::vector<std::string>{"a", "b"}));

  const struct {
    const char *release;
    const char *startsNext;
    size_t stillWaiting;
  } steps[] = {{"a", "w1", 2}, {"b", "w2", 1}, {"w1", "w3", 0}};
  size_t startedCount = 2;
  for (const auto &step : steps) {
    SCOPED_TRACE(step.release);
    bench.jobs.release(step.release);
    const auto started = bench.jobs.started(++startedCount);
    EXPECT_EQ(started.back(), step.startsNext);
    EXPECT_EQ(bench.executor.waitingCount(), step.stillWaiting);
    EXPECT_EQ(bench.executor.activeCount(), 2u); // the freed place went to the waiting job
  }
  EXPECT_EQ(bench.jobs.startedNow().size(), 5u);
  EXPECT_TRUE(bench.jobs.rejected().empty());
}

TEST(IPCBlockingSendExecutor, IdleOnlyOnceEveryRunningAndWaitingJobHasFinished) {
  using namespace std::chrono_literals;
  Bench bench(1, 1);
  EXPECT_TRUE(bench.executor.waitUntilIdle(std::chrono::steady_clock::now()));
  bench.executor.enqueue(bench.jobs.job("a"));
  bench.executor.enqueue(bench.jobs.job("w"));
  bench.jobs.started(1);
  EXPECT_FALSE(bench.executor.waitUntilIdle(std::chrono::steady_clock::now() + 10ms));
  bench.jobs.release("a");
  bench.jobs.started(2);
  EXPECT_FALSE(bench.executor.waitUntilIdle(std::chrono::steady_clock::now() + 10ms)) << "w still runs";
  std::thread releaser([&] { bench.jobs.release("w"); });
  EXPECT_TRUE(bench.executor.waitUntilIdle(std::chrono::steady_clock::now() + 60s));
  EXPECT_EQ(bench.jobs.finishedNow(), (std::vector<std::string>{"a", "w"}));
  releaser.join();
}

TEST(IPCBlockingSendExecutor, CancellingAWaitingJobRejectsItAtOnceAndItNeverRuns) {
  Bench bench(1, 2);
  auto cancelledTicket = std::make_shared<IPCSendTicket>();
  bench.executor.enqueue(bench.jobs.job("running"));
  bench.executor.enqueue(bench.jobs.job("cancelled", cancelledTicket));
  bench.executor.enqueue(bench.jobs.job("kept"));
  bench.jobs.started(1);

  bench.executor.cancelWaiting(cancelledTicket);
  auto rejected = bench.jobs.rejected();
  ASSERT_EQ(rejected.size(), 1u);
  EXPECT_EQ(rejected[0].first, "cancelled");
  EXPECT_EQ(rejected[0].second, ClientFailure(CancellationError{}));
  EXPECT_EQ(bench.executor.waitingCount(), 1u);

  // Its place in the list is free again, and cancelling it a second time does nothing.
  bench.executor.enqueue(bench.jobs.job("later"));
  bench.executor.cancelWaiting(cancelledTicket);
  EXPECT_EQ(bench.jobs.rejected().size(), 1u);
  EXPECT_EQ(bench.executor.waitingCount(), 2u);

  bench.jobs.release("running");
  EXPECT_EQ(bench.jobs.started(2).back(), "kept");
  bench.jobs.releaseAll();
  auto finished = bench.jobs.finished(3);
  std::sort(finished.begin(), finished.end());
  EXPECT_EQ(finished, (std::vector<std::string>{"kept", "later", "running"}));
  EXPECT_EQ(bench.jobs.rejected().size(), 1u);
}

TEST(IPCBlockingSendExecutor, CancellingAJobThatIsNotWaitingDoesNothing) {
  Bench bench(1, 1);
  auto runningTicket = std::make_shared<IPCSendTicket>();
  auto finishedTicket = std::make_shared<IPCSendTicket>();
  bench.executor.enqueue(bench.jobs.job("finished", finishedTicket));
  bench.jobs.release("finished");
  bench.jobs.finished(1);
  bench.executor.enqueue(bench.jobs.job("running", runningTicket));
  bench.jobs.started(2);

  bench.executor.cancelWaiting(runningTicket);
  bench.executor.cancelWaiting(finishedTicket);
  bench.executor.cancelWaiting(std::make_shared<IPCSendTicket>()); // never enqueued
  EXPECT_TRUE(bench.jobs.rejected().empty());
  EXPECT_EQ(bench.executor.activeCount(), 1u);

  bench.jobs.release("running");
  EXPECT_EQ(bench.jobs.finished(2).back(), "running");
  EXPECT_TRUE(bench.jobs.rejected().empty());
}

TEST(IPCBlockingSendExecutor, AJobWhoseCallerAlreadyGaveUpIsRejectedAsCancelledWithoutRunning) {
  const struct {
    const char *name;
    size_t alreadyRunning, alreadyWaiting; // on an executor with one running and one waiting
  } cases[] = {
      {"a place to run is free", 0, 0},
      {"a place in the list is free", 1, 0},
      {"the list is full", 1, 1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Bench bench(1, 1);
    for (size_t i = 0; i < c.alreadyRunning + c.alreadyWaiting; ++i)
      bench.executor.enqueue(bench.jobs.job(named("job", i)));
    bench.jobs.started(c.alreadyRunning);

    auto ticket = std::make_shared<IPCSendTicket>();
    ticket->markCancelled();
    bench.executor.enqueue(bench.jobs.job("given-up", ticket));
    const auto rejected = bench.jobs.rejected();
    ASSERT_EQ(rejected.size(), 1u);
    EXPECT_EQ(rejected[0].first, "given-up");
    EXPECT_EQ(rejected[0].second, ClientFailure(CancellationError{}));
    EXPECT_EQ(bench.executor.activeCount(), c.alreadyRunning);
    EXPECT_EQ(bench.executor.waitingCount(), c.alreadyWaiting);

    // It took no place: the next job fits where the limits say.
    bench.executor.enqueue(bench.jobs.job("next"));
    EXPECT_EQ(bench.jobs.rejected().size(), c.alreadyWaiting == 1 ? 2u : 1u);
    bench.jobs.releaseAll();
    const size_t accepted = c.alreadyRunning + c.alreadyWaiting + (c.alreadyWaiting == 1 ? 0 : 1);
    const auto finished = bench.jobs.finished(accepted);
    EXPECT_EQ(std::count(finished.begin(), finished.end(), "given-up"), 0);
  }
}

// A callback that calls into the executor would deadlock (or fail under the sanitizers)
// were the executor's lock held while it runs.
TEST(IPCBlockingSendExecutor, RejectionsCallTheirCallbacksOutsideTheExecutorsLock) {
  Bench bench(1, 1);
  std::mutex lock;
  std::map<std::string, size_t> waitingSeen;
  auto reentrant = [&](const std::string &name, std::shared_ptr<IPCSendTicket> ticket) {
    Job job = bench.jobs.job(name, std::move(ticket));
    job.reject = [&, name](ClientFailure) {
      const size_t waiting = bench.executor.waitingCount();
      bench.executor.cancelWaiting(std::make_shared<IPCSendTicket>());
      std::lock_guard guard(lock);
      waitingSeen[name] = waiting;
    };
    return job;
  };
  auto waitingTicket = std::make_shared<IPCSendTicket>();
  bench.executor.enqueue(bench.jobs.job("running"));
  bench.executor.enqueue(reentrant("waiting", waitingTicket));
  bench.executor.enqueue(reentrant("refused", std::make_shared<IPCSendTicket>()));
  auto givenUp = std::make_shared<IPCSendTicket>();
  givenUp->markCancelled();
  bench.executor.enqueue(reentrant("given-up", givenUp));
  bench.executor.cancelWaiting(waitingTicket);

  std::lock_guard guard(lock);
  EXPECT_EQ(waitingSeen, (std::map<std::string, size_t>{{"given-up", 1}, {"refused", 1}, {"waiting", 0}}));
}

TEST(IPCBlockingSendExecutor, JobsRunOutsideTheExecutorsLock) {
  Bench bench(1, 1);
  std::mutex lock;
  std::condition_variable done;
  std::optional<std::pair<size_t, size_t>> seen; // active and waiting, as the job saw them
  Job outer;
  outer.ticket = std::make_shared<IPCSendTicket>();
  outer.run = [&] {
    bench.executor.enqueue(bench.jobs.job("inner")); // waits until this one finishes
    const std::pair counts{bench.executor.activeCount(), bench.executor.waitingCount()};
    std::lock_guard guard(lock);
    seen = counts;
    done.notify_all();
  };
  outer.reject = [](ClientFailure) {};
  bench.executor.enqueue(std::move(outer));
  {
    std::unique_lock guard(lock);
    done.wait(guard, [&] { return seen.has_value(); });
    EXPECT_EQ(*seen, (std::pair<size_t, size_t>{1, 1}));
  }
  EXPECT_EQ(bench.jobs.started(1), std::vector<std::string>{"inner"});
}

} // namespace
} // namespace tavix::test
