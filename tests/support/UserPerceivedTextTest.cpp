// Repairing text that is not UTF-8: each byte that starts no well-formed sequence
// becomes U+FFFD, and well-formed sequences of every length stay as they are.

#include "support/UserPerceivedText.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

TEST(ReplacingInvalidUTF8, EachBadByteBecomesOneReplacementCharacter) {
  const std::string replacement = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"plain", "plain"},
      {"\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
       "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
      {"a\xFF" "b", "a" + replacement + "b"},
      {"\x80", replacement},
      {"\xC0\xAF", replacement + replacement},          // overlong
      {"\xED\xA0\x80", replacement + replacement + replacement},     // a surrogate
      {"\xF4\x90\x80\x80", replacement + replacement + replacement + replacement}, // past U+10FFFF
      {"\xE2\x82", replacement + replacement},                       // cut short at the end
      {"\xE2\x82x", replacement + replacement + "x"},
  };
  for (const auto &[text, repaired] : cases) {
    EXPECT_EQ(replacingInvalidUTF8(text), repaired) << testing::PrintToString(text);
    EXPECT_TRUE(isValidUTF8(replacingInvalidUTF8(text)));
  }
}

} // namespace
} // namespace tavix::test
