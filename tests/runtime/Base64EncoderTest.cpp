// Base64 encoding against the RFC 4648 test vectors, each padding case, and every byte
// value read back.

#include "runtime/Base64Encoder.h"
#include "runtime/DecodedPng.h"
#include "support/Base64.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using runtime::base64Encode;

TEST(Base64Encoder, KnownVectorsAndEveryByteValue) {
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},          {"f", "Zg=="},         {"fo", "Zm8="},           {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
      {std::string("\xfb\xff\xbf", 3), "+/+/"}, {std::string("\0\0", 2), "AAA="},
  };
  for (const auto &[bytes, text] : rows)
    EXPECT_EQ(base64Encode(bytes), text) << testing::PrintToString(bytes);
  std::string all;
  for (int value = 0; value < 256; ++value)
    all.push_back(static_cast<char>(value));
  for (size_t length = 254; length <= 256; ++length) {
    const std::string text = base64Encode(std::string_view(all).substr(0, length));
    EXPECT_TRUE(isStandardBase64(text)) << length;
    EXPECT_EQ(decodeBase64(text), all.substr(0, length)) << length;
  }
}

} // namespace
} // namespace tavix::test
