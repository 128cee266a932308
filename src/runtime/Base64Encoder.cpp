#include "runtime/Base64Encoder.h"

#include <cstdint>

namespace tavix::runtime {
namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

char symbol(uint32_t group, int shift) { return alphabet[(group >> shift) & 0x3F]; }

} // namespace

std::string base64Encode(std::string_view bytes) {
  std::string text;
  text.resize((bytes.size() + 2) / 3 * 4);
  const auto byteAt = [&](size_t i) { return static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])); };
  size_t in = 0;
  size_t out = 0;
  // Whole groups of three bytes first; a screenshot is megabytes of them.
  for (; in + 3 <= bytes.size(); in += 3) {
    const uint32_t group = byteAt(in) << 16 | byteAt(in + 1) << 8 | byteAt(in + 2);
    text[out++] = symbol(group, 18);
    text[out++] = symbol(group, 12);
    text[out++] = symbol(group, 6);
    text[out++] = symbol(group, 0);
  }
  const size_t left = bytes.size() - in;
  if (left > 0) {
    const uint32_t group = byteAt(in) << 16 | (left == 2 ? byteAt(in + 1) << 8 : 0);
    text[out++] = symbol(group, 18);
    text[out++] = symbol(group, 12);
    text[out++] = left == 2 ? symbol(group, 6) : '=';
    text[out++] = '=';
  }
  return text;
}

} // namespace tavix::runtime
