#pragma once
// The errors of a transport to the runtime app: its own (`ClientError`), and those the
// runtime app reports in its reply (`ServerError`). Each has the text the model and the
// logs read.

#include <cstdint>
#include <optional>
#include <string>

namespace tavix {

class ClientError {
public:
  enum class Kind {
    runtimeLaunchFailed,
    sendFailed,
    automationNotAuthorized,
    decodingFailed,
    runtimeNotRunning,
    failedToBuildEvent,
    invalidResponse,
  };

  // The operating system's status for an event that got no reply in time.
  static constexpr int32_t timedOutStatus = -1712;

  static ClientError runtimeLaunchFailed(std::string reason) {
    return {Kind::runtimeLaunchFailed, std::move(reason)};
  }
  static ClientError sendFailed(int32_t status, std::string requestType, double timeoutSeconds) {
    ClientError error{Kind::sendFailed, std::move(requestType)};
    error.status_ = status;
    error.timeoutSeconds_ = timeoutSeconds;
    return error;
  }
  static ClientError automationNotAuthorized(std::string message) {
    return {Kind::automationNotAuthorized, std::move(message)};
  }
  static ClientError decodingFailed(std::string reason) { return {Kind::decodingFailed, std::move(reason)}; }
  static ClientError runtimeNotRunning() { return {Kind::runtimeNotRunning, {}}; }
  static ClientError failedToBuildEvent() { return {Kind::failedToBuildEvent, {}}; }
  static ClientError invalidResponse() { return {Kind::invalidResponse, {}}; }

  Kind kind() const { return kind_; }
  // The send status of `sendFailed`; 0 for every other kind.
  int32_t status() const { return status_; }
  std::string description() const;
  friend bool operator==(const ClientError &, const ClientError &) = default;

private:
  ClientError(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}

  Kind kind_;
  std::string text_; // the reason, message or request type
  int32_t status_ = 0;
  double timeoutSeconds_ = 0;
};

// An error the runtime app answered with instead of a response.
struct ServerError {
  int32_t code = 0;
  std::optional<std::string> message;

  std::string description() const;
  friend bool operator==(const ServerError &, const ServerError &) = default;
};

// A number of seconds as the time-out texts show it: the shortest decimal form that reads
// back as the same double, with ".0" on whole numbers ("120.0", "2.5", "1e+20").
std::string secondsText(double seconds);

} // namespace tavix
