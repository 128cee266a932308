#include "contracts/ComputerUseFailure.h"

#include <utility>

namespace tavix {

std::string_view caseName(ComputerUseIPCError error) {
  using E = ComputerUseIPCError;
  static constexpr std::pair<E, std::string_view> names[] = {
      {E::unknown, "unknown"},         {E::authorizationFailed, "authorizationFailed"},
      {E::uiElementError, "uiElementError"}, {E::bundleIdLookupError, "bundleIdLookupError"},
      {E::timeout, "timeout"},         {E::cancelled, "cancelled"},
      {E::urlBlocklist, "urlBlocklist"}, {E::rateLimited, "rateLimited"},
  };
  for (const auto &[value, name] : names)
    if (value == error)
      return name;
  return "unknown";
}

ComputerUseFailure failureFrom(ComputerUseIPCError error) {
  using Kind = ComputerUseFailure::Kind;
  Kind kind = Kind::unknown;
  switch (error) {
  case ComputerUseIPCError::timeout:
    kind = Kind::timeout;
    break;
  case ComputerUseIPCError::cancelled:
    kind = Kind::cancelled;
    break;
  case ComputerUseIPCError::urlBlocklist:
    kind = Kind::blockedURL;
    break;
  case ComputerUseIPCError::rateLimited:
    kind = Kind::rateLimited;
    break;
  default:
    break;
  }
  return {kind, std::nullopt, std::nullopt, static_cast<int64_t>(error)};
}

} // namespace tavix
