// How a reply travels by its size: inline up to 64 KiB, in a memfd above when descriptors
// pass, refused above 48 MiB with a text that gives the size.
//
// Kept state replies: the same request at the same desktop version is answered with the
// very reply made before, anything else makes a new one; a version that moves while a
// reply is made, a failure, or an older version than one kept leaves nothing behind; the
// least recently used entry goes at the capacity; callers on many threads get one reply.

#include "runtime/ReplyCache.h"
#include "runtime/ReplyForm.h"
#include "runtime/SendReply.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tavix::test {
namespace {

using namespace runtime;
using Reply = ReplyCache::Reply;

TEST(ReplyForm, BySizeAndDescriptorPassing) {
  constexpr size_t mib48 = 48 * 1024 * 1024;
  const std::tuple<size_t, bool, ReplyForm> rows[] = {
      {0, true, ReplyForm::inlineBytes},          {65536, true, ReplyForm::inlineBytes},
      {65537, true, ReplyForm::sealedMemfd},      {65537, false, ReplyForm::inlineBytes},
      {mib48, true, ReplyForm::sealedMemfd},      {mib48, false, ReplyForm::inlineBytes},
      {mib48 + 1, true, ReplyForm::tooLarge},     {mib48 + 1, false, ReplyForm::tooLarge},
  };
  for (const auto &[bytes, descriptors, form] : rows)
    EXPECT_EQ(replyFormFor(bytes, descriptors), form) << bytes << " " << descriptors;
  const auto refused = runtime::SendReply::response(std::string(mib48 + 1, ' '), true);
  EXPECT_EQ(refused.error, (runtime::RuntimeError{-1700, "The reply of 50331649 bytes is over the limit of 50331648 bytes"}));
  EXPECT_FALSE(refused.directObject || refused.responseFile);
}

// A cache with a version the test sets and a maker that counts what it makes; it fails,
// or moves the version while it makes a reply, when told to.
struct Harness {
  ReplyCache cache;
  uint64_t version = 0;
  int made = 0;
  bool failing = false, moving = false;

  Reply ask(const std::string &body, bool canPassDescriptors = true) {
    return cache.answer(body, canPassDescriptors, [this] { return version; }, [&] {
      ++made;
      if (moving)
        ++version; // an action ran meanwhile: the reply may show either state
      return std::make_shared<const SendReply>(failing ? SendReply::failure({errn::invalidRequest, "bad"})
                                                       : SendReply::response(body + "#" + std::to_string(made), false));
    });
  }
};

TEST(ReplyCacheTest, OnlyTheSameBodyFormAndVersionIsServedAgain) {
  const std::tuple<std::string, bool, uint64_t, bool> rows[] = {
      // The same request; another body; the same fields in other bytes; another form; the
      // next version.
      {R"({"app":"Notes"})", true, 7, true},  {R"({"app":"Files"})", true, 7, false},
      {R"({ "app":"Notes"})", true, 7, false}, {R"({"app":"Notes"})", false, 7, false},
      {R"({"app":"Notes"})", true, 8, false},
  };
  for (const auto &[body, canPassDescriptors, version, servedAgain] : rows) {
    SCOPED_TRACE(testing::Message() << body << " " << canPassDescriptors << " " << version);
    Harness harness{.version = 7};
    const Reply first = harness.ask(R"({"app":"Notes"})");
    harness.version = version;
    const bool same = harness.ask(body, canPassDescriptors) == first;
    // Whether it was the same reply, how many were made, the hits and the misses.
    EXPECT_EQ(std::tuple(same, harness.made, harness.cache.hits(), harness.cache.misses()),
              servedAgain ? std::tuple(true, 1, 1ul, 1ul) : std::tuple(false, 2, 0ul, 2ul));
  }
}

TEST(ReplyCacheTest, WhatCannotBeServedAgainIsNotKept) {
  Harness harness{.failing = true};
  for (int time = 0; time < 2; ++time)
    harness.ask("{");
  EXPECT_EQ(std::pair(harness.made, harness.cache.size()), std::pair(2, size_t{0})) << "a failure was kept";
  harness.failing = false;
  harness.moving = true;
  ASSERT_TRUE(harness.ask("{}"));
  EXPECT_EQ(harness.cache.size(), 0u) << "a reply made while the version moved was kept";
  harness.moving = false;
  // A new version drops every older entry; a worker that read an older version and
  // finishes late finds a newer one kept already.
  harness.ask("a");
  harness.ask("b");
  harness.version += 1;
  harness.ask("c");
  EXPECT_EQ(harness.cache.size(), 1u);
  harness.version -= 1;
  harness.ask("d");
  EXPECT_EQ(harness.cache.size(), 1u);
  harness.version += 1;
  const int made = harness.made;
  harness.ask("c");
  EXPECT_EQ(harness.made, made);
}

TEST(ReplyCacheTest, TheLeastRecentlyUsedEntryGoesAtTheCapacity) {
  // The bodies asked after `capacity` distinct ones, and whether the last was made anew. Using
  // an entry keeps it over older ones.
  const std::pair<std::vector<std::string>, bool> rows[] = {
      {{"body 0"}, false}, {{"one more", "body 0"}, true}, {{"body 0", "one more", "body 0"}, false}, {{"body 0", "one more", "body 1"}, true}};
  for (const auto &[asked, madeAnew] : rows) {
    SCOPED_TRACE(testing::PrintToString(asked));
    Harness harness;
    for (size_t i = 0; i < ReplyCache::capacity; ++i)
      harness.ask("body " + std::to_string(i));
    for (size_t i = 0; i + 1 < asked.size(); ++i)
      harness.ask(asked[i]);
    EXPECT_EQ(harness.cache.size(), ReplyCache::capacity);
    const int made = harness.made;
    harness.ask(asked.back());
    EXPECT_EQ(harness.made - made, madeAnew ? 1 : 0);
  }
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
        seen[t] = reply->directObject.value_or("");
      }
    });
  for (auto &thread : threads)
    thread.join();
  EXPECT_EQ(seen, std::vector<std::string>(seen.size(), "{\"state\":3}"));
  EXPECT_LE(made.load(), static_cast<int>(seen.size()));
  EXPECT_EQ(cache.hits() + cache.misses(), seen.size() * 50);
}

} // namespace
} // namespace tavix::test
