#pragma once
// The structured cause of a failed tool call, and the runtime's native error codes.

#include "contracts/ContractDecoding.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace tavix {

struct ComputerUseFailure {
  enum class Kind {
    unknown,
    invalidArgument,
    keyNotFound,
    invalidElement,
    invalidSecondaryAction,
    appNotFound,
    noActiveState,
    staleState,
    userIntervened,
    appNotAllowed,
    permissionsPending,
    permissionsNotGranted,
    cancelled,
    timeout,
    blockedURL,
    rateLimited,
    lockedUseDisabled,
    lockedUseUnavailable,
    lockedUsePaused,
    lockedUseUnlockFailed,
    lockedUseTimedOut,
  };

  Kind kind = Kind::unknown;
  std::optional<std::string> detail;
  std::optional<std::string> elementID;
  std::optional<int64_t> nativeCode;

  using R = ComputerUseFailure;
  static constexpr auto fields =
      std::make_tuple(field("kind", &R::kind), field("detail", &R::detail),
                      field("elementID", &R::elementID), field("nativeCode", &R::nativeCode));
  TAVIX_RECORD_JSON(ComputerUseFailure);

  // A cancelled task, and any error the bridge does not know. A ToolError reports its own
  // failure (ToolError::failure), an IPC error the one `failureFrom` gives.
  static ComputerUseFailure cancelled() { return {Kind::cancelled, {}, {}, {}}; }
  static ComputerUseFailure unknownError() { return {Kind::unknown, {}, {}, {}}; }
};

template <> struct RawValues<ComputerUseFailure::Kind> {
  static constexpr std::array<std::string_view, 21> names = {
      "unknown",           "invalidArgument",       "keyNotFound",
      "invalidElement",    "invalidSecondaryAction", "appNotFound",
      "noActiveState",     "staleState",            "userIntervened",
      "appNotAllowed",     "permissionsPending",    "permissionsNotGranted",
      "cancelled",         "timeout",               "blockedURL",
      "rateLimited",       "lockedUseDisabled",     "lockedUseUnavailable",
      "lockedUsePaused",   "lockedUseUnlockFailed", "lockedUseTimedOut"};
};

// The runtime app's native error codes.
enum class ComputerUseIPCError : int32_t {
  unknown = -10000,
  authorizationFailed = -10006,
  uiElementError = -10008,
  bundleIdLookupError = -10010,
  timeout = -10011,
  cancelled = -10012,
  urlBlocklist = -10015,
  rateLimited = -10016,
};

// The case's name, as "rateLimited".
std::string_view caseName(ComputerUseIPCError error);

// The failure an IPC error reports: its kind, and its code as `nativeCode`.
ComputerUseFailure failureFrom(ComputerUseIPCError error);

} // namespace tavix
