#include "runtime/PngEncoder.h"

#include <zlib.h>

#include <stdexcept>
#include <string_view>

namespace tavix::runtime {
namespace {

constexpr std::string_view signature("\x89PNG\r\n\x1a\n", 8);

void appendBigEndian(std::string &out, uint32_t value) {
  out.push_back(static_cast<char>(value >> 24));
  out.push_back(static_cast<char>(value >> 16));
  out.push_back(static_cast<char>(value >> 8));
  out.push_back(static_cast<char>(value));
}

const Bytef *bytesOf(std::string_view text) { return reinterpret_cast<const Bytef *>(text.data()); }

// A chunk: its length, type, data and the CRC of type and data.
void appendChunk(std::string &out, std::string_view type, std::string_view data) {
  appendBigEndian(out, static_cast<uint32_t>(data.size()));
  const size_t typeStart = out.size();
  out.append(type);
  out.append(data);
  const std::string_view covered(out.data() + typeStart, type.size() + data.size());
  appendBigEndian(out, static_cast<uint32_t>(crc32_z(0, bytesOf(covered), covered.size())));
}

std::string header(const RgbImage &image) {
  std::string data;
  appendBigEndian(data, static_cast<uint32_t>(image.width()));
  appendBigEndian(data, static_cast<uint32_t>(image.height()));
  data.push_back(8); // bits a sample
  data.push_back(2); // colour type: RGB
  data.push_back(0); // deflate
  data.push_back(0); // filtering by row
  data.push_back(0); // no interlacing
  return data;
}

// The rows, each behind its filter byte: 0, none.
std::string scanlines(const RgbImage &image) {
  const size_t rowBytes = static_cast<size_t>(image.width()) * 3;
  const std::string &samples = image.samples();
  std::string rows;
  rows.reserve((rowBytes + 1) * static_cast<size_t>(image.height()));
  for (size_t y = 0; y < static_cast<size_t>(image.height()); ++y) {
    rows.push_back('\0');
    rows.append(samples, y * rowBytes, rowBytes);
  }
  return rows;
}

std::string deflateAll(const std::string &input, int level) {
  z_stream stream{};
  if (deflateInit(&stream, level) != Z_OK)
    throw std::runtime_error("deflateInit failed");
  std::string output(deflateBound(&stream, static_cast<uLong>(input.size())), '\0');
  stream.next_in = const_cast<Bytef *>(bytesOf(input));
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = reinterpret_cast<Bytef *>(output.data());
  stream.avail_out = static_cast<uInt>(output.size());
  // The bound is enough for one call to finish the stream.
  const int status = deflate(&stream, Z_FINISH);
  output.resize(stream.total_out);
  deflateEnd(&stream);
  if (status != Z_STREAM_END)
    throw std::runtime_error("deflate did not finish");
  return output;
}

} // namespace

PngEncoder::PngEncoder(int level) : level_(level) {
  if (level < fastestLevel || level > smallestLevel)
    throw std::invalid_argument("PNG compression level must be 0 to 9");
}

std::string PngEncoder::encode(const RgbImage &image) const {
  const std::string compressed = deflateAll(scanlines(image), level_);
  std::string png;
  png.reserve(compressed.size() + 64);
  png.append(signature);
  appendChunk(png, "IHDR", header(image));
  appendChunk(png, "IDAT", compressed);
  appendChunk(png, "IEND", {});
  return png;
}

} // namespace tavix::runtime
