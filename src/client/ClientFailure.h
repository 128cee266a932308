#pragma once
// Why a request to the runtime app produced no response: the error of the layer that
// failed, carried unchanged, so that callers can tell a runtime app that is not running,
// a refused permission, a time-out and a server error apart.

#include "client/ClientError.h"
#include "client/ComputerUseClientError.h"
#include "contracts/ComputerUseFailure.h"
#include "logging/LogValue.h"

#include <tl/expected.hpp>

#include <string>
#include <variant>

namespace tavix {

// The call's task was cancelled before its response came.
struct CancellationError {
  friend bool operator==(const CancellationError &, const CancellationError &) = default;
};

using ClientFailure =
    std::variant<ClientError, ServerError, ComputerUseIPCError, ComputerUseClientError, CancellationError>;

template <typename T> using ClientResult = tl::expected<T, ClientFailure>;

// The failure's text, as the model reads it inside an error result.
std::string describe(const ClientFailure &failure);

// The structured cause it reports: cancellation as "cancelled", an IPC error by its code,
// anything else as "unknown".
ComputerUseFailure failureFrom(const ClientFailure &failure);

// Whether the failure means the request got no answer in time: the time-out race's
// `timeout`, or a send that the system reports as timed out.
bool isRequestTimeout(const ClientFailure &failure);

// The failure as a log line shows it: its type and a code, never its text, which may
// quote what the user typed.
LogError logError(const ClientFailure &failure);

} // namespace tavix
