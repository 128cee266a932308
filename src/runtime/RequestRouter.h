#pragma once
// Turns one request, its type and its JSON bytes, into the reply's JSON bytes: decodes the
// request record the type names, asks the desktop, and encodes the response record. A type
// no record has, or bytes that are not that record, answer a runtime error.

#include "runtime/RuntimeDesktop.h"

#include <string>
#include <string_view>

namespace tavix::runtime {

class RequestRouter {
public:
  explicit RequestRouter(RuntimeDesktop &desktop) : desktop_(desktop) {}

  RuntimeResult<std::string> route(std::string_view requestType, std::string_view body,
                                   const RuntimeCaller &caller) const;

private:
  RuntimeDesktop &desktop_;
};

} // namespace tavix::runtime
