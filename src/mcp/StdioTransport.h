#pragma once
// One MCP connection over a pair of descriptors, as framed messages: reads them with the
// framing fixed by the first byte, and writes each outgoing message whole, in the same
// framing, through the bounded output queue.

#include "mcp/FramingMode.h"
#include "mcp/MCPStdioOutputQueue.h"
#include "mcp/MessageTransport.h"
#include "mcp/StdioMessageWriter.h"

#include <atomic>

namespace tavix {

class StdioTransport final : public MessageTransport {
public:
  StdioTransport(int inputFd, int outputFd, const StdioWriteOptions &writeOptions = {});
  // Stops the writer; messages still waiting are dropped.
  ~StdioTransport() override;
  StdioTransport(const StdioTransport &) = delete;
  StdioTransport &operator=(const StdioTransport &) = delete;

  // Returns at end of input, on `close`, after an output backlog or a failed write, or
  // when the framing breaks. Once it has returned, a write that would have to wait for
  // the reader gives up.
  void run(MessageHandler &handler) override;
  void send(std::string message) override;
  void close() override;
  std::stop_token closing() const override { return closing_.get_token(); }

private:
  // A pipe whose write end wakes the reader's poll when the transport is closed.
  class WakePipe {
  public:
    WakePipe();
    ~WakePipe();
    WakePipe(const WakePipe &) = delete;
    WakePipe &operator=(const WakePipe &) = delete;
    int readEnd() const { return fds_[0]; }
    void wake() const;

  private:
    int fds_[2] = {-1, -1};
  };

  bool writesShouldStop() const;

  const int inputFd_;
  const int outputFd_;
  const StdioWriteOptions writeOptions_;
  // Set by the reader when the first byte arrives; read by whichever thread writes.
  std::atomic<FramingMode> framing_ = FramingMode::unknown;
  // Set by `close`, and when `run` returns.
  std::atomic<bool> ended_ = false;
  WakePipe wake_;
  std::stop_source closing_;
  MCPStdioOutputQueue output_; // last: its writer thread uses the members above
};

} // namespace tavix
