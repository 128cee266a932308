#include "support/Base64.h"

#include <gtest/gtest.h>

#include <string>

namespace tavix::test {
namespace {

TEST(Base64, OnlyStandardPaddedBase64) {
  const std::pair<std::string, bool> rows[] = {
      {"", true},         {"AAAA", true},      {"AA==", true},      {"AAA=", true},
      {"+/09azAZ", true}, {"iVBORw0KGgo=", true},
      {"AAA", false},     {"AAAAA", false},    {"A===", false},     {"=AAA", false},
      {"AA=A", false},    {"AA\nAA==", false}, {"AAAA\n", false},   {"-_AA", false},
      {"AA A", false},    {"AAAA====", false}, {std::string("AA\0A", 4), false},
  };
  for (const auto &[text, valid] : rows)
    EXPECT_EQ(isStandardBase64(text), valid) << testing::PrintToString(text);
  // A bad character anywhere in a long text is found.
  std::string large(5 * 1024 * 1024, 'Q');
  EXPECT_TRUE(isStandardBase64(large));
  large[large.size() / 2] = '\n';
  EXPECT_FALSE(isStandardBase64(large));
}

} // namespace
} // namespace tavix::test
