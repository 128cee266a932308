#pragma once
// Reads framed messages from a descriptor. Input is read in large chunks and unread bytes
// wait in a buffer for the next message, so a large message costs a few system calls, not
// one per byte. Reads poll with a short time-out so that a stop request is noticed soon.

#include "mcp/FramingMode.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavix {

class StdioMessageReader {
public:
  static constexpr size_t maxHeaderBytes = 16384;
  // Readable bytes that always follow a message returned, inside the buffer.
  static constexpr size_t trailingBytes = 64;
  static constexpr size_t readChunkBytes = 65536;
  static constexpr std::chrono::milliseconds pollInterval{100};

  // `shouldStop` is checked before reading and at every poll time-out; `wakeFd`, when
  // not -1, is polled too, so that a stop can be signalled without waiting for a
  // time-out.
  StdioMessageReader(int fd, std::function<bool()> shouldStop, int wakeFd = -1);

  // The bytes of the next message, valid until the next call and followed by at least
  // `trailingBytes` readable bytes; nothing at end of input,
  // on a stop, on a read error, or when the framing is broken (an oversized or unreadable
  // header, or one without a valid length), all of which end the connection.
  std::optional<std::string_view> readMessage();

  FramingMode framing() const { return framing_; }

private:
  size_t available() const { return end_ - start_; }
  const char *unread() const { return buffer_.data() + start_; }
  bool fill();
  void makeRoomToRead();
  std::string_view take(size_t length, size_t skip);
  std::optional<std::string_view> readNewlineDelimited();
  std::optional<std::string_view> readContentLength();

  int fd_;
  std::function<bool()> shouldStop_;
  int wakeFd_;
  FramingMode framing_ = FramingMode::unknown;
  // Bytes read and not yet taken are buffer_[start_, end_); the rest of buffer_ is room
  // to read into, kept between reads so that a read costs no allocation or clearing.
  std::vector<char> buffer_;
  size_t start_ = 0;
  size_t end_ = 0;
};

// The body length a content-length header block announces: the last line whose name is
// "content-length" (any case, spaces and tabs trimmed), a non-negative decimal integer.
std::optional<size_t> parseContentLengthHeader(std::string_view header);

} // namespace tavix
