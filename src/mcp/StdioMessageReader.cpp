#include "mcp/StdioMessageReader.h"

#include "logging/Logger.h"
#include "support/UserPerceivedText.h"
#include "support/Whitespace.h"

#include <cerrno>
#include <algorithm>
#include <charconv>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace tavix {
namespace {

std::string_view trimmedSpacesAndTabs(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos)
    return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::optional<size_t> parseLength(std::string_view text) {
  if (text.starts_with('+'))
    text.remove_prefix(1);
  size_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  return value;
}

} // namespace

std::optional<size_t> parseContentLengthHeader(std::string_view header) {
  std::optional<size_t> length;
  bool sawHeader = false;
  while (!header.empty()) {
    const size_t end = header.find("\r\n");
    const std::string_view line = header.substr(0, end);
    header = end == std::string_view::npos ? std::string_view{} : header.substr(end + 2);
    const size_t colon = line.find(':');
    if (line.empty() || colon == std::string_view::npos)
      continue;
    if (asciiLowercased(trimmedSpacesAndTabs(line.substr(0, colon))) == "content-length") {
      sawHeader = true;
      length = parseLength(trimmedSpacesAndTabs(line.substr(colon + 1)));
    }
  }
  return sawHeader ? length : std::nullopt;
}

StdioMessageReader::StdioMessageReader(int fd, std::function<bool()> shouldStop, int wakeFd)
    : fd_(fd), shouldStop_(std::move(shouldStop)), wakeFd_(wakeFd) {}

void StdioMessageReader::makeRoomToRead() {
  constexpr size_t idleCapacity = 1 << 20;
  if (start_ == end_) {
    start_ = end_ = 0;
    // Give back the room a large message needed once it has been handled.
    if (buffer_.size() > idleCapacity)
      std::vector<char>().swap(buffer_);
  } else if (start_ >= readChunkBytes) {
    std::memmove(buffer_.data(), unread(), available());
    end_ -= start_;
    start_ = 0;
  }
  // A read adds at most a chunk, and the bytes after it stay readable for a message that
  // ends there.
  if (buffer_.size() < end_ + readChunkBytes + trailingBytes)
    buffer_.resize(std::max(buffer_.size() * 2, end_ + readChunkBytes + trailingBytes));
}

bool StdioMessageReader::fill() {
  if (shouldStop_())
    return false;
  makeRoomToRead();
  for (;;) {
    pollfd fds[2] = {{fd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    const int ready = ::poll(fds, wakeFd_ >= 0 ? 2 : 1, static_cast<int>(pollInterval.count()));
    if (ready < 0 && errno == EINTR)
      continue;
    if (ready < 0)
      return false;
    if (ready == 0 || fds[0].revents == 0) {
      if (shouldStop_())
        return false;
      continue;
    }
    ssize_t n;
    do {
      n = ::read(fd_, buffer_.data() + end_, readChunkBytes);
    } while (n < 0 && errno == EINTR);
    if (n <= 0)
      return false;
    end_ += static_cast<size_t>(n);
    return true;
  }
}

std::string_view StdioMessageReader::take(size_t length, size_t skip) {
  const std::string_view message(unread(), length);
  start_ += length + skip;
  return message;
}

std::optional<std::string_view> StdioMessageReader::readMessage() {
  if (shouldStop_() || (available() == 0 && !fill()))
    return std::nullopt;
  if (framing_ == FramingMode::unknown) {
    // A connection that opens with anything but "{" (white space included) is taken as
    // content-length framing.
    framing_ = *unread() == '{' ? FramingMode::newlineDelimited : FramingMode::contentLength;
    Log::info(LogCategory::transport, "framing_detected", {{"framing", framingName(framing_)}});
  }
  return framing_ == FramingMode::newlineDelimited ? readNewlineDelimited() : readContentLength();
}

std::optional<std::string_view> StdioMessageReader::readNewlineDelimited() {
  size_t scanned = 0;
  for (;;) {
    if (const void *found = std::memchr(unread() + scanned, '\n', available() - scanned)) {
      const auto length = static_cast<size_t>(static_cast<const char *>(found) - unread());
      return take(length, 1);
    }
    scanned = available();
    if (!fill()) {
      // Input that ends without a final line feed still delivers its last line.
      if (available() == 0)
        return std::nullopt;
      return take(available(), 0);
    }
  }
}

std::optional<std::string_view> StdioMessageReader::readContentLength() {
  constexpr std::string_view terminator = "\r\n\r\n";
  size_t scanned = 0;
  size_t headerLength = 0;
  for (;;) {
    const std::string_view window(unread(), std::min(available(), maxHeaderBytes));
    const size_t from = scanned >= 3 ? scanned - 3 : 0;
    if (const size_t end = window.find(terminator, from); end != std::string_view::npos) {
      headerLength = end + terminator.size();
      break;
    }
    if (available() >= maxHeaderBytes)
      return std::nullopt; // the header outgrew its limit: the connection ends
    scanned = available();
    if (!fill())
      return std::nullopt;
  }
  const std::string_view header(unread(), headerLength);
  if (!isValidUTF8(header))
    return std::nullopt;
  const auto bodyLength = parseContentLengthHeader(header);
  if (!bodyLength) {
    Log::warning(LogCategory::transport, "content_length_invalid",
                 {{"headerBytes", headerLength}});
    return std::nullopt;
  }
  start_ += headerLength;
  while (available() < *bodyLength) {
    if (!fill())
      return std::nullopt;
  }
  return take(*bodyLength, 0);
}

} // namespace tavix
