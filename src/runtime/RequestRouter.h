#pragma once
// Turns one request, its type and its JSON bytes, into the reply's JSON bytes: decodes the
// request record the type names, asks the desktop, and encodes the response record. A type
// no record has, or bytes that are not that record, answer a runtime error.
//
// Routing never waits: a next-update answers the capture's due update, else "timeout" at
// once, whatever its timeoutMs. The service waits for updates itself, outside its workers.

#include "runtime/RuntimeDesktop.h"
#include "support/JSON.h"

#include <string>
#include <string_view>

namespace tavix::runtime {

class RequestRouter {
public:
  explicit RequestRouter(RuntimeDesktop &desktop) : desktop_(desktop) {}

  RuntimeResult<std::string> route(std::string_view requestType, std::string_view body,
                                   const RuntimeCaller &caller) const;

  // The record `Request` of `body`, or the runtime error (errn -50) that route() answers
  // when the body is not one: for requests the service handles beside the router.
  template <typename Request> static RuntimeResult<Request> decode(std::string_view body) {
    const auto json = parseJSON(body);
    if (!json)
      return invalid(Request::requestType, "the body is not JSON");
    auto request = Request::fromJSON(*json);
    if (!request)
      return invalid(Request::requestType, request.error().description);
    return std::move(*request);
  }

  // errn -50 for a request of `requestType` that is not its record, because of `problem`.
  static tl::unexpected<RuntimeError> invalid(std::string_view requestType, const std::string &problem) {
    return runtimeError(errn::invalidRequest, "Invalid " + std::string(requestType) + ": " + problem);
  }

private:
  RuntimeDesktop &desktop_;
};

} // namespace tavix::runtime
