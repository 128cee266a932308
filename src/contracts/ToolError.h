#pragma once
// The bridge's own errors for tool calls: each has the text the model reads and the
// failure it reports.

#include "contracts/ComputerUseFailure.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tavix {

class ToolError {
public:
  enum class Kind {
    missingRequiredArgument,
    missingExpectedArgument,
    invalidScrollDirection,
    invalidMouseButton,
    invalidSecondaryAction,
    appNotFound,
    elementNotFound,
    axActionFailed,
    axSetValueFailed,
    staleAppState,
    actionRejected,
    ipcError,
    identified,
    pagesMustBeGreaterThanZero,
    mouseActionNotSupportedForMenuItems,
    cannotSetValueForNonSettableElement,
    missingTextToType,
    invalidDuration,
    noActiveAppState,
  };

  static ToolError missingRequiredArgument(std::string name) { return {Kind::missingRequiredArgument, std::move(name)}; }
  static ToolError missingExpectedArgument(std::string name) { return {Kind::missingExpectedArgument, std::move(name)}; }
  static ToolError invalidScrollDirection(std::string value) { return {Kind::invalidScrollDirection, std::move(value)}; }
  static ToolError invalidMouseButton(std::string value) { return {Kind::invalidMouseButton, std::move(value)}; }
  static ToolError invalidSecondaryAction(std::string requested, std::string element) {
    ToolError error{Kind::invalidSecondaryAction, std::move(requested)};
    error.second_ = std::move(element);
    return error;
  }
  static ToolError appNotFound(std::string app) { return {Kind::appNotFound, std::move(app)}; }
  static ToolError elementNotFound(int64_t index) { return {Kind::elementNotFound, std::to_string(index)}; }
  static ToolError axActionFailed(std::string action, int32_t code) {
    ToolError error{Kind::axActionFailed, std::move(action)};
    error.code_ = code;
    return error;
  }
  static ToolError axSetValueFailed(int32_t code) {
    ToolError error{Kind::axSetValueFailed, {}};
    error.code_ = code;
    return error;
  }
  static ToolError staleAppState(std::string app) { return {Kind::staleAppState, std::move(app)}; }
  static ToolError actionRejected(std::string message) { return {Kind::actionRejected, std::move(message)}; }
  static ToolError ipcError(std::string message) { return {Kind::ipcError, std::move(message)}; }
  static ToolError identified(std::string message, ComputerUseFailure failure) {
    ToolError error{Kind::identified, std::move(message)};
    error.failure_ = std::move(failure);
    return error;
  }
  static ToolError pagesMustBeGreaterThanZero() { return {Kind::pagesMustBeGreaterThanZero, {}}; }
  static ToolError mouseActionNotSupportedForMenuItems() { return {Kind::mouseActionNotSupportedForMenuItems, {}}; }
  static ToolError cannotSetValueForNonSettableElement() { return {Kind::cannotSetValueForNonSettableElement, {}}; }
  static ToolError missingTextToType() { return {Kind::missingTextToType, {}}; }
  static ToolError invalidDuration() { return {Kind::invalidDuration, {}}; }
  static ToolError noActiveAppState() { return {Kind::noActiveAppState, {}}; }

  Kind kind() const { return kind_; }
  // The text the model reads.
  std::string description() const;
  // The structured cause this error reports.
  ComputerUseFailure failure() const;

  friend bool operator==(const ToolError &, const ToolError &) = default;

private:
  ToolError(Kind kind, std::string first) : kind_(kind), first_(std::move(first)) {}

  Kind kind_;
  std::string first_;  // the name, value, app, message, requested action or index
  std::string second_; // the element of an invalid secondary action
  int32_t code_ = 0;
  ComputerUseFailure failure_;
};

// The failure a ToolError reports, beside failureFrom(ComputerUseIPCError).
inline ComputerUseFailure failureFrom(const ToolError &error) { return error.failure(); }

} // namespace tavix
