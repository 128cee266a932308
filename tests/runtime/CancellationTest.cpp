// A cancellation wakes a waiting worker at once, and a wait without one runs its course.

#include "runtime/Cancellation.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace tavix::test {
namespace {

using runtime::Cancellation;

TEST(Cancellation, AWaitRunsItsCourseUnlessCancelled) {
  Cancellation quiet;
  EXPECT_TRUE(quiet.waitFor(std::chrono::milliseconds(1)));
  EXPECT_FALSE(quiet.isCancelled());
  // Woken from another thread: a wait of ten minutes that returns is a wait that was woken.
  Cancellation cancelled;
  std::thread canceller([&] { cancelled.cancel(); });
  EXPECT_FALSE(cancelled.waitFor(std::chrono::minutes(10)));
  canceller.join();
  EXPECT_TRUE(cancelled.isCancelled());
  EXPECT_FALSE(cancelled.waitFor(std::chrono::minutes(10))) << "a cancelled wait returns at once";
}

} // namespace
} // namespace tavix::test
