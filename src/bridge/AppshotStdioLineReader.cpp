#include "bridge/AppshotStdioLineReader.h"

#include <cerrno>
#include <poll.h>
#include <utility>
#include <unistd.h>

namespace tavix {
namespace {

constexpr size_t chunkSize = 64 * 1024;

} // namespace

bool AppshotStdioLineReader::fill() {
  const size_t had = buffer_.size();
  buffer_.resize(had + chunkSize);
  for (;;) {
    const ssize_t n = ::read(fd_, buffer_.data() + had, chunkSize);
    if (n > 0) {
      buffer_.resize(had + static_cast<size_t>(n));
      return true;
    }
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      // A descriptor the host left non-blocking: wait until there is something to read.
      pollfd readable{fd_, POLLIN, 0};
      ::poll(&readable, 1, -1);
      continue;
    }
    buffer_.resize(had);
    if (n < 0)
      error_ = errno;
    ended_ = true;
    return false;
  }
}

AppshotStdioLineReader::Next AppshotStdioLineReader::next() {
  bool skipping = false; // inside a line already too long, until its line feed
  for (;;) {
    const size_t feed = buffer_.find('\n', scanned_);
    if (feed != std::string::npos) {
      Next line{.kind = skipping || feed > longestLine ? Next::Kind::tooLong : Next::Kind::line,
                .text = skipping || feed > longestLine ? std::string() : buffer_.substr(0, feed)};
      buffer_.erase(0, feed + 1);
      scanned_ = 0;
      return line;
    }
    scanned_ = buffer_.size();
    if (scanned_ > longestLine) {
      skipping = true;
      buffer_.clear();
      scanned_ = 0;
    }
    if (!ended_ && fill())
      continue;
    // The input ended: what is left is its last line, if any.
    if (skipping || !buffer_.empty()) {
      Next last{.kind = skipping ? Next::Kind::tooLong : Next::Kind::line,
                .text = skipping ? std::string() : std::move(buffer_)};
      buffer_.clear();
      scanned_ = 0;
      return last;
    }
    if (error_ != 0)
      return {.kind = Next::Kind::failed, .text = {}, .error = std::exchange(error_, 0)};
    return {};
  }
}

} // namespace tavix
