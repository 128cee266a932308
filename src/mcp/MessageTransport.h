#pragma once
// The seam between a connection's framing and what the messages mean: whole messages
// come in to a handler and whole messages go out. A transport knows nothing of JSON-RPC;
// the dispatcher above it knows nothing of descriptors or framing.

#include <cstddef>
#include <stop_token>
#include <string>
#include <string_view>

namespace tavix {

class MessageTransport {
public:
  class MessageHandler {
  public:
    virtual ~MessageHandler() = default;
    // One message's bytes, valid only during the call. At least `messagePadding` bytes
    // after them are readable too, so that a parser that reads ahead can take the
    // message where it lies instead of copying it.
    virtual void onMessage(std::string_view message) = 0;
  };

  static constexpr size_t messagePadding = 64;

  virtual ~MessageTransport() = default;

  // Hands every message read to `handler`, in order and on the calling thread, until
  // the input ends or the transport is closed.
  virtual void run(MessageHandler &handler) = 0;

  // Queues one message for writing, framed like the input. Safe from any thread while
  // the transport exists; a transport that cannot take it closes itself.
  virtual void send(std::string message) = 0;

  // Ends `run` soon, and drops whatever is still waiting to be written. Safe from any
  // thread, and more than once.
  virtual void close() = 0;

  // Fires when the transport closes (by `close`, or because its output failed), on the
  // closing thread, so that work for the connection stops at once. Not at end of input.
  virtual std::stop_token closing() const = 0;
};

} // namespace tavix
