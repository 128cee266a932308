#include "contracts/ToolError.h"

namespace tavix {

std::string ToolError::description() const {
  switch (kind_) {
  case Kind::missingRequiredArgument:
    return "Missing required argument: " + first_;
  case Kind::missingExpectedArgument:
    return "Missing expected argument '" + first_ + "'";
  case Kind::invalidScrollDirection:
    return "Invalid scroll direction: " + first_;
  case Kind::invalidMouseButton:
    return "Invalid mouse button: " + first_;
  case Kind::invalidSecondaryAction:
    return first_ + " is not a valid secondary action for " + second_;
  case Kind::appNotFound:
    return "App not found: " + first_;
  case Kind::elementNotFound:
    return "Element not found at index: " + first_;
  case Kind::axActionFailed:
    return "AX action " + first_ + " failed with code: " + std::to_string(code_);
  case Kind::axSetValueFailed:
    return "AX set value failed with code: " + std::to_string(code_);
  case Kind::staleAppState:
    return "The user changed '" + first_ +
           "'. Re-query the latest state with `get_app_state` before sending more actions.";
  case Kind::actionRejected:
  case Kind::identified:
    return first_;
  case Kind::ipcError:
    return "IPC error: " + first_;
  case Kind::pagesMustBeGreaterThanZero:
    return "pages must be > 0";
  case Kind::mouseActionNotSupportedForMenuItems:
    return "Mouse action not supported for menu items";
  case Kind::cannotSetValueForNonSettableElement:
    return "Cannot set a value for an element that is not settable";
  case Kind::missingTextToType:
    return "Missing text to type";
  case Kind::invalidDuration:
    return "Invalid duration";
  case Kind::noActiveAppState:
    return "No active app state. Call get_app_state first.";
  }
  return {};
}

ComputerUseFailure ToolError::failure() const {
  using FailureKind = ComputerUseFailure::Kind;
  const auto only = [](FailureKind kind) { return ComputerUseFailure{kind, {}, {}, {}}; };
  switch (kind_) {
  case Kind::missingRequiredArgument:
  case Kind::missingExpectedArgument:
  case Kind::invalidScrollDirection:
  case Kind::invalidMouseButton:
  case Kind::pagesMustBeGreaterThanZero:
  case Kind::missingTextToType:
  case Kind::invalidDuration:
    return only(FailureKind::invalidArgument);
  case Kind::invalidSecondaryAction:
    return {FailureKind::invalidSecondaryAction, first_, second_, {}};
  case Kind::appNotFound:
    return only(FailureKind::appNotFound);
  case Kind::elementNotFound:
    return {FailureKind::invalidElement, {}, first_, {}};
  case Kind::staleAppState:
    return only(FailureKind::staleState);
  case Kind::identified:
    return failure_;
  case Kind::noActiveAppState:
    return only(FailureKind::noActiveState);
  // Deliberately uneven: these report no more than that something failed.
  case Kind::axActionFailed:
  case Kind::axSetValueFailed:
  case Kind::actionRejected:
  case Kind::ipcError:
  case Kind::mouseActionNotSupportedForMenuItems:
  case Kind::cannotSetValueForNonSettableElement:
    break;
  }
  return only(FailureKind::unknown);
}

} // namespace tavix
