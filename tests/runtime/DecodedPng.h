#pragma once
// Reads back the PNG files the simulator writes with libpng, independently of its encoder:
// libpng checks the signature, the header, each chunk's CRC and the compressed rows. Also
// from base64 and from a PNG data URL.

#include <png.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace tavix::test {

struct DecodedPng {
  uint32_t width = 0, height = 0;
  uint32_t format = 0;  // as the file has it: PNG_FORMAT_RGB for 8-bit RGB
  std::string samples;  // RGB, row after row
  std::string problem;  // libpng's complaint; empty when the file was read whole

  uint32_t pixel(uint32_t x, uint32_t y) const {
    const size_t at = (static_cast<size_t>(y) * width + x) * 3;
    const auto sample = [&](size_t i) { return static_cast<uint32_t>(static_cast<uint8_t>(samples.at(at + i))); };
    return sample(0) << 16 | sample(1) << 8 | sample(2);
  }
};

inline DecodedPng decodePng(std::string_view file) {
  DecodedPng png;
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&image, file.data(), file.size()) != 0) {
    png = {image.width, image.height, image.format, {}, {}};
    image.format = PNG_FORMAT_RGB;
    png.samples.resize(PNG_IMAGE_SIZE(image));
    png_image_finish_read(&image, nullptr, png.samples.data(), 0, nullptr);
  }
  if (PNG_IMAGE_FAILED(image))
    png.problem = image.message;
  png_image_free(&image);
  return png;
}

// Standard padded base64 read back; decoding stops at the padding.
inline std::string decodeBase64(std::string_view text) {
  static constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  uint32_t buffer = 0, bits = 0;
  for (char c : text.substr(0, text.find('='))) {
    buffer = buffer << 6 | static_cast<uint32_t>(alphabet.find(c));
    if ((bits += 6) >= 8)
      bytes.push_back(static_cast<char>(buffer >> (bits -= 8) & 0xFF));
  }
  return bytes;
}

// The PNG of a "data:image/png;base64,..." URL; anything else is a problem.
inline DecodedPng decodePngDataURL(std::string_view url) {
  constexpr std::string_view prefix = "data:image/png;base64,";
  if (!url.starts_with(prefix))
    return {.problem = "not a PNG data URL"};
  return decodePng(decodeBase64(url.substr(prefix.size())));
}

} // namespace tavix::test
