// Kept state replies: the same request at the same desktop version is answered with the
// very reply made before, anything else makes a new one; a version that moves while a
// reply is made, a failure, or an older version than one kept leaves nothing behind; the
// least recently used entry goes at the capacity. Then the service's chain in memory: a
// virtual desktop, the router and the reply forms, where a repeated state request shares
// its sealed memfd and any action, another observation or another app answers anew.

#include "platform/linux/SealedMemfd.h"
#include "runtime/ReplyCache.h"
#include "runtime/RequestRouter.h"
#include "runtime/VirtualDesktop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace tavix::test {
namespace {

using namespace runtime;
using Reply = ReplyCache::Reply;

// A cache with a version the test sets and a maker that counts what it makes.
struct Harness {
  ReplyCache cache;
  uint64_t version = 0;
  int made = 0;

  Reply ask(const std::string &body, bool canPassDescriptors = true) {
    return cache.answer(body, canPassDescriptors, [this] { return version; }, [&] {
      ++made;
      return std::make_shared<const SendReply>(SendReply::response(body + "#" + std::to_string(made), false));
    });
  }
};

std::string bytesOf(const Reply &reply) { return reply && reply->directObject ? *reply->directObject : ""; }

// ---- what is served from memory ----

TEST(ReplyCacheTest, OnlyTheSameBodyFormAndVersionIsServedAgain) {
  struct Row {
    const char *name;
    std::string body;
    bool canPassDescriptors;
    uint64_t version;
    bool servedAgain;
  };
  const Row rows[] = {
      {"the same request", R"({"app":"Notes"})", true, 7, true},
      {"another body", R"({"app":"Files"})", true, 7, false},
      {"the same fields in other bytes", R"({ "app":"Notes"})", true, 7, false},
      {"another form", R"({"app":"Notes"})", false, 7, false},
      {"the next version", R"({"app":"Notes"})", true, 8, false},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    Harness harness;
    harness.version = 7;
    const Reply first = harness.ask(R"({"app":"Notes"})");
    harness.version = row.version;
    const Reply second = harness.ask(row.body, row.canPassDescriptors);
    EXPECT_EQ(second == first, row.servedAgain);
    EXPECT_EQ(harness.made, row.servedAgain ? 1 : 2);
    EXPECT_EQ(harness.cache.hits(), row.servedAgain ? 1u : 0u);
    EXPECT_EQ(harness.cache.misses(), row.servedAgain ? 1u : 2u);
  }
}

TEST(ReplyCacheTest, AVersionThatMovesWhileMakingLeavesNothingKept) {
  Harness harness;
  const Reply reply = harness.cache.answer("{}", true, [&] { return harness.version; }, [&] {
    ++harness.made;
    ++harness.version; // an action ran meanwhile: the reply may show either state
    return std::make_shared<const SendReply>(SendReply::response("{}", false));
  });
  ASSERT_TRUE(reply);
  EXPECT_EQ(harness.cache.size(), 0u);
  harness.ask("{}");
  EXPECT_EQ(harness.made, 2);
}

TEST(ReplyCacheTest, FailuresAreNotKept) {
  Harness harness;
  const auto fail = [&] {
    ++harness.made;
    return std::make_shared<const SendReply>(SendReply::failure({errn::invalidRequest, "bad"}));
  };
  const auto version = [&] { return harness.version; };
  harness.cache.answer("{", true, version, fail);
  harness.cache.answer("{", true, version, fail);
  EXPECT_EQ(harness.made, 2);
  EXPECT_EQ(harness.cache.size(), 0u);
}

TEST(ReplyCacheTest, ANewVersionDropsEveryOlderEntryAndAnOlderOneIsNotKept) {
  Harness harness;
  harness.ask("a");
  harness.ask("b");
  harness.version = 1;
  harness.ask("c");
  EXPECT_EQ(harness.cache.size(), 1u);
  // A worker that read version 0 and finishes late finds version 1 kept already.
  harness.version = 0;
  harness.ask("d");
  EXPECT_EQ(harness.cache.size(), 1u);
  harness.version = 1;
  const int before = harness.made;
  harness.ask("c");
  EXPECT_EQ(harness.made, before);
}

// ---- capacity ----

TEST(ReplyCacheTest, TheLeastRecentlyUsedEntryGoesAtTheCapacity) {
  struct Row {
    size_t requests;
    bool firstStillKept;
  };
  const Row rows[] = {{ReplyCache::capacity, true}, {ReplyCache::capacity + 1, false}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.requests);
    Harness harness;
    for (size_t i = 0; i < row.requests; ++i)
      harness.ask("body " + std::to_string(i));
    EXPECT_EQ(harness.cache.size(), std::min(row.requests, ReplyCache::capacity));
    const int made = harness.made;
    harness.ask("body 0");
    EXPECT_EQ(harness.made, row.firstStillKept ? made : made + 1);
  }
}

TEST(ReplyCacheTest, UsingAnEntryKeepsItOverOlderOnes) {
  Harness harness;
  for (size_t i = 0; i < ReplyCache::capacity; ++i)
    harness.ask("body " + std::to_string(i));
  harness.ask("body 0"); // now the most recently used
  harness.ask("one more");
  const int made = harness.made;
  harness.ask("body 0");
  EXPECT_EQ(harness.made, made);
  harness.ask("body 1");
  EXPECT_EQ(harness.made, made + 1);
}

TEST(ReplyCacheTest, ConcurrentCallersGetTheSameBytes) {
  ReplyCache cache;
  std::atomic<int> made{0};
  std::vector<std::string> seen(8);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < seen.size(); ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        const Reply reply = cache.answer("{}", true, [] { return uint64_t{3}; }, [&] {
          ++made;
          return std::make_shared<const SendReply>(SendReply::response("{\"state\":3}", false));
        });
        seen[t] = bytesOf(reply);
      }
    });
  for (auto &thread : threads)
    thread.join();
  for (const auto &bytes : seen)
    EXPECT_EQ(bytes, "{\"state\":3}");
  EXPECT_LE(made.load(), static_cast<int>(seen.size()));
  EXPECT_EQ(cache.hits() + cache.misses(), seen.size() * 50);
}

// ---- the service's chain in memory ----

class ReplyCacheChainTest : public testing::Test {
public:
  VirtualDesktop desktop{[] {
    VirtualDesktopOptions options;
    options.pngLevel = 0; // a stored PNG: a reply of megabytes, in a memfd
    return options;
  }()};
  RequestRouter router{desktop};
  ReplyCache cache;

  Reply getState(const std::string &body) {
    return cache.answer(body, true, [this] { return desktop.stateVersion(); }, [&] {
      auto json = router.route(ComputerUseIPCAppGetStateRequest::requestType, body, RuntimeCaller{});
      return std::make_shared<const SendReply>(json ? SendReply::response(std::move(*json), true)
                                                    : SendReply::failure(json.error()));
    });
  }

  void act(const std::string &body) {
    ASSERT_TRUE(router.route(ComputerUseIPCAppPerformActionRequest::requestType, body, RuntimeCaller{}));
  }
};

ino_t inodeOf(const Reply &reply) {
  struct stat status {};
  return reply && reply->responseFile && ::fstat(reply->responseFile.get(), &status) == 0 ? status.st_ino : 0;
}

std::string contentOf(const Reply &reply) {
  return reply && reply->responseFile ? readSealedMemfd(reply->responseFile.get()).value_or("") : "";
}

TEST_F(ReplyCacheChainTest, ARepeatedStateRequestSharesItsMemfd) {
  const std::string body = R"({"app":"Notes"})";
  const Reply first = getState(body);
  ASSERT_TRUE(first && first->responseFile) << "the state should travel in a memfd";
  const Reply second = getState(body);
  EXPECT_EQ(second, first);
  EXPECT_EQ(inodeOf(second), inodeOf(first));
  EXPECT_EQ(cache.hits(), 1u);
  EXPECT_EQ(desktop.screenshotsEncoded(), 1u);
}

TEST_F(ReplyCacheChainTest, AnythingButTheSameRequestOnAnUnchangedDesktopAnswersAnew) {
  const std::string notes = R"({"app":"Notes"})";
  struct Row {
    const char *name;
    std::function<void(ReplyCacheChainTest &)> between;
    std::string next;
    bool sameBytes;
  };
  const Row rows[] = {
      {"a click", [](ReplyCacheChainTest &test) {
         test.act(R"({"app":"Notes","action":{"click":{"_0":{"elementIndex":2,"clickCount":1,"mouseButton":0}}}})");
       }, notes, false},
      {"a new title", [](ReplyCacheChainTest &test) {
         test.act(R"({"app":"Notes","action":{"setValue":{"_0":{"elementIndex":1,"value":"Changed"}}}})");
       }, notes, false},
      {"an action on another app", [](ReplyCacheChainTest &test) {
         test.act(R"({"app":"Files","action":{"click":{"_0":{"elementIndex":1,"clickCount":1,"mouseButton":0}}}})");
       }, notes, true},
      {"a failed action", [](ReplyCacheChainTest &test) {
         test.act(R"({"app":"Notes","action":{"click":{"_0":{"elementIndex":9999,"clickCount":1,"mouseButton":0}}}})");
       }, notes, true},
      {"another observation", [](ReplyCacheChainTest &) {}, R"({"app":"Notes","observation":"screenshot"})", false},
      {"another app", [](ReplyCacheChainTest &) {}, R"({"app":"Files"})", false},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    const Reply before = getState(notes);
    const uint64_t hits = cache.hits();
    row.between(*this);
    const Reply after = getState(row.next);
    ASSERT_TRUE(after && after->responseFile);
    // Never the kept reply: the state may have changed, or the request differs.
    EXPECT_NE(after, before);
    EXPECT_NE(inodeOf(after), inodeOf(before));
    EXPECT_EQ(cache.hits(), hits);
    EXPECT_EQ(contentOf(after) == contentOf(before), row.sameBytes);
  }
}

} // namespace
} // namespace tavix::test
