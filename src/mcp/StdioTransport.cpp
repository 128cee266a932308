#include "mcp/StdioTransport.h"

#include "mcp/MCPStdioOutputQueue.h"
#include "mcp/MCPStdioRequestQueue.h"
#include "mcp/StdioMessageReader.h"
#include "logging/Logger.h"
#include "support/RequestContext.h"

#include <atomic>
#include <optional>
#include <fcntl.h>
#include <unistd.h>

namespace tavix {
namespace {

// A pipe whose write end wakes the reader's poll when the connection is told to stop.
class WakePipe {
public:
  WakePipe() {
    if (::pipe(fds_) != 0) {
      fds_[0] = fds_[1] = -1;
      return;
    }
    for (int fd : fds_)
      fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  ~WakePipe() {
    for (int fd : fds_)
      if (fd >= 0)
        ::close(fd);
  }
  WakePipe(const WakePipe &) = delete;
  WakePipe &operator=(const WakePipe &) = delete;
  int readEnd() const { return fds_[0]; }
  void wake() const {
    if (fds_[1] >= 0)
      [[maybe_unused]] ssize_t ignored = ::write(fds_[1], "x", 1);
  }

private:
  int fds_[2] = {-1, -1};
};

class StdioConnection {
public:
  StdioConnection(MCPRequestHandler &handler, int outputFd, const StdioWriteOptions &options)
      : handler_(handler), outputFd_(outputFd), writeOptions_(options) {}

  void serve(int inputFd, std::stop_token stop) {
    std::stop_callback onCancel(stop, [this] { stopConnection(); });
    StdioMessageReader reader(inputFd, [this] { return requests_.isClosed(); }, wake_.readEnd());
    while (auto message = reader.readMessage()) {
      framing_.store(reader.framing(), std::memory_order_relaxed);
      handleMessage(*message);
    }
    // The worker writes through the output queue and a failed write closes the request
    // queue, so both threads stop before either queue goes away: the worker first, while
    // the writer still runs, then the writer.
    requests_.shutdown();
    output_.shutdown();
  }

private:
  void stopConnection() {
    requests_.close();
    output_.close();
    wake_.wake();
  }

  void respond(nlohmann::json response) {
    // Serialised once, by whichever thread first tries to write it.
    struct Pending {
      nlohmann::json response;
      FramingMode framing;
      std::optional<StdioMessageWrite> write;
    };
    auto pending = std::make_shared<Pending>(
        Pending{std::move(response), framing_.load(std::memory_order_relaxed), std::nullopt});
    output_.enqueue(
        [this, pending](bool tryOnly) {
          if (!pending->write)
            pending->write.emplace(pending->response, pending->framing);
          if (tryOnly)
            return pending->write->tryWrite(outputFd_);
          const bool written = pending->write->finish(
              outputFd_, [this] { return requests_.isClosed() || output_.isClosed(); },
              writeOptions_);
          return written ? WriteOutcome::written : WriteOutcome::failed;
        },
        [this] { stopConnection(); });
  }

  void handleMessage(std::string_view message) {
    auto value = nlohmann::json::parse(message, nullptr, false);
    if (value.is_discarded())
      return respond(buildErrorResponse(std::nullopt, JSONRPCError::parseErrorCode,
                                        JSONRPCError::parseErrorMessage));
    auto request = JSONRPCRequest::from(std::move(value));
    if (!request)
      return respond(buildErrorResponse(std::nullopt, JSONRPCError::invalidRequestCode,
                                        JSONRPCError::invalidRequestMessage));
    if (request->method == "notifications/cancelled" && !request->id)
      return cancel(*request);
    if (request->method == "ping") {
      if (request->id)
        respond(buildSuccessResponse(request->id, nlohmann::json::object()));
      return;
    }
    submit(std::make_shared<const JSONRPCRequest>(std::move(*request)));
  }

  void cancel(const JSONRPCRequest &request) {
    if (!request.params)
      return;
    const auto requestID = request.params->find("requestId");
    if (requestID == request.params->end())
      return;
    if (auto id = JSONRPCId::from(*requestID))
      requests_.cancel(*id);
  }

  void submit(std::shared_ptr<const JSONRPCRequest> request) {
    const auto admission = requests_.enqueue(
        request->id, [this, request](const std::string &correlationID, std::stop_token token) {
          WithRequestContext scope(std::make_shared<const RequestContext>(correlationID, token));
          if (token.stop_requested())
            return;
          auto response = handler_.handleRequest(*request);
          if (request->id && response)
            respond(std::move(*response));
        });
    if (!request->id)
      return;
    using Admission = MCPStdioRequestQueue::Admission;
    if (admission == Admission::queueFull)
      respond(buildErrorResponse(request->id, JSONRPCError::queueFullCode,
                                 JSONRPCError::queueFullMessage));
    else if (admission == Admission::duplicateID)
      respond(buildErrorResponse(request->id, JSONRPCError::invalidRequestCode,
                                 JSONRPCError::duplicateIDMessage));
  }

  MCPRequestHandler &handler_;
  const int outputFd_;
  const StdioWriteOptions writeOptions_;
  // Set by the reader when the first byte arrives; read by whichever thread answers.
  std::atomic<FramingMode> framing_ = FramingMode::unknown;
  WakePipe wake_;
  MCPStdioOutputQueue output_;
  MCPStdioRequestQueue requests_;
};

} // namespace

void runStdioTransport(MCPRequestHandler &handler, int inputFd, int outputFd,
                       std::stop_token stop, const StdioWriteOptions &writeOptions) {
  Log::info(LogCategory::transport, "transport_started", {{"transport", "stdio"}});
  StdioConnection connection(handler, outputFd, writeOptions);
  connection.serve(inputFd, std::move(stop));
}

} // namespace tavix
