#pragma once
// Values that belong to the request a thread is serving: its correlation id (which every
// log line carries) and its cancellation. A context is immutable; work that moves to
// another thread captures `current()` and installs it there with `WithRequestContext`.

#include <memory>
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

private:
  std::string correlationID_;
  std::stop_token cancellation_;
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
