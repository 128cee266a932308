#include "contracts/ComputerUseFailure.h"

namespace tavix {

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
