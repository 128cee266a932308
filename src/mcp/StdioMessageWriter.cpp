#include "mcp/StdioMessageWriter.h"

#include "logging/Logger.h"
#include "mcp/MessageSerialization.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

namespace tavix {
namespace {

// Restores the descriptor's status flags however the write ends.
class NonBlockingScope {
public:
  explicit NonBlockingScope(int fd) : fd_(fd), saved_(fcntl(fd, F_GETFL)) {
    if (saved_ >= 0)
      fcntl(fd_, F_SETFL, saved_ | O_NONBLOCK);
  }
  ~NonBlockingScope() {
    if (saved_ >= 0)
      fcntl(fd_, F_SETFL, saved_);
  }
  NonBlockingScope(const NonBlockingScope &) = delete;
  NonBlockingScope &operator=(const NonBlockingScope &) = delete;

private:
  int fd_;
  int saved_;
};

// Writes from `written` on; returns 0 or the errno that ended the write. Without
// `shouldStop` it returns EAGAIN as soon as the descriptor is full.
int writeFrom(int fd, std::string_view bytes, size_t &written,
              const std::function<bool()> *shouldStop, const StdioWriteOptions &options) {
  const auto deadline = std::chrono::steady_clock::now() + options.deadline;
  while (written < bytes.size()) {
    if (shouldStop && (*shouldStop)())
      return ECANCELED;
    if (shouldStop && std::chrono::steady_clock::now() >= deadline)
      return ETIMEDOUT;
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n >= 0) {
      written += static_cast<size_t>(n);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (!shouldStop)
        return EAGAIN;
      pollfd writable{fd, POLLOUT, 0};
      ::poll(&writable, 1, static_cast<int>(options.blockedPollInterval.count()));
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

void reportWriteFailure(int error) {
  const LogFields fields = {{"transport", "stdio"}, {"errno", error}};
  if (error == EPIPE || error == ECONNRESET || error == ECANCELED)
    Log::warning(LogCategory::transport, "transport_closed", fields);
  else
    Log::error(LogCategory::transport, "response_write_failed", fields);
}

} // namespace

std::string frameMessage(std::string message, FramingMode framing) {
  if (framing == FramingMode::contentLength) {
    const std::string header = "Content-Length: " + std::to_string(message.size()) + "\r\n\r\n";
    return message.insert(0, header);
  }
  message.push_back('\n');
  return message;
}

StdioMessageWrite::StdioMessageWrite(std::string message, FramingMode framing)
    : bytes_(frameMessage(std::move(message), framing)) {}

WriteOutcome StdioMessageWrite::tryWrite(int fd) {
  NonBlockingScope nonBlocking(fd);
  const int error = writeFrom(fd, bytes_, written_, nullptr, {});
  if (error == EAGAIN)
    return WriteOutcome::incomplete;
  if (error != 0) {
    reportWriteFailure(error);
    return WriteOutcome::failed;
  }
  return WriteOutcome::written;
}

bool StdioMessageWrite::finish(int fd, const std::function<bool()> &shouldStop,
                               const StdioWriteOptions &options) {
  NonBlockingScope nonBlocking(fd);
  const int error = writeFrom(fd, bytes_, written_, &shouldStop, options);
  if (error != 0) {
    reportWriteFailure(error);
    return false;
  }
  return true;
}

bool writeMessage(const nlohmann::json &response, int fd, FramingMode framing,
                  const std::function<bool()> &shouldStop, const StdioWriteOptions &options) {
  auto message = serializeMessage(response);
  return message && StdioMessageWrite(std::move(*message), framing).finish(fd, shouldStop, options);
}

} // namespace tavix
