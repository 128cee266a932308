// The worker pool runs jobs side by side and finishes the posted ones before it goes.

#include "support/WorkerPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>

namespace tavix::test {
namespace {

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

} // namespace
} // namespace tavix::test
