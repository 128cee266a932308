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
