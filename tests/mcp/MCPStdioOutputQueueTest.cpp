#include "mcp/MCPStdioOutputQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <optional>
#include <set>

namespace tavix::test {
namespace {

// A job that leaves everything to the writer thread.
template <typename Write> MCPStdioOutputQueue::WriteJob onWriter(Write write) {
  return [write](bool tryOnly) mutable {
    if (tryOnly)
      return WriteOutcome::incomplete;
    return write() ? WriteOutcome::written : WriteOutcome::failed;
  };
}

TEST(MCPStdioOutputQueue, AnIdleQueueWritesOnTheCallingThread) {
  MCPStdioOutputQueue queue;
  std::vector<std::pair<bool, std::thread::id>> calls;
  queue.enqueue(
      [&](bool tryOnly) {
        calls.emplace_back(tryOnly, std::this_thread::get_id());
        return WriteOutcome::written;
      },
      [] { FAIL() << "no write failed"; });
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_TRUE(calls[0].first);
  EXPECT_EQ(calls[0].second, std::this_thread::get_id());
}

TEST(MCPStdioOutputQueue, WritesInOrderOnOneThread) {
  std::vector<int> order;
  std::set<std::thread::id> threads;
  std::promise<void> done;
  {
    MCPStdioOutputQueue queue;
    for (int i = 0; i < 10; ++i)
      queue.enqueue(onWriter([&, i] {
                      order.push_back(i);
                      threads.insert(std::this_thread::get_id());
                      if (i == 9)
                        done.set_value();
                      return true;
                    }),
          [] { FAIL() << "no write failed"; });
    done.get_future().wait();
  }
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(threads.size(), 1u);
  EXPECT_EQ(threads.count(std::this_thread::get_id()), 0u);
}

TEST(MCPStdioOutputQueue, ASeventeenthPendingResponseStopsTheConnection) {
  std::latch started(1), unblock(1);
  std::atomic<int> failures = 0, written = 0;
  std::optional<MCPStdioOutputQueue> queue(std::in_place);
  const auto blockedWrite = onWriter([&] {
    started.count_down();
    unblock.wait();
    ++written;
    return true;
  });
  queue->enqueue(blockedWrite, [&] { ++failures; });
  started.wait(); // the writer is stuck in the first write
  for (int i = 1; i < 16; ++i)
    queue->enqueue(blockedWrite, [&] { ++failures; });
  EXPECT_FALSE(queue->isClosed());
  EXPECT_EQ(failures, 0);
  queue->enqueue(blockedWrite, [&] { ++failures; });
  EXPECT_TRUE(queue->isClosed());
  EXPECT_EQ(failures, 1);
  queue->enqueue(blockedWrite, [&] { ++failures; }); // still refused
  EXPECT_EQ(failures, 2);
  unblock.count_down();
  queue.reset(); // joins the writer
  // The write in progress finished; the fifteen waiting behind it were skipped.
  EXPECT_EQ(written, 1);
}

TEST(MCPStdioOutputQueue, AFailedWriteClosesTheQueueAndSkipsTheRest) {
  std::atomic<int> failures = 0, laterWrites = 0;
  std::promise<void> failed;
  {
    std::latch hold(1);
    MCPStdioOutputQueue queue;
    queue.enqueue(onWriter([&] {
                    hold.wait();
                    return false;
                  }),
        [&] {
          ++failures;
          failed.set_value();
        });
    queue.enqueue(onWriter([&] { return ++laterWrites, true; }), [&] { ++failures; });
    hold.count_down();
    failed.get_future().wait();
    EXPECT_TRUE(queue.isClosed());
  }
  EXPECT_EQ(failures, 1);
  EXPECT_EQ(laterWrites, 0);
}

} // namespace
} // namespace tavix::test
