#include "mcp/StdioTransport.h"

#include "mcp/StdioMessageReader.h"

#include <memory>

static_assert(tavix::StdioMessageReader::trailingBytes >= tavix::MessageTransport::messagePadding);
#include <fcntl.h>
#include <unistd.h>

namespace tavix {

StdioTransport::WakePipe::WakePipe() {
  if (::pipe(fds_) != 0) {
    fds_[0] = fds_[1] = -1;
    return;
  }
  for (int fd : fds_)
    fcntl(fd, F_SETFD, FD_CLOEXEC);
}

StdioTransport::WakePipe::~WakePipe() {
  for (int fd : fds_)
    if (fd >= 0)
      ::close(fd);
}

void StdioTransport::WakePipe::wake() const {
  if (fds_[1] >= 0)
    [[maybe_unused]] ssize_t ignored = ::write(fds_[1], "x", 1);
}

StdioTransport::StdioTransport(int inputFd, int outputFd, const StdioWriteOptions &writeOptions)
    : inputFd_(inputFd), outputFd_(outputFd), writeOptions_(writeOptions) {}

StdioTransport::~StdioTransport() { output_.shutdown(); }

void StdioTransport::run(MessageHandler &handler) {
  StdioMessageReader reader(
      inputFd_, [this] { return ended_.load(); }, wake_.readEnd());
  while (!ended_.load()) {
    const auto message = reader.readMessage();
    if (!message)
      break;
    framing_.store(reader.framing(), std::memory_order_relaxed);
    handler.onMessage(*message);
  }
  ended_.store(true);
}

void StdioTransport::close() {
  ended_.store(true);
  output_.close();
  wake_.wake();
  closing_.request_stop();
}

bool StdioTransport::writesShouldStop() const { return ended_.load() || output_.isClosed(); }

void StdioTransport::send(std::string message) {
  auto write = std::make_shared<StdioMessageWrite>(std::move(message),
                                                   framing_.load(std::memory_order_relaxed));
  output_.enqueue(
      [this, write](bool tryOnly) {
        if (tryOnly)
          return write->tryWrite(outputFd_);
        const bool written =
            write->finish(outputFd_, [this] { return writesShouldStop(); }, writeOptions_);
        return written ? WriteOutcome::written : WriteOutcome::failed;
      },
      [this] { close(); });
}

} // namespace tavix
