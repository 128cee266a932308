#include "client/ClientError.h"

#include <charconv>
#include <cmath>

namespace tavix {

std::string secondsText(double seconds) {
  char buffer[64];
  const auto written = std::to_chars(buffer, buffer + sizeof buffer, seconds);
  std::string text(buffer, written.ptr);
  // Whole numbers keep a fraction digit, as long as they are written out in full.
  if (std::isfinite(seconds) && text.find_first_of(".e") == std::string::npos)
    text += ".0";
  return text;
}

std::string ClientError::description() const {
  switch (kind_) {
  case Kind::runtimeLaunchFailed:
    return "Failed to launch TavixComputerUseRuntime: " + text_;
  case Kind::sendFailed:
    if (status_ == timedOutStatus)
      return "Apple Event send timed out after " + secondsText(timeoutSeconds_) + "s for " + text_ +
             "; TavixComputerUseRuntime did not reply";
    return "Apple Event send failed for " + text_ + " with status: " + std::to_string(status_);
  case Kind::automationNotAuthorized:
    return text_;
  case Kind::decodingFailed:
    return "Response decoding failed: " + text_;
  case Kind::runtimeNotRunning:
    return "TavixComputerUseRuntime is not running";
  case Kind::failedToBuildEvent:
    return "Failed to build Apple Event descriptor";
  case Kind::invalidResponse:
    return "Invalid response from runtime";
  }
  return {};
}

std::string ServerError::description() const {
  std::string text = "Server error " + std::to_string(code);
  if (message)
    text += ": " + *message;
  return text;
}

} // namespace tavix
