#pragma once
// The client's own errors: a request it could not write as JSON, and a reply it could not
// read as the request's response.

#include <string>

namespace tavix {

struct ComputerUseClientError {
  enum class Kind { decodingFailed, encodingFailed };

  Kind kind = Kind::decodingFailed;
  std::string requestType;
  std::string detail;

  static ComputerUseClientError decodingFailed(std::string requestType, std::string detail) {
    return {Kind::decodingFailed, std::move(requestType), std::move(detail)};
  }
  // A request holding a number JSON cannot carry (NaN or an infinity) or text that is not
  // UTF-8: sending a stand-in would make the runtime app act on something else.
  static ComputerUseClientError encodingFailed(std::string requestType) {
    return {Kind::encodingFailed, std::move(requestType), {}};
  }

  std::string description() const {
    if (kind == Kind::encodingFailed)
      return "Request encoding failed for " + requestType +
             ": it holds a number that JSON cannot carry or text that is not UTF-8";
    return "Response decoding failed for " + requestType + ": " + detail;
  }
  friend bool operator==(const ComputerUseClientError &, const ComputerUseClientError &) = default;
};

} // namespace tavix
