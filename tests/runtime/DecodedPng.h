#pragma once
// Reads back the PNG files the simulator writes, independently of its encoder: the chunks
// with their CRCs checked, the header, and the pixels inflated with zlib from the IDAT
// data and unfiltered (the encoder writes filter type 0 only, and anything else is
// reported as a failure here). Also from base64 and from a PNG data URL.

#include <zlib.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavix::test {

struct PngChunk {
  std::string type;
  std::string data;
  bool crcMatches = false;
};

struct DecodedPng {
  std::vector<PngChunk> chunks;
  uint32_t width = 0, height = 0;
  uint8_t bitDepth = 0, colourType = 0, interlace = 0;
  std::string samples; // RGB, row after row
  std::string problem; // empty when every step worked

  uint32_t pixel(uint32_t x, uint32_t y) const {
    const size_t at = (static_cast<size_t>(y) * width + x) * 3;
    return static_cast<uint32_t>(static_cast<uint8_t>(samples[at])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(samples[at + 1])) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(samples[at + 2]));
  }
};

inline uint32_t readBigEndian(std::string_view bytes, size_t at) {
  return static_cast<uint32_t>(static_cast<uint8_t>(bytes[at])) << 24 |
         static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 1])) << 16 |
         static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 2])) << 8 |
         static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 3]));
}

inline std::optional<std::string> inflateAll(std::string_view compressed, size_t expected) {
  std::string out(expected + 1, '\0'); // one spare byte shows a stream longer than expected
  z_stream stream{};
  if (inflateInit(&stream) != Z_OK)
    return std::nullopt;
  stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(compressed.data()));
  stream.avail_in = static_cast<uInt>(compressed.size());
  stream.next_out = reinterpret_cast<Bytef *>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int status = inflate(&stream, Z_FINISH);
  const size_t produced = stream.total_out;
  inflateEnd(&stream);
  if (status != Z_STREAM_END || produced != expected)
    return std::nullopt;
  out.resize(produced);
  return out;
}

inline DecodedPng decodePng(std::string_view file) {
  DecodedPng png;
  if (file.substr(0, 8) != std::string_view("\x89PNG\r\n\x1a\n", 8)) {
    png.problem = "no PNG signature";
    return png;
  }
  std::string compressed;
  for (size_t at = 8; at + 12 <= file.size();) {
    const uint32_t length = readBigEndian(file, at);
    if (at + 12 + length > file.size()) {
      png.problem = "a chunk runs past the end";
      return png;
    }
    PngChunk chunk{std::string(file.substr(at + 4, 4)), std::string(file.substr(at + 8, length)), false};
    const auto covered = file.substr(at + 4, 4 + length);
    chunk.crcMatches = crc32_z(0, reinterpret_cast<const Bytef *>(covered.data()), covered.size()) ==
                       readBigEndian(file, at + 8 + length);
    if (chunk.type == "IDAT")
      compressed += chunk.data;
    png.chunks.push_back(std::move(chunk));
    at += 12 + length;
  }
  if (png.chunks.empty() || png.chunks.front().type != "IHDR" || png.chunks.front().data.size() != 13) {
    png.problem = "no IHDR first";
    return png;
  }
  const std::string &header = png.chunks.front().data;
  png.width = readBigEndian(header, 0);
  png.height = readBigEndian(header, 4);
  png.bitDepth = static_cast<uint8_t>(header[8]);
  png.colourType = static_cast<uint8_t>(header[9]);
  png.interlace = static_cast<uint8_t>(header[12]);
  const size_t rowBytes = static_cast<size_t>(png.width) * 3;
  const auto rows = inflateAll(compressed, (rowBytes + 1) * png.height);
  if (!rows) {
    png.problem = "the IDAT data does not inflate to the image's rows";
    return png;
  }
  for (size_t y = 0; y < png.height; ++y) {
    if ((*rows)[y * (rowBytes + 1)] != 0) {
      png.problem = "a row has a filter other than none";
      return png;
    }
    png.samples.append(*rows, y * (rowBytes + 1) + 1, rowBytes);
  }
  return png;
}

// Standard padded base64 read back; decoding stops at the padding.
inline std::string decodeBase64(std::string_view text) {
  static constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    if (c == '=')
      break;
    buffer = buffer << 6 | static_cast<uint32_t>(alphabet.find(c));
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes.push_back(static_cast<char>(buffer >> bits & 0xFF));
    }
  }
  return bytes;
}

// The PNG of a "data:image/png;base64,..." URL; anything else is a problem.
inline DecodedPng decodePngDataURL(std::string_view url) {
  constexpr std::string_view prefix = "data:image/png;base64,";
  if (url.substr(0, prefix.size()) != prefix) {
    DecodedPng png;
    png.problem = "not a PNG data URL";
    return png;
  }
  return decodePng(decodeBase64(url.substr(prefix.size())));
}

} // namespace tavix::test
