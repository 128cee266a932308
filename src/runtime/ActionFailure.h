#pragma once
// Why an action on a virtual app did nothing: the text the model reads and the failure
// the error result reports.

#include "contracts/ComputerUseFailure.h"

#include <tl/expected.hpp>

#include <string>

namespace tavix::runtime {

struct ActionFailure {
  ComputerUseFailure failure;
  std::string message;

  static ActionFailure of(ComputerUseFailure::Kind kind, std::string message) {
    return {ComputerUseFailure{kind, {}, {}, {}}, std::move(message)};
  }
};

// A confirmation of what an action did, or why it did nothing.
using ActionOutcome = tl::expected<std::string, ActionFailure>;

inline tl::unexpected<ActionFailure> actionFailed(ComputerUseFailure::Kind kind, std::string message) {
  return tl::unexpected(ActionFailure::of(kind, std::move(message)));
}

} // namespace tavix::runtime
