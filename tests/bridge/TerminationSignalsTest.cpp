#include "bridge/TerminationSignals.h"

#include "fakes/CapturedLog.h"

#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <unistd.h>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;

TEST(TerminationSignalHandler, TheFirstSignalCancelsTheTaskAndArmsTheGraceExit) {
  CapturedLog log;
  std::atomic<int> cancels = 0;
  std::promise<int> exitStatus;
  auto exited = exitStatus.get_future();
  TerminationSignalHandler handler(
      {[&] { ++cancels; }, [&](int status) { exitStatus.set_value(status); }, 20ms});
  EXPECT_TRUE(handler.handle(SIGTERM));
  EXPECT_FALSE(handler.handle(SIGINT));
  EXPECT_FALSE(handler.handle(SIGTERM));
  EXPECT_EQ(cancels, 1);
  ASSERT_EQ(exited.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(exited.get(), 0);
  const auto received = log.withEvent("signal_received");
  ASSERT_EQ(received.size(), 1u);
  EXPECT_TRUE(received[0].ends_with(
      " level=info process=tavix_tests pid=" + std::to_string(getpid()) +
      " category=lifecycle event=signal_received outcome=cancelling_transport signal=15\n"))
      << received[0];
  const auto expired = log.withEvent("shutdown_grace_expired");
  ASSERT_EQ(expired.size(), 1u);
  EXPECT_NE(expired[0].find(" level=warning "), std::string::npos);
  EXPECT_TRUE(expired[0].ends_with("event=shutdown_grace_expired graceMs=20\n")) << expired[0];
}

TEST(TerminationSignalHandler, WithoutATaskTheProcessExitsAtOnce) {
  CapturedLog log;
  std::vector<int> statuses;
  TerminationSignalHandler handler({nullptr, [&](int status) { statuses.push_back(status); }});
  EXPECT_TRUE(handler.handle(SIGINT));
  EXPECT_FALSE(handler.handle(SIGINT));
  EXPECT_EQ(statuses, std::vector<int>{0});
  const auto received = log.withEvent("signal_received");
  ASSERT_EQ(received.size(), 1u);
  EXPECT_TRUE(received[0].ends_with("event=signal_received outcome=exiting signal=2\n"))
      << received[0];
}

} // namespace
} // namespace tavix::test
