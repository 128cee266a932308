#pragma once
// What advice the model has already been given in this process: each app's instructions
// once, and the general guide once per host session. One operation at a time, so that
// two concurrent calls never both deliver.

#include "contracts/ToolResult.h"

#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace tavix {

class AppInstructionDeliveryState {
public:
  // True exactly once per app.
  bool deliverIfNeeded(const std::string &bundleIdentifier);
  void markDelivered(const std::string &bundleIdentifier);

private:
  std::mutex lock_;
  std::set<std::string, std::less<>> deliveredBundleIDs_;
};

class ComputerUseInstructionDeliveryState {
public:
  // `guide` goes in front of every session's first result.
  explicit ComputerUseInstructionDeliveryState(std::string_view guide) : guide_(guide) {}

  // `result` with the guide as its first item when `sessionId` (trimmed) is new; unchanged
  // without a session.
  ToolResult prependIfNeeded(ToolResult result, const std::optional<std::string> &sessionId);

private:
  const std::string_view guide_;
  std::mutex lock_;
  std::set<std::string, std::less<>> deliveredSessionIDs_;
};

} // namespace tavix
