#pragma once
// Values that belong to the request a thread is serving: its correlation id (which every
// log line carries), its cancellation, and the host session its tool call acts for. A
// context is immutable; a scope that adds a value installs a derived copy, and work that
// moves to another thread captures `current()` and installs it there with
// `WithRequestContext`.

#include <memory>
#include <optional>
#include <stop_token>
#include <string>

namespace tavix {

class RequestContext {
public:
  RequestContext() = default;
  RequestContext(std::string correlationID, std::stop_token cancellation)
      : correlationID_(std::move(correlationID)), cancellation_(std::move(cancellation)) {}

  // The context of the calling thread; an empty one outside any request.
  static std::shared_ptr<const RequestContext> current();

  // The request's correlation id, also the request id of its log lines; empty outside one.
  const std::string &correlationID() const { return correlationID_; }
  // Fires when the host cancels the request or the connection stops.
  const std::stop_token &cancellation() const { return cancellation_; }
  bool isCancelled() const { return cancellation_.stop_requested(); }
  // The host chat session of the tool call, which every request it sends carries.
  const std::optional<std::string> &sessionID() const { return sessionID_; }

  // This context with one value replaced.
  std::shared_ptr<const RequestContext> withCorrelationID(std::string correlationID) const;
  std::shared_ptr<const RequestContext> withSessionID(std::optional<std::string> sessionID) const;

private:
  std::string correlationID_;
  std::stop_token cancellation_;
  std::optional<std::string> sessionID_;
};

// Installs a context for the life of this object on the current thread, then restores
// the previous one.
class WithRequestContext {
public:
  explicit WithRequestContext(std::shared_ptr<const RequestContext> context);
  ~WithRequestContext();
  WithRequestContext(const WithRequestContext &) = delete;
  WithRequestContext &operator=(const WithRequestContext &) = delete;

private:
  std::shared_ptr<const RequestContext> previous_;
};

} // namespace tavix
