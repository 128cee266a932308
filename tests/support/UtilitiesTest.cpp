// The generic utilities: which base64 the runtime's images may use, repairing text that
// is not UTF-8, and the worker pool that runs jobs side by side.

#include "support/Base64.h"
#include "support/UserPerceivedText.h"
#include "support/WorkerPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>

namespace tavix::test {
namespace {

TEST(Base64, OnlyStandardPaddedBase64) {
  for (const std::string text : {"", "AA==", "AAA=", "+/09azAZ"})
    EXPECT_TRUE(isStandardBase64(text)) << text;
  for (const std::string &text : std::vector<std::string>{"AAA", "A===", "=AAA", "AA=A", "AAAA\n", "-_AA", "AAAA====", {"AA\0A", 4}})
    EXPECT_FALSE(isStandardBase64(text)) << testing::PrintToString(text);
  std::string large(5 * 1024 * 1024, 'Q'); // a bad character anywhere in a long text is found
  EXPECT_TRUE(isStandardBase64(large));
  large[large.size() / 2] = '\n';
  EXPECT_FALSE(isStandardBase64(large));
}

TEST(ReplacingInvalidUTF8, EachBadByteBecomesOneReplacementCharacter) {
  const std::string r = "\xEF\xBF\xBD";
  const std::string everyLength = "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
  // Overlong, a surrogate, past U+10FFFF, cut short.
  const std::pair<std::string, std::string> cases[] = {{everyLength, everyLength}, {"a\xFF" "b", "a" + r + "b"}, {"\x80", r},
      {"\xC0\xAF", r + r}, {"\xED\xA0\x80", r + r + r}, {"\xF4\x90\x80\x80", r + r + r + r}, {"\xE2\x82x", r + r + "x"}};
  for (const auto &[text, repaired] : cases) {
    EXPECT_EQ(replacingInvalidUTF8(text), repaired) << testing::PrintToString(text);
    EXPECT_TRUE(isValidUTF8(replacingInvalidUTF8(text)));
  }
}

TEST(WorkerPool, RunsJobsSideBySideAndFinishesThePostedOnesBeforeItGoes) {
  // Each of the first jobs waits for all the others: with fewer threads this never ends.
  constexpr int threads = 4;
  std::latch allRunning(threads);
  std::atomic<int> done{0};
  {
    WorkerPool pool(threads);
    for (int i = 0; i < threads; ++i)
      pool.post([&] { allRunning.arrive_and_wait(); ++done; });
    for (int i = 0; i < 100; ++i)
      pool.post([&] { ++done; });
  }
  EXPECT_EQ(done.load(), threads + 100);
}

} // namespace
} // namespace tavix::test
