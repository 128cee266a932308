#pragma once
// What the client needs of a way to reach the runtime app: send the JSON bytes of one
// request under its type name and get the reply's bytes back.

#include "client/ClientFailure.h"

#include <optional>
#include <string>
#include <string_view>

namespace tavix {

class ComputerUseRequestTransport {
public:
  virtual ~ComputerUseRequestTransport() = default;

  // A short name for logs and diagnostics.
  virtual std::string_view transportName() const = 0;

  // Whether a runtime app is selected and the transport believes it is talking to it.
  virtual bool hasEstablishedConnection() const { return false; }

  // Sends one request and returns the reply's JSON bytes. Without a time-out the
  // transport applies its own per-request default and retry policy; with one it sends
  // once. Blocks the calling thread, and ends early when the call's cancellation (in the
  // current request context) fires. The bytes are handed over, so that a transport that
  // keeps them past the call (a send it stopped waiting for) need not copy them.
  virtual ClientResult<std::string> send(std::string_view requestType, std::string requestData,
                                         std::optional<double> timeoutSeconds) = 0;

  ClientResult<std::string> send(std::string_view requestType, std::string requestData) {
    return send(requestType, std::move(requestData), std::nullopt);
  }
};

} // namespace tavix
