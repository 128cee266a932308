#include "gateway/InstructionDeliveryState.h"

#include "support/Whitespace.h"

namespace tavix {

bool AppInstructionDeliveryState::deliverIfNeeded(const std::string &bundleIdentifier) {
  std::lock_guard guard(lock_);
  return deliveredBundleIDs_.insert(bundleIdentifier).second;
}

void AppInstructionDeliveryState::markDelivered(const std::string &bundleIdentifier) {
  std::lock_guard guard(lock_);
  deliveredBundleIDs_.insert(bundleIdentifier);
}

ToolResult ComputerUseInstructionDeliveryState::prependIfNeeded(ToolResult result,
                                                                const std::optional<std::string> &sessionId) {
  const auto trimmed = trimmedNonEmpty(sessionId ? &*sessionId : nullptr);
  if (!trimmed)
    return result;
  {
    std::lock_guard guard(lock_);
    if (!deliveredSessionIDs_.insert(*trimmed).second)
      return result;
  }
  result.content.insert(result.content.begin(), ToolResultContent::text(std::string(guide_)));
  return result;
}

} // namespace tavix
