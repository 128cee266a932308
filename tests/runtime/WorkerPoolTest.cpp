// The worker pool runs jobs side by side and finishes the posted ones before it goes; a
// cancellation wakes a waiting worker at once.

#include "runtime/Cancellation.h"
#include "runtime/WorkerPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>

namespace tavix::test {
namespace {

using runtime::Cancellation;
using runtime::WorkerPool;

TEST(WorkerPool, RunsJobsSideBySide) {
  // Each job waits for all the others: with fewer threads than jobs this never ends.
  constexpr size_t threads = 4;
  std::latch allRunning(threads);
  std::atomic<int> done{0};
  {
    WorkerPool pool(threads);
    for (size_t i = 0; i < threads; ++i)
      pool.post([&] {
        allRunning.arrive_and_wait();
        ++done;
      });
  }
  EXPECT_EQ(done.load(), static_cast<int>(threads));
}

TEST(WorkerPool, FinishesThePostedJobsBeforeItGoes) {
  std::atomic<int> done{0};
  {
    WorkerPool pool(1);
    for (int i = 0; i < 100; ++i)
      pool.post([&] { ++done; });
  }
  EXPECT_EQ(done.load(), 100);
}

TEST(Cancellation, AWaitRunsItsCourseUnlessCancelled) {
  Cancellation quiet;
  EXPECT_TRUE(quiet.waitFor(std::chrono::milliseconds(1)));
  Cancellation cancelled;
  const auto start = std::chrono::steady_clock::now();
  std::thread canceller([&] { cancelled.cancel(); });
  EXPECT_FALSE(cancelled.waitFor(std::chrono::minutes(10)));
  canceller.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::minutes(1));
  EXPECT_TRUE(cancelled.isCancelled());
  EXPECT_FALSE(cancelled.waitFor(std::chrono::minutes(10))) << "a cancelled wait returns at once";
}

} // namespace
} // namespace tavix::test
